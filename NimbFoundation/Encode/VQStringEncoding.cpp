#include <NimbFoundation/Encode/VQStringEncoding.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <numeric>

#include <NimbFoundation/Internal/BaseNKernels.h>
#include <NimbFoundation/Platform/Core/Text.h>

namespace nimb {

namespace {

bool isAscii(std::string_view s) {
  for (char c : s) {
    if (static_cast<unsigned char>(c) >= 128) return false;
  }
  return true;
}

// Below this many bytes or characters the bit loop is as quick as looking
// up (or building) the kernels.
constexpr std::size_t kKernelMinimum = 48;

// Kernels shared by encoders with the same alphabet and reverse table, so
// that the named encoders, made afresh on every call, build their tables
// once per process. Bounded: past kMaxShared tables an encoder keeps its own.
std::shared_ptr<const BaseNKernels> sharedKernels(const Data& alphabet,
                                                  const std::array<std::int32_t, 128>& reverse) {
  constexpr std::size_t kMaxShared = 32;
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<const BaseNKernels>, std::less<>> shared;
  std::string key(alphabet.begin(), alphabet.end());
  key.append(reinterpret_cast<const char*>(reverse.data()), sizeof reverse);
  const std::string_view alphabetText(reinterpret_cast<const char*>(alphabet.data()),
                                      alphabet.size());
  {
    std::lock_guard lock(mutex);
    if (auto found = shared.find(key); found != shared.end()) return found->second;
  }
  auto kernels = std::make_shared<const BaseNKernels>(alphabetText, reverse);
  std::lock_guard lock(mutex);
  if (shared.size() < kMaxShared) shared.emplace(std::move(key), kernels);
  return kernels;
}

}  // namespace

bool VQStringEncoding::vectorPathAvailable() {
  return BaseNKernels::processorHasAvx2() || BaseNKernels::processorHasAvx512Vbmi();
}

VQStringEncoding::VQStringEncoding(Passkey, Data alphabet, std::int32_t shift,
                                   const std::array<std::int32_t, 128>& reverseCharMap)
    : charMapData_(std::move(alphabet)),
      reverseCharMap_(reverseCharMap),
      shift_(shift),
      mask_((1 << shift) - 1),
      padLen_(std::lcm(8, shift) / shift) {}

std::shared_ptr<VQStringEncoding> VQStringEncoding::stringEncodingWithString(
    std::string_view alphabet) {
  if (!isAscii(alphabet)) return nullptr;
  // One unsigned test covers both ends of 2..128; the AND clears the lowest
  // set bit, so it is zero exactly for powers of two.
  std::size_t length = alphabet.size();
  if (length - 2 > 126 || ((length - 1) & length) != 0) return nullptr;

  std::array<std::int32_t, 128> reverse;
  reverse.fill(kUnknown);
  for (std::size_t i = 0; i < length; ++i) {
    auto c = static_cast<unsigned char>(alphabet[i]);
    if (reverse[c] != kUnknown) return nullptr;  // repeated character
    reverse[c] = static_cast<std::int32_t>(i);
  }
  std::int32_t shift = 0;
  for (std::size_t v = 1; v < length; v <<= 1) ++shift;

  return std::make_shared<VQStringEncoding>(Passkey{}, Data(alphabet.begin(), alphabet.end()),
                                            shift, reverse);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::named(std::string_view alphabet,
                                                          std::string_view synonyms, bool pad) {
  auto encoding = stringEncodingWithString(alphabet);
  if (!synonyms.empty()) encoding->addDecodeSynonyms(synonyms);
  if (pad) {
    encoding->setPaddingChar('=');
    encoding->setDoPad(true);
  }
  return encoding;
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::binaryStringEncoding() {
  return named("01", "", false);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::hexStringEncoding() {
  return named("0123456789ABCDEF", "AaBbCcDdEeFf", false);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::rfc4648Base32StringEncoding() {
  return named("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", "", true);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::rfc4648Base32HexStringEncoding() {
  return named("0123456789ABCDEFGHIJKLMNOPQRSTUV", "", true);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::crockfordBase32StringEncoding() {
  return named("0123456789ABCDEFGHJKMNPQRSTVWXYZ",
               "0oO1iIlLAaBbCcDdEeFfGgHhJjKkMmNnPpQqRrSsTtVvWwXxYyZz", false);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::rfc4648Base64StringEncoding() {
  return named("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", "", true);
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::rfc4648Base64WebsafeStringEncoding() {
  return named("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_", "", true);
}

namespace {
using Factory = std::shared_ptr<VQStringEncoding> (*)();
// Name and maker of each ready-made encoder, in the order of encodingNames().
const std::pair<std::string_view, Factory> kNamedEncodings[] = {
    {"binary", &VQStringEncoding::binaryStringEncoding},
    {"hex", &VQStringEncoding::hexStringEncoding},
    {"base32", &VQStringEncoding::rfc4648Base32StringEncoding},
    {"base32hex", &VQStringEncoding::rfc4648Base32HexStringEncoding},
    {"crockford", &VQStringEncoding::crockfordBase32StringEncoding},
    {"base64", &VQStringEncoding::rfc4648Base64StringEncoding},
    {"base64url", &VQStringEncoding::rfc4648Base64WebsafeStringEncoding},
};
}  // namespace

const std::vector<std::string_view>& VQStringEncoding::encodingNames() {
  static const std::vector<std::string_view> names = [] {
    std::vector<std::string_view> out;
    for (const auto& entry : kNamedEncodings) out.push_back(entry.first);
    return out;
  }();
  return names;
}

std::shared_ptr<VQStringEncoding> VQStringEncoding::encodingNamed(std::string_view name) {
  for (const auto& [entryName, make] : kNamedEncodings) {
    if (entryName == name) return make();
  }
  return nullptr;
}

bool VQStringEncoding::addDecodeSynonyms(std::string_view synonyms) {
  if (!isAscii(synonyms)) return false;
  std::int32_t current = kUnknown;
  for (char ch : synonyms) {
    auto c = static_cast<unsigned char>(ch);
    if (reverseCharMap_[c] == kUnknown) {
      reverseCharMap_[c] = current;
    } else {
      current = reverseCharMap_[c];
    }
  }
  dropKernels();
  return true;
}

bool VQStringEncoding::ignoreCharacters(std::string_view characters) {
  if (!isAscii(characters)) return false;
  for (char ch : characters) reverseCharMap_[static_cast<unsigned char>(ch)] = kIgnored;
  dropKernels();
  return true;
}

bool VQStringEncoding::setPaddingChar(char c) {
  auto code = static_cast<unsigned char>(c);
  if (code >= 128) return false;
  paddingChar_ = c;
  reverseCharMap_[code] = kPadding;
  dropKernels();
  return true;
}

void VQStringEncoding::dropKernels() {
  std::lock_guard lock(kernelsMutex_);
  kernelsReady_.store(nullptr, std::memory_order_release);
  kernels_.reset();
}

const BaseNKernels& VQStringEncoding::kernels() const {
  if (const auto* ready = kernelsReady_.load(std::memory_order_acquire)) return *ready;
  std::lock_guard lock(kernelsMutex_);
  if (!kernels_) kernels_ = sharedKernels(charMapData_, reverseCharMap_);
  kernelsReady_.store(kernels_.get(), std::memory_order_release);
  return *kernels_;
}

bool VQStringEncoding::usesKernels(Path path, std::size_t length) const {
  return path == Path::kScalar || path == Path::kVector ||
         (path == Path::kAutomatic && length >= kKernelMinimum);
}

namespace {
BaseNKernels::Kind kindFor(VQStringEncoding::Path path) {
  return path == VQStringEncoding::Path::kScalar ? BaseNKernels::Kind::kScalar
                                                 : BaseNKernels::Kind::kVector;
}
}  // namespace

std::size_t VQStringEncoding::encodedLength(std::size_t count) const {
  if (count == 0) return 0;
  const auto shift = static_cast<std::size_t>(shift_);
  std::size_t length = (count * 8 + shift - 1) / shift;
  if (doPad_) {
    const auto padLen = static_cast<std::size_t>(padLen_);
    length = (length + padLen - 1) / padLen * padLen;
  }
  return length;
}

std::size_t VQStringEncoding::encodeInto(const std::uint8_t* bytes, std::size_t count, char* out,
                                         Path path) const {
  if (count == 0) return 0;
  std::size_t consumed = 0;
  if (usesKernels(path, count)) {
    consumed = kernels().encodeBlocks(bytes, count, out, kindFor(path));
  }
  // Kernels stop at a block boundary, where the bit buffer is empty.
  std::size_t written = consumed / static_cast<std::size_t>(shift_) * 8;
  if (consumed < count) written += encodeBits(bytes + consumed, count - consumed, out + written);
  if (doPad_) {
    const std::size_t total = encodedLength(count);
    std::fill(out + written, out + total, paddingChar_);
    written = total;
  }
  return written;
}

std::size_t VQStringEncoding::encodeBits(const std::uint8_t* bytes, std::size_t n,
                                         char* out) const {
  std::uint32_t buffer = bytes[0];
  std::int32_t bitsLeft = 8;
  std::size_t next = 1;
  std::size_t written = 0;
  do {
    if (bitsLeft < shift_) {
      if (next < n) {
        buffer = (buffer << 8) | bytes[next++];
        bitsLeft += 8;
      } else {
        // Zero bits complete the last character.
        buffer <<= shift_ - bitsLeft;
        bitsLeft = shift_;
      }
    }
    bitsLeft -= shift_;
    out[written++] = static_cast<char>(charMapData_[(buffer >> bitsLeft) & mask_]);
  } while (next < n || bitsLeft > 0);
  return written;
}

std::string VQStringEncoding::encode(const Data& bytes, Path path) const {
  std::string out(encodedLength(bytes.size()), '\0');
  out.resize(encodeInto(bytes.data(), bytes.size(), out.data(), path));
  return out;
}

std::string VQStringEncoding::encodeString(std::string_view string) const {
  return encode(Data(string.begin(), string.end()));
}

std::size_t VQStringEncoding::decodedCapacity(std::size_t textLength) const {
  return textLength * static_cast<std::size_t>(shift_) / 8;
}

std::optional<std::size_t> VQStringEncoding::decodeInto(std::string_view text, std::uint8_t* out,
                                                        Path path) const {
  std::size_t consumed = 0;
  if (usesKernels(path, text.size())) {
    consumed = kernels().decodeBlocks(text.data(), text.size(), out, kindFor(path));
  }
  return decodeBits(text, consumed, out, consumed / 8 * static_cast<std::size_t>(shift_));
}

std::optional<std::size_t> VQStringEncoding::decodeBits(std::string_view text, std::size_t from,
                                                        std::uint8_t* out,
                                                        std::size_t written) const {
  // The whole text must be ASCII, but decoding reads it as a C string. What
  // a kernel consumed was alphabet characters, so only the rest needs both
  // checks.
  const std::string_view rest = text.substr(from);
  if (!isAscii(rest)) return std::nullopt;
  const std::size_t n = from + std::min(rest.find('\0'), rest.size());

  std::uint32_t buffer = 0;
  std::int32_t bitsLeft = 0;
  bool expectPad = false;
  for (std::size_t i = from; i < n; ++i) {
    const std::int32_t value = reverseCharMap_[static_cast<unsigned char>(text[i])];
    switch (value) {
      case kIgnored:
        continue;
      case kPadding:
        expectPad = true;
        continue;
      case kUnknown:
        return std::nullopt;
      default:
        if (expectPad) return std::nullopt;  // data after padding
        buffer = (buffer << shift_) | static_cast<std::uint32_t>(value & mask_);
        bitsLeft += shift_;
        if (bitsLeft >= 8) {
          bitsLeft -= 8;
          out[written++] = static_cast<std::uint8_t>(buffer >> bitsLeft);
        }
    }
  }
  if (bitsLeft > 0 && (buffer & ((1u << bitsLeft) - 1)) != 0) return std::nullopt;
  return written;
}

std::optional<Data> VQStringEncoding::decode(std::string_view text, Path path) const {
  Data out(decodedCapacity(text.size()));
  auto written = decodeInto(text, out.data(), path);
  if (!written) return std::nullopt;
  out.resize(*written);
  return out;
}

std::optional<std::string> VQStringEncoding::stringByDecoding(std::string_view text) const {
  auto bytes = decode(text);
  if (!bytes) return std::nullopt;
  std::string s(bytes->begin(), bytes->end());
  if (!isValidUtf8(s)) return std::nullopt;
  return s;
}

std::string VQStringEncoding::description() const {
  std::string bytes = "<";
  char hex[3];
  for (std::size_t i = 0; i < charMapData_.size(); ++i) {
    if (i > 0 && i % 4 == 0) bytes += ' ';
    std::snprintf(hex, sizeof hex, "%02x", charMapData_[i]);
    bytes += hex;
  }
  bytes += '>';
  return "<Base" + std::to_string(1 << shift_) + " StringEncoder: " + bytes + ">";
}

}  // namespace nimb
