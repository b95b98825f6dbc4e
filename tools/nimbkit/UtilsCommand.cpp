// nimbkit md5, aes, url-encode, url-decode, query-parse, query-build: the
// everyday helpers of VQUtils on the command line, one result per line on
// standard output.
#include <cstdio>
#include <string>
#include <vector>

#include <NimbFoundation/Utils/VQUtils.h>

#include "Command.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::VQUtils;

void printLine(const std::string& text) {
  std::printf("%s\n", text.c_str());
}

// Registers a subcommand taking one TEXT argument and printing one line.
void addTextCommand(CLI::App& app, Action& selected, const char* name, const char* help,
                    std::function<int(const std::string&)> body) {
  auto text = std::make_shared<std::string>();
  auto* sub = app.add_subcommand(name, help);
  sub->add_option("TEXT", *text, "the text")->required();
  onSelected(sub, selected, [text, body] { return body(*text); });
}

}  // namespace

void addUtilsCommands(CLI::App& app, Action& selected) {
  addTextCommand(app, selected, "md5", "Print the MD5 of TEXT as 32 upper-case hex digits",
                 [](const std::string& text) {
                   printLine(VQUtils::md5Value(text));
                   return kOk;
                 });

  auto secret = std::make_shared<std::string>();
  auto plain = std::make_shared<std::string>();
  auto* aes = app.add_subcommand(
      "aes", "Encrypt TEXT with AES-256-CBC under SECRET, print it in web-safe base 64");
  aes->add_option("--secret", *secret, "16 to 32 bytes, the first 16 ASCII")->required();
  aes->add_option("TEXT", *plain, "the text to encrypt")->required();
  onSelected(aes, selected, [secret, plain] {
    auto token = VQUtils::AES256Encrypt(*plain, *secret);
    if (!token) {
      throw UsageError(
          "cannot encrypt: the secret must be 16 to 32 bytes with its first 16 characters "
          "ASCII, and the text must not be empty");
    }
    printLine(*token);
    return kOk;
  });

  addTextCommand(app, selected, "url-encode",
                 "Percent-escape TEXT: all but letters, digits and -._~",
                 [](const std::string& text) {
                   printLine(VQUtils::urlEncode(text));
                   return kOk;
                 });
  addTextCommand(app, selected, "url-decode",
                 "Decode the percent escapes of TEXT (exit 1 when they are not UTF-8)",
                 [](const std::string& text) {
                   auto decoded = VQUtils::urlDecode(text);
                   if (!decoded) {
                     diagnose("nimbkit: the escapes do not decode to UTF-8 text\n");
                     return kNotFound;
                   }
                   printLine(*decoded);
                   return kOk;
                 });
  addTextCommand(app, selected, "query-parse",
                 "Print the pairs of a query string as key=value lines, sorted by key",
                 [](const std::string& text) {
                   auto pairs = VQUtils::dictionaryWithQueryString(text);
                   if (!pairs) {
                     diagnose("nimbkit: the escapes do not decode to UTF-8 text\n");
                     return kNotFound;
                   }
                   for (const auto& [key, value] : *pairs) {
                     printLine(key + "=" + *value.asString());
                   }
                   return kOk;
                 });

  auto pairs = std::make_shared<std::vector<std::string>>();
  auto* build = app.add_subcommand(
      "query-build", "Join KEY=VALUE pairs into a query string, values percent-escaped");
  build->add_option("PAIR", *pairs, "KEY=VALUE; a later KEY replaces an earlier one")->required();
  onSelected(build, selected, [pairs] {
    nimb::Dictionary dictionary;
    for (const auto& pair : *pairs) {
      const auto equals = pair.find('=');
      if (equals == std::string::npos) throw UsageError("'" + pair + "' is not KEY=VALUE");
      dictionary.insert_or_assign(pair.substr(0, equals), nimb::Value(pair.substr(equals + 1)));
    }
    printLine(*VQUtils::queryStringWithDictionary(dictionary));
    return kOk;
  });
}

}  // namespace nimbkit
