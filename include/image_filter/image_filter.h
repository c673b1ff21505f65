// Band-pass filters in Fourier space: a family of radial weights on half spectra, the filters
// that transform a square image, weigh it and transform it back, with or without a mirror-padded
// copy in between, and a file-to-file form.
//
// Units. A filter of an n by n transform measures radii in Fourier pixels of that transform: the
// element (x, y) of the half spectrum (row stride n / 2 + 1) lies at r = sqrtf(x x + fy fy) with
// fy = y below n / 2 and y - n from there on. A resolution of d angstrom lies at the radius
// float(n) * apix / d. The smaller of the two resolution arguments (the finer detail) gives the
// low-pass radius R_lp, the larger one the high-pass radius R_hp; the arguments may come in
// either order. The padded filters transform a 2 N by 2 N copy, so their n is 2 N while apix
// stays the pixel size of the image: padding adds samples, not resolution.
//
// Scale. The transforms are not normalised: one pass multiplies the image by n n on top of the
// weights (4 N N for the padded forms). Nothing here divides that out; callers normalise.
//
// Every Gaussian weight here has height GAUSS_NORM at its centre, not 1.
#pragma once

#include <cmath>

#include "cuda_general/platform.h"

// The single-precision value of 1 / sqrt(2 pi).
constexpr float GAUSS_NORM = 0.3989423f;

// ---------------------------------------------------------------------------------------------
// Radial geometry of the weights.

// Radius of element (x, y) of the half spectrum of an n-sided transform; the squared radius is
// formed exactly in integers and only then rooted in single precision.
PICKORA_HD inline float bandpass_radius(unsigned x, unsigned y, int n) {
  const int ix = static_cast<int>(x), iy = static_cast<int>(y);
  const int fy = iy < n / 2 ? iy : iy - n;
  return sqrtf(static_cast<float>(ix * ix + fy * fy));
}

// The radius of a resolution of `res` angstrom: the product first, then the division.
PICKORA_HD inline float bandpass_radius_of_resolution(int n, float apix, float res) {
  return static_cast<float>(n) * apix / res;
}

// R_lp from the finer (smaller) resolution, R_hp from the coarser one, whatever their order.
PICKORA_HD inline float bandpass_lowpass_radius(int n, float apix, float res1, float res2) {
  return bandpass_radius_of_resolution(n, apix, res1 < res2 ? res1 : res2);
}
PICKORA_HD inline float bandpass_highpass_radius(int n, float apix, float res1, float res2) {
  return bandpass_radius_of_resolution(n, apix, res1 < res2 ? res2 : res1);
}

// Threads cover x up to and including n / 2 and y below n.
PICKORA_HD inline bool bandpass_outside(unsigned x, unsigned y, int n) {
  return x > static_cast<unsigned>(n / 2) || y >= static_cast<unsigned>(n);
}

PICKORA_HD inline float2& bandpass_element(float2* spec, unsigned x, unsigned y, int n) {
  return spec[static_cast<unsigned long>(y) * static_cast<unsigned long>(n / 2 + 1) + x];
}

PICKORA_HD inline void bandpass_scale(float2& c, float w) {
  c.x = c.x * w;
  c.y = c.y * w;
}

PICKORA_HD inline void bandpass_clear(float2& c) {
  c.x = 0.0f;
  c.y = 0.0f;
}

// GAUSS_NORM exp(-d^2 / (2 s^2)), all in single precision.
PICKORA_HD inline float bandpass_gaussian(float d, float s) { return GAUSS_NORM * expf(-(d * d) / (2.0f * s * s)); }

// ---------------------------------------------------------------------------------------------
// The radial weights: element functions of one complex element (x, y) of the half spectrum of
// an n by n transform, which they change in place.

// Hard high-pass at R_hp; the pass band up to and including R_lp stays untouched; beyond it a
// Gaussian roll-off of sigma soft / 3 (in Fourier pixels) that starts at GAUSS_NORM, reaches
// GAUSS_NORM exp(-4.5) at R_lp + soft and is cut to 0 after that. With soft 0 it is sharp.
PICKORA_HD inline void cuda_c2d_bandpass_softR(unsigned x, unsigned y, float2* spec, int n, float apix, float res1,
                                               float res2, float soft) {
  if (bandpass_outside(x, y, n)) return;
  const float r_lp = bandpass_lowpass_radius(n, apix, res1, res2);
  const float r_hp = bandpass_highpass_radius(n, apix, res1, res2);
  const float r = bandpass_radius(x, y, n);
  float2& c = bandpass_element(spec, x, y, n);
  if (r < r_hp) {
    bandpass_clear(c);
  } else if (r <= r_lp) {
    return;
  } else if (r <= r_lp + soft) {
    bandpass_scale(c, bandpass_gaussian(r - r_lp, soft / 3.0f));
  } else {
    bandpass_clear(c);
  }
}

