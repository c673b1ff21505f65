// The FFT layer. Transforms are compared with a brute-force DFT under tolerances (FFTW here,
// cuFFT on the GPU round differently); pure index moves are compared exactly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <string>
#include <vector>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

// A device copy of a host array, or n zeros, freed at the end of the scope.
template <class T>
struct Dev {
  explicit Dev(const std::vector<T>& h) : p(to_device(h)), n(h.size()) {}
  explicit Dev(size_t count) : p(device_zeros<T>(count)), n(count) {}
  ~Dev() { cudaFree(p); }
  Dev(const Dev&) = delete;
  operator T*() const { return p; }
  std::vector<T> host() const { return to_host(p, n); }
  T* p;
  size_t n;
};

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

std::vector<float2> random_complex(size_t n, unsigned seed) {
  const std::vector<float> v = random_image(2 * n, seed);
  std::vector<float2> c(n);
  for (size_t i = 0; i < n; ++i) c[i] = make_float2(v[2 * i], v[2 * i + 1]);
  return c;
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
  // _norm and host forms divide by sqrt(nx ny) each way; the host modulus (the reference of the
  // amplitude tests below) is unscaled.
  for (auto [nx, ny] : {std::pair{6u, 5u}, {8u, 8u}, {5u, 6u}, {7u, 3u}, {2u, 4u}}) {
    SCOPED_TRACE(std::to_string(nx) + "x" + std::to_string(ny));
    const unsigned nh = fft_half_width(nx), area = nx * ny, plane = nh * ny;
    const std::vector<float> img = random_image(area, 100 + nx * 10 + ny);
    const std::vector<float2> exact = dft_half(img, nx, ny), exact_norm = dft_half(img, nx, ny, 1.0 / std::sqrt(area));
    Dev<float> d_in(img), d_back(area);
    Dev<float2> d_out(std::vector<float2>(plane + 64, make_float2(-99.0f, -99.0f))), d_spec(exact);
    hcuda_2d_fft_r2c(d_in, d_out, nx, ny);
    const std::vector<float2> out = d_out.host();
    expect_allclose(slice(out, 0, plane), exact, 2e-5f, "r2c");
    for (unsigned i = plane; i < out.size(); ++i) ASSERT_EQ(out[i].x, -99.0f) << i;
    EXPECT_EQ(d_in.host(), img);  // the forward transform leaves its input intact
    hcuda_2d_fft_c2r(d_spec, d_back, nx, ny);
    expect_allclose(d_back.host(), mapped(img, [&](float v) { return v * area; }), 1e-4f, 1e-5f, "c2r");
    hcuda_2d_fft_r2c_norm(d_in, d_out, nx, ny);
    expect_allclose(slice(d_out.host(), 0, plane), exact_norm, 5e-6f, "r2c_norm");
    hcuda_2d_fft_c2r_norm(d_out, d_back, nx, ny);
    expect_allclose(d_back.host(), img, 2e-6f, 2e-6f, "c2r_norm");

    std::vector<float2> spec = exact_norm;
    std::vector<float> back(area), mod(plane), ref_mod(plane);
    gpu_2d_fft_c2r(spec.data(), back.data(), nx, ny);
    expect_allclose(back, img, 2e-6f, 2e-6f, "gpu_2d_fft_c2r");
    gpu_2d_fft_r2c_mod(img.data(), mod.data(), nx, ny);
    for (size_t i = 0; i < ref_mod.size(); ++i) ref_mod[i] = std::hypot(exact[i].x, exact[i].y);
    expect_allclose(mod, ref_mod, 2e-5f, 1e-5f, "gpu_2d_fft_r2c_mod");
  }
}

