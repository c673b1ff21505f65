// Tree sums and the statistics built on them. The expected values come from a plain host
// emulation of each tree written here, independent of the code under test, and are compared
// to the bit: the order of additions is the point of these sums.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_general/cuda_general.h"
#include "math_utils/device_stats.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

using Floats = std::vector<float>;

std::uint32_t bits(float v) {
  std::uint32_t u;
  std::memcpy(&u, &v, sizeof u);
  return u;
}

#define EXPECT_SAME_FLOAT(expected, actual) EXPECT_EQ(bits(expected), bits(actual)) << (expected) << " vs " << (actual)

// A device copy of a host array, freed at the end of the scope.
struct DeviceArray {
  explicit DeviceArray(const Floats& h) : d(to_device(h)), n(h.size()) {}
  ~DeviceArray() { cudaFree(d); }
  DeviceArray(const DeviceArray&) = delete;
  float* get() const { return d; }
  Floats host() const { return to_host(d, n); }
  float* d;
  std::size_t n;
};

// ---- Reference trees, written the direct way --------------------------------------------

// One pass of the fold-by-halves tree: element t of a block meets element t + B first, then
// the partial sums fold 512 apart, 256 apart, ..., 1 apart.
Floats ref_sum8_pass(const Floats& x, unsigned B) {
  const std::size_t n = x.size(), span = 2 * std::size_t(B), blocks = (n + span - 1) / span;
  Floats out(blocks);
  for (std::size_t b = 0; b < blocks; ++b) {
    Floats s(B, 0.0f);
    for (unsigned t = 0; t < B; ++t) {
      const std::size_t i = b * span + t;
      if (i >= n) continue;
      float v = x[i];
      if (i + B < n) v = v + x[i + B];
      s[t] = v + 0.0f;
    }
    for (unsigned off = B / 2; off > 0; off /= 2)
      for (unsigned t = 0; t < off; ++t) s[t] = s[t + off] + s[t];
    out[b] = s[0];
  }
  return out;
}

// Passes until one value is left.
float ref_total(Floats x, Floats (*pass)(const Floats&, unsigned), unsigned B) {
  do x = pass(x, B);
  while (x.size() > 1);
  return x[0];
}

float ref_sum8(const Floats& x, unsigned B = 1024) { return ref_total(x, ref_sum8_pass, B); }

// What an in-place sum leaves behind: each pass writes its block sums over the head of the
// array; the rest keeps what the earlier passes, or the caller, put there.
Floats ref_inplace_contents(Floats data, unsigned B) {
  for (std::size_t count = data.size(); count > 1;) {
    const Floats sums = ref_sum8_pass(Floats(data.begin(), data.begin() + count), B);
    std::copy(sums.begin(), sums.end(), data.begin());
    count = sums.size();
  }
  return data;
}

float sequential_sum(const Floats& x) {
  float s = 0.0f;
  for (float v : x) s += v;
  return s;
}

// Values of mixed sign and magnitude, so that a change of order shows in the last bits.
Floats mixed_values(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> mantissa(-1.0f, 1.0f);
  std::uniform_int_distribution<int> exponent(-6, 12);
  Floats x(n);
  for (auto& v : x) v = std::ldexp(mantissa(gen), exponent(gen));
  return x;
}

Floats products(const Floats& a, const Floats& b) {
  Floats p(a.size());
  for (std::size_t i = 0; i < a.size(); ++i) p[i] = a[i] * b[i];
  return p;
}

// ---- The main tree ----------------------------------------------------------------------

