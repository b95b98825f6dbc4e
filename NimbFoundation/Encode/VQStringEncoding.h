// VQStringEncoding: turns bytes into text and text back into bytes for any
// alphabet of 2, 4, 8, 16, 32, 64 or 128 distinct ASCII characters. Each
// character carries log2(alphabet size) bits, most significant bits first.
//
// The base-64 helpers of VQUtils use the two base-64 encoders; anyone who
// needs hex, base-32 or a private alphabet builds one here. Seven ready-made
// encoders come from the static functions; each call builds a fresh one.
//
// Two implementations give the same bytes and the same verdicts: the plain
// bit-at-a-time loop, kept deliberately simple as the reference, and the
// block kernels of BaseNKernels (table-driven, and AVX-512 VBMI or AVX2
// where the processor has them), which handle whole blocks of input and leave everything else
// (the tail, padding, synonyms, ignored or invalid characters) to the loop.
// encode() and decode() pick the fastest for the input; tests and
// benchmarks can pick one with Path.
//
// How it behaves, and why:
//   - Creation fails (nullptr) for an alphabet with a non-ASCII byte, a size
//     that is not a power of two from 2 to 128, or a repeated character. A
//     NUL byte is ASCII and may be part of an alphabet.
//   - One 128-entry reverse table says what each ASCII character decodes to:
//     a value, unknown, padding or ignored. addDecodeSynonyms(),
//     ignoreCharacters() and setPaddingChar() all write into it, so the
//     order of those calls matters:
//       * addDecodeSynonyms() walks the string; a character that already
//         means something opens a run and the unknown characters after it
//         become its synonyms. Mapped characters never change, unknown ones
//         before any mapped one stay unknown, and padding or ignored
//         characters open runs too (unknowns after the padding character
//         become more padding).
//       * ignoreCharacters() overwrites, alphabet characters included.
//       * setPaddingChar() overwrites; an earlier padding character keeps
//         its padding entry.
//     Input holding a byte of 128 or more is refused (false) and the table is
//     left as it was; synonym and ignore strings are taken byte for byte, a
//     NUL byte included.
//   - Padding is off and the padding character is NUL after creation, so
//     turning on setDoPad() alone pads with NUL characters.
//   - encode() of no bytes is "" even when padding is on.
//   - decode() is lenient about padding and strict about bits: padding is
//     optional and its count never checked, nor is the length against whole
//     groups ("Zg", "Zg=" and "Zg=====" all give "f", "==" gives nothing),
//     but data after padding fails, and the bits left over at the end must be
//     zero: in base 64 "A" decodes to no bytes while "B" fails.
//   - decode() fails on any non-ASCII byte and on any unknown character,
//     whitespace and line breaks included unless ignored. Text after the
//     first NUL byte is not looked at.
//
// Thread rule: build and configure on one thread; after that encode() and
// decode() only read, so one encoder can serve many threads at once.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

class BaseNKernels;

class VQStringEncoding {
  struct Passkey {};

 public:
  // Reverse-table markers for characters that carry no value.
  static constexpr std::int32_t kUnknown = -1;
  static constexpr std::int32_t kPadding = -2;
  static constexpr std::int32_t kIgnored = -3;

  // Which implementation does the work. All give identical results.
  enum class Path {
    kAutomatic,  // the block kernels for inputs long enough to gain, else kExact
    kExact,      // the plain bit loop, the reference
    kScalar,     // table-driven block kernel, then the bit loop
    kVector,     // the widest vector kernel the processor runs (AVX-512 VBMI, then
                 // AVX2), else as kScalar
  };
  // Whether this processor can run a vector kernel (AVX2 or AVX-512 VBMI).
  static bool vectorPathAvailable();

  // A new encoder for `alphabet`, or nullptr when it cannot make one.
  static std::shared_ptr<VQStringEncoding> stringEncodingWithString(std::string_view alphabet);

