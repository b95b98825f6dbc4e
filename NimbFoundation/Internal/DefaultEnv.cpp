#include <NimbFoundation/Internal/DefaultEnv.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <NimbFoundation/Platform/Env/FileManager.h>

extern char** environ;

namespace nimb {

namespace {

// --- Files ---

// Retries a system call interrupted by a signal.
template <typename F>
auto retry(F f) {
  decltype(f()) r;
  do {
    r = f();
  } while (r == -1 && errno == EINTR);
  return r;
}

SystemError failure(const std::string& path, int code = errno) {
  return SystemError{code, path};
}

// Writes everything; 0 or the errno of the failed write.
int writeAll(int fd, const std::uint8_t* p, std::size_t n) {
  while (n > 0) {
    ssize_t w = retry([&] { return ::write(fd, p, n); });
    if (w < 0) return errno;
    if (w == 0) return EIO;
    p += w;
    n -= static_cast<std::size_t>(w);
  }
  return 0;
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

// Creates an empty private temporary file beside `path`; its fd and name,
// or -1 with errno set.
int makeTemporaryBeside(const std::string& path, std::string& tempName) {
  tempName = directoryOf(path) + "/." + lastComponent(path).substr(0, 200) + ".tmp-XXXXXX";
  // mkstemp creates the file 0600 with O_EXCL, so it never follows a link.
  return retry([&] { return ::mkostemp(tempName.data(), O_CLOEXEC); });
}

// Opens `path` for reading only if it is a regular file. O_NONBLOCK keeps a
// FIFO from stalling the open; fstat on the descriptor then refuses it (and
// devices and sockets) without a race between checking and opening.
// -1 with errno set otherwise.
int openRegularFile(const std::string& path, FollowLinks follow, struct stat& st) {
  int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  if (follow == FollowLinks::No) flags |= O_NOFOLLOW;
  int fd = retry([&] { return ::open(path.c_str(), flags); });
  if (fd < 0) return -1;
  int code = 0;
  if (::fstat(fd, &st) != 0) {
    code = errno;
  } else if (S_ISDIR(st.st_mode)) {
    code = EISDIR;
  } else if (!S_ISREG(st.st_mode)) {
    code = ENOENT;  // a FIFO, a device or a socket reads as missing
  }
  if (code == 0) return fd;
  ::close(fd);
  errno = code;
  return -1;
}

// Removes `name` in the open directory `dir`, descending into directories
// without following links. 0 or an errno.
int removeAt(int dir, const char* name) {
  if (::unlinkat(dir, name, 0) == 0) return 0;
  if (errno != EISDIR && errno != EPERM) return errno;
  int fd = ::openat(dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno;
  DIR* listing = ::fdopendir(fd);
  if (!listing) {
    int code = errno;
    ::close(fd);
    return code;
  }
  int code = 0;
  while (dirent* entry = ::readdir(listing)) {
    if (!std::strcmp(entry->d_name, ".") || !std::strcmp(entry->d_name, "..")) continue;
    if (int c = removeAt(::dirfd(listing), entry->d_name); c != 0 && code == 0) code = c;
  }
  ::closedir(listing);
  if (code != 0) return code;
  return ::unlinkat(dir, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

// --- Device ---

std::string firstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string osReleaseVersion() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind("VERSION_ID=", 0) != 0) continue;
      std::string v = line.substr(11);
      if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
        v = v.substr(1, v.size() - 2);
      }
      if (!v.empty()) return v;
    }
  }
  utsname u{};
  return ::uname(&u) == 0 ? u.release : "";
}

std::optional<ScreenFacts> drmScreen() {
  std::error_code ec;
  std::filesystem::directory_iterator it("/sys/class/drm", ec);
  if (ec) return std::nullopt;
  for (const auto& entry : it) {
    const std::string dir = entry.path().string();
    if (firstLine(dir + "/status") != "connected") continue;
    // The first mode listed is the preferred one: "1920x1080".
    const std::string mode = firstLine(dir + "/modes");
    unsigned width = 0, height = 0;
    char x = 0;
    std::istringstream parse(mode);
    if (!(parse >> width >> x >> height) || x != 'x' || width == 0 || height == 0) continue;
    ScreenFacts facts;
    facts.bounds = {static_cast<double>(width), static_cast<double>(height)};
    facts.scale = 1.0;
    facts.modeSize = facts.bounds;
    return facts;
  }
  return std::nullopt;
}

bool traced() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("TracerPid:", 0) == 0) return std::atoi(line.c_str() + 10) != 0;
  }
  return false;
}

