#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/Internal/BaseNKernels.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
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

using Kind = BaseNKernels::Kind;

// The kernels this processor can run; a forced width it lacks is skipped.
std::vector<Kind> runnableKinds() {
  std::vector<Kind> kinds{Kind::kScalar, Kind::kVector};
  if (BaseNKernels::processorHasAvx2()) kinds.push_back(Kind::kAvx2);
  if (BaseNKernels::processorHasAvx512Vbmi()) kinds.push_back(Kind::kAvx512);
  return kinds;
}

}  // namespace

TEST(BaseNKernels, VectorKernelsCoverTheRfcAlphabets) {
  const bool avx2 = BaseNKernels::processorHasAvx2();
  const bool avx512 = BaseNKernels::processorHasAvx512Vbmi();
  const std::string websafe = kBase64.substr(0, 62) + "-_";
  for (const auto& alphabet : {kBase64, websafe, kHex, std::string("0123456789abcdef")}) {
    BaseNKernels k(alphabet, reverseOf(alphabet));
    EXPECT_EQ(k.hasVectorEncode(), avx2) << alphabet;
    EXPECT_EQ(k.hasVectorDecode(), avx2) << alphabet;
    EXPECT_EQ(k.hasAvx512(), avx512 && alphabet.size() == 64) << alphabet;
  }
  // A 64-character alphabet of another shape still decodes by rows on
  // AVX2, but has no AVX2 encoder; AVX-512 takes any.
  std::string shuffled = kBase64;
  std::swap(shuffled[0], shuffled[63]);
  BaseNKernels k(shuffled, reverseOf(shuffled));
  EXPECT_FALSE(k.hasVectorEncode());
  EXPECT_EQ(k.hasVectorDecode(), avx2);
  EXPECT_EQ(k.hasAvx512(), avx512);
}

// Every width writes the scalar kernel's bytes and consumes as much, for
// base-64 alphabets of every shape, every length to 300 and a few long
// ones; decoding also with one invalid or non-ASCII byte placed at random.
TEST(BaseNKernels, EveryWidthEncodesAndDecodesLikeTheScalarKernel) {
  std::mt19937 rng(64);
  std::string shuffled = kBase64;
  std::shuffle(shuffled.begin(), shuffled.end(), rng);
  std::vector<std::size_t> lengths(301);
  for (std::size_t i = 0; i < lengths.size(); ++i) lengths[i] = i;
  for (std::size_t big : {4095u, 65536u, 100003u}) lengths.push_back(big);
  for (const auto& alphabet : {kBase64, kBase64.substr(0, 62) + "-_", shuffled}) {
    const BaseNKernels k(alphabet, reverseOf(alphabet));
    for (std::size_t length : lengths) {
      std::vector<std::uint8_t> bytes(length);
      for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
      std::string text(length, '\0');
      for (auto& c : text) c = alphabet[rng() % 64];
      const bool spoil = length > 0 && rng() % 2;
      if (spoil) text[rng() % length] = "=!\0\x80\xff\n"[rng() % 6];
      // What a kernel writes, how much text it takes, and the bytes that gives.
      const auto run = [&](Kind kind) {
        std::string encoded(length / 6 * 8, '\0');
        EXPECT_EQ(k.encodeBlocks(bytes.data(), length, encoded.data(), kind), length / 6 * 6);
        std::vector<std::uint8_t> decoded(length / 8 * 6);
        const std::size_t taken = k.decodeBlocks(text.data(), length, decoded.data(), kind);
        decoded.resize(taken / 8 * 6);
        return std::tuple(encoded, taken, decoded);
      };
      const auto scalar = run(Kind::kScalar);
      if (!spoil) {
        ASSERT_EQ(std::get<1>(scalar), length / 8 * 8);
      }
      for (Kind kind : runnableKinds()) {
        if (kind != Kind::kScalar) {
          ASSERT_EQ(run(kind), scalar)
              << alphabet << " length " << length << " kind " << static_cast<int>(kind);
        }
      }
    }
  }
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
  for (Kind kind : runnableKinds()) {
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
