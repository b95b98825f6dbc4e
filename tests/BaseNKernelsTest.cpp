#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/Internal/BaseNKernels.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using nimb::BaseNKernels;
using nimb::VQStringEncoding;

namespace {

const std::string kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const std::string kHex = "0123456789ABCDEF";

std::array<std::int32_t, 128> reverseOf(const std::string& alphabet) {
  std::array<std::int32_t, 128> reverse;
  reverse.fill(VQStringEncoding::kUnknown);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    reverse[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int32_t>(i);
  }
  return reverse;
}

}  // namespace

TEST(BaseNKernels, VectorKernelsCoverTheRfcAlphabetsOnAvx2) {
  if (!BaseNKernels::processorHasAvx2()) GTEST_SKIP() << "no AVX2 on this processor";
  const std::string websafe = kBase64.substr(0, 62) + "-_";
  for (const auto& alphabet : {kBase64, websafe, kHex, std::string("0123456789abcdef")}) {
    BaseNKernels k(alphabet, reverseOf(alphabet));
    EXPECT_TRUE(k.hasVectorEncode()) << alphabet;
    EXPECT_TRUE(k.hasVectorDecode()) << alphabet;
  }
  // A 64-character alphabet of another shape still decodes by rows, but has
  // no vector encoder.
  std::string shuffled = kBase64;
  std::swap(shuffled[0], shuffled[63]);
  BaseNKernels k(shuffled, reverseOf(shuffled));
  EXPECT_FALSE(k.hasVectorEncode());
  EXPECT_TRUE(k.hasVectorDecode());
}

// A kernel takes whole blocks of alphabet characters and stops at the start
// of the first block holding anything else, whatever that is.
TEST(BaseNKernels, DecodingStopsAtTheBlockOfTheFirstOtherCharacter) {
  std::mt19937 rng(7);
  auto reverse = reverseOf(kBase64);
  reverse['='] = VQStringEncoding::kPadding;
  reverse['\n'] = VQStringEncoding::kIgnored;
  reverse['a'] = VQStringEncoding::kIgnored;  // an alphabet character set-up took away
  reverse['-'] = 62;                          // a synonym of "+"
  const BaseNKernels k(kBase64, reverse);
  const char others[] = {'=', '\n', 'a', '-', '\0', '!', '\x80', '\xff'};
  for (auto kind : {BaseNKernels::Kind::kScalar, BaseNKernels::Kind::kVector}) {
    if (kind == BaseNKernels::Kind::kVector && !BaseNKernels::processorHasAvx2()) continue;
    for (char other : others) {
      for (std::size_t at : {0u, 5u, 31u, 32u, 63u, 64u, 100u, 127u}) {
        std::string text(128, 'A');
        for (auto& c : text) {
          do c = kBase64[rng() % 64];
          while (c == 'a');
        }
        text[at] = other;
        std::vector<std::uint8_t> out(96);
        EXPECT_EQ(k.decodeBlocks(text.data(), text.size(), out.data(), kind), at / 8 * 8)
            << "character " << static_cast<int>(other) << " at " << at;
      }
    }
  }
}
