// Mirror padding and the band-pass filters.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "image_filter/image_filter.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

// The quadrants of a square are pinned by the padded filters below: a mirror-symmetric cosine
// must pad into a single frequency. Here: an odd rectangle and the way back.
TEST(MirrorPad, RectangleIsContinuousAcrossTheWrapAndInverts) {
  const unsigned nx = 37, ny = 5;
  const std::vector<float> h = random_image(nx * ny, 11);
  float *d_in = to_device(h), *d_pad = device_zeros<float>(4 * nx * ny);
  float* d_back = to_device(std::vector<float>(nx * ny + 8, -9.0f));
  const DeviceFrees frees(d_in, d_pad, d_back);
  hcuda_2d_mirror_pad(d_pad, d_in, nx, ny);
  hcuda_2d_mirror_pad_inv(d_back, d_pad, nx, ny);
  std::vector<float> want = h;
  want.resize(nx * ny + 8, -9.0f);  // nothing written past the image
  EXPECT_EQ(to_host(d_back, nx * ny + 8), want);
  // The padded image is continuous across its periodic wrap: last column equals the first.
  const std::vector<float> pad = to_host(d_pad, 4 * nx * ny);
  for (unsigned y = 0; y < 2 * ny; ++y) EXPECT_EQ(pad[y * 2 * nx + 2 * nx - 1], pad[y * 2 * nx]) << y;
}

// The kernels below pin the radii at apix 1, the order of the resolutions and the rows counted
// from the far edge; this pins the pixel size, at the picker's defaults (4 x 1.34 A, 40 and 1000 A,
// n 2048): 2048 x 5.36 = 10977.28; / 40 = 274.432; / 1000 = 10.97728.
TEST(BandpassRadii, PickerDefaults) {
  EXPECT_NEAR(bandpass_lowpass_radius(2048, 4.0f * 1.34f, 40.0f, 1000.0f), 274.432f, 1e-3f);
  EXPECT_NEAR(bandpass_highpass_radius(2048, 4.0f * 1.34f, 40.0f, 1000.0f), 10.97728f, 1e-5f);
}

enum class Kernel { kSoft, kGauss };

// The kernel on every element of an all-ones half spectrum of an n-sided transform.
std::vector<float2> filtered_ones(Kernel k, int n, float apix, float r1, float r2, float soft) {
  std::vector<float2> s(static_cast<size_t>(n / 2 + 1) * n, make_float2(1.0f, 1.0f));
  for (unsigned y = 0; y < static_cast<unsigned>(n) + 1; ++y)  // one row and column beyond, as a grid does
    for (unsigned x = 0; x < static_cast<unsigned>(n / 2) + 2; ++x) switch (k) {
        case Kernel::kSoft: cuda_c2d_bandpass_softR(x, y, s.data(), n, apix, r1, r2, soft); break;
        case Kernel::kGauss: cuda_c2d_bandpass_guas(x, y, s.data(), n, apix, r1, r2); break;
      }
  return s;
}

// n = 64, apix 1: resolution 4 lies at radius 16 (R_lp), 32 at radius 2 (R_hp); soft edge 4.
constexpr int kN = 64;
constexpr float kSoftEdge = 4.0f;

double soft_weight(double d) {
  const double s = kSoftEdge / 3.0;
  return GAUSS_NORM * std::exp(-d * d / (2.0 * s * s));
}
// The Gaussian band of the kN-sided transform with R_hp 2 and R_lp 16.
double gauss_weight(double r) {
  const double m = kN / 2 + 1, s1 = 16.0 / 3.0, s2 = (m - 2.0) / 3.0;
  return GAUSS_NORM * std::exp(-r * r / (2 * s1 * s1)) * GAUSS_NORM * std::exp(-(m - r) * (m - r) / (2 * s2 * s2));
}

