#include <NimbFoundation/Platform/Storage/UserDefaults.h>

#include <memory>
#include <utility>
#include <vector>

#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

namespace nimb {

namespace {

// The main bundle's identifier: the process name unless an Info.plist or
// the host says otherwise.
std::string applicationIdentifier() {
  return Bundle::mainBundle()->bundleIdentifier();
}

// `identifier` as exactly one path component (see UserDefaults.h).
std::string pathComponentFor(std::string_view identifier) {
  if (identifier.empty()) return "%";
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (std::size_t i = 0; i < identifier.size(); ++i) {
    auto c = static_cast<unsigned char>(identifier[i]);
    if (c == '/' || c == '%' || c == '\0' || (c == '.' && i == 0)) {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

bool holdsAsPropertyList(const Dictionary& dict) {
  return PropertyList::serialize(Value(dict), PropertyListFormat::Xml).has_value();
}

// The dictionary in the file, or nullopt when a regular file is there but
// unusable (it is left alone rather than overwritten). A symbolic link or a
// special file under the store's name reads as missing, and the next write
// replaces it. Entries the XML form cannot hold (a binary file may have
// them) are dropped, or no later write could succeed.
std::optional<Dictionary> readStore(const std::string& path) {
  auto dict = PropertyList::dictionaryWithContentsOfFile(path, FollowLinks::No);
  if (!dict) {
    if (FileManager::isRegularFile(path, FollowLinks::No)) return std::nullopt;
    return Dictionary{};
  }
  if (!holdsAsPropertyList(*dict)) {
    std::erase_if(*dict, [](const auto& entry) {
      return !holdsAsPropertyList(Dictionary{{entry.first, entry.second}});
    });
  }
  return dict;
}

bool writeStore(const Dictionary& dict, const std::string& path) noexcept {
  try {
    auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 &&
        !FileManager::createDirectory(path.substr(0, slash), true)) {
      return false;
    }
    return PropertyList::writeDictionaryToFile(dict, path);
  } catch (...) {
    return false;
  }
}

struct Shared {
  std::mutex mutex;
  std::unique_ptr<UserDefaults> current;
  // Instances handed out before a reset; kept so references stay valid.
  std::vector<std::unique_ptr<UserDefaults>> retired;
};

Shared& shared() {
  // Never destroyed, so references stay valid while static objects go away.
  static Shared* s = new Shared;
  return *s;
}

}  // namespace

UserDefaults& UserDefaults::standardUserDefaults() {
  try {
    Shared& s = shared();
    std::lock_guard guard(s.mutex);
    if (!s.current) {
      std::string dir = FileManager::appendingPathComponent(
          FileManager::configDirectory(), pathComponentFor(applicationIdentifier()));
      s.current = std::make_unique<UserDefaults>(
          FileManager::appendingPathComponent(dir, "UserDefaults.plist"));
    }
    return *s.current;
  } catch (...) {
    // Out of memory: a store that keeps nothing, rather than an exception.
    static UserDefaults fallback{std::string()};
    return fallback;
  }
}

void UserDefaults::resetStandardUserDefaults() {
  try {
    Shared& s = shared();
    std::lock_guard guard(s.mutex);
    if (s.current) s.retired.push_back(std::move(s.current));
  } catch (...) {
  }
}

UserDefaults::UserDefaults(std::string path) : path_(std::move(path)) {
  try {
    if (auto dict = readStore(path_)) values_ = std::move(*dict);
  } catch (...) {
    values_.clear();
  }
}

std::optional<Value> UserDefaults::objectForKey(std::string_view key) const {
  try {
    std::lock_guard guard(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
  } catch (...) {
    return std::nullopt;
  }
}

bool UserDefaults::setObject(const Value& value, std::string_view key) {
  try {
    Dictionary entry{{std::string(key), value}};
    if (!holdsAsPropertyList(entry)) return false;
    std::lock_guard guard(mutex_);
    std::optional<Value> previous;
    auto it = values_.find(key);
    if (it != values_.end()) {
      previous = std::move(it->second);
      it->second = std::move(entry.begin()->second);
    } else {
      it = values_.insert(std::move(*entry.begin())).first;
    }
    if (writeStore(values_, path_)) return true;
    if (previous) {
      it->second = std::move(*previous);
    } else {
      values_.erase(it);
    }
    return false;
  } catch (...) {
    return false;
  }
}

void UserDefaults::removeObjectForKey(std::string_view key) {
  try {
    std::lock_guard guard(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return;
    auto node = values_.extract(it);
    if (!writeStore(values_, path_)) values_.insert(std::move(node));
  } catch (...) {
  }
}

bool UserDefaults::synchronize() {
  try {
    auto dict = readStore(path_);
    std::lock_guard guard(mutex_);
    values_ = dict ? std::move(*dict) : Dictionary{};
    return dict.has_value();
  } catch (...) {
    return false;
  }
}

}  // namespace nimb
