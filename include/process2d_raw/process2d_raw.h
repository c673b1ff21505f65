// Operators on raw images that other modules lean on: the box mean and the cutting
// of boxes out of a large image, on the device and (for the cutting) on the host.
#pragma once

#include "cuda_general/platform.h"

// ---------------------------------------------------------------------------------------------
// Box mean, `cuda_2d_convolution_by_box`. hx = bx / 2, hy = by / 2 (truncating); the
// box of (x, y) runs over [max(0, x - hx), min(nx, x + hx)) and likewise in y, so it is one pixel
// longer on the low side and shrinks at the edges. The output is the float sum over the box, rows
// in order and pixels in order within a row, divided by the number of pixels in it. A bx or by
// below 2 gives an empty box, and so 0 / 0, which is NaN (the wrappers that build on the box
// refuse such a box; this one keeps the plain rule for its callers).
//
// The box of pixel (x, y): columns [x0, x1), rows [y0, y1).
struct PkBox {
  int x0, x1, y0, y1;
};
PICKORA_HD inline PkBox pk_2d_box(unsigned x, unsigned y, unsigned nx, unsigned ny, int bx, int by) {
  const int hx = bx / 2, hy = by / 2;
  PkBox b;
  b.x0 = static_cast<int>(x) - hx > 0 ? static_cast<int>(x) - hx : 0;
  b.y0 = static_cast<int>(y) - hy > 0 ? static_cast<int>(y) - hy : 0;
  b.x1 = static_cast<int>(x) + hx < static_cast<int>(nx) ? static_cast<int>(x) + hx : static_cast<int>(nx);
  b.y1 = static_cast<int>(y) + hy < static_cast<int>(ny) ? static_cast<int>(y) + hy : static_cast<int>(ny);
  return b;
}

// The box mean of (x, y) as the kernel below computes it.
PICKORA_HD inline float pk_2d_box_mean(const float* src, unsigned nx, PkBox b) {
  float sum = 0.0f;
  int count = 0;
  for (int j = b.y0; j < b.y1; ++j)
    for (int i = b.x0; i < b.x1; ++i) {
      sum += src[static_cast<unsigned>(j) * nx + static_cast<unsigned>(i)];
      ++count;
    }
  return sum / static_cast<float>(count);
}

PICKORA_HD inline void cuda_2d_convolution_by_box(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                  unsigned ny, int bx, int by) {
  if (x >= nx || y >= ny) return;
  out[y * nx + x] = pk_2d_box_mean(src, nx, pk_2d_box(x, y, nx, ny, bx, by));
}

// A box below 2 pixels on a side holds no pixel (the mean would be 0 / 0): refused, not written.
void pk_require_box(int bx, int by);
void hcuda_2d_convolution_by_box(const float* src, float* out, unsigned nx, unsigned ny, int bx, int by);

// The same box mean in two passes, O(bx + by) reads per pixel instead of bx * by: the row pass
// writes, for each pixel, the double sum over its row window [x0, x1); the column pass adds those
// over [y0, y1) and divides by the box area. Same box rule as above; the result differs from the
// float loop above only by that loop's single-precision rounding.
PICKORA_HD inline void cuda_2d_box_row_sums(unsigned x, unsigned y, const float* src, double* rows, unsigned nx,
                                            unsigned ny, int bx) {
  if (x >= nx || y >= ny) return;
  const PkBox b = pk_2d_box(x, y, nx, ny, bx, 2);
  double sum = 0.0;
  for (int i = b.x0; i < b.x1; ++i) sum += src[y * nx + static_cast<unsigned>(i)];
  rows[y * nx + x] = sum;
}

PICKORA_HD inline void cuda_2d_box_column_mean(unsigned x, unsigned y, const double* rows, float* out, unsigned nx,
                                               unsigned ny, int bx, int by) {
  if (x >= nx || y >= ny) return;
  const PkBox b = pk_2d_box(x, y, nx, ny, bx, by);
  double sum = 0.0;
  for (int j = b.y0; j < b.y1; ++j) sum += rows[static_cast<unsigned>(j) * nx + x];
  out[y * nx + x] = static_cast<float>(sum / static_cast<double>((b.x1 - b.x0) * (b.y1 - b.y0)));
}

// rows: device scratch of nx * ny doubles.
void hcuda_2d_box_mean_separable(const float* src, float* out, double* rows, unsigned nx, unsigned ny, int bx, int by);

// ---------------------------------------------------------------------------------------------
// One box of w by h out of an nx by ny image, its corner at (x0, y0): a pixel outside
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

// ---------------------------------------------------------------------------------------------
// Mirror padding for filtering in Fourier space. The nx by ny image becomes the top-left quadrant
// of a 2 nx by 2 ny image (row stride 2 nx) whose other quadrants are its mirror images, so the
// edge rows and columns repeat and the periodic transform sees no jump, neither at the image
// edges nor across the wrap. One thread per input pixel writes its four places.
PICKORA_HD inline void cuda_2d_mirror_pad(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                          unsigned ny) {
  if (x >= nx || y >= ny) return;
  const unsigned long stride = 2UL * nx;
  const unsigned long xm = stride - 1 - x, ym = 2UL * ny - 1 - y;
  const float v = in[static_cast<unsigned long>(y) * nx + x];
  out[y * stride + x] = v;
  out[y * stride + xm] = v;
  out[ym * stride + x] = v;
  out[ym * stride + xm] = v;
}

// The inverse: one thread per output pixel copies the top-left quadrant of the padded image.
// The other quadrants are dropped, nothing is averaged or scaled.
PICKORA_HD inline void cuda_2d_mirror_pad_inv(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                              unsigned ny) {
  if (x >= nx || y >= ny) return;
  out[static_cast<unsigned long>(y) * nx + x] = in[static_cast<unsigned long>(y) * 2UL * nx + x];
}

// out is 2 nx by 2 ny for the padding, nx by ny for the inverse; launched over nx by ny threads.
void hcuda_2d_mirror_pad(float* out, const float* in, unsigned nx, unsigned ny);
void hcuda_2d_mirror_pad_inv(float* out, const float* in, unsigned nx, unsigned ny);
