// The FFT layer (Part 6.2): transforms against a brute-force DFT, scaling, layouts, plan
// variants (in place, out of place, unaligned stack offsets), products, swaps, amplitude
// kernels, half/full conversions, weights, shifts, stacks and tiles.
//
// FFT rounding differs between backends (FFTW here, cuFFT on the GPU), so transforms are
// compared with tolerances; pure index moves are compared exactly.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/process2d_raw.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Helpers

template <class T>
T* to_device(const std::vector<T>& h) {
  T* d = nullptr;
  safe_cudaMalloc(&d, sizeof(T) * (h.empty() ? 1 : h.size()));
  if (!h.empty()) {
    EXPECT_EQ(memcpy_H2D(d, h.data(), sizeof(T) * h.size()), cudaSuccess);
  }
  return d;
}

template <class T>
T* device_zeros(size_t n) {
  T* d = nullptr;
  safe_cudaMalloc_empty(&d, sizeof(T) * n);
  return d;
}

template <class T>
std::vector<T> to_host(const T* d, size_t n) {
  std::vector<T> h(n);
  EXPECT_EQ(memcpy_D2H(h.data(), d, sizeof(T) * n), cudaSuccess);
  return h;
}

std::vector<float> random_image(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (auto& x : v) x = dist(gen);
  return v;
}

std::vector<float> positive_image(size_t n, unsigned seed) {
  std::vector<float> v = random_image(n, seed);
  for (auto& x : v) x = 1.5f + x;
  return v;
}

float max_abs(const std::vector<float>& v) {
  float m = 0.0f;
  for (float x : v) m = std::max(m, std::fabs(x));
  return m;
}

// |a - b| <= atol + rtol |b| element by element.
void expect_allclose(const std::vector<float>& a, const std::vector<float>& b, float atol, float rtol,
                     const std::string& what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (size_t i = 0; i < a.size(); ++i)
    ASSERT_LE(std::fabs(a[i] - b[i]), atol + rtol * std::fabs(b[i]))
        << what << ": element " << i << " is " << a[i] << ", expected " << b[i];
}

void expect_allclose(const std::vector<float2>& a, const std::vector<float2>& b, float atol, const std::string& what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (size_t i = 0; i < a.size(); ++i) {
    ASSERT_NEAR(a[i].x, b[i].x, atol) << what << ": real part of element " << i;
    ASSERT_NEAR(a[i].y, b[i].y, atol) << what << ": imaginary part of element " << i;
  }
}

// Brute-force forward DFT of a real nx x ny image in the half-spectrum layout, in double.
std::vector<std::complex<double>> dft_half(const std::vector<float>& f, unsigned nx, unsigned ny) {
  const unsigned nh = nx / 2 + 1;
  std::vector<std::complex<double>> out(static_cast<size_t>(nh) * ny);
  const double tau = 2.0 * 3.14159265358979323846;
  for (unsigned ky = 0; ky < ny; ++ky)
    for (unsigned kx = 0; kx < nh; ++kx) {
      std::complex<double> sum = 0.0;
      for (unsigned y = 0; y < ny; ++y)
        for (unsigned x = 0; x < nx; ++x) {
          const double phase = -tau * (static_cast<double>(kx) * x / nx + static_cast<double>(ky) * y / ny);
          sum += static_cast<double>(f[y * nx + x]) * std::complex<double>(std::cos(phase), std::sin(phase));
        }
      out[ky * nh + kx] = sum;
    }
  return out;
}

std::vector<float2> as_float2(const std::vector<std::complex<double>>& v, double scale = 1.0) {
  std::vector<float2> out(v.size());
  for (size_t i = 0; i < v.size(); ++i)
    out[i] = make_float2(static_cast<float>(v[i].real() * scale), static_cast<float>(v[i].imag() * scale));
  return out;
}

// Circular shift: out(x, y) = in(x - dx, y - dy).
std::vector<float> roll(const std::vector<float>& in, unsigned nx, unsigned ny, int dx, int dy) {
  std::vector<float> out(in.size());
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x) {
      const unsigned sx = static_cast<unsigned>(((static_cast<int>(x) - dx) % static_cast<int>(nx) + nx) % nx);
      const unsigned sy = static_cast<unsigned>(((static_cast<int>(y) - dy) % static_cast<int>(ny) + ny) % ny);
      out[y * nx + x] = in[sy * nx + sx];
    }
  return out;
}

// Row swap of a half-width array: out[(y + ny/2) % ny] = in[y].
std::vector<float> row_swap(const std::vector<float>& in, unsigned width, unsigned ny) {
  std::vector<float> out(in.size());
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < width; ++x) out[((y + ny / 2) % ny) * width + x] = in[y * width + x];
  return out;
}

// Moduli of the unscaled half spectrum of one image, rows swapped, through the device transform.
std::vector<float> swapped_amplitude(const std::vector<float>& img, unsigned nx, unsigned ny) {
  const unsigned nh = nx / 2 + 1;
  float* d_in = to_device(img);
  float2* d_spec = device_zeros<float2>(nh * ny);
  hcuda_2d_fft_r2c(d_in, d_spec, nx, ny);
  std::vector<float2> spec = to_host(d_spec, nh * ny);
  std::vector<float> amp(nh * ny);
  for (size_t i = 0; i < amp.size(); ++i) amp[i] = std::sqrt(spec[i].x * spec[i].x + spec[i].y * spec[i].y);
  cudaFree(d_in);
  cudaFree(d_spec);
  return row_swap(amp, nh, ny);
}

// Half array (row-swapped) to the full array, written from the spec's words.
std::vector<float> reference_half2full(const std::vector<float>& half, unsigned nx, unsigned ny) {
  const unsigned h = nx / 2, nh = h + 1;
  std::vector<float> full(static_cast<size_t>(nx) * ny);
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x)
      full[y * nx + x] = x + 1 < h ? half[((ny - y) % ny) * nh + (h - 1 - x)] : half[y * nh + (x + 1 - h)];
  return full;
}

std::vector<float> reference_full2half(const std::vector<float>& full, unsigned nx, unsigned ny) {
  const unsigned h = nx / 2, nh = h + 1;
  std::vector<float> half(static_cast<size_t>(nh) * ny);
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nh; ++x) half[y * nh + x] = full[y * nx + h + x - 1];
  return half;
}

std::vector<float> reference_box_mean(const std::vector<float>& a, int nx, int ny, int b) {
  std::vector<float> out(a.size());
  const int hb = b / 2;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      double sum = 0.0;
      int count = 0;
      for (int j = std::max(0, y - hb); j < std::min(ny, y + hb); ++j)
        for (int i = std::max(0, x - hb); i < std::min(nx, x + hb); ++i) {
          sum += a[j * nx + i];
          ++count;
        }
      out[y * nx + x] = static_cast<float>(sum / count);
    }
  return out;
}

// Background subtraction of a half array on its full form, from the spec's words.
std::vector<float> reference_subbg(const std::vector<float>& half, unsigned nh, unsigned ny, int box,
                                   bool clear_c0 = false) {
  const unsigned nx = 2 * (nh - 1);
  std::vector<float> full = reference_half2full(half, nx, ny);
  if (clear_c0) full[(ny / 2) * nx + nx / 2] = 0.0f;
  std::vector<float> bg = reference_box_mean(full, static_cast<int>(nx), static_cast<int>(ny), box);
  for (size_t i = 0; i < full.size(); ++i) full[i] -= bg[i];
  return reference_full2half(full, nx, ny);
}

// ---------------------------------------------------------------------------------------------
// Transforms

