// The FFT layer. Transforms are compared with a brute-force DFT under tolerances (FFTW here,
// cuFFT on the GPU round differently); pure index moves are compared exactly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <initializer_list>
#include <numeric>
#include <string>
#include <vector>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

void free_all(std::initializer_list<void*> ps) {
  for (void* p : ps) cudaFree(p);
}

template <class T>
std::vector<T> slice(const std::vector<T>& v, size_t i, size_t len) {
  return std::vector<T>(v.begin() + i * len, v.begin() + (i + 1) * len);
}

template <class F>
std::vector<float> mapped(std::vector<float> v, F f) {
  for (auto& x : v) x = f(x);
  return v;
}

std::vector<float> log_of(const std::vector<float>& v) {
  return mapped(v, [](float x) { return std::log(x); });
}

float max_abs(const std::vector<float>& v) {
  float m = 0.0f;
  for (float x : v) m = std::max(m, std::fabs(x));
  return m;
}

// |a - b| <= atol + rtol |b| element by element; complex arrays part by part.
void expect_allclose(const std::vector<float>& a, const std::vector<float>& b, float atol, float rtol,
                     const std::string& what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (size_t i = 0; i < a.size(); ++i)
    ASSERT_LE(std::fabs(a[i] - b[i]), atol + rtol * std::fabs(b[i])) << what << ": element " << i;
}

std::vector<float> parts(const std::vector<float2>& c) {
  return std::vector<float>(reinterpret_cast<const float*>(c.data()), reinterpret_cast<const float*>(c.data() + c.size()));
}

void expect_allclose(const std::vector<float2>& a, const std::vector<float2>& b, float atol, const std::string& what) {
  expect_allclose(parts(a), parts(b), atol, 0.0f, what);
}

// One coefficient of the forward DFT of a real nx x ny image, in double.
std::complex<double> dft_at(const std::vector<float>& f, unsigned nx, unsigned ny, unsigned kx, unsigned ky) {
  std::complex<double> sum = 0.0;
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x)
      sum += static_cast<double>(f[y * nx + x]) *
             std::polar(1.0, -2.0 * M_PI * (static_cast<double>(kx) * x / nx + static_cast<double>(ky) * y / ny));
  return sum;
}

// The half-spectrum layout of the DFT, times scale.
std::vector<float2> dft_half(const std::vector<float>& f, unsigned nx, unsigned ny, double scale = 1.0) {
  const unsigned nh = nx / 2 + 1;
  std::vector<float2> out(static_cast<size_t>(nh) * ny);
  for (unsigned k = 0; k < nh * ny; ++k) {
    const std::complex<double> c = dft_at(f, nx, ny, k % nh, k / nh) * scale;
    out[k] = make_float2(static_cast<float>(c.real()), static_cast<float>(c.imag()));
  }
  return out;
}

// Circular shift: out(x, y) = in(x - dx, y - dy).
std::vector<float> roll(const std::vector<float>& in, unsigned nx, unsigned ny, int dx, int dy) {
  std::vector<float> out(in.size());
  const int w = static_cast<int>(nx), h = static_cast<int>(ny);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) out[y * w + x] = in[((y - dy) % h + h) % h * w + ((x - dx) % w + w) % w];
  return out;
}

// Row swap of a half-width array: out[(y + ny/2) % ny] = in[y].
template <class T>
std::vector<T> row_swap(const std::vector<T>& in, unsigned width, unsigned ny) {
  std::vector<T> out(in.size());
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < width; ++x) out[((y + ny / 2) % ny) * width + x] = in[y * width + x];
  return out;
}

// The unscaled amplitude of each image of a stack, rows swapped.
std::vector<std::vector<float>> stack_amplitudes(const std::vector<float>& stack, unsigned nx, unsigned ny, unsigned n) {
  std::vector<std::vector<float>> amps;
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float> amp((nx / 2 + 1) * ny);
    gpu_2d_fft_r2c_mod(slice(stack, i, nx * ny).data(), amp.data(), nx, ny);  // checked against the DFT below
    amps.push_back(row_swap(amp, nx / 2 + 1, ny));
  }
  return amps;
}

// Half array (row-swapped) to the full array, written independently from the layout rules.
std::vector<float> reference_half2full(const std::vector<float>& half, unsigned nx, unsigned ny) {
  const unsigned h = nx / 2, nh = h + 1;
  std::vector<float> full(static_cast<size_t>(nx) * ny);
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x)
      full[y * nx + x] = x + 1 < h ? half[((ny - y) % ny) * nh + (h - 1 - x)] : half[y * nh + (x + 1 - h)];
  return full;
}

std::vector<float> reference_box_mean(const std::vector<float>& a, int nx, int ny, int b) {
  std::vector<float> out(a.size());
  const int hb = b / 2;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      double sum = 0.0;
      int count = 0;
      for (int j = std::max(0, y - hb); j < std::min(ny, y + hb); ++j)
        for (int i = std::max(0, x - hb); i < std::min(nx, x + hb); ++i, ++count) sum += a[j * nx + i];
      out[y * nx + x] = static_cast<float>(sum / count);
    }
  return out;
}

// Background subtraction of a half array on its full form, written independently.
std::vector<float> reference_subbg(const std::vector<float>& half, unsigned nh, unsigned ny, int box,
                                   bool clear_c0 = false) {
  const unsigned nx = 2 * (nh - 1);
  std::vector<float> full = reference_half2full(half, nx, ny);
  if (clear_c0) full[(ny / 2) * nx + nx / 2] = 0.0f;
  std::vector<float> bg = reference_box_mean(full, static_cast<int>(nx), static_cast<int>(ny), box);
  std::vector<float> out(half.size());
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nh; ++x) out[y * nh + x] = full[y * nx + nx / 2 + x - 1] - bg[y * nx + nx / 2 + x - 1];
  return out;
}

