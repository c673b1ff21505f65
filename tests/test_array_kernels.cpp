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

TEST(ImageKernels, ComplexFillsAndCopies) {
  const Complexes z = complexes(kPixels, 5);
  const float2 sentinel = pk_cx(kSentinel, kSentinel);
  GuardedComplexes src(z, sentinel), copy(Complexes(kPixels, pk_cx(0, 0)), sentinel), fill(z, sentinel);
  hcuda_c2d_memcpy(copy.get(), src.get(), kNx, kNy);
  hcuda_c2d_memset(fill.get(), pk_cx(1.5f, -2.0f), kNx, kNy);
  EXPECT_EQ(0, std::memcmp(copy.host().data(), z.data(), kPixels * sizeof(float2)));
  for (const float2& v : fill.host()) ASSERT_TRUE(v.x == 1.5f && v.y == -2.0f);
  hcuda_2d_cx_empty(fill.get(), kNx, kNy);
  for (const float2& v : fill.host()) ASSERT_TRUE(v.x == 0.0f && v.y == 0.0f);
}

constexpr unsigned kSx = 37, kSy = 5, kSz = 3;  // 1/3 is inexact: a true division shows
constexpr std::size_t kSlice = std::size_t(kSx) * kSy;

TEST(StackKernels, AveragesLogarithmsAndProductsOverSlicesOnDeviceAndHost) {
  const Floats stack = values(kSlice * kSz, 0.5f, 20.0f, 6), image = values(kSlice, -2.0f, 2.0f, 7);
  Floats plain(kSlice), logs(kSlice), host_ave(kSlice), host_ave_log(kSlice), host_logf_ave(kSlice);
  Floats all_logs(stack.size()), products(stack.size());
  for (std::size_t p = 0; p < kSlice; ++p) {
    float s = 0.0f, l = 0.0f;  // slice 0 upward, then one division
    for (unsigned z = 0; z < kSz; ++z) s = s + stack[z * kSlice + p], l = l + std::log(stack[z * kSlice + p]);
    plain[p] = s / static_cast<float>(kSz);
    logs[p] = l / static_cast<float>(kSz);
  }
  for (std::size_t i = 0; i < stack.size(); ++i) all_logs[i] = std::log(stack[i]), products[i] = stack[i] * image[i % kSlice];
  GuardedFloats in(stack, kSentinel), ave(Floats(kSlice), kSentinel), ave_log(Floats(kSlice), kSentinel),
      logf_ave(Floats(kSlice), kSentinel), out(Floats(stack.size()), kSentinel), inplace(stack, kSentinel),
      multi(stack, kSentinel), b(image, kSentinel);
  hcuda_2ds_ave(ave.get(), in.get(), kSx, kSy, kSz);
  hcuda_2ds_ave_logf(ave_log.get(), in.get(), kSx, kSy, kSz);
  hcuda_2ds_logf_ave(logf_ave.get(), in.get(), kSx, kSy, kSz);
  // Every slice: its logarithm, or its product with one image.
  hcuda_2ds_logf(out.get(), in.get(), kSx, kSy, kSz);
  hcuda_2ds_logf_inplace(inplace.get(), kSx, kSy, kSz);
  hcuda_x2ds_multi_inplace(multi.get(), b.get(), kSx, kSy, kSz);
  gpu_2ds_ave(host_ave.data(), stack.data(), kSx, kSy, kSz);
  gpu_2ds_ave_logf(host_ave_log.data(), stack.data(), kSx, kSy, kSz);
  gpu_2ds_logf_ave(host_logf_ave.data(), stack.data(), kSx, kSy, kSz);
  expect_all(plain, ave.host(), 0, "2ds_ave");
  expect_all(logs, ave_log.host(), 4, "2ds_ave_logf");
  EXPECT_EQ(ave.host(), logf_ave.host());  // the kernel named logf_ave takes no logarithm
  expect_all(all_logs, out.host(), 2, "2ds_logf");
  expect_all(all_logs, inplace.host(), 2, "2ds_logf_inplace");
  expect_all(products, multi.host(), 0, "x2ds_multi_inplace");
  EXPECT_EQ(ave.host(), host_ave);
  EXPECT_EQ(ave_log.host(), host_ave_log);
  EXPECT_EQ(ave_log.host(), host_logf_ave);  // unlike the kernel, the host-stack form does take logarithms
}

// Each host twin and its device form from the same inputs: the result is o or a (in place).
#define RUN(call, result) [](float* o, float* a, const float* b) -> float* { call; return result; }

