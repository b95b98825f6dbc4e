#include <NimbFoundation/Platform/Core/DateFormatter.h>

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <NimbFoundation/Platform/Env/TimeZone.h>

namespace nimb {

struct DateFormatter::Impl {
  icu::SimpleDateFormat format;
  Impl(const icu::UnicodeString& pattern, UErrorCode& status)
      : format(pattern, icu::Locale::getDefault(), status) {}
};

namespace {
icu::UnicodeString fromUtf8(std::string_view s) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
}
}  // namespace

DateFormatter::DateFormatter(std::string_view pattern, std::string_view zone) {
  UErrorCode status = U_ZERO_ERROR;
  auto impl = std::make_unique<Impl>(fromUtf8(pattern), status);
  if (U_FAILURE(status)) return;
  const std::string zoneName = zone.empty() ? TimeZone::defaultTimeZoneName() : std::string(zone);
  impl->format.adoptTimeZone(icu::TimeZone::createTimeZone(fromUtf8(zoneName)));
  impl_ = std::move(impl);
}

DateFormatter::~DateFormatter() = default;

std::string DateFormatter::stringFromDate(Date date) const {
  if (!impl_) return "";
  icu::UnicodeString text;
  impl_->format.format(date.timeIntervalSince1970() * 1000.0, text);
  std::string out;
  text.toUTF8String(out);
  return out;
}

}  // namespace nimb
