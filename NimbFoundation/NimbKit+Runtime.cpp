#include <NimbFoundation/NimbKit+Runtime.h>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Env/SystemLog.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>

namespace nimb {

namespace {

// Looks up the methods of `target` (O) and `replacement` (S) on `cls`,
// inherited included, then adds or exchanges as the header says.
bool swizzle(Class* cls, Selector target, Selector replacement, const char* kind) {
  if (!cls || !target || !replacement) {
    SystemLog::log("NimbKit: cannot swizzle %s method %s with %s of class %s", kind,
                   target ? target.name() : "(null selector)",
                   replacement ? replacement.name() : "(null selector)", class_getName(cls));
    return false;
  }
  Method* targetMethod = class_getInstanceMethod(cls, target);
  Method* replacementMethod = class_getInstanceMethod(cls, replacement);
  if (!targetMethod || !replacementMethod) {
    SystemLog::log("NimbKit: cannot swizzle %s method %s of class %s: no method for %s", kind,
                   target.name(), class_getName(cls),
                   targetMethod ? replacement.name() : target.name());
    return false;
  }
  IMP targetImp = method_getImplementation(targetMethod);
  IMP replacementImp = method_getImplementation(replacementMethod);
  // Encodings are interned: equal texts are the same pointer.
  if (targetImp.typeEncoding() != replacementImp.typeEncoding()) {
    SystemLog::log(
        "NimbKit: cannot swizzle %s method %s with %s of class %s: signatures "
        "\"%s\" and \"%s\" differ",
        kind, target.name(), replacement.name(), class_getName(cls), targetImp.typeEncoding(),
        replacementImp.typeEncoding());
    return false;
  }
  if (class_addMethod(cls, target, replacementImp, replacementImp.typeEncoding())) {
    class_replaceMethod(cls, replacement, targetImp, targetImp.typeEncoding());
  } else {
    method_exchangeImplementations(targetMethod, replacementMethod);
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