TEST(FftTransform, MatchesBruteForceDft) {
  struct Size {
    unsigned nx, ny;
  };
  for (Size s : {Size{6, 5}, Size{8, 8}, Size{5, 6}, Size{7, 3}, Size{2, 4}}) {
    const unsigned nh = s.nx / 2 + 1;
    std::vector<float> img = random_image(s.nx * s.ny, 100 + s.nx * 10 + s.ny);
    float* d_in = to_device(img);
    float2* d_out = device_zeros<float2>(nh * s.ny);
    hcuda_2d_fft_r2c(d_in, d_out, s.nx, s.ny);
    std::vector<float2> got = to_host(d_out, nh * s.ny);
    expect_allclose(got, as_float2(dft_half(img, s.nx, s.ny)), 2e-5f,
                    "r2c " + std::to_string(s.nx) + "x" + std::to_string(s.ny));
    // The forward transform leaves its input intact.
    EXPECT_EQ(to_host(d_in, img.size()), img);
    cudaFree(d_in);
    cudaFree(d_out);
  }
}

TEST(FftTransform, InverseIsTheUnscaledAdjoint) {
  // c2r of the exact spectrum of an image gives nx * ny times the image, odd and even sizes.
  struct Size {
    unsigned nx, ny;
  };
  for (Size s : {Size{6, 5}, Size{8, 8}, Size{5, 6}}) {
    const unsigned nh = s.nx / 2 + 1;
    std::vector<float> img = random_image(s.nx * s.ny, 7 + s.nx);
    float2* d_spec = to_device(as_float2(dft_half(img, s.nx, s.ny)));
    float* d_out = device_zeros<float>(s.nx * s.ny);
    hcuda_2d_fft_c2r(d_spec, d_out, s.nx, s.ny);
    std::vector<float> want(img);
    for (auto& v : want) v *= static_cast<float>(s.nx * s.ny);
    expect_allclose(to_host(d_out, img.size()), want, 1e-4f, 1e-5f, "c2r");
    (void)nh;
    cudaFree(d_spec);
    cudaFree(d_out);
  }
}

TEST(FftTransform, NormRoundTripGivesTheImage) {
  const unsigned nx = 48, ny = 30, nh = nx / 2 + 1;
  std::vector<float> img = random_image(nx * ny, 1);
  float* d_in = to_device(img);
  float2* d_spec = device_zeros<float2>(nh * ny);
  float* d_out = device_zeros<float>(nx * ny);
  hcuda_2d_fft_r2c_norm(d_in, d_spec, nx, ny);
  // The forward _norm spectrum is the unscaled one divided by sqrt(nx ny).
  std::vector<float2> spec = to_host(d_spec, nh * ny);
  EXPECT_NEAR(spec[0].x, std::accumulate(img.begin(), img.end(), 0.0) / std::sqrt(static_cast<double>(nx * ny)), 1e-4);
  hcuda_2d_fft_c2r_norm(d_spec, d_out, nx, ny);
  expect_allclose(to_host(d_out, nx * ny), img, 2e-6f, 2e-6f, "norm round trip");
  cudaFree(d_in);
  cudaFree(d_spec);
  cudaFree(d_out);
}

TEST(FftTransform, UnscaledRoundTripMultipliesByArea) {
  const unsigned nx = 40, ny = 34, nh = nx / 2 + 1;
  std::vector<float> img = random_image(nx * ny, 2);
  float* d_in = to_device(img);
  float2* d_spec = device_zeros<float2>(nh * ny);
  float* d_out = device_zeros<float>(nx * ny);
  hcuda_2d_fft_r2c(d_in, d_spec, nx, ny);
  hcuda_2d_fft_c2r(d_spec, d_out, nx, ny);
  std::vector<float> want(img);
  for (auto& v : want) v *= static_cast<float>(nx * ny);
  expect_allclose(to_host(d_out, nx * ny), want, 2e-3f, 2e-6f, "unscaled round trip");
  cudaFree(d_in);
  cudaFree(d_spec);
  cudaFree(d_out);
}

TEST(FftTransform, HalfSpectrumWidth) {
  EXPECT_EQ(fft_half_width(4096), 2049u);
  EXPECT_EQ(fft_half_width(2), 2u);
  EXPECT_EQ(fft_half_width(7), 4u);

  // A 4096 x 2 transform writes 2049 x 2 values and nothing past them.
  const unsigned nx = 4096, ny = 2, nh = 2049, pad = 64;
  std::vector<float> img = random_image(nx * ny, 3);
  float* d_in = to_device(img);
  float2* d_spec = to_device(std::vector<float2>(nh * ny + pad, make_float2(-99.0f, -99.0f)));
  hcuda_2d_fft_r2c(d_in, d_spec, nx, ny);
  std::vector<float2> spec = to_host(d_spec, nh * ny + pad);
  for (unsigned i = nh * ny; i < nh * ny + pad; ++i) ASSERT_EQ(spec[i].x, -99.0f) << i;
  // Spot checks against a direct sum: DC and Nyquist columns of both rows, and column 1.
  const double tau = 2.0 * 3.14159265358979323846;
  for (unsigned ky = 0; ky < ny; ++ky)
    for (unsigned kx : {0u, 1u, 2048u}) {
      std::complex<double> sum = 0.0;
      for (unsigned y = 0; y < ny; ++y)
        for (unsigned x = 0; x < nx; ++x) {
          const double ph = -tau * (static_cast<double>(kx) * x / nx + static_cast<double>(ky) * y / ny);
          sum += static_cast<double>(img[y * nx + x]) * std::complex<double>(std::cos(ph), std::sin(ph));
        }
      EXPECT_NEAR(spec[ky * nh + kx].x, sum.real(), 2e-3) << kx << " " << ky;
      EXPECT_NEAR(spec[ky * nh + kx].y, sum.imag(), 2e-3) << kx << " " << ky;
    }
  cudaFree(d_in);
  cudaFree(d_spec);

  // nx = 2: two columns.
  std::vector<float> tiny = {1.0f, 2.0f, 3.0f, 5.0f};  // 2 x 2
  float* d_tiny = to_device(tiny);
  float2* d_ts = to_device(std::vector<float2>(4 + 2, make_float2(-99.0f, -99.0f)));
  hcuda_2d_fft_r2c(d_tiny, d_ts, 2, 2);
  std::vector<float2> ts = to_host(d_ts, 6);
  expect_allclose(std::vector<float2>(ts.begin(), ts.begin() + 4), as_float2(dft_half(tiny, 2, 2)), 1e-5f, "2x2");
  EXPECT_EQ(ts[4].x, -99.0f);
  cudaFree(d_tiny);
  cudaFree(d_ts);
}

TEST(FftTransform, InPlaceWithPaddedRowsMatchesOutOfPlace) {
  // cuFFT's in-place layout: real rows padded to 2 * nh floats. Run from the start of a buffer
  // and from 8 bytes into one (aligned for float2, not for 16-byte vectors).
  for (unsigned offset : {0u, 2u}) {
    for (unsigned nx : {8u, 7u}) {
      const unsigned ny = 6, nh = nx / 2 + 1, stride = 2 * nh;
      std::vector<float> img = random_image(nx * ny, 21 + nx);
      std::vector<float> padded(offset + stride * ny, 0.0f);
      for (unsigned y = 0; y < ny; ++y)
        for (unsigned x = 0; x < nx; ++x) padded[offset + y * stride + x] = img[y * nx + x];
      float* d_base = to_device(padded);
      float* d_buf = d_base + offset;
      float2* d_c = reinterpret_cast<float2*>(d_buf);
      hcuda_2d_fft_r2c(d_buf, d_c, nx, ny);
      expect_allclose(to_host(d_c, nh * ny), as_float2(dft_half(img, nx, ny)), 2e-5f,
                      "in-place r2c, offset " + std::to_string(offset));
      hcuda_2d_fft_c2r(d_c, d_buf, nx, ny);
      std::vector<float> back = to_host(d_buf, stride * ny);
      for (unsigned y = 0; y < ny; ++y)
        for (unsigned x = 0; x < nx; ++x)
          ASSERT_NEAR(back[y * stride + x], img[y * nx + x] * nx * ny, 1e-4f)
              << "offset " << offset << ", nx " << nx << ": " << x << " " << y;
      cudaFree(d_base);
    }
  }
}

