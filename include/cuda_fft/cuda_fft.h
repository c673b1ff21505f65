// The FFT layer: 2D single-precision real transforms through cuFFT (FFTW on the
// CPU backend), and what goes around them: the conjugate product of a correlation, the swaps
// that bring an origin to the centre, amplitude spectra, radial weights, phase shifts and the
// tile and stack averages of the CTF toolkit.
//
// Layouts. A real image is nx x ny floats, x fastest. Its half spectrum is nh x ny float2 with
// nh = nx / 2 + 1; column x holds frequency x, row y frequency y for y up to ny / 2 and y - ny
// above, so the origin is element 0. A stack is n images or spectra one after the other. A half
// amplitude array is nh x ny floats; after the row swap its row ny / 2 holds frequency 0. A full
// amplitude array is nx x ny floats made from a row-swapped half array by cuda_2d_fftA_half2full.
//
// Scaling. The plain transforms are unscaled: forward then inverse multiplies by nx x ny. The
// _norm forms divide by sqrtf((float)(nx * ny)) on either side. All other scalings are explicit.
//
// Kernels are the PICKORA_HD element functions below (thread coordinates first); each hcuda_
// wrapper launches one with the fixed launch shape, waits and checks. All pointers are device
// pointers unless the prefix says otherwise (gpu_, cpu_ take host pointers).
#pragma once

#include <cmath>

#include "cuda_general/platform.h"

// =============================================================================================
// Transforms and plans (fft_transforms.cu)
// =============================================================================================

// Columns of the half spectrum of a real row of nx samples: nx / 2 + 1.
PICKORA_HD inline unsigned fft_half_width(unsigned nx) { return nx / 2 + 1; }

// The square root of the scale of an unscaled pair: the float square root of float(nx * ny).
inline float fft_norm_factor(unsigned nx, unsigned ny) {
  return sqrtf(static_cast<float>(static_cast<unsigned long>(nx) * ny));
}

// Plan operations, each through the cuFFT check: a 2D plan of nx by ny with the slow dimension
// first, as cuFFT takes it (cufftPlan2d(&plan, ny, nx, type)); executions that wait for the
// device; destruction. A plan serves any buffers of its size, in place or out of place (an
// in-place real array has rows padded to 2 * nh floats, as in cuFFT).
cufftHandle hcuda_2d_fft_plan(unsigned nx, unsigned ny, cufftType type);
// A plan of `batch` such transforms over images that follow each other in memory (nx * ny
// floats, or nh * ny complex values, apart); one execution transforms them all, side by side
// on the host's cores.
cufftHandle hcuda_2d_fft_plan_batch(unsigned nx, unsigned ny, cufftType type, int batch);
void hcuda_2d_fft_exec_r2c(cufftHandle plan, const float* in, float2* out);
void hcuda_2d_fft_exec_c2r(cufftHandle plan, float2* in, float* out);
void hcuda_2d_fft_destroy(cufftHandle plan);

// One plan per call, made, executed once and destroyed. The inverse may use its input as work
// space: a spectrum is not read again after its inverse transform.
void hcuda_2d_fft_r2c(const float* in, float2* out, unsigned nx, unsigned ny);
void hcuda_2d_fft_c2r(float2* in, float* out, unsigned nx, unsigned ny);
void hcuda_2d_fft_r2c_norm(const float* in, float2* out, unsigned nx, unsigned ny);
void hcuda_2d_fft_c2r_norm(float2* in, float* out, unsigned nx, unsigned ny);

// Host arrays in and out, device buffers of their own per call; both divide by sqrt(nx x ny).
void gpu_2d_fft_r2c(const float* h_in, float2* h_out, unsigned nx, unsigned ny);
void gpu_2d_fft_c2r(const float2* h_in, float* h_out, unsigned nx, unsigned ny);
// Unscaled forward transform, then the modulus of each element (nh x ny floats out).
void gpu_2d_fft_r2c_mod(const float* h_in, float* h_out, unsigned nx, unsigned ny);

// Stacks: one plan, n transforms. The device form is unscaled; the host form divides each
// spectrum by sqrt(nx x ny) and prints one "." when done.
void hcuda_2ds_fft_r2c(const float* in, float2* out, unsigned nx, unsigned ny, unsigned n);
void gpu_2ds_fft_r2c(const float* h_in, float2* h_out, unsigned nx, unsigned ny, unsigned n);

