// Dose and drift weighting of movie frames: the weighted average that turns a short stack of
// frames into one image. In Fourier space every frame gets, at every frequency, a weight from its
// accumulated dose and from its drift; the weighted spectra are summed, normalised and scaled by
// an optional radial table.
//
// Spectra are half spectra as the FFT layer delivers them (include/cuda_fft/cuda_fft.h): nxh
// columns by ny rows of float2, origin at element 0, row y standing for frequency y below ny / 2
// and y - ny from there on. A stack holds nz of them, nxh * ny elements apart.
//
// Frequency terms of element (x, y), with y' the wrapped row (y below ny / 2, else y - ny):
//   s      = sqrtf((x / (2 (nxh - 1)))^2 + (y' / ny)^2) / apix, the sum in double: 1/angstrom
//   theta  = atan2f(y', x)
//   radius = sqrtf(x^2 + y'^2), in Fourier pixels, for the radial table
// All three use the wrapped row, so that every term agrees with the transforms' layout; the
// weight maps written for viewing (the _swap forms) move the origin to row ny / 2 afterwards.
//
// Frame weight wm (1.0 at s == 0 whatever the scheme):
//   mw_skeme 0: 1   1: dose weight   2: drift weight   3: dose weight x drift weight
// Normaliser: wnorm_type 1: k + sum |wm|   2: k + sqrt(sum wm^2). An element whose normaliser
// is 0 (k 0 and every weight 0) is written as 0, not 0/0.
//
// The host twin cpu_2ds_fft_dose_dft_ctf_wave differs from the device average on purpose, and
// keeps these differences: no radial table; the normaliser is always k + sum |wm|, whatever
// wnorm_type says; its scheme 1 uses the fixed dose curve host_fixed_dose_weight instead of Ne_a
// and Ne_b (scheme 3 keeps Ne_a and Ne_b).
//
// Bad parameters are refused before anything runs (a fatal report): mw_skeme outside 0 to 3,
// wnorm_type other than 1 or 2 where a normaliser is formed, nxh below 2, a null table.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"

// Parameters of the weighting, handed to kernels by value.
struct GPS_PARA {
  float Ne_a;      // scale of the dose term
  float Ne_b;      // exponent of the frequency in the dose term
  float Da;        // scale of the drift term
  float Db;        // floor of the direction factor of the drift term, 0 to 1
  float k;         // constant added to the normaliser
  int mw_skeme;    // 0 none, 1 dose, 2 drift, 3 both
  int wnorm_type;  // 1 sum of |wm|, 2 root of the sum of wm^2
  int device;      // the stack driver's mode, see mrcsf_dose_drift_ctf_wave_many
};
static_assert(sizeof(GPS_PARA) == 32, "eight 32-bit fields");

// Refuses parameters the weighting cannot use (fatal). with_norm: a normaliser is formed, so
// wnorm_type must be 1 or 2.
void gps_para_check(const GPS_PARA& para, bool with_norm);
// Refuses a spectrum too small for the frequency terms (they divide by 2 (nxh - 1)) and a pixel
// size that is not a positive number (every weight would be NaN).
void dose_sampling_check(unsigned nxh, unsigned ny, float apix);

// ---- Terms of one element ---------------------------------------------------------------

PICKORA_HD inline int dose_wrapped_row(unsigned y, unsigned ny) {
  return y < ny / 2 ? static_cast<int>(y) : static_cast<int>(y) - static_cast<int>(ny);
}

PICKORA_HD inline float dose_frequency(unsigned x, unsigned y, unsigned nxh, unsigned ny, float apix) {
  const double fx = static_cast<double>(x) / (2.0 * static_cast<double>(nxh - 1));
  const double fy = static_cast<double>(dose_wrapped_row(y, ny)) / static_cast<double>(ny);
  return sqrtf(static_cast<float>(fx * fx + fy * fy)) / apix;
}

PICKORA_HD inline float dose_theta(unsigned x, unsigned y, unsigned ny) {
  return atan2f(static_cast<float>(dose_wrapped_row(y, ny)), static_cast<float>(x));
}

// exp(-dose Ne_a s^Ne_b).
PICKORA_HD inline float hd_dose_weight(float s, float dose, float Ne_a, float Ne_b) {
  return expf(-dose * Ne_a * powf(s, Ne_b));
}

