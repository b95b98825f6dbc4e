#include <NimbFoundation/NimbKit+String.h>

namespace nimb {

std::int64_t NimbKitString::getStringLengthWithString(std::optional<std::string>) {
  return 0;
}
bool NimbKitString::checkEmailFormat(std::optional<std::string>) {
  return false;
}
bool NimbKitString::includeSpecialCharact(std::optional<std::string>) {
  return true;
}
bool NimbKitString::includeAlphabetOrDigitOnly(std::optional<std::string>) {
  return false;
}
std::string NimbKitString::md5(std::optional<std::string>) {
  return {};
}
std::map<std::string, std::string> NimbKitString::parseWebViewRequestString(
    std::optional<std::string>) {
  return {};
}

}  // namespace nimb
