// Correlation coefficients on the device.
#include <cmath>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "math_utils/device_stats.h"
#include "math_utils/host_stats.h"
#include "process2d_core/ccc.h"
#include "process2d_core/process2d_core.h"

float hcuda_x2d_ccc(const float* a, const float* b, unsigned nx, unsigned ny) {
  if (ny == 0) return 0.0f;
  float* d_rows = nullptr;
  safe_cudaMalloc(&d_rows, sizeof(float) * ny);
  PK_LAUNCH_FLAT(
      ny, PICKORA_LAMBDA(unsigned i) { cuda_x2d_ccc_lineX(i, a, b, d_rows, nx, ny); });
  std::vector<float> rows(ny);
  PK_CUDA_CHECK(memcpy_D2H(rows.data(), d_rows, sizeof(float) * ny));
  safe_cudaFree(d_rows);
  return static_cast<float>(hm_sum(rows.data(), ny));
}

float hcuda_x2d_norm_ccc(const float* a, const float* b, unsigned nx, unsigned ny) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  if (n == 0) return 0.0f;
  float *da = nullptr, *db = nullptr;
  safe_cudaMalloc(&da, sizeof(float) * n);
  safe_cudaMalloc(&db, sizeof(float) * n);
  hcuda_2d_sub(da, a, nx, ny, hcuda_fast_mean(a, n));
  hcuda_2d_sub(db, b, nx, ny, hcuda_fast_mean(b, n));
  const float ab = hcuda_x2d_ccc(da, db, nx, ny);
  const float aa = hcuda_x2d_ccc(da, da, nx, ny);
  const float bb = hcuda_x2d_ccc(db, db, nx, ny);
  safe_cudaFree(da);
  safe_cudaFree(db);
  const double norm = std::sqrt(static_cast<double>(aa) * static_cast<double>(bb));
  if (!(norm > 0.0)) {
    PK_WARNING("An image without variation has no correlation coefficient; 0 is returned");
    return 0.0f;
  }
  return static_cast<float>(ab / norm);
}

namespace {

template <class Op>
float on_device_pair(const float* a, const float* b, unsigned nx, unsigned ny, Op op) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  float *da = nullptr, *db = nullptr;
  safe_cudaMalloc(&da, sizeof(float) * (n > 0 ? n : 1));
  safe_cudaMalloc(&db, sizeof(float) * (n > 0 ? n : 1));
  if (n > 0) {
    PK_CUDA_CHECK(memcpy_H2D(da, a, sizeof(float) * n));
    PK_CUDA_CHECK(memcpy_H2D(db, b, sizeof(float) * n));
  }
  const float result = op(da, db, nx, ny);
  safe_cudaFree(da);
  safe_cudaFree(db);
  return result;
}

}  // namespace

float gpu_x2d_ccc(const float* a, const float* b, unsigned nx, unsigned ny) {
  return on_device_pair(a, b, nx, ny, hcuda_x2d_ccc);
}

float gpu_x2d_norm_ccc(const float* a, const float* b, unsigned nx, unsigned ny) {
  return on_device_pair(a, b, nx, ny, hcuda_x2d_norm_ccc);
}
