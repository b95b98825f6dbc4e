#include <NimbFoundation/NimbKit.h>

#include <new>

#include <NimbFoundation/Internal/NimbKitMethods.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>

namespace nimb {

Class* NimbKit::classObject() {
  static Class* const cls = [] {
    Class* c = detail::registerKitClass("NimbKit", Object::classObject());
    Class* meta = object_getClass(c);
    detail::addClassMethod(meta, sel_registerName("sharedInstance"),
                           []() -> Object* { return &sharedInstance(); });
    detail::addClassMethod(
        meta, sel_registerName("swizzleClassMethod:originalSelector:swizzledSelector:"),
        [](Object* object, Selector target, Selector replacement) {
          return NimbKit_swizzleClassMethod(object, target, replacement);
        });
    detail::addClassMethod(
        meta, sel_registerName("swizzleInstanceMethod:originalSelector:swizzledSelector:"),
        [](Class* cls, Selector target, Selector replacement) {
          return NimbKit_swizzleInstanceMethod(cls, target, replacement);
        });
    detail::registerNimbKitStringMethods(meta);
    detail::registerNimbKitColorMethods(meta);
    detail::registerNimbKitImageMethods(meta);
    detail::registerNimbKitImagePickerMethods(c);
    return c;
  }();
  return cls;
}

NimbKit::NimbKit() : Object(classObject()) {}

NimbKit& NimbKit::sharedInstance() {
  // Made once (a function-local static is guarded) and never destroyed, so
  // it stays usable from other objects' destructors at exit.
  static NimbKit* const instance = new NimbKit();
  return *instance;
}

}  // namespace nimb
