// Host statistics (Part 6.5): reductions, moments, normalisation with and without a mask,
// masked sums and means, correlation coefficients.
//
// Every sum is one double accumulator walked from element 0 upward; no loop here may be
// reordered, split or reduced in parallel. Products of floats inside a sum are formed in float
// (the explicit float temporaries below) and widened afterwards.
#include "math_utils/host_stats.h"

#include <math.h>

#include <cmath>
#include <vector>

#include "cuda_general/report.h"

namespace {

inline double wide(float x) { return static_cast<double>(x); }

// Sum of (x - mean)^2 in double, x widened first.
double sum_sqr_dev(const float* a, unsigned long n, double mean) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const double d = wide(a[i]) - mean;
    sum += d * d;
  }
  return sum;
}

// The masked statistics shared by the hm_normz_*withmask family: S through the check, the mean
// sum(float(x m)) / S and the variance sum((x - mu)^2 m) / S. The check is called once here.
struct MaskedMoments {
  double mu;
  double var;
};

double masked_mean(const float* x, const float* m, unsigned long n, double s) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float xm = x[i] * m[i];
    sum += wide(xm);
  }
  return sum / s;
}

MaskedMoments masked_moments(const float* x, const float* m, unsigned long n, double s) {
  MaskedMoments r;
  r.mu = masked_mean(x, m, n, s);
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const double d = wide(x[i]) - r.mu;
    sum += d * d * wide(m[i]);
  }
  r.var = sum / s;
  return r;
}

// out = (x - mu) k + mean, in double, stored as float.
void shift_scale_store(float* out, const float* in, unsigned long n, double mu, double k, double mean) {
  for (unsigned long i = 0; i < n; ++i) out[i] = static_cast<float>((wide(in[i]) - mu) * k + mean);
}

void apply_mask(float* a, const float* m, unsigned long n) {
  for (unsigned long i = 0; i < n; ++i) a[i] = a[i] * m[i];
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Reductions of one array
// ---------------------------------------------------------------------------------------------
double hm_sum(const float* a, unsigned long n) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) sum += wide(a[i]);
  return sum;
}

double hm_sum(const double* a, unsigned long n) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) sum += a[i];
  return sum;
}

float hm_sumf(const float* a, unsigned long n) { return static_cast<float>(hm_sum(a, n)); }

double hm_mean(const float* a, unsigned long n) { return hm_sum(a, n) / static_cast<double>(n); }
double hm_mean(const double* a, unsigned long n) { return hm_sum(a, n) / static_cast<double>(n); }
float hm_meanf(const float* a, unsigned long n) { return static_cast<float>(hm_mean(a, n)); }

double hm_sum_sqr(const float* a, unsigned long n) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float sq = a[i] * a[i];
    sum += wide(sq);
  }
  return sum;
}

float hm_sum_sqrf(const float* a, unsigned long n) { return static_cast<float>(hm_sum_sqr(a, n)); }

double hm_sqr_sum(const float* a, unsigned long n) {
  const double s = hm_sum(a, n);
  return s * s;
}

float hm_sqr_sumf(const float* a, unsigned long n) { return static_cast<float>(hm_sqr_sum(a, n)); }

double hm_mod(const float* a, unsigned long n) { return std::sqrt(hm_sum_sqr(a, n)); }
float hm_modf(const float* a, unsigned long n) { return std::sqrt(static_cast<float>(hm_sum_sqr(a, n))); }
double hm_l2_norm(const float* a, unsigned long n) { return std::sqrt(hm_sum_sqr(a, n)); }
float hm_l2_normf(const float* a, unsigned long n) { return std::sqrt(static_cast<float>(hm_sum_sqr(a, n))); }

double hm_l1_norm(const float* a, unsigned long n) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) sum += wide(std::fabs(a[i]));
  return sum;
}

float hm_l1_normf(const float* a, unsigned long n) { return static_cast<float>(hm_l1_norm(a, n)); }

