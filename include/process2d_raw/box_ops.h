// Operators over a pixel's neighbourhood: the box deviation, the logarithm less its box mean,
// and the repair of hot pixels. The box is that of the box mean (process2d_raw.h).
#pragma once

#include <math.h>

#include "cuda_general/platform.h"
#include "process2d_raw/process2d_raw.h"

// Box deviation: with m the box mean, sqrt(sum over the box of (v - m)^2) divided by the number
// of pixels (the division outside the root), in single precision.
PICKORA_HD inline void cuda_2d_std_by_box(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                          unsigned ny, int bx, int by) {
  if (x >= nx || y >= ny) return;
  const PkBox b = pk_2d_box(x, y, nx, ny, bx, by);
  const float m = pk_2d_box_mean(src, nx, b);
  float sum = 0.0f;
  int count = 0;
  for (int j = b.y0; j < b.y1; ++j)
    for (int i = b.x0; i < b.x1; ++i) {
      const float d = src[static_cast<unsigned>(j) * nx + static_cast<unsigned>(i)] - m;
      sum += d * d;
      ++count;
    }
  out[y * nx + x] = sqrtf(sum) / static_cast<float>(count);
}

// Hot pixels. A pixel whose absolute difference from `mean` exceeds sigma * factor (strictly) is
// replaced by (2 (sum of its four direct neighbours) + (sum of its four diagonal ones)) / 12,
// a neighbour's coordinate that would leave the image staying on the pixel's own, in each axis
// apart (so a corner keeps 5/12 of itself). Every value is read from `snapshot`, the image as it
// was before the pass: two neighbouring hot pixels then give the same result on every run and
// every backend, whichever thread comes first.
PICKORA_HD inline void cuda_2d_rm_hotpixels_inplace(unsigned x, unsigned y, float* image, const float* snapshot,
                                                    unsigned nx, unsigned ny, float mean, float sigma, float factor) {
  if (x >= nx || y >= ny) return;
  const unsigned i = y * nx + x;
  if (!(fabsf(snapshot[i] - mean) > sigma * factor)) return;
  const unsigned xl = x > 0 ? x - 1 : x, xr = x + 1 < nx ? x + 1 : x;
  const unsigned ru = (y > 0 ? y - 1 : y) * nx, rc = y * nx, rd = (y + 1 < ny ? y + 1 : y) * nx;
  const float direct = snapshot[rc + xl] + snapshot[rc + xr] + snapshot[ru + x] + snapshot[rd + x];
  const float diagonal = snapshot[ru + xl] + snapshot[ru + xr] + snapshot[rd + xl] + snapshot[rd + xr];
  image[i] = (2.0f * direct + diagonal) / 12.0f;
}

// ---- Wrappers on device images --------------------------------------------------------------

// bx and by below 2 make an empty box: refused with a fatal report.
void hcuda_2d_std_by_box(const float* src, float* out, unsigned nx, unsigned ny, int bx, int by);

// The natural logarithm of every pixel in place, then the box mean (box by box) of the result
// subtracted. A box below 2 is refused, and so is an image with a pixel that is not positive
// (its logarithm would spread infinities and NaN through its whole box): both fatal.
void hcuda_2d_log_subbg_boxconv_inplace(float* image, unsigned nx, unsigned ny, int box);

// One pass of the hot-pixel repair over a device image with the given statistics; the snapshot
// is taken here.
void hcuda_2d_rm_hotpixels_inplace(float* image, unsigned nx, unsigned ny, float mean, float sigma, float factor);

// Every slice of a host stack: mean and standard deviation of the slice on the device
// (hcuda_fast_mean, hcuda_stdv), then the repair. Prints one "." per slice and a line end.
void hcuda_2ds_rm_hotpixels_inplace(float* stack, unsigned nx, unsigned ny, unsigned nz, float factor);
