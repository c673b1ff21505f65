// Mirror padding and the band-pass filters.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "image_filter/image_filter.h"
#include "mrcfile/mrcfile.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

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

enum class Kernel { kSoft, kGauss, kSharp, kLow, kHigh };

// The kernel on every element of an all-ones half spectrum of an n-sided transform.
std::vector<float2> filtered_ones(Kernel k, int n, float apix, float r1, float r2, float soft) {
  std::vector<float2> s(static_cast<size_t>(n / 2 + 1) * n, make_float2(1.0f, 1.0f));
  for (unsigned y = 0; y < static_cast<unsigned>(n) + 1; ++y)  // one row and column beyond, as a grid does
    for (unsigned x = 0; x < static_cast<unsigned>(n / 2) + 2; ++x) switch (k) {
        case Kernel::kSoft: cuda_c2d_bandpass_softR(x, y, s.data(), n, apix, r1, r2, soft); break;
        case Kernel::kGauss: cuda_c2d_bandpass_guas(x, y, s.data(), n, apix, r1, r2); break;
        case Kernel::kSharp: cuda_c2d_bandpass_sharp(x, y, s.data(), n, apix, r1, r2); break;
        case Kernel::kLow: cuda_c2d_lowpass_sharp(x, y, s.data(), n, apix, r1); break;
        case Kernel::kHigh: cuda_c2d_highpass_sharp(x, y, s.data(), n, apix, r1); break;
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
// The Gaussian band of an n-sided transform with R_hp 2 and the given R_lp.
double gauss_weight(double r, int n = kN, double r_lp = 16.0) {
  const double m = n / 2 + 1, s1 = r_lp / 3.0, s2 = (m - 2.0) / 3.0;
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
      {K::kGauss, 16, 0, gauss_weight(16.0)}, {K::kGauss, 17, 0, 0.0},
      // Sharp edges are inclusive.
      {K::kSharp, 1, 0, 0.0}, {K::kSharp, 2, 0, 1.0}, {K::kSharp, 16, 0, 1.0}, {K::kSharp, 17, 0, 0.0},
      {K::kLow, 16, 0, 1.0}, {K::kLow, 0, kN - 17, 0.0}, {K::kHigh, 16, 0, 1.0}, {K::kHigh, 15, 0, 0.0}};
  for (const Case& c : cases) {
    const float2 v = filtered_ones(c.kernel, kN, 1.0f, 4.0f, 32.0f, kSoftEdge)[c.y * (kN / 2 + 1) + c.x];
    EXPECT_NEAR(v.x, c.weight, 1e-6 + 1e-5 * c.weight)
        << "kernel " << static_cast<int>(c.kernel) << " at (" << c.x << ", " << c.y << ")";
    EXPECT_EQ(v.x, v.y);
  }
  for (Kernel k : {Kernel::kSoft, Kernel::kGauss, Kernel::kSharp}) {  // swapped resolutions: the same filter
    const auto a = filtered_ones(k, kN, 1.3f, 5.0f, 40.0f, 3.0f), b = filtered_ones(k, kN, 1.3f, 40.0f, 5.0f, 3.0f);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float2)), 0) << "kernel " << static_cast<int>(k);
  }
}

