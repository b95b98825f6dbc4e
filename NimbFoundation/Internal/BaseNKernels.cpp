#include <NimbFoundation/Internal/BaseNKernels.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <map>

namespace nimb {

namespace {

constexpr std::uint64_t kRefused = std::uint64_t{1} << 63;

// How the scalar encoder splits one block of 8 characters into table
// lookups: each lookup takes `kLookupBits` bits and yields `kCharsPerLookup`
// characters. The sizes keep the largest table at 32 KiB (7-bit alphabets).
template <int S>
struct Geometry {
  static constexpr int kLookupBits = (S == 3 || S == 6) ? 12 : S == 5 ? 10 : S == 7 ? 14 : 8;
  static constexpr int kCharsPerLookup = kLookupBits / S;
  static constexpr int kLookups = 8 / kCharsPerLookup;
  static_assert(kLookups * kLookupBits == 8 * S);
};

int lookupBitsFor(int shift) {
  switch (shift) {
    case 3:
    case 6:
      return 12;
    case 5:
      return 10;
    case 7:
      return 14;
    default:
      return 8;
  }
}

// The S bytes at p as a big-endian number. With `wide`, 8 bytes at p are
// readable and one load does; else the bytes are gathered one by one (a
// short memcpy into a register would go through memory and stall).
template <int S>
inline std::uint64_t loadBlock(const std::uint8_t* p, bool wide) {
  if (wide) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    return v >> (64 - 8 * S);
  }
  std::uint64_t v = 0;
  for (int i = 0; i < S; ++i) v = (v << 8) | p[i];
  return v;
}

// Writes the low 8S bits of v as S big-endian bytes. With `wide`, 8 bytes
// at p are writable and one store does (the 8 - S bytes past the block are
// rewritten by the next one).
template <int S>
inline void storeBlock(std::uint8_t* p, std::uint64_t v, bool wide) {
  if (wide) {
    std::uint64_t out = v << (64 - 8 * S);
    if constexpr (std::endian::native == std::endian::little) out = __builtin_bswap64(out);
    std::memcpy(p, &out, 8);
    return;
  }
  for (int i = S - 1; i >= 0; --i, v >>= 8) p[i] = static_cast<std::uint8_t>(v);
}

template <int S>
std::size_t encodeScalar(const std::uint8_t* in, std::size_t n, char* out, const char* table) {
  using G = Geometry<S>;
  constexpr std::uint64_t kIndexMask = (std::uint64_t{1} << G::kLookupBits) - 1;
  const std::size_t blocks = n / S;
  for (std::size_t b = 0; b < blocks; ++b) {
    const std::uint64_t x = loadBlock<S>(in + b * S, b * S + 8 <= n);
    char* o = out + b * 8;
    for (int i = 0; i < G::kLookups; ++i) {
      const auto index = (x >> (8 * S - G::kLookupBits * (i + 1))) & kIndexMask;
      std::memcpy(o + i * G::kCharsPerLookup, table + index * G::kCharsPerLookup,
                  G::kCharsPerLookup);
    }
  }
  return blocks * S;
}

template <int S>
std::size_t decodeScalar(const char* text, std::size_t n, std::uint8_t* out,
                         const std::array<std::uint64_t, 256>* table) {
  const auto* in = reinterpret_cast<const std::uint8_t*>(text);
  const std::size_t blocks = n / 8;
  std::size_t b = 0;
  for (; b < blocks; ++b) {
    const std::uint8_t* c = in + b * 8;
    const std::uint64_t v = table[0][c[0]] | table[1][c[1]] | table[2][c[2]] | table[3][c[3]] |
                            table[4][c[4]] | table[5][c[5]] | table[6][c[6]] | table[7][c[7]];
    if (v & kRefused) break;
    storeBlock<S>(out + b * S, v, b * S + 8 <= blocks * S);
  }
  return b * 8;
}

// The scalar kernels by shift (index 0 unused).
using ScalarEncoder = std::size_t (*)(const std::uint8_t*, std::size_t, char*, const char*);
using ScalarDecoder = std::size_t (*)(const char*, std::size_t, std::uint8_t*,
                                      const std::array<std::uint64_t, 256>*);
constexpr ScalarEncoder kScalarEncoders[] = {nullptr,         encodeScalar<1>, encodeScalar<2>,
                                             encodeScalar<3>, encodeScalar<4>, encodeScalar<5>,
                                             encodeScalar<6>, encodeScalar<7>};
constexpr ScalarDecoder kScalarDecoders[] = {nullptr,         decodeScalar<1>, decodeScalar<2>,
                                             decodeScalar<3>, decodeScalar<4>, decodeScalar<5>,
                                             decodeScalar<6>, decodeScalar<7>};

// The value of each character the decoding kernels may take, else -1.
std::array<int, 256> fastValues(std::string_view alphabet,
                                const std::array<std::int32_t, 128>& reverseCharMap) {
  std::array<int, 256> values;
  values.fill(-1);
  for (std::size_t c = 1; c < 128; ++c) {
    const std::int32_t v = reverseCharMap[c];
    if (v >= 0 && static_cast<std::size_t>(v) < alphabet.size() &&
        static_cast<unsigned char>(alphabet[static_cast<std::size_t>(v)]) == c) {
      values[c] = v;
    }
  }
  return values;
}

}  // namespace

