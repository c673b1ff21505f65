// The equiphase average (EPA): a half spectrum averaged along curves of equal CTF phase, which
// astigmatism bends away from circles, laid out as one curve over a single frequency axis; its
// way back to two dimensions; the CTF zeros and peaks along a curve; and the polynomial and
// line fits of the background and of the B-factor.
//
// Curves have L = (nh - 1) X + 1 elements for an oversampling X; element i stands for
// s = i / (2 (L - 1) pixel size). Half spectra have the zero frequency at row ny / 2.
#pragma once

#include <cmath>
#include <vector>

#include "ctf_core/ctf_core.h"
#include "cuda_general/platform.h"

// Coefficients of the phase g(q) = b q - C q^2 in q = s^2: B = pi lambda, C = (cs 1e7 pi / 2)
// lambda^3, both float.
struct EpaCoef {
  float B, C;
};
PICKORA_HD inline EpaCoef epa_coef(float kv, float cs) {
  const float lambda = ctf_wavelength(kv);
  return EpaCoef{static_cast<float>(kCtfPi) * lambda,
                 cs * 1e7f * static_cast<float>(kCtfPi) / 2.0f * lambda * lambda * lambda};
}
// defU cos^2(t - defA) + defV sin^2(t - defA), t and defA in radians.
PICKORA_HD inline float epa_defocus(float t, float defU, float defV, float defA_rad) {
  const float c = cosf(t - defA_rad), s = sinf(t - defA_rad);
  return defU * c * c + defV * s * s;
}
// sqrt(q) of b q - C q^2 = g: with cs above 0.01 the smaller root, else g / b; -1.0 where
// there is no real root.
PICKORA_HD inline float epa_root(float b, float C, float g, float cs) {
  float q;
  if (cs > 0.01f) {
    const float disc = b * b - 4.0f * C * g;
    if (disc < 0.0f) return -1.0f;
    q = (b - sqrtf(disc)) / (2.0f * C);
  } else {
    q = g / b;
  }
  return q >= 0.0f ? sqrtf(q) : -1.0f;
}

// Bilinear sample of a half spectrum; the neighbour column or row is taken only where the
// coordinate has a fraction (so the last column and row are read without a neighbour).
PICKORA_HD inline float epa_bilinear(const float* a, unsigned nh, float x, float y) {
  const int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
  const float fx = x - static_cast<float>(x0), fy = y - static_cast<float>(y0);
  const float v00 = a[y0 * nh + x0];
  const float v10 = fx > 0.0f ? a[y0 * nh + x0 + 1] : v00;
  const float top = v00 + fx * (v10 - v00);
  if (!(fy > 0.0f)) return top;
  const float v01 = a[(y0 + 1) * nh + x0];
  const float v11 = fx > 0.0f ? a[(y0 + 1) * nh + x0 + 1] : v01;
  return top + fy * ((v01 + fx * (v11 - v01)) - top);
}

