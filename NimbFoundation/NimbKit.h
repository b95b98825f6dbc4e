// NimbKit: the kit class. Its class operations come in extensions, one file
// pair each, which NimbKit inherits so that every operation is called as
// NimbKit::name(...):
//   NimbKit+Autolayout  constraint helpers: find, read and set a view's
//                       constraint constants, collapse and restore views,
//                       measure and size views (NimbKitAutolayout).
//   NimbKit+String      a character count, pattern tests, a lower-case MD5
//                       and request parameters (NimbKitString).
//   NimbKit+Color       a colour from "#RRGGBB" text (NimbKitColor).
//   NimbKit+Runtime     exchanging method implementations (NimbKitRuntime).
//   NimbKit+Image       photos redrawn upright, one-pixel colour images
//                       (NimbKitImage).
//   NimbKit+ImagePicker picking a photo through the desktop's file chooser,
//                       instance operations (NimbKitImagePicker).
// NimbKit is a class of the object runtime ("NimbKit", under "Object"). The
// String, Color and Runtime operations are its class methods there, and the
// static functions send them through the runtime, so an exchange of one
// (swizzleClassMethod) changes what the kit runs.
// The kit keeps one shared instance, made on first use under a once-only
// guard and never destroyed.
//
// Thread rule: sharedInstance() from any thread; each extension states its
// own rule.
#pragma once

#include <NimbFoundation/Export.h>
#include <NimbFoundation/NimbKit+Autolayout.h>
#include <NimbFoundation/NimbKit+Color.h>
#include <NimbFoundation/NimbKit+Image.h>
#include <NimbFoundation/NimbKit+ImagePicker.h>
#include <NimbFoundation/NimbKit+Runtime.h>
#include <NimbFoundation/NimbKit+String.h>
#include <NimbFoundation/Platform/Runtime/Object.h>

namespace NIMB_EXPORT nimb {

class NimbKit : public Object,
                public NimbKitAutolayout,
                public NimbKitString,
                public NimbKitColor,
                public NimbKitRuntime,
                public NimbKitImage,
                public NimbKitImagePicker {
 public:
  // The runtime class "NimbKit", with the extensions' class methods.
  static Class* classObject();
  static NimbKit& sharedInstance();

  NimbKit(const NimbKit&) = delete;
  NimbKit& operator=(const NimbKit&) = delete;

 private:
  NimbKit();
  ~NimbKit() = default;
};

}  // namespace nimb
