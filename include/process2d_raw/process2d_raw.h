// Operators on raw images that other modules lean on: the box mean of Part 8.1 and the cutting
// of boxes out of a large image of Part 4.4, on the device and (for the cutting) on the host.
#pragma once

#include "cuda_general/platform.h"

// ---------------------------------------------------------------------------------------------
// Box mean, `cuda_2d_convolution_by_box` (Part 8.1). hx = bx / 2, hy = by / 2 (truncating); the
// box of (x, y) runs over [max(0, x - hx), min(nx, x + hx)) and likewise in y, so it is one pixel
// longer on the low side and shrinks at the edges. The output is the float sum over the box, rows
// in order and pixels in order within a row, divided by the number of pixels in it. A bx or by
// below 2 gives an empty box, and so 0 / 0, which is NaN.
PICKORA_HD inline void cuda_2d_convolution_by_box(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                  unsigned ny, int bx, int by) {
  if (x >= nx || y >= ny) return;
  const int hx = bx / 2, hy = by / 2;
  const int x0 = static_cast<int>(x) - hx > 0 ? static_cast<int>(x) - hx : 0;
  const int y0 = static_cast<int>(y) - hy > 0 ? static_cast<int>(y) - hy : 0;
  const int x1 = static_cast<int>(x) + hx < static_cast<int>(nx) ? static_cast<int>(x) + hx : static_cast<int>(nx);
  const int y1 = static_cast<int>(y) + hy < static_cast<int>(ny) ? static_cast<int>(y) + hy : static_cast<int>(ny);
  float sum = 0.0f;
  int count = 0;
  for (int j = y0; j < y1; ++j)
    for (int i = x0; i < x1; ++i) {
      sum += src[static_cast<unsigned>(j) * nx + static_cast<unsigned>(i)];
      ++count;
    }
  out[y * nx + x] = sum / static_cast<float>(count);
}

void hcuda_2d_convolution_by_box(const float* src, float* out, unsigned nx, unsigned ny, int bx, int by);

// ---------------------------------------------------------------------------------------------
// One box of w by h out of an nx by ny image, its corner at (x0, y0) (Part 4.4): a pixel outside
// the image gives 0, with no mirroring, no mean fill and no refusal.
PICKORA_HD inline void cuda_2d_extract_small_from_large(unsigned x, unsigned y, float* out, int w, int h,
                                                        const float* image, int nx, int ny, int x0, int y0) {
  if (static_cast<int>(x) >= w || static_cast<int>(y) >= h) return;
  const long sx = static_cast<long>(x0) + static_cast<long>(x);
  const long sy = static_cast<long>(y0) + static_cast<long>(y);
  float value = 0.0f;
  if (sx >= 0 && sx < nx && sy >= 0 && sy < ny) value = image[sy * static_cast<long>(nx) + sx];
  out[static_cast<long>(y) * w + x] = value;
}

// Device forms: one launch of w by h threads (blocks of 32 by 32) per box. The smalls form reads
// its `count` corners from a host array of int2 and writes box k at out + k * w * h.
void hcuda_2d_extract_small_from_large(float* out, int w, int h, const float* image, int nx, int ny, int x0, int y0);
void hcuda_2d_extract_smalls_from_large(float* out, int w, int h, int count, const float* image, int nx, int ny,
                                        const int2* origins);

// Host twins with the same results.
void cpu_2d_extract_small_from_large(float* out, int w, int h, const float* image, int nx, int ny, int x0, int y0);
void cpu_2d_extract_smalls_from_large(float* out, int w, int h, int count, const float* image, int nx, int ny,
                                      const int2* origins);