// Adds to the sums the samples of one spectrum along the curve of equal phase of element i at
// frequency s: the walk over directions t from -pi / 2 in steps of 0.75 / i; along each, the
// radius r0 of the phase of element i and r1 of a quarter period ahead give a Gaussian window
// (sigma w / 3, w = r1 - r0, capped by sqrt(10 w) from 10 on) sampled every half pixel from
// r0 - w to r1. A direction without a window (w of 0 or less) adds nothing.
PICKORA_HD inline void epa_accumulate(unsigned i, float s, const float* spectrum, unsigned nh, unsigned ny,
                                      float pixel_size, float cs, EpaCoef k, float defU, float defV, float defA,
                                      float& wsum, float& vsum) {
  const float a = defA * static_cast<float>(kCtfPi) / 180.0f;
  const float g = (k.B * epa_defocus(0.0f, defU, defV, a)) * s * s - k.C * s * s * s * s;
  const float scale = 2.0f * static_cast<float>(nh - 1) * pixel_size;
  const float half_pi = static_cast<float>(kCtfPi / 2.0);
  const float dt = 0.75f / static_cast<float>(i);
  for (float t = -half_pi; t < half_pi; t += dt) {
    const float b = k.B * epa_defocus(t, defU, defV, a);
    const float root0 = epa_root(b, k.C, g, cs);
    const float root1 = epa_root(b, k.C, g + half_pi, cs);
    const float r0 = scale * root0;
    const float r1 = root1 == -1.0f ? r0 + 2.0f : scale * root1;
    float w = r1 - r0;
    if (w >= 10.0f) w = sqrtf(10.0f * w);
    if (!(w > 0.0f)) continue;
    const float sigma = w / 3.0f, ct = cosf(t), st = sinf(t);
    for (float r = r0 - w; r <= r1; r += 0.5f) {
      const float x = r * ct, y = r * st + static_cast<float>(ny / 2);
      if (x < 0.0f || x > static_cast<float>(nh - 1) || y < 0.0f || y > static_cast<float>(ny - 1)) continue;
      const float wt = expf(-(r - r0) * (r - r0) / (2.0f * sigma * sigma)) * 0.3989423f;
      wsum += wt;
      vsum += wt * epa_bilinear(spectrum, nh, x, y);
    }
  }
}

// The frequency of element i of a curve of L = (nh - 1) X + 1 elements.
PICKORA_HD inline float epa_frequency(unsigned i, int X, unsigned nh, float pixel_size) {
  return static_cast<float>(i) / (2.0f * static_cast<float>((nh - 1) * X) * pixel_size);
}

// Element i of the average of L = (nh - 1) X + 1 elements. Outside the limits, a copy of
// row ny / 2; inside, the weighted mean of the samples along the curve of equal phase.
PICKORA_HD inline void cuda_2dh_X_EPA_res(unsigned i, float* out, int X, const float* spectrum, unsigned nh,
                                          unsigned ny, float pixel_size, float kv, float cs, float defU, float defV,
                                          float defA, float resL, float resH) {
  const unsigned L = (nh - 1) * static_cast<unsigned>(X) + 1;
  if (i >= L) return;
  const float s = epa_frequency(i, X, nh, pixel_size);
  if (s < 1.0f / resL || s > 1.0f / resH) {
    out[i] = spectrum[(ny / 2) * nh + i / static_cast<unsigned>(X)];
    return;
  }
  float wsum = 1e-6f, vsum = 0.0f;
  epa_accumulate(i, s, spectrum, nh, ny, pixel_size, cs, epa_coef(kv, cs), defU, defV, defA, wsum, vsum);
  out[i] = vsum / wsum;
}

// The defocus and angle of one spectrum of a stack.
struct UVA_c {
  float defU, defV, defA;
};

// Element i of one curve for a stack of n spectra of nh x ny, each walked along its own curves
// of equal phase (its own UVA_c), all samples in one weighted mean: spectra of one specimen at
// different defocus add up to one curve over the frequency of direction 0 of each. Outside the
// limits, the mean of the spectra's row ny / 2.
PICKORA_HD inline void cuda_2dhs_X_EPA_res(unsigned i, float* out, int X, const float* spectra, unsigned n,
                                           unsigned nh, unsigned ny, float pixel_size, float kv, float cs,
                                           const UVA_c* uva, float resL, float resH) {
  const unsigned L = (nh - 1) * static_cast<unsigned>(X) + 1;
  if (i >= L) return;
  const unsigned long plane = static_cast<unsigned long>(nh) * ny;
  const float s = epa_frequency(i, X, nh, pixel_size);
  if (s < 1.0f / resL || s > 1.0f / resH) {
    float sum = 0.0f;
    for (unsigned k = 0; k < n; ++k) sum += spectra[k * plane + (ny / 2) * nh + i / static_cast<unsigned>(X)];
    out[i] = sum / static_cast<float>(n);
    return;
  }
  const EpaCoef coef = epa_coef(kv, cs);
  float wsum = 1e-6f, vsum = 0.0f;
  for (unsigned k = 0; k < n; ++k)
    epa_accumulate(i, s, spectra + k * plane, nh, ny, pixel_size, cs, coef, uva[k].defU, uva[k].defV, uva[k].defA,
                   wsum, vsum);
  out[i] = vsum / wsum;
}