TEST(FftTransform, StackAtUnalignedOffsetsMatchesSingleTransforms) {
  // 5 x 3 images are 60 bytes apart and their 3 x 3 spectra 72 bytes apart, so images and
  // spectra after the first start off the 16-byte alignment of a fresh buffer.
  const unsigned nx = 5, ny = 3, n = 4, nh = nx / 2 + 1;
  std::vector<float> stack = random_image(nx * ny * n, 31);
  float* d_stack = to_device(stack);
  float2* d_specs = device_zeros<float2>(nh * ny * n);
  hcuda_2ds_fft_r2c(d_stack, d_specs, nx, ny, n);
  std::vector<float2> specs = to_host(d_specs, nh * ny * n);
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> img(stack.begin() + i * nx * ny, stack.begin() + (i + 1) * nx * ny);
    std::vector<float2> got(specs.begin() + i * nh * ny, specs.begin() + (i + 1) * nh * ny);
    expect_allclose(got, as_float2(dft_half(img, nx, ny)), 2e-5f, "stack image " + std::to_string(i));
  }
  // A single transform from a misaligned address of a buffer, in and out.
  float* d_big = device_zeros<float>(nx * ny + 1);
  float2* d_spec_big = device_zeros<float2>(nh * ny + 1);
  ASSERT_EQ(memcpy_H2D(d_big + 1, stack.data(), sizeof(float) * nx * ny), cudaSuccess);
  hcuda_2d_fft_r2c(d_big + 1, d_spec_big + 1, nx, ny);
  std::vector<float2> got = to_host(d_spec_big + 1, nh * ny);
  expect_allclose(got, std::vector<float2>(specs.begin(), specs.begin() + nh * ny), 1e-5f, "misaligned single");
  cudaFree(d_stack);
  cudaFree(d_specs);
  cudaFree(d_big);
  cudaFree(d_spec_big);
}

TEST(FftTransform, PlanServesManyBuffersAndBothPlacements) {
  const unsigned nx = 6, ny = 4, nh = nx / 2 + 1;
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  for (unsigned seed = 0; seed < 3; ++seed) {
    std::vector<float> img = random_image(nx * ny, 40 + seed);
    float* d_in = to_device(img);
    float2* d_out = device_zeros<float2>(nh * ny);
    hcuda_2d_fft_exec_r2c(plan, d_in, d_out);
    expect_allclose(to_host(d_out, nh * ny), as_float2(dft_half(img, nx, ny)), 2e-5f, "plan reuse");
    cudaFree(d_in);
    cudaFree(d_out);
  }
  hcuda_2d_fft_destroy(plan);
}

TEST(FftTransform, HostFormsScaleBySqrtArea) {
  const unsigned nx = 12, ny = 10, nh = nx / 2 + 1;
  const float norm = std::sqrt(static_cast<float>(nx * ny));
  std::vector<float> img = random_image(nx * ny, 50);
  std::vector<float2> spec(nh * ny);
  gpu_2d_fft_r2c(img.data(), spec.data(), nx, ny);
  expect_allclose(spec, as_float2(dft_half(img, nx, ny), 1.0 / norm), 5e-6f, "gpu_2d_fft_r2c");
  std::vector<float> back(nx * ny);
  gpu_2d_fft_c2r(spec.data(), back.data(), nx, ny);
  expect_allclose(back, img, 2e-6f, 2e-6f, "gpu_2d_fft_c2r");

  std::vector<float> mod(nh * ny);
  gpu_2d_fft_r2c_mod(img.data(), mod.data(), nx, ny);
  std::vector<std::complex<double>> ref = dft_half(img, nx, ny);
  std::vector<float> ref_mod(ref.size());
  for (size_t i = 0; i < ref.size(); ++i) ref_mod[i] = static_cast<float>(std::abs(ref[i]));
  expect_allclose(mod, ref_mod, 2e-5f, 1e-5f, "gpu_2d_fft_r2c_mod");

  const unsigned n = 3;
  std::vector<float> stack = random_image(nx * ny * n, 51);
  std::vector<float2> specs(nh * ny * n);
  testing::internal::CaptureStdout();
  gpu_2ds_fft_r2c(stack.data(), specs.data(), nx, ny, n);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ".");
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> img_i(stack.begin() + i * nx * ny, stack.begin() + (i + 1) * nx * ny);
    expect_allclose(std::vector<float2>(specs.begin() + i * nh * ny, specs.begin() + (i + 1) * nh * ny),
                    as_float2(dft_half(img_i, nx, ny), 1.0 / norm), 5e-6f, "gpu_2ds_fft_r2c");
  }
}

// ---------------------------------------------------------------------------------------------
// Products and swaps

TEST(FftProducts, MultconjWithItselfIsThePowerOverD) {
  const unsigned nx = 20, ny = 14, nh = nx / 2 + 1;
  const float d = 7.5f;
  std::vector<float> img = random_image(nx * ny, 60);
  float* d_img = to_device(img);
  float2* d_a = device_zeros<float2>(nh * ny);
  float2* d_out = device_zeros<float2>(nh * ny);
  hcuda_2d_fft_r2c(d_img, d_a, nx, ny);
  std::vector<float2> a = to_host(d_a, nh * ny);
  hcuda_c2d_multconj_norm(d_a, d_a, d_out, nh, ny, d);
  std::vector<float2> out = to_host(d_out, nh * ny);
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(out[i].y, 0.0f) << i;
    EXPECT_FLOAT_EQ(out[i].x, (a[i].x * a[i].x + a[i].y * a[i].y) / d) << i;
  }
  hcuda_c2d_multconj_norm_inplace(d_a, d_a, nh, ny, d);
  std::vector<float2> in_place = to_host(d_a, nh * ny);
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(in_place[i].x, out[i].x);
    EXPECT_EQ(in_place[i].y, out[i].y);
  }
  cudaFree(d_img);
  cudaFree(d_a);
  cudaFree(d_out);
}

TEST(FftProducts, MultconjFormula) {
  std::vector<float2> a = {make_float2(1.0f, 2.0f), make_float2(-3.0f, 0.5f)};
  std::vector<float2> b = {make_float2(4.0f, -1.0f), make_float2(2.0f, 2.0f)};
  float2* d_a = to_device(a);
  float2* d_b = to_device(b);
  float2* d_out = device_zeros<float2>(2);
  hcuda_c2d_multconj_norm(d_a, d_b, d_out, 2, 1, 2.0f);
  std::vector<float2> out = to_host(d_out, 2);
  // (1 + 2i)(4 + i) = 2 + 9i; (-3 + 0.5i)(2 - 2i) = -5 + 7i; both halved.
  EXPECT_FLOAT_EQ(out[0].x, 1.0f);
  EXPECT_FLOAT_EQ(out[0].y, 4.5f);
  EXPECT_FLOAT_EQ(out[1].x, -2.5f);
  EXPECT_FLOAT_EQ(out[1].y, 3.5f);
  cudaFree(d_a);
  cudaFree(d_b);
  cudaFree(d_out);
}

TEST(FftSwaps, SwapTwiceIsIdentityForEvenSizes) {
  struct Size {
    unsigned nx, ny;
  };
  for (Size s : {Size{64, 34}, Size{6, 4}, Size{70, 66}}) {
    std::vector<float> img = random_image(s.nx * s.ny, 70 + s.nx);
    float* d = to_device(img);
    hcuda_2d_swap_ccf_inplace(d, s.nx, s.ny);
    std::vector<float> once = to_host(d, img.size());
    EXPECT_EQ(once, roll(img, s.nx, s.ny, static_cast<int>(s.nx / 2), static_cast<int>(s.ny / 2)));
    hcuda_2d_swap_ccf_inplace(d, s.nx, s.ny);
    EXPECT_EQ(to_host(d, img.size()), img);
    cudaFree(d);
  }
}

