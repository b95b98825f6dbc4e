// The AVX-512 loops of BaseNKernels, for 64-character alphabets. Only these
// functions are compiled for AVX-512 (F, BW and VBMI); BaseNKernels calls
// them after checking the processor. The target is set per function, not
// for the file, so that no inline function shared with other files is ever
// compiled with instructions an older processor lacks.
#include <NimbFoundation/Internal/BaseNKernels.h>

#if defined(__x86_64__) || defined(__i386__)

// GCC's own intrinsics start some results from a deliberately undefined
// register (`__m512i __Y = __Y;`), which -Wmaybe-uninitialized reports.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#define NIMB_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi")))

namespace nimb::avx512 {

namespace {

// The low 48 bytes of a register: one chunk of data.
constexpr __mmask64 kDataBytes = (__mmask64{1} << 48) - 1;

// Gathers 48 bytes into 16 words of 4: bytes 3k..3k+2 (b0 b1 b2) become
// word k = b1 b0 b2 b1, so that each 64-bit half holds its two groups'
// 24 bits in an order a multishift can cut.
NIMB_AVX512 inline __m512i spreadTable() {
  return _mm512_setr_epi32(0x01020001, 0x04050304, 0x07080607, 0x0a0b090a, 0x0d0e0c0d, 0x10110f10,
                           0x13141213, 0x16171516, 0x191a1819, 0x1c1d1b1c, 0x1f201e1f, 0x22232122,
                           0x25262425, 0x28292728, 0x2b2c2a2b, 0x2e2f2d2e);
}

// 64 characters from 48 bytes already spread.
NIMB_AVX512 inline __m512i encodeChunk(__m512i bytes, __m512i spread, __m512i alphabet) {
  // Bit offsets of the 8 six-bit fields in each 64-bit half (two words):
  // 10, 4, 22, 16 in the first word and 32 more in the second, which puts
  // the values of each 3-byte group in text order.
  const __m512i shifts = _mm512_set1_epi64(0x3036242a1016040a);
  const __m512i fields =
      _mm512_multishift_epi64_epi8(shifts, _mm512_permutexvar_epi8(spread, bytes));
  // vpermb reads only the low 6 bits of each index.
  return _mm512_permutexvar_epi8(fields, alphabet);
}

}  // namespace

NIMB_AVX512 std::size_t encodeBase64(const std::uint8_t* in, std::size_t n, char* out,
                                     const std::array<char, 64>& alphabet) {
  const __m512i table = _mm512_loadu_si512(alphabet.data());
  const __m512i spread = spreadTable();
  std::size_t i = 0;
  // Two chunks a turn while a full 64-byte load stays inside the input.
  for (; i + 112 <= n; i += 96) {
    const __m512i a = _mm512_loadu_si512(in + i);
    const __m512i b = _mm512_loadu_si512(in + i + 48);
    char* o = out + i / 3 * 4;
    _mm512_storeu_si512(o, encodeChunk(a, spread, table));
    _mm512_storeu_si512(o + 64, encodeChunk(b, spread, table));
  }
  // Then one chunk at a time, loading only its 48 bytes.
  for (; i + 48 <= n; i += 48) {
    const __m512i a = _mm512_maskz_loadu_epi8(kDataBytes, in + i);
    _mm512_storeu_si512(out + i / 3 * 4, encodeChunk(a, spread, table));
  }
  return i;
}

NIMB_AVX512 std::size_t decodeBase64(const char* in, std::size_t n, std::uint8_t* out,
                                     const std::array<std::uint8_t, 128>& values) {
  const __m512i low = _mm512_loadu_si512(values.data());
  const __m512i high = _mm512_loadu_si512(values.data() + 64);
  // Four 6-bit values -> one 24-bit number per 32-bit word...
  const __m512i pairWeights = _mm512_set1_epi32(0x01400140);
  const __m512i quadWeights = _mm512_set1_epi32(0x00011000);
  // ...whose three bytes are taken high byte first, 16 words into 48 bytes.
  alignas(64) std::uint8_t order[64] = {};
  for (int k = 0; k < 16; ++k) {
    for (int j = 0; j < 3; ++j) order[3 * k + j] = static_cast<std::uint8_t>(4 * k + 2 - j);
  }
  const __m512i compact = _mm512_load_si512(order);
  std::size_t i = 0;
  for (; i + 64 <= n; i += 64) {
    const __m512i c = _mm512_loadu_si512(in + i);
    // The table gives each code below 128 its value, or 0x80 when the
    // kernel must not take it; codes of 128 and more carry the bit already.
    const __m512i v = _mm512_permutex2var_epi8(low, c, high);
    if (_mm512_movepi8_mask(_mm512_or_si512(c, v)) != 0) break;
    const __m512i pairs = _mm512_maddubs_epi16(v, pairWeights);
    const __m512i quads = _mm512_madd_epi16(pairs, quadWeights);
    const __m512i bytes = _mm512_permutexvar_epi8(compact, quads);
    std::uint8_t* o = out + i / 4 * 3;
    // A full store writes 16 bytes past the chunk's 48; the room for them
    // is owed only while another chunk follows.
    if (i + 128 <= n) {
      _mm512_storeu_si512(o, bytes);
    } else {
      _mm512_mask_storeu_epi8(o, kDataBytes, bytes);
    }
  }
  return i;
}

}  // namespace nimb::avx512

#pragma GCC diagnostic pop

#else  // Not x86: BaseNKernels never selects these.

namespace nimb::avx512 {
std::size_t encodeBase64(const std::uint8_t*, std::size_t, char*, const std::array<char, 64>&) {
  return 0;
}
std::size_t decodeBase64(const char*, std::size_t, std::uint8_t*,
                         const std::array<std::uint8_t, 128>&) {
  return 0;
}
}  // namespace nimb::avx512

#endif
