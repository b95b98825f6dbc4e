#include <NimbFoundation/Platform/Env/Locale.h>

#include <unicode/locid.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>

namespace nimb {

namespace {

std::mutex gMutex;
std::optional<std::string> gLocale;
std::optional<std::vector<std::string>> gLanguages;

// The POSIX locale named by the environment, as setlocale() would pick it
// for messages; "" for none or the C locale.
std::string environmentLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value && *value) {
      std::string v = value;
      return (v == "C" || v == "POSIX" || v.rfind("C.", 0) == 0) ? "" : v;
    }
  }
  return "";
}

// "en_US.UTF-8@euro" -> "en_US"; ICU takes the rest from there.
std::string stripCodeset(std::string posix) {
  const auto cut = posix.find_first_of(".@");
  if (cut != std::string::npos) posix.resize(cut);
  return posix;
}

std::string languageTag(const std::string& posix) {
  icu::Locale locale(stripCodeset(posix).c_str());
  if (locale.isBogus() || !*locale.getLanguage()) return "";
  UErrorCode status = U_ZERO_ERROR;
  std::string tag = locale.toLanguageTag<std::string>(status);
  return U_FAILURE(status) || tag == "und" ? "" : tag;
}

}  // namespace

std::string Locale::currentCountryCode() {
  std::string identifier;
  {
    std::lock_guard lock(gMutex);
    identifier = gLocale ? *gLocale : environmentLocale();
  }
  if (identifier.empty()) return "";
  return icu::Locale(stripCodeset(identifier).c_str()).getCountry();
}

std::vector<std::string> Locale::preferredLanguages() {
  {
    std::lock_guard lock(gMutex);
    if (gLanguages) return *gLanguages;
  }
  std::vector<std::string> out;
  auto add = [&out](const std::string& posix) {
    std::string tag = languageTag(posix);
    if (!tag.empty() && std::find(out.begin(), out.end(), tag) == out.end()) out.push_back(tag);
  };
  // LANGUAGE is only honoured beside a real locale, as gettext does.
  const std::string base = environmentLocale();
  const char* list = std::getenv("LANGUAGE");
  if (!base.empty() && list && *list) {
    std::string all = list;
    std::size_t start = 0;
    while (start <= all.size()) {
      const auto end = std::min(all.find(':', start), all.size());
      if (end > start) add(all.substr(start, end - start));
      start = end + 1;
    }
  }
  if (!base.empty()) add(base);
  return out;
}

void Locale::setCurrentLocaleIdentifier(std::optional<std::string> identifier) {
  std::lock_guard lock(gMutex);
  gLocale = std::move(identifier);
}

void Locale::setPreferredLanguages(std::optional<std::vector<std::string>> languages) {
  std::lock_guard lock(gMutex);
  gLanguages = std::move(languages);
}

}  // namespace nimb
