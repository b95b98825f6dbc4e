// BaseNKernels: the fast encode and decode paths behind VQStringEncoding.
// VQStringEncoding::encodeInto() and decodeInto() call them; nothing else
// needs to.
//
// A kernel works on whole blocks only. For an alphabet of 2^s characters a
// block is s bytes of data and 8 characters of text, which is always a whole
// number of padding groups, so the bit loop can carry on exactly where a
// kernel stops, with an empty bit buffer.
//
// Two kinds of kernel:
//   - scalar: table-driven, for every alphabet size. Encoding looks up 2 to
//     8 characters at once; decoding ORs 8 pre-shifted table entries and
//     checks one marker bit for the whole block.
//   - AVX2, used only when the processor has it, for 16-character
//     alphabets (any characters) and for 64-character alphabets that start
//     "A-Za-z0-9" (encode) or whose characters map to their values with one
//     offset per 16-code row plus at most two exceptions (decode), which
//     covers both RFC 4648 alphabets.
//   - AVX-512 (VBMI), used only when the processor has it, for every
//     64-character alphabet: the whole alphabet and the whole reverse table
//     fit in registers, so no shape is needed.
// A vector kernel hands over to the next narrower one, and the scalar
// kernel takes the blocks that remain; every kernel writes exactly the
// bytes the scalar one would.
//
// Decoding takes a block only when all 8 characters are alphabet characters
// that still decode to their own position (set-up may have turned one into
// padding or an ignored character). Anything else, a synonym, padding, an
// ignored or invalid character, NUL or a byte of 128 or more, ends the
// kernel's run at the start of that block, and the caller's exact loop
// decides what it means.
//
// Built once per alphabet and reverse table, then only read: one instance
// can serve any number of threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nimb {

class BaseNKernels {
 public:
  enum class Kind {
    kScalar,  // the table-driven kernel only
    kVector,  // AVX-512, then AVX2, as far as the processor and alphabet allow, then scalar
    kAvx2,    // the AVX2 kernel only, then scalar (tests and benchmarks force a width)
    kAvx512,  // the AVX-512 kernel only, then scalar
  };

  // `alphabet` has 2^shift characters, shift from 1 to 7; `reverseCharMap`
  // is the encoder's reverse table (value, or a negative marker, per ASCII
  // code).
  BaseNKernels(std::string_view alphabet, const std::array<std::int32_t, 128>& reverseCharMap);

  int shift() const { return shift_; }
  // Bytes in one block; the text of one block is always 8 characters.
  std::size_t blockBytes() const { return static_cast<std::size_t>(shift_); }

  // Encodes the leading whole blocks of in[0, n) into out. Returns the bytes
  // consumed (a multiple of blockBytes()); out receives consumed / shift * 8
  // characters.
  std::size_t encodeBlocks(const std::uint8_t* in, std::size_t n, char* out, Kind kind) const;
  // Decodes the leading whole blocks of text in[0, n) made only of alphabet
  // characters. Returns the characters consumed (a multiple of 8); out
  // receives consumed / 8 * shift bytes but must have room for n / 8 * shift
  // (whole blocks are stored 8 bytes at a time).
  std::size_t decodeBlocks(const char* in, std::size_t n, std::uint8_t* out, Kind kind) const;

  // Whether Kind::kAvx2 has a kernel of its own here (else it is scalar).
  bool hasVectorEncode() const { return vectorEncode_ != VectorShape::kNone; }
  bool hasVectorDecode() const { return vectorDecode_ != VectorShape::kNone; }
  // Whether Kind::kAvx512 has kernels of its own here (both or neither).
  bool hasAvx512() const { return avx512_; }

  // Whether this processor runs AVX2 code.
  static bool processorHasAvx2();
  // Whether this processor runs AVX-512 code with byte permutes (BW and VBMI).
  static bool processorHasAvx512Vbmi();

  // Parameters of the AVX2 decoder: 16-entry byte tables indexed by the low
  // and high nibble of each character.
  struct VectorDecodeTables {
    // A character is refused when lowMask[lo] & highMask[hi] is not zero.
    std::array<std::uint8_t, 16> lowMask{};
    std::array<std::uint8_t, 16> highMask{};
    // value = character + rowOffset[hi], except for the two exceptions.
    std::array<std::int8_t, 16> rowOffset{};
    std::array<std::uint8_t, 2> exception{0xFF, 0xFF};
    std::array<std::int8_t, 2> exceptionOffset{};
  };

 private:
  enum class VectorShape { kNone, kHex, kBase64 };

  void buildVectorTables(std::string_view alphabet);

  int shift_;
  std::string alphabet_;
  // Encoding: entry i holds the charsPerLookup characters of the bit group i.
  std::vector<char> encodeTable_;
  // Decoding: decodeTable_[j][c] is the value of character c at position j
  // of a block, shifted into place; bit 63 marks a character the kernel
  // must not take.
  std::vector<std::array<std::uint64_t, 256>> decodeTable_;

  VectorShape vectorEncode_ = VectorShape::kNone;
  VectorShape vectorDecode_ = VectorShape::kNone;
  std::array<std::int8_t, 16> vectorEncodeTable_{};
  VectorDecodeTables vectorDecodeTables_;

  // AVX-512: the alphabet, and the value of each code below 128 or 0x80
  // for a code the kernel must not take.
  bool avx512_ = false;
  std::array<char, 64> avx512Alphabet_{};
  std::array<std::uint8_t, 128> avx512Values_{};
};

// The AVX2 loops, compiled for AVX2 in their own file. Each returns what it
// consumed (bytes for encoding, characters for decoding) and stops early at
// the first 32-character chunk the tables refuse.
namespace avx2 {
std::size_t encodeHex(const std::uint8_t* in, std::size_t n, char* out,
                      const std::array<std::int8_t, 16>& alphabet);
std::size_t decodeHex(const char* in, std::size_t n, std::uint8_t* out,
                      const BaseNKernels::VectorDecodeTables& tables);
// `offsets` maps the reduced index of each 6-bit value to the distance from
// the value to its character.
std::size_t encodeBase64(const std::uint8_t* in, std::size_t n, char* out,
                         const std::array<std::int8_t, 16>& offsets);
std::size_t decodeBase64(const char* in, std::size_t n, std::uint8_t* out,
                         const BaseNKernels::VectorDecodeTables& tables);
}  // namespace avx2

// The AVX-512 loops, compiled for AVX-512 in their own file, for
// 64-character alphabets. Each returns what it consumed (bytes for
// encoding, characters for decoding); decoding stops at the first
// 64-character chunk holding a code whose entry in `values` is 0x80, or a
// code of 128 or more.
namespace avx512 {
std::size_t encodeBase64(const std::uint8_t* in, std::size_t n, char* out,
                         const std::array<char, 64>& alphabet);
std::size_t decodeBase64(const char* in, std::size_t n, std::uint8_t* out,
                         const std::array<std::uint8_t, 128>& values);
}  // namespace avx512

}  // namespace nimb
