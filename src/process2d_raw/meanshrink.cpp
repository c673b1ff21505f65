// Block-mean shrinking and square extension of host images.
#include "process2d_raw/meanshrink.h"

#include <cstdio>
#include <cstring>

#include "cuda_general/report.h"

namespace {

constexpr const char* kBadFactor = "Wrong value of shrink_factor. Must be >=1";

// A factor below 1 is refused with a red line that does not end the run; the caller then
// writes nothing.
bool shrink_factor_ok(int s, const char* func, int line) {
  if (s >= 1) return true;
  std::printf("\033[41mError in function %s(), file %s on line %d:%s  %s!\n\033[m", func, report_module_path(__FILE__),
              line, kBadFactor, kBadFactor);
  std::fflush(stdout);
  return false;
}

// Sum of an s by s block whose first pixel is `block`, begun at 0.0: rows from 0 up, every row
// left to right.
float block_sum_rows(const float* block, size_t stride, int s) {
  float sum = 0.0f;
  for (int j = 0; j < s; ++j) {
    const float* row = block + static_cast<size_t>(j) * stride;
    for (int i = 0; i < s; ++i) sum += row[i];
  }
  return sum;
}

// The same block walked as a snake: even rows left to right, odd rows right to left.
float block_sum_snake(const float* block, size_t stride, int s) {
  float sum = 0.0f;
  for (int j = 0; j < s; ++j) {
    const float* row = block + static_cast<size_t>(j) * stride;
    if (j % 2 == 0) {
      for (int i = 0; i < s; ++i) sum += row[i];
    } else {
      for (int i = s - 1; i >= 0; --i) sum += row[i];
    }
  }
  return sum;
}

// One pixel of the even-rule shrink; the orders and scalings belong to the result.
float even_block_mean(const float* block, size_t stride, int s) {
  switch (s) {
    case 1: return block[0];
    case 2: return block_sum_snake(block, stride, 2) * 0.25f;
    case 3: return block_sum_snake(block, stride, 3) / 9.0f;
    case 4: return block_sum_snake(block, stride, 4) * 0.0625f;
    default: return block_sum_rows(block, stride, s) / static_cast<float>(s * s);
  }
}

int even_shrunk_side(int n, int s) { return (n / (2 * s)) * 2; }

// Fills sx by sy even-rule block means at row stride out_stride.
void fill_even_blocks(float* out, size_t out_stride, const float* in, int nx, int s, int sx, int sy) {
  const size_t in_stride = static_cast<size_t>(nx);
  for (int y = 0; y < sy; ++y) {
    const float* in_row = in + static_cast<size_t>(y) * s * in_stride;
    float* out_row = out + static_cast<size_t>(y) * out_stride;
    for (int x = 0; x < sx; ++x) out_row[x] = even_block_mean(in_row + static_cast<size_t>(x) * s, in_stride, s);
  }
}

// Plain block means of nx / s by ny / s, each block sum divided by `divisor`.
void fill_plain_blocks(float* out, const float* in, int nx, int ny, int s, float divisor) {
  const int ox = nx / s, oy = ny / s;
  const size_t in_stride = static_cast<size_t>(nx);
  for (int y = 0; y < oy; ++y) {
    const float* in_row = in + static_cast<size_t>(y) * s * in_stride;
    float* out_row = out + static_cast<size_t>(y) * ox;
    for (int x = 0; x < ox; ++x)
      out_row[x] = block_sum_rows(in_row + static_cast<size_t>(x) * s, in_stride, s) / divisor;
  }
}

bool mirror_aspect_ok(unsigned nx, unsigned ny) {
  const unsigned long lx = nx, ly = ny;
  if (lx > ly) return lx < 2 * ly;
  if (ly > lx) return ly < 2 * lx;
  return true;
}

void copy_rows(float* out, size_t out_stride, const float* in, unsigned nx, unsigned ny) {
  for (unsigned y = 0; y < ny; ++y)
    std::memcpy(out + static_cast<size_t>(y) * out_stride, in + static_cast<size_t>(y) * nx, sizeof(float) * nx);
}

}  // namespace

