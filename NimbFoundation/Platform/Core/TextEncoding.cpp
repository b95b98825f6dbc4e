#include <NimbFoundation/Platform/Core/TextEncoding.h>

#include <NimbFoundation/Platform/Core/Text.h>

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace nimb {

namespace {

constexpr bool kLittleEndianHost = std::endian::native == std::endian::little;

// Every converter here is stateless, so a prefix of the output always
// decodes on its own; the shifting ones (ISO-2022) are left out on purpose.
struct Entry {
  std::uint32_t encoding;
  const char* converter;
};
constexpr Entry kEntries[] = {
    {TextEncoding::kASCII, "US-ASCII"},
    {TextEncoding::kJapaneseEUC, "EUC-JP"},
    {TextEncoding::kUTF8, "UTF-8"},
    {TextEncoding::kISOLatin1, "ISO-8859-1"},
    {TextEncoding::kShiftJIS, "Shift_JIS"},
    {TextEncoding::kISOLatin2, "ISO-8859-2"},
    // The BE/LE converters, never plain "UTF-16"/"UTF-32": those write a
    // byte-order mark the platform's encodings do not have.
    {TextEncoding::kUnicode, kLittleEndianHost ? "UTF-16LE" : "UTF-16BE"},
    {TextEncoding::kWindowsCP1251, "windows-1251"},
    {TextEncoding::kWindowsCP1252, "windows-1252"},
    {TextEncoding::kWindowsCP1253, "windows-1253"},
    {TextEncoding::kWindowsCP1254, "windows-1254"},
    {TextEncoding::kWindowsCP1250, "windows-1250"},
    {TextEncoding::kMacOSRoman, "macintosh"},
    {TextEncoding::kUTF16BigEndian, "UTF-16BE"},
    {TextEncoding::kUTF16LittleEndian, "UTF-16LE"},
    {TextEncoding::kUTF32, kLittleEndianHost ? "UTF-32LE" : "UTF-32BE"},
    {TextEncoding::kUTF32BigEndian, "UTF-32BE"},
    {TextEncoding::kUTF32LittleEndian, "UTF-32LE"},
    {TextEncoding::kGB18030, "gb18030"},
    {TextEncoding::kGBK, "windows-936"},
    {TextEncoding::kBig5, "Big5"},
    {TextEncoding::kEUCKR, "EUC-KR"},
};

// No character takes more than 4 bytes in any of the encodings, nor more
// than 4 UTF-8 bytes per input byte on the way back, so inputs under this
// keep every length ICU sees inside int32.
constexpr std::size_t kMaxInput = static_cast<std::size_t>(INT32_MAX) / 4;

const char* converterName(std::uint32_t encoding) {
  for (const auto& entry : kEntries) {
    if (entry.encoding == encoding) return entry.converter;
  }
  return nullptr;
}

struct CloseConverter {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

// A converter that stops at the first character it cannot map or read:
// ICU would otherwise write a substitute and report success.
Converter openStrict(std::uint32_t encoding) {
  const char* name = converterName(encoding);
  if (name == nullptr) return nullptr;
  UErrorCode status = U_ZERO_ERROR;
  Converter converter(ucnv_open(name, &status));
  if (U_FAILURE(status)) return nullptr;
  ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                        &status);
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  if (U_FAILURE(status)) return nullptr;
  return converter;
}

// ICU converts from UTF-16; u_strFromUTF8 without a substitute refuses
// ill-formed UTF-8 instead of replacing it.
std::optional<std::u16string> utf16FromUtf8(std::string_view utf8) {
  if (utf8.size() > kMaxInput) return std::nullopt;
  const auto length = static_cast<int32_t>(utf8.size());
  UErrorCode status = U_ZERO_ERROR;
  int32_t units = 0;
  u_strFromUTF8(nullptr, 0, &units, utf8.data(), length, &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  std::u16string out(static_cast<std::size_t>(units), u'\0');
  status = U_ZERO_ERROR;
  u_strFromUTF8(out.data(), units, nullptr, utf8.data(), length, &status);
  if (U_FAILURE(status)) return std::nullopt;
  return out;
}

// The UTF-8 length of the first `units` UTF-16 units of a well-formed text.
std::size_t utf8LengthOf(const std::u16string& text, int32_t units) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strToUTF8(nullptr, 0, &length, text.data(), units, &status);
  return static_cast<std::size_t>(length);
}

// What every conversion from UTF-8 starts from: a strict converter and
// the text in UTF-16, which is what ICU converts from.
struct Job {
  Converter converter;
  std::u16string text;
  int32_t units() const { return static_cast<int32_t>(text.size()); }
};

std::optional<Job> prepare(std::string_view utf8, std::uint32_t encoding) {
  Converter converter = openStrict(encoding);
  if (!converter) return std::nullopt;
  auto text = utf16FromUtf8(utf8);
  if (!text) return std::nullopt;
  return Job{std::move(converter), std::move(*text)};
}

// The encoded length of the whole text, without writing it; nullopt at the
// first character the encoding lacks.
std::optional<int32_t> encodedLength(Job& job) {
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length =
      ucnv_fromUChars(job.converter.get(), nullptr, 0, job.text.data(), job.units(), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  return length;
}

}  // namespace

bool TextEncoding::isSupported(std::uint32_t encoding) {
  return converterName(encoding) != nullptr;
}

std::size_t TextEncoding::lengthOfBytes(std::string_view utf8, std::uint32_t encoding) {
  try {
    auto job = prepare(utf8, encoding);
    if (!job) return 0;
    return static_cast<std::size_t>(encodedLength(*job).value_or(0));
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

std::optional<std::string> TextEncoding::bytesUsingEncoding(std::string_view utf8,
                                                            std::uint32_t encoding) {
  try {
    auto job = prepare(utf8, encoding);
    if (!job) return std::nullopt;
    auto length = encodedLength(*job);
    if (!length) return std::nullopt;
    std::string out(static_cast<std::size_t>(*length), '\0');
    UErrorCode status = U_ZERO_ERROR;
    ucnv_fromUChars(job->converter.get(), out.data(), *length, job->text.data(), job->units(),
                    &status);
    if (U_FAILURE(status)) return std::nullopt;
    return out;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<std::string> TextEncoding::stringWithBytes(std::string_view bytes,
                                                         std::uint32_t encoding) {
  if (bytes.size() > kMaxInput) return std::nullopt;
  if (encoding == kUTF8) {
    // Already the kit's form; only its well-formedness needs checking.
    if (!isValidUtf8(bytes)) return std::nullopt;
    return std::string(bytes);
  }
  try {
    Converter converter = openStrict(encoding);
    if (!converter) return std::nullopt;
    const auto length = static_cast<int32_t>(bytes.size());
    UErrorCode status = U_ZERO_ERROR;
    int32_t units = ucnv_toUChars(converter.get(), nullptr, 0, bytes.data(), length, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
    std::u16string text(static_cast<std::size_t>(units), u'\0');
    status = U_ZERO_ERROR;
    ucnv_toUChars(converter.get(), text.data(), units, bytes.data(), length, &status);
    if (U_FAILURE(status)) return std::nullopt;

    // Without a substitute, u_strToUTF8 also refuses a lone surrogate that a
    // UTF-16 or UTF-32 input might carry.
    int32_t utf8Length = 0;
    status = U_ZERO_ERROR;
    u_strToUTF8(nullptr, 0, &utf8Length, text.data(), units, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
    std::string out(static_cast<std::size_t>(utf8Length), '\0');
    status = U_ZERO_ERROR;
    u_strToUTF8(out.data(), utf8Length, nullptr, text.data(), units, &status);
    if (U_FAILURE(status)) return std::nullopt;
    return out;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<TextEncoding::Prefix> TextEncoding::getBytes(std::string_view utf8,
                                                           std::uint32_t encoding,
                                                           std::size_t maxLength) {
  try {
    auto job = prepare(utf8, encoding);
    if (!job) return std::nullopt;
    const std::u16string& text = job->text;

    // The whole text is converted first, so a character the encoding lacks
    // anywhere refuses the call, and with each output byte's source index
    // the character boundaries in the output are known.
    const std::size_t capacity = std::min<std::size_t>(
        (text.size() + 10) * static_cast<std::size_t>(ucnv_getMaxCharSize(job->converter.get())),
        INT32_MAX);
    std::string bytes(capacity, '\0');
    std::vector<int32_t> offsets(capacity);
    char* target = bytes.data();
    const UChar* source = text.data();
    UErrorCode status = U_ZERO_ERROR;
    ucnv_fromUnicode(job->converter.get(), &target, bytes.data() + capacity, &source,
                     text.data() + text.size(), offsets.data(), true, &status);
    if (U_FAILURE(status)) return std::nullopt;
    const auto total = static_cast<std::size_t>(target - bytes.data());
    bytes.resize(total);
    if (total <= maxLength) return Prefix{std::move(bytes), utf8.size()};

    // Byte `cut` starts a character when its source index differs from the
    // byte before's and is not the second half of a surrogate pair.
    auto startsCharacter = [&](std::size_t cut) {
      const int32_t index = offsets[cut];
      return index >= 0 && index != offsets[cut - 1] &&
             !U16_IS_TRAIL(text[static_cast<std::size_t>(index)]);
    };
    std::size_t cut = maxLength;
    while (cut > 0 && !startsCharacter(cut)) --cut;
    if (cut == 0) return std::nullopt;
    bytes.resize(cut);
    return Prefix{std::move(bytes), utf8LengthOf(text, offsets[cut])};
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace nimb
