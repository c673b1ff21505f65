// Host statistics (Part 6.5): the edge cases of the spec and its precision rules.
//
// Expected values are worked out by hand in the comments or spelled out here as plain
// expressions of the rule under test; none comes from the code under test. Where a rule's
// violation would show (float accumulation, summation order, double products, rounding
// points), the test also asserts that the violating result differs, so the test has teeth.
#include <gtest/gtest.h>

#include <math.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "math_utils/host_stats.h"

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// 1 + 2^-12: its exact square 1 + 2^-11 + 2^-24 is a float tie that rounds (to even) to
// 1 + 2^-11, so a square rounded to float differs from the double square.
const float kX = 0x1.001p+0f;
const double kXSquaredFloat = 0x1.002p+0;          // float(kX * kX), widened
const double kXSquaredDouble = 0x1.002001p+0;      // double(kX) * double(kX), exact

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
void plain_mean_sd(const std::vector<float>& v, long double& mean, long double& sd) {
  long double s = 0;
  for (float x : v) s += x;
  mean = s / v.size();
  long double q = 0;
  for (float x : v) q += (x - mean) * (x - mean);
  sd = std::sqrt(q / v.size());
}

std::string captured_warning_text() {
  return "\033[43mWarning in function hm_sum_check0(), file src/math_utils on line ";
}

int count_of(const std::string& text, const std::string& what) {
  int c = 0;
  for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++c;
  return c;
}

// ---------------------------------------------------------------------------------------------
// Edge cases listed by the spec
// ---------------------------------------------------------------------------------------------
TEST(HostStatsEdge, VarianceOfOneTwoThree) {
  const float a[] = {1, 2, 3};
  EXPECT_EQ(hm_variance(a, 3), 2.0 / 3.0);  // deviations -1, 0, 1: 2 / 3
  EXPECT_EQ(hm_svariance(a, 3), 1.0);       // 2 / 2
  EXPECT_EQ(hm_stdv(a, 3), std::sqrt(2.0 / 3.0));
  EXPECT_EQ(hm_sstdv(a, 3), 1.0);
  EXPECT_EQ(hm_variancef(a, 3), static_cast<float>(2.0 / 3.0));
  EXPECT_EQ(hm_svariancef(a, 3), 1.0f);
  EXPECT_EQ(hm_sstdvf(a, 3), 1.0f);
  double mean = 0, sd = 0;
  hm_mean_stdv(a, 3, mean, sd);
  EXPECT_EQ(mean, 2.0);
  EXPECT_EQ(sd, std::sqrt(2.0 / 3.0));
}

TEST(HostStatsEdge, SVarianceOfOneElementIsNaN) {
  const float a[] = {4.5f};
  EXPECT_TRUE(std::isnan(hm_svariance(a, 1)));
  EXPECT_TRUE(std::isnan(hm_sstdv(a, 1)));
  EXPECT_TRUE(std::isnan(hm_svariancef(a, 1)));
  EXPECT_TRUE(std::isnan(hm_sstdvf(a, 1)));
  EXPECT_EQ(hm_variance(a, 1), 0.0);
}

TEST(HostStatsEdge, ZeroCountGivesZeroSumAndNaNMeanAndDeviation) {
  const float a[] = {1.0f};
  EXPECT_EQ(hm_sum(a, 0), 0.0);
  EXPECT_EQ(hm_sum_sqr(a, 0), 0.0);
  EXPECT_EQ(hm_dot(a, a, 0), 0.0);
  EXPECT_TRUE(std::isnan(hm_mean(a, 0)));
  EXPECT_TRUE(std::isnan(hm_meanf(a, 0)));
  EXPECT_TRUE(std::isnan(hm_variance(a, 0)));
  EXPECT_TRUE(std::isnan(hm_stdv(a, 0)));
  EXPECT_TRUE(std::isnan(hm_svariance(a, 0)));
  EXPECT_TRUE(std::isnan(thm_mean(a, 0)));
}

TEST(HostStatsEdge, NormzGivesMeanZeroSdOne) {
  std::vector<float> v = test_data(4096);
  hm_normz_inplace(v.data(), v.size(), 1.0f, 0.0f);
  long double mean, sd;
  plain_mean_sd(v, mean, sd);
  EXPECT_NEAR(static_cast<double>(mean), 0.0, 1e-6);
  EXPECT_NEAR(static_cast<double>(sd), 1.0, 1e-6);
}

TEST(HostStatsEdge, NormzArgumentsAreSigmaThenMean) {
  std::vector<float> in = test_data(1000), out(in.size());
  const std::vector<float> copy = in;
  hm_normz(out.data(), in.data(), in.size(), 2.0f, 5.0f);
  EXPECT_EQ(in, copy);  // input untouched
  long double mean, sd;
  plain_mean_sd(out, mean, sd);
  EXPECT_NEAR(static_cast<double>(mean), 5.0, 1e-5);
  EXPECT_NEAR(static_cast<double>(sd), 2.0, 1e-5);
  hm_normz_inplace(in.data(), in.size(), 2.0f, 5.0f);
  EXPECT_EQ(in, out);
}

TEST(HostStatsEdge, InvertIsTheSign) {
  float a[] = {2.0f, -0.5f, 0.0f};
  float out[3];
  hm_invert(out, a, 3);
  EXPECT_EQ(out[0], -2.0f);
  EXPECT_EQ(out[1], 0.5f);
  hm_invert_inplace(a, 3);
  EXPECT_EQ(a[0], -2.0f);
  EXPECT_EQ(a[1], 0.5f);
  EXPECT_TRUE(std::signbit(a[2]));
}

TEST(HostStatsEdge, MaxIndexKeepsTheFirstOfEquals) {
  const float a[] = {1, 3, 3};
  EXPECT_EQ(hm_max_index(a, 3), 1ul);
  const float b[] = {3, 1, 1};
  EXPECT_EQ(hm_min_index(b, 3), 1ul);
  EXPECT_EQ(hm_max_index(a, 0), 0ul);
  EXPECT_EQ(hm_min_index(a, 0), 0ul);
  unsigned long imax = 9, imin = 9;
  hm_max_min_index(a, 0, imax, imin);
  EXPECT_EQ(imax, 0ul);
  EXPECT_EQ(imin, 0ul);
}

TEST(HostStatsEdge, MaxMinMeanOfOneElement) {
  const float a[] = {7.25f};
  float mx = 0, mn = 0, mean = 0;
  hm_max_min_mean(a, 1, mx, mn, mean);
  EXPECT_EQ(mx, 7.25f);
  EXPECT_EQ(mn, 7.25f);
  EXPECT_EQ(mean, 7.25f);
}