TEST(FftTransform, EveryFormMatchesBruteForceDftAndWritesNothingPastTheSpectrum) {
  // c2r is the unscaled adjoint: the exact spectrum comes back as nx * ny times the image. The
  // _norm and host forms divide by sqrt(nx ny) each way; the host modulus is unscaled.
  for (auto [nx, ny] : {std::pair{6u, 5u}, {8u, 8u}, {5u, 6u}, {7u, 3u}, {2u, 4u}}) {
    SCOPED_TRACE(std::to_string(nx) + "x" + std::to_string(ny));
    const unsigned nh = fft_half_width(nx), area = nx * ny, pad = 64;
    const double norm = std::sqrt(static_cast<double>(area));
    std::vector<float> img = random_image(area, 100 + nx * 10 + ny);
    const std::vector<float2> exact = dft_half(img, nx, ny), exact_norm = dft_half(img, nx, ny, 1.0 / norm);
    float* d_in = to_device(img);
    float* d_back = device_zeros<float>(area);
    float2* d_out = to_device(std::vector<float2>(nh * ny + pad, make_float2(-99.0f, -99.0f)));
    float2* d_spec = to_device(exact);
    DeviceFrees frees(d_in, d_back, d_out, d_spec);
    hcuda_2d_fft_r2c(d_in, d_out, nx, ny);
    const std::vector<float2> out = to_host(d_out, nh * ny + pad);
    expect_allclose(slice(out, 0, nh * ny), exact, 2e-5f, "r2c");
    for (unsigned i = nh * ny; i < nh * ny + pad; ++i) ASSERT_EQ(out[i].x, -99.0f) << i;
    EXPECT_EQ(to_host(d_in, img.size()), img);  // the forward transform leaves its input intact
    hcuda_2d_fft_c2r(d_spec, d_back, nx, ny);
    expect_allclose(to_host(d_back, area), mapped(img, [&](float v) { return v * area; }), 1e-4f, 1e-5f, "c2r");
    hcuda_2d_fft_r2c_norm(d_in, d_out, nx, ny);
    expect_allclose(to_host(d_out, nh * ny), exact_norm, 5e-6f, "r2c_norm");
    hcuda_2d_fft_c2r_norm(d_out, d_back, nx, ny);
    expect_allclose(to_host(d_back, area), img, 2e-6f, 2e-6f, "c2r_norm");

    std::vector<float2> spec(nh * ny);
    std::vector<float> back(area), mod(nh * ny), ref_mod(nh * ny);
    gpu_2d_fft_r2c(img.data(), spec.data(), nx, ny);
    expect_allclose(spec, exact_norm, 5e-6f, "gpu_2d_fft_r2c");
    gpu_2d_fft_c2r(spec.data(), back.data(), nx, ny);
    expect_allclose(back, img, 2e-6f, 2e-6f, "gpu_2d_fft_c2r");
    gpu_2d_fft_r2c_mod(img.data(), mod.data(), nx, ny);
    for (size_t i = 0; i < ref_mod.size(); ++i) ref_mod[i] = std::hypot(exact[i].x, exact[i].y);
    expect_allclose(mod, ref_mod, 2e-5f, 1e-5f, "gpu_2d_fft_r2c_mod");
  }
}

TEST(FftTransform, WideSpectrumDcFirstAndNyquistColumns) {
  const unsigned nx = 4096, ny = 2, nh = nx / 2 + 1;
  EXPECT_EQ(fft_half_width(4096), 2049u);
  std::vector<float> img = random_image(nx * ny, 3);
  float* d_in = to_device(img);
  float2* d_spec = device_zeros<float2>(nh * ny);
  DeviceFrees frees(d_in, d_spec);
  hcuda_2d_fft_r2c(d_in, d_spec, nx, ny);
  std::vector<float2> spec = to_host(d_spec, nh * ny);
  for (unsigned ky = 0; ky < ny; ++ky)
    for (unsigned kx : {0u, 1u, nh - 1}) {
      const std::complex<double> want = dft_at(img, nx, ny, kx, ky);
      EXPECT_NEAR(spec[ky * nh + kx].x, want.real(), 2e-3) << kx << " " << ky;
      EXPECT_NEAR(spec[ky * nh + kx].y, want.imag(), 2e-3) << kx << " " << ky;
    }
}

TEST(FftTransform, InPlaceWithPaddedRowsAtAnyFloat2Offset) {
  // Real rows padded to 2 * nh floats; run from the start of a buffer and from 8 bytes into one
  // (aligned for float2, not for 16-byte vectors).
  for (unsigned offset : {0u, 2u})
    for (unsigned nx : {8u, 7u}) {
      SCOPED_TRACE("offset " + std::to_string(offset) + ", nx " + std::to_string(nx));
      const unsigned ny = 6, nh = nx / 2 + 1, stride = 2 * nh;
      std::vector<float> img = random_image(nx * ny, 21 + nx), padded(offset + stride * ny, 0.0f);
      for (unsigned y = 0; y < ny; ++y) std::copy_n(&img[y * nx], nx, &padded[offset + y * stride]);
      float* d_base = to_device(padded);
      DeviceFrees frees(d_base);
      float* d_buf = d_base + offset;
      float2* d_c = reinterpret_cast<float2*>(d_buf);
      hcuda_2d_fft_r2c(d_buf, d_c, nx, ny);
      expect_allclose(to_host(d_c, nh * ny), dft_half(img, nx, ny), 2e-5f, "in-place r2c");
      hcuda_2d_fft_c2r(d_c, d_buf, nx, ny);
      std::vector<float> back = to_host(d_buf, stride * ny);
      for (unsigned y = 0; y < ny; ++y)
        for (unsigned x = 0; x < nx; ++x) ASSERT_NEAR(back[y * stride + x], img[y * nx + x] * nx * ny, 1e-4f);
    }
}

