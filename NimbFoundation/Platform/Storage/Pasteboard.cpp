#include <NimbFoundation/Platform/Storage/Pasteboard.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include <NimbFoundation/Platform/Env/FileLock.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

namespace nimb {

namespace {

constexpr std::string_view kSuffix = ".pasteboard";
constexpr std::int64_t kFormatVersion = 1;

// The file name for a pasteboard name, or nullopt when the name is refused.
std::optional<std::string> fileNameFor(std::string_view name) {
  if (name.empty()) return std::nullopt;
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(name.size() + kSuffix.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    auto c = static_cast<unsigned char>(name[i]);
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '_' || c == '-' || (c == '.' && i > 0);
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
    if (out.size() + kSuffix.size() > NAME_MAX) return std::nullopt;
  }
  out += kSuffix;
  return out;
}

// The lock every change of the folder takes: its ".lock" file.
std::string lockPathOf(const std::string& dir) {
  return FileManager::appendingPathComponent(dir, ".lock");
}

// Which process a pasteboard belongs to.
struct Owner {
  std::int64_t pid = 0;
  std::int64_t startTime = 0;  // clock ticks since boot; 0 when unknown
  std::string boot;            // boot id; empty when unknown
};

std::string currentBootId() {
  auto bytes = FileManager::contentsAtPath("/proc/sys/kernel/random/boot_id");
  if (!bytes) return {};
  std::string id(bytes->begin(), bytes->end());
  while (!id.empty() && (id.back() == '\n' || id.back() == ' ')) id.pop_back();
  return id;
}

struct ProcessStat {
  char state = '?';
  std::int64_t startTime = 0;
};

// The state and start time of process `pid` from /proc; nullopt when there is
// no such entry.
std::optional<ProcessStat> processStat(std::int64_t pid) {
  auto bytes = FileManager::contentsAtPath("/proc/" + std::to_string(pid) + "/stat");
  if (!bytes) return std::nullopt;
  std::string text(bytes->begin(), bytes->end());
  // The command name (field 2) is in parentheses and may itself hold spaces
  // and parentheses; the fields after the last ')' are plain.
  auto close = text.rfind(')');
  if (close == std::string::npos) return ProcessStat{};
  std::vector<std::string_view> fields;  // fields[0] is field 3, the state
  std::string_view rest(text);
  rest.remove_prefix(close + 1);
  while (!rest.empty()) {
    auto start = rest.find_first_not_of(' ');
    if (start == std::string_view::npos) break;
    rest.remove_prefix(start);
    auto end = rest.find(' ');
    fields.push_back(rest.substr(0, end));
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end);
  }
  ProcessStat stat;
  if (!fields.empty() && !fields[0].empty()) stat.state = fields[0][0];
  if (fields.size() > 19) {
    std::int64_t value = 0;
    for (char c : fields[19]) {
      if (c < '0' || c > '9') break;
      value = value * 10 + (c - '0');
    }
    stat.startTime = value;
  }
  return stat;
}

Owner currentOwner() {
  // Never destroyed: the exit handler still asks for it.
  static const std::string* boot = new std::string(currentBootId());
  Owner owner;
  owner.pid = ::getpid();  // not cached: a forked child is a process of its own
  if (auto stat = processStat(owner.pid)) owner.startTime = stat->startTime;
  owner.boot = *boot;
  return owner;
}

bool isCurrentProcess(const Owner& owner) {
  Owner self = currentOwner();
  return owner.pid == self.pid && owner.startTime == self.startTime;
}

bool ownerIsGone(const Owner& owner) {
  if (owner.pid <= 0 || owner.pid > INT_MAX) return true;
  Owner self = currentOwner();
  if (!owner.boot.empty() && !self.boot.empty() && owner.boot != self.boot) return true;
  if (owner.pid == self.pid) return owner.startTime != self.startTime;
  if (auto stat = processStat(owner.pid)) {
    if (stat->state == 'Z' || stat->state == 'X') return true;  // ended, not yet reaped
    return owner.startTime != 0 && stat->startTime != owner.startTime;
  }
  // No /proc entry to read (no /proc, or one that hides processes): only the
  // pid can be checked.
  return ::kill(static_cast<pid_t>(owner.pid), 0) != 0 && errno == ESRCH;
}

struct Record {
  bool persistent = true;
  Owner owner;
  std::vector<std::pair<std::string, Data>> items;
};

enum class FileState { Missing, Damaged, Valid };

struct Loaded {
  FileState state = FileState::Missing;
  Record record;
  // Valid, but non-persistent and its owner has ended.
  bool orphaned() const {
    return state == FileState::Valid && !record.persistent && ownerIsGone(record.owner);
  }
  // Missing, or as good as missing.
  bool gone() const { return state == FileState::Missing || orphaned(); }
};

std::optional<Record> decode(std::span<const std::uint8_t> bytes) {
  auto root = PropertyList::parse(bytes);
  if (!root || !root->asDictionary()) return std::nullopt;
  auto integer = [&](std::string_view key) -> const std::int64_t* {
    const Value* v = root->find(key);
    return v ? v->asInteger() : nullptr;
  };
  const std::int64_t* version = integer("Version");
  const Value* persistent = root->find("Persistent");
  const std::int64_t* pid = integer("OwnerProcess");
  const std::int64_t* startTime = integer("OwnerStartTime");
  const Value* boot = root->find("OwnerBoot");
  const Value* items = root->find("Items");
  if (!version || *version != kFormatVersion || !persistent || !persistent->asBool() || !pid ||
      !startTime || !boot || !boot->asString() || !items || !items->asArray()) {
    return std::nullopt;
  }
  Record record;
  record.persistent = *persistent->asBool();
  record.owner = Owner{*pid, *startTime, *boot->asString()};
  for (const Value& item : *items->asArray()) {
    const Value* type = item.find("Type");
    const Value* data = item.find("Data");
    if (!type || !type->asString() || !data || !data->asData()) return std::nullopt;
    record.items.emplace_back(*type->asString(), *data->asData());
  }
  return record;
}

Loaded load(const std::string& path) {
  Loaded loaded;
  // A symbolic link or a special file under a pasteboard's name is no
  // pasteboard: it reads as missing, and a write replaces it.
  auto bytes = FileManager::contentsAtPath(path, FollowLinks::No);
  if (!bytes) {
    loaded.state =
        FileManager::isRegularFile(path, FollowLinks::No) ? FileState::Damaged : FileState::Missing;
    return loaded;
  }
  if (auto record = decode(*bytes)) {
    loaded.state = FileState::Valid;
    loaded.record = std::move(*record);
  } else {
    loaded.state = FileState::Damaged;
  }
  return loaded;
}

Result<void> store(const Record& record, const std::string& path) {
  Array items;
  for (const auto& [type, data] : record.items) {
    items.emplace_back(Dictionary{{"Type", Value(type)}, {"Data", Value(data)}});
  }
  Dictionary root{
      {"Version", Value(kFormatVersion)},        {"Persistent", Value(record.persistent)},
      {"OwnerProcess", Value(record.owner.pid)}, {"OwnerStartTime", Value(record.owner.startTime)},
      {"OwnerBoot", Value(record.owner.boot)},   {"Items", Value(std::move(items))},
  };
  auto bytes = PropertyList::serialize(Value(std::move(root)), PropertyListFormat::BinaryV1_0);
  if (!bytes) return SystemError{EINVAL, path};
  return FileManager::writeAtomically(path, *bytes);
}

// The non-persistent pasteboards this process made, deleted at normal exit.
struct ExitCleanup {
  std::mutex mutex;
  std::vector<std::pair<std::string, std::string>> files;  // (folder, file)
};

ExitCleanup& exitCleanup();

void cleanUpAtExit() {
  try {
    ExitCleanup& cleanup = exitCleanup();
    // A child forked while another thread held the mutex must not hang here.
    std::unique_lock guard(cleanup.mutex, std::try_to_lock);
    if (!guard.owns_lock()) return;
    for (const auto& [dir, path] : cleanup.files) {
      FileLock lock(lockPathOf(dir));
      if (!lock.held()) continue;
      Loaded loaded = load(path);
      if (loaded.state == FileState::Valid && !loaded.record.persistent &&
          isCurrentProcess(loaded.record.owner)) {
        (void)FileManager::removeItem(path);
      }
    }
  } catch (...) {
  }
}

ExitCleanup& exitCleanup() {
  // Never destroyed, so it is still there when the exit handler runs.
  static ExitCleanup* cleanup = [] {
    auto* c = new ExitCleanup;
    std::atexit(cleanUpAtExit);
    return c;
  }();
  return *cleanup;
}

void deleteAtExit(const std::string& dir, const std::string& path) {
  ExitCleanup& cleanup = exitCleanup();
  std::lock_guard guard(cleanup.mutex);
  for (const auto& entry : cleanup.files) {
    if (entry.second == path) return;
  }
  cleanup.files.emplace_back(dir, path);
}

std::string folderOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

std::string Pasteboard::storeDirectory() {
  try {
    return Env::current()->pasteboardDirectory();
  } catch (...) {
    return {};
  }
}

Pasteboard::Pasteboard(Passkey, std::string name, std::string path)
    : name_(std::move(name)), path_(std::move(path)) {}

std::shared_ptr<Pasteboard> Pasteboard::pasteboardWithName(std::string_view name, bool create) {
  try {
    auto fileName = fileNameFor(name);
    if (!fileName) return nullptr;
    std::string dir = storeDirectory();
    if (dir.empty()) return nullptr;
    std::string path = FileManager::appendingPathComponent(dir, *fileName);
    auto handle = [&] { return std::make_shared<Pasteboard>(Passkey{}, std::string(name), path); };

    if (!create) {
      if (!FileManager::isDirectory(dir)) return nullptr;
    } else if (!FileManager::createDirectory(dir, true)) {
      return nullptr;
    }
    FileLock lock(lockPathOf(dir));
    if (!lock.held()) {
      // A store this process may not change can still be read.
      if (create || load(path).gone()) return nullptr;
      return handle();
    }
    Loaded loaded = load(path);
    if (loaded.orphaned()) {
      (void)FileManager::removeItem(path);
      loaded.state = FileState::Missing;
    }
    if (loaded.state == FileState::Missing) {
      if (!create) return nullptr;
      Record record;
      record.persistent = false;
      record.owner = currentOwner();
      if (!store(record, path).ok()) return nullptr;
      deleteAtExit(dir, path);
    }
    return handle();
  } catch (...) {
    return nullptr;
  }
}

Result<void> Pasteboard::removePasteboardWithName(std::string_view name) {
  try {
    auto fileName = fileNameFor(name);
    if (!fileName) return SystemError{EINVAL, std::string(name)};
    std::string dir = storeDirectory();
    if (dir.empty() || !FileManager::isDirectory(dir)) return SystemError{ENOENT, dir};
    const std::string lockPath = lockPathOf(dir);
    FileLock lock(lockPath);
    if (!lock.held()) return lock.failure();
    const std::string path = FileManager::appendingPathComponent(dir, *fileName);
    return FileManager::removeItem(path);
  } catch (...) {
    return SystemError{ENOMEM, std::string(name)};
  }
}

bool Pasteboard::isPersistent() const {
  try {
    Loaded loaded = load(path_);
    if (loaded.state == FileState::Damaged) return true;
    return !loaded.gone() && loaded.record.persistent;
  } catch (...) {
    return false;
  }
}

void Pasteboard::setPersistent(bool persistent) {
  try {
    std::string dir = folderOf(path_);
    FileLock lock(lockPathOf(dir));
    if (!lock.held()) return;
    Loaded loaded = load(path_);
    if (loaded.gone()) {
      if (loaded.state != FileState::Missing) (void)FileManager::removeItem(path_);
      return;
    }
    Record& record = loaded.record;
    if (loaded.state == FileState::Damaged) {
      record = Record{};
      record.owner = currentOwner();
    } else if (record.persistent == persistent) {
      return;
    }
    if (record.persistent && !persistent) record.owner = currentOwner();
    record.persistent = persistent;
    if (store(record, path_).ok() && !persistent) deleteAtExit(dir, path_);
  } catch (...) {
  }
}

std::optional<Data> Pasteboard::dataForPasteboardType(std::string_view type) const {
  try {
    Loaded loaded = load(path_);
    if (loaded.state != FileState::Valid || loaded.orphaned()) return std::nullopt;
    for (auto& [itemType, data] : loaded.record.items) {
      if (itemType == type) return std::move(data);
    }
    return std::nullopt;
  } catch (...) {
    return std::nullopt;
  }
}

Result<void> Pasteboard::setData(const Data& data, std::string_view type) {
  try {
    const std::string lockPath = lockPathOf(folderOf(path_));
    FileLock lock(lockPath);
    if (!lock.held()) return lock.failure();
    Loaded loaded = load(path_);
    if (loaded.gone()) {
      if (loaded.state != FileState::Missing) (void)FileManager::removeItem(path_);
      return SystemError{ENOENT, path_};
    }
    Record& record = loaded.record;
    if (loaded.state == FileState::Damaged) {
      record = Record{};  // persistent, as a damaged file reads
      record.owner = currentOwner();
    }
    record.items.clear();
    record.items.emplace_back(std::string(type), data);
    return store(record, path_);
  } catch (...) {
    return SystemError{ENOMEM, path_};
  }
}

}  // namespace nimb