double hm_lp_norm(const float* a, unsigned long n, float p) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float term = powf(fabsf(a[i]), p);
    sum += wide(term);
  }
  return std::pow(sum, 1.0 / wide(p));
}

float hm_lp_normf(const float* a, unsigned long n, float p) { return static_cast<float>(hm_lp_norm(a, n, p)); }

double hm_linfi_norm(const float* a, unsigned long n) {
  if (n == 0) return 0.0;
  float max = a[0];
  for (unsigned long i = 1; i < n; ++i)
    if (a[i] > max) max = a[i];
  return wide(max);
}

float hm_linfi_normf(const float* a, unsigned long n) { return static_cast<float>(hm_linfi_norm(a, n)); }

double hm_variance(const float* a, unsigned long n) {
  const double mean = hm_mean(a, n);
  return sum_sqr_dev(a, n, mean) / static_cast<double>(n);
}

float hm_variancef(const float* a, unsigned long n) { return static_cast<float>(hm_variance(a, n)); }

double hm_svariance(const float* a, unsigned long n) {
  const double mean = hm_mean(a, n);
  // n - 1 as a double: one element gives 0 / 0; so does an empty array (not a wrapped count).
  const double denom = n > 0 ? static_cast<double>(n - 1) : 0.0;
  return sum_sqr_dev(a, n, mean) / denom;
}

float hm_svariancef(const float* a, unsigned long n) { return static_cast<float>(hm_svariance(a, n)); }

double hm_stdv(const float* a, unsigned long n) { return std::sqrt(hm_variance(a, n)); }
float hm_stdvf(const float* a, unsigned long n) { return std::sqrt(static_cast<float>(hm_variance(a, n))); }
double hm_sstdv(const float* a, unsigned long n) { return std::sqrt(hm_svariance(a, n)); }
float hm_sstdvf(const float* a, unsigned long n) { return std::sqrt(static_cast<float>(hm_svariance(a, n))); }

// ---------------------------------------------------------------------------------------------
// Several results at once
// ---------------------------------------------------------------------------------------------
void hm_mean_stdv(const float* a, unsigned long n, double& mean, double& sd) {
  const double m = hm_mean(a, n);
  mean = m;
  sd = std::sqrt(sum_sqr_dev(a, n, m) / static_cast<double>(n));
}

void hm_mean_stdvf(const float* a, unsigned long n, float& mean, float& sd) {
  double m = 0.0, s = 0.0;
  hm_mean_stdv(a, n, m, s);
  mean = static_cast<float>(m);
  sd = static_cast<float>(s);
}

void hm_mean_stdv_max_minf(const float* a, unsigned long n, float& mean, float& sd, float& max, float& min) {
  hm_mean_stdvf(a, n, mean, sd);
  hm_max_min_value(a, n, max, min);
}

float hm_update_mean_stdv_by_one_more(float& mean, float& sd, unsigned long n, float x) {
  const float fn = static_cast<float>(n);
  // The sums in float: mean n + x and (sd^2 + mean^2) n + x^2.
  const float sum = mean * fn + x;
  const float sd2 = sd * sd;
  const float mean2 = mean * mean;
  const float xx = x * x;
  const float sum_sqr = (sd2 + mean2) * fn + xx;
  // The divisions and the root in double.
  const double n1 = static_cast<double>(n) + 1.0;
  const double new_mean = wide(sum) / n1;
  const double new_sd = std::sqrt(wide(sum_sqr) / n1 - new_mean * new_mean);
  mean = static_cast<float>(new_mean);
  sd = static_cast<float>(new_sd);
  return mean;
}

// ---------------------------------------------------------------------------------------------
// Normalisation without a mask
// ---------------------------------------------------------------------------------------------
void hm_normz(float* out, const float* in, unsigned long n, float sigma, float mean) {
  const double m = hm_sum(in, n) / static_cast<double>(n);
  const double sd = std::sqrt(sum_sqr_dev(in, n, m) / static_cast<double>(n));
  const double k = wide(sigma) / sd;
  shift_scale_store(out, in, n, m, k, wide(mean));
}