TEST(FftTransform, WideSpectrumDcFirstAndNyquistColumns) {
  const unsigned nx = 4096, ny = 2, nh = nx / 2 + 1;
  const std::vector<float> img = random_image(nx * ny, 3);
  Dev<float> d_in(img);
  Dev<float2> d_spec(nh * ny);
  hcuda_2d_fft_r2c(d_in, d_spec, nx, ny);
  const std::vector<float2> spec = d_spec.host();
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
      Dev<float> d_base(padded);
      float* d_buf = d_base.p + offset;
      float2* d_c = reinterpret_cast<float2*>(d_buf);
      hcuda_2d_fft_r2c(d_buf, d_c, nx, ny);
      expect_allclose(to_host(d_c, nh * ny), dft_half(img, nx, ny), 2e-5f, "in-place r2c");
      hcuda_2d_fft_c2r(d_c, d_buf, nx, ny);
      std::vector<float> back = to_host(d_buf, stride * ny);
      for (unsigned y = 0; y < ny; ++y)
        for (unsigned x = 0; x < nx; ++x) ASSERT_NEAR(back[y * stride + x], img[y * nx + x] * nx * ny, 1e-4f);
    }
}

TEST(FftTransform, HostStackAndMisalignedDeviceBuffers) {
  // The host stack image by image; then one transform one float into fresh buffers, where a 5 x 3
  // image and its 3 x 3 spectrum start off the 16-byte alignment.
  const unsigned nx = 5, ny = 3, n = 4, plane = (nx / 2 + 1) * ny;
  const std::vector<float> stack = random_image(nx * ny * n, 31);
  std::vector<float2> host(plane * n);
  testing::internal::CaptureStdout();
  gpu_2ds_fft_r2c(stack.data(), host.data(), nx, ny, n);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ".");
  for (unsigned i = 0; i < n; ++i)
    expect_allclose(slice(host, i, plane), dft_half(slice(stack, i, nx * ny), nx, ny, 1.0 / std::sqrt(15.0)), 5e-6f,
                    "gpu_2ds image " + std::to_string(i));
  std::vector<float> big(1, 0.0f);
  big.insert(big.end(), stack.begin(), stack.begin() + nx * ny);
  Dev<float> d_big(big);
  Dev<float2> d_spec_big(plane + 1);
  hcuda_2d_fft_r2c(d_big.p + 1, d_spec_big.p + 1, nx, ny);
  expect_allclose(to_host(d_spec_big.p + 1, plane), dft_half(slice(stack, 0, nx * ny), nx, ny), 2e-5f, "misaligned");
}

// A batched plan transforms images that follow each other in memory, side by side: every
// member against the brute-force DFT, a 5 x 3 size whose 9-value spectra put every other
// member off the 16-byte alignment.
TEST(FftTransform, BatchedPlansTransformEachImageOfTheBatch) {
  const unsigned nx = 5, ny = 3, n = 5, plane = (nx / 2 + 1) * ny, area = nx * ny;
  const std::vector<float> stack = random_image(area * n, 41);
  Dev<float> d_stack(stack), d_back(area * n);
  Dev<float2> d_spec(plane * n);
  const cufftHandle r2c = hcuda_2d_fft_plan_batch(nx, ny, CUFFT_R2C, n);
  const cufftHandle c2r = hcuda_2d_fft_plan_batch(nx, ny, CUFFT_C2R, n);
  hcuda_2d_fft_exec_r2c(r2c, d_stack, d_spec);
  const std::vector<float2> spec = d_spec.host();
  hcuda_2d_fft_exec_c2r(c2r, d_spec, d_back);
  const std::vector<float> back = d_back.host();
  for (unsigned i = 0; i < n; ++i) {
    const std::vector<float> image = slice(stack, i, area);
    expect_allclose(slice(spec, i, plane), dft_half(image, nx, ny), 2e-5f, "r2c member " + std::to_string(i));
    expect_allclose(slice(back, i, area), mapped(image, [&](float v) { return v * area; }), 1e-4f, 1e-5f,
                    "c2r member " + std::to_string(i));
  }
  // In place: each image's rows padded to 2 * nh floats, the images 2 * plane floats apart.
  const unsigned nh = nx / 2 + 1;
  std::vector<float> padded(2 * plane * n, 0.0f);
  for (unsigned i = 0; i < n; ++i)
    for (unsigned y = 0; y < ny; ++y) std::copy_n(&stack[i * area + y * nx], nx, &padded[i * 2 * plane + y * 2 * nh]);
  Dev<float> d_pad(padded);
  hcuda_2d_fft_exec_r2c(r2c, d_pad, reinterpret_cast<float2*>(d_pad.p));
  const std::vector<float> in_place = d_pad.host();
  for (unsigned i = 0; i < n; ++i) {
    std::vector<float2> member(plane);
    std::memcpy(member.data(), &in_place[i * 2 * plane], plane * sizeof(float2));
    expect_allclose(member, dft_half(slice(stack, i, area), nx, ny), 2e-5f, "in-place member " + std::to_string(i));
  }
  hcuda_2d_fft_destroy(r2c);
  hcuda_2d_fft_destroy(c2r);
}

