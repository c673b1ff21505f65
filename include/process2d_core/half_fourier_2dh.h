// Reductions and filters of a half spectrum: a real nxh by ny array (an amplitude or power
// spectrum of a real-to-complex transform) whose origin stands at row ny / 2 after the quadrant
// swap. Row r is frequency y = r - ny / 2, column x frequency x; the radius of an element is
// f = sqrtf(x^2 + y^2) in single precision.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"

PICKORA_HD inline float pk_2dh_radius(unsigned x, unsigned r, unsigned ny) {
  const float fy = (float)((int)r - (int)(ny / 2)), fx = (float)x;
  return sqrtf(fx * fx + fy * fy);
}

// The radius in elements of a resolution: (2 (nxh - 1)) apix / resolution, single precision.
PICKORA_HD inline float pk_2dh_resolution_radius(unsigned nxh, float apix, float resolution) {
  return (float)(2 * ((int)nxh - 1)) * apix / resolution;
}

// The damping of the low frequencies: below rc an element is multiplied by
// exp(-(rc - f)^2 / (2 (rc / 3)^2)), strongest at the origin and fading out at rc.
PICKORA_HD inline void cuda_2dh_smooth_low_frequency_inplace(unsigned x, unsigned r, float* half, unsigned nxh,
                                                             unsigned ny, float rc) {
  if (x >= nxh || r >= ny) return;
  const float f = pk_2dh_radius(x, r, ny);
  if (!(f < rc)) return;
  const float d = rc - f, s = rc / 3.0f;
  half[r * nxh + x] *= expf(-(d * d) / (2.0f * (s * s)));
}

// Rotational average into nxh bins: an element of radius f, i = trunc f, e = f - i, with i below
// nxh gives (1 - e) of its value and weight to bin i and e of them to bin i + 1; each bin is then
// its value over its weight. The share that would go to bin nxh, past the last bin, is dropped
// (a bin's weighted mean does not need it), so `output` holds exactly nxh values. Sums in double.
// Every bin has weight: the element on the x axis at column i lies exactly on it.
void rotational_average_2dh(const float* half, float* output, int nxh, int ny);

// Every element with a radius strictly below rc (pk_2dh_resolution_radius) becomes 0.0.
void cpu_2dh_zero_low_frequency_inplace(float* half, int nxh, int ny, float apix, float resolution);
// Sets the origin (column 0 of row ny / 2) to 0.0, then damps as the kernel above.
void cpu_2dh_smooth_low_frequency_inplace(float* half, int nxh, int ny, float apix, float resolution);
// The device form on a device array; it has no step at the origin.
void hcuda_2dh_smooth_low_frequency_inplace(float* half, int nxh, int ny, float apix, float resolution);

// A pixel size and a resolution must both be finite and positive: anything else would make
// every radius test and damping factor meaningless (an infinite rc, a 0 / 0). Fatal otherwise.
void pk_2dh_require_resolution(float apix, float resolution);