// --- Locale and time zone ---

// The POSIX locale named by the environment, as setlocale() would pick it
// for messages; "" for none or the C locale.
std::string environmentLocale(Env& env) {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    auto value = env.environmentVariable(name);
    if (value && !value->empty()) {
      const std::string& v = *value;
      return (v == "C" || v == "POSIX" || v.rfind("C.", 0) == 0) ? "" : v;
    }
  }
  return "";
}

// "en_US.UTF-8@euro" -> "en_US"; ICU takes the rest from there.
std::string stripCodeset(std::string posix) {
  const auto cut = posix.find_first_of(".@");
  if (cut != std::string::npos) posix.resize(cut);
  return posix;
}

std::string languageTag(const std::string& posix) {
  icu::Locale locale(stripCodeset(posix).c_str());
  if (locale.isBogus() || !*locale.getLanguage()) return "";
  UErrorCode status = U_ZERO_ERROR;
  std::string tag = locale.toLanguageTag<std::string>(status);
  return U_FAILURE(status) || tag == "und" ? "" : tag;
}

std::string detectMachineZoneName() {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
  if (!zone) return "GMT";
  icu::UnicodeString id;
  zone->getID(id);
  std::string out;
  id.toUTF8String(out);
  return out.empty() ? "GMT" : out;
}

// --- Processes ---

// $PATH's absolute folders; relative ones are passed over, since what they
// name depends on the working directory.
std::optional<std::string> findOnPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const auto value = Env::current()->environmentVariable("PATH");
  std::string_view list = value ? std::string_view(*value) : std::string_view();
  while (!list.empty()) {
    const auto colon = list.find(':');
    std::string_view folder = list.substr(0, colon);
    if (!folder.empty() && folder.front() == '/') {
      std::string candidate = FileManager::appendingPathComponent(folder, name);
      struct stat st {};
      if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
          ::access(candidate.c_str(), X_OK) == 0) {
        return candidate;
      }
    }
    if (colon == std::string_view::npos) break;
    list.remove_prefix(colon + 1);
  }
  return std::nullopt;
}

}  // namespace

namespace detail {

Date DefaultEnv::now() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return Date::fromTimeIntervalSince1970(double(ts.tv_sec) + double(ts.tv_nsec) / 1e9);
}

double DefaultEnv::monotonicSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

std::optional<std::string> DefaultEnv::environmentVariable(std::string_view name) {
  const char* value = std::getenv(std::string(name).c_str());
  if (!value) return std::nullopt;
  return std::string(value);
}

std::string DefaultEnv::homeDirectory() {
  if (auto home = Env::current()->environmentVariable("HOME"); home && !home->empty()) {
    return *home;
  }
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir) {
    return found->pw_dir;
  }
  return "";
}

std::string DefaultEnv::processName() {
  const char* name = program_invocation_short_name;
  return (name && name[0]) ? name : "process";
}

std::string DefaultEnv::executablePath() {
  // Read once: a process keeps its executable, and the main bundle asks on
  // every call.
  static const std::string path = [] {
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    return n <= 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(n));
  }();
  return path;
}