// The argument of the drift sinc: s 2 pi |a| apix in double, with a the drift length scaled by
// Da and by the direction factor (1 - Db) |cos| + Db of the angle between frequency and drift.
PICKORA_HD inline float hd_drift_argument(float s, float theta, float apix, float dftX, float dftY, float Da,
                                          float Db) {
  const float c = cosf(theta - atan2f(dftY, dftX));
  const float a = ((1.0f - Db) * fabsf(c) + Db) * Da * sqrtf(dftX * dftX + dftY * dftY);
  return static_cast<float>(static_cast<double>(s) * 6.283185307179586 * fabs(static_cast<double>(a)) *
                            static_cast<double>(apix));
}

// sin(arg) / arg, 1.0 for s not above 0 or a zero argument.
PICKORA_HD inline float hd_drift_weight(float s, float theta, float apix, float dftX, float dftY, float Da, float Db) {
  if (!(s > 0.0f)) return 1.0f;
  const float arg = hd_drift_argument(s, theta, apix, dftX, dftY, Da, Db);
  return arg == 0.0f ? 1.0f : sinf(arg) / arg;
}

// The sign of the drift weight's sine: 1.0 for s not above 0 or sin(arg) >= 0, else -1.0.
PICKORA_HD inline float hd_drift_wsign(float s, float theta, float apix, float dftX, float dftY, float Da, float Db) {
  if (!(s > 0.0f)) return 1.0f;
  return sinf(hd_drift_argument(s, theta, apix, dftX, dftY, Da, Db)) >= 0.0f ? 1.0f : -1.0f;
}

// The weight wm of one frame at one frequency (device rule; schemes checked by the caller).
PICKORA_HD inline float hd_frame_weight(float s, float theta, float apix, float dose, float2 drift,
                                        const GPS_PARA& p) {
  if (s == 0.0f) return 1.0f;
  switch (p.mw_skeme) {
    case 1:
      return hd_dose_weight(s, dose, p.Ne_a, p.Ne_b);
    case 2:
      return hd_drift_weight(s, theta, apix, drift.x, drift.y, p.Da, p.Db);
    case 3:
      return hd_dose_weight(s, dose, p.Ne_a, p.Ne_b) * hd_drift_weight(s, theta, apix, drift.x, drift.y, p.Da, p.Db);
    default:
      return 1.0f;
  }
}

// What one weight adds to the normaliser's running sum: |wm| (type 1) or wm^2 (type 2).
PICKORA_HD inline float hd_norm_term(float wm, int wnorm_type) {
  return wnorm_type == 2 ? wm * wm : fabsf(wm);
}

// k + the running sum (type 1) or k + its root (type 2).
PICKORA_HD inline float hd_normaliser(float running, float k, int wnorm_type) {
  return wnorm_type == 2 ? k + sqrtf(running) : k + running;
}

// The radial table at the element's radius, limited to nxh - 1, read linearly between entries
// with one fused operation.
PICKORA_HD inline float hd_ctfw_at(unsigned x, unsigned y, unsigned nxh, unsigned ny, const float* ctfw) {
  const float yw = static_cast<float>(dose_wrapped_row(y, ny)), xf = static_cast<float>(x);
  const float r = fminf(sqrtf(xf * xf + yw * yw), static_cast<float>(nxh - 1));
  const int i = static_cast<int>(r);
  const int j = r != static_cast<float>(i) ? i + 1 : i;
  return fmaf(r - static_cast<float>(i), ctfw[j] - ctfw[i], ctfw[i]);
}

// ---- Kernels: one thread per element (x, y) below (nxh, ny) -----------------------------

// The weighted average of nz frames, scaled by the radial table.
PICKORA_HD inline void cuda_2ds_fft_dose_dft_ctf_wave(unsigned x, unsigned y, const float2* frames, float2* out,
                                                      unsigned nxh, unsigned ny, unsigned nz, float apix,
                                                      const float* dose, const float2* drift, const float* ctfw,
                                                      GPS_PARA p) {
  if (x >= nxh || y >= ny) return;
  const unsigned i = y * nxh + x;
  const unsigned long plane = static_cast<unsigned long>(nxh) * ny;
  const float s = dose_frequency(x, y, nxh, ny, apix), theta = dose_theta(x, y, ny);
  float re = 0.0f, im = 0.0f, running = 0.0f;
  for (unsigned z = 0; z < nz; ++z) {
    const float wm = hd_frame_weight(s, theta, apix, dose[z], drift[z], p);
    running += hd_norm_term(wm, p.wnorm_type);
    const float2 f = frames[z * plane + i];
    re = fmaf(wm, f.x, re);
    im = fmaf(wm, f.y, im);
  }
  const float norm = hd_normaliser(running, p.k, p.wnorm_type);
  const float t = hd_ctfw_at(x, y, nxh, ny, ctfw);
  out[i] = norm == 0.0f ? make_float2(0.0f, 0.0f) : make_float2(re / norm * t, im / norm * t);
}

