// The pieces every nimbkit command shares: exit codes, the usage error, and
// the registration of a subcommand with CLI11.
#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include <NimbFoundation/Platform/Core/Value.h>

namespace nimbkit {

// Exit codes of every command.
enum Exit : int {
  kOk = 0,        // done, or found
  kNotFound = 1,  // no fresh entry, nothing to decode, ...
  kUsage = 2,     // the command line or its arguments are wrong
};

// Thrown by a command for an argument that parses but cannot be used; main
// prints it as one line on standard error and exits with kUsage.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A command's body, run after the command line has been parsed.
using Action = std::function<int()>;

// All of `stream`; nullopt on a read error.
inline std::optional<nimb::Data> readAll(std::FILE* stream) {
  nimb::Data bytes;
  unsigned char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, stream)) > 0) bytes.insert(bytes.end(), buf, buf + n);
  if (std::ferror(stream)) return std::nullopt;
  return bytes;
}

// All of standard input; a read error is a UsageError.
inline nimb::Data readStandardInput() {
  auto bytes = readAll(stdin);
  if (!bytes) throw UsageError("cannot read standard input");
  return std::move(*bytes);
}

// Makes `action` the one to run when the user picks `sub`.
inline void onSelected(CLI::App* sub, Action& selected, Action action) {
  sub->callback([&selected, action = std::move(action)] { selected = action; });
}

// Registers `nimbkit cache ...` on `app`; `selected` receives the action of
// the subcommand the user picked.
void addCacheCommand(CLI::App& app, Action& selected);
// Registers `nimbkit download URL` and `nimbkit serve DIR`.
void addDownloadCommands(CLI::App& app, Action& selected);
// Registers `nimbkit fetch URL...` (through the image loader into views)
// and `nimbkit demo`.
void addFetchCommands(CLI::App& app, Action& selected);
// Registers `nimbkit encode --encoding NAME [--decode]` and its custom
// alphabet form.
void addEncodeCommand(CLI::App& app, Action& selected);
// Registers `nimbkit device [--json]` and `nimbkit udid [--app-id ID] ...`.
void addDeviceCommands(CLI::App& app, Action& selected);
// Registers `nimbkit md5`, `aes`, `url-encode`, `url-decode`, `query-parse`
// and `query-build`.
void addUtilsCommands(CLI::App& app, Action& selected);
// Registers `nimbkit text length|email|special|alnum|md5|params TEXT` and
// `nimbkit color HEX [--out FILE]`.
void addTextCommands(CLI::App& app, Action& selected);
// Registers `nimbkit layout FILE.json [--out DIR] [--hide ID] [--detach ID]`.
void addLayoutCommand(CLI::App& app, Action& selected);
// Registers `nimbkit orient IN [--out FILE]`.
void addOrientCommand(CLI::App& app, Action& selected);
// Registers `nimbkit pick` (the desktop's file chooser, through the kit).
void addPickCommand(CLI::App& app, Action& selected);
// Registers `nimbkit locate`: location updates through NimbLocationManager.
void addLocateCommand(CLI::App& app, Action& selected);

}  // namespace nimbkit