TEST(HostStatsEdge, AllZeroMaskWarnsOnceAndGivesNaN) {
  float a[] = {1, 2, 3, 4};
  const float m[] = {0, 0, 0, 0};
  testing::internal::CaptureStdout();
  hm_normz_withmask_applymask_inplace(a, m, 4, 1.0f, 0.0f);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(out, "Too small sum of mask!!"), 1) << out;
  EXPECT_EQ(out.rfind(captured_warning_text(), 0), 0u) << out;
  const std::string tail = ":Too small sum of mask!!\n\033[m";
  ASSERT_GE(out.size(), tail.size());
  EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
  for (float x : a) EXPECT_TRUE(std::isnan(x));
}

TEST(HostStatsEdge, MaskSumOfHalfGivesCorrectMeanWithoutWarning) {
  // Weights 0.25, 0.25 on 2 and 4: mean (0.5 + 1) / 0.5 = 3; var ((-1)^2 + 1^2) 0.25 / 0.5 = 1.
  const float x[] = {2, 4, 100, -100};
  const float m[] = {0.25f, 0.25f, 0, 0};
  testing::internal::CaptureStdout();
  EXPECT_EQ(hm_mean_withmask(x, m, 4), 3.0);
  EXPECT_EQ(hm_meanf_weighted(x, m, 4), 3.0f);
  EXPECT_EQ(hm_sum_check0(m, 4), 0.5);
  float out[4];
  // (x - 3) * 2 + 1 everywhere, also outside the mask.
  hm_normz_withmask(out, x, m, 4, 2.0f, 1.0f);
  EXPECT_EQ(out[0], -1.0f);
  EXPECT_EQ(out[1], 3.0f);
  EXPECT_EQ(out[2], 195.0f);
  EXPECT_EQ(out[3], -205.0f);
  hm_normz_withmask_applymask(out, x, m, 4, 2.0f, 1.0f);
  EXPECT_EQ(out[0], -0.25f);
  EXPECT_EQ(out[1], 0.75f);
  EXPECT_EQ(out[2], 0.0f);
  EXPECT_EQ(out[3], 0.0f);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(HostStatsEdge, LinfiNormTakesNoAbsoluteValue) {
  const float a[] = {-5, 1};
  EXPECT_EQ(hm_linfi_norm(a, 2), 1.0);
  EXPECT_EQ(hm_linfi_normf(a, 2), 1.0f);
  const float b[] = {-5, -7};
  EXPECT_EQ(hm_linfi_norm(b, 2), -5.0);
}

TEST(HostStatsEdge, PeakIndicesHighestFirst) {
  const float a[] = {0, 1, 0, 2, 0};
  unsigned long idx[2] = {99, 99};
  peak_indices(a, 5, idx, 2);
  EXPECT_EQ(idx[0], 3ul);
  EXPECT_EQ(idx[1], 1ul);
  // Peak 3 clears 2..4, peak 1 clears 0..2: nothing is left for the third and fourth.
  unsigned long more[4] = {99, 99, 99, 99};
  peak_indices(a, 5, more, 4);
  EXPECT_EQ(more[0], 3ul);
  EXPECT_EQ(more[1], 1ul);
  EXPECT_EQ(more[2], 5ul);
  EXPECT_EQ(more[3], 5ul);
}

TEST(HostStatsEdge, CovarianceWithItselfIsNTimesVariance) {
  const std::vector<float> v = test_data(777);
  EXPECT_DOUBLE_EQ(hm_covariance(v.data(), v.data(), v.size()), v.size() * hm_variance(v.data(), v.size()));
  const float a[] = {1, 2, 3}, b[] = {3, 2, 1};
  EXPECT_EQ(hm_covariance(a, a, 3), 2.0);  // a sum, not divided by n
  EXPECT_EQ(hm_covariance(a, b, 3), -2.0);
  EXPECT_EQ(hm_covariancef(a, b, 3), -2.0f);
}

// ---------------------------------------------------------------------------------------------
// Accumulation: one double accumulator, element 0 upward
// ---------------------------------------------------------------------------------------------
TEST(HostStatsPrecision, DoubleAccumulatorKeepsOnesBeside1e8) {
  // float accumulation loses every 1 beside 1e8 (the float spacing there is 8).
  const float a[] = {1e8f, 1, 1, 1, 1, 1};
  float float_sum = 0.0f;
  for (float x : a) float_sum += x;
  ASSERT_EQ(float_sum, 1e8f);
  EXPECT_EQ(hm_sum(a, 6), 100000005.0);
  // The f form rounds once at the end: 100000005 -> 100000008 (nearest float).
  EXPECT_EQ(hm_sumf(a, 6), 100000008.0f);
  EXPECT_EQ(hm_mean(a, 6), 100000005.0 / 6.0);
  EXPECT_EQ(hm_l1_norm(a, 6), 100000005.0);
  EXPECT_EQ(thm_sum(a, 6), 100000005.0);
}

TEST(HostStatsPrecision, SumRunsFromElementZeroUpward) {
  // In order from element 0: 2^53 + 1 rounds back to 2^53 at every step. Any other order
  // (reverse, pairwise, several accumulators of a vectorised loop) keeps some of the ones.
  std::vector<float> a(64, 1.0f);
  a[0] = 0x1p53f;
  EXPECT_EQ(hm_sum(a.data(), a.size()), 0x1p53);
  EXPECT_EQ(thm_sum(a.data(), a.size()), 0x1p53);
  double reverse = 0.0;
  for (size_t i = a.size(); i-- > 0;) reverse += a[i];
  ASSERT_NE(reverse, 0x1p53);
  std::vector<double> d(a.begin(), a.end());
  EXPECT_EQ(hm_sum(d.data(), d.size()), 0x1p53);
  std::vector<float> ones(64, 1.0f);
  EXPECT_EQ(hm_sum_weighted(a.data(), ones.data(), a.size()), 0x1p53);
  EXPECT_EQ(hm_sum_check0(a.data(), a.size()), 0x1p53);
}

TEST(HostStatsPrecision, MaxMinMeanSumsInDouble) {
  // 2^24 + 1 + 1 = 16777218 in double, / 3 = 5592406 exactly. A float sum would stay at 2^24
  // and give 5592405.5.
  const float a[] = {0x1p24f, 1, 1};
  float mx, mn, mean;
  hm_max_min_mean(a, 3, mx, mn, mean);
  EXPECT_EQ(mx, 0x1p24f);
  EXPECT_EQ(mn, 1.0f);
  EXPECT_EQ(mean, 5592406.0f);
  hm_min_max_mean_value(a, 3, mn, mx, mean);
  EXPECT_EQ(mx, 0x1p24f);
  EXPECT_EQ(mn, 1.0f);
  EXPECT_EQ(mean, 5592406.0f);
}

// ---------------------------------------------------------------------------------------------
// Products rounded to float before widening
// ---------------------------------------------------------------------------------------------
TEST(HostStatsPrecision, SumSqrRoundsEachSquareToFloat) {
  ASSERT_NE(kXSquaredFloat, kXSquaredDouble);
  const float a[] = {kX};
  EXPECT_EQ(hm_sum_sqr(a, 1), kXSquaredFloat);
  EXPECT_EQ(hm_mod(a, 1), std::sqrt(kXSquaredFloat));
  EXPECT_EQ(hm_l2_norm(a, 1), std::sqrt(kXSquaredFloat));
  EXPECT_EQ(hm_dot(a, a, 1), kXSquaredFloat);
  EXPECT_EQ(hm_sum_weighted(a, a, 1), kXSquaredFloat);
  const float one[] = {1.0f};
  EXPECT_EQ(hm_dot_withmask(a, a, one, 1), kXSquaredFloat);
  // The templates widen first and multiply in double.
  EXPECT_EQ(thm_sum_sqr(a, 1), kXSquaredDouble);
  EXPECT_EQ(thm_dot(a, a, 1), kXSquaredDouble);
}

TEST(HostStatsPrecision, DotWithMaskRoundsTheTripleProductInFloat) {
  // (a b) rounded to float, times m rounded to float: kX * kX -> 1 + 2^-11, times 3 -> exact.
  // In double the 2^-24 term would survive as 3 * 2^-24.
  const float a[] = {kX}, m[] = {3.0f};
  EXPECT_EQ(hm_dot_withmask(a, a, m, 1), 3.0 * kXSquaredFloat);
  EXPECT_EQ(hm_dot_weighted(a, a, m, 1), 3.0 * kXSquaredFloat);
}

TEST(HostStatsPrecision, MaskedMeanRoundsTheProductToFloat) {
  // x = m = kX: the product rounds to 1 + 2^-11, so the masked mean is (1 + 2^-11) / kX, just
  // below kX; with the exact product it would be kX itself and the shift below would give 0.
  const float x[] = {kX}, m[] = {kX};
  const double mu = kXSquaredFloat / double(kX);
  ASSERT_NE(mu, double(kX));
  EXPECT_EQ(hm_sum_withmask(x, m, 1), kXSquaredFloat);
  EXPECT_EQ(hm_sumf_weighted(x, m, 1), float(kXSquaredFloat));
  EXPECT_EQ(hm_mean_withmask(x, m, 1), mu);
  EXPECT_EQ(hm_meanf_withmask(x, m, 1), float(mu));
  float out[1];
  hm_normz_mean_withmask(out, x, m, 1, 0.0f);
  EXPECT_EQ(out[0], float(double(kX) - mu + 0.0));
  EXPECT_NE(out[0], 0.0f);
}

TEST(HostStatsPrecision, DotfWithMaskIsWhollyFloat) {
  const float a[] = {1e8f, 1, 1, 1, 1, 1};
  const float b[] = {1, 1, 1, 1, 1, 1};
  EXPECT_EQ(hm_dotf_withmask(a, b, b, 6), 1e8f);  // the float accumulator loses the ones
  EXPECT_EQ(hm_dotf_weighted(a, b, b, 6), 1e8f);
  EXPECT_EQ(hm_dot_withmask(a, b, b, 6), 100000005.0);
  EXPECT_EQ(hm_dotf(a, b, 6), 100000008.0f);  // double sum, rounded once
}

TEST(HostStatsPrecision, CccNormProductInFloatSquaresInDouble) {
  // sab = float(kX^2) = 1 + 2^-11, saa = sbb = kX^2 exact; the ratio is 1 - 0.9995 * 2^-24,
  // which rounds to the float below 1. All-float or all-double arithmetic would give 1.
  const float a[] = {kX};
  const float expected = std::nextafter(1.0f, 0.0f);
  EXPECT_EQ(hm_ccc_norm(a, a, 1), expected);
  EXPECT_EQ(static_cast<float>(kXSquaredFloat / std::sqrt(kXSquaredDouble * kXSquaredDouble)), expected);
}

TEST(HostStatsPrecision, LpNormTermsInFloatRootInDouble) {
  const float a[] = {3, -4};
  EXPECT_EQ(hm_lp_norm(a, 2, 2.0f), 5.0);
  const float b[] = {1, -2};
  // 1 + 8 = 9, then 9^(1/3) with 1/3 in double.
  const double v = hm_lp_norm(b, 2, 3.0f);
  EXPECT_DOUBLE_EQ(v, std::cbrt(9.0));
  EXPECT_GT(std::fabs(v - std::pow(9.0, static_cast<double>(1.0f / 3.0f))), 1e-9);
  EXPECT_EQ(hm_lp_normf(b, 2, 3.0f), static_cast<float>(std::cbrt(9.0)));
}

// ---------------------------------------------------------------------------------------------
// Deviations, two-pass deviation, rounding points
// ---------------------------------------------------------------------------------------------
TEST(HostStatsPrecision, TwoPassVarianceSurvivesAnOffset) {
  // One pass (mean of squares minus squared mean) loses the 2/3 beside 1e12.
  const float a[] = {1000001, 1000002, 1000003};
  EXPECT_EQ(hm_variance(a, 3), 2.0 / 3.0);
  EXPECT_EQ(hm_svariance(a, 3), 1.0);
}

TEST(HostStatsPrecision, DeviationsInDouble) {
  // 0, 0, 1: mean 1/3, variance 2/9. Deviations in float would be off by ~1e-8 relative.
  const float a[] = {0, 0, 1};
  EXPECT_DOUBLE_EQ(hm_variance(a, 3), 2.0 / 9.0);
  const float third = 1.0f / 3.0f, two_thirds = 2.0f / 3.0f;
  const double float_devs = (2.0 * third * third + double(two_thirds) * two_thirds) / 3.0;
  EXPECT_GT(std::fabs(float_devs - 2.0 / 9.0), 1e-12);
}

TEST(HostStatsPrecision, StdvfTakesFloatRootOfFloatVariance) {
  // 0, 2, 5: variance 38/9. sqrtf(float(38/9)) = 2.0548048 but float(sqrt(38/9)) = 2.05480456.
  const float a[] = {0, 2, 5};
  const double var = 38.0 / 9.0;
  const float float_root = std::sqrt(static_cast<float>(var));
  const float rounded_root = static_cast<float>(std::sqrt(var));
  ASSERT_NE(float_root, rounded_root);
  EXPECT_EQ(hm_stdvf(a, 3), float_root);
  EXPECT_EQ(hm_variancef(a, 3), static_cast<float>(var));
  // hm_mean_stdvf is not among the exceptions: its sd is the double root, rounded once.
  float mean, sd;
  hm_mean_stdvf(a, 3, mean, sd);
  EXPECT_EQ(mean, static_cast<float>(7.0 / 3.0));
  EXPECT_EQ(sd, rounded_root);
  float mx, mn;
  hm_mean_stdv_max_minf(a, 3, mean, sd, mx, mn);
  EXPECT_EQ(sd, rounded_root);
  EXPECT_EQ(mx, 5.0f);
  EXPECT_EQ(mn, 0.0f);
  // sstdvf: variance 38/6 = 19/3.
  EXPECT_EQ(hm_sstdvf(a, 3), std::sqrt(static_cast<float>(19.0 / 3.0)));
}

TEST(HostStatsPrecision, L2NormfTakesFloatRootOfFloatSum) {
  const float a[] = {0x1.99999ap-4f, 0x1.19999ap+0f};  // 0.1f, 1.1f
  const float s0 = a[0] * a[0], s1 = a[1] * a[1];
  const double sum = static_cast<double>(s0) + static_cast<double>(s1);
  const float float_root = std::sqrt(static_cast<float>(sum));
  ASSERT_NE(float_root, static_cast<float>(std::sqrt(sum)));
  EXPECT_EQ(hm_l2_normf(a, 2), float_root);
  EXPECT_EQ(hm_modf(a, 2), float_root);
  EXPECT_EQ(hm_sum_sqrf(a, 2), static_cast<float>(sum));
}

TEST(HostStatsPrecision, SqrSumIsTheSquareOfTheDoubleSum) {
  const float a[] = {1e8f, 1, 1, 1, 1, 1};
  EXPECT_EQ(hm_sqr_sum(a, 6), 100000005.0 * 100000005.0);
  EXPECT_EQ(hm_sqr_sumf(a, 6), static_cast<float>(100000005.0 * 100000005.0));
}

TEST(HostStatsPrecision, MeanFormsRoundOnce) {
  const float a[] = {0, 0, 1};
  EXPECT_EQ(hm_mean(a, 3), 1.0 / 3.0);
  EXPECT_EQ(hm_meanf(a, 3), static_cast<float>(1.0 / 3.0));
  const double d[] = {0.1, 0.2, 0.3};
  EXPECT_EQ(hm_mean(d, 3), (0.1 + 0.2 + 0.3) / 3.0);
}

// ---------------------------------------------------------------------------------------------
// Normalisation: hm_normz in double, cpu_znorm in float
// ---------------------------------------------------------------------------------------------
TEST(HostStatsPrecision, NormzIsDoubleAndCpuZnormIsFloat) {
  const std::vector<float> in = test_data(1000);
  const unsigned long n = in.size();
  const float sigma = 1.5f, target_mean = 0.25f;

  // hm_normz: mean and two-pass sd in double, k in double, (x - m) k + mean in double.
  double s = 0;
  for (float x : in) s += x;
  const double m = s / n;
  double q = 0;
  for (float x : in) q += (double(x) - m) * (double(x) - m);
  const double k = double(sigma) / std::sqrt(q / n);
  std::vector<float> want_double(n);
  for (unsigned long i = 0; i < n; ++i) want_double[i] = float((double(in[i]) - m) * k + double(target_mean));

  // cpu_znorm: m rounded to float and subtracted in float, squares in float summed in double,
  // sd and k in float, x k + mean in float.
  const float mf = float(m);
  std::vector<float> centred(n);
  for (unsigned long i = 0; i < n; ++i) centred[i] = in[i] - mf;
  double q2 = 0;
  for (float c : centred) q2 += double(c * c);
  const float sdf = float(std::sqrt(q2 / n));
  const float kf = sigma / sdf;
  std::vector<float> want_float(n);
  for (unsigned long i = 0; i < n; ++i) {
    const float scaled = centred[i] * kf;
    want_float[i] = scaled + target_mean;
  }

  std::vector<float> a = in, b = in;
  hm_normz_inplace(a.data(), n, sigma, target_mean);
  cpu_znorm_inplace(b.data(), n, sigma, target_mean);
  EXPECT_EQ(a, want_double);
  EXPECT_EQ(b, want_float);
  int differ = 0;
  for (unsigned long i = 0; i < n; ++i) {
    EXPECT_NEAR(a[i], b[i], 1e-5f);
    differ += a[i] != b[i];
  }
  EXPECT_GT(differ, 0) << "the two normalisations should differ in the last bits";
}

TEST(HostStatsNormz, ConstantImageGivesNonFiniteValues) {
  float a[] = {2, 2, 2};
  hm_normz_inplace(a, 3, 1.0f, 0.0f);
  for (float x : a) EXPECT_FALSE(std::isfinite(x));
}

TEST(HostStatsNormz, MaskedFamilyWithAllOnesMask) {
  // Data 1, 2, 3, mask of ones: mu 2, var 2/3, sd sqrt(2/3).
  const float x[] = {1, 2, 3};
  const float m[] = {1, 1, 1};
  const double sd = std::sqrt(2.0 / 3.0);
  float out[3];

  hm_normz_stdv_withmask(out, x, m, 3, 2.0f);  // x * (2 / sd), the mean stays
  for (int i = 0; i < 3; ++i) EXPECT_EQ(out[i], float(double(x[i]) * (2.0 / sd)));
  hm_normz_stdv_withmask_applymask(out, x, m, 3, 2.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(out[i], float(double(x[i]) * (2.0 / sd)));
  float c[] = {1, 2, 3};
  hm_normz_stdv_withmask_inplace(c, m, 3, 2.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(c[i], float(double(x[i]) * (2.0 / sd)));

  hm_normz_mean_withmask(out, x, m, 3, 10.0f);  // x - 2 + 10
  EXPECT_EQ(out[0], 9.0f);
  EXPECT_EQ(out[1], 10.0f);
  EXPECT_EQ(out[2], 11.0f);

  float w[] = {1, 2, 3};
  hm_normz_weighted_inplace(w, m, 3);  // (x - 2) / sd
  EXPECT_EQ(w[0], float(-1.0 / sd));
  EXPECT_EQ(w[1], 0.0f);
  EXPECT_EQ(w[2], float(1.0 / sd));

  float p[] = {1, 2, 3}, r[] = {1, 2, 3}, t[] = {1, 2, 3};
  hm_normz_withmask_inplace(p, m, 3, 1.0f, 0.0f);
  hm_normz_mean_withmask_inplace(r, m, 3, 1.0f, 0.0f);
  hm_normz_withmask_applymask_inplace(t, m, 3, 1.0f, 0.0f);
  for (int i = 0; i < 3; ++i) {
    const float want = float((double(x[i]) - 2.0) * (1.0 / sd) + 0.0);
    EXPECT_EQ(p[i], want);
    EXPECT_EQ(r[i], want);
    EXPECT_EQ(t[i], want);
  }
}

TEST(HostStatsNormz, SoftMaskWeightsTheStatistics) {
  // Weights 1, 0.5, 0: S 1.5, mu (2 + 4 * 0.5) / 1.5 = 8/3,
  // var ((2 - 8/3)^2 + (4 - 8/3)^2 0.5) / 1.5 = (4/9 + 8/9) / 1.5 = 8/9.
  const float x[] = {2, 4, 50};
  const float m[] = {1, 0.5f, 0};
  float out[3];
  hm_normz_withmask_applymask(out, x, m, 3, 1.0f, 0.0f);
  const double mu = 8.0 / 3.0, sd = std::sqrt(8.0 / 9.0);
  EXPECT_NEAR(out[0], (2 - mu) / sd, 1e-6);
  EXPECT_NEAR(out[1], (4 - mu) / sd * 0.5, 1e-6);
  EXPECT_EQ(out[2], 0.0f);
  EXPECT_NEAR(hm_mean_weighted(x, m, 3), mu, 1e-15);
}

TEST(HostStatsNormz, MaskedStatisticsInDoubleOnRandomData) {
  // The rules spelled out on 2000 values with a soft mask: S and the sums in double, x m in
  // float, (x - mu)^2 m in double, output in double stored as float, then times m in float.
  const std::vector<float> x = test_data(2000);
  std::vector<float> m(x.size());
  for (size_t i = 0; i < m.size(); ++i) m[i] = float(i % 7) / 6.0f;
  const unsigned long n = x.size();
  const float sigma = 1.25f, target_mean = -0.5f;
  double S = 0, sxm = 0;
  for (unsigned long i = 0; i < n; ++i) S += m[i];
  for (unsigned long i = 0; i < n; ++i) sxm += double(x[i] * m[i]);
  const double mu = sxm / S;
  double q = 0;
  for (unsigned long i = 0; i < n; ++i) q += (double(x[i]) - mu) * (double(x[i]) - mu) * double(m[i]);
  const double sd = std::sqrt(q / S);
  const double k = double(sigma) / sd;

  std::vector<float> a = x;
  hm_normz_withmask_applymask_inplace(a.data(), m.data(), n, sigma, target_mean);
  for (unsigned long i = 0; i < n; ++i) {
    const float v = float((double(x[i]) - mu) * k + double(target_mean));
    ASSERT_EQ(a[i], v * m[i]) << i;
  }
  // (x - mu) / sd.
  std::vector<float> w = x;
  hm_normz_weighted_inplace(w.data(), m.data(), n);
  for (unsigned long i = 0; i < n; ++i) ASSERT_EQ(w[i], float((double(x[i]) - mu) / sd)) << i;
}

TEST(HostStatsNormz, MaskCheckThreshold) {
  const float neg[] = {-1.0f, 0.5f};
  testing::internal::CaptureStdout();
  EXPECT_EQ(hm_sum_check0(neg, 2), -0.5);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(out, "Too small sum of mask!!"), 1) << out;

  const float tiny[] = {5e-7f};  // positive but below 1e-6
  testing::internal::CaptureStdout();
  EXPECT_EQ(hm_sum_check0(tiny, 1), double(5e-7f));
  out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(out, "Too small sum of mask!!"), 1) << out;

  const float big[] = {1e-6f, 1e-6f};  // above the threshold
  testing::internal::CaptureStdout();
  hm_sum_check0(big, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  const float zero[] = {0.0f};
  testing::internal::CaptureStdout();
  EXPECT_EQ(hm_sumf_check0(zero, 1), 0.0f);
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("Warning in function hm_sumf_check0(), file src/math_utils on line "), std::string::npos)
      << out;
  EXPECT_NE(out.find(":Too small sum of mask!!\n\033[m"), std::string::npos) << out;

  // A zero-weight mean goes on with the small sum: non-finite, no abort.
  const float x[] = {1, 2};
  const float m[] = {0, 0};
  testing::internal::CaptureStdout();
  EXPECT_TRUE(std::isnan(hm_mean_withmask(x, m, 2)));
  out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(out, "Too small sum of mask!!"), 1) << out;
}