// wm of one frame at every element.
PICKORA_HD inline void cuda_2d_fft_dose_dft_wgen(unsigned x, unsigned y, float* w, unsigned nxh, unsigned ny,
                                                 float apix, float dose, float2 drift, GPS_PARA p) {
  if (x >= nxh || y >= ny) return;
  w[y * nxh + x] = hd_frame_weight(dose_frequency(x, y, nxh, ny, apix), dose_theta(x, y, ny), apix, dose, drift, p);
}

// Adds |wm| (wnorm_type 1) or wm^2 (2) of one frame to every element.
PICKORA_HD inline void cuda_2d_fft_dose_dft_wadd(unsigned x, unsigned y, float* w, unsigned nxh, unsigned ny,
                                                 float apix, float dose, float2 drift, GPS_PARA p) {
  if (x >= nxh || y >= ny) return;
  const float wm =
      hd_frame_weight(dose_frequency(x, y, nxh, ny, apix), dose_theta(x, y, ny), apix, dose, drift, p);
  w[y * nxh + x] += hd_norm_term(wm, p.wnorm_type);
}

// wm of all frames; `shift` 0 keeps the layout, nxh * ny / 2 moves each element by half the
// rows (the origin to row ny / 2) for viewing.
PICKORA_HD inline void dose_wgen_frames(unsigned x, unsigned y, float* w, unsigned nxh, unsigned ny, unsigned nz,
                                        float apix, const float* dose, const float2* drift, const GPS_PARA& p,
                                        unsigned long shift) {
  if (x >= nxh || y >= ny) return;
  const unsigned long plane = static_cast<unsigned long>(nxh) * ny;
  const unsigned long o = (y * nxh + x + shift) % plane;
  const float s = dose_frequency(x, y, nxh, ny, apix), theta = dose_theta(x, y, ny);
  for (unsigned z = 0; z < nz; ++z) w[z * plane + o] = hd_frame_weight(s, theta, apix, dose[z], drift[z], p);
}
PICKORA_HD inline void cuda_2ds_fft_dose_dft_wgen(unsigned x, unsigned y, float* w, unsigned nxh, unsigned ny,
                                                  unsigned nz, float apix, const float* dose, const float2* drift,
                                                  GPS_PARA p) {
  dose_wgen_frames(x, y, w, nxh, ny, nz, apix, dose, drift, p, 0);
}
PICKORA_HD inline void cuda_2ds_fft_dose_dft_wgen_swap(unsigned x, unsigned y, float* w, unsigned nxh, unsigned ny,
                                                       unsigned nz, float apix, const float* dose,
                                                       const float2* drift, GPS_PARA p) {
  dose_wgen_frames(x, y, w, nxh, ny, nz, apix, dose, drift, p, static_cast<unsigned long>(nxh) * ny / 2);
}

// One frame's step of the average kept in memory between launches: sum += wm frame, and the
// normaliser's term to wsum.
PICKORA_HD inline void cuda_2d_fft_dose_dft_wgen_wsum_one(unsigned x, unsigned y, const float2* frame, float2* sum,
                                                          float* wsum, unsigned nxh, unsigned ny, float apix,
                                                          float dose, float2 drift, GPS_PARA p) {
  if (x >= nxh || y >= ny) return;
  const unsigned i = y * nxh + x;
  const float wm =
      hd_frame_weight(dose_frequency(x, y, nxh, ny, apix), dose_theta(x, y, ny), apix, dose, drift, p);
  sum[i] = make_float2(fmaf(wm, frame[i].x, sum[i].x), fmaf(wm, frame[i].y, sum[i].y));
  wsum[i] += hd_norm_term(wm, p.wnorm_type);
}

// ---- Launchers (device pointers; wait and check) -----------------------------------------

