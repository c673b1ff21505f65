// Mirror padding and the band-pass filters.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
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

// ---------------------------------------------------------------------------------------------
// Mirror padding

TEST(MirrorPad, MirrorsIntoEveryQuadrantAndInverts) {
  const float a = 1, b = 2, c = 3, d = 4;
  float* d_small = to_device(std::vector<float>{a, b, c, d});
  float* d_small_pad = device_zeros<float>(16);
  hcuda_2d_mirror_pad(d_small_pad, d_small, 2, 2);
  EXPECT_EQ(to_host(d_small_pad, 16), (std::vector<float>{a, b, b, a, c, d, d, c, c, d, d, c, a, b, b, a}));
  cudaFree(d_small);
  cudaFree(d_small_pad);

  const unsigned nx = 37, ny = 5;  // odd rectangle
  const std::vector<float> h = random_image(nx * ny, 11);
  float* d_in = to_device(h);
  float* d_pad = device_zeros<float>(4 * nx * ny);
  float* d_back = to_device(std::vector<float>(nx * ny + 8, -9.0f));
  hcuda_2d_mirror_pad(d_pad, d_in, nx, ny);
  hcuda_2d_mirror_pad_inv(d_back, d_pad, nx, ny);
  const std::vector<float> back = to_host(d_back, nx * ny + 8);
  EXPECT_EQ(std::vector<float>(back.begin(), back.begin() + nx * ny), h);
  for (unsigned i = nx * ny; i < back.size(); ++i) EXPECT_EQ(back[i], -9.0f);  // nothing written past it
  // The padded image is continuous across its periodic wrap: last column equals the first.
  const std::vector<float> pad = to_host(d_pad, 4 * nx * ny);
  for (unsigned y = 0; y < 2 * ny; ++y) EXPECT_EQ(pad[y * 2 * nx + 2 * nx - 1], pad[y * 2 * nx]) << y;
  cudaFree(d_in);
  cudaFree(d_pad);
  cudaFree(d_back);
}

// ---------------------------------------------------------------------------------------------
// Radii and the weights of single elements

TEST(BandpassRadii, PickerDefaultsAndPreFilter) {
  // apix = 4 x 1.34, lp 40, hp 1000, n = 2048: 2048 x 5.36 = 10977.28; / 40 = 274.432; / 1000 = 10.97728.
  const float apix = 4.0f * 1.34f;
  EXPECT_NEAR(bandpass_lowpass_radius(2048, apix, 40.0f, 1000.0f), 274.432f, 1e-3f);
  EXPECT_NEAR(bandpass_highpass_radius(2048, apix, 40.0f, 1000.0f), 10.97728f, 1e-5f);
  // Swapped arguments give the same radii.
  EXPECT_EQ(bandpass_lowpass_radius(2048, apix, 1000.0f, 40.0f), bandpass_lowpass_radius(2048, apix, 40.0f, 1000.0f));
  EXPECT_EQ(bandpass_highpass_radius(2048, apix, 1000.0f, 40.0f),
            bandpass_highpass_radius(2048, apix, 40.0f, 1000.0f));
  // Pre-filter: the low-pass at twice the work pixel size lies at the Nyquist radius N.
  EXPECT_NEAR(bandpass_lowpass_radius(2048, apix, 4.0f * (2.0f * 1.34f), 1000.0f), 1024.0f, 1e-3f);
  // Negative rows count from the far edge.
  EXPECT_EQ(bandpass_radius(3, 60, 64), 5.0f);
  EXPECT_EQ(bandpass_radius(0, 32, 64), 32.0f);
}

// All-ones half spectrum of an n-sided transform.
std::vector<float2> ones_spectrum(int n) {
  return std::vector<float2>(static_cast<size_t>(n / 2 + 1) * n, make_float2(1.0f, 1.0f));
}

enum class Kernel { kSoft, kGauss, kSharp, kLow, kHigh };