// =============================================================================================
// Products and swaps (fft_products_swaps.cu)
// =============================================================================================

// out = a x conj(b) / d, element y * width + x.
PICKORA_HD inline void cuda_c2d_multconj_norm(unsigned x, unsigned y, const float2* a, const float2* b, float2* out,
                                              unsigned width, unsigned height, float d) {
  if (x >= width || y >= height) return;
  const unsigned i = y * width + x;
  const float2 p = a[i], q = b[i];
  out[i] = make_float2((p.x * q.x + p.y * q.y) / d, (p.y * q.x - p.x * q.y) / d);
}
PICKORA_HD inline void cuda_c2d_multconj_norm_inplace(unsigned x, unsigned y, float2* a, const float2* b,
                                                      unsigned width, unsigned height, float d) {
  cuda_c2d_multconj_norm(x, y, a, b, a, width, height, d);
}

// Index of the partner of (x, y) under the half-image shift in both directions.
PICKORA_HD inline unsigned fft_swap_index(unsigned x, unsigned y, unsigned nx, unsigned ny) {
  // (v + n / 2) % n for v < n, without a division per pixel.
  const unsigned sx = x + nx / 2, sy = y + ny / 2;
  return (sy >= ny ? sy - ny : sy) * nx + (sx >= nx ? sx - nx : sx);
}

// out[(y + ny/2) % ny][(x + nx/2) % nx] = in[y][x].
PICKORA_HD inline void cuda_2d_swap_ccf(unsigned x, unsigned y, float* out, const float* in, unsigned nx, unsigned ny) {
  if (x >= nx || y >= ny) return;
  out[fft_swap_index(x, y, nx, ny)] = in[y * nx + x];
}
// Threads of the half-rows shape (y below ny / 2), each exchanging one pair. A complete swap for
// even nx and ny; then the swap is its own inverse.
PICKORA_HD inline void cuda_2d_swap_ccf_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny) {
  if (x >= nx || y >= ny / 2) return;
  const unsigned i = y * nx + x, j = fft_swap_index(x, y, nx, ny);
  const float t = a[i];
  a[i] = a[j];
  a[j] = t;
}
PICKORA_HD inline void cuda_2d_swap_norm_ccf_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny,
                                                     float d) {
  if (x >= nx || y >= ny / 2) return;
  const unsigned i = y * nx + x, j = fft_swap_index(x, y, nx, ny);
  const float t = a[i];
  a[i] = a[j] / d;
  a[j] = t / d;
}
// The same mapping under the names of the spectrum tools.
PICKORA_HD inline void cuda_r2d_fc_swap(unsigned x, unsigned y, float* out, const float* in, unsigned nx, unsigned ny) {
  cuda_2d_swap_ccf(x, y, out, in, nx, ny);
}
PICKORA_HD inline void cuda_r2d_fc_swap_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny) {
  cuda_2d_swap_ccf_inplace(x, y, a, nx, ny);
}

// Rows only, for half-width arrays: out[(y + ny/2) % ny][x] = in[y][x].
PICKORA_HD inline void cuda_r2dh_fc_swap(unsigned x, unsigned y, float* out, const float* in, unsigned width,
                                         unsigned ny) {
  if (x >= width || y >= ny) return;
  out[((y + ny / 2) % ny) * width + x] = in[y * width + x];
}
// Half-rows shape: exchanges row y and row (y + ny/2) % ny for y below ny / 2.
PICKORA_HD inline void cuda_r2dh_fc_swap_inplace(unsigned x, unsigned y, float* a, unsigned width, unsigned ny) {
  if (x >= width || y >= ny / 2) return;
  const unsigned i = y * width + x, j = ((y + ny / 2) % ny) * width + x;
  const float t = a[i];
  a[i] = a[j];
  a[j] = t;
}
PICKORA_HD inline void cuda_c2dh_fc_swap_inplace(unsigned x, unsigned y, float2* a, unsigned width, unsigned ny) {
  if (x >= width || y >= ny / 2) return;
  const unsigned i = y * width + x, j = ((y + ny / 2) % ny) * width + x;
  const float2 t = a[i];
  a[i] = a[j];
  a[j] = t;
}

