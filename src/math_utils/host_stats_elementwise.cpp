// Host statistics (Part 6.5): element-wise operations (all in float) and extremes.
//
// The element-wise loops are independent per element and may be vectorised by the compiler;
// the only sums here (the means of hm_submean* and hm_max_min_mean) go through hm_sum, one
// double accumulator in order.
#include <math.h>

#include <cmath>

#include "math_utils/host_stats.h"

namespace {

template <typename F>
inline void each(float* out, const float* in, unsigned long n, F f) {
  for (unsigned long i = 0; i < n; ++i) out[i] = f(in[i]);
}

template <typename F>
inline void each2(float* out, const float* a, const float* b, unsigned long n, F f) {
  for (unsigned long i = 0; i < n; ++i) out[i] = f(a[i], b[i]);
}

// Strict comparisons from element 0: the first of equals wins, a NaN is passed over unless it
// is element 0.
unsigned long max_index(const float* a, unsigned long n) {
  if (n == 0) return 0;
  unsigned long idx = 0;
  float max = a[0];
  for (unsigned long i = 1; i < n; ++i)
    if (a[i] > max) {
      max = a[i];
      idx = i;
    }
  return idx;
}

unsigned long min_index(const float* a, unsigned long n) {
  if (n == 0) return 0;
  unsigned long idx = 0;
  float min = a[0];
  for (unsigned long i = 1; i < n; ++i)
    if (a[i] < min) {
      min = a[i];
      idx = i;
    }
  return idx;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Element-wise
// ---------------------------------------------------------------------------------------------
void hm_add(float* out, const float* in, unsigned long n, float k) {
  each(out, in, n, [k](float x) { return x + k; });
}
void hm_add_inplace(float* a, unsigned long n, float k) { hm_add(a, a, n, k); }
void hm_sub(float* out, const float* in, unsigned long n, float k) {
  each(out, in, n, [k](float x) { return x - k; });
}
void hm_sub_inplace(float* a, unsigned long n, float k) { hm_sub(a, a, n, k); }
void hm_multi(float* out, const float* in, unsigned long n, float k) {
  each(out, in, n, [k](float x) { return x * k; });
}
void hm_multi_inplace(float* a, unsigned long n, float k) { hm_multi(a, a, n, k); }
void hm_divide(float* out, const float* in, unsigned long n, float k) {
  each(out, in, n, [k](float x) { return x / k; });
}
void hm_divide_inplace(float* a, unsigned long n, float k) { hm_divide(a, a, n, k); }

void hm_invert(float* out, const float* in, unsigned long n) {
  each(out, in, n, [](float x) { return -x; });
}
void hm_invert_inplace(float* a, unsigned long n) { hm_invert(a, a, n); }

void hm_sqr(float* out, const float* in, unsigned long n) {
  each(out, in, n, [](float x) { return x * x; });
}
void hm_sqr_inplace(float* a, unsigned long n) { hm_sqr(a, a, n); }
void hm_sqrtf(float* out, const float* in, unsigned long n) {
  each(out, in, n, [](float x) { return sqrtf(x); });
}
void hm_sqrtf_inplace(float* a, unsigned long n) { hm_sqrtf(a, a, n); }
void hm_logf(float* out, const float* in, unsigned long n) {
  each(out, in, n, [](float x) { return logf(x); });
}
void hm_logf_inplace(float* a, unsigned long n) { hm_logf(a, a, n); }
void hm_fabsf(float* out, const float* in, unsigned long n) {
  each(out, in, n, [](float x) { return fabsf(x); });
}
void hm_tanhf(float* out, const float* in, unsigned long n) {
  each(out, in, n, [](float x) { return tanhf(x); });
}

void hm_sig_tanhf(float* out, const float* in, unsigned long n, float s) {
  const float two_s = 2.0f * s;
  each(out, in, n, [s, two_s](float x) {
    const float t = tanhf(x / two_s);
    return static_cast<float>(static_cast<double>(t) * 2.1639534137386525 * static_cast<double>(s));
  });
}

void hm_multi_add(float* out, const float* in, unsigned long n, float k, float b) {
  each(out, in, n, [k, b](float x) { return x * k + b; });
}
void hm_multi_add_inplace(float* a, unsigned long n, float k, float b) { hm_multi_add(a, a, n, k, b); }
void hm_add_multi(float* out, const float* in, unsigned long n, float k, float b) {
  each(out, in, n, [k, b](float x) { return (x + k) * b; });
}
void hm_add_multi_inplace(float* a, unsigned long n, float k, float b) { hm_add_multi(a, a, n, k, b); }
void hm_divide_sub(float* out, const float* in, unsigned long n, float k, float b) {
  each(out, in, n, [k, b](float x) { return x / k - b; });
}
void hm_divide_sub_inplace(float* a, unsigned long n, float k, float b) { hm_divide_sub(a, a, n, k, b); }
void hm_sub_divide(float* out, const float* in, unsigned long n, float k, float b) {
  each(out, in, n, [k, b](float x) { return (x - k) / b; });
}
void hm_sub_divide_inplace(float* a, unsigned long n, float k, float b) { hm_sub_divide(a, a, n, k, b); }
void hm_sub_sqr(float* out, const float* in, unsigned long n, float k) {
  each(out, in, n, [k](float x) {
    const float d = x - k;
    return d * d;
  });
}
void hm_sub_sqr_inplace(float* a, unsigned long n, float k) { hm_sub_sqr(a, a, n, k); }
void hm_linear_norm_kb(float* out, const float* in, unsigned long n, float k, float b) {
  each(out, in, n, [k, b](float x) { return x * k + b; });
}
void hm_linear_norm_kb_inplace(float* a, unsigned long n, float k, float b) { hm_linear_norm_kb(a, a, n, k, b); }

// The mean is taken from the whole input before any element is written, so in place is safe.
void hm_submean(float* out, const float* in, unsigned long n) {
  const float m = static_cast<float>(hm_mean(in, n));
  each(out, in, n, [m](float x) { return x - m; });
}
void hm_submean_inplace(float* a, unsigned long n) { hm_submean(a, a, n); }
void hm_submean_sqr(float* out, const float* in, unsigned long n) {
  const float m = static_cast<float>(hm_mean(in, n));
  each(out, in, n, [m](float x) {
    const float d = x - m;
    return d * d;
  });
}
void hm_submean_sqr_inplace(float* a, unsigned long n) { hm_submean_sqr(a, a, n); }
void hm_submean_abs(float* out, const float* in, unsigned long n) {
  const float m = static_cast<float>(hm_mean(in, n));
  each(out, in, n, [m](float x) { return fabsf(x - m); });
}
void hm_submean_abs_inplace(float* a, unsigned long n) { hm_submean_abs(a, a, n); }

void hm_x1d_add(float* out, const float* a, const float* b, unsigned long n) {
  each2(out, a, b, n, [](float x, float y) { return x + y; });
}
void hm_x1d_add_inplace(float* a, const float* b, unsigned long n) { hm_x1d_add(a, a, b, n); }
void hm_x1d_sub(float* out, const float* a, const float* b, unsigned long n) {
  each2(out, a, b, n, [](float x, float y) { return x - y; });
}
void hm_x1d_sub_inplace(float* a, const float* b, unsigned long n) { hm_x1d_sub(a, a, b, n); }
void hm_x1d_multi(float* out, const float* a, const float* b, unsigned long n) {
  each2(out, a, b, n, [](float x, float y) { return x * y; });
}
void hm_x1d_multi_inplace(float* a, const float* b, unsigned long n) { hm_x1d_multi(a, a, b, n); }
void hm_x1d_divide(float* out, const float* a, const float* b, unsigned long n) {
  each2(out, a, b, n, [](float x, float y) { return x / y; });
}
void hm_x1d_divide_inplace(float* a, const float* b, unsigned long n) { hm_x1d_divide(a, a, b, n); }

void hm_appply_mask(float* out, const float* a, const float* m, unsigned long n) { hm_x1d_multi(out, a, m, n); }
void hm_appply_weights(float* out, const float* a, const float* m, unsigned long n) { hm_x1d_multi(out, a, m, n); }
void hm_apply_weights(float* out, const float* a, const float* m, unsigned long n) { hm_x1d_multi(out, a, m, n); }
void hm_apply_mask_inplace(float* a, const float* m, unsigned long n) { hm_x1d_multi(a, a, m, n); }
void hm_apply_weights_inplace(float* a, const float* m, unsigned long n) { hm_x1d_multi(a, a, m, n); }

// ---------------------------------------------------------------------------------------------
// Extremes
// ---------------------------------------------------------------------------------------------
float hm_max_value(const float* a, unsigned long n) {
  float max = a[0];
  for (unsigned long i = 1; i < n; ++i)
    if (a[i] > max) max = a[i];
  return max;
}

float hm_min_value(const float* a, unsigned long n) {
  float min = a[0];
  for (unsigned long i = 1; i < n; ++i)
    if (a[i] < min) min = a[i];
  return min;
}

unsigned long hm_max_index(const float* a, unsigned long n) { return max_index(a, n); }
unsigned long hm_min_index(const float* a, unsigned long n) { return min_index(a, n); }

void hm_max_min_value(const float* a, unsigned long n, float& max, float& min) {
  max = hm_max_value(a, n);
  min = hm_min_value(a, n);
}

void hm_min_max_value(const float* a, unsigned long n, float& min, float& max) { hm_max_min_value(a, n, max, min); }

void hm_max_min_index(const float* a, unsigned long n, unsigned long& imax, unsigned long& imin) {
  imax = max_index(a, n);
  imin = min_index(a, n);
}

void hm_min_max_index(const float* a, unsigned long n, unsigned long& imin, unsigned long& imax) {
  hm_max_min_index(a, n, imax, imin);
}

void hm_max_min_mean(const float* a, unsigned long n, float& max, float& min, float& mean) {
  max = hm_max_value(a, n);
  min = hm_min_value(a, n);
  mean = static_cast<float>(hm_sum(a, n) / static_cast<double>(n));
}

void hm_max_min_mean_value(const float* a, unsigned long n, float& max, float& min, float& mean) {
  hm_max_min_mean(a, n, max, min, mean);
}

void hm_min_max_mean(const float* a, unsigned long n, float& min, float& max, float& mean) {
  hm_max_min_mean(a, n, max, min, mean);
}

void hm_min_max_mean_value(const float* a, unsigned long n, float& min, float& max, float& mean) {
  hm_max_min_mean(a, n, max, min, mean);
}

void hm_max_value_and_index(const float* a, unsigned long n, float& value, unsigned long& index) {
  index = max_index(a, n);
  value = a[index];
}

void hm_min_value_and_index(const float* a, unsigned long n, float& value, unsigned long& index) {
  index = min_index(a, n);
  value = a[index];
}

void hm_max_min_value_and_index(const float* a, unsigned long n, float& max, float& min, unsigned long& imax,
                                unsigned long& imin) {
  hm_max_value_and_index(a, n, max, imax);
  hm_min_value_and_index(a, n, min, imin);
}

void hm_min_max_value_and_index(const float* a, unsigned long n, float& min, float& max, unsigned long& imin,
                                unsigned long& imax) {
  hm_max_min_value_and_index(a, n, max, min, imax, imin);
}
