// Element-wise kernels: flat arrays, images, stacks and complex arrays. Every launch runs on
// sizes that are not multiples of the block, over arrays with guard elements behind them,
// so that a kernel writing past its end, or skipping its last partial block, shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <tuple>
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

Complexes complexes(std::size_t n, unsigned seed) {
  const Floats re = values(n, -3.0f, 3.0f, seed), im = values(n, -3.0f, 3.0f, seed + 1);
  Complexes z(n);
  for (std::size_t i = 0; i < n; ++i) z[i] = pk_cx(re[i], im[i]);
  return z;
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
      OUT(hcuda_x1d_add(o, a, b, n), a + b, 0), IN(hcuda_x1d_add_inplace(a, b, n), a + b, 0),
      OUT(hcuda_x1d_sub(o, a, b, n), a - b, 0), IN(hcuda_x1d_sub_inplace(a, b, n), a - b, 0),
      OUT(hcuda_x1d_multi(o, a, b, n), a * b, 0), IN(hcuda_x1d_multi_inplace(a, b, n), a * b, 0),
      OUT(hcuda_x1d_divide(o, a, b, n), a / b, 0), IN(hcuda_x1d_divide_inplace(a, b, n), a / b, 0),
      IN(hcuda_addto_float(a, b, n), a + b, 0),
      OUT(hcuda_add(o, a, n, kK), a + kK, 0), IN(hcuda_add_inplace(a, n, kK), a + kK, 0),
      OUT(hcuda_sub(o, a, n, kK), a - kK, 0), IN(hcuda_sub_inplace(a, n, kK), a - kK, 0),
      OUT(hcuda_multi(o, a, n, kK), a * kK, 0), IN(hcuda_multi_inplace(a, n, kK), a * kK, 0),
      OUT(hcuda_divide(o, a, n, kK), a / kK, 0), IN(hcuda_divide_inplace(a, n, kK), a / kK, 0),
      OUT(hcuda_add_multi(o, a, n, kK, kC), (a + kK) * kC, 0),
      OUT(hcuda_multi_add(o, a, n, kK, kC), std::fmaf(a, kK, kC), 0),
      IN(hcuda_multi_add_inplace(a, n, kK, kC), std::fmaf(a, kK, kC), 0),
      OUT(hcuda_sub_divide(o, a, n, kK, kC), (a - kK) / kC, 0),
      IN(hcuda_sub_divide_inplace(a, n, kK, kC), (a - kK) / kC, 0),
      OUT(hcuda_divide_sub(o, a, n, kK, kC), a / kK - kC, 0),
      OUT(hcuda_sqr(o, a, n), a * a, 0), IN(hcuda_sqr_inplace(a, n), a * a, 0),
      OUT(hcuda_sqrtf(o, a, n), std::sqrt(a), 0), IN(hcuda_sqrtf_inplace(a, n), std::sqrt(a), 0),
      OUT(hcuda_logf(o, a, n), std::log(a), 2), IN(hcuda_logf_inplace(a, n), std::log(a), 2),
      OUT(hcuda_sub_sqr(o, a, n, kK), (a - kK) * (a - kK), 0),
      OUT(hcuda_submean_sqr(o, a, n, kK), (a - kK) * (a - kK), 0),
      OUT(hcuda_submean_sqr_withmask(o, a, b, n, kK), b * ((a - kK) * (a - kK)), 0),
      OUT(hcuda_sqr_withmask(o, a, b, n), (a * a) * b, 0),
      IN(hcuda_invert_inplace(a, n), -a, 0),
  };
  // The last elements hold the faults, which must come out as infinity or NaN: x / 0 for x > 0,
  // 0 and < 0, and the logarithms of 0 and -1.
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
      OUT(hcuda_2d_memcpy(o, a, X, Y), a, 0),
      OUT(hcuda_2d_add(o, a, X, Y, kK), a + kK, 0), IN(hcuda_2d_add_inplace(a, X, Y, kK), a + kK, 0),
      OUT(hcuda_2d_sub(o, a, X, Y, kK), a - kK, 0), IN(hcuda_2d_sub_inplace(a, X, Y, kK), a - kK, 0),
      OUT(hcuda_2d_multi(o, a, X, Y, kK), a * kK, 0), IN(hcuda_2d_multi_inplace(a, X, Y, kK), a * kK, 0),
      // A true division by 3, which a product with the rounded reciprocal would miss.
      OUT(hcuda_2d_divide(o, a, X, Y, 3.0f), a / 3.0f, 0), IN(hcuda_2d_divide_inplace(a, X, Y, 3.0f), a / 3.0f, 0),
      OUT(hcuda_2d_multi_add(o, a, X, Y, kK, kC), std::fmaf(a, kK, kC), 0),
      OUT(hcuda_2d_add_multi(o, a, X, Y, kK, kC), (a + kK) * kC, 0),
      OUT(hcuda_2d_sub_divide(o, a, X, Y, kK, kC), (a - kK) / kC, 0),
      IN(hcuda_2d_sub_divide_inplace(a, X, Y, kK, kC), (a - kK) / kC, 0),
      OUT(hcuda_2d_sqr(o, a, X, Y), a * a, 0), IN(hcuda_2d_sqr_inplace(a, X, Y), a * a, 0),
      IN(hcuda_2d_pow2_inplace(a, X, Y), a * a, 0),
      OUT(hcuda_2d_sqrt(o, a, X, Y), std::sqrt(a), 0), IN(hcuda_2d_sqrt_inplace(a, X, Y), std::sqrt(a), 0),
      OUT(hcuda_2d_abs(o, a, X, Y), std::fabs(a), 0), IN(hcuda_2d_abs_inplace(a, X, Y), std::fabs(a), 0),
      OUT(hcuda_2d_exp(o, a, X, Y), std::exp(a), 2), IN(hcuda_2d_exp_inplace(a, X, Y), std::exp(a), 2),
      OUT(hcuda_2d_log(o, a, X, Y), std::log(a), 2), IN(hcuda_2d_log_inplace(a, X, Y), std::log(a), 2),
      OUT(hcuda_2d_logf(o, a, X, Y), std::log(a), 2), IN(hcuda_2d_logf_inplace(a, X, Y), std::log(a), 2),
      OUT(hcuda_2d_log2(o, a, X, Y), std::log2(a), 2), IN(hcuda_2d_log2_inplace(a, X, Y), std::log2(a), 2),
      OUT(hcuda_2d_log10(o, a, X, Y), std::log10(a), 2), IN(hcuda_2d_log10_inplace(a, X, Y), std::log10(a), 2),
      OUT(hcuda_2d_log1p(o, a, X, Y), std::log1p(a), 2), IN(hcuda_2d_log1p_inplace(a, X, Y), std::log1p(a), 2),
      OUT(hcuda_2d_log1pf(o, a, X, Y), std::log1p(a), 2), IN(hcuda_2d_log1pf_inplace(a, X, Y), std::log1p(a), 2),
      OUT(hcuda_2d_pow(o, a, X, Y, 1.5f), std::pow(a, 1.5f), 2),
      IN(hcuda_2d_powf_inplace(a, X, Y, -0.75f), std::pow(a, -0.75f), 2),
      IN(hcuda_2d_invert_inplace(a, X, Y), -a, 0),
      OUT(hcuda_x2d_add(o, a, b, X, Y), a + b, 0), IN(hcuda_x2d_add_inplace(a, b, X, Y), a + b, 0),
      OUT(hcuda_x2d_sub(o, a, b, X, Y), a - b, 0), IN(hcuda_x2d_sub_inplace(a, b, X, Y), a - b, 0),
      OUT(hcuda_x2d_multi(o, a, b, X, Y), a * b, 0), IN(hcuda_x2d_multi_inplace(a, b, X, Y), a * b, 0),
      OUT(hcuda_x2d_divide(o, a, b, X, Y), a / b, 0), IN(hcuda_x2d_divide_inplace(a, b, X, Y), a / b, 0),
  };
  // What rounding leaves of a variance that should be 0 has a NaN root, at the last pixel too.
  Floats a = values(kPixels, 0.25f, 3.0f, 3), b = values(kPixels, 0.5f, 2.0f, 4);
  a[kPixels - 2] = 0.0f, a[kPixels - 1] = -1e-7f, b[kPixels - 1] = 0.0f;
  check_cases(cases, a, b);
}
#undef OUT
#undef IN

