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

#include <vector>

extern char** environ;

namespace nimb::test {

struct ToolResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs `command` (found on PATH unless it holds a "/"), feeding `input` on
// standard input, in this process's environment (so it shares the
// temporary HOME).
inline ToolResult runProgram(const std::vector<std::string>& command,
                             const std::string& input = "") {
  std::string dir = makeTemporaryDirectory("nimbkit-io");
  std::string inPath = dir + "/in", outPath = dir + "/out", errPath = dir + "/err";
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
  ToolResult result;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  auto slurp = [](const std::string& path) {
    std::string s;
    int fd = ::open(path.c_str(), O_RDONLY);
    char buf[4096];
    ssize_t n;
    while (fd >= 0 && (n = ::read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
    if (fd >= 0) ::close(fd);
    return s;
  };
  result.out = slurp(outPath);
  result.err = slurp(errPath);
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return result;
}

// Runs the nimbkit binary with `args`.
inline ToolResult runNimbkit(const std::vector<std::string>& args, const std::string& input = "") {
  std::vector<std::string> command{NIMBKIT_PATH};
  command.insert(command.end(), args.begin(), args.end());
  return runProgram(command, input);
}

}  // namespace nimb::test
