#include <NimbFoundation/Utils/VQUtils.h>

#include <NimbFoundation/Internal/LogRoute.h>

#include <openssl/evp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <limits>
#include <mutex>

#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/Platform/Core/PercentEscapes.h>
#include <NimbFoundation/Platform/Core/Scanner.h>
#include <NimbFoundation/Platform/Core/Text.h>
#include <NimbFoundation/Platform/Core/TextEncoding.h>
#include <NimbFoundation/Platform/Core/UUID.h>
#include <NimbFoundation/Platform/Env/Application.h>
#include <NimbFoundation/Platform/Env/Bundle.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>
#include <NimbFoundation/Platform/Graphics/View.h>
#include <NimbFoundation/Utils/VQProtocolData.h>

namespace nimb {

namespace {

// The log switch and prefix. The switch is atomic and the prefix sits
// behind a mutex, so that a host changing them while other threads log is
// not a data race.
struct LogState {
  std::atomic<bool> open{false};
  std::mutex prefixMutex;
  std::optional<std::string> prefix;
  // Held while one line is written, so lines never mix.
  std::mutex writeMutex;
};

LogState& logState() {
  static LogState* state = new LogState;  // lives as long as the process
  return *state;
}

// The characters urlEncode() escapes besides those a URL may not hold, the
// percent sign named twice and the space included.
constexpr std::string_view kLegalToEscape = "!*'\"();:@&=+$,/?%#[]% ";

std::string encodeWith(const std::shared_ptr<VQStringEncoding>& encoder,
                       std::span<const std::uint8_t> bytes) {
  std::string text(encoder->encodedLength(bytes.size()), '\0');
  text.resize(encoder->encodeInto(bytes.data(), bytes.size(), text.data()));
  return text;
}

const Value* lookUp(const Dictionary& dictionary, std::string_view key) {
  auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

// A number's integerValue: reals are truncated toward zero and saturate;
// NaN reads as 0.
std::int64_t integerValueOfNumber(const Value& number) {
  if (const auto* i = number.asInteger()) return *i;
  if (const auto* b = number.asBool()) return *b ? 1 : 0;
  const double r = number.numberValue();
  if (std::isnan(r)) return 0;
  if (r >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
  if (r < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(r);
}

// A string's integerValue: leading white space, a sign and digits, the rest
// ignored, saturating at the 64-bit limits.
std::int64_t integerValueOfString(std::string_view text) {
  std::int64_t value = 0;
  Scanner scanner(text);
  return scanner.scanLongLong(&value) ? value : 0;
}

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  std::string out;
  std::size_t start = 0, found;
  while ((found = text.find(from, start)) != std::string::npos) {
    out.append(text, start, found - start);
    out.append(to);
    start = found + from.size();
  }
  out.append(text, start);
  return out;
}

void writeLine(const std::string& line) {
  std::lock_guard lock(logState().writeMutex);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

std::string logHeader() {
  char header[64];
  std::snprintf(header, sizeof header, "[%s(%5d)] - ", VQProtocolData::timeMSString().c_str(),
                static_cast<int>(::syscall(SYS_gettid)));
  return header;
}
// The console log's default output: the header, the message, " \n".
void writeConsoleLine(std::string_view, std::string_view message) {
  writeLine(logHeader() + std::string(message) + " \n");
}

// A null message: the header and "nil", with no space before the newline.
void writeNilLine(std::string_view, std::string_view) {
  writeLine(logHeader() + "nil\n");
}

}  // namespace

VQUtils& VQUtils::sharedInstance() {
  static VQUtils* instance = new VQUtils;  // made once, never freed
  return *instance;
}

std::string VQUtils::utilsVersion() {
  return "1.2.4";
}

bool VQUtils::openLog() {
  sharedInstance();
  return logState().open.load(std::memory_order_relaxed);
}

void VQUtils::setOpenLog(bool open) {
  sharedInstance();
  logState().open.store(open, std::memory_order_relaxed);
}

std::optional<std::string> VQUtils::prefix() {
  std::lock_guard lock(logState().prefixMutex);
  return logState().prefix;
}

void VQUtils::setPrefix(std::optional<std::string> prefix) {
  sharedInstance();
  std::lock_guard lock(logState().prefixMutex);
  logState().prefix = std::move(prefix);
}

std::string VQUtils::md5Value(std::string_view text) {
  return VQProtocolData::md5Value(text);
}

// --- Dictionary reads ---

std::string VQUtils::getStringFromDictionary(const Value& dictionary, std::string_view key) {
  const auto* d = dictionary.asDictionary();
  return d ? getStringFromDictionary(*d, key) : std::string();
}

std::string VQUtils::getStringFromDictionary(const Dictionary& dictionary, std::string_view key) {
  if (key.empty()) return "";
  const Value* value = lookUp(dictionary, key);
  if (!value) return "(null)";  // an absent key is formatted as nil is
  if (const auto* s = value->asString()) return *s;
  if (value->isNull()) return "";
  return value->description();
}

std::int64_t VQUtils::getIntergerFromDictionary(const Value& dictionary, std::string_view key) {
  const auto* d = dictionary.asDictionary();
  return d ? getIntergerFromDictionary(*d, key) : std::numeric_limits<std::int64_t>::max();
}

std::int64_t VQUtils::getIntergerFromDictionary(const Dictionary& dictionary,
                                                std::string_view key) {
  constexpr auto kDefault = std::numeric_limits<std::int64_t>::max();
  if (key.empty()) return kDefault;
  const Value* value = lookUp(dictionary, key);
  if (!value) return kDefault;
  if (value->isNumber()) return integerValueOfNumber(*value);
  if (const auto* s = value->asString(); s && isPureInt(*s)) return integerValueOfString(*s);
  return kDefault;
}

Dictionary VQUtils::getDictionaryFromDictionary(const Value& dictionary, std::string_view key) {
  const auto* d = dictionary.asDictionary();
  return d ? getDictionaryFromDictionary(*d, key) : Dictionary{};
}

Dictionary VQUtils::getDictionaryFromDictionary(const Dictionary& dictionary,
                                                std::string_view key) {
  if (key.empty()) return {};
  const Value* value = lookUp(dictionary, key);
  const auto* inner = value ? value->asDictionary() : nullptr;
  return inner ? *inner : Dictionary{};
}

// --- Query strings ---

std::optional<Dictionary> VQUtils::dictionaryWithQueryString(std::string_view query) {
  Dictionary result;
  std::size_t start = 0;
  while (start <= query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string_view::npos) end = query.size();
    const std::string_view piece = query.substr(start, end - start);
    start = end + 1;
    const std::size_t equals = piece.find('=');
    // Exactly two parts: one "=", which may have nothing on either side.
    if (equals == std::string_view::npos || piece.find('=', equals + 1) != std::string_view::npos) {
      continue;
    }
    auto key = urlDecode(piece.substr(0, equals));
    auto value = urlDecode(piece.substr(equals + 1));
    if (!key || !value) return std::nullopt;
    result.insert_or_assign(std::move(*key), Value(std::move(*value)));
  }
  return result;
}

std::optional<std::string> VQUtils::queryStringWithDictionary(const Dictionary& dictionary) {
  std::string query;
  bool first = true;
  for (const auto& [key, value] : dictionary) {
    const auto* text = value.asString();
    if (!text) return std::nullopt;
    if (!first) query.push_back('&');
    first = false;
    query += key;
    query.push_back('=');
    query += urlEncode(*text);
  }
  return query;
}

// --- Percent escaping ---

std::string VQUtils::urlEncode(std::string_view text) {
  return PercentEscapes::addingPercentEscapes(text, "", kLegalToEscape);
}

std::optional<std::string> VQUtils::urlDecode(std::string_view text) {
  return PercentEscapes::replacingPercentEscapes(text, "");
}

// --- Text ---

std::optional<std::string> VQUtils::subString(std::string_view text, std::uint32_t encoding,
                                              std::uint32_t bytesLength) {
  if (text.empty()) return std::nullopt;
  if (bytesLength == 0) return std::string(text);
  const std::size_t size = TextEncoding::lengthOfBytes(text, encoding);
  if (size == 0 || size <= bytesLength) return std::string(text);
  auto prefix = TextEncoding::getBytes(text, encoding, bytesLength);
  if (!prefix) return std::string(text);
  return std::string(text.substr(0, prefix->utf8Length));
}

bool VQUtils::isPureInt(std::string_view text) {
  Scanner scanner(text);
  std::int32_t value;
  return scanner.scanInt(&value) && scanner.isAtEnd();
}

bool VQUtils::isPureFloat(std::string_view text) {
  Scanner scanner(text);
  float value;
  return scanner.scanFloat(&value) && scanner.isAtEnd();
}

// --- Base 64 ---

std::string VQUtils::base64Encode(std::string_view text) {
  return VQStringEncoding::rfc4648Base64StringEncoding()->encodeString(text);
}

std::string VQUtils::base64EncodeData(std::span<const std::uint8_t> bytes) {
  return encodeWith(VQStringEncoding::rfc4648Base64StringEncoding(), bytes);
}

std::optional<Data> VQUtils::base64DecodeData(std::string_view text) {
  return VQStringEncoding::rfc4648Base64StringEncoding()->decode(text);
}

std::string VQUtils::base64WebSafeEncodeData(std::span<const std::uint8_t> bytes) {
  return encodeWith(VQStringEncoding::rfc4648Base64WebsafeStringEncoding(), bytes);
}

std::optional<Data> VQUtils::base64WebSafeDecode(std::string_view text) {
  return VQStringEncoding::rfc4648Base64WebsafeStringEncoding()->decode(text);
}

// --- AES ---

std::optional<std::string> VQUtils::AES256Encrypt(std::string_view plainText,
                                                  std::string_view appSecret) {
  auto refuse = [] {
    outLog("AES encrypt failed: params error.");
    return std::nullopt;
  };
  // The secret is checked before the text. Its first 16 characters
  // must be ASCII to fill the vector, so counting bytes there counts
  // characters.
  if (!isValidUtf8(appSecret) || appSecret.size() < 16) return refuse();
  for (std::size_t i = 0; i < 16; ++i) {
    if (static_cast<unsigned char>(appSecret[i]) >= 0x80) return refuse();
  }
  if (appSecret.size() > 32) return refuse();
  if (plainText.empty() || !isValidUtf8(plainText)) return refuse();

  unsigned char key[32] = {};
  unsigned char vector[16] = {};
  std::copy(appSecret.begin(), appSecret.end(), key);
  std::copy(appSecret.begin(), appSecret.begin() + 16, vector);

  if (plainText.size() > static_cast<std::size_t>(std::numeric_limits<int>::max() - 16)) {
    return std::nullopt;
  }
  Data cipher(plainText.size() + 16, 0);
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  if (!context) return std::nullopt;
  int written = 0, last = 0;
  const bool ok = EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, key, vector) == 1 &&
                  EVP_EncryptUpdate(context, cipher.data(), &written,
                                    reinterpret_cast<const unsigned char*>(plainText.data()),
                                    static_cast<int>(plainText.size())) == 1 &&
                  EVP_EncryptFinal_ex(context, cipher.data() + written, &last) == 1;
  EVP_CIPHER_CTX_free(context);
  OPENSSL_cleanse(key, sizeof key);
  if (!ok) return std::nullopt;
  cipher.resize(static_cast<std::size_t>(written + last));
  return base64WebSafeEncodeData(cipher);
}

// --- Console log ---

void VQUtils::outLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  outLogv(format, arguments);
  va_end(arguments);
}

void VQUtils::outLog(std::nullptr_t) {
  if (openLog()) detail::routeLog(LogLevel::kInfo, "VQUtils", "nil", writeNilLine);
}

void VQUtils::outLogv(const char* format, va_list arguments) {
  if (!openLog()) return;
  if (!format) {
    detail::routeLog(LogLevel::kInfo, "VQUtils", "nil", writeNilLine);
    return;
  }
  std::string message = stringWithFormatv(format, arguments);
  if (auto p = prefix(); p && !p->empty()) message = *p + " " + message;
  detail::routeLog(LogLevel::kInfo, "VQUtils", replaceAll(std::move(message), "%%", "%%%%"),
                   writeConsoleLine);
}

// --- Random ---

std::int32_t VQUtils::getRand(std::int32_t min, std::int32_t max) {
  const std::uint32_t span = static_cast<std::uint32_t>(max) - static_cast<std::uint32_t>(min) + 1u;
  const std::uint32_t random = random32();
  const std::uint32_t offset = span == 0 ? random : random % span;
  return static_cast<std::int32_t>(offset + static_cast<std::uint32_t>(min));
}

// --- View trees and images ---

namespace {

// "|-|-..." cut to `depth` characters.
std::string indentFor(unsigned depth) {
  std::string indent;
  for (unsigned i = 0; i < depth; ++i) indent.push_back(i % 2 == 0 ? '|' : '-');
  return indent;
}

void printLine(const std::string& indent, const View& view) {
  std::printf("%s%s\n", indent.c_str(), view.description().c_str());
}

}  // namespace

void VQUtils::printViewHierarchy(const View& view, unsigned depth) {
  const std::string indent = indentFor(depth);
  for (const auto& subview : view.subviews()) {
    printLine(indent, *subview);
    if (!subview->subviews().empty()) printViewHierarchy(*subview, depth + 2);
  }
  std::printf("\n");
}

void VQUtils::printViews(const std::vector<std::shared_ptr<View>>& views, unsigned depth) {
  const std::string indent = indentFor(depth);
  for (const auto& view : views) {
    if (!view) continue;
    printLine(indent, *view);
    if (!view->subviews().empty()) printViewHierarchy(*view, depth + 2);
  }
  std::printf("\n");
}

std::shared_ptr<const Image> VQUtils::addImage(const std::shared_ptr<const Image>& a,
                                               const std::shared_ptr<const Image>& b) {
  if (!b) return nullptr;
  const Size size = b->size();
  ImageContext context(size, false, 0);  // 0: the main screen's scale
  context.drawImage(*b, Rect(0, 0, size.width, size.height));
  if (a) context.drawImage(*a, Rect(0, 0, a->size().width, a->size().height));
  return context.image();
}

// --- Bundle resources ---

std::optional<std::string> VQUtils::getBundleRes(std::string_view resourceName,
                                                 std::string_view bundleName) {
  if (resourceName.empty()) return std::nullopt;
  const std::string path =
      FileManager::appendingPathComponent(Bundle::mainBundle()->resourcePath(), bundleName);
  auto bundle = Bundle::bundleWithPath(path);
  if (!bundle) return std::nullopt;
  return FileManager::appendingPathComponent(bundle->resourcePath(), resourceName);
}

// --- URLs and the store ---

bool VQUtils::canOpenUrl(std::string_view url) {
  return Application::canOpenURL(url);
}

bool VQUtils::openUrl(std::string_view url) {
  return Application::openURL(url);
}

bool VQUtils::makingACall(std::string_view number) {
  return Application::openURL("tel://" + std::string(number));
}

void VQUtils::presentStoreProductForApp(std::string_view, const std::shared_ptr<View>&,
                                        const std::function<void(bool, const Error*)>&) {
  // No store framework to load on Linux: the first step finds nothing and
  // the caller is never called back.
}

}  // namespace nimb
