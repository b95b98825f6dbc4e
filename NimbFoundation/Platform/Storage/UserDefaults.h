// UserDefaults: the application's persistent store of property-list values,
// one dictionary of key to Value kept in one XML property-list file.
//
// Applications keep their settings here through standardUserDefaults(),
// whose file is FileManager::configDirectory() + "/" + the application
// identifier (Bundle::mainBundle()->bundleIdentifier()) +
// "/UserDefaults.plist". The identifier is escaped, never
// refused, so that it is always exactly one path component inside the
// config folder: '/', '%', NUL and a leading '.' become %XX (two upper case
// hex digits), and the empty identifier becomes "%". So "." and ".." become
// "%2E" and "%2E.", and distinct identifiers keep distinct folders.
//
// How it behaves:
//   - The file is read once, when the instance is made; a missing or damaged
//     file reads as empty. synchronize() reads it again, so changes other
//     processes made show up.
//   - Each change is written to the file at once (a whole new file renamed
//     into place, 0600, its folder made 0700), so the next process to open
//     the store sees it. The file holds what this instance holds: when two
//     processes change the same store, the last write wins.
//   - A change that fails leaves everything as it was, in memory and on disk:
//     setObject() refuses what a property list cannot hold (the null marker
//     anywhere inside, UIDs, strings that are not UTF-8 or hold a NUL, keys
//     likewise) and reports a file that cannot be written.
//
// Thread rule: safe from any thread; one mutex guards the dictionary and
// serialises the writes of an instance.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Result.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

class UserDefaults {
 public:
  // The application's store (see above), made on first use.
  static UserDefaults& standardUserDefaults();
  // Forgets the shared instance, so that the next standardUserDefaults()
  // opens the file anew (after the application identifier changed, or in
  // tests). References to the old instance stay valid until the process ends.
  static void resetStandardUserDefaults();

  // A store in the file at `path`, which is read now.
  explicit UserDefaults(std::string path);
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  const std::string& path() const { return path_; }

  std::optional<Value> objectForKey(std::string_view key) const;
  // Stores `value` under `key` and writes the file. Fails, with nothing
  // changed, with EINVAL for what a property list cannot hold, or with the
  // reason the file (or its folder) cannot be written.
  Result<void> setObject(const Value& value, std::string_view key);
  // Removes the key and writes the file; when the file cannot be written the
  // key stays and the reason comes back.
  Result<void> removeObjectForKey(std::string_view key);

  // Re-reads the file, picking up what other processes wrote. Fails when the
  // file is there but cannot be read or is damaged (EBADMSG); the store is
  // then empty. A missing file reads as an empty store.
  Result<void> synchronize();

 private:
  std::string path_;
  mutable std::mutex mutex_;
  Dictionary values_;
};

}  // namespace nimb
