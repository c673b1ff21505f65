// Statistics of device float arrays, built on the tree sums of cuda_fast_sum.h (always with
// blocks of 1024): every step squares or multiplies into a scratch array of n floats and sums
// that in place. All arithmetic is single precision, the divisions and square roots on the
// host included. x is the data, m a mask of weights (0.0 and 1.0 in the picker), n the count.
//
// The element steps on their own (hcuda_submean_sqr, hcuda_submean_sqr_withmask,
// hcuda_sqr_withmask) are declared in array_kernels.h.
#pragma once

#include "cuda_fast_sum/cuda_fast_sum.h"
#include "math_utils/array_kernels.h"

float hcuda_fast_mean(const float* x, unsigned long n);                              // Σx / n
float hcuda_fast_sum_withmask(const float* x, const float* m, unsigned long n);      // Σ(x m)
float hcuda_mean_withmask(const float* x, const float* m, unsigned long n);          // Σ(x m) / Σm
float hcuda_fast_sumsqr(const float* x, unsigned long n);                            // Σ(x x)
float hcuda_fast_sumsqr_inplace(float* x, unsigned long n);                          // the same; x destroyed
float hcuda_fast_sumsqr_withmask(const float* x, const float* m, unsigned long n);   // Σ((x x) m)
float hcuda_fast_submean_sumsqr(const float* x, unsigned long n);                    // Σ((x - mean)^2)
// mean = Σ(x m) / Σm, then Σ(m (x - mean)^2).
float hcuda_fast_submean_sumsqr_withmask(const float* x, const float* m, unsigned long n);
float hcuda_variance(const float* x, unsigned long n);                               // submean_sumsqr / n
float hcuda_stdv(const float* x, unsigned long n);                                   // sqrt(variance)
float hcuda_variance_withmask(const float* x, const float* m, unsigned long n);      // ... / n, all elements
float hcuda_stdv_withmask(const float* x, const float* m, unsigned long n);          // sqrt(... / Σm)

// Shifts and scales data in place to the given standard deviation and mean, with the
// statistics of all n elements.
void hcuda_znorm_inplace(float* data, unsigned long n, float stdv, float mean);
// The same with the mean and standard deviation taken under the mask; every element is
// shifted and scaled, masked ones too (they keep their values relative to the rest).
void hcuda_norm_withmask_inplace(float* data, const float* mask, unsigned long n, float stdv, float mean);