void hm_normz_inplace(float* a, unsigned long n, float sigma, float mean) { hm_normz(a, a, n, sigma, mean); }

void cpu_znorm_inplace(float* a, unsigned long n, float sigma, float mean) {
  const float m = static_cast<float>(thm_mean(a, n));
  for (unsigned long i = 0; i < n; ++i) a[i] = a[i] - m;
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float sq = a[i] * a[i];
    sum += wide(sq);
  }
  const float sd = static_cast<float>(std::sqrt(sum / static_cast<double>(n)));
  const float k = sigma / sd;
  for (unsigned long i = 0; i < n; ++i) {
    const float scaled = a[i] * k;
    a[i] = scaled + mean;
  }
}

// ---------------------------------------------------------------------------------------------
// Normalisation with a mask
// ---------------------------------------------------------------------------------------------
void hm_normz_withmask(float* out, const float* in, const float* mask, unsigned long n, float sigma, float mean) {
  const double s = hm_sum_check0(mask, n);
  if (n == 0) return;
  const MaskedMoments mm = masked_moments(in, mask, n, s);
  const double k = wide(sigma) / std::sqrt(mm.var);
  shift_scale_store(out, in, n, mm.mu, k, wide(mean));
}

void hm_normz_withmask_inplace(float* a, const float* mask, unsigned long n, float sigma, float mean) {
  hm_normz_withmask(a, a, mask, n, sigma, mean);
}

void hm_normz_mean_withmask_inplace(float* a, const float* mask, unsigned long n, float sigma, float mean) {
  hm_normz_withmask(a, a, mask, n, sigma, mean);
}

void hm_normz_withmask_applymask(float* out, const float* in, const float* mask, unsigned long n, float sigma,
                                 float mean) {
  hm_normz_withmask(out, in, mask, n, sigma, mean);
  apply_mask(out, mask, n);
}

void hm_normz_withmask_applymask_inplace(float* a, const float* mask, unsigned long n, float sigma, float mean) {
  hm_normz_withmask_applymask(a, a, mask, n, sigma, mean);
}

void hm_normz_stdv_withmask(float* out, const float* in, const float* mask, unsigned long n, float sigma) {
  const double s = hm_sum_check0(mask, n);
  if (n == 0) return;
  const MaskedMoments mm = masked_moments(in, mask, n, s);
  const double k = wide(sigma) / std::sqrt(mm.var);
  for (unsigned long i = 0; i < n; ++i) out[i] = static_cast<float>(wide(in[i]) * k);
}

void hm_normz_stdv_withmask_inplace(float* a, const float* mask, unsigned long n, float sigma) {
  hm_normz_stdv_withmask(a, a, mask, n, sigma);
}

void hm_normz_stdv_withmask_applymask(float* out, const float* in, const float* mask, unsigned long n, float sigma) {
  hm_normz_stdv_withmask(out, in, mask, n, sigma);
  apply_mask(out, mask, n);
}

void hm_normz_mean_withmask(float* out, const float* in, const float* mask, unsigned long n, float mean) {
  const double s = hm_sum_check0(mask, n);
  if (n == 0) return;
  const double mu = masked_mean(in, mask, n, s);
  for (unsigned long i = 0; i < n; ++i) out[i] = static_cast<float>(wide(in[i]) - mu + wide(mean));
}

void hm_normz_weighted_inplace(float* a, const float* w, unsigned long n) {
  const double s = hm_sum_check0(w, n);
  if (n == 0) return;
  const MaskedMoments mm = masked_moments(a, w, n, s);
  const double sd = std::sqrt(mm.var);
  for (unsigned long i = 0; i < n; ++i) a[i] = static_cast<float>((wide(a[i]) - mm.mu) / sd);
}

// ---------------------------------------------------------------------------------------------
// Masked sums and means
// ---------------------------------------------------------------------------------------------
double hm_sum_check0(const float* m, unsigned long n) {
  const double s = hm_sum(m, n);
  if (s < 1e-6) PK_WARNING("Too small sum of mask!!");
  return s;
}