TEST(FftProducts, MultconjTimesTheConjugateOverD) {
  // (1 + 2i)(4 + i) = 2 + 9i; (-3 + 0.5i)(2 - 2i) = -5 + 7i; both halved. The correlation chain
  // built on it is checked against a brute-force correlation in test_matching.
  Dev<float2> d_a(std::vector<float2>{make_float2(1.0f, 2.0f), make_float2(-3.0f, 0.5f)}),
      d_b(std::vector<float2>{make_float2(4.0f, -1.0f), make_float2(2.0f, 2.0f)}), d_out(2);
  const std::vector<float2> want = {make_float2(1.0f, 4.5f), make_float2(-2.5f, 3.5f)};
  hcuda_c2d_multconj_norm(d_a, d_b, d_out, 2, 1, 2.0f);
  expect_allclose(d_out.host(), want, 0.0f, "multconj");
}

TEST(FftSwaps, InPlaceSwapIsHalfRollAndItsOwnInverseForEvenSizes) {
  // 64 x 30 spans more tiles across than down: a launch that took x for y would miss pixels.
  for (auto [nx, ny] : {std::pair{64u, 30u}, {6u, 4u}, {70u, 66u}}) {
    SCOPED_TRACE(nx);
    const std::vector<float> img = random_image(nx * ny, 70 + nx);
    const std::vector<float> rolled = roll(img, nx, ny, static_cast<int>(nx / 2), static_cast<int>(ny / 2));
    Dev<float> d(img);
    hcuda_2d_swap_ccf_inplace(d, nx, ny);
    EXPECT_EQ(d.host(), rolled);
    hcuda_2d_swap_ccf_inplace(d, nx, ny);
    EXPECT_EQ(d.host(), img);
    hcuda_2d_swap_norm_ccf_inplace(d, nx, ny, 4.0f);
    EXPECT_EQ(d.host(), mapped(rolled, [](float v) { return v / 4.0f; }));
  }
}

TEST(FftSwaps, ComplexCenterSwapOfAnOddCount) {
  // 35 x 3: element i goes to (i + 52) % 105. Wider than one launch tile and less high than one,
  // so that a launch taking x for y shows.
  const unsigned cx = 35, cy = 3, n = cx * cy;
  const std::vector<float2> c = random_complex(n, 82);
  std::vector<float2> want(n);
  for (unsigned i = 0; i < n; ++i) want[(i + n / 2) % n] = c[i];
  Dev<float2> d_c(c), d_out(n);
  hcuda_complex2d_center_swap(d_out, d_c, cx, cy);
  expect_allclose(d_out.host(), want, 0.0f, "center swap");
}

TEST(FftAmplitude, PerElementWeightsBelongToTheDestination) {
  // 3 x 4: for an even number of rows the center swap is the row swap. The unweighted and
  // per-image forms run in the stack averages below.
  const unsigned n = 12;
  std::vector<float2> c(n);
  std::vector<float> W(n), mod(n);
  for (unsigned i = 0; i < n; ++i) c[i] = make_float2(3.0f * i, 4.0f * i), W[i] = 0.5f * i, mod[i] = 5.0f * i;
  std::vector<float> want = row_swap(mod, 3, 4);
  for (unsigned k = 0; k < n; ++k) want[k] = 1.0f + want[k] * W[k];
  Dev<float2> d_c(c);
  Dev<float> d_W(W), d_out(std::vector<float>(n, 1.0f));
  hcuda_complex_mod_Ws_addto_center_swap(d_out, d_c, n, d_W);
  EXPECT_EQ(d_out.host(), want);
}

