#include <NimbFoundation/NimbKit+Runtime.h>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

namespace {

// Looks both methods up on `cls` (inherited included), then adds or
// exchanges as the header says.
bool swizzle(Class* cls, Selector original, Selector swizzled, const char* kind) {
  if (!cls || !original || !swizzled) {
    SystemLog::log("NimbKit: cannot swizzle %s method %s with %s of class %s", kind,
                   original ? original.name() : "(null selector)",
                   swizzled ? swizzled.name() : "(null selector)", class_getName(cls));
    return false;
  }
  Method* originalMethod = class_getInstanceMethod(cls, original);
  Method* swizzledMethod = class_getInstanceMethod(cls, swizzled);
  if (!originalMethod || !swizzledMethod) {
    SystemLog::log("NimbKit: cannot swizzle %s method %s of class %s: no method for %s", kind,
                   original.name(), class_getName(cls),
                   originalMethod ? swizzled.name() : original.name());
    return false;
  }
  IMP originalImp = method_getImplementation(originalMethod);
  IMP swizzledImp = method_getImplementation(swizzledMethod);
  // Encodings are interned: equal texts are the same pointer.
  if (originalImp.typeEncoding() != swizzledImp.typeEncoding()) {
    SystemLog::log(
        "NimbKit: cannot swizzle %s method %s with %s of class %s: signatures "
        "\"%s\" and \"%s\" differ",
        kind, original.name(), swizzled.name(), class_getName(cls), originalImp.typeEncoding(),
        swizzledImp.typeEncoding());
    return false;
  }
  if (class_addMethod(cls, original, swizzledImp, swizzledImp.typeEncoding())) {
    class_replaceMethod(cls, swizzled, originalImp, originalImp.typeEncoding());
  } else {
    method_exchangeImplementations(originalMethod, swizzledMethod);
  }
  return true;
}

}  // namespace

bool NimbKit_swizzleClassMethod(Object* classObject, Selector originalSelector,
                                Selector swizzledSelector) {
  return swizzle(object_getClass(classObject), originalSelector, swizzledSelector, "class");
}

bool NimbKit_swizzleInstanceMethod(Class* cls, Selector originalSelector,
                                   Selector swizzledSelector) {
  return swizzle(cls, originalSelector, swizzledSelector, "instance");
}

bool NimbKitRuntime::swizzleClassMethod(Object* classObject, Selector originalSelector,
                                        Selector swizzledSelector) {
  static const Selector selector =
      sel_registerName("swizzleClassMethod:originalSelector:swizzledSelector:");
  return msgSend<bool>(NimbKit::classObject(), selector, classObject, originalSelector,
                       swizzledSelector);
}

bool NimbKitRuntime::swizzleInstanceMethod(Class* cls, Selector originalSelector,
                                           Selector swizzledSelector) {
  static const Selector selector =
      sel_registerName("swizzleInstanceMethod:originalSelector:swizzledSelector:");
  return msgSend<bool>(NimbKit::classObject(), selector, cls, originalSelector, swizzledSelector);
}

}  // namespace nimb
