// VQUtils: the kit's toolbox of small, stateless class operations: the MD5
// cache-key digest, typed reads from server dictionaries, query strings and
// percent escaping, base 64, the AES token of the reporting protocol, a
// switchable console log, a random number, bundle resources, and opening
// URLs.
//
// The image loader and image view take their cache keys from md5Value();
// everything else is called by host code. The only state is the log switch
// and the log prefix, held by the one shared instance and read and written
// through the class operations openLog(), setOpenLog(), prefix() and
// setPrefix().
//
// How it behaves, and why:
//   - Nothing here throws. Failures come back as the documented default
//     (an empty string, the largest integer, an empty dictionary) or as
//     nullopt, never as a crash.
//   - Text is UTF-8. Operations that count characters count UTF-16 units,
//     as the platform's strings do.
//   - A few rules surprise at first and are relied on, each noted where it
//     is declared: an absent key reads as "(null)", "%%" in a log message is
//     doubled, a plus sign stays a plus sign when decoding.
//
// Thread rule: any thread. The log switch and prefix may change while other
// threads log; each log line is written whole, never mixed with another.
// openUrl() and friends start a process and return at once.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Error.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Graphics/Image.h>

namespace NIMB_EXPORT nimb {

class View;

class VQUtils {
 public:
  // The one shared instance; made on first use, never destroyed, never
  // copied.
  static VQUtils& sharedInstance();
  VQUtils(const VQUtils&) = delete;
  VQUtils& operator=(const VQUtils&) = delete;

  // "1.2.4".
  static std::string utilsVersion();

  // --- Log switch and prefix (off and absent at start) ---
  static bool openLog();
  static void setOpenLog(bool open);
  static std::optional<std::string> prefix();
  // nullopt or "" means no prefix.
  static void setPrefix(std::optional<std::string> prefix);

  // --- Digest ---
  // MD5 of the text up to its first NUL, as 32 upper-case hex digits.
  static std::string md5Value(std::string_view text);

  // --- Dictionary reads ---
  // Each first checks that `dictionary` is a dictionary and `key` is not
  // empty, else gives its default at once.
  //
  // A string as it is; the null marker as ""; anything else as the
  // platform's description of it ("5", "7.9", "(\n    1\n)"). An absent key
  // is described too and reads "(null)". Default "".
  static std::string getStringFromDictionary(const Value& dictionary, std::string_view key);
  static std::string getStringFromDictionary(const Dictionary& dictionary, std::string_view key);
  // A number as an integer (reals truncated toward zero, saturating); a
  // string only when isPureInt() accepts it, read as a 64-bit integer.
  // Default, an absent key included: INT64_MAX.
  static std::int64_t getIntergerFromDictionary(const Value& dictionary, std::string_view key);
  static std::int64_t getIntergerFromDictionary(const Dictionary& dictionary, std::string_view key);
  // A dictionary value as it is; anything else gives an empty dictionary.
  static Dictionary getDictionaryFromDictionary(const Value& dictionary, std::string_view key);
  static Dictionary getDictionaryFromDictionary(const Dictionary& dictionary, std::string_view key);

  // --- Query strings ---
  // "a=1&b=%20x" to {a: "1", b: " x"}. Pieces split at every "&" and then at
  // every "="; a piece that is not exactly two parts is skipped, and a later
  // repeat of a key wins. Keys and values are percent-decoded (a "+" stays a
  // "+"). nullopt when a key or value holds escapes that are not UTF-8: the
  // caller still has the text, and nothing is silently dropped.
  static std::optional<Dictionary> dictionaryWithQueryString(std::string_view query);
  // {k: "a b&c"} to "k=a%20b%26c", in the dictionary's key order. Keys go in
  // as they stand; values are escaped with urlEncode(). nullopt when a value
  // is not a string. An empty dictionary gives "".
  static std::optional<std::string> queryStringWithDictionary(const Dictionary& dictionary);

  // --- Percent escaping ---
  // Every byte except ASCII letters, digits, "-", ".", "_" and "~" becomes
  // "%" and two upper-case hex digits.
  static std::string urlEncode(std::string_view text);
  // Every escape decoded; "+" is not a space. nullopt when an escape is
  // malformed or the decoded bytes are not UTF-8.
  static std::optional<std::string> urlDecode(std::string_view text);

