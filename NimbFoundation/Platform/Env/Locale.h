// Locale: the user's region and languages, from the environment through
// ICU (LC_ALL, LC_MESSAGES, LANG; LANGUAGE for the ordered language list).
//
// Used by VQProtocolData (country and language fields). The host or a test
// may set either fact; nullopt goes back to the environment. Thread rule:
// any thread; the settings are guarded by a lock.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class Locale {
 public:
  // The current locale's country code ("US"), "" when it names none.
  static std::string currentCountryCode();
  // The user's preferred languages as BCP 47 tags, most preferred first
  // ("en-US", "fr"); empty when the environment names none.
  static std::vector<std::string> preferredLanguages();

  // Replaces the current locale by an identifier such as "de_CH".
  static void setCurrentLocaleIdentifier(std::optional<std::string> identifier);
  static void setPreferredLanguages(std::optional<std::vector<std::string>> languages);
};

}  // namespace nimb
