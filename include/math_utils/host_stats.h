// Host statistics (Part 6.5): the hm_ family of host-side array arithmetic, cpu_znorm_inplace,
// the peak list, and the thm_ templates. Host-only, plain loops, no state.
//
// Precision rules of the family:
//   - every sum runs in one double accumulator from element 0 upward, each float widened first;
//   - a product of floats inside a sum (x x, a b, a b m) is rounded to float, then widened;
//   - deviations x - mean are taken in double after widening x, and squared in double;
//   - a mean is sum / n in double; a float result is rounded once at the end;
//   - standard deviations are two-pass (mean first), the square root in double;
//   - the suffix f: the same computation, the result rounded to float; except hm_stdvf,
//     hm_sstdvf, hm_modf and hm_l2_normf, which round the variance (or the sum of squares) to
//     float and take a float square root of it;
//   - element-wise operations: arithmetic in float;
//   - normalised outputs: computed in double, rounded to float on store.
//
// Counts are unsigned long. Unless stated otherwise, input and output arrays of the same
// element type may be the same array. A zero count gives 0 from a sum and NaN from a mean or
// standard deviation. The value forms of the extremes read element 0, so need n >= 1.
#pragma once

#include <type_traits>

// ---------------------------------------------------------------------------------------------
// Reductions of one array
// ---------------------------------------------------------------------------------------------
double hm_sum(const float* a, unsigned long n);
double hm_sum(const double* a, unsigned long n);
float hm_sumf(const float* a, unsigned long n);

double hm_mean(const float* a, unsigned long n);
double hm_mean(const double* a, unsigned long n);
float hm_meanf(const float* a, unsigned long n);

// Sum of x * x, each square rounded to float before it is widened.
double hm_sum_sqr(const float* a, unsigned long n);
float hm_sum_sqrf(const float* a, unsigned long n);

// The square of the sum, in double.
double hm_sqr_sum(const float* a, unsigned long n);
float hm_sqr_sumf(const float* a, unsigned long n);

// sqrt(hm_sum_sqr) in double; the f forms take sqrtf of the float-rounded sum of squares.
double hm_mod(const float* a, unsigned long n);
float hm_modf(const float* a, unsigned long n);
double hm_l2_norm(const float* a, unsigned long n);
float hm_l2_normf(const float* a, unsigned long n);

double hm_l1_norm(const float* a, unsigned long n);
float hm_l1_normf(const float* a, unsigned long n);

// Sum of powf(fabsf(x), p) (each term float), then pow(sum, 1 / p) in double.
double hm_lp_norm(const float* a, unsigned long n, float p);
float hm_lp_normf(const float* a, unsigned long n, float p);

// The largest value, no absolute value taken (so -5, 1 gives 1). 0 for n of 0.
double hm_linfi_norm(const float* a, unsigned long n);
float hm_linfi_normf(const float* a, unsigned long n);

// Two-pass variance: by n, and (s) by n - 1. n of 0 gives NaN for both.
double hm_variance(const float* a, unsigned long n);
float hm_variancef(const float* a, unsigned long n);
double hm_svariance(const float* a, unsigned long n);
float hm_svariancef(const float* a, unsigned long n);
double hm_stdv(const float* a, unsigned long n);
float hm_stdvf(const float* a, unsigned long n);
double hm_sstdv(const float* a, unsigned long n);
float hm_sstdvf(const float* a, unsigned long n);

// ---------------------------------------------------------------------------------------------
// Several results at once
// ---------------------------------------------------------------------------------------------
void hm_mean_stdv(const float* a, unsigned long n, double& mean, double& sd);
void hm_mean_stdvf(const float* a, unsigned long n, float& mean, float& sd);
void hm_mean_stdv_max_minf(const float* a, unsigned long n, float& mean, float& sd, float& max, float& min);

// The moments of n samples grown by x: the sums in float, the divisions and the root in
// double. Updates mean and sd, returns the new mean.
float hm_update_mean_stdv_by_one_more(float& mean, float& sd, unsigned long n, float x);

// ---------------------------------------------------------------------------------------------
// Normalisation without a mask: (x - m) * (sigma / sd) + mean. Note: sigma first, mean second.
// ---------------------------------------------------------------------------------------------
void hm_normz(float* out, const float* in, unsigned long n, float sigma, float mean);
void hm_normz_inplace(float* a, unsigned long n, float sigma, float mean);
// The same target with float arithmetic (Part 6.5, Algorithms).
void cpu_znorm_inplace(float* a, unsigned long n, float sigma, float mean);

