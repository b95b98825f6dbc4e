// A small application built against an installed NimbFoundation, the way a
// user's own program would be: it includes the installed headers, links the
// shared library and prints results the packaging test compares.
#include <cstdio>

#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/Utils/VQUtils.h>
#include <NimbFoundation/Version.h>

int main() {
  auto base32 = nimb::VQStringEncoding::rfc4648Base32StringEncoding();
  if (!base32) return 1;
  const auto back = base32->stringByDecoding(base32->encodeString("foobar"));
  std::printf("version %s %d.%d.%d\n", NIMBFOUNDATION_VERSION_STRING, NIMBFOUNDATION_VERSION_MAJOR,
              NIMBFOUNDATION_VERSION_MINOR, NIMBFOUNDATION_VERSION_PATCH);
  std::printf("md5 %s\n", nimb::VQUtils::md5Value("abc").c_str());
  std::printf("base32 %s %s\n", base32->encodeString("foobar").c_str(),
              back ? back->c_str() : "(none)");
  return 0;
}