void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int s) {
  if (!shrink_factor_ok(s, __func__, __LINE__)) return;
  const int sx = even_shrunk_side(nx, s), sy = even_shrunk_side(ny, s);
  const int work_size = sx > sy ? sx : sy;
  fill_even_blocks(out, static_cast<size_t>(work_size), in, nx, s, sx, sy);
  if (sx == sy) return;
  cpu_2d_extend_to_square_mirror_inplace(out, static_cast<unsigned>(sx), static_cast<unsigned>(sy));
}

void cpu_2d_meanshrink_even(float* out, const float* in, int nx, int ny, int s) {
  if (!shrink_factor_ok(s, __func__, __LINE__)) return;
  const int sx = even_shrunk_side(nx, s), sy = even_shrunk_side(ny, s);
  fill_even_blocks(out, static_cast<size_t>(sx), in, nx, s, sx, sy);
}

void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int s) {
  if (!shrink_factor_ok(s, __func__, __LINE__)) return;
  if (s == 1) {
    if (nx > 0 && ny > 0) std::memcpy(out, in, sizeof(float) * static_cast<size_t>(nx) * static_cast<size_t>(ny));
    return;
  }
  fill_plain_blocks(out, in, nx, ny, s, static_cast<float>(s * s));
}

void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int s) {
  // One refusal for the stack rather than one per slice.
  if (!shrink_factor_ok(s, __func__, __LINE__)) return;
  const size_t in_slice = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  const size_t out_slice = static_cast<size_t>(nx / s) * static_cast<size_t>(ny / s);
  for (int z = 0; z < nz; ++z) cpu_2d_meanshrink(out + z * out_slice, in + z * in_slice, nx, ny, s);
}

void cpu_2d_meanshrink_invert(float* out, const float* in, int nx, int ny, int s) {
  if (!shrink_factor_ok(s, __func__, __LINE__)) return;
  fill_plain_blocks(out, in, nx, ny, s, -static_cast<float>(s * s));
}

void cpu_2d_extend_to_square(float* out, const float* in, unsigned nx, unsigned ny, float fill) {
  const unsigned side = nx > ny ? nx : ny;
  copy_rows(out, side, in, nx, ny);
  cpu_2d_extend_to_square_only_fill(out, nx, ny, fill);
}

void cpu_2d_extend_to_square_only_fill(float* data, unsigned nx, unsigned ny, float fill) {
  const unsigned side = nx > ny ? nx : ny;
  for (unsigned y = 0; y < side; ++y) {
    float* row = data + static_cast<size_t>(y) * side;
    for (unsigned x = y < ny ? nx : 0; x < side; ++x) row[x] = fill;
  }
}

void cpu_2d_extend_to_square_mirror(float* out, const float* in, unsigned nx, unsigned ny) {
  if (!mirror_aspect_ok(nx, ny)) return;
  const unsigned side = nx > ny ? nx : ny;
  copy_rows(out, side, in, nx, ny);
  cpu_2d_extend_to_square_mirror_inplace(out, nx, ny);
}

void cpu_2d_extend_to_square_mirror_inplace(float* data, unsigned nx, unsigned ny) {
  if (nx == ny) return;
  if (!mirror_aspect_ok(nx, ny)) PK_FATAL("Make sure: Ny/2 < Nx < 2Ny");
  if (nx > ny) {
    // Whole rows below the image, each a row of the image counted back from the axis.
    for (unsigned y = ny; y < nx; ++y)
      std::memcpy(data + static_cast<size_t>(y) * nx, data + static_cast<size_t>(2 * ny - 1 - y) * nx,
                  sizeof(float) * nx);
    return;
  }
  for (unsigned y = 0; y < ny; ++y) {
    float* row = data + static_cast<size_t>(y) * ny;
    for (unsigned x = nx; x < ny; ++x) row[x] = row[2 * nx - 1 - x];
  }
}
