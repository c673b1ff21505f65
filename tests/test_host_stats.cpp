// Host statistics: edge cases and the precision rules. Expected values are worked out by hand in
// the comments or spelled out as plain expressions of the rule under test; where a rule's
// violation would show (float accumulation, summation order, double products, rounding points),
// the test also asserts that the violating result differs.
#include <gtest/gtest.h>

#include <math.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "math_utils/host_stats.h"

namespace {

// 1 + 2^-12: its exact square 1 + 2^-11 + 2^-24 is a float tie that rounds (to even) to
// 1 + 2^-11, so a square rounded to float differs from the double square.
const float kX = 0x1.001p+0f;
const double kXSquaredFloat = 0x1.002p+0;      // float(kX * kX), widened
const double kXSquaredDouble = 0x1.002001p+0;  // double(kX) * double(kX), exact
const std::string kMaskWarning = "Too small sum of mask!!";
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Each pair is what a form returned and what its rule gives, compared exactly (float results
// widen exactly); NaN wants NaN.
void expect_values(std::initializer_list<std::pair<double, double>> checks) {
  int i = 0;
  for (const auto& [got, want] : checks) {
    if (std::isnan(want)) EXPECT_TRUE(std::isnan(got)) << "check " << i;
    else EXPECT_EQ(got, want) << "check " << i;
    ++i;
  }
}

// Deterministic data that is not a constant (a small LCG, values in about -2..6).
std::vector<float> test_data(unsigned long n) {
  std::vector<float> v(n);
  std::uint32_t s = 12345u;
  for (unsigned long i = 0; i < n; ++i) {
    s = s * 1664525u + 1013904223u;
    v[i] = static_cast<float>(s >> 8) / 16777216.0f * 8.0f - 2.0f + 0.001f * static_cast<float>(i);
  }
  return v;
}

// Plain mean and population standard deviation in long double, for "within float rounding".
void expect_mean_sd(const std::vector<float>& v, double mean, double sd, double tol) {
  long double s = 0, q = 0;
  for (float x : v) s += x;
  const long double m = s / v.size();
  for (float x : v) q += (x - m) * (x - m);
  EXPECT_NEAR(static_cast<double>(m), mean, tol);
  EXPECT_NEAR(static_cast<double>(std::sqrt(q / v.size())), sd, tol);
}

// How often f printed the mask warning on standard output.
int warnings(const std::function<void()>& f, std::string* text = nullptr) {
  testing::internal::CaptureStdout();
  f();
  const std::string out = testing::internal::GetCapturedStdout();
  if (text) *text = out;
  int c = 0;
  for (size_t p = out.find(kMaskWarning); p != std::string::npos; p = out.find(kMaskWarning, p + 1)) ++c;
  return c;
}

TEST(HostStatsEdge, VarianceFamilyCovarianceAndNormsOnSmallCounts) {
  const float a[] = {1, 2, 3}, r[] = {3, 2, 1};  // deviations -1, 0, 1
  double mean = 0, sd = 0;
  hm_mean_stdv(a, 3, mean, sd);
  const std::vector<float> v = test_data(777);
  const float c[] = {-5, 1}, d[] = {-5, -7};  // the largest value, not the largest magnitude
  expect_values({{hm_variance(a, 3), 2.0 / 3.0}, {hm_svariance(a, 3), 1.0}, {hm_stdv(a, 3), std::sqrt(2.0 / 3.0)},
                 {hm_sstdv(a, 3), 1.0}, {hm_variancef(a, 3), static_cast<float>(2.0 / 3.0)},
                 {hm_svariancef(a, 3), 1.0}, {hm_sstdvf(a, 3), 1.0}, {mean, 2.0}, {sd, std::sqrt(2.0 / 3.0)},
                 // One element: the sample forms divide by 0. No element: sums 0, the rest NaN.
                 {hm_svariance(a, 1), kNaN}, {hm_sstdv(a, 1), kNaN}, {hm_svariancef(a, 1), kNaN},
                 {hm_sstdvf(a, 1), kNaN}, {hm_variance(a, 1), 0.0}, {hm_sum(a, 0), 0.0}, {hm_sum_sqr(a, 0), 0.0},
                 {hm_dot(a, a, 0), 0.0}, {hm_mean(a, 0), kNaN}, {hm_meanf(a, 0), kNaN}, {hm_variance(a, 0), kNaN},
                 {hm_stdv(a, 0), kNaN}, {hm_svariance(a, 0), kNaN}, {thm_mean(a, 0), kNaN},
                 // The covariance is a sum, not a mean.
                 {hm_covariance(a, a, 3), 2.0}, {hm_covariance(a, r, 3), -2.0}, {hm_covariancef(a, r, 3), -2.0},
                 {hm_linfi_norm(c, 2), 1.0}, {hm_linfi_normf(c, 2), 1.0}, {hm_linfi_norm(d, 2), -5.0}});
  EXPECT_DOUBLE_EQ(hm_covariance(v.data(), v.data(), v.size()), v.size() * hm_variance(v.data(), v.size()));
}

TEST(HostStatsPrecision, DoubleAccumulatorKeepsOnesBeside1e8) {
  // float accumulation loses every 1 beside 1e8 (the float spacing there is 8).
  const float a[] = {1e8f, 1, 1, 1, 1, 1}, ones[] = {1, 1, 1, 1, 1, 1}, third[] = {0, 0, 1};
  ASSERT_EQ(((((1e8f + 1.0f) + 1.0f) + 1.0f) + 1.0f) + 1.0f, 1e8f);
  const double d[] = {0.1, 0.2, 0.3};
  expect_values({{hm_sum(a, 6), 100000005.0}, {hm_sumf(a, 6), 100000008.0},  // rounded once at the end
                 {hm_mean(a, 6), 100000005.0 / 6.0}, {hm_l1_norm(a, 6), 100000005.0}, {thm_sum(a, 6), 100000005.0},
                 {hm_sqr_sum(a, 6), 100000005.0 * 100000005.0},
                 {hm_sqr_sumf(a, 6), static_cast<float>(100000005.0 * 100000005.0)},
                 // The masked float dot keeps a float accumulator; the plain one sums in double.
                 {hm_dotf_withmask(a, ones, ones, 6), 1e8}, {hm_dotf_weighted(a, ones, ones, 6), 1e8},
                 {hm_dot_withmask(a, ones, ones, 6), 100000005.0}, {hm_dotf(a, ones, 6), 100000008.0},
                 {hm_meanf(third, 3), static_cast<float>(1.0 / 3.0)}, {hm_mean(d, 3), (0.1 + 0.2 + 0.3) / 3.0}});
}

TEST(HostStatsPrecision, SumRunsFromElementZeroUpward) {
  // In order from element 0: 2^53 + 1 rounds back to 2^53 at every step. Any other order
  // (reverse, pairwise, several accumulators of a vectorised loop) keeps some of the ones.
  std::vector<float> a(64, 1.0f), ones(64, 1.0f);
  a[0] = 0x1p53f;
  double reverse = 0.0;
  for (size_t i = a.size(); i-- > 0;) reverse += a[i];
  ASSERT_NE(reverse, 0x1p53);
  const std::vector<double> d(a.begin(), a.end());
  expect_values({{hm_sum(a.data(), a.size()), 0x1p53}, {thm_sum(a.data(), a.size()), 0x1p53},
                 {hm_sum(d.data(), d.size()), 0x1p53}, {hm_sum_weighted(a.data(), ones.data(), a.size()), 0x1p53},
                 {hm_sum_check0(a.data(), a.size()), 0x1p53}});
}

TEST(HostStatsPrecision, SquaresAndProductsRoundToFloat) {
  ASSERT_NE(kXSquaredFloat, kXSquaredDouble);
  const float a[] = {kX}, one[] = {1.0f}, three[] = {3.0f};
  // The masked mean: the product rounds to 1 + 2^-11, so the mean is (1 + 2^-11) / kX, just below
  // kX; with the exact product it would be kX itself and the shift below would give 0.
  const double mu = kXSquaredFloat / double(kX);
  ASSERT_NE(mu, double(kX));
  float shifted[1];
  hm_normz_mean_withmask(shifted, a, a, 1, 0.0f);
  EXPECT_NE(shifted[0], 0.0f);
  expect_values({{hm_sum_sqr(a, 1), kXSquaredFloat}, {hm_mod(a, 1), std::sqrt(kXSquaredFloat)},
                 {hm_l2_norm(a, 1), std::sqrt(kXSquaredFloat)}, {hm_dot(a, a, 1), kXSquaredFloat},
                 {hm_sum_weighted(a, a, 1), kXSquaredFloat}, {hm_dot_withmask(a, a, one, 1), kXSquaredFloat},
                 // (a b) rounded to float, times m rounded to float: exact here; in double the 2^-24
                 // term of kX^2 would survive as 3 * 2^-24.
                 {hm_dot_withmask(a, a, three, 1), 3.0 * kXSquaredFloat},
                 {hm_dot_weighted(a, a, three, 1), 3.0 * kXSquaredFloat},
                 // The templates widen first and multiply in double.
                 {thm_sum_sqr(a, 1), kXSquaredDouble}, {thm_dot(a, a, 1), kXSquaredDouble},
                 {hm_sum_withmask(a, a, 1), kXSquaredFloat}, {hm_sumf_weighted(a, a, 1), float(kXSquaredFloat)},
                 {hm_mean_withmask(a, a, 1), mu}, {hm_meanf_withmask(a, a, 1), float(mu)},
                 {shifted[0], float(double(kX) - mu + 0.0)}});
}

TEST(HostStatsPrecision, CccNormProductInFloatSquaresInDoubleAndLpNormRootInDouble) {
  // sab = float(kX^2) = 1 + 2^-11, saa = sbb = kX^2 exact; the ratio is 1 - 0.9995 * 2^-24,
  // which rounds to the float below 1. All-float or all-double arithmetic would give 1.
  const float a[] = {kX}, p[] = {1, 2}, q[] = {2, 1}, t[] = {3, -4}, b[] = {1, -2};
  EXPECT_EQ(hm_ccc_norm(a, a, 1), std::nextafter(1.0f, 0.0f));
  EXPECT_EQ(hm_ccc_norm(p, q, 2), 0.8f);  // 4 / sqrt(5 * 5)
  // Lp terms in float, the root in double: 1 + 8 = 9, then 9^(1/3) with 1/3 in double.
  EXPECT_EQ(hm_lp_norm(t, 2, 2.0f), 5.0);
  const double v = hm_lp_norm(b, 2, 3.0f);
  EXPECT_DOUBLE_EQ(v, std::cbrt(9.0));
  EXPECT_GT(std::fabs(v - std::pow(9.0, static_cast<double>(1.0f / 3.0f))), 1e-9);
  EXPECT_EQ(hm_lp_normf(b, 2, 3.0f), static_cast<float>(std::cbrt(9.0)));
}

TEST(HostStatsPrecision, VarianceIsTwoPassWithDoubleDeviations) {
  // One pass (mean of squares minus squared mean) loses the 2/3 beside 1e12. For 0, 0, 1 (mean
  // 1/3, variance 2/9) deviations in float would be off by ~1e-8 relative.
  const float a[] = {1000001, 1000002, 1000003}, b[] = {0, 0, 1}, third = 1.0f / 3.0f, two_thirds = 2.0f / 3.0f;
  ASSERT_GT(std::fabs((2.0 * third * third + double(two_thirds) * two_thirds) / 3.0 - 2.0 / 9.0), 1e-12);
  expect_values({{hm_variance(a, 3), 2.0 / 3.0}, {hm_svariance(a, 3), 1.0}});
  EXPECT_DOUBLE_EQ(hm_variance(b, 3), 2.0 / 9.0);
}

TEST(HostStatsPrecision, StdvfAndL2NormfTakeFloatRootsOfFloatValues) {
  // 0, 2, 5: variance 38/9. sqrtf(float(38/9)) = 2.0548048 but float(sqrt(38/9)) = 2.05480456.
  const float a[] = {0, 2, 5};
  const double var = 38.0 / 9.0;
  const float float_root = std::sqrt(static_cast<float>(var)), rounded_root = static_cast<float>(std::sqrt(var));
  ASSERT_NE(float_root, rounded_root);
  // hm_mean_stdvf is not among the exceptions: its sd is the double root, rounded once.
  float mean, sd, mean2, sd2, mx, mn;
  hm_mean_stdvf(a, 3, mean, sd);
  hm_mean_stdv_max_minf(a, 3, mean2, sd2, mx, mn);
  // So do the f norms: 0.1f, 1.1f.
  const float b[] = {0x1.99999ap-4f, 0x1.19999ap+0f};
  const double sum = static_cast<double>(b[0] * b[0]) + static_cast<double>(b[1] * b[1]);
  const float sum_root = std::sqrt(static_cast<float>(sum));
  ASSERT_NE(sum_root, static_cast<float>(std::sqrt(sum)));
  expect_values({{hm_stdvf(a, 3), float_root}, {hm_variancef(a, 3), static_cast<float>(var)},
                 {hm_sstdvf(a, 3), std::sqrt(static_cast<float>(19.0 / 3.0))},  // variance 38/6
                 {mean, static_cast<float>(7.0 / 3.0)}, {sd, rounded_root}, {sd2, rounded_root}, {mx, 5.0}, {mn, 0.0},
                 {hm_l2_normf(b, 2), sum_root}, {hm_modf(b, 2), sum_root}, {hm_sum_sqrf(b, 2), static_cast<float>(sum)}});
}

TEST(HostStatsNormz, NormzIsDouble) {
  // Mean and two-pass sd in double, k in double, (x - m) k + mean in double, stored as float;
  // float arithmetic anywhere would change the last bits.
  const std::vector<float> in = test_data(1000);
  const unsigned long n = in.size();
  const float sigma = 1.5f, target_mean = 0.25f;
  double s = 0, q = 0;
  for (float x : in) s += x;
  const double m = s / n;
  for (float x : in) q += (double(x) - m) * (double(x) - m);
  const double k = double(sigma) / std::sqrt(q / n);
  std::vector<float> want(n), want_float(n), a = in, out(n);
  for (unsigned long i = 0; i < n; ++i) {
    want[i] = float((double(in[i]) - m) * k + double(target_mean));
    want_float[i] = (in[i] - float(m)) * float(k) + target_mean;
  }
  ASSERT_NE(want, want_float);
  hm_normz(out.data(), in.data(), n, sigma, target_mean);  // sigma, then the mean
  hm_normz_inplace(a.data(), n, sigma, target_mean);
  EXPECT_EQ(out, want);
  EXPECT_EQ(a, want);
  expect_mean_sd(a, target_mean, sigma, 1e-5);
  // A constant image has no scale: the values are not finite.
  float c[] = {2, 2, 2};
  hm_normz_inplace(c, 3, 1.0f, 0.0f);
  for (float x : c) EXPECT_FALSE(std::isfinite(x));
}

TEST(HostStatsNormz, MaskedFamilyWithAllOnesMask) {
  // Data 1, 2, 3, mask of ones: mu 2, sd sqrt(2/3). The applymask and weighted in-place forms
  // are checked on random data below.
  const float x[] = {1, 2, 3}, m[] = {1, 1, 1};
  const double sd = std::sqrt(2.0 / 3.0);
  auto expect_all = [&](const float* got, auto want, const char* what) {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(got[i], float(want(double(x[i])))) << what << " " << i;
  };
  const auto scaled = [&](double v) { return v * (2.0 / sd); };  // the mean stays
  float out[3], c[] = {1, 2, 3}, d[] = {1, 2, 3}, e[] = {1, 2, 3};
  hm_normz_stdv_withmask(out, x, m, 3, 2.0f);
  expect_all(out, scaled, "stdv");
  hm_normz_stdv_withmask_applymask(out, x, m, 3, 2.0f);
  expect_all(out, scaled, "stdv applymask");
  hm_normz_stdv_withmask_inplace(c, m, 3, 2.0f);
  expect_all(c, scaled, "stdv inplace");
  hm_normz_mean_withmask(out, x, m, 3, 10.0f);
  expect_all(out, [](double v) { return v - 2.0 + 10.0; }, "mean");
  hm_normz_withmask_inplace(d, m, 3, 1.0f, 0.0f);
  hm_normz_mean_withmask_inplace(e, m, 3, 1.0f, 0.0f);
  for (const float* got : {d, e}) expect_all(got, [&](double v) { return (v - 2.0) * (1.0 / sd) + 0.0; }, "normz");
}

TEST(HostStatsNormz, SoftMaskWeightsTheStatistics) {
  // Weights 0.25, 0.25 on 2 and 4: mean (0.5 + 1) / 0.5 = 3; var ((-1)^2 + 1^2) 0.25 / 0.5 = 1.
  const float x[] = {2, 4, 100, -100}, m[] = {0.25f, 0.25f, 0, 0};
  float out[4];
  std::string text;
  EXPECT_EQ(warnings([&] {
              expect_values(
                  {{hm_mean_withmask(x, m, 4), 3.0}, {hm_meanf_weighted(x, m, 4), 3.0}, {hm_sum_check0(m, 4), 0.5}});
              hm_normz_withmask(out, x, m, 4, 2.0f, 1.0f);  // (x - 3) * 2 + 1 everywhere, also outside the mask
              EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{-1, 3, 195, -205}));
              hm_normz_withmask_applymask(out, x, m, 4, 2.0f, 1.0f);
              EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{-0.25f, 0.75f, 0, 0}));
            }, &text), 0);
  EXPECT_EQ(text, "");
}