TEST(HostStatsNormz, EmptyMaskedNormalisationWarnsAndDoesNothingElse) {
  float a[] = {42.0f};
  const float m[] = {1.0f};
  testing::internal::CaptureStdout();
  hm_normz_withmask_applymask_inplace(a, m, 0, 1.0f, 0.0f);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(out, "Too small sum of mask!!"), 1);
  EXPECT_EQ(a[0], 42.0f);
}

// ---------------------------------------------------------------------------------------------
// Running moments
// ---------------------------------------------------------------------------------------------
TEST(HostStatsMoments, UpdateByOneMoreFollowsTheSamples) {
  // 1, 2, 3 has mean 2 and sd sqrt(2/3); with 4 added: mean 2.5, sd sqrt(1.25).
  float mean = 2.0f, sd = static_cast<float>(std::sqrt(2.0 / 3.0));
  const float r = hm_update_mean_stdv_by_one_more(mean, sd, 3, 4.0f);
  EXPECT_EQ(r, 2.5f);
  EXPECT_EQ(mean, 2.5f);
  EXPECT_NEAR(sd, std::sqrt(1.25), 1e-6);
}

TEST(HostStatsMoments, UpdateByOneMoreSumsInFloat) {
  // mean 1 + 0.001 (float), n 2, x 0.1f: the float sum mean n + x rounds so that the new mean
  // is 0.700666666 where a double sum would give 0.700666726.
  const float mean0 = 0x1.00418ap+0f, x = 0.1f, sd0 = 0.5f;
  const unsigned long n = 2;
  const float fsum = mean0 * 2.0f + x;
  const double want_mean = double(fsum) / 3.0;
  ASSERT_NE(float(want_mean), float((double(mean0) * 2.0 + double(x)) / 3.0));
  const float sd2 = sd0 * sd0, m2 = mean0 * mean0, xx = x * x;
  const float fsum2 = (sd2 + m2) * 2.0f + xx;
  const double want_sd = std::sqrt(double(fsum2) / 3.0 - want_mean * want_mean);

  float mean = mean0, sd = sd0;
  const float r = hm_update_mean_stdv_by_one_more(mean, sd, n, x);
  EXPECT_EQ(mean, float(want_mean));
  EXPECT_EQ(r, mean);
  EXPECT_EQ(sd, float(want_sd));
}