TEST(FftSwaps, OutOfPlaceSwapsAndRowSwaps) {
  const unsigned nx = 7, ny = 5;  // odd sides: the out-of-place forms are plain mappings
  std::vector<float> img = random_image(nx * ny, 80);
  float* d_in = to_device(img);
  float* d_out = device_zeros<float>(nx * ny);
  hcuda_2d_swap_ccf(d_out, d_in, nx, ny);
  EXPECT_EQ(to_host(d_out, nx * ny), roll(img, nx, ny, 3, 2));
  hcuda_r2d_fc_swap(d_out, d_in, nx, ny);
  EXPECT_EQ(to_host(d_out, nx * ny), roll(img, nx, ny, 3, 2));
  hcuda_r2dh_fc_swap(d_out, d_in, nx, ny);
  EXPECT_EQ(to_host(d_out, nx * ny), row_swap(img, nx, ny));

  const unsigned ex = 9, ey = 6;  // half-width array, even rows
  std::vector<float> half = random_image(ex * ey, 81);
  float* d_half = to_device(half);
  hcuda_r2dh_fc_swap_inplace(d_half, ex, ey);
  EXPECT_EQ(to_host(d_half, ex * ey), row_swap(half, ex, ey));
  hcuda_r2d_fc_swap_inplace(d_half, ex, ey);  // nx odd: rows still swap by ny / 2, columns shift
  cudaFree(d_half);

  std::vector<float2> c(ex * ey);
  for (size_t i = 0; i < c.size(); ++i) c[i] = make_float2(static_cast<float>(i), -static_cast<float>(i));
  float2* d_c = to_device(c);
  hcuda_c2dh_fc_swap_inplace(d_c, ex, ey);
  std::vector<float2> cs = to_host(d_c, c.size());
  for (unsigned y = 0; y < ey; ++y)
    for (unsigned x = 0; x < ex; ++x) {
      EXPECT_EQ(cs[((y + ey / 2) % ey) * ex + x].x, c[y * ex + x].x);
      EXPECT_EQ(cs[((y + ey / 2) % ey) * ex + x].y, c[y * ex + x].y);
    }
  cudaFree(d_c);
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(FftSwaps, NormSwapAndComplexCenterSwap) {
  const unsigned nx = 8, ny = 6;
  std::vector<float> img = random_image(nx * ny, 90);
  float* d = to_device(img);
  hcuda_2d_swap_norm_ccf_inplace(d, nx, ny, 4.0f);
  std::vector<float> want = roll(img, nx, ny, 4, 3);
  for (auto& v : want) v /= 4.0f;
  EXPECT_EQ(to_host(d, nx * ny), want);
  cudaFree(d);

  const unsigned cx = 5, cy = 3, n = cx * cy;  // odd count: k = (i + 7) % 15
  std::vector<float2> c(n);
  for (unsigned i = 0; i < n; ++i) c[i] = make_float2(static_cast<float>(i), 1.0f + i);
  float2* d_in = to_device(c);
  float2* d_out = device_zeros<float2>(n);
  hcuda_complex2d_center_swap(d_out, d_in, cx, cy);
  std::vector<float2> out = to_host(d_out, n);
  for (unsigned i = 0; i < n; ++i) EXPECT_EQ(out[(i + n / 2) % n].x, c[i].x);
  hcuda_complex2d_center_swap_norm(d_out, d_in, cx, cy, 2.0f);
  out = to_host(d_out, n);
  for (unsigned i = 0; i < n; ++i) {
    EXPECT_EQ(out[(i + n / 2) % n].x, c[i].x / 2.0f);
    EXPECT_EQ(out[(i + n / 2) % n].y, c[i].y / 2.0f);
  }
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(FftCorrelation, ShiftedCopyPeaksAtCentrePlusShift) {
  const unsigned nx = 64, ny = 48, nh = nx / 2 + 1;
  struct Shift {
    int dx, dy;
  };
  std::vector<float> b = random_image(nx * ny, 100);
  for (Shift s : {Shift{5, -3}, Shift{-11, 7}, Shift{0, 0}}) {
    // a is b with its features displaced by (dx, dy).
    std::vector<float> a = roll(b, nx, ny, s.dx, s.dy);
    float* d_a = to_device(a);
    float* d_b = to_device(b);
    float2* d_fa = device_zeros<float2>(nh * ny);
    float2* d_fb = device_zeros<float2>(nh * ny);
    float2* d_cc = device_zeros<float2>(nh * ny);
    float* d_map = device_zeros<float>(nx * ny);
    hcuda_2d_fft_r2c(d_a, d_fa, nx, ny);
    hcuda_2d_fft_r2c(d_b, d_fb, nx, ny);
    hcuda_c2d_multconj_norm(d_fa, d_fb, d_cc, nh, ny, static_cast<float>(nx) * static_cast<float>(ny));
    hcuda_2d_fft_c2r(d_cc, d_map, nx, ny);
    hcuda_2d_swap_ccf_inplace(d_map, nx, ny);
    std::vector<float> map = to_host(d_map, nx * ny);
    const size_t peak = std::max_element(map.begin(), map.end()) - map.begin();
    EXPECT_EQ(peak % nx, static_cast<size_t>(static_cast<int>(nx / 2) + s.dx));
    EXPECT_EQ(peak / nx, static_cast<size_t>(static_cast<int>(ny / 2) + s.dy));
    // The peak holds the plain sum of squares of b.
    double sumsq = 0.0;
    for (float v : b) sumsq += static_cast<double>(v) * v;
    EXPECT_NEAR(map[peak], sumsq, 1e-3 * sumsq);
    cudaFree(d_a);
    cudaFree(d_b);
    cudaFree(d_fa);
    cudaFree(d_fb);
    cudaFree(d_cc);
    cudaFree(d_map);
  }
}

// ---------------------------------------------------------------------------------------------
// Amplitude kernels and half/full conversions

TEST(FftAmplitude, FlatKernelsWriteAtTheRowSwappedIndex) {
  const unsigned width = 3, rows = 4, n = width * rows;
  std::vector<float2> c(n);
  for (unsigned i = 0; i < n; ++i) c[i] = make_float2(3.0f * i, 4.0f * i);  // modulus 5 i
  float2* d_c = to_device(c);
  float* d_out = device_zeros<float>(n);
  hcuda_complex_mod_center_swap(d_out, d_c, n);
  std::vector<float> out = to_host(d_out, n);
  for (unsigned i = 0; i < n; ++i) EXPECT_FLOAT_EQ(out[(i + n / 2) % n], 5.0f * i);
  std::vector<float> mods(n);
  for (unsigned i = 0; i < n; ++i) mods[i] = 5.0f * i;
  expect_allclose(out, row_swap(mods, width, rows), 0.0f, 1e-6f, "row swap for an even number of rows");

  hcuda_complex_mod_addto_center_swap(d_out, d_c, n);
  out = to_host(d_out, n);
  for (unsigned i = 0; i < n; ++i) EXPECT_FLOAT_EQ(out[(i + n / 2) % n], 10.0f * i);

  hcuda_complex_mod_weighted_addto_center_swap(d_out, d_c, n, 0.5f);
  out = to_host(d_out, n);
  for (unsigned i = 0; i < n; ++i) EXPECT_FLOAT_EQ(out[(i + n / 2) % n], 12.5f * i);

  std::vector<float> W(n);
  for (unsigned k = 0; k < n; ++k) W[k] = static_cast<float>(k);
  float* d_W = to_device(W);
  hcuda_empty_f32(d_out, n);
  hcuda_complex_mod_Ws_addto_center_swap(d_out, d_c, n, d_W);
  out = to_host(d_out, n);
  for (unsigned i = 0; i < n; ++i) {
    const unsigned k = (i + n / 2) % n;
    EXPECT_FLOAT_EQ(out[k], 5.0f * i * W[k]);  // the weight of the destination
  }

  hcuda_complex_logmod_center_swap(d_out, d_c, n);
  out = to_host(d_out, n);
  EXPECT_TRUE(std::isinf(out[n / 2]) && out[n / 2] < 0.0f);  // element 0 has modulus 0
  for (unsigned i = 1; i < n; ++i) EXPECT_NEAR(out[(i + n / 2) % n], std::log(5.0f * i), 1e-6f);
  cudaFree(d_c);
  cudaFree(d_out);
  cudaFree(d_W);
}

TEST(FftAmplitude, HalfToFullAndBack) {
  const unsigned nx = 10, ny = 8, nh = nx / 2 + 1, h = nx / 2;
  std::vector<float> half(nh * ny);
  for (size_t i = 0; i < half.size(); ++i) half[i] = static_cast<float>(i) + 0.25f;
  float* d_half = to_device(half);
  float* d_full = device_zeros<float>(nx * ny);
  float* d_back = device_zeros<float>(nh * ny);
  hcuda_2d_fftA_half2full(d_full, d_half, nx, ny);
  std::vector<float> full = to_host(d_full, nx * ny);
  EXPECT_EQ(full, reference_half2full(half, nx, ny));
  // Half column 0 lands in full column h - 1, column 1 in column h; the Friedel mate mirrors rows.
  EXPECT_EQ(full[3 * nx + (h - 1)], half[3 * nh + 0]);
  EXPECT_EQ(full[3 * nx + h], half[3 * nh + 1]);
  EXPECT_EQ(full[3 * nx + 0], half[((ny - 3) % ny) * nh + (h - 1)]);
  EXPECT_EQ(full[0 * nx + 1], half[0 * nh + (h - 2)]);

  hcuda_2d_fftA_full2half(d_back, d_full, nx, ny);
  EXPECT_EQ(to_host(d_back, nh * ny), half);

  hcuda_2d_fftA_half2full_c0(d_full, d_half, nx, ny);
  std::vector<float> c0 = to_host(d_full, nx * ny);
  std::vector<float> want = reference_half2full(half, nx, ny);
  want[(ny / 2) * nx + h] = 0.0f;
  EXPECT_EQ(c0, want);
  cudaFree(d_half);
  cudaFree(d_full);
  cudaFree(d_back);
}

// ---------------------------------------------------------------------------------------------
// Spectral weights, shifts and averages

TEST(FftWeights, SpectrumAverageDeviceAndHost) {
  const unsigned w = 5, h = 3, n = 4;
  std::vector<float2> in(w * h * n);
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> dist(-2.0f, 2.0f);
  for (auto& v : in) v = make_float2(dist(gen), dist(gen));
  float2* d_in = to_device(in);
  float2* d_out = device_zeros<float2>(w * h);
  hcuda_c2ds_ave(d_out, d_in, w, h, n);
  std::vector<float2> dev = to_host(d_out, w * h);
  std::vector<float2> host(w * h);
  cpu_2ds_fftout_r2c_ave(in.data(), host.data(), w, h, n);
  for (unsigned i = 0; i < w * h; ++i) {
    float sx = 0.0f, sy = 0.0f;
    for (unsigned k = 0; k < n; ++k) {
      sx += in[k * w * h + i].x;
      sy += in[k * w * h + i].y;
    }
    EXPECT_EQ(host[i].x, sx / n);
    EXPECT_EQ(host[i].y, sy / n);
    EXPECT_EQ(dev[i].x, host[i].x);
    EXPECT_EQ(dev[i].y, host[i].y);
  }
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(FftWeights, IntegerShiftIsACircularRoll) {
  const unsigned nx = 16, ny = 12;
  const int sx = 3, sy = -2;
  std::vector<float> img = random_image(nx * ny, 110);
  // The ramp e^(+i phi) moves the picture by (-sx, -sy): out(x, y) = in(x + sx, y + sy).
  std::vector<float> want = roll(img, nx, ny, -sx, -sy);
  std::vector<float> out(nx * ny);
  gpu_2d_shift(img.data(), out.data(), nx, ny, sx, sy);
  expect_allclose(out, want, 2e-6f, 2e-6f, "gpu_2d_shift");
  gpu_2d_shift2(img.data(), out.data(), nx, ny, sx, sy);
  expect_allclose(out, want, 2e-6f, 2e-6f, "gpu_2d_shift2");
  std::vector<float> a(img);
  gpu_2d_shift_inplace(a.data(), nx, ny, sx, sy);
  expect_allclose(a, want, 2e-6f, 2e-6f, "gpu_2d_shift_inplace");

  float* d = to_device(img);
  hcuda_2d_shift_inplace(d, nx, ny, sx, sy);
  expect_allclose(to_host(d, nx * ny), want, 2e-6f, 2e-6f, "hcuda_2d_shift_inplace");
  cudaFree(d);

  // A half-pixel shift there and back returns the image up to the lost Nyquist terms' share.
  std::vector<float> half(nx * ny), back(nx * ny);
  gpu_2d_shift(img.data(), half.data(), nx, ny, 0.5f, 0.0f);
  gpu_2d_shift(half.data(), back.data(), nx, ny, -0.5f, 0.0f);
  double err = 0.0, norm = 0.0;
  for (unsigned i = 0; i < nx * ny; ++i) {
    err += (back[i] - img[i]) * (back[i] - img[i]);
    norm += img[i] * img[i];
  }
  EXPECT_LT(err, 0.2 * norm);
}

TEST(FftWeights, PhaseRampValues) {
  const unsigned nh = 5, ny = 4;  // nx = 8
  std::vector<float2> ones(nh * ny, make_float2(1.0f, 0.0f));
  float2* d_in = to_device(ones);
  float2* d_out = device_zeros<float2>(nh * ny);
  hcuda_c2dh_linear_Pshift(d_in, d_out, nh, ny, 1.0f, 1.0f);
  std::vector<float2> out = to_host(d_out, nh * ny);
  // Element (2, 3): fy = 3 - 4 = -1, phi = 2 pi (2 / 8 - 1 / 4) = 0.
  EXPECT_NEAR(out[3 * nh + 2].x, 1.0f, 1e-6f);
  EXPECT_NEAR(out[3 * nh + 2].y, 0.0f, 1e-6f);
  // Element (1, 0): phi = 2 pi / 8.
  EXPECT_NEAR(out[1].x, std::cos(3.14159265f / 4.0f), 1e-6f);
  EXPECT_NEAR(out[1].y, std::sin(3.14159265f / 4.0f), 1e-6f);
  // Element (0, 2): row ny / 2 counts as -2: phi = -pi.
  EXPECT_NEAR(out[2 * nh].x, -1.0f, 1e-6f);
  hcuda_c2dh_linear_Pshift_inplace(d_in, nh, ny, 1.0f, 1.0f);
  std::vector<float2> in_place = to_host(d_in, nh * ny);
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(in_place[i].x, out[i].x);
    EXPECT_EQ(in_place[i].y, out[i].y);
  }
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(FftWeights, RadialRampWithZeroFallWidth) {
  const unsigned nx = 16, nh = nx / 2 + 1, ny = 16;
  const float R = 0.25f;
  std::vector<float2> in(nh * ny, make_float2(1.0f, -2.0f));
  float2* d_in = to_device(in);
  float2* d_out = device_zeros<float2>(nh * ny);
  hcuda_c2dh_rweight(d_out, d_in, nh, ny, R, 0.0f);
  std::vector<float2> out = to_host(d_out, nh * ny);
  int below = 0, at = 0, beyond = 0;
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nh; ++x) {
      const float fx = static_cast<float>(x) / 16.0f;
      const float fy = static_cast<float>(y < ny / 2 ? y : ny - y) / 16.0f;
      const float r = std::sqrt(fx * fx + fy * fy);
      const float2 v = out[y * nh + x];
      if (r < R) {
        EXPECT_FLOAT_EQ(v.x, r) << x << " " << y;
        EXPECT_FLOAT_EQ(v.y, -2.0f * r) << x << " " << y;
        ++below;
      } else if (r == R) {
        EXPECT_EQ(v.x, R) << x << " " << y;  // factor rc exactly at r = rc
        EXPECT_EQ(v.y, -2.0f * R);
        ++at;
      } else {
        EXPECT_EQ(v.x, 0.0f) << x << " " << y;
        EXPECT_EQ(v.y, 0.0f) << x << " " << y;
        ++beyond;
      }
    }
  EXPECT_GT(below, 0);
  EXPECT_EQ(at, 3);  // (4, 0), (0, 4) and (0, 12): x^2 + y^2 = 16 has no other solution
  EXPECT_GT(beyond, 0);
  hcuda_c2dh_rweight_inplace(d_in, nh, ny, R, 0.0f);
  std::vector<float2> in_place = to_host(d_in, nh * ny);
  for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(in_place[i].x, out[i].x);
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(FftWeights, RadialRampFallAndCap) {
  // R above 0.5 is capped; with W > 0 and rc + W above 0.5 the fall width is 0.5 - rc = 0.
  EXPECT_EQ(fft_rweight_factor(8, 0, 9, 16, 0.7f, 0.1f), 0.5f);   // r = 0.5 = rc
  EXPECT_EQ(fft_rweight_factor(8, 4, 9, 16, 0.7f, 0.1f), 0.0f);   // beyond, s = 0
  EXPECT_EQ(fft_rweight_factor(4, 0, 9, 16, 0.7f, 0.1f), 0.25f);  // below: r
  // Gaussian fall: rc = 0.1, W = 0.3, s = 0.1, at r = 0.25 (x = 4 of nh = 9): d = 0.15.
  const float g = std::exp(0.15f * 0.15f / (-2.0f * 0.1f * 0.1f));
  EXPECT_NEAR(fft_rweight_factor(4, 0, 9, 16, 0.1f, 0.3f), 0.1f * g, 1e-6f);
}

TEST(FftWeights, RealImageRampMatchesTheChain) {
  const unsigned nx = 24, ny = 20, nh = nx / 2 + 1;
  std::vector<float> img = random_image(nx * ny, 120);
  float* d_in = to_device(img);
  float* d_out = device_zeros<float>(nx * ny);
  hcuda_r2d_rweight(d_out, d_in, nx, ny, 0.3f, 0.1f);
  std::vector<float> out = to_host(d_out, nx * ny);

  float2* d_spec = device_zeros<float2>(nh * ny);
  float* d_ref = device_zeros<float>(nx * ny);
  hcuda_2d_fft_r2c_norm(d_in, d_spec, nx, ny);
  hcuda_c2dh_rweight_inplace(d_spec, nh, ny, 0.3f, 0.1f);
  hcuda_2d_fft_c2r_norm(d_spec, d_ref, nx, ny);
  expect_allclose(out, to_host(d_ref, nx * ny), 1e-6f, 1e-6f, "rweight chain");
  // The mean is removed: the ramp is 0 at the origin.
  double mean = 0.0;
  for (float v : out) mean += v;
  EXPECT_NEAR(mean / (nx * ny), 0.0, 1e-6);

  hcuda_r2d_rweight_inplace(d_in, nx, ny, 0.3f, 0.1f);
  expect_allclose(to_host(d_in, nx * ny), out, 1e-6f, 1e-6f, "rweight in place");
  cudaFree(d_in);
  cudaFree(d_out);
  cudaFree(d_spec);
  cudaFree(d_ref);
}

TEST(FftWeightsDeathTest, OddSizeInRadialRampStops) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  float* d = device_zeros<float>(8 * 8);
  // The message goes to standard output; the child sends it to standard error for the matcher.
  EXPECT_EXIT(
      {
        dup2(2, 1);
        hcuda_r2d_rweight(d, d, 7, 8, 0.3f, 0.1f);
      },
      testing::ExitedWithCode(1),
      "Error in function hcuda_r2d_rweight\\(\\), file src/cuda_fft on line [0-9]+: 7 not an even number! Exit now!\n");
  EXPECT_EXIT(
      {
        dup2(2, 1);
        hcuda_r2d_rweight_inplace(d, 8, 5, 0.3f, 0.1f);
      },
      testing::ExitedWithCode(1), "5 not an even number! Exit now!");
  cudaFree(d);
}

TEST(FftWeights, LocalAmplitudeWeights) {
  const unsigned width = 9, ny = 16;
  const float a = 2.0f, b = 1.5f, c = 0.8f, d = 3.0f;
  std::vector<float> host(width * ny);
  cpu_2d_fft_amp_local_w2d_gen(host.data(), width, ny, a, b, c, d);
  EXPECT_EQ(host[(ny / 2) * width + 0], 1.0f);  // r = 0 at the row-swapped origin
  // (4, 8 + 4): fx = 0.25, fy = 0.25.
  const double r = std::sqrt(0.125), rc = r / c;
  EXPECT_NEAR(host[12 * width + 4], std::exp(-(0.5 * rc * rc * d * d) * (a * a / (2.0 * b * b))), 1e-6);

  float* d_w = device_zeros<float>(width * ny);
  hcuda_2d_fft_amp_local_w2d_gen(d_w, width, ny, a, b, c, d);
  expect_allclose(to_host(d_w, width * ny), host, 1e-7f, 1e-6f, "w2d device and host");

  std::vector<float> dist = {0.0f, 1.0f, 2.5f};
  float* d_dist = to_device(dist);
  float* d_ws = device_zeros<float>(width * ny * dist.size());
  hcuda_2ds_fft_amp_local_w2ds_gen(d_ws, width, ny, 3, d_dist, b, c, d);
  std::vector<float> ws = to_host(d_ws, width * ny * dist.size());
  for (unsigned i = 0; i < dist.size(); ++i) {
    cpu_2d_fft_amp_local_w2d_gen(host.data(), width, ny, dist[i], b, c, d);
    expect_allclose(std::vector<float>(ws.begin() + i * width * ny, ws.begin() + (i + 1) * width * ny), host, 1e-7f,
                    1e-6f, "w2ds slice");
  }
  float* d_w1 = device_zeros<float>(3);
  hcuda_2ds_fft_amp_local_w1d_gen(d_w1, 3, d_dist, b);
  std::vector<float> w1 = to_host(d_w1, 3);
  for (unsigned i = 0; i < 3; ++i) EXPECT_NEAR(w1[i], std::exp(dist[i] * dist[i] / (-2.0 * b * b)), 1e-6);

  std::vector<float> w1d(5);
  cpu_2d_fft_amp_local_w1d_gen(w1d.data(), 5, a, b, c, d);
  EXPECT_EQ(w1d[0], 1.0f);
  const double r4 = 4.0 / 8.0, rc4 = r4 / c;  // i / (2 n - 2) = 0.5 at the last element
  EXPECT_NEAR(w1d[4], std::exp(-(0.5 * rc4 * rc4 * d * d) * (a * a / (2.0 * b * b))), 1e-6);
  cudaFree(d_w);
  cudaFree(d_dist);
  cudaFree(d_ws);
  cudaFree(d_w1);
}

TEST(FftWeights, BFactors) {
  const unsigned width = 9, ny = 8;
  const float apix = 1.5f, B = 40.0f;
  std::vector<float> in = positive_image(width * ny, 130);
  std::vector<float> out(in.size()), usw(in.size());
  cpu_r2dh_fftA_appy_bfac(out.data(), in.data(), width, ny, apix, B);
  EXPECT_EQ(out[(ny / 2) * width], in[(ny / 2) * width]);  // origin of a swapped array
  // (8, 0): fx = 0.5, fy = -0.5.
  const double s2 = (0.25 + 0.25) / (apix * apix);
  EXPECT_NEAR(out[8], in[8] * std::exp(-s2 * B / 4.0), 1e-6);
  // An unswapped array's row y is the swapped array's row (y + ny/2) % ny.
  std::vector<float> unswapped = row_swap(in, width, ny);  // swapping twice = identity for even ny
  cpu_r2dh_usw_fftA_appy_bfac(usw.data(), unswapped.data(), width, ny, apix, B);
  EXPECT_EQ(row_swap(usw, width, ny), out);
  cpu_r2dh_usw_fftA_appy_bfac_inplace(unswapped.data(), width, ny, apix, B);
  EXPECT_EQ(unswapped, usw);
}

// ---------------------------------------------------------------------------------------------
// Stacks and tiles

TEST(FftStacks, AmplitudeSumOverCopiesIsNTimesTheAmplitude) {
  const unsigned nx = 18, ny = 12, nh = nx / 2 + 1, n = 3;
  std::vector<float> img = random_image(nx * ny, 140);
  std::vector<float> stack;
  for (unsigned i = 0; i < n; ++i) stack.insert(stack.end(), img.begin(), img.end());
  float* d_stack = to_device(stack);
  float* d_out = to_device(std::vector<float>(nh * ny, 123.0f));  // cleared first
  hcuda_2ds_fft_r2c_amp_ave(d_stack, d_out, nx, ny, n);
  std::vector<float> amp = swapped_amplitude(img, nx, ny);
  std::vector<float> want(amp);
  for (auto& v : want) v *= n;
  const float tol = 1e-5f * max_abs(want);
  expect_allclose(to_host(d_out, nh * ny), want, tol, 1e-5f, "amp_ave is a sum");

  hcuda_2ds_fft_r2c_amp_ave_sqrt(d_stack, d_out, nx, ny, n);
  std::vector<float> sq(want);
  for (auto& v : sq) v = std::sqrt(v);
  expect_allclose(to_host(d_out, nh * ny), sq, 1e-4f, 1e-5f, "amp_ave_sqrt");

  hcuda_2ds_fft_r2c_amp_ave_log(d_stack, d_out, nx, ny, n);
  std::vector<float> lg(want);
  for (auto& v : lg) v = std::log(v);
  expect_allclose(to_host(d_out, nh * ny), lg, 1e-4f, 1e-5f, "amp_ave_log");

  const std::vector<float> w = {1.0f, 2.0f, 0.5f};
  hcuda_2ds_fft_r2c_amp_weighted_ave(d_stack, d_out, nx, ny, n, w.data());
  std::vector<float> wsum(amp);
  for (auto& v : wsum) v *= 3.5f;
  expect_allclose(to_host(d_out, nh * ny), wsum, 1e-5f * max_abs(wsum), 1e-5f, "weighted sum");
  hcuda_2ds_fft_r2c_amp_weighted_ave_log(d_stack, d_out, nx, ny, n, w.data());
  for (auto& v : wsum) v = std::log(v);
  expect_allclose(to_host(d_out, nh * ny), wsum, 1e-4f, 1e-5f, "weighted sum log");
  cudaFree(d_stack);
  cudaFree(d_out);
}

TEST(FftStacks, ModPowAndLogmodPerImage) {
  const unsigned nx = 10, ny = 6, nh = nx / 2 + 1, n = 3;
  std::vector<float> stack = random_image(nx * ny * n, 150);
  float* d_stack = to_device(stack);
  float* d_out = device_zeros<float>(nh * ny * n);
  const float norm = std::sqrt(static_cast<float>(nx * ny));

  hcuda_2ds_fft_r2c_mod(d_stack, d_out, nx, ny, n);
  std::vector<float> mod = to_host(d_out, nh * ny * n);
  hcuda_2ds_fft_r2c_pow(d_stack, d_out, nx, ny, n);
  std::vector<float> pw = to_host(d_out, nh * ny * n);
  hcuda_2ds_fft_r2c_logmod(d_stack, d_out, nx, ny, n);
  std::vector<float> lm = to_host(d_out, nh * ny * n);
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> img(stack.begin() + i * nx * ny, stack.begin() + (i + 1) * nx * ny);
    std::vector<float> amp = swapped_amplitude(img, nx, ny);      // unscaled, rows swapped
    std::vector<float> m(amp), p(amp), l(row_swap(amp, nh, ny));  // logmod: no swap (ny even)
    for (auto& v : m) v /= norm;
    for (auto& v : p) v = v * v / static_cast<float>(nx * ny);
    for (auto& v : l) v = std::log(v);
    auto slice = [&](const std::vector<float>& s) {
      return std::vector<float>(s.begin() + i * nh * ny, s.begin() + (i + 1) * nh * ny);
    };
    expect_allclose(slice(mod), m, 1e-5f, 1e-5f, "mod");
    expect_allclose(slice(pw), p, 1e-5f, 1e-4f, "pow");
    expect_allclose(slice(lm), l, 1e-4f, 1e-5f, "logmod");
  }
  cudaFree(d_stack);
  cudaFree(d_out);
}

TEST(FftStacks, LogmodSubtractsTheSmoothedMean) {
  const unsigned nx = 16, ny = 12, nh = nx / 2 + 1, n = 3;
  const int box = 4;
  std::vector<float> stack = random_image(nx * ny * n, 160);
  float* d_stack = to_device(stack);
  float* d_out = device_zeros<float>(nh * ny * n);
  hcuda_2ds_fft_r2c_logmod_subbg(d_out, d_stack, nx, ny, n, box);
  std::vector<float> got = to_host(d_out, nh * ny * n);

  const float norm = std::sqrt(static_cast<float>(nx * ny));
  std::vector<std::vector<float>> logs(n);
  std::vector<float> mean(nh * ny, 0.0f);
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> img(stack.begin() + i * nx * ny, stack.begin() + (i + 1) * nx * ny);
    logs[i] = swapped_amplitude(img, nx, ny);
    for (size_t k = 0; k < logs[i].size(); ++k) {
      logs[i][k] = std::log(logs[i][k] / norm);
      mean[k] += logs[i][k];
    }
  }
  for (auto& v : mean) v /= n;
  std::vector<float> bg = reference_box_mean(mean, nh, ny, box);
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> want(logs[i]);
    for (size_t k = 0; k < want.size(); ++k) want[k] -= bg[k];
    expect_allclose(std::vector<float>(got.begin() + i * nh * ny, got.begin() + (i + 1) * nh * ny), want, 1e-4f, 1e-4f,
                    "logmod_subbg image " + std::to_string(i));
  }
  cudaFree(d_stack);
  cudaFree(d_out);
}

