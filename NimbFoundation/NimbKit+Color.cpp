#include <NimbFoundation/NimbKit+Color.h>

namespace nimb {

Color NimbKitColor::colorWithHexString(std::optional<std::string>) {
  return Color::whiteColor();
}

}  // namespace nimb
