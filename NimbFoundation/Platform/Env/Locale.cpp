#include <NimbFoundation/Platform/Env/Locale.h>

#include <unicode/locid.h>

#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb {

std::string Locale::currentCountryCode() {
  std::string identifier = Env::current()->localeIdentifier();
  // "en_US.UTF-8@euro" -> "en_US"; ICU takes the rest from there.
  if (const auto cut = identifier.find_first_of(".@"); cut != std::string::npos) {
    identifier.resize(cut);
  }
  if (identifier.empty()) return "";
  return icu::Locale(identifier.c_str()).getCountry();
}

std::vector<std::string> Locale::preferredLanguages() {
  return Env::current()->preferredLanguages();
}

}  // namespace nimb