// Flat shift by half the array: i = y * nx + x, out[(i + nx ny / 2) % (nx ny)] = in[i].
PICKORA_HD inline void cuda_complex2d_center_swap(unsigned x, unsigned y, float2* out, const float2* in, unsigned nx,
                                                  unsigned ny) {
  if (x >= nx || y >= ny) return;
  const unsigned n = nx * ny, i = y * nx + x;
  out[(i + n / 2) % n] = in[i];
}
PICKORA_HD inline void cuda_complex2d_center_swap_norm(unsigned x, unsigned y, float2* out, const float2* in,
                                                       unsigned nx, unsigned ny, float d) {
  if (x >= nx || y >= ny) return;
  const unsigned n = nx * ny, i = y * nx + x;
  out[(i + n / 2) % n] = make_float2(in[i].x / d, in[i].y / d);
}

void hcuda_c2d_multconj_norm(const float2* a, const float2* b, float2* out, unsigned width, unsigned height, float d);
void hcuda_c2d_multconj_norm_inplace(float2* a, const float2* b, unsigned width, unsigned height, float d);
void hcuda_2d_swap_ccf(float* out, const float* in, unsigned nx, unsigned ny);
void hcuda_2d_swap_ccf_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_swap_norm_ccf_inplace(float* a, unsigned nx, unsigned ny, float d);
void hcuda_r2d_fc_swap(float* out, const float* in, unsigned nx, unsigned ny);
void hcuda_r2d_fc_swap_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_r2dh_fc_swap(float* out, const float* in, unsigned width, unsigned ny);
void hcuda_r2dh_fc_swap_inplace(float* a, unsigned width, unsigned ny);
void hcuda_c2dh_fc_swap_inplace(float2* a, unsigned width, unsigned ny);
void hcuda_complex2d_center_swap(float2* out, const float2* in, unsigned nx, unsigned ny);
void hcuda_complex2d_center_swap_norm(float2* out, const float2* in, unsigned nx, unsigned ny, float d);

// =============================================================================================
// Amplitude kernels and half/full conversions (fft_amplitude.cu)
// =============================================================================================

// Flat, one thread per element i below n, k = (i + n / 2) % n: for an array of an even number of
// rows that is the row swap. The modulus is the plain root of the power.
PICKORA_HD inline unsigned long fft_center_swap_index(unsigned i, unsigned long n) { return (i + n / 2) % n; }
PICKORA_HD inline float fft_modulus(float2 c) { return sqrtf(c.x * c.x + c.y * c.y); }

PICKORA_HD inline void cuda_complex_mod_center_swap(unsigned i, float* out, const float2* in, unsigned long n) {
  if (i < n) out[fft_center_swap_index(i, n)] = fft_modulus(in[i]);
}
PICKORA_HD inline void cuda_complex_mod_addto_center_swap(unsigned i, float* out, const float2* in, unsigned long n) {
  if (i < n) out[fft_center_swap_index(i, n)] += fft_modulus(in[i]);
}
PICKORA_HD inline void cuda_complex_mod_weighted_addto_center_swap(unsigned i, float* out, const float2* in,
                                                                   unsigned long n, float w) {
  if (i < n) out[fft_center_swap_index(i, n)] += fft_modulus(in[i]) * w;
}
// One weight per element, read at the destination index k.
PICKORA_HD inline void cuda_complex_mod_Ws_addto_center_swap(unsigned i, float* out, const float2* in, unsigned long n,
                                                             const float* W) {
  if (i >= n) return;
  const unsigned long k = fft_center_swap_index(i, n);
  out[k] += fft_modulus(in[i]) * W[k];
}
// Natural logarithm of the modulus; minus infinity at 0.
PICKORA_HD inline void cuda_complex_logmod_center_swap(unsigned i, float* out, const float2* in, unsigned long n) {
  if (i < n) out[fft_center_swap_index(i, n)] = logf(fft_modulus(in[i]));
}

void hcuda_complex_mod_center_swap(float* out, const float2* in, unsigned long n);
void hcuda_complex_mod_addto_center_swap(float* out, const float2* in, unsigned long n);
void hcuda_complex_mod_weighted_addto_center_swap(float* out, const float2* in, unsigned long n, float w);
void hcuda_complex_mod_Ws_addto_center_swap(float* out, const float2* in, unsigned long n, const float* W);
void hcuda_complex_logmod_center_swap(float* out, const float2* in, unsigned long n);