TEST(FftTransform, StacksAtUnalignedOffsetsMatchSingleTransforms) {
  // 5 x 3 images are 60 bytes apart and their 3 x 3 spectra 72 bytes apart, so images and
  // spectra after the first start off the 16-byte alignment of a fresh buffer.
  const unsigned nx = 5, ny = 3, n = 4, nh = nx / 2 + 1;
  std::vector<float> stack = random_image(nx * ny * n, 31);
  float* d_stack = to_device(stack);
  float2* d_specs = device_zeros<float2>(nh * ny * n);
  float* d_big = device_zeros<float>(nx * ny + 1);
  float2* d_spec_big = device_zeros<float2>(nh * ny + 1);
  DeviceFrees frees(d_stack, d_specs, d_big, d_spec_big);
  hcuda_2ds_fft_r2c(d_stack, d_specs, nx, ny, n);
  std::vector<float2> specs = to_host(d_specs, nh * ny * n), host(nh * ny * n);
  testing::internal::CaptureStdout();
  gpu_2ds_fft_r2c(stack.data(), host.data(), nx, ny, n);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ".");
  for (unsigned i = 0; i < n; ++i) {
    SCOPED_TRACE(i);
    const std::vector<float> img = slice(stack, i, nx * ny);
    expect_allclose(slice(specs, i, nh * ny), dft_half(img, nx, ny), 2e-5f, "hcuda_2ds");
    expect_allclose(slice(host, i, nh * ny), dft_half(img, nx, ny, 1.0 / std::sqrt(15.0)), 5e-6f, "gpu_2ds");
  }
  // A single transform from a misaligned address, in and out.
  ASSERT_EQ(memcpy_H2D(d_big + 1, stack.data(), sizeof(float) * nx * ny), cudaSuccess);
  hcuda_2d_fft_r2c(d_big + 1, d_spec_big + 1, nx, ny);
  expect_allclose(to_host(d_spec_big + 1, nh * ny), slice(specs, 0, nh * ny), 1e-5f, "misaligned single");
}

TEST(FftProducts, MultconjFormulaAndShiftedCopyPeaksAtCentrePlusShift) {
  std::vector<float2> a = {make_float2(1.0f, 2.0f), make_float2(-3.0f, 0.5f)};
  std::vector<float2> b = {make_float2(4.0f, -1.0f), make_float2(2.0f, 2.0f)};
  // (1 + 2i)(4 + i) = 2 + 9i; (-3 + 0.5i)(2 - 2i) = -5 + 7i; both halved.
  const std::vector<float2> want = {make_float2(1.0f, 4.5f), make_float2(-2.5f, 3.5f)};
  float2* d_a = to_device(a);
  float2* d_b = to_device(b);
  float2* d_out = device_zeros<float2>(2);
  DeviceFrees frees(d_a, d_b, d_out);
  hcuda_c2d_multconj_norm(d_a, d_b, d_out, 2, 1, 2.0f);
  expect_allclose(to_host(d_out, 2), want, 0.0f, "multconj");
  hcuda_c2d_multconj_norm_inplace(d_a, d_b, 2, 1, 2.0f);
  expect_allclose(to_host(d_a, 2), want, 0.0f, "multconj in place");

  // The correlation chain: its peak sits at the centre plus the shift, at the sum of squares.
  const unsigned nx = 64, ny = 48, nh = nx / 2 + 1;
  std::vector<float> img = random_image(nx * ny, 100);
  const double sumsq = std::inner_product(img.begin(), img.end(), img.begin(), 0.0);
  float* d_img = to_device(img);
  float2* d_fb = device_zeros<float2>(nh * ny);
  float2* d_fa = device_zeros<float2>(nh * ny);
  float* d_map = device_zeros<float>(nx * ny);
  DeviceFrees more(d_img, d_fb, d_fa, d_map);
  hcuda_2d_fft_r2c(d_img, d_fb, nx, ny);
  for (auto [dx, dy] : {std::pair{5, -3}, {-11, 7}, {0, 0}}) {
    SCOPED_TRACE(std::to_string(dx) + " " + std::to_string(dy));
    ASSERT_EQ(memcpy_H2D(d_img, roll(img, nx, ny, dx, dy).data(), sizeof(float) * nx * ny), cudaSuccess);
    hcuda_2d_fft_r2c(d_img, d_fa, nx, ny);
    hcuda_c2d_multconj_norm_inplace(d_fa, d_fb, nh, ny, static_cast<float>(nx) * static_cast<float>(ny));
    hcuda_2d_fft_c2r(d_fa, d_map, nx, ny);
    hcuda_2d_swap_ccf_inplace(d_map, nx, ny);
    std::vector<float> map = to_host(d_map, nx * ny);
    const size_t peak = std::max_element(map.begin(), map.end()) - map.begin();
    EXPECT_EQ(peak % nx, static_cast<size_t>(static_cast<int>(nx / 2) + dx));
    EXPECT_EQ(peak / nx, static_cast<size_t>(static_cast<int>(ny / 2) + dy));
    EXPECT_NEAR(map[peak], sumsq, 1e-3 * sumsq);
  }
}

TEST(FftSwaps, InPlaceSwapIsHalfRollAndItsOwnInverseForEvenSizes) {
  // 64 x 30 spans more tiles across than down: a launch that took x for y would miss pixels.
  for (auto [nx, ny] : {std::pair{64u, 30u}, {6u, 4u}, {70u, 66u}}) {
    SCOPED_TRACE(nx);
    std::vector<float> img = random_image(nx * ny, 70 + nx);
    const std::vector<float> rolled = roll(img, nx, ny, static_cast<int>(nx / 2), static_cast<int>(ny / 2));
    float* d = to_device(img);
    DeviceFrees frees(d);
    hcuda_2d_swap_ccf_inplace(d, nx, ny);
    EXPECT_EQ(to_host(d, img.size()), rolled);
    hcuda_r2d_fc_swap_inplace(d, nx, ny);  // the same swap under its other name
    EXPECT_EQ(to_host(d, img.size()), img);
    hcuda_2d_swap_norm_ccf_inplace(d, nx, ny, 4.0f);
    EXPECT_EQ(to_host(d, img.size()), mapped(rolled, [](float v) { return v / 4.0f; }));
  }
}