constexpr unsigned kSx = 37, kSy = 5, kSz = 3;  // 1/3 is inexact: a true division shows
constexpr std::size_t kSlice = std::size_t(kSx) * kSy;

TEST(StackKernels, AverageAndLogarithmOverSlices) {
  const Floats stack = values(kSlice * kSz, 0.5f, 20.0f, 6);
  Floats plain(kSlice), logs(stack.size());
  for (std::size_t p = 0; p < kSlice; ++p) {
    float s = 0.0f;  // slice 0 upward, then one division
    for (unsigned z = 0; z < kSz; ++z) s = s + stack[z * kSlice + p];
    plain[p] = s / static_cast<float>(kSz);
  }
  for (std::size_t i = 0; i < stack.size(); ++i) logs[i] = std::log(stack[i]);
  GuardedFloats in(stack, kSentinel), ave(Floats(kSlice), kSentinel);
  hcuda_2ds_ave(ave.get(), in.get(), kSx, kSy, kSz);
  hcuda_2ds_logf_inplace(in.get(), kSx, kSy, kSz);
  expect_all(plain, ave.host(), 0, "2ds_ave");
  expect_all(logs, in.host(), 2, "2ds_logf_inplace");
}

Floats run_flat_complex(void (*launcher)(const float2*, float*, unsigned long), const Complexes& z) {
  GuardedComplexes in(z, pk_cx(kSentinel, kSentinel));
  GuardedFloats out(Floats(z.size(), -1.0f), kSentinel);
  launcher(in.get(), out.get(), z.size());
  return out.host();
}