TEST(HostStatsNormz, MaskedStatisticsInDoubleOnRandomData) {
  // S and the sums in double, x m in float, (x - mu)^2 m in double, output in double stored as
  // float, then times m in float.
  const std::vector<float> x = test_data(2000);
  const unsigned long n = x.size();
  std::vector<float> m(n);
  for (size_t i = 0; i < n; ++i) m[i] = float(i % 7) / 6.0f;
  const float sigma = 1.25f, target_mean = -0.5f;
  double S = 0, sxm = 0, q = 0;
  for (unsigned long i = 0; i < n; ++i) S += m[i], sxm += double(x[i] * m[i]);
  const double mu = sxm / S;
  for (unsigned long i = 0; i < n; ++i) q += (double(x[i]) - mu) * (double(x[i]) - mu) * double(m[i]);
  const double sd = std::sqrt(q / S), k = double(sigma) / sd;
  EXPECT_EQ(hm_mean_weighted(x.data(), m.data(), n), mu);
  std::vector<float> a = x, w = x;
  hm_normz_withmask_applymask_inplace(a.data(), m.data(), n, sigma, target_mean);
  hm_normz_weighted_inplace(w.data(), m.data(), n);
  for (unsigned long i = 0; i < n; ++i) {
    ASSERT_EQ(a[i], float((double(x[i]) - mu) * k + double(target_mean)) * m[i]) << i;
    ASSERT_EQ(w[i], float((double(x[i]) - mu) / sd)) << i;
  }
}