void apply_kernel(Kernel k, std::vector<float2>& s, int n, float apix, float r1, float r2, float soft) {
  for (unsigned y = 0; y < static_cast<unsigned>(n) + 1; ++y)  // one row and column beyond, as a grid does
    for (unsigned x = 0; x < static_cast<unsigned>(n / 2) + 2; ++x) switch (k) {
        case Kernel::kSoft: cuda_c2d_bandpass_softR(x, y, s.data(), n, apix, r1, r2, soft); break;
        case Kernel::kGauss: cuda_c2d_bandpass_guas(x, y, s.data(), n, apix, r1, r2); break;
        case Kernel::kSharp: cuda_c2d_bandpass_sharp(x, y, s.data(), n, apix, r1, r2); break;
        case Kernel::kLow: cuda_c2d_lowpass_sharp(x, y, s.data(), n, apix, r1); break;
        case Kernel::kHigh: cuda_c2d_highpass_sharp(x, y, s.data(), n, apix, r1); break;
      }
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
    std::vector<float2> s = ones_spectrum(kN);
    apply_kernel(c.kernel, s, kN, 1.0f, 4.0f, 32.0f, kSoftEdge);
    const float2 v = s[c.y * (kN / 2 + 1) + c.x];
    const double tol = 1e-6 + 1e-5 * c.weight;
    EXPECT_NEAR(v.x, c.weight, tol) << "kernel " << static_cast<int>(c.kernel) << " at (" << c.x << ", " << c.y << ")";
    EXPECT_EQ(v.x, v.y);
  }
}

TEST(BandpassKernels, SwappedResolutionsGiveTheSameFilter) {
  for (Kernel k : {Kernel::kSoft, Kernel::kGauss, Kernel::kSharp}) {
    std::vector<float2> a = ones_spectrum(kN), b = ones_spectrum(kN);
    apply_kernel(k, a, kN, 1.3f, 5.0f, 40.0f, 3.0f);
    apply_kernel(k, b, kN, 1.3f, 40.0f, 5.0f, 3.0f);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float2)), 0) << "kernel " << static_cast<int>(k);
  }
}

// ---------------------------------------------------------------------------------------------
// Whole filters

// max |out - k in| over the image.
double max_deviation(const std::vector<float>& out, const std::vector<float>& in, double k) {
  double worst = 0.0;
  for (size_t i = 0; i < in.size(); ++i) worst = std::max(worst, std::fabs(out[i] - k * in[i]));
  return worst;
}

// cos(pi k (x + 1/2) / N) mirrors onto itself, so its padded copy holds the frequency k of the
// 2 N transform and nothing else: the padded filters must scale it by 4 N N times their weight.
std::vector<float> mirror_cosine(int N, int kx, int ky) {
  std::vector<float> img(static_cast<size_t>(N) * N);
  for (int y = 0; y < N; ++y)
    for (int x = 0; x < N; ++x)
      img[y * N + x] = static_cast<float>(std::cos(kPi * kx * (x + 0.5) / N) * std::cos(kPi * ky * (y + 0.5) / N));
  return img;
}

TEST(BandpassFilters, PaddedFiltersKeepFrequenciesInsideTheBandOnly) {
  // N = 32, so n = 64 and the radii are those of the kernel tests: R_hp 2, R_lp 16, soft 4.
  const int N = 32;
  struct Case {
    bool gauss;
    int kx, ky;
    double weight;
  };
  const Case cases[] = {
      {false, 6, 8, 1.0},  {false, 0, 2, 1.0},  {false, 16, 0, 1.0}, {false, 0, 17, soft_weight(1.0)},
      {false, 1, 0, 0.0},  {false, 0, 25, 0.0}, {false, 0, 0, 0.0}, {true, 6, 8, gauss_weight(10.0)},
      {true, 1, 0, 0.0},   {true, 16, 12, 0.0}, {true, 0, 0, 0.0},  // a constant image comes out as zeros
  };
  for (const Case& c : cases) {
    const std::vector<float> img = mirror_cosine(N, c.kx, c.ky);
    float* d = to_device(img);
    if (c.gauss)
      hcuda_2d_bandpass_guas_mpad_inplace(d, N, 1.0f, 32.0f, 4.0f);
    else
      hcuda_2d_bandpass_softR_mpad_inplace(d, N, 1.0f, 4.0f, 32.0f, kSoftEdge);
    const double scale = 4.0 * N * N;
    EXPECT_LT(max_deviation(to_host(d, img.size()), img, scale * c.weight), 1e-5 * scale)
        << (c.gauss ? "gauss" : "soft") << " (" << c.kx << ", " << c.ky << ")";
    cudaFree(d);
  }
}

