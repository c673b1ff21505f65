// Element-wise operations on flat device arrays of floats.
//
// Each cuda_* function is the work of one thread, i = block * 1024 + thread, and does nothing
// when i is not below n. Each hcuda_* launcher of the same name takes the same arguments less
// the thread index, runs the kernel over (n + 1023) / 1024 blocks of 1024 threads, waits for
// the device and ends the process through the device check on failure.
//
// Letters: a, b the elements of the first and second input, k, c the first and second
// scalar, m a mask weight. "Fused" operations round once (fmaf); every other step rounds on
// its own, in single precision.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"

// ---- Two arrays -------------------------------------------------------------------------

PICKORA_HD inline void cuda_x1d_add(unsigned i, float* out, const float* a, const float* b, unsigned long n) {
  if (i < n) out[i] = a[i] + b[i];
}
PICKORA_HD inline void cuda_x1d_sub(unsigned i, float* out, const float* a, const float* b, unsigned long n) {
  if (i < n) out[i] = a[i] - b[i];
}
PICKORA_HD inline void cuda_x1d_multi(unsigned i, float* out, const float* a, const float* b, unsigned long n) {
  if (i < n) out[i] = a[i] * b[i];
}
PICKORA_HD inline void cuda_x1d_divide(unsigned i, float* out, const float* a, const float* b, unsigned long n) {
  if (i < n) out[i] = a[i] / b[i];
}

PICKORA_HD inline void cuda_x1d_add_inplace(unsigned i, float* a, const float* b, unsigned long n) {
  if (i < n) a[i] = a[i] + b[i];
}
PICKORA_HD inline void cuda_x1d_sub_inplace(unsigned i, float* a, const float* b, unsigned long n) {
  if (i < n) a[i] = a[i] - b[i];
}
PICKORA_HD inline void cuda_x1d_multi_inplace(unsigned i, float* a, const float* b, unsigned long n) {
  if (i < n) a[i] = a[i] * b[i];
}
PICKORA_HD inline void cuda_x1d_divide_inplace(unsigned i, float* a, const float* b, unsigned long n) {
  if (i < n) a[i] = a[i] / b[i];
}
PICKORA_HD inline void cuda_addto_float(unsigned i, float* a, const float* b, unsigned long n) {
  if (i < n) a[i] = a[i] + b[i];
}

// ---- One array and a scalar -------------------------------------------------------------

PICKORA_HD inline void cuda_add(unsigned i, float* out, const float* a, unsigned long n, float k) {
  if (i < n) out[i] = a[i] + k;
}
PICKORA_HD inline void cuda_sub(unsigned i, float* out, const float* a, unsigned long n, float k) {
  if (i < n) out[i] = a[i] - k;
}
PICKORA_HD inline void cuda_multi(unsigned i, float* out, const float* a, unsigned long n, float k) {
  if (i < n) out[i] = a[i] * k;
}
PICKORA_HD inline void cuda_divide(unsigned i, float* out, const float* a, unsigned long n, float k) {
  if (i < n) out[i] = a[i] / k;
}

PICKORA_HD inline void cuda_add_inplace(unsigned i, float* a, unsigned long n, float k) {
  if (i < n) a[i] = a[i] + k;
}
PICKORA_HD inline void cuda_sub_inplace(unsigned i, float* a, unsigned long n, float k) {
  if (i < n) a[i] = a[i] - k;
}
PICKORA_HD inline void cuda_multi_inplace(unsigned i, float* a, unsigned long n, float k) {
  if (i < n) a[i] = a[i] * k;
}
PICKORA_HD inline void cuda_divide_inplace(unsigned i, float* a, unsigned long n, float k) {
  if (i < n) a[i] = a[i] / k;
}

// ---- One array and two scalars ----------------------------------------------------------

PICKORA_HD inline void cuda_add_multi(unsigned i, float* out, const float* a, unsigned long n, float k, float c) {
  if (i < n) out[i] = (a[i] + k) * c;
}
PICKORA_HD inline void cuda_multi_add(unsigned i, float* out, const float* a, unsigned long n, float k, float c) {
  if (i < n) out[i] = fmaf(a[i], k, c);
}
PICKORA_HD inline void cuda_sub_divide(unsigned i, float* out, const float* a, unsigned long n, float k, float c) {
  if (i < n) out[i] = (a[i] - k) / c;
}
PICKORA_HD inline void cuda_divide_sub(unsigned i, float* out, const float* a, unsigned long n, float k, float c) {
  if (i < n) out[i] = a[i] / k - c;
}
PICKORA_HD inline void cuda_multi_add_inplace(unsigned i, float* a, unsigned long n, float k, float c) {
  if (i < n) a[i] = fmaf(a[i], k, c);
}
PICKORA_HD inline void cuda_sub_divide_inplace(unsigned i, float* a, unsigned long n, float k, float c) {
  if (i < n) a[i] = (a[i] - k) / c;
}