// Amplitude arrays between the half (nh = nx / 2 + 1 wide) and the full form (nx wide), with
// h = nx / 2. The half array's column 0 lands in full column h - 1, its column 1 in column h.
// full2half: threads over nh x ny, out[y][x] = in[y][h + x - 1].
PICKORA_HD inline void cuda_2d_fftA_full2half(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                              unsigned ny) {
  const unsigned h = nx / 2, nh = h + 1;
  if (x >= nh || y >= ny) return;
  out[y * nh + x] = in[y * nx + h + x - 1];
}
// half2full: threads over nx x ny; below column h - 1 the Friedel mate of the mirrored row.
PICKORA_HD inline void cuda_2d_fftA_half2full(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                              unsigned ny) {
  const unsigned h = nx / 2, nh = h + 1;
  if (x >= nx || y >= ny) return;
  if (x + 1 < h)
    out[y * nx + x] = in[((ny - y) % ny) * nh + (h - 1 - x)];
  else
    out[y * nx + x] = in[y * nh + (x + 1 - h)];
}
// The same, with the element at (h, ny / 2) set to 0.
PICKORA_HD inline void cuda_2d_fftA_half2full_c0(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                                 unsigned ny) {
  if (x >= nx || y >= ny) return;
  if (x == nx / 2 && y == ny / 2)
    out[y * nx + x] = 0.0f;
  else
    cuda_2d_fftA_half2full(x, y, out, in, nx, ny);
}

// nx is the width of the full array in all three.
void hcuda_2d_fftA_full2half(float* out, const float* in, unsigned nx, unsigned ny);
void hcuda_2d_fftA_half2full(float* out, const float* in, unsigned nx, unsigned ny);
void hcuda_2d_fftA_half2full_c0(float* out, const float* in, unsigned nx, unsigned ny);

// =============================================================================================
// Spectral weights, shifts and averages (fft_weights.cu)
// =============================================================================================

// Mean of n stacked spectra of width x height: float sums in stack order, then divided by n.
PICKORA_HD inline void cuda_c2ds_ave(unsigned x, unsigned y, float2* out, const float2* in, unsigned width,
                                     unsigned height, unsigned n) {
  if (x >= width || y >= height) return;
  const unsigned long plane = static_cast<unsigned long>(width) * height;
  const unsigned i = y * width + x;
  float sx = 0.0f, sy = 0.0f;
  for (unsigned k = 0; k < n; ++k) {
    sx += in[k * plane + i].x;
    sy += in[k * plane + i].y;
  }
  out[i] = make_float2(sx / static_cast<float>(n), sy / static_cast<float>(n));
}
void hcuda_c2ds_ave(float2* out, const float2* in, unsigned width, unsigned height, unsigned n);
// The same on the host (note: input first).
void cpu_2ds_fftout_r2c_ave(const float2* in, float2* out, unsigned width, unsigned height, unsigned n);

// Linear phase ramp on a half spectrum: out = in x e^(i phi), phi = 2 pi (sx x / (2 (nh - 1)) +
// sy fy / ny), fy = y below ny / 2 and y - ny above; phi in double, then used as float. With the
// forward transform's sign, the inverse of the product is the image at (x + sx, y + sy).
PICKORA_HD inline float2 fft_linear_pshift(float2 v, unsigned x, unsigned y, unsigned nh, unsigned ny, float sx,
                                           float sy) {
  const double fy = y < ny / 2 ? static_cast<double>(y) : static_cast<double>(y) - static_cast<double>(ny);
  const double phi = 2.0 * 3.141592653589793 *
                     (static_cast<double>(sx) * static_cast<double>(x) / (2.0 * (static_cast<double>(nh) - 1.0)) +
                      static_cast<double>(sy) * fy / static_cast<double>(ny));
  const float p = static_cast<float>(phi);
  const float c = cosf(p), s = sinf(p);
  return make_float2(v.x * c - v.y * s, v.x * s + v.y * c);
}
PICKORA_HD inline void cuda_c2dh_linear_Pshift(unsigned x, unsigned y, const float2* in, float2* out, unsigned nh,
                                               unsigned ny, float sx, float sy) {
  if (x >= nh || y >= ny) return;
  out[y * nh + x] = fft_linear_pshift(in[y * nh + x], x, y, nh, ny, sx, sy);
}
PICKORA_HD inline void cuda_c2dh_linear_Pshift_inplace(unsigned x, unsigned y, float2* a, unsigned nh, unsigned ny,
                                                       float sx, float sy) {
  if (x >= nh || y >= ny) return;
  a[y * nh + x] = fft_linear_pshift(a[y * nh + x], x, y, nh, ny, sx, sy);
}
void hcuda_c2dh_linear_Pshift(const float2* in, float2* out, unsigned nh, unsigned ny, float sx, float sy);
void hcuda_c2dh_linear_Pshift_inplace(float2* a, unsigned nh, unsigned ny, float sx, float sy);