// Mean of the eight neighbours, an index past an edge falling back onto the element's own row
// or column.
PICKORA_HD inline float epa_mean8(const float* a, unsigned x, unsigned y, unsigned nh, unsigned ny) {
  float sum = 0.0f;
  for (int dy = -1; dy <= 1; ++dy)
    for (int dx = -1; dx <= 1; ++dx) {
      if (dx == 0 && dy == 0) continue;
      int xx = static_cast<int>(x) + dx, yy = static_cast<int>(y) + dy;
      if (xx < 0 || xx >= static_cast<int>(nh)) xx = static_cast<int>(x);
      if (yy < 0 || yy >= static_cast<int>(ny)) yy = static_cast<int>(y);
      sum += a[yy * nh + xx];
    }
  return sum * 0.125f;
}

// A half spectrum from a curve of nh elements (X of 1): each element takes the curve at the
// radius where the direction 0 has its phase, times the gain 1 + 10 r / nh (gain false: 1).
PICKORA_HD inline void cuda_2dh_EPA_from_1d_gain(unsigned x, unsigned y, float* out, const float* spectrum,
                                                 const float* curve, unsigned nh, unsigned ny, float pixel_size,
                                                 float kv, float cs, float defU, float defV, float defA, float resL,
                                                 float resH, bool gain) {
  if (x >= nh || y >= ny) return;
  const float fx = static_cast<float>(x) / static_cast<float>(2 * (nh - 1));
  const float fy = (static_cast<float>(y) - static_cast<float>(ny / 2)) / static_cast<float>(ny);
  const float s = sqrtf(fx * fx + fy * fy) / pixel_size, t = atan2f(fy, fx);
  if (s > 1.0f / resL && s < 1.0f / resH) {
    const EpaCoef k = epa_coef(kv, cs);
    const float a = defA * static_cast<float>(kCtfPi) / 180.0f;
    const float g = k.B * epa_defocus(t, defU, defV, a) * s * s - k.C * s * s * s * s;
    const float root = epa_root(k.B * epa_defocus(0.0f, defU, defV, a), k.C, g, cs);
    const float r = 2.0f * static_cast<float>(nh - 1) * pixel_size * root;
    if (r > 0.0f && r < static_cast<float>(nh - 1)) {
      const unsigned r0 = static_cast<unsigned>(r);
      const float e = r - static_cast<float>(r0);
      const float v = curve[r0] + e * (curve[r0 + 1] - curve[r0]);
      out[y * nh + x] = gain ? v * (1.0f + 10.0f * r / static_cast<float>(nh)) : v;
      return;
    }
  }
  out[y * nh + x] = epa_mean8(spectrum, x, y, nh, ny);
}
PICKORA_HD inline void cuda_2dh_EPA_from_1d2(unsigned x, unsigned y, float* out, const float* spectrum,
                                             const float* curve, unsigned nh, unsigned ny, float pixel_size, float kv,
                                             float cs, float defU, float defV, float defA, float resL, float resH) {
  cuda_2dh_EPA_from_1d_gain(x, y, out, spectrum, curve, nh, ny, pixel_size, kv, cs, defU, defV, defA, resL, resH,
                            true);
}
PICKORA_HD inline void cuda_2dh_EPA_from_1d3(unsigned x, unsigned y, float* out, const float* spectrum,
                                             const float* curve, unsigned nh, unsigned ny, float pixel_size, float kv,
                                             float cs, float defU, float defV, float defA, float resL, float resH) {
  cuda_2dh_EPA_from_1d_gain(x, y, out, spectrum, curve, nh, ny, pixel_size, kv, cs, defU, defV, defA, resL, resH,
                            false);
}

