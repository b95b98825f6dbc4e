// nimbkit: the command-line front door to NimbFoundation.
#include <cstdio>
#include <exception>
#include <string>

#include "Command.h"

namespace {

// CLI11's messages can span lines; the tool promises one line.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
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