BaseNKernels::BaseNKernels(std::string_view alphabet,
                           const std::array<std::int32_t, 128>& reverseCharMap)
    : shift_(std::countr_zero(alphabet.size())), alphabet_(alphabet) {
  const int mask = (1 << shift_) - 1;
  const int lookupBits = lookupBitsFor(shift_);
  const int charsPerLookup = lookupBits / shift_;
  encodeTable_.resize((std::size_t{1} << lookupBits) * static_cast<std::size_t>(charsPerLookup));
  for (std::size_t index = 0; index < (std::size_t{1} << lookupBits); ++index) {
    for (int k = 0; k < charsPerLookup; ++k) {
      const auto value = (index >> (shift_ * (charsPerLookup - 1 - k))) & mask;
      encodeTable_[index * charsPerLookup + k] = alphabet[value];
    }
  }

  const auto values = fastValues(alphabet, reverseCharMap);
  decodeTable_.resize(8);
  for (int j = 0; j < 8; ++j) {
    for (std::size_t c = 0; c < 256; ++c) {
      decodeTable_[j][c] =
          values[c] < 0 ? kRefused : static_cast<std::uint64_t>(values[c]) << (shift_ * (7 - j));
    }
  }
  buildVectorTables(alphabet);
  if (shift_ == 6 && processorHasAvx512Vbmi()) {
    avx512_ = true;
    std::copy(alphabet.begin(), alphabet.end(), avx512Alphabet_.begin());
    for (std::size_t c = 0; c < 128; ++c) {
      avx512Values_[c] = values[c] < 0 ? 0x80 : static_cast<std::uint8_t>(values[c]);
    }
  }
  // Decoding tables depend on the reverse table too.
  if (vectorDecode_ != VectorShape::kNone) {
    VectorDecodeTables& t = vectorDecodeTables_;
    // One offset per row of 16 codes: the most common one among the row's
    // characters; the others become exceptions, at most two of them.
    std::array<std::map<int, int>, 8> offsetsByRow;
    for (int c = 1; c < 128; ++c) {
      if (values[c] >= 0) ++offsetsByRow[c >> 4][values[c] - c];
    }
    for (int row = 0; row < 8; ++row) {
      const auto& counts = offsetsByRow[row];
      auto best = std::max_element(counts.begin(), counts.end(), [](const auto& a, const auto& b) {
        return a.second < b.second;
      });
      t.rowOffset[row] = best == counts.end() ? 0 : static_cast<std::int8_t>(best->first);
    }
    int exceptions = 0;
    for (int c = 1; c < 128 && exceptions <= 2; ++c) {
      if (values[c] < 0 || values[c] - c == t.rowOffset[c >> 4]) continue;
      if (exceptions < 2) {
        t.exception[exceptions] = static_cast<std::uint8_t>(c);
        t.exceptionOffset[exceptions] = static_cast<std::int8_t>(values[c] - c);
      }
      ++exceptions;
    }
    // A character is refused unless its row takes its low nibble; codes of
    // 128 and more (high nibble 8 to 15) are refused by every low nibble,
    // which needs at least one row without that nibble.
    for (int hi = 0; hi < 16; ++hi) {
      t.highMask[hi] = hi < 8 ? static_cast<std::uint8_t>(1 << hi) : 0xFF;
    }
    bool everyNibbleRefusable = true;
    for (int lo = 0; lo < 16; ++lo) {
      std::uint8_t refusedRows = 0;
      for (int row = 0; row < 8; ++row) {
        if (values[row << 4 | lo] < 0) refusedRows |= static_cast<std::uint8_t>(1 << row);
      }
      t.lowMask[lo] = refusedRows;
      everyNibbleRefusable = everyNibbleRefusable && refusedRows != 0;
    }
    if (exceptions > 2 || !everyNibbleRefusable) vectorDecode_ = VectorShape::kNone;
  }
}

