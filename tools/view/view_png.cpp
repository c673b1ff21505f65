#include "view_png.h"

#include <png.h>

#include <cstring>

#include "cuda_general/report.h"

void write_png(const char* path, const Picture& p) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(p.width);
  image.height = static_cast<png_uint_32>(p.height);
  image.format = PNG_FORMAT_RGB;
  if (png_image_write_to_file(&image, path, 0, p.rgb.data(), 0, nullptr) == 0)
    PK_FATAL("cannot write the picture '%s': %s", path, image.message);
}
