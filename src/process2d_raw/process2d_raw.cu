// Device launchers of the box mean and of the box cutting.
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "process2d_raw/process2d_raw.h"

void pk_require_box(int bx, int by) {
  if (bx < 2 || by < 2) PK_FATAL("A box of %d x %d pixels holds no pixel: both sides must be at least 2", bx, by);
}

void hcuda_2d_convolution_by_box(const float* src, float* out, unsigned nx, unsigned ny, int bx, int by) {
  pk_require_box(bx, by);
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_convolution_by_box(x, y, src, out, nx, ny, bx, by); });
}

void hcuda_2d_box_mean_separable(const float* src, float* out, double* rows, unsigned nx, unsigned ny, int bx, int by) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_box_row_sums(x, y, src, rows, nx, ny, bx); });
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_box_column_mean(x, y, rows, out, nx, ny, bx, by); });
}

void hcuda_2d_extract_small_from_large(float* out, int w, int h, const float* image, int nx, int ny, int x0, int y0) {
  if (w <= 0 || h <= 0) return;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(w), static_cast<unsigned>(h), PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_2d_extract_small_from_large(x, y, out, w, h, image, nx, ny, x0, y0);
      });
}

void hcuda_2d_extract_smalls_from_large(float* out, int w, int h, int count, const float* image, int nx, int ny,
                                        const int2* origins) {
  const long box = static_cast<long>(w) * h;
  for (int k = 0; k < count; ++k)
    hcuda_2d_extract_small_from_large(out + k * box, w, h, image, nx, ny, origins[k].x, origins[k].y);
}
