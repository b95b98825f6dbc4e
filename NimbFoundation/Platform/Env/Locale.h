// Locale: the user's region and languages, as Env::current() reports them
// (on Linux from LC_ALL, LC_MESSAGES, LANG, and LANGUAGE for the ordered
// language list), read through ICU.
//
// Used by VQProtocolData (country and language fields). Thread rule: any
// thread.
#pragma once

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
};

}  // namespace nimb
