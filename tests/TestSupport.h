// Helpers shared by the test groups.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "RunLoopPump.h"

#include <NimbFoundation/Platform/Env/Env.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

extern char** environ;

namespace nimb::test {

// A fresh directory under $TMPDIR (or /tmp), mode 0700.
inline std::string makeTemporaryDirectory(const std::string& prefix) {
  std::string base = std::filesystem::temp_directory_path().string();
  std::string pattern = base + "/" + prefix + "-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

// The bytes of a string.
inline Data dataOf(std::string_view s) {
  return Data(s.begin(), s.end());
}

// The permission bits of what `path` names (links followed); ~0u when nothing is there.
inline unsigned modeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : ~0u;
}

// The whole file at `path`; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Runs `body` in a forked child that ends with _exit(body()) unless the body
// exits itself; the child's process id.
inline pid_t forkChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid;
}

// Waits for the child; its exit code (128 + signal when killed).
inline int exitStatus(pid_t child) {
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct ToolResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// A program started by startProgram(), running until finish() waits for it:
// its exit code (128 + signal when killed) and output.
struct RunningProgram {
  pid_t pid = -1;
  std::string dir;  // its standard input, output and error files
  ToolResult finish() {
    ToolResult result{pid > 0 ? exitStatus(pid) : -1, readFile(dir + "/out"),
                      readFile(dir + "/err")};
    pid = -1;
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return result;
  }
};

// Starts `command` (found on PATH unless it holds a "/"), feeding `input` on
// standard input, in this process's environment (so it shares the
// temporary HOME), and returns without waiting.
inline RunningProgram startProgram(const std::vector<std::string>& command,
                                   const std::string& input = "") {
  RunningProgram program{-1, makeTemporaryDirectory("nimbkit-io")};
  if (!(std::ofstream(program.dir + "/in", std::ios::binary) << input)) {
    throw std::runtime_error("cannot stage input");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const char* files[] = {"/in", "/out", "/err"};
  for (int fd = 0; fd < 3; ++fd) {
    posix_spawn_file_actions_addopen(&actions, fd, (program.dir + files[fd]).c_str(),
                                     fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC, 0600);
  }
  std::vector<std::string> argvStore = command;
  std::vector<char*> argv;
  for (auto& a : argvStore) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) program.pid = pid;
  posix_spawn_file_actions_destroy(&actions);
  return program;
}

// Ends a program started by startProgram() with SIGTERM and waits for it;
// nothing happens when it was never started or has been waited for.
inline void stopProgram(RunningProgram& program) {
  if (program.pid <= 0) return;
  ::kill(program.pid, SIGTERM);
  program.finish();
}

// A private dbus-daemon that stands in for the session or the system bus of
// one test. Starts it into `bus` and returns its address, "" when it did not come up
// within five seconds. stopProgram(bus) ends it.
inline std::string startPrivateBus(RunningProgram& bus) {
  bus = startProgram({"dbus-daemon", "--session", "--print-address", "--nofork"});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string out = readFile(bus.dir + "/out");
    if (auto end = out.find('\n'); end != std::string::npos) return out.substr(0, end);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return "";
}

// Runs `command` to its end (see startProgram).
inline ToolResult runProgram(const std::vector<std::string>& command,
                             const std::string& input = "") {
  return startProgram(command, input).finish();
}

// Why a private bus for a test cannot run ("" when it can): no
// dbus-daemon, or no python3-dbusmock for the fakes that serve on it.
inline std::string privateBusUnavailableReason() {
  if (runProgram({"sh", "-c", "command -v dbus-daemon"}).exitCode != 0) {
    return "dbus-daemon is not installed";
  }
  if (runProgram({"/usr/bin/python3", "-c", "import dbusmock"}).exitCode != 0) {
    return "python3-dbusmock is not installed for /usr/bin/python3";
  }
  return "";
}

// What `body` writes on file descriptor `fd` (1 or 2), caught in a file.
inline std::string captureOutput(int fd, const std::function<void()>& body) {
  std::fflush(fd == 1 ? stdout : stderr);
  const std::string dir = makeTemporaryDirectory("capture"), path = dir + "/out";
  const int saved = ::dup(fd);
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::dup2(file, fd);
  ::close(file);
  body();
  std::fflush(fd == 1 ? stdout : stderr);
  ::dup2(saved, fd);
  ::close(saved);
  std::string text = readFile(path);
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return text;
}

// The PNG of a picture, as a body a test server can send.
inline std::string pngBody(const std::shared_ptr<const Image>& image) {
  auto png = image->pngRepresentation();
  return png ? std::string(png->begin(), png->end()) : std::string();
}

// Starts the nimbkit binary with `args`.
inline RunningProgram startNimbkit(const std::vector<std::string>& args,
                                   const std::string& input = "") {
  std::vector<std::string> command{NIMBKIT_PATH};
  command.insert(command.end(), args.begin(), args.end());
  return startProgram(command, input);
}

// Runs the nimbkit binary with `args` to its end.
inline ToolResult runNimbkit(const std::vector<std::string>& args, const std::string& input = "") {
  return startNimbkit(args, input).finish();
}

// For its lifetime, HOME and XDG_CACHE_HOME, XDG_CONFIG_HOME and
// XDG_DATA_HOME name a fresh temporary tree, so that programs a test starts,
// and the per-call lookups of the platform classes, find nothing an earlier
// test left. The previous values come back, and the tree goes, at the end.
class ScopedHome {
 public:
  ScopedHome() : root_(makeTemporaryDirectory("nimb-scoped-home")) {
    for (const auto& [name, dir] : kVariables) {
      const char* value = std::getenv(name);
      saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
      ::setenv(name, (root_ + dir).c_str(), 1);
    }
  }
  ~ScopedHome() {
    for (const auto& [name, value] : saved_) {
      value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  ScopedHome(const ScopedHome&) = delete;
  ScopedHome& operator=(const ScopedHome&) = delete;
  const std::string& root() const { return root_; }

 private:
  static constexpr std::pair<const char*, const char*> kVariables[] = {
      {"HOME", ""},
      {"XDG_CACHE_HOME", "/cache"},
      {"XDG_CONFIG_HOME", "/config"},
      {"XDG_DATA_HOME", "/data"}};
  std::string root_;
  std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

// A machine a test describes. Both clocks stand still until advance() or
// setNow() moves them, starting where the real ones were. Every other fact
// is the real machine's unless its field is set; set the fields before the
// Env is installed, or while no other thread asks it.
class FakeEnv : public EnvWrapper {
  using Base = EnvWrapper;

 public:
  std::optional<DeviceFacts> device;
  std::optional<std::vector<InterfaceAddress>> interfaces;
  bool interfacesUnreadable = false;                       // the list cannot be read
  std::optional<std::map<std::string, unsigned>> indexes;  // absent names are 0
  std::optional<NetworkInterfaces::HardwareAddress> hardware;
  std::optional<std::string> locale;
  std::optional<std::vector<std::string>> languages;
  std::optional<std::string> timeZone;
  std::optional<BundleSettings> bundle;
  std::optional<std::string> pasteboardDir;
  std::optional<std::string> home;
  // Keeps the real monotonic clock, for a test that pins only the date
  // while run-loop timers run in real time.
  bool realMonotonic = false;
  // Variables set here win over the process's; a nullopt value reads as unset.
  std::map<std::string, std::optional<std::string>, std::less<>> variables;

  FakeEnv()
      : wall_(target().now().timeIntervalSince1970()), monotonic_(target().monotonicSeconds()) {}

  // Moves both clocks forward.
  void advance(double seconds) {
    wall_.store(wall_.load() + seconds);
    monotonic_.store(monotonic_.load() + seconds);
  }
  void setNow(Date date) { wall_.store(date.timeIntervalSince1970()); }

  Date now() override { return Date::fromTimeIntervalSince1970(wall_.load()); }
  double monotonicSeconds() override {
    return realMonotonic ? Base::monotonicSeconds() : monotonic_.load();
  }
  std::optional<std::string> environmentVariable(std::string_view name) override {
    auto found = variables.find(name);
    return found != variables.end() ? found->second : Base::environmentVariable(name);
  }
  std::string homeDirectory() override { return home ? *home : Base::homeDirectory(); }
  DeviceFacts deviceFacts() override { return device ? *device : Base::deviceFacts(); }
  std::optional<std::vector<InterfaceAddress>> interfaceAddresses() override {
    if (interfacesUnreadable) return std::nullopt;
    return interfaces ? interfaces : Base::interfaceAddresses();
  }
  unsigned interfaceIndex(std::string_view name) override {
    if (!indexes) return Base::interfaceIndex(name);
    auto found = indexes->find(std::string(name));
    return found == indexes->end() ? 0 : found->second;
  }
  NetworkInterfaces::HardwareAddress hardwareAddress(unsigned index) override {
    return hardware ? *hardware : Base::hardwareAddress(index);
  }
  std::string pasteboardDirectory() override {
    return pasteboardDir ? *pasteboardDir : Base::pasteboardDirectory();
  }
  BundleSettings bundleSettings() override { return bundle ? *bundle : Base::bundleSettings(); }
  std::string localeIdentifier() override { return locale ? *locale : Base::localeIdentifier(); }
  std::vector<std::string> preferredLanguages() override {
    return languages ? *languages : Base::preferredLanguages();
  }
  std::string systemTimeZoneName() override {
    return timeZone ? *timeZone : Base::systemTimeZoneName();
  }

 private:
  std::atomic<double> wall_;
  std::atomic<double> monotonic_;
};

// Installs an Env for its lifetime and puts the previous one back after.
class InstalledEnv {
 public:
  explicit InstalledEnv(std::shared_ptr<Env> env) : previous_(Env::current()) {
    Env::setCurrent(std::move(env));
  }
  ~InstalledEnv() { Env::setCurrent(previous_); }
  InstalledEnv(const InstalledEnv&) = delete;
  InstalledEnv& operator=(const InstalledEnv&) = delete;

 private:
  std::shared_ptr<Env> previous_;
};

// A FakeEnv installed for the scope: `FakeMachine machine; machine->locale = "de_CH";`.
struct FakeMachine {
  std::shared_ptr<FakeEnv> env = std::make_shared<FakeEnv>();
  InstalledEnv installed{env};
  FakeEnv* operator->() const { return env.get(); }
};

}  // namespace nimb::test