TEST(BandpassFilters, PlainHostFormsKeepFrequenciesInsideTheBandOnly) {
  // N = 64, apix 1: resolution 6.4 at radius 10, resolution 32 at radius 2.
  const int N = 64;
  auto plane_wave = [&](int kx, int ky) {
    std::vector<float> img(static_cast<size_t>(N) * N);
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x) img[y * N + x] = static_cast<float>(std::cos(2.0 * kPi * (kx * x + ky * y) / N));
    return img;
  };
  enum Form { kSoftBelowOne, kSharp, kGauss };
  struct Case {
    Form form;
    int kx, ky;
    double weight;
  };
  // r = sqrt(104) = 10.2 lies within half a pixel of R_lp: a soft edge of 0.5 is not used.
  const Case cases[] = {{kSoftBelowOne, 10, 2, 0.0}, {kSoftBelowOne, 3, 4, 1.0}, {kSharp, 3, 4, 1.0},
                        {kSharp, 1, 0, 0.0},         {kSharp, 10, 2, 0.0},
                        {kGauss, 3, 4, gauss_weight(5.0, N, 10.0)}};
  for (const Case& c : cases) {
    const std::vector<float> img = plane_wave(c.kx, c.ky);
    std::vector<float> out = img;
    if (c.form == kSoftBelowOne) gpu_2d_bandpass_softR_inplace(out.data(), N, 1.0f, 6.4f, 32.0f, 0.5f);
    if (c.form == kSharp) gpu_2d_bandpass_sharp_inplace(out.data(), N, 1.0f, 32.0f, 6.4f);
    if (c.form == kGauss) gpu_2d_bandpass_guas_inplace(out.data(), N, 1.0f, 6.4f, 32.0f);
    const double scale = static_cast<double>(N) * N;
    EXPECT_LT(max_deviation(out, img, scale * c.weight), 1e-5 * scale)
        << "form " << c.form << " (" << c.kx << ", " << c.ky << ")";
  }
}

// ---------------------------------------------------------------------------------------------
// File to file

TEST(BandpassFile, WritesTheFilteredImagePassesUnknownTypesThroughRefusesRectangles) {
  TempDir dir;
  const int N = 32;
  const std::vector<float> img = random_image(N * N, 5);
  const std::string in = dir.file("in.mrc"), out = dir.file("out.mrc");
  mrcf_write_xyz_data(in.c_str(), img.data(), N, N, 1);

  mrcf_2d_bandpass(in.c_str(), out.c_str(), 2.0f, 8.0f, 100.0f, 0.0f, MRCF_BANDPASS_GAUSS_MPAD);
  int nx = 0, ny = 0, nz = 0;
  get_mrcf_xyz(nx, ny, nz, out.c_str());
  EXPECT_EQ((std::vector<int>{nx, ny, nz}), (std::vector<int>{N, N, 1}));
  float* written = mrcf_get_data_all(out.c_str());
  std::vector<float> expected(img.size());
  gpu_2d_bandpass_guas_mpad(img.data(), expected.data(), N, 2.0f, 8.0f, 100.0f);
  for (size_t i = 0; i < img.size(); ++i) ASSERT_NEAR(written[i], expected[i], 1e-4f) << i;
  std::free(written);

  mrcf_2d_bandpass(in.c_str(), out.c_str(), 2.0f, 8.0f, 100.0f, 0.0f, 9);
  written = mrcf_get_data_all(out.c_str());
  EXPECT_EQ(std::vector<float>(written, written + img.size()), img);
  std::free(written);

  const std::string rect = dir.file("rect.mrc");
  mrcf_write_xyz_data(rect.c_str(), img.data(), 8, 6, 1);
  EXPECT_EXIT_REPORT(mrcf_2d_bandpass(rect.c_str(), out.c_str(), 1.0f, 4.0f, 20.0f, 0.0f, 1),
                     "mrcf_2d_bandpass\\(\\), file src/image_filter on line [0-9]+: Can not do band-pass on "
                     "rectangle data. Must be square.! Exit now!");
}

}  // namespace
