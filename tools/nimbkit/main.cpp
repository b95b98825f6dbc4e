// nimbkit: the command-line front door to NimbFoundation.
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "Command.h"
#include "DisplayText.h"

namespace {

// CLI11's messages can span lines; the tool promises one line.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// The first word of the command line that names no subcommand where one is
// required ("nimbkit frobnicate", "nimbkit cache frob"), with the command
// path it was given to; nullopt when every word fits.
std::optional<std::string> unknownSubcommand(CLI::App& app, int argc, char** argv) {
  CLI::App* current = &app;
  std::string path = "nimbkit";
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word.empty() || word[0] == '-') return std::nullopt;  // options are CLI11's
    auto matches = current->get_subcommands([&](CLI::App* s) { return s->check_name(word); });
    CLI::App* sub = matches.empty() ? nullptr : matches.front();
    if (!sub) {
      if (current->get_require_subcommand_min() == 0) return std::nullopt;
      return path + ": unknown subcommand \"" + nimbkit::escapeForDisplay(word) + "\"";
    }
    current = sub;
    path += " " + word;
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"nimbkit: see NimbFoundation's services work, and script them"};
  app.require_subcommand(1);
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

  if (auto unknown = unknownSubcommand(app, argc, argv)) {
    std::fprintf(stderr, "%s\n", oneLine(*unknown).c_str());
    return nimbkit::kUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "nimbkit: %s\n", oneLine(e.what()).c_str());
    return nimbkit::kUsage;
  }
  try {
    return selected ? selected() : nimbkit::kUsage;
  } catch (const nimbkit::UsageError& e) {
    std::fprintf(stderr, "nimbkit: %s\n", oneLine(e.what()).c_str());
    return nimbkit::kUsage;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "nimbkit: %s\n", oneLine(e.what()).c_str());
    return nimbkit::kNotFound;
  }
}
