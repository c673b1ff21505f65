// Host relative of the masks: a circular cut with the mean of the whole image taken off.
#include "pickora56/exclusion_mask.h"

void rmask_subtract_background(float* data, float radius, int nx, int ny) {
  const float cx = static_cast<float>(nx - 1) * 0.5f, cy = static_cast<float>(ny - 1) * 0.5f;
  const float r2 = radius * radius;
  const long n = static_cast<long>(nx) * ny;
  double sum = 0.0;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const float dx = static_cast<float>(x) - cx, dy = static_cast<float>(y) - cy;
      float& v = data[static_cast<long>(y) * nx + x];
      if (dx * dx + dy * dy > r2)
        v = 0.0f;
      else
        sum += v;
    }
  const float mean = static_cast<float>(sum / static_cast<double>(n));
  for (long i = 0; i < n; ++i) data[i] = data[i] - mean;
}
