#include <NimbFoundation/Platform/Net/URL.h>

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace nimb {

namespace {

struct UrlFree {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
struct CurlStringFree {
  void operator()(char* s) const { curl_free(s); }
};

std::string part(CURLU* u, CURLUPart which) {
  char* raw = nullptr;
  if (curl_url_get(u, which, &raw, 0) != CURLUE_OK || !raw) return "";
  std::unique_ptr<char, CurlStringFree> owned(raw);
  return raw;
}

}  // namespace

std::optional<URL> URL::withString(std::string_view string) {
  // Characters a URL never holds as such; the platform refuses them too.
  if (string.empty() || std::any_of(string.begin(), string.end(), [](unsigned char c) {
        return c <= 0x20 || c == 0x7f || c == '"' || c == '<' || c == '>' || c == '\\' ||
               c == '^' || c == '`' || c == '{' || c == '|' || c == '}';
      })) {
    return std::nullopt;
  }
  std::unique_ptr<CURLU, UrlFree> u(curl_url());
  if (!u) return std::nullopt;
  std::string text(string);
  // Any scheme is a URL; whether it can be loaded is the connection's call.
  if (curl_url_set(u.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  URL url;
  url.absolute_ = std::move(text);
  url.scheme_ = part(u.get(), CURLUPART_SCHEME);
  url.host_ = part(u.get(), CURLUPART_HOST);
  std::transform(url.scheme_.begin(), url.scheme_.end(), url.scheme_.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (url.scheme_.empty()) return std::nullopt;
  return url;
}

bool CaseInsensitiveLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(
      a.begin(), a.end(), b.begin(), b.end(),
      [](unsigned char x, unsigned char y) { return std::tolower(x) < std::tolower(y); });
}

}  // namespace nimb
