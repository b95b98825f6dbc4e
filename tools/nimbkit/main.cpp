// nimbkit: the command-line front door to NimbFoundation.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include <NimbFoundation/Version.h>

#include "Command.h"
#include "DisplayText.h"
#include "Output.h"

namespace {

// CLI11's messages can span lines; the tool promises one line.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// An unknown command word where one is required ("nimbkit frobnicate",
// "nimbkit cache frob"): the words up to it, and the command whose help
// lists the right ones.
struct UnknownCommand {
  std::string words;   // "cache frob"
  std::string parent;  // "nimbkit cache"
};

// The first word of the command line that names no subcommand where one is
// required; nullopt when every word fits.
std::optional<UnknownCommand> unknownSubcommand(CLI::App& app,
                                                const std::vector<std::string>& args) {
  CLI::App* current = &app;
  std::string path;
  for (const std::string& word : args) {
    if (word.empty() || word[0] == '-') return std::nullopt;  // options are CLI11's
    auto matches = current->get_subcommands([&](CLI::App* s) { return s->check_name(word); });
    CLI::App* sub = matches.empty() ? nullptr : matches.front();
    if (!sub) {
      if (current->get_require_subcommand_min() == 0) return std::nullopt;
      return UnknownCommand{path + (path.empty() ? "" : " ") + nimbkit::escapeForDisplay(word),
                            "nimbkit" + (path.empty() ? "" : " " + path)};
    }
    current = sub;
    path += (path.empty() ? "" : " ") + word;
  }
  return std::nullopt;
}

// The command line after the program name, with "help [COMMAND...]" read
// as "[COMMAND...] --help".
std::vector<std::string> argumentsOf(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args.front() == "help") {
    args.erase(args.begin());
    args.push_back("--help");
  }
  return args;
}

int run(int argc, char** argv) {
  nimbkit::installDiagnosticSink();
  CLI::App app{"nimbkit: see NimbFoundation's services work, and script them", "nimbkit"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "nimbkit " NIMBFOUNDATION_VERSION_STRING,
                       "Print the version and exit");
  nimbkit::Action selected;
  nimbkit::addCacheCommand(app, selected);
  nimbkit::addDownloadCommands(app, selected);
  nimbkit::addFetchCommands(app, selected);
  nimbkit::addEncodeCommand(app, selected);
  nimbkit::addDeviceCommands(app, selected);
  nimbkit::addUtilsCommands(app, selected);
  nimbkit::addLayoutCommand(app, selected);
  nimbkit::addTextCommands(app, selected);
  nimbkit::addOrientCommand(app, selected);
  nimbkit::addPickCommand(app, selected);
  nimbkit::addLocateCommand(app, selected);

  std::vector<std::string> args = argumentsOf(argc, argv);
  if (auto unknown = unknownSubcommand(app, args)) {
    nimbkit::diagnose("nimbkit: unknown command '%s'\nTry '%s --help' for more information.\n",
                      unknown->words.c_str(), unknown->parent.c_str());
    return nimbkit::kUsage;
  }
  try {
    std::reverse(args.begin(), args.end());  // CLI11 takes them last first
    app.parse(args);
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help, --version
  } catch (const CLI::ParseError& e) {
    nimbkit::diagnose("nimbkit: %s\n", oneLine(e.what()).c_str());
    return nimbkit::kUsage;
  }
  try {
    return selected ? selected() : nimbkit::kUsage;
  } catch (const nimbkit::UsageError& e) {
    nimbkit::diagnose("nimbkit: %s\n", oneLine(e.what()).c_str());
    return nimbkit::kUsage;
  } catch (const std::exception& e) {
    nimbkit::diagnose("nimbkit: %s\n", oneLine(e.what()).c_str());
    return nimbkit::kNotFound;
  }
}

}  // namespace

int main(int argc, char** argv) {
  return nimbkit::finishStandardStreams(run(argc, argv));
}
