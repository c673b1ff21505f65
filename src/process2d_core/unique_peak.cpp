// The single highest pixel of an image or of each slice.
#include "process2d_core/unique_peak.h"

#include <cmath>

void cpu_2d_get_unique_peak(const float* image, int nx, int ny, int& x, int& y, float& value) {
  x = 0;
  y = 0;
  value = nx > 0 && ny > 0 ? image[0] : 0.0f;
  for (int j = 0; j < ny; ++j)
    for (int i = 0; i < nx; ++i) {
      const float v = image[static_cast<long>(j) * nx + i];
      if (v > value || (std::isnan(value) && !std::isnan(v))) {
        value = v;
        x = i;
        y = j;
      }
    }
}

void cpu_2ds_get_unique_peak(const float* stack, int nx, int ny, Pixel* peaks, int nz) {
  const long slice = static_cast<long>(nx) * ny;
  for (int z = 0; z < nz; ++z)
    cpu_2d_get_unique_peak(stack + z * slice, nx, ny, peaks[z].x, peaks[z].y, peaks[z].value);
}
