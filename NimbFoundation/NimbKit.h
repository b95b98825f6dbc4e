// NimbKit: the kit class. Its class operations come in extensions, one file
// pair each, which NimbKit inherits so that every operation is called as
// NimbKit::name(...):
//   NimbKit+Autolayout  constraint helpers: find, read and set a view's
//                       constraint constants, collapse and restore views,
//                       measure and size views (NimbKitAutolayout).
//   NimbKit+String      a character count, pattern tests, a lower-case MD5
//                       and request parameters (NimbKitString).
//   NimbKit+Color       a colour from "#RRGGBB" text (NimbKitColor).
// The kit keeps one shared instance, made on first use under a once-only
// guard and never destroyed.
//
// Thread rule: sharedInstance() from any thread; each extension states its
// own rule.
#pragma once

#include <NimbFoundation/Export.h>
#include <NimbFoundation/NimbKit+Autolayout.h>
#include <NimbFoundation/NimbKit+Color.h>
#include <NimbFoundation/NimbKit+String.h>

namespace NIMB_EXPORT nimb {

class NimbKit : public NimbKitAutolayout, public NimbKitString, public NimbKitColor {
 public:
  static NimbKit& sharedInstance();

  NimbKit(const NimbKit&) = delete;
  NimbKit& operator=(const NimbKit&) = delete;

 private:
  NimbKit() = default;
  ~NimbKit() = default;
};

}  // namespace nimb
