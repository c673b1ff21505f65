// Host reductions and filters of half spectra.
#include <cmath>
#include <vector>

#include "cuda_general/report.h"
#include "process2d_core/half_fourier_2dh.h"

void pk_2dh_require_resolution(float apix, float resolution) {
  if (!(std::isfinite(apix) && apix > 0.0f && std::isfinite(resolution) && resolution > 0.0f))
    PK_FATAL("Pixel size %g and resolution %g must both be positive", apix, resolution);
}

void rotational_average_2dh(const float* half, float* output, int nxh, int ny) {
  if (nxh <= 0 || ny <= 0) return;
  const unsigned w = static_cast<unsigned>(nxh), h = static_cast<unsigned>(ny);
  std::vector<double> sum(w, 0.0), weight(w, 0.0);
  for (unsigned r = 0; r < h; ++r)
    for (unsigned x = 0; x < w; ++x) {
      const float f = pk_2dh_radius(x, r, h);
      const unsigned i = static_cast<unsigned>(f);
      if (i >= w) continue;
      const double e = static_cast<double>(f) - i, v = half[r * w + x];
      sum[i] += (1.0 - e) * v;
      weight[i] += 1.0 - e;
      if (i + 1 < w) {
        sum[i + 1] += e * v;
        weight[i + 1] += e;
      }
    }
  for (unsigned i = 0; i < w; ++i) output[i] = static_cast<float>(sum[i] / weight[i]);
}

void cpu_2dh_zero_low_frequency_inplace(float* half, int nxh, int ny, float apix, float resolution) {
  pk_2dh_require_resolution(apix, resolution);
  if (nxh <= 0 || ny <= 0) return;
  const unsigned w = static_cast<unsigned>(nxh), h = static_cast<unsigned>(ny);
  const float rc = pk_2dh_resolution_radius(w, apix, resolution);
  for (unsigned r = 0; r < h; ++r)
    for (unsigned x = 0; x < w; ++x)
      if (pk_2dh_radius(x, r, h) < rc) half[r * w + x] = 0.0f;
}

void cpu_2dh_smooth_low_frequency_inplace(float* half, int nxh, int ny, float apix, float resolution) {
  pk_2dh_require_resolution(apix, resolution);
  if (nxh <= 0 || ny <= 0) return;
  const unsigned w = static_cast<unsigned>(nxh), h = static_cast<unsigned>(ny);
  const float rc = pk_2dh_resolution_radius(w, apix, resolution);
  half[(h / 2) * w] = 0.0f;
  for (unsigned r = 0; r < h; ++r)
    for (unsigned x = 0; x < w; ++x) cuda_2dh_smooth_low_frequency_inplace(x, r, half, w, h, rc);
}