TEST(FftSwaps, OutOfPlaceRowAndCenterSwaps) {
  // Odd sides: the out-of-place forms are plain mappings. Wider than one launch tile and less
  // high than one, so that a launch taking x for y shows.
  const unsigned nx = 71, ny = 5, ex = 41, ey = 6, cx = 35, cy = 3, n = cx * cy;
  std::vector<float> img = random_image(nx * ny, 80), half = random_image(ex * ey, 81);
  std::vector<float2> c(ex * ey), cwant(n), cwant_norm(n);
  for (size_t i = 0; i < c.size(); ++i) c[i] = make_float2(static_cast<float>(i), -static_cast<float>(i));
  // The complex center swap of an odd count: element i goes to (i + 52) % 105.
  for (unsigned i = 0; i < n; ++i) {
    cwant[(i + n / 2) % n] = c[i];
    cwant_norm[(i + n / 2) % n] = make_float2(c[i].x / 2.0f, c[i].y / 2.0f);
  }
  float* d_in = to_device(img);
  float* d_out = device_zeros<float>(nx * ny);
  float* d_half = to_device(half);  // half-width array, even rows
  float2* d_c = to_device(c);
  float2* d_c2 = to_device(slice(c, 0, n));
  float2* d_cs = device_zeros<float2>(n);
  DeviceFrees frees(d_in, d_out, d_half, d_c, d_c2, d_cs);
  hcuda_2d_swap_ccf(d_out, d_in, nx, ny);
  EXPECT_EQ(to_host(d_out, nx * ny), roll(img, nx, ny, 35, 2));
  hcuda_r2d_fc_swap(d_out, d_in, nx, ny);
  EXPECT_EQ(to_host(d_out, nx * ny), roll(img, nx, ny, 35, 2));
  hcuda_r2dh_fc_swap(d_out, d_in, nx, ny);
  EXPECT_EQ(to_host(d_out, nx * ny), row_swap(img, nx, ny));
  hcuda_r2dh_fc_swap_inplace(d_half, ex, ey);
  EXPECT_EQ(to_host(d_half, ex * ey), row_swap(half, ex, ey));
  hcuda_c2dh_fc_swap_inplace(d_c, ex, ey);
  expect_allclose(to_host(d_c, c.size()), row_swap(c, ex, ey), 0.0f, "complex row swap");
  hcuda_complex2d_center_swap(d_cs, d_c2, cx, cy);
  expect_allclose(to_host(d_cs, n), cwant, 0.0f, "center swap");
  hcuda_complex2d_center_swap_norm(d_cs, d_c2, cx, cy, 2.0f);
  expect_allclose(to_host(d_cs, n), cwant_norm, 0.0f, "center swap norm");
}

TEST(FftAmplitude, FlatKernelsWriteAtTheCenterSwappedIndex) {
  const unsigned width = 3, rows = 4, n = width * rows;
  std::vector<float2> c(n);
  std::vector<float> W(n);
  for (unsigned i = 0; i < n; ++i) {
    c[i] = make_float2(3.0f * i, 4.0f * i);  // modulus 5 i
    W[i] = static_cast<float>(i);
  }
  float2* d_c = to_device(c);
  float* d_W = to_device(W);
  float* d_out = device_zeros<float>(n);
  DeviceFrees frees(d_c, d_W, d_out);
  // Each kernel acts on the output of the one before; want(i, k) is the value at k = (i + n/2) % n.
  auto check = [&](const char* what, auto want) {
    std::vector<float> out = to_host(d_out, n);
    for (unsigned i = 0; i < n; ++i) EXPECT_FLOAT_EQ(out[(i + n / 2) % n], want(i, (i + n / 2) % n)) << what << i;
  };
  hcuda_complex_mod_center_swap(d_out, d_c, n);
  check("mod", [](unsigned i, unsigned) { return 5.0f * i; });
  // For an even number of rows the center swap is the row swap.
  EXPECT_EQ(to_host(d_out, n), row_swap(mapped(W, [](float i) { return 5.0f * i; }), width, rows));
  hcuda_complex_mod_addto_center_swap(d_out, d_c, n);
  check("addto", [](unsigned i, unsigned) { return 10.0f * i; });
  hcuda_complex_mod_weighted_addto_center_swap(d_out, d_c, n, 0.5f);
  check("weighted addto", [](unsigned i, unsigned) { return 12.5f * i; });
  hcuda_empty_f32(d_out, n);
  hcuda_complex_mod_Ws_addto_center_swap(d_out, d_c, n, d_W);
  check("Ws addto, weight of the destination", [&](unsigned i, unsigned k) { return 5.0f * i * W[k]; });
  hcuda_complex_logmod_center_swap(d_out, d_c, n);
  std::vector<float> out = to_host(d_out, n);
  EXPECT_TRUE(std::isinf(out[n / 2]) && out[n / 2] < 0.0f);  // element 0 has modulus 0
  for (unsigned i = 1; i < n; ++i) EXPECT_NEAR(out[(i + n / 2) % n], std::log(5.0f * i), 1e-6f);
}

