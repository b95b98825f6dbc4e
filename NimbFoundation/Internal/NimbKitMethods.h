// Registration of NimbKit's methods, one function per extension, each
// defined beside the extension's operations. NimbKit::classObject() calls
// them once, when it registers the class: class methods on the metaclass,
// instance methods on the class.
#pragma once

#include <NimbFoundation/Platform/Runtime/Object.h>

namespace nimb::detail {

void registerNimbKitStringMethods(Class* metaclass);
void registerNimbKitColorMethods(Class* metaclass);
void registerNimbKitImageMethods(Class* metaclass);
// The picker delegate's "imagePickerController:didFinishPickingMediaWithInfo:".
void registerNimbKitImagePickerMethods(Class* cls);

}  // namespace nimb::detail
