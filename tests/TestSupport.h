// Helpers shared by the test groups.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace nimb::test {

// A fresh directory under $TMPDIR (or /tmp), mode 0700.
inline std::string makeTemporaryDirectory(const std::string& prefix) {
  std::string base = std::filesystem::temp_directory_path().string();
  std::string pattern = base + "/" + prefix + "-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

}  // namespace nimb::test

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include <NimbFoundation/Platform/Image.h>

extern char** environ;

namespace nimb::test {

struct ToolResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// A program started by startProgram(), running until finish() waits for it.
struct RunningProgram {
  pid_t pid = -1;
  std::string dir;  // its standard input, output and error files
  ToolResult finish();
};

// Starts `command` (found on PATH unless it holds a "/"), feeding `input` on
// standard input, in this process's environment (so it shares the
// temporary HOME), and returns without waiting.
inline RunningProgram startProgram(const std::vector<std::string>& command,
                                   const std::string& input = "") {
  RunningProgram program;
  program.dir = makeTemporaryDirectory("nimbkit-io");
  std::string inPath = program.dir + "/in", outPath = program.dir + "/out",
              errPath = program.dir + "/err";
  {
    int fd = ::open(inPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (::write(fd, input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
      throw std::runtime_error("cannot stage input");
    }
    ::close(fd);
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  std::vector<std::string> argvStore = command;
  std::vector<char*> argv;
  for (auto& a : argvStore) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) program.pid = pid;
  posix_spawn_file_actions_destroy(&actions);
  return program;
}

// Waits for the program; its exit code (128 + signal when killed) and output.
inline ToolResult RunningProgram::finish() {
  ToolResult result;
  if (pid > 0) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid = -1;
  }
  auto slurp = [](const std::string& path) {
    std::string s;
    int fd = ::open(path.c_str(), O_RDONLY);
    char buf[4096];
    ssize_t n;
    while (fd >= 0 && (n = ::read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
    if (fd >= 0) ::close(fd);
    return s;
  };
  result.out = slurp(dir + "/out");
  result.err = slurp(dir + "/err");
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return result;
}

// Runs `command` to its end (see startProgram).
inline ToolResult runProgram(const std::vector<std::string>& command,
                             const std::string& input = "") {
  return startProgram(command, input).finish();
}

// What `body` writes on file descriptor `fd` (1 or 2), caught in a file.
inline std::string captureOutput(int fd, const std::function<void()>& body) {
  std::fflush(fd == 1 ? stdout : stderr);
  const std::string path = makeTemporaryDirectory("capture") + "/out";
  const int saved = ::dup(fd);
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::dup2(file, fd);
  ::close(file);
  body();
  std::fflush(fd == 1 ? stdout : stderr);
  ::dup2(saved, fd);
  ::close(saved);
  std::string text;
  char buffer[4096];
  ssize_t n;
  const int in = ::open(path.c_str(), O_RDONLY);
  while (in >= 0 && (n = ::read(in, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  if (in >= 0) ::close(in);
  return text;
}

// Lower-case hex of a byte string or buffer.
template <typename Bytes>
std::string hexOf(const Bytes& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (auto b : bytes) {
    const auto byte = static_cast<unsigned char>(b);
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 15]);
  }
  return out;
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

}  // namespace nimb::test