TEST(FftAmplitude, HalfToFullAndBack) {
  const unsigned nx = 70, ny = 8, nh = nx / 2 + 1;  // wider than a tile, less high
  std::vector<float> half(nh * ny);
  for (size_t i = 0; i < half.size(); ++i) half[i] = static_cast<float>(i) + 0.25f;
  float* d_half = to_device(half);
  float* d_full = device_zeros<float>(nx * ny);
  float* d_back = device_zeros<float>(nh * ny);
  DeviceFrees frees(d_half, d_full, d_back);
  hcuda_2d_fftA_half2full(d_full, d_half, nx, ny);
  std::vector<float> full = reference_half2full(half, nx, ny);
  EXPECT_EQ(to_host(d_full, nx * ny), full);
  hcuda_2d_fftA_full2half(d_back, d_full, nx, ny);
  EXPECT_EQ(to_host(d_back, nh * ny), half);
  hcuda_2d_fftA_half2full_c0(d_full, d_half, nx, ny);
  full[(ny / 2) * nx + nx / 2] = 0.0f;
  EXPECT_EQ(to_host(d_full, nx * ny), full);
}

TEST(FftWeights, SpectrumAverageDeviceAndHost) {
  const unsigned w = 5, h = 3, n = 4;
  std::vector<float> parts = random_image(2 * w * h * n, 5);
  std::vector<float2> in(w * h * n), host(w * h), want(w * h);
  for (size_t i = 0; i < in.size(); ++i) in[i] = make_float2(parts[2 * i], parts[2 * i + 1]);
  for (unsigned i = 0; i < w * h; ++i) {
    float sx = 0.0f, sy = 0.0f;  // in image order, then one division
    for (unsigned k = 0; k < n; ++k) sx += in[k * w * h + i].x, sy += in[k * w * h + i].y;
    want[i] = make_float2(sx / n, sy / n);
  }
  cpu_2ds_fftout_r2c_ave(in.data(), host.data(), w, h, n);
  expect_allclose(host, want, 0.0f, "host");
  float2* d_in = to_device(in);
  float2* d_out = device_zeros<float2>(w * h);
  DeviceFrees frees(d_in, d_out);
  hcuda_c2ds_ave(d_out, d_in, w, h, n);
  expect_allclose(to_host(d_out, w * h), want, 0.0f, "device");
}

TEST(FftWeights, IntegerShiftIsACircularRoll) {
  const unsigned nx = 16, ny = 12;
  const int sx = 3, sy = -2;
  std::vector<float> img = random_image(nx * ny, 110);
  // The ramp e^(+i phi) moves the picture by (-sx, -sy): out(x, y) = in(x + sx, y + sy).
  const std::vector<float> want = roll(img, nx, ny, -sx, -sy);
  std::vector<float> out(nx * ny), a(img);
  gpu_2d_shift(img.data(), out.data(), nx, ny, sx, sy);
  expect_allclose(out, want, 2e-6f, 2e-6f, "gpu_2d_shift");
  gpu_2d_shift2(img.data(), out.data(), nx, ny, sx, sy);
  expect_allclose(out, want, 2e-6f, 2e-6f, "gpu_2d_shift2");
  gpu_2d_shift_inplace(a.data(), nx, ny, sx, sy);
  expect_allclose(a, want, 2e-6f, 2e-6f, "gpu_2d_shift_inplace");
  float* d = to_device(img);
  DeviceFrees frees(d);
  hcuda_2d_shift_inplace(d, nx, ny, sx, sy);
  expect_allclose(to_host(d, nx * ny), want, 2e-6f, 2e-6f, "hcuda_2d_shift_inplace");
}

TEST(FftWeights, PhaseRampValues) {
  const unsigned nh = 5, ny = 4;  // nx = 8
  float2* d_in = to_device(std::vector<float2>(nh * ny, make_float2(1.0f, 0.0f)));
  float2* d_out = device_zeros<float2>(nh * ny);
  DeviceFrees frees(d_in, d_out);
  hcuda_c2dh_linear_Pshift(d_in, d_out, nh, ny, 1.0f, 1.0f);
  std::vector<float2> out = to_host(d_out, nh * ny);
  // (2, 3): fy = 3 - 4 = -1, phi = 2 pi (2 / 8 - 1 / 4) = 0. (1, 0): phi = 2 pi / 8. (0, 2): row
  // ny / 2 counts as -2: phi = -pi.
  EXPECT_NEAR(out[3 * nh + 2].x, 1.0f, 1e-6f);
  EXPECT_NEAR(out[3 * nh + 2].y, 0.0f, 1e-6f);
  EXPECT_NEAR(out[1].x, std::cos(3.14159265f / 4.0f), 1e-6f);
  EXPECT_NEAR(out[1].y, std::sin(3.14159265f / 4.0f), 1e-6f);
  EXPECT_NEAR(out[2 * nh].x, -1.0f, 1e-6f);
  hcuda_c2dh_linear_Pshift_inplace(d_in, nh, ny, 1.0f, 1.0f);
  expect_allclose(to_host(d_in, nh * ny), out, 0.0f, "in place");
}