// Wrappers on device arrays; ac and ps don't enter the geometry and are taken for the record.
void hcuda_2dh_X_EPA_res(float* out, int X, const float* spectrum, unsigned nh, unsigned ny, float pixel_size,
                         float kv, float cs, float ac, float ps, float defU, float defV, float defA, float resL,
                         float resH);
void hcuda_2dh_EPA_from_1d(float* out, const float* spectrum, const float* curve, unsigned nh, unsigned ny,
                           float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                           float defA, float resL, float resH);
void hcuda_2dh_EPA_from_1d3(float* out, const float* spectrum, const float* curve, unsigned nh, unsigned ny,
                            float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                            float defA, float resL, float resH);
// The average with X of 1 mapped back with gain (scratch of nh floats allocated and freed).
void hcuda_2dh_EPA(float* out, const float* spectrum, unsigned nh, unsigned ny, float pixel_size, float kv, float cs,
                   float ac, float ps, float defU, float defV, float defA, float resL, float resH);

// The stack forms: n spectra of nh x ny one after the other, n UVA_c records on the device
// (n of 0 is refused). hcuda_2dhs_EPA maps the stack's curve (X of 1) back to one half spectrum
// with the first record and the first spectrum; gpu_2dhs_EPA does the same on host arrays.
void hcuda_2dhs_X_EPA_res(float* out, int X, const float* spectra, unsigned n, unsigned nh, unsigned ny,
                          float pixel_size, float kv, float cs, float ac, float ps, const UVA_c* uva, float resL,
                          float resH);
void hcuda_2dhs_EPA(float* out, const float* spectra, unsigned n, unsigned nh, unsigned ny, float pixel_size,
                    float kv, float cs, float ac, float ps, const UVA_c* uva, float resL, float resH);
void gpu_2dhs_EPA(float* out, const float* spectra, unsigned n, unsigned nh, unsigned ny, float pixel_size, float kv,
                  float cs, float ac, float ps, const UVA_c* uva, float resL, float resH);

// Zeros (tens digit 0), peaks (1) or both, zero first (2) of the CTF at `defocus` along a curve
// of n elements, kept between 1 / resL and 1 / resH inclusive; x by the units digit: 1 the
// index, 2 s, 3 s^2, 4 the resolution 1 / s; y the curve at the index. Returns the count, or -1
// (with a warning) for a mode outside 1..4, 11..14, 21..24.
long cpu_ctf_1dh_get_all_zp_res(std::vector<float2>& list, const float* curve, int n, float pixel_size, float kv,
                                float cs, float ac, float ps, float defocus, float resL, float resH, int zp_mode);
// Zeros from k of 1 up to Nyquist; x the index.
long cpu_ctf_1dh_get_all_zero(std::vector<float2>& list, const float* curve, int n, float pixel_size, float kv,
                              float cs, float ac, float ps, float defocus);

// Gaussian elimination with partial pivoting of the n by n row-major matrix (destroyed) and the
// right side (destroyed). Returns 0, or -1 for a singular matrix (solution untouched).
int smp_gauss_solve(int n, double* matrix, double* solution, double* rhs);
// Least-squares polynomial through the points; coefficient k belongs to x^k. The degree is cut
// to the number of points less one, so that too few points never give a singular system (no
// point at all gives the zero polynomial). The normal equations are solved on x scaled by the
// largest |x| and the coefficients scaled back, which keeps a degree of 7 over a thousand
// indices well conditioned. Returns the degree used.
int smp_poly_fit3(const std::vector<float2>& points, std::vector<double>& coef, int degree);
// The polynomial at each x by Horner's rule, in double.
void smp_poly_get2(const double* x, double* out, int n, const std::vector<double>& coef, int degree);
// The least-squares line: slope (sum xy - N mean x mean y) / (sum x^2 - N mean x^2), intercept
// mean y - slope mean x, in double. Returns -1 (slope and intercept 0) for fewer than 2 points
// or all x equal.
int smp_line_fit(const float* x, const float* y, int n, double& slope, double& intercept);
int smp_line_fit2(const std::vector<float2>& points, double& slope, double& intercept);