// ---------------------------------------------------------------------------------------------
// Normalisation with a mask (weights in 0..1). Every element, also outside the mask, is
// normalised; the _applymask forms then multiply by the mask in float.
// ---------------------------------------------------------------------------------------------
void hm_normz_withmask(float* out, const float* in, const float* mask, unsigned long n, float sigma, float mean);
void hm_normz_withmask_inplace(float* a, const float* mask, unsigned long n, float sigma, float mean);
void hm_normz_mean_withmask_inplace(float* a, const float* mask, unsigned long n, float sigma, float mean);
void hm_normz_withmask_applymask(float* out, const float* in, const float* mask, unsigned long n, float sigma,
                                 float mean);
void hm_normz_withmask_applymask_inplace(float* a, const float* mask, unsigned long n, float sigma, float mean);
// Scale only: x * (sigma / sd), sd from the masked statistics; the mean is not removed.
void hm_normz_stdv_withmask(float* out, const float* in, const float* mask, unsigned long n, float sigma);
void hm_normz_stdv_withmask_inplace(float* a, const float* mask, unsigned long n, float sigma);
void hm_normz_stdv_withmask_applymask(float* out, const float* in, const float* mask, unsigned long n, float sigma);
// Shift only: x - masked mean + mean.
void hm_normz_mean_withmask(float* out, const float* in, const float* mask, unsigned long n, float mean);
// (x - masked mean) / sd.
void hm_normz_weighted_inplace(float* a, const float* w, unsigned long n);

// ---------------------------------------------------------------------------------------------
// Masked sums and means
// ---------------------------------------------------------------------------------------------
// The sum of the mask; below 1e-6 prints the warning "Too small sum of mask!!" and goes on.
double hm_sum_check0(const float* m, unsigned long n);
float hm_sumf_check0(const float* m, unsigned long n);

// Sum of a * w, each product rounded to float.
double hm_sum_weighted(const float* a, const float* w, unsigned long n);
float hm_sumf_weighted(const float* a, const float* w, unsigned long n);
double hm_sum_withmask(const float* a, const float* m, unsigned long n);
float hm_sumf_withmask(const float* a, const float* m, unsigned long n);

// Sum of a * w over the sum of w (through hm_sum_check0).
double hm_mean_weighted(const float* a, const float* w, unsigned long n);
float hm_meanf_weighted(const float* a, const float* w, unsigned long n);
double hm_mean_withmask(const float* a, const float* m, unsigned long n);
float hm_meanf_withmask(const float* a, const float* m, unsigned long n);

// Sum of a * b, each product rounded to float.
double hm_dot(const float* a, const float* b, unsigned long n);
float hm_dotf(const float* a, const float* b, unsigned long n);
// Sum of a * b * m, each product rounded to float.
double hm_dot_withmask(const float* a, const float* b, const float* m, unsigned long n);
double hm_dot_weighted(const float* a, const float* b, const float* w, unsigned long n);
// The same, wholly in float (a float accumulator).
float hm_dotf_withmask(const float* a, const float* b, const float* m, unsigned long n);
float hm_dotf_weighted(const float* a, const float* b, const float* w, unsigned long n);

// Sum of (a - mean a)(b - mean b) in double; not divided by n.
double hm_covariance(const float* a, const float* b, unsigned long n);
float hm_covariancef(const float* a, const float* b, unsigned long n);

// ---------------------------------------------------------------------------------------------
// Correlation coefficients
// ---------------------------------------------------------------------------------------------
// sum(a b) / sqrt(sum(a^2) sum(b^2)); a b in float, the squares in double; means not removed.
float hm_ccc_norm(const float* a, const float* b, unsigned long n);
// hm_ccc_norm of copies normalised to mean 0 and sd 1.
float hm_ccc_znorm(const float* a, const float* b, unsigned long n);
// The same, and a and b stay normalised.
float hm_ccc_znorm_inplace(float* a, float* b, unsigned long n);

// ---------------------------------------------------------------------------------------------
// Element-wise, all in float
// ---------------------------------------------------------------------------------------------
void hm_add(float* out, const float* in, unsigned long n, float k);
void hm_add_inplace(float* a, unsigned long n, float k);
void hm_sub(float* out, const float* in, unsigned long n, float k);
void hm_sub_inplace(float* a, unsigned long n, float k);
void hm_multi(float* out, const float* in, unsigned long n, float k);
void hm_multi_inplace(float* a, unsigned long n, float k);
void hm_divide(float* out, const float* in, unsigned long n, float k);
void hm_divide_inplace(float* a, unsigned long n, float k);

