// nimbkit encode: bytes to text and back with VQStringEncoding, standard
// input to standard output.
//
// Encoding writes the text and one line break, so the output is a line;
// decoding drops one trailing line break (or CR LF) before it decodes, so
// the two pipe into each other and `echo` can feed the decoder.
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <NimbFoundation/Encode/VQStringEncoding.h>

#include "Command.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nimb::Data;
using nimb::VQStringEncoding;

struct EncodeOptions {
  std::string encoding;
  std::optional<std::string> alphabet;
  std::optional<std::string> padChar;
  bool pad = false;
  bool decode = false;
};

// The library only says no; the user deserves to know which rule was broken.
std::string whyNoEncoder(const std::string& alphabet) {
  for (char c : alphabet) {
    if (static_cast<unsigned char>(c) >= 128) return "holds a character that is not ASCII";
  }
  std::set<char> seen;
  for (char c : alphabet) {
    if (!seen.insert(c).second) return std::string("repeats the character '") + c + "'";
  }
  return "has " + std::to_string(alphabet.size()) +
         " characters; it needs 2, 4, 8, 16, 32, 64 or 128";
}

std::shared_ptr<VQStringEncoding> makeEncoder(const EncodeOptions& o) {
  if (!o.alphabet) {
    if (o.encoding.empty()) throw UsageError("give --encoding NAME or --alphabet STRING");
    return VQStringEncoding::encodingNamed(o.encoding);
  }
  auto encoder = VQStringEncoding::stringEncodingWithString(*o.alphabet);
  if (!encoder) throw UsageError("--alphabet " + whyNoEncoder(*o.alphabet));
  if (o.padChar) {
    if (o.padChar->size() != 1 || !encoder->setPaddingChar((*o.padChar)[0])) {
      throw UsageError("--pad-char must be one ASCII character");
    }
  }
  encoder->setDoPad(o.pad);
  return encoder;
}

int run(const EncodeOptions& o) {
  auto encoder = makeEncoder(o);
  Data raw = readStandardInput();
  if (!o.decode) {
    std::string text = encoder->encode(raw) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    return kOk;
  }
  std::string input(raw.begin(), raw.end());
  if (!input.empty() && input.back() == '\n') input.pop_back();
  if (!input.empty() && input.back() == '\r') input.pop_back();
  auto bytes = encoder->decode(input);
  if (!bytes) {
    diagnose("nimbkit: the input is not valid text for this encoding\n");
    return kNotFound;
  }
  std::fwrite(bytes->data(), 1, bytes->size(), stdout);
  return kOk;
}

}  // namespace

void addEncodeCommand(CLI::App& app, Action& selected) {
  auto options = std::make_shared<EncodeOptions>();
  auto* cmd = app.add_subcommand(
      "encode", "Encode standard input as text (or decode text with --decode) to standard output");
  std::set<std::string> names(VQStringEncoding::encodingNames().begin(),
                              VQStringEncoding::encodingNames().end());
  auto* encoding = cmd->add_option("--encoding", options->encoding, "A named encoding")
                       ->check(CLI::IsMember(names));
  auto* alphabet = cmd->add_option("--alphabet", options->alphabet,
                                   "A custom alphabet: 2, 4, ..., 128 distinct ASCII characters");
  encoding->excludes(alphabet);
  cmd->add_option("--pad-char", options->padChar, "Padding character of a custom alphabet")
      ->needs(alphabet);
  cmd->add_flag("--pad", options->pad, "Pad a custom alphabet's output to whole groups")
      ->needs(alphabet);
  cmd->add_flag("--decode", options->decode, "Read text and write the bytes it stands for");
  onSelected(cmd, selected, [options] { return run(*options); });
}

}  // namespace nimbkit