  // --- Text ---
  // Cuts `text` to at most `bytesLength` bytes in `encoding` (the platform's
  // encoding numbers, see TextEncoding), whole characters only. nullopt for
  // an empty text; the text unchanged when the limit is 0, when it already
  // fits, when not one character fits, or when it cannot be written in that
  // encoding at all.
  static std::optional<std::string> subString(std::string_view text, std::uint32_t encoding,
                                              std::uint32_t bytesLength);
  // A signed 32-bit decimal integer, or a decimal float, and nothing else
  // but white space and line breaks around it.
  static bool isPureInt(std::string_view text);
  static bool isPureFloat(std::string_view text);

  // --- Base 64 (RFC 4648, padded with "=") ---
  static std::string base64Encode(std::string_view text);
  static std::string base64EncodeData(std::span<const std::uint8_t> bytes);
  static std::optional<Data> base64DecodeData(std::string_view text);
  // The URL- and file-safe alphabet ("-" and "_").
  static std::string base64WebSafeEncodeData(std::span<const std::uint8_t> bytes);
  static std::optional<Data> base64WebSafeDecode(std::string_view text);

  // --- AES ---
  // AES-256-CBC with PKCS#7 padding of the text's UTF-8 bytes, then web-safe
  // base 64. The key is the secret's UTF-8 bytes padded with zero bytes to
  // 32; the vector is its first 16 characters. A secret shorter than 16
  // characters, or an empty text, logs "AES encrypt failed: params error."
  // through outLog() and gives nullopt. So does a secret that does not fit
  // the key (more than 32 bytes) or whose first 16 characters are not all
  // ASCII (they would not fit the vector): such a key would be cut short
  // silently.
  static std::optional<std::string> AES256Encrypt(std::string_view plainText,
                                                  std::string_view appSecret);

  // --- Console log ---
  // When the log is open, writes one line on standard output:
  //   "[HH:mm:ss.SSS(  tid)] - " [prefix " "] message " \n"
  // with the time of day in the default time zone and the kernel thread
  // number right-aligned in five columns. Every "%%" of the formatted
  // message comes out doubled ("%%%%"): the message is formatted twice. A null format
  // prints the header and "nil".
  static void outLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
  static void outLog(std::nullptr_t);
  static void outLogv(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

  // --- Random ---
  // random32() % (max - min + 1) + min in unsigned 32-bit arithmetic, modulo
  // bias included, so a seed gives the same numbers everywhere. When the range spans all 2^32
  // values the random number itself is returned.
  static std::int32_t getRand(std::int32_t min, std::int32_t max);

  // --- View trees and images (main thread) ---
  // Prints each subview of `view` on standard output as one line, its
  // description after an indent of `depth` characters of "|-|-..."; a
  // subview with subviews of its own is followed by its tree at depth + 2.
  // An empty line closes every level.
  static void printViewHierarchy(const View& view, unsigned depth);
  // The same for a list of views, each followed by its subviews' tree.
  static void printViews(const std::vector<std::shared_ptr<View>>& views, unsigned depth);
  // `b` with `a` drawn over it at the origin, at the main screen's scale:
  // `a` keeps its own size and whatever passes `b`'s size is cut off.
  // nullptr without `b`.
  static std::shared_ptr<const Image> addImage(const std::shared_ptr<const Image>& a,
                                               const std::shared_ptr<const Image>& b);

  // --- Bundle resources ---
  // The path of `resourceName` inside the bundle `bundleName` found in the
  // main bundle's resources; nullopt when the name is empty or there is no
  // such bundle. Whether the resource itself exists is not checked.
  static std::optional<std::string> getBundleRes(std::string_view resourceName,
                                                 std::string_view bundleName);

  // --- URLs ---
  // Whether a handler is registered for the URL's scheme / whether it was
  // handed to one. See Application.
  static bool canOpenUrl(std::string_view url);
  static bool openUrl(std::string_view url);
  // Opens "tel://" + number.
  static bool makingACall(std::string_view number);

  // --- Store page ---
  // Shows the store page of app `appIdentifier` from `presenter`, then calls
  // `completion(success, error)`. Linux has no application store, so this
  // returns at once and never calls back, which is what callers get
  // wherever the store is missing.
  static void presentStoreProductForApp(std::string_view appIdentifier,
                                        const std::shared_ptr<View>& presenter,
                                        const std::function<void(bool, const Error*)>& completion);

 private:
  VQUtils() = default;
};

}  // namespace nimb