TEST(TreeSum, SingleElementTurnsNegativeZeroPositiveUnlessInPlace) {
  DeviceArray neg_zero({-0.0f}), two_neg_zeros({-0.0f, -0.0f}), value({-3.25f});
  EXPECT_SAME_FLOAT(0.0f, hcuda_fast_sum(neg_zero.get(), 1, 1024));
  // With one thread per block no fold follows the load: only the store's + 0.0 clears the sign.
  EXPECT_SAME_FLOAT(0.0f, hcuda_fast_sum(neg_zero.get(), 1, 1));
  EXPECT_SAME_FLOAT(0.0f, hcuda_fast_sum(two_neg_zeros.get(), 2, 1));
  EXPECT_SAME_FLOAT(-3.25f, hcuda_fast_sum(value.get(), 1, 1024));
  // In place, one element launches nothing, so not even the sign of zero changes.
  EXPECT_SAME_FLOAT(-0.0f, hcuda_fast_sum_inplace(neg_zero.get(), 1, 1024));
  EXPECT_SAME_FLOAT(-0.0f, neg_zero.host()[0]);
}

TEST(TreeSum, HandWorkedOrders) {
  // Five elements fold by 4, 2, 1: an order a left-to-right sum does not share.
  const Floats x = {1.0e8f, 3.0f, 5.0f, 3.0f, 5.0f};
  const float expected = ((x[0] + x[4]) + x[2]) + (x[1] + x[3]);
  ASSERT_NE(bits(expected), bits(sequential_sum(x))) << "input does not tell the orders apart";
  DeviceArray d(x);
  EXPECT_SAME_FLOAT(expected, hcuda_fast_sum(d.get(), 5, 1024));
  // n = 1025: x[0] meets x[1024] before anything else. With 1e8 there, both 4.0 vanish one by
  // one (a tie rounds to the even 1e8); added to each other first, they would survive.
  Floats y(1025, 0.0f);
  y[0] = 1.0e8f;
  y[1024] = y[512] = 4.0f;
  ASSERT_EQ(1.0e8f + 8.0f, (y[1024] + y[512]) + y[0]);
  DeviceArray dy(y);
  EXPECT_SAME_FLOAT(1.0e8f, hcuda_fast_sum(dy.get(), y.size(), 1024));
}

TEST(TreeSum, AllVariantsAgreeWithReferenceAtBlockEdgesForSeveralBlockSizes) {
  // Sizes around the edges of blocks of 1024 threads (2048 elements) among them.
  for (unsigned block : {1024u, 256u, 32u, 2u, 1u}) {
    for (std::size_t n : {1, 2, 3, 5, 64, 65, 1000, 1023, 1024, 1025, 2047, 2048, 2049, 4097, 5000}) {
      const Floats x = mixed_values(n, static_cast<unsigned>(n * 31 + block));
      const float expected = ref_sum8(x, block);
      DeviceArray a(x), b(x);
      const int B = static_cast<int>(block);
      EXPECT_SAME_FLOAT(expected, hcuda_fast_sum(a.get(), n, B)) << "n " << n << " block " << block;
      EXPECT_EQ(a.host(), x) << "hcuda_fast_sum changed its input";
      if (n > 1) {
        EXPECT_SAME_FLOAT(expected, hcuda_fast_sum8_inplace2(b.get(), n, B)) << n << " " << block;
      }
    }
  }
}

TEST(TreeSum, InPlacePassesOverManyBlocksReadBeforeTheyWrite) {
  // With B = 4 a block takes 8 elements: the first in-place pass over 1000 elements runs 125
  // blocks whose sums land inside the range that block 0 and the blocks after it still read.
  const Floats x = mixed_values(1000, 3), expected = ref_inplace_contents(x, 4);
  DeviceArray d(x);
  EXPECT_SAME_FLOAT(ref_sum8(x, 4), hcuda_fast_sum_inplace(d.get(), x.size(), 4));
  EXPECT_EQ(0, std::memcmp(expected.data(), d.host().data(), x.size() * sizeof(float)));
}

TEST(TreeSum, LargeArrayTakesThreePasses) {
  const std::size_t n = std::size_t(2048) * 2048 + 5000;
  const Floats x = mixed_values(n, 5);
  const float expected = ref_sum8(x);
  DeviceArray d(x);
  EXPECT_SAME_FLOAT(expected, hcuda_fast_sum(d.get(), n, 1024));
  EXPECT_SAME_FLOAT(expected, hcuda_fast_sum_inplace(d.get(), n, 1024));
}