TEST(FftAmplitude, HalfToFullAndBack) {
  const unsigned nx = 70, ny = 8, nh = nx / 2 + 1;  // wider than a tile, less high
  const std::vector<float> half = random_image(nh * ny, 90);
  Dev<float> d_half(half), d_full(nx * ny), d_back(nh * ny);
  hcuda_2d_fftA_half2full(d_full, d_half, nx, ny);
  std::vector<float> full = reference_half2full(half, nx, ny);
  EXPECT_EQ(d_full.host(), full);
  hcuda_2d_fftA_full2half(d_back, d_full, nx, ny);
  EXPECT_EQ(d_back.host(), half);
  hcuda_2d_fftA_half2full_c0(d_full, d_half, nx, ny);
  full[(ny / 2) * nx + nx / 2] = 0.0f;
  EXPECT_EQ(d_full.host(), full);
}

TEST(FftWeights, SpectrumAverageOnTheHost) {
  const unsigned w = 5, h = 3, n = 4, plane = w * h;
  const std::vector<float2> in = random_complex(plane * n, 5);
  std::vector<float2> host(plane), want(plane);
  for (unsigned i = 0; i < plane; ++i) {
    float sx = 0.0f, sy = 0.0f;  // in image order, then one division
    for (unsigned k = 0; k < n; ++k) sx += in[k * plane + i].x, sy += in[k * plane + i].y;
    want[i] = make_float2(sx / n, sy / n);
  }
  cpu_2ds_fftout_r2c_ave(in.data(), host.data(), w, h, n);
  expect_allclose(host, want, 0.0f, "host");
}

TEST(FftWeights, LocalAmplitudeWeights) {
  const unsigned width = 9, ny = 16, plane = width * ny;
  const float a = 2.0f, b = 1.5f, c = 0.8f, d = 3.0f;
  auto gauss = [&](double r) { return std::exp(-(0.5 * r / c * r / c * d * d) * (a * a / (2.0 * b * b))); };
  // The host weights, pinned by two hand values, are the reference of the device stack.
  std::vector<float> host(plane);
  cpu_2d_fft_amp_local_w2d_gen(host.data(), width, ny, a, b, c, d);
  EXPECT_EQ(host[(ny / 2) * width + 0], 1.0f);                      // r = 0 at the row-swapped origin
  EXPECT_NEAR(host[12 * width + 4], gauss(std::sqrt(0.125)), 1e-6);  // (4, 8 + 4): fx = fy = 0.25

  const std::vector<float> dist = {0.0f, 1.0f, 2.5f};
  Dev<float> d_dist(dist), d_ws(plane * dist.size()), d_w1(3);
  hcuda_2ds_fft_amp_local_w2ds_gen(d_ws, width, ny, 3, d_dist, b, c, d);
  hcuda_2ds_fft_amp_local_w1d_gen(d_w1, 3, d_dist, b);
  const std::vector<float> ws = d_ws.host(), w1 = d_w1.host();
  for (unsigned i = 0; i < dist.size(); ++i) {
    cpu_2d_fft_amp_local_w2d_gen(host.data(), width, ny, dist[i], b, c, d);
    expect_allclose(slice(ws, i, plane), host, 1e-7f, 1e-6f, "w2ds slice " + std::to_string(i));
    EXPECT_NEAR(w1[i], std::exp(dist[i] * dist[i] / (-2.0 * b * b)), 1e-6);
  }
}

