// nimbkit text length|email|special|alnum|md5|params TEXT and nimbkit color
// HEX [--out FILE]: the kit's String and Color extensions (NimbKit) on the
// command line, one result per line on standard output.
//
// `color` prints "red R green G blue B alpha A", each component from 0 to 1
// in at most 6 significant digits ("#FF8000" gives "red 1 green 0.501961
// blue 0 alpha 1"); with --out it also writes a 64 x 64 PNG swatch filled
// with the colour, and a write failure exits 1.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>

#include "Command.h"
#include "DisplayText.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::NimbKit;

void printLine(const std::string& text) {
  std::printf("%s\n", text.c_str());
}

const char* yesNo(bool value) {
  return value ? "true" : "false";
}

// Registers `text NAME TEXT`, printing what `body` makes of TEXT.
void addTextSubcommand(CLI::App& text, Action& selected, const char* name, const char* help,
                       std::function<void(const std::string&)> body) {
  auto argument = std::make_shared<std::string>();
  auto* sub = text.add_subcommand(name, help);
  sub->add_option("TEXT", *argument, "the text")->required();
  onSelected(sub, selected, [argument, body] {
    body(*argument);
    return kOk;
  });
}

void writeSwatch(const nimb::Color& color, const std::string& path) {
  nimb::ImageContext context({64, 64}, false, 1);
  context.fillRect({0, 0, 64, 64}, color);
  auto image = context.image();
  auto png = image ? image->pngRepresentation() : std::nullopt;
  if (!png) throw std::runtime_error(escapeForDisplay(path) + ": cannot draw the swatch");
  if (auto why = writeUserFile(path, *png); !why.empty()) {
    throw std::runtime_error(escapeForDisplay(path) + ": cannot write (" + why + ")");
  }
}

}  // namespace

void addTextCommands(CLI::App& app, Action& selected) {
  auto* text = app.add_subcommand("text", "The kit's text helpers: count, test, digest, parse");
  text->require_subcommand(1);
  addTextSubcommand(*text, selected, "length", "Print the number of user-perceived characters",
                    [](const std::string& t) {
                      printLine(std::to_string(NimbKit::getStringLengthWithString(t)));
                    });
  addTextSubcommand(*text, selected, "email", "Print whether TEXT is shaped like an e-mail address",
                    [](const std::string& t) { printLine(yesNo(NimbKit::checkEmailFormat(t))); });
  addTextSubcommand(
      *text, selected, "special",
      "Print whether TEXT has anything but ASCII letters, digits, _ and CJK ideographs",
      [](const std::string& t) { printLine(yesNo(NimbKit::includeSpecialCharact(t))); });
  addTextSubcommand(
      *text, selected, "alnum", "Print whether TEXT is ASCII letters and digits only",
      [](const std::string& t) { printLine(yesNo(NimbKit::includeAlphabetOrDigitOnly(t))); });
  addTextSubcommand(*text, selected, "md5",
                    "Print the MD5 of TEXT up to its first NUL as 32 lower-case hex digits",
                    [](const std::string& t) { printLine(NimbKit::md5(t)); });
  addTextSubcommand(*text, selected, "params",
                    "Print the parameters after the first ? of a request URL as key=value lines, "
                    "sorted by key, not decoded",
                    [](const std::string& t) {
                      for (const auto& [key, value] : NimbKit::parseWebViewRequestString(t)) {
                        printLine(escapeForDisplay(key) + "=" + escapeForDisplay(value));
                      }
                    });

  auto hex = std::make_shared<std::string>();
  auto out = std::make_shared<std::string>();
  auto* color = app.add_subcommand(
      "color", "Print the components of a #RRGGBB colour (white when it is not one)");
  color->add_option("HEX", *hex, "the colour text, \"#\" optional")->required();
  color->add_option("--out", *out, "also write a 64 x 64 PNG swatch of the colour to FILE");
  onSelected(color, selected, [hex, out] {
    const nimb::Color c = NimbKit::colorWithHexString(*hex);
    if (!out->empty()) writeSwatch(c, *out);
    std::printf("red %g green %g blue %g alpha %g\n", c.red, c.green, c.blue, c.alpha);
    return kOk;
  });
}

}  // namespace nimbkit