TEST(TreeSum, BlockSizeMustBeAPowerOfTwoUpTo1024) {
  DeviceArray d(Floats(10, 1.0f));
  EXPECT_EXIT_REPORT(hcuda_fast_sum(d.get(), 10, 1000), "");
  EXPECT_EXIT_REPORT(hcuda_fast_sum(d.get(), 10, 2048), "");
}

// ---- Derived statistics and normalisations ----------------------------------------------

TEST(DerivedStats, SumsFollowTheElementStepThenTheTreeAndDeviationsUseTheTreeMean) {
  Floats x = mixed_values(5000, 21), m(x.size(), 0.0f);
  for (auto& v : x) v += 3.0f;
  for (std::size_t i = 0; i < m.size(); i += 3) m[i] = 1.0f;
  for (std::size_t i = 1; i < m.size(); i += 7) m[i] = 1.0f;
  DeviceArray dx(x), dm(m), dz(x), dn(x);
  const std::size_t n = x.size();
  const float sum = ref_sum8(x), wsum = ref_sum8(products(x, m)), msum = ref_sum8(m);
  const float mean = sum / static_cast<float>(n), wmean = wsum / msum;
  Floats sq(n), sqm(n), dev(n), wdev(n);
  for (std::size_t i = 0; i < n; ++i) {
    const float d = x[i] - mean, w = x[i] - wmean;
    sq[i] = x[i] * x[i];
    sqm[i] = (x[i] * x[i]) * m[i];
    dev[i] = d * d;
    wdev[i] = m[i] * (w * w);
  }
  const float s = ref_sum8(dev), ws = ref_sum8(wdev);
  EXPECT_SAME_FLOAT(mean, hcuda_fast_mean(dx.get(), n));
  EXPECT_SAME_FLOAT(ref_sum8(sq), hcuda_fast_sumsqr(dx.get(), n));
  EXPECT_SAME_FLOAT(ref_sum8(sqm), hcuda_fast_sumsqr_withmask(dx.get(), dm.get(), n));
  EXPECT_SAME_FLOAT(s, hcuda_fast_submean_sumsqr(dx.get(), n));
  EXPECT_SAME_FLOAT(s / static_cast<float>(n), hcuda_variance(dx.get(), n));
  EXPECT_SAME_FLOAT(std::sqrt(s / static_cast<float>(n)), hcuda_stdv(dx.get(), n));
  EXPECT_SAME_FLOAT(ws, hcuda_fast_submean_sumsqr_withmask(dx.get(), dm.get(), n));
  EXPECT_EQ(dx.host(), x);
  EXPECT_EQ(dm.host(), m);
  // The z-normalisation rescales with the tree mean by one multiply-add; the masked one takes
  // its statistics from the mask and rescales every pixel, the unmarked ones too.
  hcuda_znorm_inplace(dz.get(), n, 2.0f, 0.5f);
  hcuda_norm_withmask_inplace(dn.get(), dm.get(), n, 1.0f, 0.0f);
  const Floats z = dz.host(), zm = dn.host();
  const float scale = 2.0f / std::sqrt(s / static_cast<float>(n)), wscale = 1.0f / std::sqrt(ws / msum);
  for (std::size_t i = 0; i < n; ++i) {
    ASSERT_EQ(bits(std::fmaf(x[i] - mean, scale, 0.5f)), bits(z[i])) << i;
    ASSERT_EQ(bits(std::fmaf(x[i] - wmean, wscale, 0.0f)), bits(zm[i])) << i;
  }
}

TEST(DerivedStatsEdge, EmptyMaskGivesNoFiniteValue) {
  const std::size_t n = 4096;
  DeviceArray dx(mixed_values(n, 8)), empty(Floats(n, 0.0f));
  hcuda_norm_withmask_inplace(dx.get(), empty.get(), n, 1.0f, 0.0f);
  for (float v : dx.host()) ASSERT_FALSE(std::isfinite(v));
}

}  // namespace
