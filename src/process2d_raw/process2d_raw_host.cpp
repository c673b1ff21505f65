// Host twins of the box cutting (Part 4.4).
#include "process2d_raw/process2d_raw.h"

void cpu_2d_extract_small_from_large(float* out, int w, int h, const float* image, int nx, int ny, int x0, int y0) {
  for (int j = 0; j < h; ++j) {
    const long y = static_cast<long>(y0) + j;
    float* row = out + static_cast<long>(j) * w;
    if (y < 0 || y >= ny) {
      for (int i = 0; i < w; ++i) row[i] = 0.0f;
      continue;
    }
    for (int i = 0; i < w; ++i) {
      const long x = static_cast<long>(x0) + i;
      row[i] = (x >= 0 && x < nx) ? image[y * nx + x] : 0.0f;
    }
  }
}

void cpu_2d_extract_smalls_from_large(float* out, int w, int h, int count, const float* image, int nx, int ny,
                                      const int2* origins) {
  const long box = static_cast<long>(w) * h;
  for (int k = 0; k < count; ++k)
    cpu_2d_extract_small_from_large(out + k * box, w, h, image, nx, ny, origins[k].x, origins[k].y);
}