void BaseNKernels::buildVectorTables(std::string_view alphabet) {
  if (!processorHasAvx2()) return;
  if (shift_ == 4) {
    for (int v = 0; v < 16; ++v) vectorEncodeTable_[v] = static_cast<std::int8_t>(alphabet[v]);
    vectorEncode_ = VectorShape::kHex;
    vectorDecode_ = VectorShape::kHex;
  } else if (shift_ == 6) {
    vectorDecode_ = VectorShape::kBase64;
    if (alphabet.substr(0, 62) ==
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789") {
      // Index 0 (values 26-51) adds 'a' - 26; 1-10 (values 52-61) add
      // '0' - 52; 11 and 12 the last two characters; 13 (values 0-25) 'A'.
      auto& t = vectorEncodeTable_;
      t.fill(0);
      t[0] = 'a' - 26;
      for (int i = 1; i <= 10; ++i) t[i] = '0' - 52;
      t[11] = static_cast<std::int8_t>(alphabet[62] - 62);
      t[12] = static_cast<std::int8_t>(alphabet[63] - 63);
      t[13] = 'A';
      vectorEncode_ = VectorShape::kBase64;
    }
  }
}

bool BaseNKernels::processorHasAvx2() {
#if defined(__x86_64__) || defined(__i386__)
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
#else
  return false;
#endif
}

bool BaseNKernels::processorHasAvx512Vbmi() {
#if defined(__x86_64__) || defined(__i386__)
  static const bool has =
      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi");
  return has;
#else
  return false;
#endif
}

std::size_t BaseNKernels::encodeBlocks(const std::uint8_t* in, std::size_t n, char* out,
                                       Kind kind) const {
  const auto shift = static_cast<std::size_t>(shift_);
  std::size_t total = 0;
  auto advance = [&](std::size_t done) {
    total += done;
    in += done;
    n -= done;
    out += done / shift * 8;
  };
  if (avx512_ && (kind == Kind::kVector || kind == Kind::kAvx512)) {
    advance(avx512::encodeBase64(in, n, out, avx512Alphabet_));
  }
  if (kind == Kind::kVector || kind == Kind::kAvx2) {
    if (vectorEncode_ == VectorShape::kHex) {
      advance(avx2::encodeHex(in, n, out, vectorEncodeTable_));
    } else if (vectorEncode_ == VectorShape::kBase64) {
      advance(avx2::encodeBase64(in, n, out, vectorEncodeTable_));
    }
  }
  return total + kScalarEncoders[shift_](in, n, out, encodeTable_.data());
}

std::size_t BaseNKernels::decodeBlocks(const char* in, std::size_t n, std::uint8_t* out,
                                       Kind kind) const {
  const auto shift = static_cast<std::size_t>(shift_);
  std::size_t total = 0;
  auto advance = [&](std::size_t done) {
    total += done;
    in += done;
    n -= done;
    out += done / 8 * shift;
  };
  if (avx512_ && (kind == Kind::kVector || kind == Kind::kAvx512)) {
    advance(avx512::decodeBase64(in, n, out, avx512Values_));
  }
  if (kind == Kind::kVector || kind == Kind::kAvx2) {
    if (vectorDecode_ == VectorShape::kHex) {
      advance(avx2::decodeHex(in, n, out, vectorDecodeTables_));
    } else if (vectorDecode_ == VectorShape::kBase64) {
      advance(avx2::decodeBase64(in, n, out, vectorDecodeTables_));
    }
  }
  return total + kScalarDecoders[shift_](in, n, out, decodeTable_.data());
}

}  // namespace nimb