TEST(FftStacks, BoxesAreCutThenTransformed) {
  const unsigned nx = 40, ny = 30;
  const int b = 8;
  std::vector<float> img = random_image(nx * ny, 170);
  std::vector<int2> boxes = {make_int2(0, 0), make_int2(13, 7), make_int2(36, 25)};  // the last leaves the image
  const int count = static_cast<int>(boxes.size());
  const unsigned nh = b / 2 + 1;
  float* d_img = to_device(img);
  float* d_out = device_zeros<float>(nh * b * count);
  hcuda_2d_boxes_fft_r2c_mod(d_out, boxes.data(), count, b, d_img, nx, ny);
  std::vector<float> got = to_host(d_out, nh * b * count);

  std::vector<float> cut(b * b * count);
  cpu_2d_extract_smalls_from_large(cut.data(), b, b, count, img.data(), nx, ny, boxes.data());
  float* d_cut = to_device(cut);
  float* d_ref = device_zeros<float>(nh * b * count);
  hcuda_2ds_fft_r2c_mod(d_cut, d_ref, b, b, count);
  EXPECT_EQ(got, to_host(d_ref, nh * b * count));
  cudaFree(d_img);
  cudaFree(d_out);
  cudaFree(d_cut);
  cudaFree(d_ref);
}

