// NimbKitRuntime: the Runtime extension of the kit class NimbKit (call these
// as NimbKit::swizzleInstanceMethod(...)). Exchanges two method
// implementations of a class in the object runtime: afterwards, sending
// originalSelector runs the implementation swizzledSelector had, and
// sending swizzledSelector runs the one originalSelector had. This is how a
// method is wrapped: the wrapper, added under swizzledSelector, sends
// swizzledSelector to reach the implementation it took the place of.
//
// For a class C, the selectors O (originalSelector) and S (swizzledSelector):
//   - both methods are looked up on C, inherited ones included;
//   - when C has no method of its own for O (only an inherited one), C gets
//     one for O with S's implementation, and C's method for S is set to
//     O's implementation: C gets its own pair and the superclass that
//     defines O keeps its method untouched;
//   - when C has its own method for O, the two methods exchange their
//     implementations.
// The class operations are themselves class methods of NimbKit, sent through
// the runtime; the NimbKit_ functions do the work.
//
// Refused, changing nothing and answering false with one line on the system
// log: a null class or selector, a selector for which C has no method
// at all (own or inherited), and two methods whose implementations have
// different signatures (type encodings): exchanged, neither selector could
// be sent any more.
//
// Thread rule: exchanges change process-wide method tables. Do them once,
// at start-up, on one thread, before other threads send the messages
// concerned (the tables stay consistent, but a message sent meanwhile may
// run either implementation).
#pragma once

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Runtime/Object.h>

namespace NIMB_EXPORT nimb {

class NimbKitRuntime {
 public:
  // Exchanges class methods: C is the run-time class of `classObject`
  // (object_getClass; for a Class, its metaclass, whose methods are the
  // class methods).
  static bool swizzleClassMethod(Object* classObject, Selector originalSelector,
                                 Selector swizzledSelector);
  // Exchanges instance methods of `cls` itself.
  static bool swizzleInstanceMethod(Class* cls, Selector originalSelector,
                                    Selector swizzledSelector);
};

bool NimbKit_swizzleClassMethod(Object* classObject, Selector originalSelector,
                                Selector swizzledSelector);
bool NimbKit_swizzleInstanceMethod(Class* cls, Selector originalSelector,
                                   Selector swizzledSelector);

}  // namespace nimb