// ---- Functions of one element -----------------------------------------------------------

PICKORA_HD inline void cuda_sqr(unsigned i, float* out, const float* a, unsigned long n) {
  if (i < n) out[i] = a[i] * a[i];
}
PICKORA_HD inline void cuda_sqrtf(unsigned i, float* out, const float* a, unsigned long n) {
  if (i < n) out[i] = sqrtf(a[i]);
}
PICKORA_HD inline void cuda_logf(unsigned i, float* out, const float* a, unsigned long n) {
  if (i < n) out[i] = logf(a[i]);
}
PICKORA_HD inline void cuda_sqr_inplace(unsigned i, float* a, unsigned long n) {
  if (i < n) a[i] = a[i] * a[i];
}
PICKORA_HD inline void cuda_sqrtf_inplace(unsigned i, float* a, unsigned long n) {
  if (i < n) a[i] = sqrtf(a[i]);
}
PICKORA_HD inline void cuda_logf_inplace(unsigned i, float* a, unsigned long n) {
  if (i < n) a[i] = logf(a[i]);
}

// ---- Squared deviations, the element steps of the variances -----------------------------

PICKORA_HD inline void cuda_sub_sqr(unsigned i, float* out, const float* a, unsigned long n, float k) {
  if (i < n) {
    const float d = a[i] - k;
    out[i] = d * d;
  }
}
PICKORA_HD inline void cuda_submean_sqr(unsigned i, float* out, const float* a, unsigned long n, float k) {
  cuda_sub_sqr(i, out, a, n, k);
}
PICKORA_HD inline void cuda_submean_sqr_withmask(unsigned i, float* out, const float* a, const float* m,
                                                 unsigned long n, float k) {
  if (i < n) {
    const float d = a[i] - k;
    out[i] = m[i] * (d * d);
  }
}
PICKORA_HD inline void cuda_sqr_withmask(unsigned i, float* out, const float* a, const float* m, unsigned long n) {
  if (i < n) out[i] = (a[i] * a[i]) * m[i];
}

// ---- Launchers --------------------------------------------------------------------------

void hcuda_x1d_add(float* out, const float* a, const float* b, unsigned long n);
void hcuda_x1d_sub(float* out, const float* a, const float* b, unsigned long n);
void hcuda_x1d_multi(float* out, const float* a, const float* b, unsigned long n);
void hcuda_x1d_divide(float* out, const float* a, const float* b, unsigned long n);
void hcuda_x1d_add_inplace(float* a, const float* b, unsigned long n);
void hcuda_x1d_sub_inplace(float* a, const float* b, unsigned long n);
void hcuda_x1d_multi_inplace(float* a, const float* b, unsigned long n);
void hcuda_x1d_divide_inplace(float* a, const float* b, unsigned long n);
void hcuda_addto_float(float* a, const float* b, unsigned long n);

void hcuda_add(float* out, const float* a, unsigned long n, float k);
void hcuda_sub(float* out, const float* a, unsigned long n, float k);
void hcuda_multi(float* out, const float* a, unsigned long n, float k);
void hcuda_divide(float* out, const float* a, unsigned long n, float k);
void hcuda_add_inplace(float* a, unsigned long n, float k);
void hcuda_sub_inplace(float* a, unsigned long n, float k);
void hcuda_multi_inplace(float* a, unsigned long n, float k);
void hcuda_divide_inplace(float* a, unsigned long n, float k);

void hcuda_add_multi(float* out, const float* a, unsigned long n, float k, float c);
void hcuda_multi_add(float* out, const float* a, unsigned long n, float k, float c);
void hcuda_sub_divide(float* out, const float* a, unsigned long n, float k, float c);
void hcuda_divide_sub(float* out, const float* a, unsigned long n, float k, float c);
void hcuda_multi_add_inplace(float* a, unsigned long n, float k, float c);
void hcuda_sub_divide_inplace(float* a, unsigned long n, float k, float c);

void hcuda_sqr(float* out, const float* a, unsigned long n);
void hcuda_sqrtf(float* out, const float* a, unsigned long n);
void hcuda_logf(float* out, const float* a, unsigned long n);
void hcuda_sqr_inplace(float* a, unsigned long n);
void hcuda_sqrtf_inplace(float* a, unsigned long n);
void hcuda_logf_inplace(float* a, unsigned long n);

void hcuda_sub_sqr(float* out, const float* a, unsigned long n, float k);
void hcuda_submean_sqr(float* out, const float* a, unsigned long n, float k);
void hcuda_submean_sqr_withmask(float* out, const float* a, const float* m, unsigned long n, float k);
void hcuda_sqr_withmask(float* out, const float* a, const float* m, unsigned long n);

// Negates every element: cuda_multi_inplace with k = -1.0 (the templates' contrast inversion).
void hcuda_invert_inplace(float* a, unsigned long n);