TEST(FftStacks, WeightedLogSubbgTypes) {
  const unsigned nx = 16, ny = 10, nh = nx / 2 + 1, n = 3, plane = nh * ny;
  const int box = 5;
  std::vector<float> stack = random_image(nx * ny * n, 180);
  const std::vector<float> w = {0.5f, 1.0f, 2.0f};
  float* d_stack = to_device(stack);
  float* d_out = device_zeros<float>(plane);
  float* d_w = to_device(w);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_w, 1);
  std::vector<float> type1 = to_host(d_out, plane);

  // Reference: the weighted sum, its log, and the background subtraction.
  std::vector<float> sum(plane, 0.0f);
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> img(stack.begin() + i * nx * ny, stack.begin() + (i + 1) * nx * ny);
    std::vector<float> amp = swapped_amplitude(img, nx, ny);
    for (unsigned k = 0; k < plane; ++k) sum[k] += amp[k] * w[i];
  }
  for (auto& v : sum) v = std::log(v);
  expect_allclose(type1, reference_subbg(sum, nh, ny, box), 1e-4f, 1e-4f, "type 1");

  // Type 2 with every element of image i weighted w[i] gives the same.
  std::vector<float> W(plane * n);
  for (unsigned i = 0; i < n; ++i) std::fill(W.begin() + i * plane, W.begin() + (i + 1) * plane, w[i]);
  float* d_W = to_device(W);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_W, 2);
  expect_allclose(to_host(d_out, plane), type1, 1e-6f, 1e-6f, "type 2");

  // Unweighted form = type 1 with weights of 1.
  std::vector<float> ones(n, 1.0f);
  float* d_ones = to_device(ones);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_ones, 1);
  std::vector<float> unit = to_host(d_out, plane);
  hcuda_2ds_fft_r2c_amp_ave_log_subbg(d_stack, d_out, nx, ny, n, box);
  expect_allclose(to_host(d_out, plane), unit, 1e-6f, 1e-6f, "amp_ave_log_subbg");
  cudaFree(d_stack);
  cudaFree(d_out);
  cudaFree(d_w);
  cudaFree(d_W);
  cudaFree(d_ones);
}

