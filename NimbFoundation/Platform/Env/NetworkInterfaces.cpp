#include <NimbFoundation/Platform/Env/NetworkInterfaces.h>

#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

std::optional<std::vector<InterfaceAddress>> NetworkInterfaces::list() {
  return Env::current()->interfaceAddresses();
}

unsigned NetworkInterfaces::indexOf(std::string_view name) {
  return Env::current()->interfaceIndex(name);
}

NetworkInterfaces::HardwareAddress NetworkInterfaces::hardwareAddress(unsigned index) {
  return Env::current()->hardwareAddress(index);
}

}  // namespace nimb