// ---------------------------------------------------------------------------------------------
// Correlation coefficients
// ---------------------------------------------------------------------------------------------
TEST(HostStatsCcc, ZnormRemovesMeanAndScale) {
  const std::vector<float> a = test_data(500);
  std::vector<float> b(a.size()), c(a.size());
  for (size_t i = 0; i < a.size(); ++i) {
    b[i] = 2.0f * a[i] + 3.0f;
    c[i] = -a[i] + 7.0f;
  }
  const std::vector<float> a0 = a, b0 = b;
  EXPECT_NEAR(hm_ccc_znorm(a.data(), b.data(), a.size()), 1.0f, 1e-5f);
  EXPECT_NEAR(hm_ccc_znorm(a.data(), c.data(), a.size()), -1.0f, 1e-5f);
  EXPECT_EQ(a, a0);  // copies were normalised, not the inputs
  EXPECT_EQ(b, b0);
  // Without removing the means the plain ccc of a and b is below 1.
  EXPECT_LT(hm_ccc_norm(a.data(), b.data(), a.size()), 0.99f);

  std::vector<float> ai = a, bi = b;
  const float r = hm_ccc_znorm_inplace(ai.data(), bi.data(), ai.size());
  EXPECT_EQ(r, hm_ccc_znorm(a.data(), b.data(), a.size()));
  long double mean, sd;
  plain_mean_sd(ai, mean, sd);
  EXPECT_NEAR(double(mean), 0.0, 1e-6);
  EXPECT_NEAR(double(sd), 1.0, 1e-6);
  plain_mean_sd(bi, mean, sd);
  EXPECT_NEAR(double(mean), 0.0, 1e-6);
  EXPECT_NEAR(double(sd), 1.0, 1e-6);
}