TEST(FftStacksDeathTest, UnknownAverageTypeIsFatal) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  float* d = device_zeros<float>(8 * 8 * 2);
  EXPECT_EXIT(
      {
        dup2(2, 1);
        hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d, d, 8, 8, 1, 3, d, 3);
      },
      testing::ExitedWithCode(1),
      "\033\\[41mError in function hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg\\(\\), file src/cuda_fft on line "
      "[0-9]+: Unkown FFT amplitude average type! Exit now!\033\\[m");
  cudaFree(d);
}

TEST(FftStacks, HalfArrayBackgroundSubtraction) {
  const unsigned nh = 9, ny = 12, nx = 2 * (nh - 1);
  const int box = 5;
  std::vector<float> half = positive_image(nh * ny, 190);
  float* d_in = to_device(half);
  float* d_out = device_zeros<float>(nh * ny);
  hcuda_2dh_fftA_subbg(d_out, d_in, nh, ny, box);
  std::vector<float> want = reference_subbg(half, nh, ny, box);
  expect_allclose(to_host(d_out, nh * ny), want, 1e-5f, 1e-5f, "subbg");
  hcuda_2dh_fftA_subbg_inplace(d_in, nh, ny, box);
  expect_allclose(to_host(d_in, nh * ny), want, 1e-5f, 1e-5f, "subbg in place");

  float* d_a = to_device(half);
  hcuda_2dh_fft_amp_log_subbg_inplace(d_a, nh, ny, box);
  std::vector<float> lg(half);
  for (auto& v : lg) v = std::log(v);
  expect_allclose(to_host(d_a, nh * ny), reference_subbg(lg, nh, ny, box), 1e-5f, 1e-5f, "log subbg");
  (void)nx;
  cudaFree(d_in);
  cudaFree(d_out);
  cudaFree(d_a);
}