// -x: the sign, not the reciprocal.
void hm_invert(float* out, const float* in, unsigned long n);
void hm_invert_inplace(float* a, unsigned long n);

void hm_sqr(float* out, const float* in, unsigned long n);
void hm_sqr_inplace(float* a, unsigned long n);
void hm_sqrtf(float* out, const float* in, unsigned long n);
void hm_sqrtf_inplace(float* a, unsigned long n);
void hm_logf(float* out, const float* in, unsigned long n);
void hm_logf_inplace(float* a, unsigned long n);
void hm_fabsf(float* out, const float* in, unsigned long n);
void hm_tanhf(float* out, const float* in, unsigned long n);
// tanhf(x / (2 s)) * 2.1639534137386525 * s, the last two products in double.
void hm_sig_tanhf(float* out, const float* in, unsigned long n, float s);

// x k + b; (x + k) b.
void hm_multi_add(float* out, const float* in, unsigned long n, float k, float b);
void hm_multi_add_inplace(float* a, unsigned long n, float k, float b);
void hm_add_multi(float* out, const float* in, unsigned long n, float k, float b);
void hm_add_multi_inplace(float* a, unsigned long n, float k, float b);
// x / k - b; (x - k) / b.
void hm_divide_sub(float* out, const float* in, unsigned long n, float k, float b);
void hm_divide_sub_inplace(float* a, unsigned long n, float k, float b);
void hm_sub_divide(float* out, const float* in, unsigned long n, float k, float b);
void hm_sub_divide_inplace(float* a, unsigned long n, float k, float b);
// (x - k)^2.
void hm_sub_sqr(float* out, const float* in, unsigned long n, float k);
void hm_sub_sqr_inplace(float* a, unsigned long n, float k);
// x k + b.
void hm_linear_norm_kb(float* out, const float* in, unsigned long n, float k, float b);
void hm_linear_norm_kb_inplace(float* a, unsigned long n, float k, float b);

// With m the mean of the input (hm_mean), rounded to float: x - m, (x - m)^2, |x - m|.
void hm_submean(float* out, const float* in, unsigned long n);
void hm_submean_inplace(float* a, unsigned long n);
void hm_submean_sqr(float* out, const float* in, unsigned long n);
void hm_submean_sqr_inplace(float* a, unsigned long n);
void hm_submean_abs(float* out, const float* in, unsigned long n);
void hm_submean_abs_inplace(float* a, unsigned long n);

// out = a op b; the in-place forms a op= b.
void hm_x1d_add(float* out, const float* a, const float* b, unsigned long n);
void hm_x1d_add_inplace(float* a, const float* b, unsigned long n);
void hm_x1d_sub(float* out, const float* a, const float* b, unsigned long n);
void hm_x1d_sub_inplace(float* a, const float* b, unsigned long n);
void hm_x1d_multi(float* out, const float* a, const float* b, unsigned long n);
void hm_x1d_multi_inplace(float* a, const float* b, unsigned long n);
void hm_x1d_divide(float* out, const float* a, const float* b, unsigned long n);
void hm_x1d_divide_inplace(float* a, const float* b, unsigned long n);

// out = a m (the spelling "appply" of the out-of-place forms is the spec's).
void hm_appply_mask(float* out, const float* a, const float* m, unsigned long n);
void hm_appply_weights(float* out, const float* a, const float* m, unsigned long n);
void hm_apply_weights(float* out, const float* a, const float* m, unsigned long n);
void hm_apply_mask_inplace(float* a, const float* m, unsigned long n);
void hm_apply_weights_inplace(float* a, const float* m, unsigned long n);

// ---------------------------------------------------------------------------------------------
// Extremes. Comparisons in float, strict, so the first of equal values wins (lowest index).
// A NaN is passed over unless it stands at element 0. The value forms need n >= 1; the
// index-only forms give 0 for n of 0.
// ---------------------------------------------------------------------------------------------
float hm_max_value(const float* a, unsigned long n);
float hm_min_value(const float* a, unsigned long n);
unsigned long hm_max_index(const float* a, unsigned long n);
unsigned long hm_min_index(const float* a, unsigned long n);
void hm_max_min_value(const float* a, unsigned long n, float& max, float& min);
void hm_min_max_value(const float* a, unsigned long n, float& min, float& max);
void hm_max_min_index(const float* a, unsigned long n, unsigned long& imax, unsigned long& imin);
void hm_min_max_index(const float* a, unsigned long n, unsigned long& imin, unsigned long& imax);
// Maximum, minimum (float comparisons, from element 0), mean (double sum, rounded to float).
void hm_max_min_mean(const float* a, unsigned long n, float& max, float& min, float& mean);
void hm_max_min_mean_value(const float* a, unsigned long n, float& max, float& min, float& mean);
void hm_min_max_mean(const float* a, unsigned long n, float& min, float& max, float& mean);
void hm_min_max_mean_value(const float* a, unsigned long n, float& min, float& max, float& mean);
void hm_max_value_and_index(const float* a, unsigned long n, float& value, unsigned long& index);
void hm_min_value_and_index(const float* a, unsigned long n, float& value, unsigned long& index);
void hm_max_min_value_and_index(const float* a, unsigned long n, float& max, float& min, unsigned long& imax,
                                unsigned long& imin);