// Shift of a real image through its spectrum: _norm forward transform, the ramp, _norm inverse
// transform, with a temporary spectrum per call. The gpu_ forms take host arrays and use device
// buffers of their own; gpu_2d_shift2 gives the same result as gpu_2d_shift through one device
// buffer shifted in place.
void hcuda_2d_shift(const float* in, float* out, unsigned nx, unsigned ny, float sx, float sy);
void hcuda_2d_shift_inplace(float* a, unsigned nx, unsigned ny, float sx, float sy);
void gpu_2d_shift(const float* h_in, float* h_out, unsigned nx, unsigned ny, float sx, float sy);
void gpu_2d_shift2(const float* h_in, float* h_out, unsigned nx, unsigned ny, float sx, float sy);
void gpu_2d_shift_inplace(float* h_a, unsigned nx, unsigned ny, float sx, float sy);

// The factor of the radial ramp at element (x, y) of a half spectrum of `width` columns:
// r below rc = min(R, 0.5) gives r; beyond, rc times a Gaussian fall of d = r - rc with
// s = (0.5 - rc if rc + W > 0.5 else W) / 3; with s = 0 the fall is 1 at d = 0 and 0 elsewhere.
PICKORA_HD inline float fft_rweight_factor(unsigned x, unsigned y, unsigned width, unsigned ny, float R, float W) {
  const float fx = static_cast<float>(x) / static_cast<float>(2 * (width - 1));
  const float fy =
      y < ny / 2 ? static_cast<float>(y) / static_cast<float>(ny) : static_cast<float>(ny - y) / static_cast<float>(ny);
  const float r = sqrtf(fx * fx + fy * fy);
  const float rc = R > 0.5f ? 0.5f : R;
  if (r < rc) return r;
  const float d = r - rc;
  const float fall = rc + W > 0.5f ? 0.5f - rc : W;
  const float s = fall / 3.0f;
  const float g = s == 0.0f ? (d == 0.0f ? 1.0f : 0.0f) : expf(d * d / (-2.0f * s * s));
  return rc * g;
}
PICKORA_HD inline void cuda_c2dh_rweight(unsigned x, unsigned y, float2* out, const float2* in, unsigned width,
                                         unsigned ny, float R, float W) {
  if (x >= width || y >= ny) return;
  const float f = fft_rweight_factor(x, y, width, ny, R, W);
  const float2 v = in[y * width + x];
  out[y * width + x] = make_float2(v.x * f, v.y * f);
}
PICKORA_HD inline void cuda_c2dh_rweight_inplace(unsigned x, unsigned y, float2* a, unsigned width, unsigned ny,
                                                 float R, float W) {
  cuda_c2dh_rweight(x, y, a, a, width, ny, R, W);
}
void hcuda_c2dh_rweight(float2* out, const float2* in, unsigned width, unsigned ny, float R, float W);
void hcuda_c2dh_rweight_inplace(float2* a, unsigned width, unsigned ny, float R, float W);
// Real image through the ramp: _norm forward, ramp, _norm inverse. nx and ny must be even; an odd
// size ends the run with "... %d not an even number! Exit now!".
void hcuda_r2d_rweight(float* out, const float* in, unsigned nx, unsigned ny, float R, float W);
void hcuda_r2d_rweight_inplace(float* a, unsigned nx, unsigned ny, float R, float W);