Result<Data> DefaultEnv::readFile(const std::string& path, FollowLinks follow) {
  struct stat st {};
  int fd = openRegularFile(path, follow, st);
  if (fd < 0) return failure(path);
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
        auto error = failure(path);
        ::close(fd);
        return error;
      }
      out.resize(old + static_cast<std::size_t>(n));
      if (n == 0) break;
      continue;
    }
    ssize_t n = retry([&] { return ::read(fd, buf, want); });
    if (n < 0) {
      auto error = failure(path);
      ::close(fd);
      return error;
    }
    if (n == 0) break;
    out.insert(out.end(), buf, buf + n);
  }
  ::close(fd);
  return out;
}

Result<void> DefaultEnv::writeFileAtomically(const std::string& path,
                                             std::span<const std::uint8_t> bytes) {
  std::string temp;
  int fd = makeTemporaryBeside(path, temp);
  if (fd < 0) return failure(path);
  int code = writeAll(fd, bytes.data(), bytes.size());
  if (::close(fd) != 0 && code == 0) code = errno;
  // rename replaces a symbolic link at `path` rather than writing through it.
  if (code == 0 && ::rename(temp.c_str(), path.c_str()) == 0) return {};
  if (code == 0) code = errno;
  ::unlink(temp.c_str());
  return failure(path, code);
}

Result<void> DefaultEnv::copyFile(const std::string& from, const std::string& to) {
  struct stat st {};
  if (::lstat(to.c_str(), &st) == 0) return failure(to, EEXIST);
  int in = openRegularFile(from, FollowLinks::Yes, st);
  if (in < 0) return failure(from);
  std::string temp;
  int out = makeTemporaryBeside(to, temp);
  if (out < 0) {
    auto error = failure(to);
    ::close(in);
    return error;
  }
  SystemError error{0, to};
  std::uint8_t buf[65536];
  for (;;) {
    ssize_t n = retry([&] { return ::read(in, buf, sizeof buf); });
    if (n < 0) error = failure(from);
    if (n <= 0) break;
    if (int code = writeAll(out, buf, static_cast<std::size_t>(n)); code != 0) {
      error.code = code;
      break;
    }
  }
  ::close(in);
  if (::close(out) != 0 && error.code == 0) error.code = errno;
  // link() refuses an existing target, so a file that appeared meanwhile
  // stays untouched and the copy fails, as it would have if it came first.
  if (error.code == 0 && ::link(temp.c_str(), to.c_str()) != 0) error.code = errno;
  ::unlink(temp.c_str());
  if (error.code != 0) return error;
  return {};
}

Result<FileInfo> DefaultEnv::fileInfo(const std::string& path, FollowLinks follow) {
  struct stat st {};
  int r = follow == FollowLinks::Yes ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
  if (r != 0) return failure(path);
  FileInfo info;
  info.kind = S_ISREG(st.st_mode)   ? FileInfo::Kind::kRegular
              : S_ISDIR(st.st_mode) ? FileInfo::Kind::kDirectory
              : S_ISLNK(st.st_mode) ? FileInfo::Kind::kSymbolicLink
                                    : FileInfo::Kind::kOther;
  info.size = static_cast<std::uint64_t>(st.st_size);
  info.inode = static_cast<std::uint64_t>(st.st_ino);
  info.modified =
      Date::fromTimeIntervalSince1970(double(st.st_mtim.tv_sec) + double(st.st_mtim.tv_nsec) / 1e9);
  return info;
}

Result<void> DefaultEnv::createDirectory(const std::string& path, bool intermediates) {
  if (path.empty()) return failure(path, ENOENT);
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return {};
    return failure(path, EEXIST);
  }
  if (intermediates) {
    std::string parent = directoryOf(path);
    if (parent != path) {
      auto made = createDirectory(parent, true);
      if (!made) return made;
    }
  }
  if (::mkdir(path.c_str(), 0700) == 0) return {};
  const int code = errno;
  if (code == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return {};
  return failure(path, code);
}

Result<void> DefaultEnv::removeItem(const std::string& path) {
  if (int code = removeAt(AT_FDCWD, path.c_str()); code != 0) return failure(path, code);
  return {};
}

