#include <NimbFoundation/Platform/Env/FileManager.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace nimb {

namespace {

// Retries a system call interrupted by a signal.
template <typename F>
auto retry(F f) {
  decltype(f()) r;
  do {
    r = f();
  } while (r == -1 && errno == EINTR);
  return r;
}

bool writeAll(int fd, const std::uint8_t* p, std::size_t n) {
  while (n > 0) {
    ssize_t w = retry([&] { return ::write(fd, p, n); });
    if (w <= 0) return false;
    p += w;
    n -= static_cast<std::size_t>(w);
  }
  return true;
}

std::string directoryOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string lastComponent(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Creates an empty private temporary file beside `path`; returns its fd and
// name, or -1.
int makeTemporaryBeside(const std::string& path, std::string& tempName) {
  tempName = directoryOf(path) + "/." + lastComponent(path).substr(0, 200) + ".tmp-XXXXXX";
  // mkstemp creates the file 0600 with O_EXCL, so it never follows a link.
  return retry([&] { return ::mkostemp(tempName.data(), O_CLOEXEC); });
}

}  // namespace

std::string FileManager::cachesDirectory() {
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && xdg[0] == '/') return xdg;
  if (const char* home = std::getenv("HOME"); home && home[0] != '\0') {
    return appendingPathComponent(home, ".cache");
  }
  if (passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) {
    return appendingPathComponent(pw->pw_dir, ".cache");
  }
  return "/tmp/.cache";
}

namespace {

// $`variable` when it holds an absolute path, else `underHome` inside the
// user's home ($HOME, then the password database).
std::string xdgDirectory(const char* variable, std::string_view underHome) {
  if (const char* xdg = std::getenv(variable); xdg && xdg[0] == '/') return xdg;
  if (const char* home = std::getenv("HOME"); home && home[0] != '\0') {
    return FileManager::appendingPathComponent(home, underHome);
  }
  if (passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) {
    return FileManager::appendingPathComponent(pw->pw_dir, underHome);
  }
  return FileManager::appendingPathComponent("/tmp", underHome);
}

}  // namespace

std::string FileManager::dataDirectory() {
  return xdgDirectory("XDG_DATA_HOME", ".local/share");
}

std::string FileManager::configDirectory() {
  return xdgDirectory("XDG_CONFIG_HOME", ".config");
}

std::string FileManager::processName() {
  const char* name = program_invocation_short_name;
  return (name && name[0]) ? name : "process";
}

std::string FileManager::appendingPathComponent(std::string_view dir, std::string_view component) {
  std::string out(dir);
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  if (out.empty() || out.back() != '/') out += '/';
  out += component;
  return out;
}

bool FileManager::fileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

bool FileManager::isDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileManager::createDirectory(const std::string& path, bool intermediates) {
  if (path.empty()) return false;
  if (isDirectory(path)) return true;
  if (intermediates) {
    std::string parent = directoryOf(path);
    if (parent != path && !isDirectory(parent) && !createDirectory(parent, true)) return false;
  }
  if (::mkdir(path.c_str(), 0700) == 0) return true;
  return errno == EEXIST && isDirectory(path);
}

bool FileManager::isRegularFile(const std::string& path, FollowLinks follow) {
  struct stat st {};
  int r = follow == FollowLinks::Yes ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
  return r == 0 && S_ISREG(st.st_mode);
}

namespace {

// Opens `path` for reading only if it is a regular file. O_NONBLOCK keeps a
// FIFO from stalling the open; fstat on the descriptor then refuses it (and
// devices and sockets) without a race between checking and opening.
int openRegularFile(const std::string& path, FollowLinks follow, struct stat& st) {
  int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  if (follow == FollowLinks::No) flags |= O_NOFOLLOW;
  int fd = retry([&] { return ::open(path.c_str(), flags); });
  if (fd < 0) return -1;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::optional<Data> FileManager::contentsAtPath(const std::string& path, FollowLinks follow) {
  struct stat st {};
  int fd = openRegularFile(path, follow, st);
  if (fd < 0) return std::nullopt;
  Data out;
  out.reserve(static_cast<std::size_t>(st.st_size));
  std::uint8_t buf[65536];
  for (;;) {
    std::size_t want = sizeof buf;
    // Read straight into the result while the size reported by stat lasts.
    if (out.capacity() - out.size() >= want) {
      std::size_t old = out.size();
      out.resize(old + want);
      ssize_t n = retry([&] { return ::read(fd, out.data() + old, want); });
      if (n < 0) {
        ::close(fd);
        return std::nullopt;
      }
      out.resize(old + static_cast<std::size_t>(n));
      if (n == 0) break;
      continue;
    }
    ssize_t n = retry([&] { return ::read(fd, buf, want); });
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    out.insert(out.end(), buf, buf + n);
  }
  ::close(fd);
  return out;
}

bool FileManager::writeAtomically(const std::string& path, std::span<const std::uint8_t> bytes) {
  std::string temp;
  int fd = makeTemporaryBeside(path, temp);
  if (fd < 0) return false;
  bool ok = writeAll(fd, bytes.data(), bytes.size());
  ok = (::close(fd) == 0) && ok;
  // rename replaces a symbolic link at `path` rather than writing through it.
  if (ok && ::rename(temp.c_str(), path.c_str()) == 0) return true;
  ::unlink(temp.c_str());
  return false;
}

bool FileManager::writeAtomically(const std::string& path, std::string_view bytes) {
  return writeAtomically(
      path, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

bool FileManager::copyItem(const std::string& from, const std::string& to) {
  if (fileExists(to)) return false;
  struct stat st {};
  int in = openRegularFile(from, FollowLinks::Yes, st);
  if (in < 0) return false;
  std::string temp;
  int out = makeTemporaryBeside(to, temp);
  if (out < 0) {
    ::close(in);
    return false;
  }
  bool ok = true;
  std::uint8_t buf[65536];
  for (;;) {
    ssize_t n = retry([&] { return ::read(in, buf, sizeof buf); });
    if (n < 0) ok = false;
    if (n <= 0) break;
    if (!writeAll(out, buf, static_cast<std::size_t>(n))) {
      ok = false;
      break;
    }
  }
  ::close(in);
  ok = (::close(out) == 0) && ok;
  // link() refuses an existing target, so a file that appeared meanwhile
  // stays untouched and the copy fails, as it would have if it came first.
  ok = ok && ::link(temp.c_str(), to.c_str()) == 0;
  ::unlink(temp.c_str());
  return ok;
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

void FileManager::removeAbandonedTemporaries(const std::string& dir, double olderThanSeconds,
                                             const std::set<std::string>& keep) {
  DIR* listing = ::opendir(dir.c_str());
  if (!listing) return;
  const std::time_t now = std::time(nullptr);
  while (dirent* entry = ::readdir(listing)) {
    std::string_view name = entry->d_name;
    if (!isTemporaryFileName(name) || keep.count(std::string(name))) continue;
    struct stat st {};
    if (::fstatat(::dirfd(listing), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (!S_ISREG(st.st_mode) || static_cast<double>(now - st.st_mtime) < olderThanSeconds) continue;
    ::unlinkat(::dirfd(listing), entry->d_name, 0);
  }
  ::closedir(listing);
}

bool FileManager::removeItem(const std::string& path) {
  if (::unlink(path.c_str()) == 0) return true;
  if (errno == EISDIR || errno == EPERM) return ::rmdir(path.c_str()) == 0;
  return false;
}

}  // namespace nimb
