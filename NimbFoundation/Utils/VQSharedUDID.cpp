#include <NimbFoundation/Utils/VQSharedUDID.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <optional>

#include <NimbFoundation/Platform/Core/DateFormatter.h>
#include <NimbFoundation/Platform/Core/Digest.h>
#include <NimbFoundation/Platform/Core/UUID.h>
#include <NimbFoundation/Platform/Storage/KeyedArchive.h>
#include <NimbFoundation/Platform/Storage/UserDefaults.h>

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
    pasteboard.setData(*archive, kPasteboardType);
  }
}

std::string VQSharedUDID::value() {
  return valueWithError(nullptr);
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

  // This application's identifier for this run.
  std::string appUID;
  if (auto stored = defaults.objectForKey(kAppUIDKey); stored && stored->asString()) {
    appUID = *stored->asString();
  } else {
    appUID = UUID::create().UUIDString();
  }

  // The local record and what it says.
  std::optional<Value> record = defaults.objectForKey(kRecordKey);
  std::optional<std::string> identifier, ownSlot;
  std::optional<Value> optOutDate;
  if (record && record->asDictionary()) {
    const Dictionary& dict = *record->asDictionary();
    if (const auto* s = stringAt(dict, kIdentifierKey)) identifier = *s;
    if (const auto* s = stringAt(dict, kSlotKey)) ownSlot = *s;
    optOutDate = valueAt(dict, kOptOutKey);
  }
  bool optedOut = optOutDate.has_value();

  // Poll the slots.
  std::map<std::string, int> counts;
  std::optional<std::string> freeSlot;
  for (int slot = 0; slot < kSlotCount; ++slot) {
    const std::string name = kSlotPrefix + std::to_string(slot);
    auto pasteboard = Pasteboard::pasteboardWithName(name, false);
    if (!pasteboard) {
      if (!freeSlot) freeSlot = name;
      continue;
    }
    const Dictionary dict = _getDictFromPasteboard(*pasteboard);
    if (const auto* held = stringAt(dict, kIdentifierKey)) {
      ++counts[*held];
    } else if (!freeSlot) {
      freeSlot = name;
    }
    if (const auto* owner = stringAt(dict, kAppUIDKey); owner && *owner == appUID) {
      ownSlot = name;
      if (optedOut) {
        optOutDate = valueAt(dict, kOptOutKey);
        optedOut = optOutDate.has_value();
      }
    }
  }

  // Elect: the highest count, ties to the identifier that sorts last.
  std::optional<std::string> elected;
  int best = 0;
  for (const auto& [candidate, count] : counts) {
    if (count >= best) {
      best = count;
      elected = candidate;
    }
  }

  bool discrepancy = false;
  bool needsSaving = false;
  std::string answer;
  if (identifier) {
    answer = *identifier;
    discrepancy = elected && *elected != *identifier;
  } else {
    answer = elected ? *elected : _generateFreshSharedUDID();
    if (!record) {
      Dictionary fresh;
      fresh[kIdentifierKey] = answer;
      fresh[kAppUIDKey] = appUID;
      fresh[kCreatedKey] = optedOut && optOutDate ? *optOutDate : Value(now);
      record = Value(std::move(fresh));
      needsSaving = true;
    }
  }

  // Claim a slot, unless the application still owns another one.
  if (freeSlot && (!ownSlot || *freeSlot == *ownSlot)) {
    if (auto pasteboard = Pasteboard::pasteboardWithName(*freeSlot, true)) {
      pasteboard->setPersistent(true);
      if (record && record->asDictionary()) {
        (*record->asDictionary())[kSlotKey] = *freeSlot;
        needsSaving = true;
        _setDict(*record->asDictionary(), *pasteboard);
      }
    }
  }
  if (record && needsSaving) defaults.setObject(*record, kRecordKey);

  if (optedOut) {
    if (error) {
      const Value date = optOutDate ? *optOutDate : Value();
      *error = makeError(1, "Application with unique id " + appUID +
                                " is opted-out from SharedUDID as of " + describe(date));
    }
    answer = std::string(40, '0');
  } else if (error) {
    *error = discrepancy
                 ? makeError(2,
                             "Found a discrepancy between stored SharedUDID (reliable) and "
                             "redundant copies; one of the apps on the device is most likely "
                             "corrupting the SharedUDID protocol")
                 : makeError(0, "SharedUDID succesfully retrieved");
  }
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
  defaults.setObject(Value(std::move(dict)), kRecordKey);
  std::lock_guard lock(gCacheMutex);
  gSessionCache.reset();
}

}  // namespace nimb
