#include <NimbFoundation/NimbKit.h>

#include <new>

namespace nimb {

NimbKit& NimbKit::sharedInstance() {
  // Made once (a function-local static is guarded) and never destroyed, so
  // it stays usable from other objects' destructors at exit.
  static NimbKit* const instance = new NimbKit();
  return *instance;
}

}  // namespace nimb