TEST(FftWeights, RadialRampEdgesFallAndCap) {
  // With no fall width the factor is r below rc, rc exactly at rc and 0 beyond.
  const unsigned nh = 9, ny = 16;
  const float R = 0.25f;
  float2* d_in = to_device(std::vector<float2>(nh * ny, make_float2(1.0f, -2.0f)));
  float2* d_out = device_zeros<float2>(nh * ny);
  DeviceFrees frees(d_in, d_out);
  hcuda_c2dh_rweight(d_out, d_in, nh, ny, R, 0.0f);
  std::vector<float2> out = to_host(d_out, nh * ny);
  int count[3] = {0, 0, 0};  // below, at, beyond
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nh; ++x) {
      SCOPED_TRACE(std::to_string(x) + " " + std::to_string(y));
      const float fx = static_cast<float>(x) / 16.0f, fy = static_cast<float>(y < ny / 2 ? y : ny - y) / 16.0f;
      const float r = std::sqrt(fx * fx + fy * fy), f = r < R ? r : r == R ? R : 0.0f;
      EXPECT_FLOAT_EQ(out[y * nh + x].x, f);
      EXPECT_FLOAT_EQ(out[y * nh + x].y, -2.0f * f);
      ++count[r < R ? 0 : r == R ? 1 : 2];
    }
  EXPECT_GT(count[0], 0);
  EXPECT_EQ(count[1], 3);  // (4, 0), (0, 4) and (0, 12): x^2 + y^2 = 16 has no other solution
  EXPECT_GT(count[2], 0);
  hcuda_c2dh_rweight_inplace(d_in, nh, ny, R, 0.0f);
  expect_allclose(to_host(d_in, nh * ny), out, 0.0f, "in place");
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
  float2* d_spec = device_zeros<float2>(nh * ny);
  DeviceFrees frees(d_in, d_out, d_spec);
  hcuda_r2d_rweight(d_out, d_in, nx, ny, 0.3f, 0.1f);
  std::vector<float> out = to_host(d_out, nx * ny);
  hcuda_2d_fft_r2c_norm(d_in, d_spec, nx, ny);
  hcuda_c2dh_rweight_inplace(d_spec, nh, ny, 0.3f, 0.1f);
  hcuda_2d_fft_c2r_norm(d_spec, d_out, nx, ny);
  expect_allclose(out, to_host(d_out, nx * ny), 1e-6f, 1e-6f, "rweight chain");
  // The mean is removed: the ramp is 0 at the origin.
  EXPECT_NEAR(std::accumulate(out.begin(), out.end(), 0.0) / (nx * ny), 0.0, 1e-6);
  hcuda_r2d_rweight_inplace(d_in, nx, ny, 0.3f, 0.1f);
  expect_allclose(to_host(d_in, nx * ny), out, 1e-6f, 1e-6f, "rweight in place");
  // An odd ramp size, and an unknown average type, stop.
  EXPECT_EXIT_REPORT(
      hcuda_r2d_rweight(d_out, d_out, 7, 8, 0.3f, 0.1f),
      "Error in function hcuda_r2d_rweight\\(\\), file src/cuda_fft on line [0-9]+: 7 not an even number! Exit now!\n");
  EXPECT_EXIT_REPORT(hcuda_r2d_rweight_inplace(d_out, 8, 5, 0.3f, 0.1f), "5 not an even number! Exit now!");
  EXPECT_EXIT_REPORT(
      hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_out, d_out, 8, 8, 1, 3, d_out, 3),
      "\033\\[41mError in function hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg\\(\\), file src/cuda_fft on line "
      "[0-9]+: Unkown FFT amplitude average type! Exit now!\033\\[m");
}

TEST(FftWeights, LocalAmplitudeWeights) {
  const unsigned width = 9, ny = 16, plane = width * ny;
  const float a = 2.0f, b = 1.5f, c = 0.8f, d = 3.0f;
  auto gauss = [&](double r) { return std::exp(-(0.5 * r / c * r / c * d * d) * (a * a / (2.0 * b * b))); };
  std::vector<float> host(plane);
  cpu_2d_fft_amp_local_w2d_gen(host.data(), width, ny, a, b, c, d);
  EXPECT_EQ(host[(ny / 2) * width + 0], 1.0f);                      // r = 0 at the row-swapped origin
  EXPECT_NEAR(host[12 * width + 4], gauss(std::sqrt(0.125)), 1e-6);  // (4, 8 + 4): fx = fy = 0.25
  float* d_w = device_zeros<float>(plane);
  hcuda_2d_fft_amp_local_w2d_gen(d_w, width, ny, a, b, c, d);
  expect_allclose(to_host(d_w, plane), host, 1e-7f, 1e-6f, "w2d device and host");

  const std::vector<float> dist = {0.0f, 1.0f, 2.5f};
  float* d_dist = to_device(dist);
  float* d_ws = device_zeros<float>(plane * dist.size());
  float* d_w1 = device_zeros<float>(3);
  hcuda_2ds_fft_amp_local_w2ds_gen(d_ws, width, ny, 3, d_dist, b, c, d);
  hcuda_2ds_fft_amp_local_w1d_gen(d_w1, 3, d_dist, b);
  std::vector<float> ws = to_host(d_ws, plane * dist.size()), w1 = to_host(d_w1, 3);
  for (unsigned i = 0; i < dist.size(); ++i) {
    cpu_2d_fft_amp_local_w2d_gen(host.data(), width, ny, dist[i], b, c, d);
    expect_allclose(slice(ws, i, plane), host, 1e-7f, 1e-6f, "w2ds slice " + std::to_string(i));
    EXPECT_NEAR(w1[i], std::exp(dist[i] * dist[i] / (-2.0 * b * b)), 1e-6);
  }
  std::vector<float> w1d(5);
  cpu_2d_fft_amp_local_w1d_gen(w1d.data(), 5, a, b, c, d);
  EXPECT_EQ(w1d[0], 1.0f);
  EXPECT_NEAR(w1d[4], gauss(4.0 / 8.0), 1e-6);  // i / (2 n - 2) = 0.5 at the last element
  free_all({d_w, d_dist, d_ws, d_w1});
}

TEST(FftWeights, BFactors) {
  const unsigned width = 9, ny = 8;
  const float apix = 1.5f, B = 40.0f;
  std::vector<float> in = mapped(random_image(width * ny, 130), [](float x) { return 1.5f + x; });
  std::vector<float> out(in.size()), usw(in.size());
  cpu_r2dh_fftA_appy_bfac(out.data(), in.data(), width, ny, apix, B);
  EXPECT_EQ(out[(ny / 2) * width], in[(ny / 2) * width]);  // origin of a swapped array
  // (8, 0): fx = 0.5, fy = -0.5.
  EXPECT_NEAR(out[8], in[8] * std::exp(-(0.25 + 0.25) / (apix * apix) * B / 4.0), 1e-6);
  // An unswapped array's row y is the swapped array's row (y + ny/2) % ny.
  std::vector<float> unswapped = row_swap(in, width, ny);
  cpu_r2dh_usw_fftA_appy_bfac(usw.data(), unswapped.data(), width, ny, apix, B);
  EXPECT_EQ(row_swap(usw, width, ny), out);
  cpu_r2dh_usw_fftA_appy_bfac_inplace(unswapped.data(), width, ny, apix, B);
  EXPECT_EQ(unswapped, usw);
}