TEST(ComplexKernels, SafeModulusNeitherOverflowsNorLosesZeroOrInfinity) {
  const Complexes z = {pk_cx(3e30f, 4e30f), pk_cx(3e-30f, -4e-30f), pk_cx(0.0f, 0.0f), pk_cx(-0.0f, 0.0f),
                       pk_cx(kInf, 1.0f),   pk_cx(1.0f, -kInf),     pk_cx(kInf, std::nanf("")), pk_cx(-3.0f, 4.0f)};
  const Floats mod = run_flat_complex(hcuda_complex_mod, z);
  expect_all({5e30f, 5e-30f}, Floats(mod.begin(), mod.begin() + 2), 2, "complex_mod");
  EXPECT_EQ(Floats(mod.begin() + 2, mod.end()), (Floats{0.0f, 0.0f, kInf, kInf, kInf, 5.0f}));
}

TEST(ComplexKernels, FlatFunctions) {
  const Complexes z = complexes(1030, 13);
  Floats mod(z.size()), phi(z.size()), pow(z.size()), logmod(z.size()), log1p(z.size());
  for (std::size_t i = 0; i < z.size(); ++i) {
    pow[i] = std::fmaf(z[i].x, z[i].x, z[i].y * z[i].y);
    mod[i] = std::hypot(z[i].x, z[i].y);
    phi[i] = std::atan2(z[i].y, z[i].x);
    logmod[i] = std::log(std::sqrt(pow[i]));
    log1p[i] = std::log(1.0f + std::sqrt(pow[i]));
  }
  expect_all(pow, run_flat_complex(hcuda_complex_pow, z), 0, "complex_pow");
  expect_all(mod, run_flat_complex(hcuda_complex_mod, z), 2, "complex_mod");
  expect_all(phi, run_flat_complex(hcuda_complex_phi, z), 2, "complex_phi");
  expect_all(logmod, run_flat_complex(hcuda_complex_logmod, z), 2, "complex_logmod");
  expect_all(log1p, run_flat_complex(hcuda_complex_log1p_mod, z), 2, "complex_log1p_mod");
}

TEST(ComplexKernels, DivisionAndRealMapsOfThePower) {
  const Complexes a = complexes(kPixels, 15);
  GuardedComplexes da(a, pk_cx(kSentinel, kSentinel)), divr(a, pk_cx(kSentinel, kSentinel));
  GuardedFloats real(Floats(kPixels), kSentinel);
  hcuda_c2d_divR_inplace(divr.get(), kNx, kNy, 3.0f);
  const Complexes got = divr.host();
  for (std::size_t i = 0; i < kPixels; ++i)
    ASSERT_TRUE(bits(a[i].x / 3.0f) == bits(got[i].x) && bits(a[i].y / 3.0f) == bits(got[i].y)) << i;
  // Real maps of the power p, computed by one fused step.
  const std::vector<std::tuple<std::function<void()>, float (*)(float), int>> maps = {
      {[&] { hcuda_c2d_logmod(real.get(), da.get(), kNx, kNy); }, [](float p) { return std::log(std::sqrt(p)); }, 2},
      {[&] { hcuda_c2d_pow_divR(real.get(), da.get(), kNx, kNy, 3.0f); }, [](float p) { return p / 3.0f; }, 0},
      {[&] { hcuda_c2d_mod_divR(real.get(), da.get(), kNx, kNy, 3.0f); }, [](float p) { return std::sqrt(p) / 3.0f; }, 0},
  };
  Floats want(kPixels);
  for (const auto& [launch, f, ulps] : maps) {
    launch();
    for (std::size_t i = 0; i < kPixels; ++i) want[i] = f(std::fmaf(a[i].x, a[i].x, a[i].y * a[i].y));
    expect_all(want, real.host(), ulps, "real map");
  }
}

}  // namespace
