#include <NimbFoundation/Platform/Env/FileManager.h>

namespace nimb {

namespace {

// $`variable` when it holds an absolute path, else `underHome` inside the
// user's home, else inside /tmp.
std::string xdgDirectory(std::string_view variable, std::string_view underHome) {
  auto env = Env::current();
  if (auto xdg = env->environmentVariable(variable); xdg && !xdg->empty() && xdg->front() == '/') {
    return *xdg;
  }
  std::string home = env->homeDirectory();
  return FileManager::appendingPathComponent(home.empty() ? "/tmp" : home, underHome);
}

bool hasKind(const std::string& path, FollowLinks follow, FileInfo::Kind kind) {
  auto info = Env::current()->fileInfo(path, follow);
  return info && info->kind == kind;
}

}  // namespace

std::string FileManager::cachesDirectory() {
  return xdgDirectory("XDG_CACHE_HOME", ".cache");
}

std::string FileManager::dataDirectory() {
  return xdgDirectory("XDG_DATA_HOME", ".local/share");
}

std::string FileManager::configDirectory() {
  return xdgDirectory("XDG_CONFIG_HOME", ".config");
}

std::string FileManager::processName() {
  return Env::current()->processName();
}

std::string FileManager::appendingPathComponent(std::string_view dir, std::string_view component) {
  std::string out(dir);
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  if (out.empty() || out.back() != '/') out += '/';
  out += component;
  return out;
}

bool FileManager::fileExists(const std::string& path) {
  return Env::current()->fileInfo(path, FollowLinks::Yes).ok();
}

bool FileManager::isDirectory(const std::string& path) {
  return hasKind(path, FollowLinks::Yes, FileInfo::Kind::kDirectory);
}

bool FileManager::isRegularFile(const std::string& path, FollowLinks follow) {
  return hasKind(path, follow, FileInfo::Kind::kRegular);
}

Result<void> FileManager::createDirectory(const std::string& path, bool intermediates) {
  return Env::current()->createDirectory(path, intermediates);
}

Result<Data> FileManager::contentsAtPath(const std::string& path, FollowLinks follow) {
  return Env::current()->readFile(path, follow);
}

Result<void> FileManager::writeAtomically(const std::string& path,
                                          std::span<const std::uint8_t> bytes) {
  return Env::current()->writeFileAtomically(path, bytes);
}

Result<void> FileManager::writeAtomically(const std::string& path, std::string_view bytes) {
  return writeAtomically(
      path, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

Result<void> FileManager::copyItem(const std::string& from, const std::string& to) {
  return Env::current()->copyFile(from, to);
}

Result<void> FileManager::removeItem(const std::string& path) {
  return Env::current()->removeItem(path);
}

bool FileManager::isTemporaryFileName(std::string_view name) {
  constexpr std::string_view kMark = ".tmp-";
  constexpr std::size_t kRandom = 6;
  // "." + at least one character of the name + ".tmp-" + XXXXXX.
  if (name.size() < 1 + 1 + kMark.size() + kRandom || name.front() != '.') return false;
  std::string_view random = name.substr(name.size() - kRandom);
  for (char c : random) {
    bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum) return false;
  }
  return name.substr(name.size() - kRandom - kMark.size(), kMark.size()) == kMark;
}

void FileManager::removeAbandonedTemporaries(Env& env, const std::string& dir,
                                             double olderThanSeconds,
                                             const std::set<std::string>& keep) {
  auto names = env.contentsOfDirectory(dir);
  if (!names) return;
  const double now = env.now().timeIntervalSince1970();
  for (const auto& name : *names) {
    if (!isTemporaryFileName(name) || keep.count(name)) continue;
    const std::string path = appendingPathComponent(dir, name);
    auto info = env.fileInfo(path, FollowLinks::No);
    if (!info || info->kind != FileInfo::Kind::kRegular ||
        now - info->modified.timeIntervalSince1970() < olderThanSeconds) {
      continue;
    }
    (void)env.removeItem(path);
  }
}

}  // namespace nimb
