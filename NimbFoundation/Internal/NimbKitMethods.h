// Registration of NimbKit's class methods, one function per extension, each
// defined beside the extension's operations. NimbKit::classObject() calls
// them once, when it registers the class.
#pragma once

#include <NimbFoundation/Platform/Runtime/Object.h>

namespace nimb::detail {

void registerNimbKitStringMethods(Class* metaclass);
void registerNimbKitColorMethods(Class* metaclass);
void registerNimbKitImageMethods(Class* metaclass);

}  // namespace nimb::detail