float hm_sumf_check0(const float* m, unsigned long n) {
  const double s = hm_sum(m, n);
  if (s < 1e-6) PK_WARNING("Too small sum of mask!!");
  return static_cast<float>(s);
}

double hm_sum_weighted(const float* a, const float* w, unsigned long n) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float aw = a[i] * w[i];
    sum += wide(aw);
  }
  return sum;
}

float hm_sumf_weighted(const float* a, const float* w, unsigned long n) {
  return static_cast<float>(hm_sum_weighted(a, w, n));
}
double hm_sum_withmask(const float* a, const float* m, unsigned long n) { return hm_sum_weighted(a, m, n); }
float hm_sumf_withmask(const float* a, const float* m, unsigned long n) {
  return static_cast<float>(hm_sum_weighted(a, m, n));
}

double hm_mean_weighted(const float* a, const float* w, unsigned long n) {
  const double s = hm_sum_check0(w, n);
  return hm_sum_weighted(a, w, n) / s;
}

float hm_meanf_weighted(const float* a, const float* w, unsigned long n) {
  return static_cast<float>(hm_mean_weighted(a, w, n));
}
double hm_mean_withmask(const float* a, const float* m, unsigned long n) { return hm_mean_weighted(a, m, n); }
float hm_meanf_withmask(const float* a, const float* m, unsigned long n) {
  return static_cast<float>(hm_mean_weighted(a, m, n));
}

double hm_dot(const float* a, const float* b, unsigned long n) { return hm_sum_weighted(a, b, n); }
float hm_dotf(const float* a, const float* b, unsigned long n) { return static_cast<float>(hm_dot(a, b, n)); }

double hm_dot_withmask(const float* a, const float* b, const float* m, unsigned long n) {
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float ab = a[i] * b[i];
    const float abm = ab * m[i];
    sum += wide(abm);
  }
  return sum;
}

double hm_dot_weighted(const float* a, const float* b, const float* w, unsigned long n) {
  return hm_dot_withmask(a, b, w, n);
}

float hm_dotf_withmask(const float* a, const float* b, const float* m, unsigned long n) {
  float sum = 0.0f;
  for (unsigned long i = 0; i < n; ++i) {
    const float ab = a[i] * b[i];
    sum += ab * m[i];
  }
  return sum;
}

float hm_dotf_weighted(const float* a, const float* b, const float* w, unsigned long n) {
  return hm_dotf_withmask(a, b, w, n);
}

double hm_covariance(const float* a, const float* b, unsigned long n) {
  const double ma = hm_mean(a, n);
  const double mb = hm_mean(b, n);
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) sum += (wide(a[i]) - ma) * (wide(b[i]) - mb);
  return sum;
}

float hm_covariancef(const float* a, const float* b, unsigned long n) {
  return static_cast<float>(hm_covariance(a, b, n));
}

// ---------------------------------------------------------------------------------------------
// Correlation coefficients
// ---------------------------------------------------------------------------------------------
float hm_ccc_norm(const float* a, const float* b, unsigned long n) {
  double sab = 0.0, saa = 0.0, sbb = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const float ab = a[i] * b[i];
    const double x = wide(a[i]), y = wide(b[i]);
    sab += wide(ab);
    saa += x * x;
    sbb += y * y;
  }
  return static_cast<float>(sab / std::sqrt(saa * sbb));
}

float hm_ccc_znorm(const float* a, const float* b, unsigned long n) {
  std::vector<float> ca(a, a + n), cb(b, b + n);
  return hm_ccc_znorm_inplace(ca.data(), cb.data(), n);
}

float hm_ccc_znorm_inplace(float* a, float* b, unsigned long n) {
  hm_normz_inplace(a, n, 1.0f, 0.0f);
  hm_normz_inplace(b, n, 1.0f, 0.0f);
  return hm_ccc_norm(a, b, n);
}
