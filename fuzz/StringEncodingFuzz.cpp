// Decodes arbitrary text with every named encoder and a lenient one (ignored
// characters, synonyms), through the bit loop and through each block-kernel
// path: verdicts and bytes must agree, and whatever decodes must come back
// unchanged through encode and decode again. The same input, read as bytes,
// must encode identically through every path. Nothing may crash.
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include <NimbFoundation/Encode/VQStringEncoding.h>

using nimb::Data;
using nimb::VQStringEncoding;
using Path = VQStringEncoding::Path;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto encoders = [] {
    std::vector<std::shared_ptr<VQStringEncoding>> all;
    for (auto name : VQStringEncoding::encodingNames())
      all.push_back(VQStringEncoding::encodingNamed(name));
    auto lenient = VQStringEncoding::rfc4648Base64StringEncoding();
    lenient->ignoreCharacters(" \r\n");
    lenient->addDecodeSynonyms("+-/_");
    all.push_back(lenient);
    return all;
  }();
  constexpr Path kFast[] = {Path::kScalar, Path::kVector, Path::kAutomatic};
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const Data bytes(data, data + size);
  for (const auto& encoder : encoders) {
    const auto exact = encoder->decode(text, Path::kExact);
    for (auto path : kFast) {
      if (encoder->decode(text, path) != exact) std::abort();
    }
    const std::string encoded = encoder->encode(bytes, Path::kExact);
    for (auto path : kFast) {
      if (encoder->encode(bytes, path) != encoded) std::abort();
    }
    if (!exact) continue;
    auto again = encoder->decode(encoder->encode(*exact));
    if (!again || *again != *exact) std::abort();
  }
  return 0;
}
