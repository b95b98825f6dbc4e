#include <NimbFoundation/Platform/Storage/UserDefaults.h>

#include <cerrno>
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

// The dictionary in the file, or the reason when a regular file is there
// but unusable (it is left alone rather than overwritten). A symbolic link or
// a special file under the store's name reads as missing, and the next write
// replaces it. Entries the XML form cannot hold (a binary file may have
// them) are dropped, or no later write could succeed.
Result<Dictionary> readStore(const std::string& path) {
  auto dict = PropertyList::dictionaryWithContentsOfFile(path, FollowLinks::No);
  if (!dict) {
    if (FileManager::isRegularFile(path, FollowLinks::No)) return dict.error();
    return Dictionary{};
  }
  if (!holdsAsPropertyList(*dict)) {
    std::erase_if(*dict, [](const auto& entry) {
      return !holdsAsPropertyList(Dictionary{{entry.first, entry.second}});
    });
  }
  return dict;
}

Result<void> writeStore(const Dictionary& dict, const std::string& path) noexcept {
  try {
    auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
      const std::string folder = path.substr(0, slash);
      if (auto made = FileManager::createDirectory(folder, true); !made) return made;
    }
    return PropertyList::writeToFile(dict, path);
  } catch (...) {
    return SystemError{ENOMEM, path};
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

Result<void> UserDefaults::setObject(const Value& value, std::string_view key) {
  try {
    Dictionary entry{{std::string(key), value}};
    if (!holdsAsPropertyList(entry)) return SystemError{EINVAL, path_};
    std::lock_guard guard(mutex_);
    std::optional<Value> previous;
    auto it = values_.find(key);
    if (it != values_.end()) {
      previous = std::move(it->second);
      it->second = std::move(entry.begin()->second);
    } else {
      it = values_.insert(std::move(*entry.begin())).first;
    }
    auto written = writeStore(values_, path_);
    if (written) return written;
    if (previous) {
      it->second = std::move(*previous);
    } else {
      values_.erase(it);
    }
    return written;
  } catch (...) {
    return SystemError{ENOMEM, path_};
  }
}

Result<void> UserDefaults::removeObjectForKey(std::string_view key) {
  try {
    std::lock_guard guard(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return {};
    auto node = values_.extract(it);
    auto written = writeStore(values_, path_);
    if (!written) values_.insert(std::move(node));
    return written;
  } catch (...) {
    return SystemError{ENOMEM, path_};
  }
}

Result<void> UserDefaults::synchronize() {
  try {
    auto dict = readStore(path_);
    std::lock_guard guard(mutex_);
    if (!dict) {
      values_.clear();
      return dict.error();
    }
    values_ = std::move(*dict);
    return {};
  } catch (...) {
    return SystemError{ENOMEM, path_};
  }
}

}  // namespace nimb
