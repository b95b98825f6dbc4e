// DateFormatter: a date as text with a fixed pattern ("yyyy-MM-dd",
// "HH:mm:ss.SSS", Unicode/CLDR pattern letters) in one time zone, through
// ICU. The locale is the process default, as the platform's formatter has.
//
// Used by VQProtocolData and the log's time stamp. An instance is cheap to
// make but not to share: use one per thread (ICU formatters are not
// thread-safe).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Date.h>

namespace NIMB_EXPORT nimb {

class DateFormatter {
 public:
  // `zone` as for TimeZone; "" means the default time zone.
  explicit DateFormatter(std::string_view pattern, std::string_view zone = "");
  ~DateFormatter();
  DateFormatter(const DateFormatter&) = delete;
  DateFormatter& operator=(const DateFormatter&) = delete;

  // "" only if ICU could not build the formatter.
  std::string stringFromDate(Date date) const;

 private:
  struct Impl;  // the ICU formatter
  std::unique_ptr<Impl> impl_;
};

}  // namespace nimb
