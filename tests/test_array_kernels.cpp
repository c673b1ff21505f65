// Element-wise kernels the programs launch: flat arrays, images and complex arrays. Every
// launch runs on sizes that are not multiples of the block, over arrays with guard elements
// behind them, so that a kernel writing past its end, or skipping its last partial block, shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "cuda_complex/cuda_complex.h"
#include "cuda_general/cuda_general.h"
#include "math_utils/array_kernels.h"
#include "process2d_core/process2d_core.h"
#include "support/device_data.h"

namespace {

using Floats = std::vector<float>;
using Complexes = std::vector<float2>;

constexpr std::size_t kGuard = 1100;  // more than one flat block of spare threads
constexpr float kSentinel = 12345.5f;

std::uint32_t bits(float v) {
  std::uint32_t u;
  std::memcpy(&u, &v, sizeof u);
  return u;
}

// Equal within a few units in the last place: device logarithms and exponentials may differ
// from the host's by an ulp or two.
bool near_ulps(float expected, float actual, int ulps) {
  if (std::isnan(expected) || std::isnan(actual)) return std::isnan(expected) && std::isnan(actual);
  const auto e = static_cast<std::int64_t>(bits(expected)), a = static_cast<std::int64_t>(bits(actual));
  return expected == actual || ((expected < 0) == (actual < 0) && std::llabs(e - a) <= ulps);
}

// A device array of n elements followed by guard elements that hold a sentinel; host() gives
// the n elements back and fails the test if a guard element changed.
template <class T>
struct Guarded {
  Guarded(std::vector<T> h, T sentinel) : n(h.size()), sentinel(sentinel) {
    h.resize(n + kGuard, sentinel);
    d = to_device(h);
  }
  ~Guarded() { cudaFree(d); }
  Guarded(const Guarded&) = delete;
  T* get() const { return d; }
  std::vector<T> host() const {
    std::vector<T> all = to_host(d, n + kGuard);
    for (std::size_t i = n; i < all.size(); ++i)
      if (std::memcmp(&all[i], &sentinel, sizeof(T)) != 0) {
        ADD_FAILURE() << "guard element " << i - n << " past the end was written";
        break;
      }
    all.resize(n);
    return all;
  }
  std::size_t n;
  T sentinel;
  T* d = nullptr;
};

using GuardedFloats = Guarded<float>;
using GuardedComplexes = Guarded<float2>;

Floats values(std::size_t n, float lo, float hi, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  Floats v(n);
  for (auto& x : v) x = dist(gen);
  return v;
}

void expect_all(const Floats& expected, const Floats& got, int ulps, const std::string& what) {
  ASSERT_EQ(expected.size(), got.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    ASSERT_TRUE(near_ulps(expected[i], got[i], ulps)) << what << " at " << i << ": " << expected[i] << " vs " << got[i];
}

constexpr unsigned long kFlatN = 1029;  // two blocks, the second nearly empty
constexpr unsigned kNx = 33, kNy = 35;  // neither side a multiple of 32
constexpr std::size_t kPixels = std::size_t(kNx) * kNy;
constexpr float kK = 1.75f, kC = -0.5f, kInf = std::numeric_limits<float>::infinity();

// One launch: `o` is a separate output, `a` the first input (the output of an in-place form),
// `b` the second input; `element` is the float expression of one element.
struct ElementCase {
  const char* name;
  void (*run)(float* o, float* a, const float* b, unsigned long n);
  float (*element)(float a, float b);
  bool in_place;
  int ulps;
};
#define OUT(call, expr, ulps) \
  {#call, [](float* o, float* a, const float* b, unsigned long n) { call; }, [](float a, float b) { return expr; }, false, ulps}
#define IN(call, expr, ulps) \
  {#call, [](float* o, float* a, const float* b, unsigned long n) { call; }, [](float a, float b) { return expr; }, true, ulps}

void check_cases(const std::vector<ElementCase>& cases, const Floats& a, const Floats& b) {
  const std::size_t n = a.size();
  for (const ElementCase& c : cases) {
    SCOPED_TRACE(c.name);
    GuardedFloats out(Floats(n, -1.0f), kSentinel), da(a, kSentinel), db(b, kSentinel);
    c.run(out.get(), da.get(), db.get(), n);
    Floats expected(n);
    for (std::size_t i = 0; i < n; ++i) expected[i] = c.element(a[i], b[i]);
    expect_all(expected, c.in_place ? da.host() : out.host(), c.ulps, c.name);
    if (!c.in_place) {
      EXPECT_EQ(da.host(), a) << "changed its input";
    }
    EXPECT_EQ(db.host(), b) << "changed its second input";
  }
}

TEST(FlatKernels, EveryElementAndNothingBeyond) {
  const std::vector<ElementCase> cases = {
      IN(hcuda_addto_float(a, b, n), a + b, 0), OUT(hcuda_x1d_multi(o, a, b, n), a * b, 0),
      IN(hcuda_sub_inplace(a, n, kK), a - kK, 0), IN(hcuda_divide_inplace(a, n, kK), a / kK, 0),
      IN(hcuda_multi_add_inplace(a, n, kK, kC), std::fmaf(a, kK, kC), 0),
      OUT(hcuda_sqr(o, a, n), a * a, 0), IN(hcuda_logf_inplace(a, n), std::log(a), 2),
      OUT(hcuda_submean_sqr(o, a, n, kK), (a - kK) * (a - kK), 0),
      OUT(hcuda_submean_sqr_withmask(o, a, b, n, kK), b * ((a - kK) * (a - kK)), 0),
      OUT(hcuda_sqr_withmask(o, a, b, n), (a * a) * b, 0),
      IN(hcuda_invert_inplace(a, n), -a, 0),
  };
  // The last elements hold the faults, which must come out as infinity or NaN: the logarithms
  // of 0 and -1; the mask ends in zeros.
  Floats a = values(kFlatN, 0.25f, 9.0f, 1), b = values(kFlatN, -4.0f, 4.0f, 2);
  a[kFlatN - 2] = 0.0f, a[kFlatN - 1] = -1.0f;
  std::fill(b.end() - 3, b.end(), 0.0f);
  check_cases(cases, a, b);
}

TEST(ImageKernels, EveryPixelToTheEdgeAndNothingBeyond) {
  const unsigned X = kNx, Y = kNy;
  const std::vector<ElementCase> cases = {
      // A minus-infinity fill, which loses to any finite value.
      IN(hcuda_2d_empty(a, X, Y), 0.0f, 0), IN(hcuda_2d_memset(a, -kInf, X, Y), -kInf, 0),
      // A true division by 3, which a product with the rounded reciprocal would miss.
      IN(hcuda_2d_divide_inplace(a, X, Y, 3.0f), a / 3.0f, 0),
      IN(hcuda_2d_sqr_inplace(a, X, Y), a * a, 0), IN(hcuda_2d_sqrt_inplace(a, X, Y), std::sqrt(a), 0),
      IN(hcuda_2d_logf_inplace(a, X, Y), std::log(a), 2),
      OUT(hcuda_x2d_sub(o, a, b, X, Y), a - b, 0), IN(hcuda_x2d_sub_inplace(a, b, X, Y), a - b, 0),
  };
  // What rounding leaves of a variance that should be 0 has a NaN root, at the last pixel too.
  Floats a = values(kPixels, 0.25f, 3.0f, 3), b = values(kPixels, 0.5f, 2.0f, 4);
  a[kPixels - 2] = 0.0f, a[kPixels - 1] = -1e-7f, b[kPixels - 1] = 0.0f;
  check_cases(cases, a, b);
}
#undef OUT
#undef IN

TEST(ComplexKernels, DivisionByARealNumberIsATrueDivision) {
  Complexes a(kPixels);
  const Floats re = values(kPixels, -3.0f, 3.0f, 15), im = values(kPixels, -3.0f, 3.0f, 16);
  for (std::size_t i = 0; i < kPixels; ++i) a[i] = pk_cx(re[i], im[i]);
  GuardedComplexes divr(a, pk_cx(kSentinel, kSentinel));
  hcuda_c2d_divR_inplace(divr.get(), kNx, kNy, 3.0f);
  const Complexes got = divr.host();
  for (std::size_t i = 0; i < kPixels; ++i)
    ASSERT_TRUE(bits(a[i].x / 3.0f) == bits(got[i].x) && bits(a[i].y / 3.0f) == bits(got[i].y)) << i;
}

}  // namespace