TEST(FftTiles, GridSumsTheTileAmplitudes) {
  const unsigned nx = 41, ny = 36, bx = 16, by = 12, step = 8, nh = bx / 2 + 1, plane = nh * by;
  const int box = 4;
  // gx = (41 - 16) / 8 + 1 = 4, gy = (36 - 12) / 8 + 1 = 4.
  std::vector<float> img = random_image(nx * ny, 200);
  std::vector<int2> corners;
  for (unsigned r = 0; r < 4; ++r)
    for (unsigned c = 0; c < 4; ++c)
      corners.push_back(make_int2(static_cast<int>(c * step), static_cast<int>(r * step)));
  std::vector<float> tiles(bx * by * corners.size());
  cpu_2d_extract_smalls_from_large(tiles.data(), bx, by, static_cast<int>(corners.size()), img.data(), nx, ny,
                                   corners.data());
  float* d_tiles = to_device(tiles);
  float* d_ref = device_zeros<float>(plane);
  hcuda_2ds_fft_r2c_amp_ave(d_tiles, d_ref, bx, by, static_cast<unsigned>(corners.size()));
  std::vector<float> ref = to_host(d_ref, plane);

  float* d_img = to_device(img);
  float* d_amp = to_device(std::vector<float>(plane, 5.0f));
  hcuda_2d_gridfft_r2c_amp_ave(d_img, d_amp, nx, ny, bx, by, step, 12345);
  std::vector<float> amp = to_host(d_amp, plane);
  expect_allclose(amp, ref, 1e-5f * max_abs(ref), 1e-6f, "grid amplitude sum");

  std::vector<float> log_ref(amp);
  for (auto& v : log_ref) v = std::log(v);
  std::vector<float> sub_ref = reference_subbg(log_ref, nh, by, box);
  std::vector<float> sub_c0_ref = reference_subbg(log_ref, nh, by, box, true);

  float* d_sub = device_zeros<float>(plane);
  float* d_log = device_zeros<float>(plane);
  float* d_amp3 = device_zeros<float>(plane);
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg(d_img, d_sub, nx, ny, bx, by, step, box);
  expect_allclose(to_host(d_sub, plane), sub_ref, 1e-5f, 1e-5f, "gridfft log_subbg");

  hcuda_2d_gridfft_r2c_amp_ave_log_subbg2(d_img, d_sub, d_log, nx, ny, bx, by, step, box);
  expect_allclose(to_host(d_sub, plane), sub_ref, 1e-5f, 1e-5f, "gridfft log_subbg2 subtracted");
  expect_allclose(to_host(d_log, plane), log_ref, 1e-6f, 1e-6f, "gridfft log_subbg2 log sum");

  hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(d_img, d_amp3, d_log, d_sub, nx, ny, bx, by, step, box);
  expect_allclose(to_host(d_amp3, plane), amp, 1e-6f * max_abs(amp), 1e-6f, "gridfft log_subbg3 amplitude sum");
  expect_allclose(to_host(d_log, plane), log_ref, 1e-6f, 1e-6f, "gridfft log_subbg3 log sum");
  std::vector<float> sub3 = to_host(d_sub, plane);
  expect_allclose(sub3, sub_c0_ref, 1e-5f, 1e-5f, "gridfft log_subbg3 subtracted");
  // The cleared element changes the background near it only.
  EXPECT_GT(std::fabs(sub3[(by / 2) * nh + 1] - sub_ref[(by / 2) * nh + 1]), 1e-3f);

  for (float* p : {d_tiles, d_ref, d_img, d_amp, d_sub, d_log, d_amp3}) cudaFree(p);
}

TEST(FftTiles, ImageSmallerThanATileGivesAnEmptySum) {
  const unsigned bx = 16, by = 16, plane = (bx / 2 + 1) * by;
  float* d_img = device_zeros<float>(8 * 8);
  float* d_out = to_device(std::vector<float>(plane, 3.0f));
  hcuda_2d_gridfft_r2c_amp_ave(d_img, d_out, 8, 8, bx, by, 4, 0);
  for (float v : to_host(d_out, plane)) EXPECT_EQ(v, 0.0f);
  cudaFree(d_img);
  cudaFree(d_out);
}

}  // namespace
