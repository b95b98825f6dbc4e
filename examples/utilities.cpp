// A short tour of the everyday helpers: query strings and percent escapes,
// typed reads from a server's answer, text checks, a colour from "#RRGGBB",
// and the switchable console log. All are stateless class operations (the
// log switch and prefix aside), safe from any thread, and none throws: a
// failure comes back as nullopt or as a documented default.
#include <cstdio>
#include <string>

#include <NimbFoundation/NimbKit+Color.h>
#include <NimbFoundation/NimbKit+String.h>
#include <NimbFoundation/Platform/Core/TextEncoding.h>
#include <NimbFoundation/Utils/VQUtils.h>

using nimb::VQUtils;

int main() {
  // 1. Query strings. Keys and values are percent-decoded, but "+" stays a
  // "+" (it is not a space here); escapes that are not UTF-8 give nullopt.
  const auto query = VQUtils::dictionaryWithQueryString("user=Ann%20Lee&page=2&tag=a+b");
  if (!query) return 1;
  for (const auto& [key, value] : *query) {
    std::printf("query %-4s = \"%s\"\n", key.c_str(), value.description().c_str());
  }
  // And back, keys in order, values escaped (everything but A-Z a-z 0-9 -._~).
  std::printf("query string: %s\n",
              VQUtils::queryStringWithDictionary(*query).value_or("-").c_str());
  std::printf("urlEncode(\"a b&c/d\") = %s\n", VQUtils::urlEncode("a b&c/d").c_str());
  std::printf("urlDecode(\"%%E2%%82%%AC5\") = %s\n",
              VQUtils::urlDecode("%E2%82%AC5").value_or("<refused>").c_str());

  // 2. A server's answer, read with typed accessors. A missing key reads as
  // "(null)" for strings and INT64_MAX for integers, so test before use.
  nimb::Dictionary answer{{"id", "1024"},
                          {"score", 7.9},
                          {"name", "Ann"},
                          {"profile", nimb::Dictionary{{"city", "Bern"}}}};
  std::printf("id as integer: %lld\n",
              static_cast<long long>(VQUtils::getIntergerFromDictionary(answer, "id")));
  std::printf("score as string: %s\n", VQUtils::getStringFromDictionary(answer, "score").c_str());
  std::printf("missing as string: %s\n", VQUtils::getStringFromDictionary(answer, "nope").c_str());
  const auto profile = VQUtils::getDictionaryFromDictionary(answer, "profile");
  std::printf("profile.city: %s\n", VQUtils::getStringFromDictionary(profile, "city").c_str());

  // 3. Text. Lengths count what a reader sees as one character; subString
  // cuts to a byte budget without splitting a character.
  const std::string greeting =
      "Gr\xC3\xBC\xC3\x9F"
      "e \xF0\x9F\x91\x8B";  // "Grüße 👋"
  std::printf("characters in \"%s\": %lld\n", greeting.c_str(),
              static_cast<long long>(nimb::NimbKitString::getStringLengthWithString(greeting)));
  std::printf("first 4 UTF-8 bytes: \"%s\"\n",
              VQUtils::subString(greeting, nimb::TextEncoding::kUTF8, 4).value_or("").c_str());
  std::printf("isPureInt(\" 42 \") = %d, isPureInt(\"4x2\") = %d\n", VQUtils::isPureInt(" 42 "),
              VQUtils::isPureInt("4x2"));
  std::printf("checkEmailFormat(\"ann@example.org\") = %d\n",
              nimb::NimbKitString::checkEmailFormat("ann@example.org"));

  // 4. Colour from "#RRGGBB"; anything else (short, bad length) gives white.
  for (const char* hex : {"#FF8000", "oops"}) {
    const nimb::Color c = nimb::NimbKitColor::colorWithHexString(hex);
    std::printf("colour %-8s = rgba(%.0f, %.0f, %.0f, %.0f)\n", hex, c.red * 255, c.green * 255,
                c.blue * 255, c.alpha);
  }

  // 5. The console log is off until switched on; each line is stamped with
  // the time and thread, then the prefix.
  VQUtils::outLog("not printed: the log is off");
  VQUtils::setOpenLog(true);
  VQUtils::setPrefix("[tour]");
  VQUtils::outLog("log on, %d helpers shown", 5);
  return 0;
}