TEST(FftStacks, PerImageModPowLogmodAndLogmodSubbg) {
  const unsigned nx = 16, ny = 12, nh = nx / 2 + 1, n = 3, plane = nh * ny;
  const int box = 4;
  const float norm = std::sqrt(static_cast<float>(nx * ny));
  std::vector<float> stack = random_image(nx * ny * n, 150);
  const auto amps = stack_amplitudes(stack, nx, ny, n);
  float* d_stack = to_device(stack);
  float* d_out = device_zeros<float>(plane * n);
  auto run = [&](void (*f)(const float*, float*, unsigned, unsigned, unsigned)) {
    f(d_stack, d_out, nx, ny, n);
    return to_host(d_out, plane * n);
  };
  const std::vector<float> mod = run(hcuda_2ds_fft_r2c_mod), pw = run(hcuda_2ds_fft_r2c_pow),
                           lm = run(hcuda_2ds_fft_r2c_logmod);
  hcuda_2ds_fft_r2c_logmod_subbg(d_out, d_stack, nx, ny, n, box);
  const std::vector<float> sub = to_host(d_out, plane * n);
  free_all({d_stack, d_out});

  // logmod_subbg subtracts the box mean of the mean log modulus from each image's log modulus.
  std::vector<float> mean(plane, 0.0f);
  for (unsigned i = 0; i < n; ++i)
    for (size_t k = 0; k < plane; ++k) mean[k] += std::log(amps[i][k] / norm) / n;
  const std::vector<float> bg = reference_box_mean(mean, nh, ny, box);
  for (unsigned i = 0; i < n; ++i) {
    SCOPED_TRACE(i);
    const std::vector<float>& amp = amps[i];
    expect_allclose(slice(mod, i, plane), mapped(amp, [&](float v) { return v / norm; }), 1e-5f, 1e-5f, "mod");
    expect_allclose(slice(pw, i, plane), mapped(amp, [&](float v) { return v * v / (norm * norm); }), 1e-5f, 1e-4f,
                    "pow");
    // logmod keeps the rows unswapped (ny even: swapping twice is the identity).
    expect_allclose(slice(lm, i, plane), log_of(row_swap(amp, nh, ny)), 1e-4f, 1e-5f, "logmod");
    std::vector<float> want = mapped(amp, [&](float v) { return std::log(v / norm); });
    for (size_t k = 0; k < plane; ++k) want[k] -= bg[k];
    expect_allclose(slice(sub, i, plane), want, 1e-4f, 1e-4f, "logmod_subbg");
  }
}

TEST(FftStacks, AmplitudeAveragesAreWeightedSums) {
  const unsigned nx = 16, ny = 10, nh = nx / 2 + 1, n = 3, plane = nh * ny;
  const int box = 5;
  std::vector<float> stack = random_image(nx * ny * n, 180);
  const std::vector<float> w = {0.5f, 1.0f, 2.0f};
  const auto amps = stack_amplitudes(stack, nx, ny, n);
  std::vector<float> sum(plane, 0.0f), wsum(plane, 0.0f);
  for (unsigned i = 0; i < n; ++i)
    for (unsigned k = 0; k < plane; ++k) sum[k] += amps[i][k], wsum[k] += amps[i][k] * w[i];
  // Type 2 weights every element of image i; here all by w[i], which must equal type 1.
  std::vector<float> W(plane * n);
  for (unsigned i = 0; i < n; ++i) std::fill(W.begin() + i * plane, W.begin() + (i + 1) * plane, w[i]);
  float* d_stack = to_device(stack);
  float* d_out = to_device(std::vector<float>(plane, 123.0f));  // cleared first
  float* d_w = to_device(w);
  float* d_W = to_device(W);
  float* d_ones = to_device(std::vector<float>(n, 1.0f));
  auto check = [&](const char* what, const std::vector<float>& want, float atol) {
    expect_allclose(to_host(d_out, plane), want, atol, 1e-4f, what);
  };
  hcuda_2ds_fft_r2c_amp_ave(d_stack, d_out, nx, ny, n);
  check("amp_ave", sum, 1e-5f * max_abs(sum));
  hcuda_2ds_fft_r2c_amp_ave_sqrt(d_stack, d_out, nx, ny, n);
  check("amp_ave_sqrt", mapped(sum, [](float v) { return std::sqrt(v); }), 1e-4f);
  hcuda_2ds_fft_r2c_amp_ave_log(d_stack, d_out, nx, ny, n);
  check("amp_ave_log", log_of(sum), 1e-4f);
  hcuda_2ds_fft_r2c_amp_ave_log_subbg(d_stack, d_out, nx, ny, n, box);
  check("amp_ave_log_subbg", reference_subbg(log_of(sum), nh, ny, box), 1e-4f);
  hcuda_2ds_fft_r2c_amp_weighted_ave(d_stack, d_out, nx, ny, n, w.data());
  check("weighted", wsum, 1e-5f * max_abs(wsum));
  hcuda_2ds_fft_r2c_amp_weighted_ave_log(d_stack, d_out, nx, ny, n, w.data());
  check("weighted log", log_of(wsum), 1e-4f);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_w, 1);
  check("weighted log subbg, type 1", reference_subbg(log_of(wsum), nh, ny, box), 1e-4f);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_W, 2);
  check("weighted log subbg, type 2", reference_subbg(log_of(wsum), nh, ny, box), 1e-4f);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_ones, 1);
  check("weighted log subbg, unit weights", reference_subbg(log_of(sum), nh, ny, box), 1e-4f);
  free_all({d_stack, d_out, d_w, d_W, d_ones});
}