TEST(HostTwins, AgreeWithTheDeviceForms) {
  const Floats a = values(kPixels, -3.0f, 3.0f, 8), b = values(kPixels, 0.5f, 2.0f, 9);
  using Run = float* (*)(float*, float*, const float*);
  const std::vector<std::pair<Run, Run>> twins = {
      {RUN(cpu_2d_multi_add(o, a, kNx, kNy, kK, kC), o), RUN(hcuda_2d_multi_add(o, a, kNx, kNy, kK, kC), o)},
      {RUN(cpu_2d_multi_add_inplace(a, kNx, kNy, kK, kC), a), RUN(hcuda_2d_multi_add(o, a, kNx, kNy, kK, kC), o)},
      {RUN(cpu_2d_invert_inplace(a, kNx, kNy), a), RUN(hcuda_2d_invert_inplace(a, kNx, kNy), a)},
      {RUN(cpu_x2d_add_inplace(a, b, kNx, kNy), a), RUN(hcuda_x2d_add_inplace(a, b, kNx, kNy), a)},
      {RUN(gpu_x2d_sub_inplace(a, b, kNx, kNy), a), RUN(hcuda_x2d_sub_inplace(a, b, kNx, kNy), a)},
      {RUN(cpu_x2d_sub_inplace(a, b, kNx, kNy), a), RUN(hcuda_x2d_sub_inplace(a, b, kNx, kNy), a)},
      {RUN(cpu_x2d_multi_inplace(a, b, kNx, kNy), a), RUN(hcuda_x2d_multi_inplace(a, b, kNx, kNy), a)},
      {RUN(cpu_x2d_divide_inplace(a, b, kNx, kNy), a), RUN(hcuda_x2d_divide_inplace(a, b, kNx, kNy), a)},
      {RUN(cpu_2d_memset(a, 7.0f, kNx, kNy), a), RUN(hcuda_2d_memset(a, 7.0f, kNx, kNy), a)},
      {RUN(cpu_2d_empty(a, kNx, kNy), a), RUN(hcuda_2d_empty(a, kNx, kNy), a)},
  };
  for (std::size_t k = 0; k < twins.size(); ++k) {
    Floats ho(kPixels, -1.0f), ha = a, hb = b;
    const float* h = twins[k].first(ho.data(), ha.data(), hb.data());
    GuardedFloats out(Floats(kPixels, -1.0f), kSentinel), da(a, kSentinel), db(b, kSentinel);
    const float* d = twins[k].second(out.get(), da.get(), db.get());
    EXPECT_EQ(d == out.get() ? out.host() : da.host(), Floats(h, h + kPixels)) << "twin " << k;
  }
  using CxTwin = void (*)(float2*, const float2*, unsigned, unsigned);
  const std::pair<CxTwin, CxTwin> pairs[] = {{cpu_cxc_2d_add_inplace, hcuda_cxc_2d_add_inplace},
                                             {cpu_cxc_2d_sub_inplace, hcuda_cxc_2d_sub_inplace},
                                             {cpu_cxc_2d_multi_inplace, hcuda_cxc_2d_multi_inplace},
                                             {cpu_cxc_2d_divide_inplace, hcuda_cxc_2d_divide_inplace}};
  const Complexes ca = complexes(kPixels, 10), cb = complexes(kPixels, 12);
  for (const auto& [twin, launcher] : pairs) {
    Complexes h = ca;
    twin(h.data(), cb.data(), kNx, kNy);
    GuardedComplexes da(ca, pk_cx(kSentinel, 0)), db(cb, pk_cx(kSentinel, 0));
    launcher(da.get(), db.get(), kNx, kNy);
    EXPECT_EQ(0, std::memcmp(h.data(), da.host().data(), kPixels * sizeof(float2)));
  }
}
#undef RUN

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
  // The plain root of the power used by the image kernels overflows on the first value.
  GuardedComplexes in(Complexes(z.begin(), z.begin() + 1), pk_cx(0, 0));
  GuardedFloats plain(Floats(1), kSentinel);
  hcuda_c2d_mod(plain.get(), in.get(), 1, 1);
  EXPECT_EQ(kInf, plain.host()[0]);
}

TEST(ComplexKernels, FlatFunctionsAndTheirLettersUnknownOnesIgnored) {
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
  const std::vector<std::pair<char, void (*)(const float2*, float*, unsigned long)>> letters = {
      {'A', hcuda_complex_mod}, {'P', hcuda_complex_phi}, {'W', hcuda_complex_pow},
      {'L', hcuda_complex_logmod}, {'M', hcuda_complex_log1p_mod}, {'a', nullptr}, {'X', nullptr}, {'\0', nullptr},
      {'p', nullptr}};  // unknown letters leave the output as it was
  GuardedComplexes in(z, pk_cx(0, 0));
  for (const auto& [letter, direct] : letters) {
    GuardedFloats out(Floats(z.size(), -9.0f), kSentinel);
    hcuda_complex_proc(in.get(), out.get(), z.size(), letter);
    EXPECT_EQ(direct ? run_flat_complex(direct, z) : Floats(z.size(), -9.0f), out.host()) << "letter " << int(letter);
  }
}

