#include <NimbFoundation/Utils/VQSharedUDID.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include <NimbFoundation/Platform/Core/DateFormatter.h>
#include <NimbFoundation/Platform/Core/Digest.h>
#include <NimbFoundation/Platform/Core/UUID.h>
#include <NimbFoundation/Platform/Storage/KeyedArchive.h>
#include <NimbFoundation/Platform/Storage/UserDefaults.h>
#include <NimbFoundation/Utils/VQUtils.h>

namespace nimb {

namespace {

constexpr const char* kRecordKey = "SharedUDID";
constexpr const char* kIdentifierKey = "SharedUDID";
constexpr const char* kAppUIDKey = "SharedUDID_appUID";
constexpr const char* kCreatedKey = "SharedUDID_createdTS";
constexpr const char* kSlotKey = "SharedUDID_slot";
constexpr const char* kOptOutKey = "SharedUDID_optOutTS";

std::mutex gCacheMutex;
std::optional<std::string> gSessionCache;  // kSharedUDIDSessionCache

Error makeError(long code, std::string description) {
  Error error;
  error.domain = VQSharedUDID::kErrorDomain;
  error.code = code;
  error.userInfo["description"] = std::move(description);
  return error;
}

const std::string* stringAt(const Dictionary& dict, std::string_view key) {
  auto found = dict.find(key);
  return found == dict.end() ? nullptr : found->second.asString();
}

// The value under `key` when present, whatever its type.
std::optional<Value> valueAt(const Dictionary& dict, std::string_view key) {
  auto found = dict.find(key);
  if (found == dict.end()) return std::nullopt;
  return found->second;
}

// A store that could not be written leaves the identifier answered but not
// kept; the console log says why.
void logFailure(const char* what, const Result<void>& result) {
  if (!result) VQUtils::outLog("SharedUDID: cannot %s: %s", what, result.error().message().c_str());
}

// How the platform prints a date inside a message: "2026-11-21 09:30:00 +0000".
std::string describe(const Value& v) {
  if (const Date* d = v.asDate())
    return DateFormatter("yyyy-MM-dd HH:mm:ss Z", "GMT").stringFromDate(*d);
  if (const std::string* s = v.asString()) return *s;
  return "(null)";
}

}  // namespace

std::string VQSharedUDID::_generateFreshSharedUDID() {
  const std::string uuid = UUID::create().UUIDString();
  const auto digest = Digest::md5(uuid);
  char out[41];
  std::snprintf(out, sizeof out,
                "%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%08lx", digest[0],
                digest[1], digest[2], digest[3], digest[4], digest[5], digest[6], digest[7],
                digest[8], digest[9], digest[10], digest[11], digest[12], digest[13], digest[14],
                digest[15], static_cast<unsigned long>(random32()));
  return out;
}

Dictionary VQSharedUDID::_getDictFromPasteboard(const Pasteboard& pasteboard) {
  auto data = pasteboard.dataForPasteboardType(kPasteboardType);
  if (!data) return {};
  auto object = KeyedArchive::unarchiveObjectWithData(*data);
  if (!object || !object->asDictionary()) return {};
  return *object->asDictionary();
}

void VQSharedUDID::_setDict(const Dictionary& dict, Pasteboard& pasteboard) {
  if (auto archive = KeyedArchive::archivedDataWithRootObject(Value(dict))) {
    logFailure("write the slot", pasteboard.setData(*archive, kPasteboardType));
  }
}

std::string VQSharedUDID::value() {
  return valueWithError(nullptr);
}

namespace {

// What this application's defaults and slot say about it.
struct LocalState {
  std::string appUID;                     // this application's identifier for this run
  std::optional<Value> record;            // the "SharedUDID" defaults value, as stored
  std::optional<std::string> identifier;  // the record's identifier
  std::optional<std::string> ownSlot;     // the slot the application owns
  std::optional<Value> optOutDate;        // present while opted out
  bool optedOut = false;
};

// What the slots hold.
struct SlotPoll {
  std::vector<std::string> identifiers;  // one per slot that holds one
  std::optional<std::string> freeSlot;   // the lowest slot holding no identifier
};

LocalState readLocalState(UserDefaults& defaults) {
  LocalState state;
  if (auto stored = defaults.objectForKey(kAppUIDKey); stored && stored->asString()) {
    state.appUID = *stored->asString();
  } else {
    state.appUID = UUID::create().UUIDString();
  }
  state.record = defaults.objectForKey(kRecordKey);
  if (state.record && state.record->asDictionary()) {
    const Dictionary& dict = *state.record->asDictionary();
    if (const auto* s = stringAt(dict, kIdentifierKey)) state.identifier = *s;
    if (const auto* s = stringAt(dict, kSlotKey)) state.ownSlot = *s;
    state.optOutDate = valueAt(dict, kOptOutKey);
  }
  state.optedOut = state.optOutDate.has_value();
  return state;
}

// Reads every slot. The slot this application owns updates `state`: it
// becomes the own slot, and its opt-out date counts while already opted out.
SlotPoll pollSlots(LocalState& state) {
  SlotPoll poll;
  for (int slot = 0; slot < VQSharedUDID::kSlotCount; ++slot) {
    const std::string name = VQSharedUDID::kSlotPrefix + std::to_string(slot);
    auto pasteboard = Pasteboard::pasteboardWithName(name, false);
    if (!pasteboard) {
      if (!poll.freeSlot) poll.freeSlot = name;
      continue;
    }
    const Dictionary dict = VQSharedUDID::_getDictFromPasteboard(*pasteboard);
    if (const auto* held = stringAt(dict, kIdentifierKey)) {
      poll.identifiers.push_back(*held);
    } else if (!poll.freeSlot) {
      poll.freeSlot = name;
    }
    if (const auto* owner = stringAt(dict, kAppUIDKey); owner && *owner == state.appUID) {
      state.ownSlot = name;
      if (state.optedOut) {
        state.optOutDate = valueAt(dict, kOptOutKey);
        state.optedOut = state.optOutDate.has_value();
      }
    }
  }
  return poll;
}

// Writes the record into the free slot and notes the slot in it, unless the
// application still owns another slot. True when the record changed.
bool claimSlot(const std::optional<std::string>& freeSlot, const LocalState& state,
               std::optional<Value>& record) {
  if (!freeSlot || (state.ownSlot && *freeSlot != *state.ownSlot)) return false;
  auto pasteboard = Pasteboard::pasteboardWithName(*freeSlot, true);
  if (!pasteboard) return false;
  pasteboard->setPersistent(true);
  if (!record || !record->asDictionary()) return false;
  (*record->asDictionary())[kSlotKey] = *freeSlot;
  VQSharedUDID::_setDict(*record->asDictionary(), *pasteboard);
  return true;
}

// The record of an application seen for the first time.
Value freshRecord(const std::string& identifier, const LocalState& state, const Date& now) {
  Dictionary fresh;
  fresh[kIdentifierKey] = identifier;
  fresh[kAppUIDKey] = state.appUID;
  fresh[kCreatedKey] = state.optedOut && state.optOutDate ? *state.optOutDate : Value(now);
  return Value(std::move(fresh));
}

Error resultRecord(const LocalState& state, bool discrepancy) {
  if (state.optedOut) {
    const Value date = state.optOutDate ? *state.optOutDate : Value();
    return makeError(1, "Application with unique id " + state.appUID +
                            " is opted-out from SharedUDID as of " + describe(date));
  }
  if (discrepancy) {
    return makeError(2,
                     "Found a discrepancy between stored SharedUDID (reliable) and redundant "
                     "copies; one of the apps on the device is most likely corrupting the "
                     "SharedUDID protocol");
  }
  return makeError(0, "SharedUDID succesfully retrieved");
}

}  // namespace

std::optional<std::string> VQSharedUDID::_elect(const std::vector<std::string>& identifiers) {
  std::map<std::string, int> counts;
  for (const auto& identifier : identifiers) ++counts[identifier];
  // Ascending order with >= leaves the last of the tied identifiers.
  std::optional<std::string> elected;
  int best = 0;
  for (const auto& [candidate, count] : counts) {
    if (count >= best) {
      best = count;
      elected = candidate;
    }
  }
  return elected;
}

std::string VQSharedUDID::valueWithError(Error* error) {
  {
    std::lock_guard lock(gCacheMutex);
    if (gSessionCache) {
      if (error) *error = makeError(0, "SharedUDID in cache from first call");
      return *gSessionCache;
    }
  }
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  const Date now = Date::now();
  LocalState state = readLocalState(defaults);
  const SlotPoll poll = pollSlots(state);
  const std::optional<std::string> elected = _elect(poll.identifiers);

  std::optional<Value> record = state.record;
  bool needsSaving = false;
  std::string answer;
  if (state.identifier) {
    answer = *state.identifier;
  } else {
    answer = elected ? *elected : _generateFreshSharedUDID();
    if (!record) {
      record = freshRecord(answer, state, now);
      needsSaving = true;
    }
  }
  if (claimSlot(poll.freeSlot, state, record)) needsSaving = true;
  if (record && needsSaving) logFailure("save the record", defaults.setObject(*record, kRecordKey));

  if (error)
    *error = resultRecord(state, state.identifier && elected && *elected != *state.identifier);
  if (state.optedOut) answer = std::string(40, '0');
  std::lock_guard lock(gCacheMutex);
  gSessionCache = answer;
  return answer;
}

void VQSharedUDID::setOptOut(bool optOut) {
  value();
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  Dictionary dict;
  if (auto record = defaults.objectForKey(kRecordKey); record && record->asDictionary()) {
    dict = *record->asDictionary();
  }
  if (optOut) {
    dict[kOptOutKey] = Date::now();
  } else {
    dict.erase(kOptOutKey);
  }
  logFailure("save the opt-out", defaults.setObject(Value(std::move(dict)), kRecordKey));
  std::lock_guard lock(gCacheMutex);
  gSessionCache.reset();
}

}  // namespace nimb