TEST(BandpassKernels, WeightsAtAndAroundTheCutOffs) {
  struct Case {
    Kernel kernel;
    unsigned x, y;  // r = sqrt(x^2 + fy^2)
    double weight;
  };
  using K = Kernel;
  const Case cases[] = {
      // Soft: zero below R_hp, untouched from R_hp to R_lp inclusive (a negative row counts from the
      // far edge), then the jump to GAUSS_NORM and the Gaussian edge, zero beyond R_lp + soft.
      {K::kSoft, 1, 0, 0.0}, {K::kSoft, 2, 0, 1.0}, {K::kSoft, 0, kN - 16, 1.0}, {K::kSoft, 17, 0, soft_weight(1.0)},
      {K::kSoft, 12, 16, soft_weight(kSoftEdge)}, {K::kSoft, 0, kN - 21, 0.0},
      // Gauss: each Gaussian at exp(-4.5) at its cut-off, zero outside.
      {K::kGauss, 1, 0, 0.0}, {K::kGauss, 2, 0, gauss_weight(2.0)}, {K::kGauss, 6, 8, gauss_weight(10.0)},
      {K::kGauss, 16, 0, gauss_weight(16.0)}, {K::kGauss, 17, 0, 0.0}};
  for (const Case& c : cases) {
    const float2 v = filtered_ones(c.kernel, kN, 1.0f, 4.0f, 32.0f, kSoftEdge)[c.y * (kN / 2 + 1) + c.x];
    EXPECT_NEAR(v.x, c.weight, 1e-6 + 1e-5 * c.weight)
        << "kernel " << static_cast<int>(c.kernel) << " at (" << c.x << ", " << c.y << ")";
    EXPECT_EQ(v.x, v.y);
  }
  for (Kernel k : {Kernel::kSoft, Kernel::kGauss}) {  // swapped resolutions: the same filter
    const auto a = filtered_ones(k, kN, 1.3f, 5.0f, 40.0f, 3.0f), b = filtered_ones(k, kN, 1.3f, 40.0f, 5.0f, 3.0f);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float2)), 0) << "kernel " << static_cast<int>(k);
  }
}

// A plane wave that a filter scales by its weight w must come out as `scale` w times itself:
// cos(pi k (x + 1/2) / N) mirrors onto itself, so its padded copy holds the frequency k of the
// 2 N transform and nothing else, scaled by 4 N N.
TEST(BandpassFilters, WholeFiltersKeepFrequenciesInsideTheBandOnly) {
  struct Case {
    bool soft;  // or Gaussian
    int kx, ky;
    double weight;
  };
  // N = 32, so n = 64 and the radii are those of the kernel tests: R_hp 2, R_lp 16, soft 4.
  const Case cases[] = {
      {true, 6, 8, 1.0}, {true, 0, 2, 1.0},   {true, 16, 0, 1.0},    {true, 0, 17, soft_weight(1.0)},
      {true, 1, 0, 0.0}, {true, 0, 25, 0.0},  {true, 0, 0, 0.0},     {false, 6, 8, gauss_weight(10.0)},
      {false, 1, 0, 0.0}, {false, 16, 12, 0.0}, {false, 0, 0, 0.0}};  // a constant image gives zeros
  for (const Case& c : cases) {
    const int N = 32;
    std::vector<float> img(static_cast<size_t>(N) * N);
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x)
        img[y * N + x] = static_cast<float>(std::cos(kPi * c.kx * (x + 0.5) / N) * std::cos(kPi * c.ky * (y + 0.5) / N));
    float* d = to_device(img);
    const DeviceFrees frees(d);
    if (c.soft) hcuda_2d_bandpass_softR_mpad_inplace(d, N, 1.0f, 4.0f, 32.0f, kSoftEdge);
    else hcuda_2d_bandpass_guas_mpad_inplace(d, N, 1.0f, 32.0f, 4.0f);
    const std::vector<float> out = to_host(d, img.size());
    const double scale = 4.0 * N * N;
    double worst = 0.0;
    for (size_t i = 0; i < img.size(); ++i) worst = std::fmax(worst, std::fabs(out[i] - scale * c.weight * img[i]));
    EXPECT_LT(worst, 1e-5 * scale) << (c.soft ? "soft" : "Gaussian") << " (" << c.kx << ", " << c.ky << ")";
  }
}

}  // namespace