TEST(HostStatsNormz, SmallMaskSumsWarnAndGoOn) {
  // The full report of an all-zero mask, once, and NaN values.
  float a[] = {1, 2, 3, 4}, b[] = {42.0f};
  const float zeros[] = {0, 0, 0, 0}, neg[] = {-1.0f, 0.5f}, tiny[] = {5e-7f}, big[] = {1e-6f, 1e-6f}, one_two[] = {1, 2};
  const std::string tail = ":Too small sum of mask!!\n\033[m";
  std::string out;
  EXPECT_EQ(warnings([&] { hm_normz_withmask_applymask_inplace(a, zeros, 4, 1.0f, 0.0f); }, &out), 1) << out;
  EXPECT_EQ(out.rfind("\033[43mWarning in function hm_sum_check0(), file src/math_utils on line ", 0), 0u) << out;
  EXPECT_TRUE(out.size() >= tail.size() && out.substr(out.size() - tail.size()) == tail) << out;
  for (float x : a) EXPECT_TRUE(std::isnan(x));
  // Negative, and positive below 1e-6, warn once each; 2e-6 does not. A zero-weight mean goes on
  // with the small sum (non-finite, no abort); an empty normalisation warns and touches nothing.
  EXPECT_EQ(warnings([&] { EXPECT_EQ(hm_sum_check0(neg, 2), -0.5); }), 1);
  EXPECT_EQ(warnings([&] { EXPECT_EQ(hm_sum_check0(tiny, 1), double(5e-7f)); }), 1);
  EXPECT_EQ(warnings([&] { hm_sum_check0(big, 2); }, &out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(warnings([&] { EXPECT_EQ(hm_sumf_check0(zeros, 1), 0.0f); }, &out), 1);
  EXPECT_NE(out.find("Warning in function hm_sumf_check0(), file src/math_utils on line "), std::string::npos);
  EXPECT_EQ(warnings([&] { EXPECT_TRUE(std::isnan(hm_mean_withmask(one_two, zeros, 2))); }), 1);
  EXPECT_EQ(warnings([&] { hm_normz_withmask_applymask_inplace(b, zeros, 0, 1.0f, 0.0f); }), 1);
  EXPECT_EQ(b[0], 42.0f);
}

TEST(HostStatsCcc, ZnormRemovesMeanAndScale) {
  const std::vector<float> a = test_data(500);
  std::vector<float> b(a.size()), c(a.size());
  for (size_t i = 0; i < a.size(); ++i) b[i] = 2.0f * a[i] + 3.0f, c[i] = -a[i] + 7.0f;
  const std::vector<float> a0 = a, b0 = b;
  EXPECT_NEAR(hm_ccc_znorm(a.data(), b.data(), a.size()), 1.0f, 1e-5f);
  EXPECT_NEAR(hm_ccc_znorm(a.data(), c.data(), a.size()), -1.0f, 1e-5f);
  EXPECT_TRUE(a == a0 && b == b0);  // copies were normalised, not the inputs
  EXPECT_LT(hm_ccc_norm(a.data(), b.data(), a.size()), 0.99f);  // the means matter
  std::vector<float> ai = a, bi = b;
  EXPECT_EQ(hm_ccc_znorm_inplace(ai.data(), bi.data(), ai.size()), hm_ccc_znorm(a.data(), b.data(), a.size()));
  expect_mean_sd(ai, 0.0, 1.0, 1e-6);
  expect_mean_sd(bi, 0.0, 1.0, 1e-6);
}

TEST(HostStatsElementwise, SubmeanSubtractsTheDoubleMeanRoundedToFloat) {
  // 1e8 and five ones: the mean from a double sum is 100000005 / 6, not 1e8 / 6; each element
  // then loses it in float.
  float a[] = {1e8f, 1, 1, 1, 1, 1};
  hm_submean_inplace(a, 6);
  const float m = static_cast<float>(100000005.0 / 6.0);
  EXPECT_EQ(std::vector<float>(a, a + 6), (std::vector<float>{1e8f - m, 1 - m, 1 - m, 1 - m, 1 - m, 1 - m}));
}

// Runs f(a, n, outputs...) and returns the outputs widened to double, in the order of the call.
template <class... T, class F>
std::vector<double> outs(F f, const float* a, unsigned long n) {
  std::tuple<T...> o;
  std::apply([&](T&... r) { f(a, n, r...); }, o);
  return std::apply([](T... r) { return std::vector<double>{double(r)...}; }, o);
}

TEST(HostStatsExtremes, ValuesAndIndicesInTheOrderOfTheNameMeanInDouble) {
  // Equal extremes: the first wins. 2^24 + 1 + 1 = 16777218 in double, / 3 = 5592406 exactly; a
  // float sum would stay at 2^24 and give 5592405.5. NaN is passed over unless it comes first.
  const float a[] = {2, 9, -4, 9, -4, 1}, big[] = {0x1p24f, 1, 1}, inner[] = {1, kNaN, 3, -2}, first[] = {kNaN, 1, 3};
  const double mean = float(13.0 / 6.0);
  using F = float;
  using U = unsigned long;
  const std::vector<std::pair<std::vector<double>, std::vector<double>>> checks = {
      {{hm_max_value(a, 6), hm_min_value(a, 6), double(hm_max_index(a, 6)), double(hm_min_index(a, 6))}, {9, -4, 1, 2}},
      {outs<F, F>(hm_max_min_value, a, 6), {9, -4}},
      {outs<F, F>(hm_min_max_value, a, 6), {-4, 9}},
      {outs<U, U>(hm_max_min_index, a, 6), {1, 2}},
      {outs<U, U>(hm_min_max_index, a, 6), {2, 1}},
      {outs<F, F, F>(hm_max_min_mean_value, a, 6), {9, -4, mean}},
      {outs<F, F, F>(hm_min_max_mean, a, 6), {-4, 9, mean}},
      {outs<F, U>(hm_max_value_and_index, a, 6), {9, 1}},
      {outs<F, U>(hm_min_value_and_index, a, 6), {-4, 2}},
      {outs<F, F, U, U>(hm_max_min_value_and_index, a, 6), {9, -4, 1, 2}},
      {outs<F, F, U, U>(hm_min_max_value_and_index, a, 6), {-4, 9, 2, 1}},
      // No element gives index 0; one element is max, min and mean.
      {{double(hm_max_index(a, 0)), double(hm_min_index(a, 0))}, {0, 0}},
      {outs<U, U>(hm_max_min_index, a, 0), {0, 0}},
      {outs<F, F, F>(hm_max_min_mean, a + 1, 1), {9, 9, 9}},
      {outs<F, F, F>(hm_max_min_mean, big, 3), {0x1p24, 1, 5592406}},
      {outs<F, F, F>(hm_min_max_mean_value, big, 3), {1, 0x1p24, 5592406}},
      {{outs<F, F, F>(hm_max_min_mean, inner, 4)[0], outs<F, F, F>(hm_max_min_mean, inner, 4)[1]}, {3, -2}},
      {{double(hm_max_index(inner, 4)), double(hm_max_index(first, 3))}, {2, 0}},
  };
  for (size_t k = 0; k < checks.size(); ++k) EXPECT_EQ(checks[k].first, checks[k].second) << "check " << k;
  const std::vector<double> in = outs<F, F, F>(hm_max_min_mean, inner, 4), fi = outs<F, F, F>(hm_max_min_mean, first, 3);
  EXPECT_TRUE(std::isnan(in[2]) && std::isnan(fi[0]) && std::isnan(fi[1]));
}

}  // namespace