// Local amplitude weight at (x, y) of a row-swapped half array: fx = x / (2 (width - 1)),
// fy = (y - ny / 2) / ny in double rounded to float, r = sqrt(fx^2 + fy^2),
// weight = exp(-(0.5 (r / c)^2 d^2) (a^2 / (2 b^2))).
PICKORA_HD inline float fft_amp_local_weight(unsigned x, unsigned y, unsigned width, unsigned ny, float a, float b,
                                             float c, float d) {
  const float fx = static_cast<float>(static_cast<double>(x) / (2.0 * (static_cast<double>(width) - 1.0)));
  const float fy = static_cast<float>((static_cast<double>(y) - static_cast<double>(ny / 2)) / static_cast<double>(ny));
  const float r = sqrtf(fx * fx + fy * fy);
  const float rc = r / c;
  return expf(-(0.5f * rc * rc * d * d) * (a * a / (2.0f * b * b)));
}
PICKORA_HD inline void cuda_2d_fft_amp_local_w2d_gen(unsigned x, unsigned y, float* w, unsigned width, unsigned ny,
                                                     float a, float b, float c, float d) {
  if (x >= width || y >= ny) return;
  w[y * width + x] = fft_amp_local_weight(x, y, width, ny, a, b, c, d);
}
// n images of weights, image i with a = distances[i] (a device array).
PICKORA_HD inline void cuda_2ds_fft_amp_local_w2ds_gen(unsigned x, unsigned y, float* w, unsigned width, unsigned ny,
                                                       unsigned n, const float* distances, float b, float c, float d) {
  if (x >= width || y >= ny) return;
  const unsigned long plane = static_cast<unsigned long>(width) * ny;
  for (unsigned i = 0; i < n; ++i)
    w[i * plane + y * width + x] = fft_amp_local_weight(x, y, width, ny, distances[i], b, c, d);
}
// w[i] = exp(distance[i]^2 / (-2 b^2)).
PICKORA_HD inline void cuda_2ds_fft_amp_local_w1d_gen(unsigned i, float* w, unsigned n, const float* distances,
                                                      float b) {
  if (i < n) w[i] = expf(distances[i] * distances[i] / (-2.0f * b * b));
}
void hcuda_2d_fft_amp_local_w2d_gen(float* w, unsigned width, unsigned ny, float a, float b, float c, float d);
void hcuda_2ds_fft_amp_local_w2ds_gen(float* w, unsigned width, unsigned ny, unsigned n, const float* distances,
                                      float b, float c, float d);
void hcuda_2ds_fft_amp_local_w1d_gen(float* w, unsigned n, const float* distances, float b);
// Host forms: the 2D weight, and its 1D form over i below n with r = i / (2 n - 2).
void cpu_2d_fft_amp_local_w2d_gen(float* w, unsigned width, unsigned ny, float a, float b, float c, float d);
void cpu_2d_fft_amp_local_w1d_gen(float* w, unsigned n, float a, float b, float c, float d);

// B-factor on a half amplitude array (host): out = in x exp(-s^2 B / 4), s = sqrt(fx^2 + fy^2) /
// pixel size, fx = x / (2 (width - 1)), fy = (y - ny / 2) / ny, in double. The usw forms are for
// arrays whose rows are not swapped: fy takes (y + ny / 2) % ny in place of y.
void cpu_r2dh_fftA_appy_bfac(float* out, const float* in, unsigned width, unsigned ny, float pixel_size, float B);
void cpu_r2dh_usw_fftA_appy_bfac(float* out, const float* in, unsigned width, unsigned ny, float pixel_size, float B);
void cpu_r2dh_usw_fftA_appy_bfac_inplace(float* a, unsigned width, unsigned ny, float pixel_size, float B);

// =============================================================================================
// Stacks and tiles (fft_stacks.cu). Device pointers throughout; the amplitude operations clear
// their output first. Outputs are nh x ny floats per image (nh = nx / 2 + 1), rows swapped.
// Their plan, allocation and exec calls are checked too, so a failure is reported in the
// device-check form where it happens rather than at the next synchronisation.
// =============================================================================================

