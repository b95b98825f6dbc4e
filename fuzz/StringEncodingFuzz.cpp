// Decodes arbitrary text with every named encoder and a lenient one (ignored
// characters, synonyms), through the bit loop and through each block-kernel
// path: verdicts and bytes must agree, and whatever decodes must come back
// unchanged through encode and decode again. The same input, read as bytes,
// must encode identically through every path. Below the encoder, each
// block-kernel width the processor runs (scalar, AVX2, AVX-512) must
// consume as much and write the same bytes. Nothing may crash.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/Internal/BaseNKernels.h>

using nimb::Data;
using nimb::VQStringEncoding;
using Path = VQStringEncoding::Path;
using Kind = nimb::BaseNKernels::Kind;

namespace {

// Every width of the base-64 block kernels against the scalar one.
void compareKernelWidths(const std::uint8_t* data, std::size_t size) {
  static const auto kernels = [] {
    std::vector<nimb::BaseNKernels> all;
    const std::string base = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (const std::string& alphabet : {base + "+/", base + "-_"}) {
      std::array<std::int32_t, 128> reverse;
      reverse.fill(VQStringEncoding::kUnknown);
      for (std::size_t i = 0; i < 64; ++i)
        reverse[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int32_t>(i);
      all.emplace_back(alphabet, reverse);
    }
    return all;
  }();
  std::vector<Kind> kinds{Kind::kVector};
  if (nimb::BaseNKernels::processorHasAvx2()) kinds.push_back(Kind::kAvx2);
  if (nimb::BaseNKernels::processorHasAvx512Vbmi()) kinds.push_back(Kind::kAvx512);
  const auto* text = reinterpret_cast<const char*>(data);
  for (const auto& k : kernels) {
    std::string encoded(size / 6 * 8, '\0'), other = encoded;
    std::vector<std::uint8_t> decoded(size / 8 * 6), again = decoded;
    const std::size_t taken = k.encodeBlocks(data, size, encoded.data(), Kind::kScalar);
    const std::size_t read = k.decodeBlocks(text, size, decoded.data(), Kind::kScalar);
    decoded.resize(read / 8 * 6);
    for (Kind kind : kinds) {
      if (k.encodeBlocks(data, size, other.data(), kind) != taken || other != encoded) std::abort();
      again.assign(size / 8 * 6, 0);
      if (k.decodeBlocks(text, size, again.data(), kind) != read) std::abort();
      again.resize(read / 8 * 6);
      if (again != decoded) std::abort();
    }
  }
}

}  // namespace

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
  compareKernelWidths(data, size);
  return 0;
}