TEST(HostStatsCcc, NormByHand) {
  // a = 1, 2; b = 2, 1: 4 / sqrt(5 * 5) = 0.8.
  const float a[] = {1, 2}, b[] = {2, 1};
  EXPECT_EQ(hm_ccc_norm(a, b, 2), 0.8f);
}

// ---------------------------------------------------------------------------------------------
// Element-wise
// ---------------------------------------------------------------------------------------------
TEST(HostStatsElementwise, ScalarFamily) {
  const float in[] = {1.0f, -2.0f, 0.1f};
  float out[3], a[3];
  auto reset = [&] {
    for (int i = 0; i < 3; ++i) a[i] = in[i];
  };
  const float k = 3.0f, b = 0.7f;

  hm_add(out, in, 3, k);
  reset();
  hm_add_inplace(a, 3, k);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(out[i], in[i] + k);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_sub(out, in, 3, k);
  reset();
  hm_sub_inplace(a, 3, k);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(out[i], in[i] - k);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_multi(out, in, 3, k);
  reset();
  hm_multi_inplace(a, 3, k);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(out[i], in[i] * k);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_divide(out, in, 3, k);
  reset();
  hm_divide_inplace(a, 3, k);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(out[i], in[i] / k);
    EXPECT_EQ(a[i], out[i]);
  }
  // A true float division: 5 / 3 = 0x1.aaaaaap+0, where 5 * float(1 / 3) = 0x1.aaaaacp+0.
  const float five = 5.0f;
  hm_divide(out, &five, 1, 3.0f);
  EXPECT_EQ(out[0], 0x1.aaaaaap+0f);

  hm_multi_add(out, in, 3, k, b);
  reset();
  hm_multi_add_inplace(a, 3, k, b);
  for (int i = 0; i < 3; ++i) {
    const float p = in[i] * k;
    EXPECT_EQ(out[i], p + b);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_linear_norm_kb(out, in, 3, k, b);
  reset();
  hm_linear_norm_kb_inplace(a, 3, k, b);
  for (int i = 0; i < 3; ++i) {
    const float p = in[i] * k;
    EXPECT_EQ(out[i], p + b);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_add_multi(out, in, 3, k, b);
  reset();
  hm_add_multi_inplace(a, 3, k, b);
  for (int i = 0; i < 3; ++i) {
    const float s = in[i] + k;
    EXPECT_EQ(out[i], s * b);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_divide_sub(out, in, 3, k, b);
  reset();
  hm_divide_sub_inplace(a, 3, k, b);
  for (int i = 0; i < 3; ++i) {
    const float d = in[i] / k;
    EXPECT_EQ(out[i], d - b);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_sub_divide(out, in, 3, k, b);
  reset();
  hm_sub_divide_inplace(a, 3, k, b);
  for (int i = 0; i < 3; ++i) {
    const float d = in[i] - k;
    EXPECT_EQ(out[i], d / b);
    EXPECT_EQ(a[i], out[i]);
  }
  hm_sub_sqr(out, in, 3, k);
  reset();
  hm_sub_sqr_inplace(a, 3, k);
  for (int i = 0; i < 3; ++i) {
    const float d = in[i] - k;
    EXPECT_EQ(out[i], d * d);
    EXPECT_EQ(a[i], out[i]);
  }
  EXPECT_EQ(out[1], 25.0f);
}

TEST(HostStatsElementwise, UnaryFamily) {
  const float in[] = {4.0f, 0.25f, 2.0f};
  float out[3], a[3];
  hm_sqr(out, in, 3);
  EXPECT_EQ(out[0], 16.0f);
  EXPECT_EQ(out[1], 0.0625f);
  for (int i = 0; i < 3; ++i) a[i] = in[i];
  hm_sqr_inplace(a, 3);
  EXPECT_EQ(a[2], 4.0f);
  hm_sqrtf(out, in, 3);
  EXPECT_EQ(out[0], 2.0f);
  EXPECT_EQ(out[1], 0.5f);
  EXPECT_EQ(out[2], sqrtf(2.0f));
  for (int i = 0; i < 3; ++i) a[i] = in[i];
  hm_sqrtf_inplace(a, 3);
  EXPECT_EQ(a[0], 2.0f);
  hm_logf(out, in, 3);
  EXPECT_EQ(out[2], logf(2.0f));
  for (int i = 0; i < 3; ++i) a[i] = in[i];
  hm_logf_inplace(a, 3);
  EXPECT_EQ(a[0], logf(4.0f));
  const float neg[] = {-1.5f, 2.0f, -0.0f};
  hm_fabsf(out, neg, 3);
  EXPECT_EQ(out[0], 1.5f);
  EXPECT_EQ(out[1], 2.0f);
  EXPECT_FALSE(std::signbit(out[2]));
  hm_tanhf(out, neg, 3);
  EXPECT_EQ(out[0], tanhf(-1.5f));
  EXPECT_EQ(out[1], tanhf(2.0f));
  // Results of the unusual arithmetic are left in the array.
  const float bad[] = {-1.0f, 0.0f};
  hm_sqrtf(out, bad, 2);
  EXPECT_TRUE(std::isnan(out[0]));
  hm_logf(out, bad, 2);
  EXPECT_TRUE(std::isinf(out[1]));
}

TEST(HostStatsElementwise, SigTanhfLastProductInDouble) {
  const float s = 0.7f;
  const int count = 2000;
  std::vector<float> in(count), out(count);
  for (int i = 0; i < count; ++i) in[i] = -3.0f + 0.003f * static_cast<float>(i);
  hm_sig_tanhf(out.data(), in.data(), count, s);
  int differ = 0;
  for (int i = 0; i < count; ++i) {
    const float t = tanhf(in[i] / (2.0f * s));
    const float want = static_cast<float>(double(t) * 2.1639534137386525 * double(s));
    ASSERT_EQ(out[i], want) << i;
    const float all_float = t * 2.1639534137386525f * s;
    differ += out[i] != all_float;
  }
  EXPECT_GT(differ, 0) << "float products would have given the same results";
  // Near 0 the slope is 2.1639534137386525 / 2 ~ 1.08 whatever s is.
  const float small[] = {1e-4f};
  float o;
  hm_sig_tanhf(&o, small, 1, 5.0f);
  EXPECT_NEAR(o, 1.0819767e-4f, 1e-9f);
}

TEST(HostStatsElementwise, SubmeanUsesTheFloatRoundedMean) {
  const float in[] = {1, 2, 2};
  const float m = static_cast<float>(5.0 / 3.0);
  float out[3], a[3];
  hm_submean(out, in, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(out[i], in[i] - m);
  for (int i = 0; i < 3; ++i) a[i] = in[i];
  hm_submean_inplace(a, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(a[i], in[i] - m);
  hm_submean_sqr(out, in, 3);
  for (int i = 0; i < 3; ++i) {
    const float d = in[i] - m;
    EXPECT_EQ(out[i], d * d);
  }
  for (int i = 0; i < 3; ++i) a[i] = in[i];
  hm_submean_sqr_inplace(a, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(a[i], out[i]);
  hm_submean_abs(out, in, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(out[i], fabsf(in[i] - m));
  for (int i = 0; i < 3; ++i) a[i] = in[i];
  hm_submean_abs_inplace(a, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(a[i], out[i]);
  // The mean comes from a double sum: 1e8 and five ones give 100000005 / 6, not 1e8 / 6.
  float big[] = {1e8f, 1, 1, 1, 1, 1};
  hm_submean_inplace(big, 6);
  EXPECT_EQ(big[1], 1.0f - static_cast<float>(100000005.0 / 6.0));
}

TEST(HostStatsElementwise, ArrayPairsAndMasks) {
  const float a[] = {6, -3, 0.5f}, b[] = {2, 4, 0.25f};
  float out[3], c[3];
  auto reset = [&] {
    for (int i = 0; i < 3; ++i) c[i] = a[i];
  };
  hm_x1d_add(out, a, b, 3);
  reset();
  hm_x1d_add_inplace(c, b, 3);
  EXPECT_EQ(out[0], 8.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(c[i], out[i]);
  hm_x1d_sub(out, a, b, 3);
  reset();
  hm_x1d_sub_inplace(c, b, 3);
  EXPECT_EQ(out[1], -7.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(c[i], out[i]);
  hm_x1d_multi(out, a, b, 3);
  reset();
  hm_x1d_multi_inplace(c, b, 3);
  EXPECT_EQ(out[2], 0.125f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(c[i], out[i]);
  hm_x1d_divide(out, a, b, 3);
  reset();
  hm_x1d_divide_inplace(c, b, 3);
  EXPECT_EQ(out[0], 3.0f);
  EXPECT_EQ(out[1], -0.75f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(c[i], out[i]);

  const float m[] = {1, 0, 0.5f};
  hm_appply_mask(out, a, m, 3);
  EXPECT_EQ(out[0], 6.0f);
  EXPECT_EQ(out[1], -0.0f);
  EXPECT_EQ(out[2], 0.25f);
  hm_appply_weights(out, a, m, 3);
  EXPECT_EQ(out[2], 0.25f);
  hm_apply_weights(out, a, m, 3);
  EXPECT_EQ(out[2], 0.25f);
  reset();
  hm_apply_mask_inplace(c, m, 3);
  EXPECT_EQ(c[2], 0.25f);
  reset();
  hm_apply_weights_inplace(c, m, 3);
  EXPECT_EQ(c[0], 6.0f);
}

// ---------------------------------------------------------------------------------------------
// Extremes
// ---------------------------------------------------------------------------------------------
TEST(HostStatsExtremes, ValuesAndIndicesInTheOrderOfTheName) {
  const float a[] = {2, 9, -4, 9, -4, 1};
  EXPECT_EQ(hm_max_value(a, 6), 9.0f);
  EXPECT_EQ(hm_min_value(a, 6), -4.0f);
  EXPECT_EQ(hm_max_index(a, 6), 1ul);
  EXPECT_EQ(hm_min_index(a, 6), 2ul);
  float v1, v2;
  hm_max_min_value(a, 6, v1, v2);
  EXPECT_EQ(v1, 9.0f);
  EXPECT_EQ(v2, -4.0f);
  hm_min_max_value(a, 6, v1, v2);
  EXPECT_EQ(v1, -4.0f);
  EXPECT_EQ(v2, 9.0f);
  unsigned long i1, i2;
  hm_max_min_index(a, 6, i1, i2);
  EXPECT_EQ(i1, 1ul);
  EXPECT_EQ(i2, 2ul);
  hm_min_max_index(a, 6, i1, i2);
  EXPECT_EQ(i1, 2ul);
  EXPECT_EQ(i2, 1ul);
  float v3;
  hm_max_min_mean_value(a, 6, v1, v2, v3);
  EXPECT_EQ(v1, 9.0f);
  EXPECT_EQ(v2, -4.0f);
  EXPECT_EQ(v3, float(13.0 / 6.0));
  hm_min_max_mean(a, 6, v1, v2, v3);
  EXPECT_EQ(v1, -4.0f);
  EXPECT_EQ(v2, 9.0f);
  EXPECT_EQ(v3, float(13.0 / 6.0));
  hm_max_value_and_index(a, 6, v1, i1);
  EXPECT_EQ(v1, 9.0f);
  EXPECT_EQ(i1, 1ul);
  hm_min_value_and_index(a, 6, v1, i1);
  EXPECT_EQ(v1, -4.0f);
  EXPECT_EQ(i1, 2ul);
  hm_max_min_value_and_index(a, 6, v1, v2, i1, i2);
  EXPECT_EQ(v1, 9.0f);
  EXPECT_EQ(v2, -4.0f);
  EXPECT_EQ(i1, 1ul);
  EXPECT_EQ(i2, 2ul);
  hm_min_max_value_and_index(a, 6, v1, v2, i1, i2);
  EXPECT_EQ(v1, -4.0f);
  EXPECT_EQ(v2, 9.0f);
  EXPECT_EQ(i1, 2ul);
  EXPECT_EQ(i2, 1ul);
}

TEST(HostStatsExtremes, NaNPassedOverUnlessFirst) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inner[] = {1, nan, 3, -2};
  float mx, mn, mean;
  hm_max_min_mean(inner, 4, mx, mn, mean);
  EXPECT_EQ(mx, 3.0f);
  EXPECT_EQ(mn, -2.0f);
  EXPECT_TRUE(std::isnan(mean));
  EXPECT_EQ(hm_max_index(inner, 4), 2ul);
  const float first[] = {nan, 1, 3};
  hm_max_min_mean(first, 3, mx, mn, mean);
  EXPECT_TRUE(std::isnan(mx));
  EXPECT_TRUE(std::isnan(mn));
  EXPECT_EQ(hm_max_index(first, 3), 0ul);
}

// ---------------------------------------------------------------------------------------------
// Peak list
// ---------------------------------------------------------------------------------------------
TEST(HostStatsPeaks, IndexMaskedSkipsClearedPlacesAndKeepsFirstOfEquals) {
  const float a[] = {5, 1, 7, 7, 2};
  int mask[] = {1, 1, 1, 1, 1};
  EXPECT_EQ(peak_index_masked(a, mask, 5), 2ul);
  mask[2] = 0;
  EXPECT_EQ(peak_index_masked(a, mask, 5), 3ul);
  int none[] = {0, 0, 0, 0, 0};
  EXPECT_EQ(peak_index_masked(a, none, 5), 5ul);
  EXPECT_EQ(peak_index_masked(a, none, 0), 0ul);
}

TEST(HostStatsPeaks, MakeMaskClearsTheDownhillFlanks) {
  // 1 3 2 5 4 3 3 1 0: peak at 3. Right: 4, 3 fall, the second 3 doesn't (stop at 6).
  // Left: 2 falls from 5, 3 rises again (stop at 1).
  const float a[] = {1, 3, 2, 5, 4, 3, 3, 1, 0};
  int mask[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  peak_make_mask(a, mask, 9, 3);
  const int want[9] = {1, 1, 0, 0, 0, 0, 1, 1, 1};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(mask[i], want[i]) << i;

  // Walks to both ends.
  const float b[] = {0, 1, 2, 3, 2, 1, 0};
  int mb[7] = {1, 1, 1, 1, 1, 1, 1};
  peak_make_mask(b, mb, 7, 3);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(mb[i], 0) << i;

  // Peak at the ends.
  int mc[7] = {1, 1, 1, 1, 1, 1, 1};
  peak_make_mask(b, mc, 7, 0);  // b[0] = 0, b[1] = 1 rises: only 0 goes
  EXPECT_EQ(mc[0], 0);
  EXPECT_EQ(mc[1], 1);
  int md[7] = {1, 1, 1, 1, 1, 1, 1};
  peak_make_mask(b, md, 7, 6);  // b[6] = 0 is below b[5] = 1: the left walk stops at once
  EXPECT_EQ(md[6], 0);
  EXPECT_EQ(md[5], 1);

  // An index at or beyond n clears nothing.
  int me[7] = {1, 1, 1, 1, 1, 1, 1};
  peak_make_mask(b, me, 7, 7);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(me[i], 1) << i;
}

TEST(HostStatsPeaks, IndicesOfSeveralPeaks) {
  // Peaks 9 at 6, 8 at 2, 4 at 9 and 4 at 10: a plateau stops the flank walk.
  const float a[] = {0, 5, 8, 5, 1, 2, 9, 3, 0, 4, 4, 0};
  unsigned long idx[5];
  peak_indices(a, 12, idx, 5);
  EXPECT_EQ(idx[0], 6ul);   // clears 4..8: right 9 > 3 > 0, then 4; left 9 > 2 > 1, then 5
  EXPECT_EQ(idx[1], 2ul);   // clears 0..4: right 8 > 5 > 1, then 2; left 8 > 5 > 0
  EXPECT_EQ(idx[2], 9ul);   // the first of the equal 4s; its right walk stops at the equal 4
  EXPECT_EQ(idx[3], 10ul);  // the second 4, not cleared by the first
  EXPECT_EQ(idx[4], 12ul);
}

// ---------------------------------------------------------------------------------------------
// Templates
// ---------------------------------------------------------------------------------------------
template <typename T>
void check_thm_small() {
  const T a[] = {T(1), T(2), T(3), T(4)};
  const T b[] = {T(4), T(3), T(2), T(1)};
  EXPECT_EQ(thm_sum(a, 4), 10.0);
  EXPECT_EQ(thm_mean(a, 4), 2.5);
  EXPECT_EQ(thm_sum_sqr(a, 4), 30.0);
  EXPECT_EQ(thm_dot(a, b, 4), 20.0);
}

TEST(HostStatsTemplates, AllElementTypes) {
  check_thm_small<double>();
  check_thm_small<float>();
  check_thm_small<long>();
  check_thm_small<int>();
  check_thm_small<short>();
  check_thm_small<char>();
  check_thm_small<unsigned long>();
  check_thm_small<unsigned int>();
  check_thm_small<unsigned short>();
  check_thm_small<unsigned char>();
}

TEST(HostStatsTemplates, WidenBeforeArithmetic) {
  const unsigned char uc[] = {200, 200, 255};
  EXPECT_EQ(thm_sum(uc, 3), 655.0);
  EXPECT_EQ(thm_sum_sqr(uc, 3), 40000.0 + 40000.0 + 65025.0);
  EXPECT_EQ(thm_dot(uc, uc, 3), 145025.0);
  const short s[] = {-30000, 30000, 300};
  EXPECT_EQ(thm_sum_sqr(s, 3), 1800090000.0);
  const int big[] = {2000000000, 2000000000};
  EXPECT_EQ(thm_sum(big, 2), 4000000000.0);
  EXPECT_EQ(thm_dot(big, big, 2), 8e18);
  const unsigned long ul[] = {1ul << 60, 1ul << 60};
  EXPECT_EQ(thm_sum(ul, 2), 0x1p61);
  const char c[] = {-3, 5};
  EXPECT_EQ(thm_sum(c, 2), 2.0);
  EXPECT_EQ(thm_mean(c, 2), 1.0);
}

TEST(HostStatsTemplates, X1dSubConvertsToTheOutputTypeFirst) {
  const double a_d[] = {1.0 + 0x1p-30, 0.1};
  const double b_d[] = {1.0, 0.1};
  const float a_f[] = {1.0f, 0.1f};
  const float b_f[] = {1.0f, 0.1f};
  float of[2];
  double od[2];

  thm_x1d_sub(of, a_d, b_d, 2);  // float(1 + 2^-30) = 1, so 0; not float(2^-30)
  EXPECT_EQ(of[0], 0.0f);
  thm_x1d_sub(od, a_d, b_d, 2);
  EXPECT_EQ(od[0], 0x1p-30);
  thm_x1d_sub(od, a_f, b_d, 2);  // double(0.1f) - 0.1
  EXPECT_EQ(od[1], double(0.1f) - 0.1);
  EXPECT_NE(od[1], 0.0);
  thm_x1d_sub(of, a_f, b_d, 2);  // float(0.1) = 0.1f: 0
  EXPECT_EQ(of[1], 0.0f);
  thm_x1d_sub(od, a_d, b_f, 2);
  EXPECT_EQ(od[1], 0.1 - double(0.1f));
  thm_x1d_sub(of, a_d, b_f, 2);
  EXPECT_EQ(of[1], 0.0f);
  thm_x1d_sub(od, a_f, b_f, 2);
  EXPECT_EQ(od[0], 0.0);
  thm_x1d_sub(of, a_f, b_f, 2);
  EXPECT_EQ(of[1], 0.0f);

  float f1[] = {1.0f, 0.1f};
  thm_x1d_sub_inplace(f1, b_d, 2);
  EXPECT_EQ(f1[1], 0.0f);
  double d1[] = {1.0 + 0x1p-30, 0.1};
  thm_x1d_sub_inplace(d1, b_f, 2);
  EXPECT_EQ(d1[0], 0x1p-30);
  EXPECT_EQ(d1[1], 0.1 - double(0.1f));
  float f2[] = {3.0f, 1.0f};
  thm_x1d_sub_inplace(f2, b_f, 2);
  EXPECT_EQ(f2[0], 2.0f);
  double d2[] = {3.0, 1.0};
  thm_x1d_sub_inplace(d2, b_d, 2);
  EXPECT_EQ(d2[0], 2.0);
}

}  // namespace