// Per image: transform, row swap of the spectrum, then modulus / sqrt(nx ny) (mod) or power /
// (nx ny) (pow) into the image's place in the output.
void hcuda_2ds_fft_r2c_mod(const float* in, float* out, unsigned nx, unsigned ny, unsigned n);
void hcuda_2ds_fft_r2c_pow(const float* in, float* out, unsigned nx, unsigned ny, unsigned n);
// Per image: transform and the log of the modulus, without swap or scaling.
void hcuda_2ds_fft_r2c_logmod(const float* in, float* out, unsigned nx, unsigned ny, unsigned n);
// Per image: _norm transform, log modulus, row swap; the mean over the images, box-smoothed on
// the half array, is subtracted from every image of the output.
void hcuda_2ds_fft_r2c_logmod_subbg(float* out, const float* in, unsigned nx, unsigned ny, unsigned n, int box);
// Cuts `count` square boxes of side `box_size` at the corners of the host array `boxes` out of the
// image, then hcuda_2ds_fft_r2c_mod of them.
void hcuda_2d_boxes_fft_r2c_mod(float* out, const int2* boxes, int count, int box_size, const float* image, unsigned nx,
                                unsigned ny);

// Sums (not means) of the row-swapped moduli over a stack.
void hcuda_2ds_fft_r2c_amp_ave(const float* in, float* out, unsigned nx, unsigned ny, unsigned n);
void hcuda_2ds_fft_r2c_amp_ave_log(const float* in, float* out, unsigned nx, unsigned ny, unsigned n);
void hcuda_2ds_fft_r2c_amp_ave_sqrt(const float* in, float* out, unsigned nx, unsigned ny, unsigned n);
void hcuda_2ds_fft_r2c_amp_ave_log_subbg(const float* in, float* out, unsigned nx, unsigned ny, unsigned n, int box);
// The same with a host weight per image.
void hcuda_2ds_fft_r2c_amp_weighted_ave(const float* in, float* out, unsigned nx, unsigned ny, unsigned n,
                                        const float* h_weights);
void hcuda_2ds_fft_r2c_amp_weighted_ave_log(const float* in, float* out, unsigned nx, unsigned ny, unsigned n,
                                            const float* h_weights);
// Device weights: type 1, one per image; type 2, one per element of each image's half array
// (n x nh x ny); any other type is fatal. Then log and background subtraction.
void hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(const float* in, float* out, unsigned nx, unsigned ny, unsigned n,
                                                  int box, const float* d_weights, int type);

// Background subtraction of a half amplitude array: half to full, box mean of box x box on the
// full array, subtracted from it, full to half. nx of the full array is 2 (nh - 1).
void hcuda_2dh_fftA_subbg(float* out, const float* in, unsigned nh, unsigned ny, int box);
void hcuda_2dh_fftA_subbg_inplace(float* a, unsigned nh, unsigned ny, int box);
// Logarithm in place, then the same.
void hcuda_2dh_fft_amp_log_subbg_inplace(float* a, unsigned nh, unsigned ny, int box);

// Tiles of bx by by at corners (c step, r step), gx = (nx - bx) / step + 1 by gy = (ny - by) / step
// + 1 of them, rows of tiles in order (none where the image is smaller than a tile, and only the
// tile at the origin for a step of 0): the sum of their row-swapped moduli into nh x by floats,
// nh = bx / 2 + 1, not divided by the number of tiles. The first form cuts the tiles by row copies
// and ignores its last argument; the numbered forms cut them by hcuda_2d_extract_small_from_large.
void hcuda_2d_gridfft_r2c_amp_ave(const float* image, float* out, unsigned nx, unsigned ny, unsigned bx, unsigned by,
                                  unsigned step, int ignored);
// Then the logarithm and the background subtraction on the full array.
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg(const float* image, float* out, unsigned nx, unsigned ny, unsigned bx,
                                            unsigned by, unsigned step, int box);
// The same, keeping the log sum before the subtraction in `log_sum`.
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg2(const float* image, float* subtracted, float* log_sum, unsigned nx,
                                             unsigned ny, unsigned bx, unsigned by, unsigned step, int box);
// The same with all three stages, and the full array's element (h, by / 2) cleared before the
// smoothing (cuda_2d_fftA_half2full_c0).
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(const float* image, float* amp_sum, float* log_sum, float* subtracted,
                                             unsigned nx, unsigned ny, unsigned bx, unsigned by, unsigned step,
                                             int box);
// Its last two stages on an amplitude sum made elsewhere (the frames of a movie one by one):
// the log sum and the subtracted spectrum of a bx x by tile.
void hcuda_2dh_amp_log_subbg3(const float* amp_sum, float* log_sum, float* subtracted, unsigned bx, unsigned by,
                              int box);
