// Launchers of the flat element-wise kernels: the flat shape, then the device check.
#include "math_utils/array_kernels.h"

#include "cuda_general/launch.h"

// ---- Two arrays -------------------------------------------------------------------------

void hcuda_x1d_add(float* out, const float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_add(i, out, a, b, n); });
}
void hcuda_x1d_sub(float* out, const float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_sub(i, out, a, b, n); });
}
void hcuda_x1d_multi(float* out, const float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_multi(i, out, a, b, n); });
}
void hcuda_x1d_divide(float* out, const float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_divide(i, out, a, b, n); });
}
void hcuda_x1d_add_inplace(float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_add_inplace(i, a, b, n); });
}
void hcuda_x1d_sub_inplace(float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_sub_inplace(i, a, b, n); });
}
void hcuda_x1d_multi_inplace(float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_multi_inplace(i, a, b, n); });
}
void hcuda_x1d_divide_inplace(float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_x1d_divide_inplace(i, a, b, n); });
}
void hcuda_addto_float(float* a, const float* b, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_addto_float(i, a, b, n); });
}

// ---- One array and a scalar -------------------------------------------------------------

void hcuda_add(float* out, const float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_add(i, out, a, n, k); });
}
void hcuda_sub(float* out, const float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sub(i, out, a, n, k); });
}
void hcuda_multi(float* out, const float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_multi(i, out, a, n, k); });
}
void hcuda_divide(float* out, const float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_divide(i, out, a, n, k); });
}
void hcuda_add_inplace(float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_add_inplace(i, a, n, k); });
}
void hcuda_sub_inplace(float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sub_inplace(i, a, n, k); });
}
void hcuda_multi_inplace(float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_multi_inplace(i, a, n, k); });
}
void hcuda_divide_inplace(float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_divide_inplace(i, a, n, k); });
}

// ---- One array and two scalars ----------------------------------------------------------

void hcuda_add_multi(float* out, const float* a, unsigned long n, float k, float c) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_add_multi(i, out, a, n, k, c); });
}
void hcuda_multi_add(float* out, const float* a, unsigned long n, float k, float c) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_multi_add(i, out, a, n, k, c); });
}
void hcuda_sub_divide(float* out, const float* a, unsigned long n, float k, float c) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sub_divide(i, out, a, n, k, c); });
}
void hcuda_divide_sub(float* out, const float* a, unsigned long n, float k, float c) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_divide_sub(i, out, a, n, k, c); });
}
void hcuda_multi_add_inplace(float* a, unsigned long n, float k, float c) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_multi_add_inplace(i, a, n, k, c); });
}
void hcuda_sub_divide_inplace(float* a, unsigned long n, float k, float c) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sub_divide_inplace(i, a, n, k, c); });
}

// ---- Functions of one element -----------------------------------------------------------

void hcuda_sqr(float* out, const float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sqr(i, out, a, n); });
}
void hcuda_sqrtf(float* out, const float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sqrtf(i, out, a, n); });
}
void hcuda_logf(float* out, const float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_logf(i, out, a, n); });
}
void hcuda_sqr_inplace(float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sqr_inplace(i, a, n); });
}
void hcuda_sqrtf_inplace(float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sqrtf_inplace(i, a, n); });
}
void hcuda_logf_inplace(float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_logf_inplace(i, a, n); });
}

// ---- Squared deviations -----------------------------------------------------------------

void hcuda_sub_sqr(float* out, const float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sub_sqr(i, out, a, n, k); });
}
void hcuda_submean_sqr(float* out, const float* a, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_submean_sqr(i, out, a, n, k); });
}
void hcuda_submean_sqr_withmask(float* out, const float* a, const float* m, unsigned long n, float k) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_submean_sqr_withmask(i, out, a, m, n, k); });
}
void hcuda_sqr_withmask(float* out, const float* a, const float* m, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_sqr_withmask(i, out, a, m, n); });
}

void hcuda_invert_inplace(float* a, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_multi_inplace(i, a, n, -1.0f); });
}