void hm_min_max_value_and_index(const float* a, unsigned long n, float& min, float& max, unsigned long& imin,
                                unsigned long& imax);

// ---------------------------------------------------------------------------------------------
// Peak list
// ---------------------------------------------------------------------------------------------
// Index of the largest value among places with a non-zero mask, the first of equals; n if none.
unsigned long peak_index_masked(const float* a, const int* mask, unsigned long n);
// Clears mask[index] and the downhill flanks on both sides of it. Nothing for index >= n.
void peak_make_mask(const float* a, int* mask, unsigned long n, unsigned long index);
// The indices of the count highest peaks, highest first; n for places left when none remains.
void peak_indices(const float* a, unsigned long n, unsigned long* indices, unsigned long count);

// ---------------------------------------------------------------------------------------------
// Templates: double results, each element widened to double before any arithmetic (so the
// products of thm_sum_sqr and thm_dot of float are taken in double, unlike hm_sum_sqr/hm_dot).
// For double, float, long, int, short, char and their unsigned counterparts.
// ---------------------------------------------------------------------------------------------
namespace host_stats_detail {
template <typename T>
struct is_thm_type
    : std::integral_constant<bool, std::is_same<T, double>::value || std::is_same<T, float>::value ||
                                       std::is_same<T, long>::value || std::is_same<T, int>::value ||
                                       std::is_same<T, short>::value || std::is_same<T, char>::value ||
                                       std::is_same<T, unsigned long>::value ||
                                       std::is_same<T, unsigned int>::value ||
                                       std::is_same<T, unsigned short>::value ||
                                       std::is_same<T, unsigned char>::value> {};
template <typename T>
struct is_real : std::integral_constant<bool, std::is_same<T, float>::value || std::is_same<T, double>::value> {};
}  // namespace host_stats_detail

template <typename T>
double thm_sum(const T* a, unsigned long n) {
  static_assert(host_stats_detail::is_thm_type<T>::value, "thm_sum: unsupported element type");
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) sum += static_cast<double>(a[i]);
  return sum;
}

template <typename T>
double thm_mean(const T* a, unsigned long n) {
  static_assert(host_stats_detail::is_thm_type<T>::value, "thm_mean: unsupported element type");
  return thm_sum(a, n) / static_cast<double>(n);
}

template <typename T>
double thm_sum_sqr(const T* a, unsigned long n) {
  static_assert(host_stats_detail::is_thm_type<T>::value, "thm_sum_sqr: unsupported element type");
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) {
    const double x = static_cast<double>(a[i]);
    sum += x * x;
  }
  return sum;
}

template <typename T>
double thm_dot(const T* a, const T* b, unsigned long n) {
  static_assert(host_stats_detail::is_thm_type<T>::value, "thm_dot: unsupported element type");
  double sum = 0.0;
  for (unsigned long i = 0; i < n; ++i) sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  return sum;
}

// out = a - b, each input converted to the output's type first, the difference in that type.
template <typename TO, typename TA, typename TB>
void thm_x1d_sub(TO* out, const TA* a, const TB* b, unsigned long n) {
  static_assert(host_stats_detail::is_real<TO>::value && host_stats_detail::is_real<TA>::value &&
                    host_stats_detail::is_real<TB>::value,
                "thm_x1d_sub: float or double arrays only");
  for (unsigned long i = 0; i < n; ++i) out[i] = static_cast<TO>(a[i]) - static_cast<TO>(b[i]);
}

// a -= b, b converted to a's type first.
template <typename TA, typename TB>
void thm_x1d_sub_inplace(TA* a, const TB* b, unsigned long n) {
  static_assert(host_stats_detail::is_real<TA>::value && host_stats_detail::is_real<TB>::value,
                "thm_x1d_sub_inplace: float or double arrays only");
  for (unsigned long i = 0; i < n; ++i) a[i] = a[i] - static_cast<TA>(b[i]);
}