TEST(FftStacks, BoxesAreCutThenTransformed) {
  const unsigned nx = 40, ny = 30;
  const int b = 8;
  std::vector<float> img = random_image(nx * ny, 170);
  std::vector<int2> boxes = {make_int2(0, 0), make_int2(13, 7), make_int2(36, 25)};  // the last leaves the image
  const int count = static_cast<int>(boxes.size());
  const unsigned plane = (b / 2 + 1) * b;
  float* d_img = to_device(img);
  float* d_out = device_zeros<float>(plane * count);
  hcuda_2d_boxes_fft_r2c_mod(d_out, boxes.data(), count, b, d_img, nx, ny);
  std::vector<float> cut(b * b * count);
  cpu_2d_extract_smalls_from_large(cut.data(), b, b, count, img.data(), nx, ny, boxes.data());
  float* d_cut = to_device(cut);
  float* d_ref = device_zeros<float>(plane * count);
  hcuda_2ds_fft_r2c_mod(d_cut, d_ref, b, b, count);
  EXPECT_EQ(to_host(d_out, plane * count), to_host(d_ref, plane * count));
  free_all({d_img, d_out, d_cut, d_ref});
}

TEST(FftStacks, HalfArrayBackgroundSubtraction) {
  const unsigned nh = 9, ny = 12;
  const int box = 5;
  std::vector<float> half = mapped(random_image(nh * ny, 190), [](float x) { return 1.5f + x; });
  const std::vector<float> want = reference_subbg(half, nh, ny, box);
  float* d_in = to_device(half);
  float* d_out = device_zeros<float>(nh * ny);
  float* d_a = to_device(half);
  hcuda_2dh_fftA_subbg(d_out, d_in, nh, ny, box);
  expect_allclose(to_host(d_out, nh * ny), want, 1e-5f, 1e-5f, "subbg");
  hcuda_2dh_fftA_subbg_inplace(d_in, nh, ny, box);
  expect_allclose(to_host(d_in, nh * ny), want, 1e-5f, 1e-5f, "subbg in place");
  hcuda_2dh_fft_amp_log_subbg_inplace(d_a, nh, ny, box);
  expect_allclose(to_host(d_a, nh * ny), reference_subbg(log_of(half), nh, ny, box), 1e-5f, 1e-5f, "log subbg");
  free_all({d_in, d_out, d_a});
}

TEST(FftTiles, GridSumsTheTileAmplitudes) {
  const unsigned nx = 41, ny = 36, bx = 16, by = 12, step = 8, nh = bx / 2 + 1, plane = nh * by;
  const int box = 4;
  // gx = (41 - 16) / 8 + 1 = 4, gy = (36 - 12) / 8 + 1 = 4.
  std::vector<float> img = random_image(nx * ny, 200);
  std::vector<int2> corners;
  for (unsigned r = 0; r < 4; ++r)
    for (unsigned c = 0; c < 4; ++c) corners.push_back(make_int2(c * step, r * step));
  const int count = static_cast<int>(corners.size());
  std::vector<float> tiles(bx * by * count);
  cpu_2d_extract_smalls_from_large(tiles.data(), bx, by, count, img.data(), nx, ny, corners.data());
  std::vector<float> ref(plane, 0.0f);
  for (const auto& amp : stack_amplitudes(tiles, bx, by, count))
    for (unsigned k = 0; k < plane; ++k) ref[k] += amp[k];

  float* d_img = to_device(img);
  float* d_amp = to_device(std::vector<float>(plane, 5.0f));
  hcuda_2d_gridfft_r2c_amp_ave(d_img, d_amp, nx, ny, bx, by, step, 12345);
  const std::vector<float> amp = to_host(d_amp, plane);
  expect_allclose(amp, ref, 1e-5f * max_abs(ref), 1e-5f, "grid amplitude sum");

  const std::vector<float> log_ref = log_of(amp), sub_ref = reference_subbg(log_ref, nh, by, box);
  float* d_sub = device_zeros<float>(plane);
  float* d_log = device_zeros<float>(plane);
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg(d_img, d_sub, nx, ny, bx, by, step, box);
  expect_allclose(to_host(d_sub, plane), sub_ref, 1e-5f, 1e-5f, "log_subbg");
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg2(d_img, d_sub, d_log, nx, ny, bx, by, step, box);
  expect_allclose(to_host(d_sub, plane), sub_ref, 1e-5f, 1e-5f, "log_subbg2 subtracted");
  expect_allclose(to_host(d_log, plane), log_ref, 1e-6f, 1e-6f, "log_subbg2 log sum");

  // The third form clears the centre element of the full array before the background.
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(d_img, d_amp, d_log, d_sub, nx, ny, bx, by, step, box);
  expect_allclose(to_host(d_amp, plane), amp, 1e-6f * max_abs(amp), 1e-6f, "log_subbg3 amplitude sum");
  expect_allclose(to_host(d_log, plane), log_ref, 1e-6f, 1e-6f, "log_subbg3 log sum");
  std::vector<float> sub3 = to_host(d_sub, plane);
  expect_allclose(sub3, reference_subbg(log_ref, nh, by, box, true), 1e-5f, 1e-5f, "log_subbg3 subtracted");
  EXPECT_GT(std::fabs(sub3[(by / 2) * nh + 1] - sub_ref[(by / 2) * nh + 1]), 1e-3f);

  // An image smaller than one tile gives an empty sum.
  hcuda_2d_gridfft_r2c_amp_ave(d_img, d_amp, 8, 8, bx, by, 4, 0);
  EXPECT_EQ(to_host(d_amp, plane), std::vector<float>(plane, 0.0f));
  free_all({d_img, d_amp, d_sub, d_log});
}

}  // namespace
