// The AVX2 loops of BaseNKernels. Only these functions are compiled for
// AVX2; BaseNKernels calls them after checking the processor.
#include <NimbFoundation/Internal/BaseNKernels.h>

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#define NIMB_AVX2 __attribute__((target("avx2")))

namespace nimb::avx2 {

namespace {

NIMB_AVX2 inline __m256i broadcast16(const void* table) {
  return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(table)));
}

// Characters whose nibbles the tables refuse, as a non-zero mask.
NIMB_AVX2 inline __m256i refused(__m256i lo, __m256i hi, __m256i lowMask, __m256i highMask) {
  return _mm256_and_si256(_mm256_shuffle_epi8(lowMask, lo), _mm256_shuffle_epi8(highMask, hi));
}

// The value of each of 32 characters already known to be accepted.
NIMB_AVX2 inline __m256i values(__m256i c, __m256i hi, __m256i rowOffset, __m256i ex0,
                                __m256i exOffset0, __m256i ex1, __m256i exOffset1) {
  __m256i offset = _mm256_shuffle_epi8(rowOffset, hi);
  offset = _mm256_blendv_epi8(offset, exOffset0, _mm256_cmpeq_epi8(c, ex0));
  offset = _mm256_blendv_epi8(offset, exOffset1, _mm256_cmpeq_epi8(c, ex1));
  return _mm256_add_epi8(c, offset);
}

struct DecodeRegisters {
  __m256i lowMask, highMask, rowOffset, ex0, exOffset0, ex1, exOffset1;

  NIMB_AVX2 explicit DecodeRegisters(const BaseNKernels::VectorDecodeTables& t)
      : lowMask(broadcast16(t.lowMask.data())),
        highMask(broadcast16(t.highMask.data())),
        rowOffset(broadcast16(t.rowOffset.data())),
        ex0(_mm256_set1_epi8(static_cast<char>(t.exception[0]))),
        exOffset0(_mm256_set1_epi8(t.exceptionOffset[0])),
        ex1(_mm256_set1_epi8(static_cast<char>(t.exception[1]))),
        exOffset1(_mm256_set1_epi8(t.exceptionOffset[1])) {}

  // Values of 32 characters, or false when any of them is refused.
  NIMB_AVX2 bool translate(const char* in, __m256i& out) const {
    const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i hi = _mm256_and_si256(_mm256_srli_epi16(c, 4), nibble);
    const __m256i lo = _mm256_and_si256(c, nibble);
    const __m256i bad = refused(lo, hi, lowMask, highMask);
    if (!_mm256_testz_si256(bad, bad)) return false;
    out = values(c, hi, rowOffset, ex0, exOffset0, ex1, exOffset1);
    return true;
  }
};

}  // namespace

NIMB_AVX2 std::size_t encodeHex(const std::uint8_t* in, std::size_t n, char* out,
                                const std::array<std::int8_t, 16>& alphabet) {
  const __m256i table = broadcast16(alphabet.data());
  const __m256i nibble = _mm256_set1_epi8(0x0F);
  std::size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + i));
    const __m256i hi =
        _mm256_shuffle_epi8(table, _mm256_and_si256(_mm256_srli_epi16(v, 4), nibble));
    const __m256i lo = _mm256_shuffle_epi8(table, _mm256_and_si256(v, nibble));
    // Interleaving works within 128-bit lanes: a holds bytes 0-7 and 16-23,
    // b bytes 8-15 and 24-31.
    const __m256i a = _mm256_unpacklo_epi8(hi, lo);
    const __m256i b = _mm256_unpackhi_epi8(hi, lo);
    auto* o = reinterpret_cast<__m256i*>(out + 2 * i);
    _mm256_storeu_si256(o, _mm256_permute2x128_si256(a, b, 0x20));
    _mm256_storeu_si256(o + 1, _mm256_permute2x128_si256(a, b, 0x31));
  }
  return i;
}