Result<std::vector<std::string>> DefaultEnv::contentsOfDirectory(const std::string& path) {
  int fd = retry([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (fd < 0) return failure(path);
  DIR* listing = ::fdopendir(fd);
  if (!listing) {
    auto error = failure(path);
    ::close(fd);
    return error;
  }
  std::vector<std::string> names;
  while (dirent* entry = ::readdir(listing)) {
    if (!std::strcmp(entry->d_name, ".") || !std::strcmp(entry->d_name, "..")) continue;
    names.emplace_back(entry->d_name);
  }
  ::closedir(listing);
  return names;
}

DeviceFacts DefaultEnv::deviceFacts() {
  DeviceFacts facts;
  facts.model = "Linux";
  facts.systemVersion = osReleaseVersion();
  utsname u{};
  facts.machine = ::uname(&u) == 0 ? u.machine : "";
  for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    std::string id = firstLine(path);
    if (UUID::fromString(id)) {
      facts.machineId = id;
      break;
    }
  }
  facts.orientation = DeviceOrientation::kUnknown;
  facts.userInterfaceIdiom = UserInterfaceIdiom::kUnspecified;
  facts.mainScreen = drmScreen();
  const char* preload = std::getenv("LD_PRELOAD");
  facts.integrityCompromised = ::geteuid() == 0 || (preload && *preload) || traced();
  return facts;
}

std::optional<std::vector<InterfaceAddress>> DefaultEnv::interfaceAddresses() {
  ifaddrs* all = nullptr;
  if (::getifaddrs(&all) != 0) return std::nullopt;
  std::vector<InterfaceAddress> out;
  for (ifaddrs* a = all; a; a = a->ifa_next) {
    InterfaceAddress entry;
    entry.name = a->ifa_name ? a->ifa_name : "";
    entry.family = a->ifa_addr ? a->ifa_addr->sa_family : AF_UNSPEC;
    entry.flags = a->ifa_flags;
    out.push_back(std::move(entry));
  }
  ::freeifaddrs(all);
  return out;
}

unsigned DefaultEnv::interfaceIndex(std::string_view name) {
  return ::if_nametoindex(std::string(name).c_str());
}

NetworkInterfaces::HardwareAddress DefaultEnv::hardwareAddress(unsigned index) {
  using Query = NetworkInterfaces::HardwareQuery;
  NetworkInterfaces::HardwareAddress out;
  ifreq request{};
  // The kernel answers link-level questions through any socket.
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || !::if_indextoname(index, request.ifr_name)) {
    if (fd >= 0) ::close(fd);
    out.status = Query::kQueryFailed;
    return out;
  }
  const int rc = ::ioctl(fd, SIOCGIFHWADDR, &request);
  ::close(fd);
  if (rc != 0) {
    out.status = Query::kReadFailed;
    return out;
  }
  std::memcpy(out.bytes.data(), request.ifr_hwaddr.sa_data, out.bytes.size());
  out.status = Query::kOk;
  return out;
}

std::string DefaultEnv::pasteboardDirectory() {
  return FileManager::appendingPathComponent(FileManager::dataDirectory(),
                                             "NimbFoundation/Pasteboards");
}

BundleSettings DefaultEnv::bundleSettings() {
  return {};
}

std::string DefaultEnv::localeIdentifier() {
  return stripCodeset(environmentLocale(*Env::current()));
}

std::vector<std::string> DefaultEnv::preferredLanguages() {
  std::vector<std::string> out;
  auto add = [&out](const std::string& posix) {
    std::string tag = languageTag(posix);
    if (!tag.empty() && std::find(out.begin(), out.end(), tag) == out.end()) out.push_back(tag);
  };
  // LANGUAGE is only honoured beside a real locale, as gettext does.
  auto env = Env::current();
  const std::string base = environmentLocale(*env);
  const auto list = env->environmentVariable("LANGUAGE");
  if (!base.empty() && list && !list->empty()) {
    const std::string& all = *list;
    std::size_t start = 0;
    while (start <= all.size()) {
      const auto end = std::min(all.find(':', start), all.size());
      if (end > start) add(all.substr(start, end - start));
      start = end + 1;
    }
  }
  if (!base.empty()) add(base);
  return out;
}

