// Derived statistics: an element step into scratch, then the in-place tree sum.
#include "math_utils/device_stats.h"

#include <math.h>

#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"

namespace {

constexpr int kBlock = 1024;

// Scratch of n floats. As in the rest of this family the allocation's status is not looked
// at: a failure shows at the next checked device call.
float* scratch_floats(unsigned long n) {
  float* d = nullptr;
  (void)cudaMalloc(&d, (n > 0 ? n : 1) * sizeof(float));
  return d;
}

// Sums the scratch in place and frees it.
float sum_and_free(float* scratch, unsigned long n) {
  const float sum = hcuda_fast_sum_inplace(scratch, n, kBlock);
  cudaFree(scratch);
  return sum;
}

}  // namespace

float hcuda_fast_mean(const float* x, unsigned long n) {
  return hcuda_fast_sum(x, n, kBlock) / static_cast<float>(n);
}

float hcuda_fast_sum_withmask(const float* x, const float* m, unsigned long n) {
  float* scratch = scratch_floats(n);
  hcuda_x1d_multi(scratch, x, m, n);
  return sum_and_free(scratch, n);
}

float hcuda_mean_withmask(const float* x, const float* m, unsigned long n) {
  const float weighted = hcuda_fast_sum_withmask(x, m, n);
  return weighted / hcuda_fast_sum(m, n, kBlock);
}

float hcuda_fast_sumsqr(const float* x, unsigned long n) {
  float* scratch = scratch_floats(n);
  hcuda_sqr(scratch, x, n);
  return sum_and_free(scratch, n);
}

float hcuda_fast_sumsqr_inplace(float* x, unsigned long n) {
  hcuda_sqr_inplace(x, n);
  return hcuda_fast_sum_inplace(x, n, kBlock);
}

float hcuda_fast_sumsqr_withmask(const float* x, const float* m, unsigned long n) {
  float* scratch = scratch_floats(n);
  hcuda_sqr_withmask(scratch, x, m, n);
  return sum_and_free(scratch, n);
}

float hcuda_fast_submean_sumsqr(const float* x, unsigned long n) {
  const float mean = hcuda_fast_sum(x, n, kBlock) / static_cast<float>(n);
  float* scratch = scratch_floats(n);
  hcuda_submean_sqr(scratch, x, n, mean);
  return sum_and_free(scratch, n);
}

float hcuda_fast_submean_sumsqr_withmask(const float* x, const float* m, unsigned long n) {
  float* scratch = nullptr;
  safe_cudaMalloc(&scratch, (n > 0 ? n : 1) * sizeof(float));
  hcuda_x1d_multi(scratch, x, m, n);
  const float weighted = hcuda_fast_sum_inplace(scratch, n, kBlock);
  const float mean = weighted / hcuda_fast_sum(m, n, kBlock);
  hcuda_submean_sqr_withmask(scratch, x, m, n, mean);
  return sum_and_free(scratch, n);
}

float hcuda_variance(const float* x, unsigned long n) {
  return hcuda_fast_submean_sumsqr(x, n) / static_cast<float>(n);
}

float hcuda_stdv(const float* x, unsigned long n) { return sqrtf(hcuda_variance(x, n)); }

float hcuda_variance_withmask(const float* x, const float* m, unsigned long n) {
  return hcuda_fast_submean_sumsqr_withmask(x, m, n) / static_cast<float>(n);
}

float hcuda_stdv_withmask(const float* x, const float* m, unsigned long n) {
  const float deviations = hcuda_fast_submean_sumsqr_withmask(x, m, n);
  return sqrtf(deviations / hcuda_fast_sum(m, n, kBlock));
}

void hcuda_znorm_inplace(float* data, unsigned long n, float stdv, float mean) {
  const float count = static_cast<float>(n);
  const float sum = hcuda_fast_sum(data, n, kBlock);
  hcuda_sub_inplace(data, n, sum / count);
  const float s = sqrtf(hcuda_fast_sumsqr(data, n) / count);
  hcuda_multi_add_inplace(data, n, stdv / s, mean);
}

void hcuda_norm_withmask_inplace(float* data, const float* mask, unsigned long n, float stdv, float mean) {
  float* scratch = scratch_floats(n);
  hcuda_x1d_multi(scratch, data, mask, n);
  const float weighted = sum_and_free(scratch, n);
  const float weight = hcuda_fast_sum(mask, n, kBlock);
  const float data_mean = weighted / weight;
  // Works the same mean out again by itself; the repetition costs time, not accuracy.
  const float s = sqrtf(hcuda_fast_submean_sumsqr_withmask(data, mask, n) / weight);
  hcuda_sub_inplace(data, n, data_mean);
  hcuda_multi_add_inplace(data, n, stdv / s, mean);
}