TEST(ComplexKernels, ProductsQuotientsConjugatesAndRealMaps) {
  const Complexes a = complexes(kPixels, 15), b = complexes(kPixels, 17), stack = complexes(kPixels * 3, 23);
  const Floats r = values(kPixels, 0.5f, 2.0f, 19);
  const float2 none = pk_cx(kSentinel, kSentinel);
  GuardedComplexes da(a, none), db(b, none), out(Complexes(kPixels), none), io(a, none), divr(a, none), ds(stack, none);
  GuardedFloats dr(r, kSentinel), real(Floats(kPixels), kSentinel);
  // The forms written out: which products round on their own and which are fused.
  auto conj = [&](std::size_t i) {
    return pk_cx(std::fmaf(a[i].x, b[i].x, a[i].y * b[i].y), a[i].y * b[i].x - a[i].x * b[i].y);
  };
  auto scaled = [](float2 v, float k) { return pk_cx(v.x / k, v.y / k); };
  using Want = std::function<float2(std::size_t)>;
  const std::vector<std::tuple<const char*, std::function<void()>, const GuardedComplexes*, Want>> cases = {
      {"multi", [&] { hcuda_cxc_2d_multi(out.get(), da.get(), db.get(), kNx, kNy); }, &out,
       [&](std::size_t i) { return pk_cx(a[i].x * b[i].x - a[i].y * b[i].y, std::fmaf(b[i].y, a[i].x, a[i].y * b[i].x)); }},
      {"divide", [&] { hcuda_cxc_2d_divide(out.get(), da.get(), db.get(), kNx, kNy); }, &out,
       [&](std::size_t i) { return scaled(conj(i), std::fmaf(b[i].y, b[i].y, b[i].x * b[i].x)); }},
      {"multconj", [&] { hcuda_cxc_2d_multconj(out.get(), da.get(), db.get(), kNx, kNy); }, &out, conj},
      {"multconj_divide", [&] { hcuda_cxc_2d_multconj_divide(out.get(), da.get(), db.get(), kNx, kNy, 3.0f); }, &out,
       [&](std::size_t i) { return scaled(conj(i), 3.0f); }},
      {"add", [&] { hcuda_cxc_2d_add(out.get(), da.get(), db.get(), kNx, kNy); }, &out,
       [&](std::size_t i) { return pk_cx(a[i].x + b[i].x, a[i].y + b[i].y); }},
      {"sub", [&] { hcuda_cxc_2d_sub(out.get(), da.get(), db.get(), kNx, kNy); }, &out,
       [&](std::size_t i) { return pk_cx(a[i].x - b[i].x, a[i].y - b[i].y); }},
      {"multconj_inplace", [&] { hcuda_cxc_2d_multconj_inplace(io.get(), db.get(), kNx, kNy); }, &io, conj},
      {"cxr_multi", [&] { hcuda_cxr_2d_multi(out.get(), da.get(), dr.get(), kNx, kNy); }, &out,
       [&](std::size_t i) { return pk_cx(a[i].x * r[i], a[i].y * r[i]); }},
      {"cxr_divide", [&] { hcuda_cxr_2d_divide(out.get(), da.get(), dr.get(), kNx, kNy); }, &out,
       [&](std::size_t i) { return scaled(a[i], r[i]); }},
      {"complex2d_norm", [&] { hcuda_complex2d_norm(out.get(), da.get(), kNx, kNy, 3.0f); }, &out,
       [&](std::size_t i) { return scaled(a[i], 3.0f); }},
      {"c2d_divR_inplace", [&] { hcuda_c2d_divR_inplace(divr.get(), kNx, kNy, 3.0f); }, &divr,
       [&](std::size_t i) { return scaled(a[i], 3.0f); }},
      {"cxr_2ds_multi_inplace", [&] { hcuda_cxr_2ds_multi_inplace(ds.get(), dr.get(), kNx, kNy, 3); }, &ds,
       [&](std::size_t i) { return pk_cx(stack[i].x * r[i % kPixels], stack[i].y * r[i % kPixels]); }},  // every slice
  };
  for (const auto& [name, run, result, want] : cases) {
    run();
    const Complexes got = result->host();
    for (std::size_t i = 0; i < got.size(); ++i) {
      const float2 w = want(i);
      ASSERT_TRUE(bits(w.x) == bits(got[i].x) && bits(w.y) == bits(got[i].y)) << name << " at " << i;
    }
  }
  // Real maps of the power p, computed by one fused step.
  using Map = std::function<float(float)>;
  const std::vector<std::tuple<std::function<void()>, Map, int>> maps = {
      {[&] { hcuda_c2d_pow(real.get(), da.get(), kNx, kNy); }, [](float p) { return p; }, 0},
      {[&] { hcuda_c2d_mod(real.get(), da.get(), kNx, kNy); }, [](float p) { return std::sqrt(p); }, 0},
      {[&] { hcuda_c2d_logmod(real.get(), da.get(), kNx, kNy); }, [](float p) { return std::log(std::sqrt(p)); }, 2},
      {[&] { hcuda_c2d_logmod_1p(real.get(), da.get(), kNx, kNy); },
       [](float p) { return std::log(1.0f + std::sqrt(p)); }, 2},
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