// Between R_hp and R_lp (both included) the product of a low-pass Gaussian centred at the origin
// (sigma R_lp / 3) and a high-pass Gaussian centred at M = n / 2 + 1, one sample beyond the edge of
// the transform (sigma (M - R_hp) / 3); each has fallen to exp(-4.5) of its height at its own
// cut-off. Outside the band the element is cleared.
PICKORA_HD inline void cuda_c2d_bandpass_guas(unsigned x, unsigned y, float2* spec, int n, float apix, float res1,
                                              float res2) {
  if (bandpass_outside(x, y, n)) return;
  const float r_lp = bandpass_lowpass_radius(n, apix, res1, res2);
  const float r_hp = bandpass_highpass_radius(n, apix, res1, res2);
  const float r = bandpass_radius(x, y, n);
  float2& c = bandpass_element(spec, x, y, n);
  if (r < r_hp || r > r_lp) {
    bandpass_clear(c);
    return;
  }
  const float m = static_cast<float>(n / 2 + 1);
  const float g1 = bandpass_gaussian(r, r_lp / 3.0f);
  const float g2 = bandpass_gaussian(m - r, (m - r_hp) / 3.0f);
  bandpass_scale(c, g1 * g2);
}

// Untouched from R_hp up to and including R_lp, cleared elsewhere.
PICKORA_HD inline void cuda_c2d_bandpass_sharp(unsigned x, unsigned y, float2* spec, int n, float apix, float res1,
                                               float res2) {
  if (bandpass_outside(x, y, n)) return;
  const float r_lp = bandpass_lowpass_radius(n, apix, res1, res2);
  const float r_hp = bandpass_highpass_radius(n, apix, res1, res2);
  const float r = bandpass_radius(x, y, n);
  if (r < r_hp || r > r_lp) bandpass_clear(bandpass_element(spec, x, y, n));
}

// Cleared beyond the radius of `res`; the radius itself passes.
PICKORA_HD inline void cuda_c2d_lowpass_sharp(unsigned x, unsigned y, float2* spec, int n, float apix, float res) {
  if (bandpass_outside(x, y, n)) return;
  if (bandpass_radius(x, y, n) > bandpass_radius_of_resolution(n, apix, res))
    bandpass_clear(bandpass_element(spec, x, y, n));
}

// Cleared below the radius of `res`; the radius itself passes.
PICKORA_HD inline void cuda_c2d_highpass_sharp(unsigned x, unsigned y, float2* spec, int n, float apix, float res) {
  if (bandpass_outside(x, y, n)) return;
  if (bandpass_radius(x, y, n) < bandpass_radius_of_resolution(n, apix, res))
    bandpass_clear(bandpass_element(spec, x, y, n));
}

// ---------------------------------------------------------------------------------------------
// Filters of an N by N device image. Each call allocates its spectrum (and padded copy), makes
// and destroys its transform plans and frees everything before it returns. Input and output may
// be the same array. N is even for the picker; the padded forms transform 2 N by 2 N.

// Mirror-padded: pad, transform, weigh with n = 2 N, transform back, keep the top-left quadrant.
void hcuda_2d_bandpass_softR_mpad(const float* in, float* out, int N, float apix, float res1, float res2, float soft);
void hcuda_2d_bandpass_guas_mpad(const float* in, float* out, int N, float apix, float res1, float res2);
void hcuda_2d_bandpass_softR_mpad_inplace(float* image, int N, float apix, float res1, float res2, float soft);
void hcuda_2d_bandpass_guas_mpad_inplace(float* image, int N, float apix, float res1, float res2);

// Plain: the N by N image is transformed directly (n = N).
void hcuda_2d_bandpass_softR(const float* in, float* out, int N, float apix, float res1, float res2, float soft);
void hcuda_2d_bandpass_softR_inplace(float* image, int N, float apix, float res1, float res2, float soft);
void hcuda_2d_bandpass_guas(const float* in, float* out, int N, float apix, float res1, float res2);
void hcuda_2d_bandpass_guas_inplace(float* image, int N, float apix, float res1, float res2);
void hcuda_2d_bandpass_sharp(const float* in, float* out, int N, float apix, float res1, float res2);
void hcuda_2d_bandpass_sharp_inplace(float* image, int N, float apix, float res1, float res2);
// Single-edge sharp filters; both take real images in and out like the others.
void hcuda_2d_lowpass_sharp(const float* in, float* out, int N, float apix, float res);
void hcuda_c2d_highpass_sharp(const float* in, float* out, int N, float apix, float res);

// Host image in and out through a device copy of its own. The soft form falls back to the sharp
// band-pass for a soft edge below 1 Fourier pixel.
void gpu_2d_bandpass_softR_inplace(float* h_image, int N, float apix, float res1, float res2, float soft);
void gpu_2d_bandpass_guas_inplace(float* h_image, int N, float apix, float res1, float res2);
void gpu_2d_bandpass_sharp_inplace(float* h_image, int N, float apix, float res1, float res2);
void gpu_2d_bandpass_guas_mpad(const float* h_in, float* h_out, int N, float apix, float res1, float res2);
void gpu_2d_bandpass_guas_mpad_inplace(float* h_image, int N, float apix, float res1, float res2);

// ---------------------------------------------------------------------------------------------
// File to file: reads the whole MRC file, filters its first nx by nx floats and writes the head
// and all the data (as floats, mode 2) to `out_path`. type 1: plain Gaussian, 2: plain soft
// (sharp for soft below 1), 3: sharp, 4: padded Gaussian; any other type copies the data
// unfiltered. A file whose nx differs from its ny ends the run with the fatal report.
enum MrcfBandpassType {
  MRCF_BANDPASS_GAUSS = 1,
  MRCF_BANDPASS_SOFT = 2,
  MRCF_BANDPASS_SHARP = 3,
  MRCF_BANDPASS_GAUSS_MPAD = 4,
};
int mrcf_2d_bandpass(const char* in_path, const char* out_path, float apix, float res1, float res2, float soft,
                     int type);
