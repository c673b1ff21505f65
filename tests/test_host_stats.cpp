// Host statistics: edge cases and the precision rules of the forms the programs call. Expected
// values are worked out by hand in the comments or spelled out as plain expressions of the rule
// under test; where a rule's violation would show (float accumulation, summation order, double
// products, rounding points), the test also asserts that the violating result differs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "math_utils/host_stats.h"

namespace {

// 1 + 2^-12: its exact square 1 + 2^-11 + 2^-24 is a float tie that rounds (to even) to
// 1 + 2^-11, so a square rounded to float differs from the double square.
const float kX = 0x1.001p+0f;
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

TEST(HostStatsPrecision, SumAndMeanAccumulateInDoubleFromElementZeroUpward) {
  // float accumulation loses every 1 beside 1e8 (the float spacing there is 8).
  const float a[] = {1e8f, 1, 1, 1, 1, 1};
  ASSERT_EQ(((((1e8f + 1.0f) + 1.0f) + 1.0f) + 1.0f) + 1.0f, 1e8f);
  // In order from element 0: 2^53 + 1 rounds back to 2^53 at every step. Any other order
  // (reverse, pairwise, several accumulators of a vectorised loop) keeps some of the ones.
  std::vector<float> b(64, 1.0f);
  b[0] = 0x1p53f;
  double reverse = 0.0;
  for (size_t i = b.size(); i-- > 0;) reverse += b[i];
  ASSERT_NE(reverse, 0x1p53);
  expect_values({{hm_sum(a, 6), 100000005.0}, {hm_mean(a, 6), 100000005.0 / 6.0}, {hm_sum(b.data(), b.size()), 0x1p53},
                 {hm_sum_check0(b.data(), b.size()), 0x1p53}, {hm_sum(a, 0), 0.0}, {hm_mean(a, 0), kNaN}});
}

TEST(HostStatsPrecision, MeanAndDeviationAreTwoPassWithDoubleDeviations) {
  // One pass (mean of squares minus squared mean) loses the 2/3 beside 1e12. For 0, 0, 1 (mean
  // 1/3, variance 2/9) deviations in float would be off by ~1e-8 relative.
  const float a[] = {1, 2, 3}, big[] = {1000001, 1000002, 1000003}, b[] = {0, 0, 1}, third = 1.0f / 3.0f,
              two_thirds = 2.0f / 3.0f;
  ASSERT_GT(std::fabs((2.0 * third * third + double(two_thirds) * two_thirds) / 3.0 - 2.0 / 9.0), 1e-12);
  double mean = 0, sd = 0;
  hm_mean_stdv(a, 3, mean, sd);
  expect_values({{mean, 2.0}, {sd, std::sqrt(2.0 / 3.0)}});
  hm_mean_stdv(big, 3, mean, sd);
  expect_values({{mean, 1000002.0}, {sd, std::sqrt(2.0 / 3.0)}});
  hm_mean_stdv(b, 3, mean, sd);
  EXPECT_DOUBLE_EQ(sd, std::sqrt(2.0 / 9.0));
}

TEST(HostStatsPrecision, CccNormProductInFloatSquaresInDouble) {
  // sab = float(kX^2) = 1 + 2^-11, saa = sbb = kX^2 exact; the ratio is 1 - 0.9995 * 2^-24,
  // which rounds to the float below 1. All-float or all-double arithmetic would give 1.
  const float a[] = {kX}, p[] = {1, 2}, q[] = {2, 1};
  EXPECT_EQ(hm_ccc_norm(a, a, 1), std::nextafter(1.0f, 0.0f));
  EXPECT_EQ(hm_ccc_norm(p, q, 2), 0.8f);  // 4 / sqrt(5 * 5)
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

TEST(HostStatsNormz, SoftMaskWeightsTheStatistics) {
  // Weights 0.25, 0.25 on 2 and 4: mean (0.5 + 1) / 0.5 = 3; var ((-1)^2 + 1^2) 0.25 / 0.5 = 1.
  const float x[] = {2, 4, 100, -100}, m[] = {0.25f, 0.25f, 0, 0};
  float out[4];
  std::string text;
  EXPECT_EQ(warnings([&] {
              EXPECT_EQ(hm_sum_check0(m, 4), 0.5);
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
  const double k = double(sigma) / std::sqrt(q / S);
  std::vector<float> a = x;
  hm_normz_withmask_applymask_inplace(a.data(), m.data(), n, sigma, target_mean);
  for (unsigned long i = 0; i < n; ++i) ASSERT_EQ(a[i], float((double(x[i]) - mu) * k + double(target_mean)) * m[i]) << i;
}

TEST(HostStatsNormz, SmallMaskSumsWarnAndGoOn) {
  // The full report of an all-zero mask, once, and NaN values.
  float a[] = {1, 2, 3, 4}, b[] = {42.0f};
  const float zeros[] = {0, 0, 0, 0}, neg[] = {-1.0f, 0.5f}, tiny[] = {5e-7f}, big[] = {1e-6f, 1e-6f};
  const std::string tail = ":Too small sum of mask!!\n\033[m";
  std::string out;
  EXPECT_EQ(warnings([&] { hm_normz_withmask_applymask_inplace(a, zeros, 4, 1.0f, 0.0f); }, &out), 1) << out;
  EXPECT_EQ(out.rfind("\033[43mWarning in function hm_sum_check0(), file src/math_utils on line ", 0), 0u) << out;
  EXPECT_TRUE(out.size() >= tail.size() && out.substr(out.size() - tail.size()) == tail) << out;
  for (float x : a) EXPECT_TRUE(std::isnan(x));
  // Negative, and positive below 1e-6, warn once each; 2e-6 does not. An empty normalisation
  // warns and touches nothing.
  EXPECT_EQ(warnings([&] { EXPECT_EQ(hm_sum_check0(neg, 2), -0.5); }), 1);
  EXPECT_EQ(warnings([&] { EXPECT_EQ(hm_sum_check0(tiny, 1), double(5e-7f)); }), 1);
  EXPECT_EQ(warnings([&] { hm_sum_check0(big, 2); }, &out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(warnings([&] { hm_normz_withmask_applymask_inplace(b, zeros, 0, 1.0f, 0.0f); }), 1);
  EXPECT_EQ(b[0], 42.0f);
}

TEST(HostStatsCcc, ZnormInPlaceRemovesMeanAndScale) {
  const std::vector<float> a = test_data(500);
  std::vector<float> b(a.size()), c(a.size());
  for (size_t i = 0; i < a.size(); ++i) b[i] = 2.0f * a[i] + 3.0f, c[i] = -a[i] + 7.0f;
  EXPECT_LT(hm_ccc_norm(a.data(), b.data(), a.size()), 0.99f);  // the means matter
  std::vector<float> ai = a, bi = b, aj = a;
  EXPECT_NEAR(hm_ccc_znorm_inplace(ai.data(), bi.data(), ai.size()), 1.0f, 1e-5f);
  EXPECT_NEAR(hm_ccc_znorm_inplace(aj.data(), c.data(), aj.size()), -1.0f, 1e-5f);
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

TEST(HostStatsExtremes, FirstOfEqualExtremesWinsAndTheMeanIsInDouble) {
  // Equal extremes: the first wins. 2^24 + 1 + 1 = 16777218 in double, / 3 = 5592406 exactly; a
  // float sum would stay at 2^24 and give 5592405.5. NaN is passed over unless it comes first.
  const float a[] = {2, 9, -4, 9, -4, 1}, big[] = {0x1p24f, 1, 1}, inner[] = {1, kNaN, 3, -2}, first[] = {kNaN, 1, 3};
  auto max_min_mean = [](const float* v, unsigned long n) {
    float mx = 0, mn = 0, mean = 0;
    hm_max_min_mean(v, n, mx, mn, mean);
    return std::vector<double>{mx, mn, mean};
  };
  EXPECT_EQ((std::vector<double>{hm_max_value(a, 6), hm_min_value(a, 6), double(hm_max_index(a, 6))}),
            (std::vector<double>{9, -4, 1}));
  EXPECT_EQ(max_min_mean(a, 6), (std::vector<double>{9, -4, float(13.0 / 6.0)}));
  EXPECT_EQ(max_min_mean(a + 1, 1), (std::vector<double>{9, 9, 9}));  // one element is max, min and mean
  EXPECT_EQ(max_min_mean(big, 3), (std::vector<double>{0x1p24, 1, 5592406}));
  // No element gives index 0.
  EXPECT_EQ((std::vector<unsigned long>{hm_max_index(a, 0), hm_max_index(inner, 4), hm_max_index(first, 3)}),
            (std::vector<unsigned long>{0, 2, 0}));
  const std::vector<double> in = max_min_mean(inner, 4), fi = max_min_mean(first, 3);
  EXPECT_EQ(std::vector<double>(in.begin(), in.begin() + 2), (std::vector<double>{3, -2}));
  EXPECT_TRUE(std::isnan(in[2]) && std::isnan(fi[0]) && std::isnan(fi[1]));
}

}  // namespace
