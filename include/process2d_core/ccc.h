// Correlation coefficients of two images a and b of equal size, nx by ny.
#pragma once

#include "cuda_general/platform.h"

// One row's sum of a b in single precision, pixels in order; thread i makes row i (blocks of 1024).
PICKORA_HD inline void cuda_x2d_ccc_lineX(unsigned i, const float* a, const float* b, float* row_sums, unsigned nx,
                                          unsigned ny) {
  if (i >= ny) return;
  const unsigned long r = static_cast<unsigned long>(i) * nx;
  float sum = 0.0f;
  for (unsigned x = 0; x < nx; ++x) sum += a[r + x] * b[r + x];
  row_sums[i] = sum;
}

// The plain sum of a b over device images: the row sums of cuda_x2d_ccc_lineX added on the host
// in double (hm_sum) and narrowed to float.
float hcuda_x2d_ccc(const float* a, const float* b, unsigned nx, unsigned ny);
// Pearson's coefficient: each image less its mean (hcuda_fast_mean) into scratch, then
// ccc(a', b') / sqrt(ccc(a', a') ccc(b', b')), the root and the division in double. An image
// with no variation has no coefficient: a warning, and 0.0 is returned.
float hcuda_x2d_norm_ccc(const float* a, const float* b, unsigned nx, unsigned ny);
// The same on host images, through the device.
float gpu_x2d_ccc(const float* a, const float* b, unsigned nx, unsigned ny);
float gpu_x2d_norm_ccc(const float* a, const float* b, unsigned nx, unsigned ny);

// Host: both images normalised under the mask to mean 0.0 and standard deviation 1.0 with the
// mask applied (hm_normz_withmask_applymask), then hm_ccc_norm. The _inplace form leaves a and b
// normalised; the other works on copies.
float cpu_x2d_ccc_withmask(const float* a, const float* b, const float* mask, unsigned nx, unsigned ny);
float cpu_x2d_ccc_withmask_inplace(float* a, float* b, const float* mask, unsigned nx, unsigned ny);
// The same with the mask where both masks are set (cpu_1d_mask_A_and_B); the 2 form ends with
// hm_ccc_znorm_inplace of the masked copies instead of hm_ccc_norm.
float cpu_x2d_ccc_with2maskfs(const float* a, const float* b, const float* mask_a, const float* mask_b, unsigned nx,
                              unsigned ny);
float cpu_x2d_ccc_with2maskfs2(const float* a, const float* b, const float* mask_a, const float* mask_b, unsigned nx,
                               unsigned ny);
// 1.0 where both masks are non-zero, 0.0 elsewhere: the common area of two masks.
void cpu_1d_mask_A_and_B(float* out, const float* a, const float* b, unsigned long n);