TEST(FftStacks, AmplitudeAveragesAreWeightedSums) {
  const unsigned nx = 16, ny = 10, nh = nx / 2 + 1, n = 3, plane = nh * ny;
  const int box = 5;
  const std::vector<float> stack = random_image(nx * ny * n, 180), w = {0.5f, 1.0f, 2.0f};
  const auto amps = stack_amplitudes(stack, nx, ny, n);
  std::vector<float> sum(plane, 0.0f), wsum(plane, 0.0f), W(plane * n);
  for (unsigned i = 0; i < n; ++i)
    for (unsigned k = 0; k < plane; ++k) sum[k] += amps[i][k], wsum[k] += amps[i][k] * w[i], W[i * plane + k] = w[i];
  // Type 2 weights every element of image i; here all by w[i], which must equal type 1.
  Dev<float> d_stack(stack), d_out(std::vector<float>(plane, 123.0f)), d_w(w), d_W(W);  // the output is cleared first
  auto check = [&](const char* what, const std::vector<float>& want, float atol) {
    expect_allclose(d_out.host(), want, atol, 1e-4f, what);
  };
  hcuda_2ds_fft_r2c_amp_ave_log_subbg(d_stack, d_out, nx, ny, n, box);
  check("amp_ave_log_subbg", reference_subbg(log_of(sum), nh, ny, box), 1e-4f);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_w, 1);
  check("weighted log subbg, type 1", reference_subbg(log_of(wsum), nh, ny, box), 1e-4f);
  hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_W, 2);
  check("weighted log subbg, type 2", reference_subbg(log_of(wsum), nh, ny, box), 1e-4f);
  EXPECT_EXIT_REPORT(
      hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack, d_out, nx, ny, n, box, d_w, 3),
      "\033\\[41mError in function hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg\\(\\), file src/cuda_fft on line "
      "[0-9]+: Unkown FFT amplitude average type! Exit now!\033\\[m");
}

TEST(FftStacks, HalfArrayBackgroundSubtraction) {
  // The in-place and logarithmic forms run inside amp_ave_log_subbg above.
  const unsigned nh = 9, ny = 12;
  const std::vector<float> half = random_image(nh * ny, 190);
  Dev<float> d_in(half), d_out(nh * ny);
  hcuda_2dh_fftA_subbg(d_out, d_in, nh, ny, 5);
  expect_allclose(d_out.host(), reference_subbg(half, nh, ny, 5), 1e-5f, 1e-5f, "subbg");
  EXPECT_EQ(d_in.host(), half);
}

TEST(FftTiles, GridSumsTheTileAmplitudes) {
  const unsigned nx = 41, ny = 36, bx = 16, by = 12, step = 8, nh = bx / 2 + 1, plane = nh * by;
  const int box = 4;
  // gx = (41 - 16) / 8 + 1 = 4, gy = (36 - 12) / 8 + 1 = 4.
  const std::vector<float> img = random_image(nx * ny, 200);
  std::vector<int2> corners;
  for (unsigned r = 0; r < 4; ++r)
    for (unsigned c = 0; c < 4; ++c) corners.push_back(make_int2(c * step, r * step));
  std::vector<float> tiles(bx * by * corners.size()), ref(plane, 0.0f);
  cpu_2d_extract_smalls_from_large(tiles.data(), bx, by, corners.size(), img.data(), nx, ny, corners.data());
  for (const auto& amp : stack_amplitudes(tiles, bx, by, corners.size()))
    for (unsigned k = 0; k < plane; ++k) ref[k] += amp[k];

  Dev<float> d_img(img), d_amp(std::vector<float>(plane, 5.0f)), d_sub(plane), d_log(plane);
  hcuda_2d_gridfft_r2c_amp_ave(d_img, d_amp, nx, ny, bx, by, step, 12345);
  const std::vector<float> amp = d_amp.host(), log_ref = log_of(amp), sub_ref = reference_subbg(log_ref, nh, by, box);
  expect_allclose(amp, ref, 1e-5f * max_abs(ref), 1e-5f, "grid amplitude sum");
  // The log-subtracted form clears the centre element of the full array before the background.
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(d_img, d_amp, d_log, d_sub, nx, ny, bx, by, step, box);
  expect_allclose(d_amp.host(), amp, 1e-6f * max_abs(amp), 1e-6f, "log_subbg3 amplitude sum");
  expect_allclose(d_log.host(), log_ref, 1e-6f, 1e-6f, "log_subbg3 log sum");
  const std::vector<float> sub3 = d_sub.host();
  expect_allclose(sub3, reference_subbg(log_ref, nh, by, box, true), 1e-5f, 1e-5f, "log_subbg3 subtracted");
  EXPECT_GT(std::fabs(sub3[(by / 2) * nh + 1] - sub_ref[(by / 2) * nh + 1]), 1e-3f);
  // An image smaller than one tile gives an empty sum.
  hcuda_2d_gridfft_r2c_amp_ave(d_img, d_amp, 8, 8, bx, by, 4, 0);
  EXPECT_EQ(d_amp.host(), std::vector<float>(plane, 0.0f));
}

}  // namespace