  // "01", no padding.
  static std::shared_ptr<VQStringEncoding> binaryStringEncoding();
  // "0-9A-F"; a-f decode as A-F; encoding writes upper case; no padding.
  static std::shared_ptr<VQStringEncoding> hexStringEncoding();
  // RFC 4648 base 32 ("A-Z2-7"), padded with "=".
  static std::shared_ptr<VQStringEncoding> rfc4648Base32StringEncoding();
  // RFC 4648 extended-hex base 32 ("0-9A-V"), padded with "=".
  static std::shared_ptr<VQStringEncoding> rfc4648Base32HexStringEncoding();
  // Crockford base 32, no padding. o/O read as 0, i/I/l/L as 1, lower case
  // as upper case; U and u stay invalid.
  static std::shared_ptr<VQStringEncoding> crockfordBase32StringEncoding();
  // RFC 4648 base 64 ("+/"), padded with "=".
  static std::shared_ptr<VQStringEncoding> rfc4648Base64StringEncoding();
  // RFC 4648 URL- and file-safe base 64 ("-_"), padded with "=".
  static std::shared_ptr<VQStringEncoding> rfc4648Base64WebsafeStringEncoding();

  // The short names of the seven encodings above, in this order: "binary",
  // "hex", "base32", "base32hex", "crockford", "base64", "base64url".
  static const std::vector<std::string_view>& encodingNames();
  // A fresh encoder for one of those names; nullptr for any other name.
  static std::shared_ptr<VQStringEncoding> encodingNamed(std::string_view name);

  // Set-up, before first use. Each returns false, changing nothing, for a
  // character outside ASCII.
  bool addDecodeSynonyms(std::string_view synonyms);
  bool ignoreCharacters(std::string_view characters);
  bool setPaddingChar(char c);

  bool doPad() const { return doPad_; }
  void setDoPad(bool doPad) { doPad_ = doPad; }

  // Never fails.
  std::string encode(const Data& bytes, Path path = Path::kAutomatic) const;
  // encode() of the string's bytes (its UTF-8 form).
  std::string encodeString(std::string_view string) const;
  // nullopt when the text is not valid for this encoder (see above).
  std::optional<Data> decode(std::string_view text, Path path = Path::kAutomatic) const;
  // The decoded bytes as a string; nullopt when decode() fails or the bytes
  // are not well-formed UTF-8, never a lossy repair.
  std::optional<std::string> stringByDecoding(std::string_view text) const;

  // The same into caller-owned memory, for callers that reuse buffers.
  // encodeInto() writes exactly encodedLength(count) characters and returns
  // that count; decodeInto() writes at most decodedCapacity(text.size())
  // bytes and returns how many, or nullopt where decode() fails (the
  // buffer's contents are then unspecified).
  std::size_t encodedLength(std::size_t count) const;
  std::size_t encodeInto(const std::uint8_t* bytes, std::size_t count, char* out,
                         Path path = Path::kAutomatic) const;
  std::size_t decodedCapacity(std::size_t textLength) const;
  std::optional<std::size_t> decodeInto(std::string_view text, std::uint8_t* out,
                                        Path path = Path::kAutomatic) const;

  // "<Base64 StringEncoder: <41424344 ...>>": the alphabet size, then the
  // alphabet's bytes as the platform prints a byte buffer (lower-case hex,
  // a space after every fourth byte, in angle brackets).
  std::string description() const;

  // Use stringEncodingWithString() or the named encoders.
  VQStringEncoding(Passkey, Data alphabet, std::int32_t shift,
                   const std::array<std::int32_t, 128>& reverseCharMap);

 private:
  // A named encoder: the alphabet, optional synonyms, and whether it pads
  // with "=".
  static std::shared_ptr<VQStringEncoding> named(std::string_view alphabet,
                                                 std::string_view synonyms, bool pad);

  // The bit loop over bytes[0, count), without padding; returns the
  // characters written.
  std::size_t encodeBits(const std::uint8_t* bytes, std::size_t count, char* out) const;
  // The bit loop from text[from], where a block kernel stopped having
  // written `written` bytes.
  std::optional<std::size_t> decodeBits(std::string_view text, std::size_t from, std::uint8_t* out,
                                        std::size_t written) const;
  bool usesKernels(Path path, std::size_t length) const;
  // The block kernels for this alphabet and reverse table, built on first
  // use (and shared with other encoders that have the same tables).
  const BaseNKernels& kernels() const;
  // Set-up changed the reverse table: the kernels must be rebuilt.
  void dropKernels();

  Data charMapData_;
  std::array<std::int32_t, 128> reverseCharMap_;
  std::int32_t shift_;
  std::int32_t mask_;
  bool doPad_ = false;
  char paddingChar_ = '\0';
  std::int32_t padLen_;

  mutable std::mutex kernelsMutex_;
  mutable std::shared_ptr<const BaseNKernels> kernels_;
  mutable std::atomic<const BaseNKernels*> kernelsReady_{nullptr};
};

}  // namespace nimb
