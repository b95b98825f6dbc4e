// The README's "Photos upright": writes a small JPEG for each of the eight
// EXIF orientations, every one stored so that it looks like an upright "F"
// once its tag is obeyed, then loads them back through the library, turns
// each upright with NimbKit::fixOrientation and lays them out on one
// contact sheet.
//
// Usage: exif_orientations OUT_DIR   (writes OUT_DIR/orientation-N.jpg and
// OUT_DIR/orientations.png)
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <libexif/exif-data.h>
#include <turbojpeg.h>

#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Graphics/Graphics.h>

namespace {

constexpr int kSide = 48;  // the upright picture is kSide x kSide * 3 / 2 (portrait)

// The upright picture: a dark "F" on a light ground.
bool inF(int x, int y) {
  const int w = kSide, h = kSide * 3 / 2;
  const bool stem = x >= w / 4 && x < w / 4 + w / 6 && y >= h / 8 && y < h * 7 / 8;
  const bool top = y >= h / 8 && y < h / 8 + h / 10 && x >= w / 4 && x < w * 3 / 4;
  const bool middle = y >= h * 2 / 5 && y < h * 2 / 5 + h / 10 && x >= w / 4 && x < w * 3 / 5;
  return stem || top || middle;
}

// Where stored pixel (sx, sy) of a picture tagged `exif` (1 to 8) appears
// once upright, for a stored size of sw x sh.
void toUpright(int exif, int sx, int sy, int sw, int sh, int& x, int& y) {
  switch (exif) {
    case 2:
      x = sw - 1 - sx, y = sy;
      break;  // mirrored
    case 3:
      x = sw - 1 - sx, y = sh - 1 - sy;
      break;  // turned half way
    case 4:
      x = sx, y = sh - 1 - sy;
      break;  // flipped
    case 5:
      x = sy, y = sx;
      break;  // transposed
    case 6:
      x = sh - 1 - sy, y = sx;
      break;  // turn right to view
    case 7:
      x = sh - 1 - sy, y = sw - 1 - sx;
      break;  // transversed
    case 8:
      x = sy, y = sw - 1 - sx;
      break;  // turn left to view
    default:
      x = sx, y = sy;
      break;
  }
}

// The stored pixels for tag `exif`: the "F" laid down so the tag stands it up.
std::vector<unsigned char> storedPixels(int exif, int& sw, int& sh) {
  const bool sideways = exif >= 5;
  sw = sideways ? kSide * 3 / 2 : kSide;
  sh = sideways ? kSide : kSide * 3 / 2;
  std::vector<unsigned char> rgb(std::size_t(sw) * sh * 3);
  for (int sy = 0; sy < sh; ++sy) {
    for (int sx = 0; sx < sw; ++sx) {
      int x = 0, y = 0;
      toUpright(exif, sx, sy, sw, sh, x, y);
      unsigned char* p = &rgb[(std::size_t(sy) * sw + sx) * 3];
      if (inF(x, y)) {
        p[0] = 30, p[1] = 40, p[2] = 120;
      } else {
        p[0] = 235, p[1] = 225, p[2] = 200;
      }
    }
  }
  return rgb;
}

// The APP1 payload ("Exif\0\0" and the TIFF structure) with one Orientation tag.
std::vector<unsigned char> exifPayload(int orientation) {
  ExifData* exif = exif_data_new();
  exif_data_set_byte_order(exif, EXIF_BYTE_ORDER_INTEL);
  ExifEntry* entry = exif_entry_new();
  exif_content_add_entry(exif->ifd[EXIF_IFD_0], entry);
  exif_entry_initialize(entry, EXIF_TAG_ORIENTATION);
  exif_set_short(entry->data, EXIF_BYTE_ORDER_INTEL, ExifShort(orientation));
  exif_entry_unref(entry);
  unsigned char* bytes = nullptr;
  unsigned int size = 0;
  exif_data_save_data(exif, &bytes, &size);
  std::vector<unsigned char> payload(bytes, bytes + size);
  std::free(bytes);
  exif_data_unref(exif);
  return payload;
}

// A JPEG of the stored pixels with the tag in an APP1 segment after SOI.
std::vector<unsigned char> taggedJpeg(int orientation) {
  int sw = 0, sh = 0;
  const std::vector<unsigned char> rgb = storedPixels(orientation, sw, sh);
  tjhandle tj = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const bool ok =
      tj && tjCompress2(tj, rgb.data(), sw, 0, sh, TJPF_RGB, &jpeg, &size, TJSAMP_444, 90, 0) == 0;
  std::vector<unsigned char> out;
  if (ok) {
    const std::vector<unsigned char> payload = exifPayload(orientation);
    const std::size_t n = payload.size() + 2;
    out.assign(jpeg, jpeg + 2);  // SOI
    out.insert(out.end(), {0xFF, 0xE1, static_cast<unsigned char>(n >> 8),
                           static_cast<unsigned char>(n & 0xFF)});
    out.insert(out.end(), payload.begin(), payload.end());
    out.insert(out.end(), jpeg + 2, jpeg + size);
  }
  tjFree(jpeg);
  if (tj) tjDestroy(tj);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: exif_orientations OUT_DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  if (!nimb::FileManager::createDirectory(dir)) {
    std::fprintf(stderr, "cannot make %s\n", dir.c_str());
    return 1;
  }
  const double cell = kSide + 24, top = 28;
  nimb::ImageContext sheet({cell * 8 + 8, top + kSide * 3 / 2 + 16}, true, 1);
  sheet.fillRect({{0, 0}, sheet.size()}, nimb::Color::whiteColor());
  for (int tag = 1; tag <= 8; ++tag) {
    const std::string path = dir + "/orientation-" + std::to_string(tag) + ".jpg";
    if (!nimb::FileManager::writeAtomically(path, taggedJpeg(tag))) {
      std::fprintf(stderr, "cannot write %s\n", path.c_str());
      return 1;
    }
    auto stored = nimb::Image::withContentsOfFile(path);
    auto upright = nimb::NimbKit::fixOrientation(stored);
    if (!upright) {
      std::fprintf(stderr, "cannot read back %s\n", path.c_str());
      return 1;
    }
    const double x = 8 + (tag - 1) * cell;
    sheet.drawText("EXIF " + std::to_string(tag), {x, 18}, 12, nimb::Color::blackColor());
    sheet.drawImage(*upright, {{x, top}, upright->size()});
    std::printf("%s: stored %dx%d, upright %gx%g\n", path.c_str(), stored->bitmap().width,
                stored->bitmap().height, upright->size().width, upright->size().height);
  }
  auto png = sheet.image() ? sheet.image()->pngRepresentation() : std::nullopt;
  const std::string out = dir + "/orientations.png";
  if (!png || !nimb::FileManager::writeAtomically(out, *png)) {
    std::fprintf(stderr, "cannot write %s\n", out.c_str());
    return 1;
  }
  std::printf("contact sheet: %s\n", out.c_str());
  return 0;
}
