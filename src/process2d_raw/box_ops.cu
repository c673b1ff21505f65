// Launchers of the box deviation, the logarithm less its box mean and the hot-pixel repair.
#include <cstdio>

#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "math_utils/device_stats.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/box_ops.h"
#include "process2d_raw/process2d_raw.h"

namespace {

constexpr int kSumBlock = 1024;

// 1.0 where the value is not above 0 (NaN included), 0.0 elsewhere.
PICKORA_HD inline void cuda_not_positive(unsigned i, float* flags, const float* a, unsigned long n) {
  if (i < n) flags[i] = a[i] > 0.0f ? 0.0f : 1.0f;
}

}  // namespace

void hcuda_2d_std_by_box(const float* src, float* out, unsigned nx, unsigned ny, int bx, int by) {
  pk_require_box(bx, by);
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_std_by_box(x, y, src, out, nx, ny, bx, by); });
}

void hcuda_2d_log_subbg_boxconv_inplace(float* image, unsigned nx, unsigned ny, int box) {
  pk_require_box(box, box);
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  float* scratch = nullptr;
  safe_cudaMalloc(&scratch, sizeof(float) * (n > 0 ? n : 1));
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_not_positive(i, scratch, image, n); });
  const float bad = hcuda_fast_sum(scratch, n, kSumBlock);
  if (bad > 0.0f) {
    safe_cudaFree(scratch);
    PK_FATAL("%.0f of %lu pixels are not positive, so their logarithm is undefined", bad, n);
  }
  hcuda_2d_log_inplace(image, nx, ny);
  hcuda_2d_convolution_by_box(image, scratch, nx, ny, box, box);
  hcuda_x2d_sub_inplace(image, scratch, nx, ny);
  safe_cudaFree(scratch);
}

void hcuda_2d_rm_hotpixels_inplace(float* image, unsigned nx, unsigned ny, float mean, float sigma, float factor) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  if (n == 0) return;
  float* snapshot = nullptr;
  safe_cudaMalloc(&snapshot, sizeof(float) * n);
  PK_CUDA_CHECK(memcpy_D2D(snapshot, image, sizeof(float) * n));
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_2d_rm_hotpixels_inplace(x, y, image, snapshot, nx, ny, mean, sigma, factor);
      });
  safe_cudaFree(snapshot);
}

void hcuda_2ds_rm_hotpixels_inplace(float* stack, unsigned nx, unsigned ny, unsigned nz, float factor) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  float* slice = nullptr;
  safe_cudaMalloc(&slice, sizeof(float) * (n > 0 ? n : 1));
  for (unsigned z = 0; z < nz && n > 0; ++z) {
    float* host = stack + z * n;
    PK_CUDA_CHECK(memcpy_H2D(slice, host, sizeof(float) * n));
    const float mean = hcuda_fast_mean(slice, n);
    const float sigma = hcuda_stdv(slice, n);
    hcuda_2d_rm_hotpixels_inplace(slice, nx, ny, mean, sigma, factor);
    PK_CUDA_CHECK(memcpy_D2H(host, slice, sizeof(float) * n));
    std::printf(".");
    std::fflush(stdout);
  }
  std::printf("\n");
  safe_cudaFree(slice);
}