std::string DefaultEnv::systemTimeZoneName() {
  // Detected once: the log asks on every line, and detection reads
  // /etc/localtime through the C library's tzset.
  static const std::string name = detectMachineZoneName();
  return name;
}

namespace {

// Spawns `args` (null-terminated) with `program` as the file to run, with
// the default signal mask and dispositions and no descriptors beyond the
// standard three; `stdoutFd` >= 0 becomes the child's standard output.
// Standard input and, when `stdoutFd` is used, standard error are /dev/null;
// `stdoutFd` is closed here once the child has it. The child's process id,
// or nullopt when it could not start.
std::optional<pid_t> spawnProgram(const char* program, std::vector<char*>& args, int stdoutFd) {
  // The program must not inherit the caller's blocked or ignored signals,
  // nor its descriptors beyond the standard three.
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) return std::nullopt;
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  sigdelset(&all, SIGKILL);
  sigdelset(&all, SIGSTOP);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    posix_spawnattr_destroy(&attributes);
    return std::nullopt;
  }
  if (stdoutFd >= 0) {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
#endif

  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, program, &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) return std::nullopt;
  if (stdoutFd >= 0) ::close(stdoutFd);
  return pid;
}

// Reaps `pid`; its wait status, or nullopt when the system reaped it
// already (the host ignores SIGCHLD).
std::optional<int> reap(pid_t pid) {
  int status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited < 0) return std::nullopt;
  return status;
}

bool hasNul(const std::vector<std::string>& argv) {
  // A NUL would cut an argument short.
  return std::any_of(argv.begin(), argv.end(),
                     [](const std::string& arg) { return arg.find('\0') != std::string::npos; });
}

}  // namespace

bool DefaultEnv::launchDetached(const std::vector<std::string>& argv) {
  if (argv.empty() || hasNul(argv)) return false;
  auto program = findOnPath(argv[0]);
  if (!program) return false;
  // The shell backgrounds the program and exits at once, so the program
  // outlives nothing of ours: the shell is reaped here, and the program,
  // orphaned, by init. The arguments arrive as positional parameters; the
  // command text is fixed.
  std::vector<std::string> words{"sh", "-c", "\"$@\" </dev/null >/dev/null 2>&1 &", "sh", *program};
  words.insert(words.end(), argv.begin() + 1, argv.end());
  std::vector<char*> args;
  for (auto& word : words) args.push_back(word.data());
  args.push_back(nullptr);

  const auto pid = spawnProgram("/bin/sh", args, -1);
  if (!pid) return false;
  const auto status = reap(*pid);
  // No status: the system reaped the shell and took its status with it; the
  // launch itself went ahead.
  if (!status) return errno == ECHILD;
  return WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
}

std::optional<std::string> DefaultEnv::outputOfProgram(const std::vector<std::string>& argv) {
  if (argv.empty() || hasNul(argv)) return std::nullopt;
  auto program = findOnPath(argv[0]);
  if (!program) return std::nullopt;
  std::vector<std::string> words = argv;
  std::vector<char*> args;
  for (auto& word : words) args.push_back(word.data());
  args.push_back(nullptr);

  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
  const auto pid = spawnProgram(program->c_str(), args, pipeFds[1]);
  if (!pid) {
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    return std::nullopt;
  }
  std::string output;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
    if (n > 0) {
      output.append(buffer, static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  ::close(pipeFds[0]);
  const auto status = reap(*pid);
  if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) return std::nullopt;
  return output;
}

}  // namespace detail

}  // namespace nimb
