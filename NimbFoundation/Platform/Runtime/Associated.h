// Associated values: extra values an object carries under keys of the
// caller's choosing, without the object's class declaring them.
//
//   static const char kMyKey = 0;  // its address is the key
//   objc_setAssociatedObject(object, &kMyKey, std::string("hello"));
//   auto value = objc_getAssociatedObject(object, &kMyKey);  // a std::any
//
// A value is copied when stored (std::any holds its own copy) and copied
// again when read, so neither side shares state with the table. It lives
// until it is replaced, removed (an empty std::any removes, as does
// objc_removeAssociatedObjects) or the process ends: the table does not
// watch objects die, so an object that carries values and is destroyed must
// call objc_removeAssociatedObjects first (a later object at the same
// address would otherwise find them). The kit object carries its values for
// the life of the process, which is how the kit uses this.
//
// Thread rule: any thread; one lock guards the table, and the values are
// copied and destroyed outside it.
#pragma once

#include <any>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Runtime/Object.h>

namespace NIMB_EXPORT nimb {

// Stores a copy of `value` under `key`; an empty value removes the key. A
// null object or key does nothing.
void objc_setAssociatedObject(const Object* object, const void* key, std::any value);
// A copy of the value under `key`; an empty std::any when there is none.
std::any objc_getAssociatedObject(const Object* object, const void* key);
// Removes every value the object carries.
void objc_removeAssociatedObjects(const Object* object);

}  // namespace nimb