NIMB_AVX2 std::size_t decodeHex(const char* in, std::size_t n, std::uint8_t* out,
                                const BaseNKernels::VectorDecodeTables& tables) {
  const DecodeRegisters regs(tables);
  // Each pair of values (high, low) becomes high * 16 + low in 16 bits.
  const __m256i weights = _mm256_set1_epi16(0x0110);
  std::size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    __m256i v;
    if (!regs.translate(in + i, v)) break;
    const __m256i words = _mm256_maddubs_epi16(v, weights);
    // Packing works per lane; gather the two lanes' 8 bytes into 16.
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(words, words), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i / 2), _mm256_castsi256_si128(packed));
  }
  return i;
}

NIMB_AVX2 std::size_t encodeBase64(const std::uint8_t* in, std::size_t n, char* out,
                                   const std::array<std::int8_t, 16>& offsets) {
  const __m256i offsetTable = broadcast16(offsets.data());
  // Per lane, each 3 bytes b0 b1 b2 become the 32-bit word b1 b0 b2 b1.
  const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 1, 0,
                                          2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  std::size_t i = 0;
  // Each lane loads 16 bytes and uses 12, so stop while 28 remain readable.
  for (; i + 28 <= n; i += 24) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 12));
    __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    v = _mm256_shuffle_epi8(v, spread);
    // Move the four 6-bit fields of each word into their own bytes: the
    // first and third by a high multiply, the second and fourth by a low one.
    const __m256i t0 = _mm256_and_si256(v, _mm256_set1_epi32(0x0FC0FC00));
    const __m256i t1 = _mm256_mulhi_epu16(t0, _mm256_set1_epi32(0x04000040));
    const __m256i t2 = _mm256_and_si256(v, _mm256_set1_epi32(0x003F03F0));
    const __m256i t3 = _mm256_mullo_epi16(t2, _mm256_set1_epi32(0x01000010));
    const __m256i indices = _mm256_or_si256(t1, t3);
    // Reduce each value to a table index: 0-25 -> 13, 26-51 -> 0,
    // 52-63 -> 1-12.
    __m256i reduced = _mm256_subs_epu8(indices, _mm256_set1_epi8(51));
    const __m256i below26 = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), indices);
    reduced = _mm256_or_si256(reduced, _mm256_and_si256(below26, _mm256_set1_epi8(13)));
    const __m256i chars = _mm256_add_epi8(indices, _mm256_shuffle_epi8(offsetTable, reduced));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i / 3 * 4), chars);
  }
  return i;
}

NIMB_AVX2 std::size_t decodeBase64(const char* in, std::size_t n, std::uint8_t* out,
                                   const BaseNKernels::VectorDecodeTables& tables) {
  const DecodeRegisters regs(tables);
  // Per lane: four 6-bit values -> one 24-bit number per 32-bit word, whose
  // three bytes are then taken high byte first.
  const __m256i pairWeights = _mm256_set1_epi32(0x01400140);
  const __m256i quadWeights = _mm256_set1_epi32(0x00011000);
  const __m256i order = _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2,
                                         1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m256i compact = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  std::size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    __m256i v;
    if (!regs.translate(in + i, v)) break;
    const __m256i pairs = _mm256_maddubs_epi16(v, pairWeights);
    const __m256i quads = _mm256_madd_epi16(pairs, quadWeights);
    const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(quads, order), compact);
    std::uint8_t* o = out + i / 4 * 3;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm256_castsi256_si128(bytes));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 16), _mm256_extracti128_si256(bytes, 1));
  }
  return i;
}

}  // namespace nimb::avx2

#else  // Not x86: BaseNKernels never selects these.

namespace nimb::avx2 {
std::size_t encodeHex(const std::uint8_t*, std::size_t, char*, const std::array<std::int8_t, 16>&) {
  return 0;
}
std::size_t decodeHex(const char*, std::size_t, std::uint8_t*,
                      const BaseNKernels::VectorDecodeTables&) {
  return 0;
}
std::size_t encodeBase64(const std::uint8_t*, std::size_t, char*,
                         const std::array<std::int8_t, 16>&) {
  return 0;
}
std::size_t decodeBase64(const char*, std::size_t, std::uint8_t*,
                         const BaseNKernels::VectorDecodeTables&) {
  return 0;
}
}  // namespace nimb::avx2

#endif