// A plane wave that a filter scales by its weight w must come out as `scale` w times itself.
// Padded forms: cos(pi k (x + 1/2) / N) mirrors onto itself, so its padded copy holds the
// frequency k of the 2 N transform and nothing else, scaled by 4 N N. Plain forms: the frequency
// k of the N transform, scaled by N N.
TEST(BandpassFilters, WholeFiltersKeepFrequenciesInsideTheBandOnly) {
  enum Form { kSoftMpad, kGaussMpad, kSoftBelowOne, kSharp, kGauss };
  struct Case {
    Form form;
    int kx, ky;
    double weight;
  };
  // Padded: N = 32, so n = 64 and the radii are those of the kernel tests: R_hp 2, R_lp 16, soft 4.
  // Plain: N = 64, resolution 6.4 at radius 10, 32 at radius 2; r = sqrt(104) = 10.2 lies within
  // half a pixel of R_lp, so a soft edge of 0.5 is not used.
  const Case cases[] = {
      {kSoftMpad, 6, 8, 1.0}, {kSoftMpad, 0, 2, 1.0}, {kSoftMpad, 16, 0, 1.0}, {kSoftMpad, 0, 17, soft_weight(1.0)},
      {kSoftMpad, 1, 0, 0.0}, {kSoftMpad, 0, 25, 0.0}, {kSoftMpad, 0, 0, 0.0}, {kGaussMpad, 6, 8, gauss_weight(10.0)},
      {kGaussMpad, 1, 0, 0.0}, {kGaussMpad, 16, 12, 0.0}, {kGaussMpad, 0, 0, 0.0},  // a constant image gives zeros
      {kSoftBelowOne, 10, 2, 0.0}, {kSoftBelowOne, 3, 4, 1.0}, {kSharp, 3, 4, 1.0}, {kSharp, 1, 0, 0.0},
      {kSharp, 10, 2, 0.0}, {kGauss, 3, 4, gauss_weight(5.0, 64, 10.0)}};
  for (const Case& c : cases) {
    const bool padded = c.form == kSoftMpad || c.form == kGaussMpad;
    const int N = padded ? 32 : 64;
    std::vector<float> img(static_cast<size_t>(N) * N);
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x)
        img[y * N + x] =
            static_cast<float>(padded ? std::cos(kPi * c.kx * (x + 0.5) / N) * std::cos(kPi * c.ky * (y + 0.5) / N)
                                      : std::cos(2.0 * kPi * (c.kx * x + c.ky * y) / N));
    std::vector<float> out = img;
    float* d = to_device(img);
    const DeviceFrees frees(d);
    if (c.form == kSoftMpad) hcuda_2d_bandpass_softR_mpad_inplace(d, N, 1.0f, 4.0f, 32.0f, kSoftEdge);
    if (c.form == kGaussMpad) hcuda_2d_bandpass_guas_mpad_inplace(d, N, 1.0f, 32.0f, 4.0f);
    if (padded) out = to_host(d, img.size());
    if (c.form == kSoftBelowOne) gpu_2d_bandpass_softR_inplace(out.data(), N, 1.0f, 6.4f, 32.0f, 0.5f);
    if (c.form == kSharp) gpu_2d_bandpass_sharp_inplace(out.data(), N, 1.0f, 32.0f, 6.4f);
    if (c.form == kGauss) gpu_2d_bandpass_guas_inplace(out.data(), N, 1.0f, 6.4f, 32.0f);
    const double scale = (padded ? 4.0 : 1.0) * N * N;
    double worst = 0.0;
    for (size_t i = 0; i < img.size(); ++i) worst = std::fmax(worst, std::fabs(out[i] - scale * c.weight * img[i]));
    EXPECT_LT(worst, 1e-5 * scale) << "form " << c.form << " (" << c.kx << ", " << c.ky << ")";
  }
}

TEST(BandpassFile, WritesTheFilteredImagePassesUnknownTypesThroughRefusesRectangles) {
  TempDir dir;
  const int N = 32;
  const std::vector<float> img = random_image(N * N, 5);
  const std::string in = dir.file("in.mrc"), out = dir.file("out.mrc"), rect = dir.file("rect.mrc");
  mrcf_write_xyz_data(in.c_str(), img.data(), N, N, 1);
  std::vector<float> expected(img.size()), written(img.size());
  gpu_2d_bandpass_guas_mpad(img.data(), expected.data(), N, 2.0f, 8.0f, 100.0f);
  mrcf_2d_bandpass(in.c_str(), out.c_str(), 2.0f, 8.0f, 100.0f, 0.0f, MRCF_BANDPASS_GAUSS_MPAD);
  ASSERT_EQ(mrcf_read_data_check_xyz(out.c_str(), written.data(), N, N, 1), 0);
  for (size_t i = 0; i < img.size(); ++i) ASSERT_NEAR(written[i], expected[i], 1e-4f) << i;
  mrcf_2d_bandpass(in.c_str(), out.c_str(), 2.0f, 8.0f, 100.0f, 0.0f, 9);
  ASSERT_EQ(mrcf_read_data_check_xyz(out.c_str(), written.data(), N, N, 1), 0);
  EXPECT_EQ(written, img);
  mrcf_write_xyz_data(rect.c_str(), img.data(), 8, 6, 1);
  EXPECT_EXIT_REPORT(mrcf_2d_bandpass(rect.c_str(), out.c_str(), 1.0f, 4.0f, 20.0f, 0.0f, 1),
                     "mrcf_2d_bandpass\\(\\), file src/image_filter on line [0-9]+: Can not do band-pass on "
                     "rectangle data. Must be square.! Exit now!");
}

}  // namespace
