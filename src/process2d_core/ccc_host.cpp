// Masked correlation coefficients on the host.
#include <vector>

#include "math_utils/host_stats.h"
#include "process2d_core/ccc.h"

void cpu_1d_mask_A_and_B(float* out, const float* a, const float* b, unsigned long n) {
  for (unsigned long i = 0; i < n; ++i) out[i] = a[i] != 0.0f && b[i] != 0.0f ? 1.0f : 0.0f;
}

float cpu_x2d_ccc_withmask_inplace(float* a, float* b, const float* mask, unsigned nx, unsigned ny) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  hm_normz_withmask_applymask_inplace(a, mask, n, 1.0f, 0.0f);
  hm_normz_withmask_applymask_inplace(b, mask, n, 1.0f, 0.0f);
  return hm_ccc_norm(a, b, n);
}

float cpu_x2d_ccc_withmask(const float* a, const float* b, const float* mask, unsigned nx, unsigned ny) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  std::vector<float> ca(n), cb(n);
  hm_normz_withmask_applymask(ca.data(), a, mask, n, 1.0f, 0.0f);
  hm_normz_withmask_applymask(cb.data(), b, mask, n, 1.0f, 0.0f);
  return hm_ccc_norm(ca.data(), cb.data(), n);
}

float cpu_x2d_ccc_with2maskfs(const float* a, const float* b, const float* mask_a, const float* mask_b, unsigned nx,
                              unsigned ny) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  std::vector<float> mask(n);
  cpu_1d_mask_A_and_B(mask.data(), mask_a, mask_b, n);
  return cpu_x2d_ccc_withmask(a, b, mask.data(), nx, ny);
}

float cpu_x2d_ccc_with2maskfs2(const float* a, const float* b, const float* mask_a, const float* mask_b, unsigned nx,
                               unsigned ny) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  std::vector<float> mask(n), ca(n), cb(n);
  cpu_1d_mask_A_and_B(mask.data(), mask_a, mask_b, n);
  hm_normz_withmask_applymask(ca.data(), a, mask.data(), n, 1.0f, 0.0f);
  hm_normz_withmask_applymask(cb.data(), b, mask.data(), n, 1.0f, 0.0f);
  return hm_ccc_znorm_inplace(ca.data(), cb.data(), n);
}
