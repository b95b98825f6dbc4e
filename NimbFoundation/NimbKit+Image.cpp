#include <NimbFoundation/NimbKit+Image.h>

namespace nimb {

std::shared_ptr<const Image> NimbKitImage::fixOrientation(std::shared_ptr<const Image> image) {
  return image;
}

std::shared_ptr<const Image> NimbKitImage::imageWithColor(Color) {
  return nullptr;
}

}  // namespace nimb