void hcuda_2ds_fft_dose_dft_ctf_wave(const float2* frames, float2* out, unsigned nxh, unsigned ny, unsigned nz,
                                     float apix, const float* dose, const float2* drift, const float* ctfw,
                                     GPS_PARA p);
void hcuda_2d_fft_dose_dft_wgen(float* w, unsigned nxh, unsigned ny, float apix, float dose, float2 drift,
                                GPS_PARA p);
void hcuda_2d_fft_dose_dft_wadd(float* w, unsigned nxh, unsigned ny, float apix, float dose, float2 drift,
                                GPS_PARA p);
void hcuda_2ds_fft_dose_dft_wgen(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose,
                                 const float2* drift, GPS_PARA p);
void hcuda_2ds_fft_dose_dft_wgen_swap(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix,
                                      const float* dose, const float2* drift, GPS_PARA p);
void hcuda_2d_fft_dose_dft_wgen_wsum_one(const float2* frame, float2* sum, float* wsum, unsigned nxh, unsigned ny,
                                         float apix, float dose, float2 drift, GPS_PARA p);

// ---- Host arrays --------------------------------------------------------------------------

// Copy in, print the inputs, run the kernel, copy out.
void gpu_2ds_fft_dose_dft_ctf_wave(const float2* frames, float2* out, unsigned nxh, unsigned ny, unsigned nz,
                                   float apix, const float* dose, const float2* drift, const float* ctfw, GPS_PARA p);
void gpu_2ds_fft_dose_dft_wgen(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose,
                               const float2* drift, GPS_PARA p);
void gpu_2ds_fft_dose_dft_wgen_swap(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose,
                                    const float2* drift, GPS_PARA p);

// The host twin of the average (differences above): exp(-dose s^1.31489 / 1.35172) is its
// scheme-1 curve.
float host_fixed_dose_weight(float s, float dose);
void cpu_2ds_fft_dose_dft_ctf_wave(const float2* frames, float2* out, unsigned nxh, unsigned ny, unsigned nz,
                                   float apix, const float* dose, const float2* drift, GPS_PARA p);

// The dose at 200 kV: divided by 0.68, 0.75, 1, 1.22, 1.33 for 100, 120, 200, 300, 400 kV;
// unchanged for any other voltage.
float eq_dose(float dose, int kv);

// ---- Text inputs ---------------------------------------------------------------------------
// Lines split at any of " \t\n\r#:,;"; the first token is the frame number counted from 0 and
// must match the entry being read. Each returns 0 when all entries are read and -1 (with its
// warning, the file closed) when the lines run out or a frame number does not match. A file that
// does not open is fatal; fewer than 3 frames are refused (fatal) by the dose and drift readers.

// frame, dose, dftX, dftY; lines with fewer than 4 tokens are passed over.
int get_dose_smoothed_drift_from_txt(float* dose, float2* drift, int frames, char* path);
// frame, dftX, dftY; lines with fewer than 3 tokens are passed over.
int get_drift_from_txt(float2* drift, int frames, const char* path);
// frame, anything, value; the table is cleared first; a line of fewer than 3 tokens warns and is
// passed over.
int get_ctfw_from_txt(float* table, int entries, const char* path);

// Prints frame, dose and drift per frame, then the radial table (if not null) per entry.
void print_dose_drif_ctfw(const float* dose, const float2* drift, int frames, const float* ctfw, int entries);

// ---- The stack driver ------------------------------------------------------------------------
// A stack of particles of frames_per_particle frames each; the frames first..last of every
// particle are averaged (a negative first means 0, a last beyond the particle its last frame).
// dose and drift hold frames_per_particle entries, ctfw nx / 2 + 1. By para.device:
//   1  forward transforms, host twin of the average     2  forward transforms, device average
//   3  forward transforms, plain mean of the spectra
//   4  no average: the weight maps of last - first frames (one fewer than the range holds),
//      origin at row ny / 2, written to "Weights3D.mrcs"; nothing else is written.
// 1 to 3 print "Particle %d \n" per particle and write one image per particle to out_path at the
// end. A stack not divisible into particles, an empty range and another device are refused.
int mrcsf_dose_drift_ctf_wave_many(const char* in_path, const char* out_path, int frames_per_particle, int first,
                                   int last, float apix, const float* dose, const float2* drift, const float* ctfw,
                                   GPS_PARA para);
