// VQSharedUDID: one 40-hex-digit device identifier shared by every
// application on the machine that embeds the kit, without any identifier of
// the machine itself.
//
// Each application keeps the reliable copy in its user defaults (key
// "SharedUDID", a record dictionary) and publishes a redundant copy in one of
// 100 persistent named pasteboards, "org.SharedUDID.slot.0" to
// "org.SharedUDID.slot.99", that every application can read. The first
// request of a process polls the slots, elects the identifier most of them
// hold, adopts it when the application has none of its own, claims the
// lowest free slot unless the application still owns one, and caches the
// answer for the rest of the process. An opted-out application answers
// forty zeros.
//
// Deliberate behaviour kept as it is:
//   - the application's own identifier is read from the top-level defaults
//     key "SharedUDID_appUID", which this class never writes: unless the host
//     stores it there, each process works with a new application identifier
//     and finds its slot through the record's "SharedUDID_slot";
//   - an opt-out date found in the application's slot only counts while the
//     application is already opted out by its record;
//   - the local identifier wins over the slots; a different elected one only
//     sets error code 2.
// Ties in the election go to the identifier that sorts last. A "SharedUDID"
// defaults value that is not a dictionary is left untouched: the answer is
// still computed, but no slot is claimed for it and nothing is saved.
//
// Called by VQProtocolData::sharedUDIDString() and by host code. Thread
// rule: any thread; concurrent first calls may each run the determination,
// the last one to finish fills the cache (which is guarded by a lock).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Storage/Pasteboard.h>

namespace NIMB_EXPORT nimb {

class VQSharedUDID {
 public:
  static constexpr const char* kErrorDomain = "org.SharedUDID";
  static constexpr const char* kPasteboardType = "org.SharedUDID";
  static constexpr const char* kSlotPrefix = "org.SharedUDID.slot.";
  static constexpr int kSlotCount = 100;

  // The identifier: 40 lower-case hex digits, or forty "0" when opted out.
  static std::string value();
  // The same; `error`, when given, receives the informational record:
  // code 0 (retrieved, or answered from the cache), 1 (opted out) or
  // 2 (the slots disagree with the stored identifier).
  static std::string valueWithError(Error* error);
  // Opts this application out (true) or back in (false), then forgets the
  // cached answer so the next value() decides again.
  static void setOptOut(bool optOut);

  // The identifier most slots hold, given what each slot holds; ties go to
  // the identifier that sorts last; none when no slot holds one.
  static std::optional<std::string> _elect(const std::vector<std::string>& identifiers);
  // A new identifier: MD5 of a new UUID string, then 32 random bits.
  static std::string _generateFreshSharedUDID();
  // The dictionary a slot holds; empty for no data or a foreign payload.
  static Dictionary _getDictFromPasteboard(const Pasteboard& pasteboard);
  // Replaces the slot's payload by the archive of `dict`; a slot that
  // cannot be written is logged (VQUtils::outLog).
  static void _setDict(const Dictionary& dict, Pasteboard& pasteboard);
};

}  // namespace nimb
