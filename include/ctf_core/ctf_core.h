// The contrast transfer function of the microscope: one formula (hd_ctfinfo_s), its simulators
// over 1D curves, half spectra, full spectra and stacks, and its use on data (phase flip,
// multiplication by the CTF, a Wiener-type filter).
//
// Units. Spatial frequency s in 1/Angstrom, defocus in Angstrom (positive = underfocus), angles
// in degrees in the records and radians for the direction theta of hd_ctfinfo_s, voltage in kV,
// spherical aberration in mm, B-factor in square Angstrom.
//
// Layouts. A half array has nh columns (nh = nx / 2 + 1) and ny rows. The simulators put the
// zero frequency at row ny / 2 (fy = (y - ny / 2) / ny), which lines up with a row-swapped
// amplitude array of the FFT layer; the "_usw" kernels work on a spectrum as the transform
// delivers it (origin at element 0: row y stands for (y + ny / 2) % ny - ny / 2). Full arrays
// (the 2d forms) have the zero frequency at (nx / 2, ny / 2).
//
// Resolution limits. Every simulator writes 0 where s is below 1 / resL or above 1 / resH; both
// limits are inclusive (compared in float).
//
// Sizes of one. A 1D curve of n = 1 and a half array of nh = 1 have no frequency step
// (2 n - 2 = 0); their single column is taken as s = 0 rather than 0 / 0.
//
// Checks. The element functions trust their arguments. Every wrapper that takes CTF values
// (hcuda_, gpu_, cpu_ and the whole-image and file forms) refuses a pixel size that is not above
// 0 and an amplitude contrast outside -1 .. 1 with a fatal report, rather than fill the output
// with NaN or infinity. The whole-image forms and mrcf_phase_flip_write refuse odd sides. Where
// the Wiener denominator 1 + W c^2 is 0 (a negative weight), the filtered element is 0.
//
// The Nyquist column. For an even nx the last column of a half spectrum holds fx = +1/2, which is
// also -1/2: its element at fy is the Friedel mate of the one at -fy, but the model sees the two
// directions atan2(fy, 1/2) and atan2(-fy, 1/2). With astigmatism the factors differ there, and
// the inverse transform keeps only their Hermitian part, so a whole-image filter is exact below
// the Nyquist column and approximate in it.
//
// Prefixes: cuda_ one element (thread coordinates first), hcuda_ its launch on device pointers,
// gpu_ the same on host arrays through device buffers of its own, cpu_ a host loop over the same
// element function with the same results.
#pragma once

#include <cmath>

#include "cuda_general/platform.h"

struct CTF_INFO {
  float kv;    // accelerating voltage, kV
  float cs;    // spherical aberration, mm
  float ac;    // amplitude contrast, fraction
  float ps;    // additional phase shift, degrees
  float defU;  // defocus along defA, Angstrom
  float defV;  // defocus across defA, Angstrom
  float defA;  // direction of astigmatism, degrees
  float bfac;  // B-factor of the envelope, square Angstrom
};
static_assert(sizeof(CTF_INFO) == 8 * sizeof(float), "CTF_INFO is eight packed floats");

struct RESO {
  float resL;  // low resolution limit, Angstrom
  float resH;  // high resolution limit, Angstrom
};

constexpr double kCtfPi = 3.141592653589793;

// =============================================================================================
// The model, inline: the same code on the host and in every device kernel
// =============================================================================================

// Electron wavelength in Angstrom, in float: 12.264325 / sqrt((0.978466 kv + 1000) kv).
PICKORA_HD inline float ctf_wavelength(float kv) { return 12.264325f / sqrtf((0.978466f * kv + 1000.0f) * kv); }

// Defocus in the direction theta (radians): defU cos^2 + defV sin^2 of theta - defA; the angle
// in double, used as float.
PICKORA_HD inline float ctf_defocus_at(float theta, float defU, float defV, float defA) {
  const float angle = static_cast<float>(static_cast<double>(theta) - static_cast<double>(defA) * kCtfPi / 180.0);
  const float c = cosf(angle), s = sinf(angle);
  return defU * c * c + defV * s * s;
}

// Aberration phase gamma = pi lambda d s^2 - (pi / 2) (cs 1e7) lambda^3 s^4: both coefficients
// rounded to float, the polynomial in double.
PICKORA_HD inline double ctf_aberration_phase(float s, float lambda, float d, float cs) {
  const double l = static_cast<double>(lambda);
  const float k1 = static_cast<float>(kCtfPi * l * static_cast<double>(d));
  const float k2 = static_cast<float>(kCtfPi / 2.0 * (static_cast<double>(cs) * 1e7) * l * l * l);
  const double s2 = static_cast<double>(s) * static_cast<double>(s);
  return static_cast<double>(k1) * s2 - static_cast<double>(k2) * s2 * s2;
}

// The one formula. Modes: 'G' gamma alone; with the amplitude contrast and the phase shift in
// p = gamma + asin(ac) + ps pi / 180: 'P' p, 'E' p - pi floor(p / pi), 'F' sin(p) e,
// 'A' |sin(p) e|, 'W' sin(p)^2 e, 'S' +1 where sin(p) >= 0 else -1; any other letter 0.
// e = exp(-bfac s^2 / 4), read only by 'F', 'A', 'W'. Values in double, stored as float.
PICKORA_HD inline float hd_ctfinfo_s(float s, float theta, CTF_INFO info, char mode) {
  const float lambda = ctf_wavelength(info.kv);
  const float d = ctf_defocus_at(theta, info.defU, info.defV, info.defA);
  const float gamma = static_cast<float>(ctf_aberration_phase(s, lambda, d, info.cs));
  if (mode == 'G') return gamma;
  const double p =
      static_cast<double>(gamma) + asin(static_cast<double>(info.ac)) + static_cast<double>(info.ps) * kCtfPi / 180.0;
  const double s2 = static_cast<double>(s) * static_cast<double>(s);
  switch (mode) {
    case 'P': return static_cast<float>(p);
    case 'E': return static_cast<float>(p - kCtfPi * floor(p / kCtfPi));
    case 'F': return static_cast<float>(sin(p) * exp(-static_cast<double>(info.bfac) * s2 / 4.0));
    case 'A': return static_cast<float>(fabs(sin(p) * exp(-static_cast<double>(info.bfac) * s2 / 4.0)));
    case 'W': return static_cast<float>(sin(p) * sin(p) * exp(-static_cast<double>(info.bfac) * s2 / 4.0));
    case 'S': return sin(p) >= 0.0 ? 1.0f : -1.0f;
    default: return 0.0f;
  }
}

// The phase-based family: sin(g + asin(ac)) by w sin(g) + ac cos(g), w = sqrt(1 - ac^2), with
// the sine and cosine in float of the double phase g (aberration phase plus ps).
PICKORA_HD inline float ctf_expansion_sine(double g, float ac) {
  const float w = sqrtf(1.0f - ac * ac);
  const float gf = static_cast<float>(g);
  return w * sinf(gf) + ac * cosf(gf);
}
PICKORA_HD inline float ctf_envelope_f(float s, float bfac) { return expf(-bfac * s * s / 4.0f); }

// Whether s lies within [1 / resL, 1 / resH], compared in float.
PICKORA_HD inline bool ctf_in_band(float s, float resL, float resH) {
  return !(s < 1.0f / resL || s > 1.0f / resH);
}

// Frequencies in cycles per pixel. 1D and half arrays: i / (2 n - 2), 0 for a size of one.
PICKORA_HD inline float ctf_half_axis_freq(unsigned i, unsigned n) {
  return n > 1 ? static_cast<float>(i) / static_cast<float>(2 * (n - 1)) : 0.0f;
}
// Centred axis of m samples: (i - m / 2) / m.
PICKORA_HD inline float ctf_centred_freq(unsigned i, unsigned m) {
  return static_cast<float>(static_cast<int>(i) - static_cast<int>(m / 2)) / static_cast<float>(m);
}
// Row y of a spectrum with its origin at element 0, as a centred row index.
PICKORA_HD inline unsigned ctf_unswapped_row(unsigned y, unsigned ny) { return (y + ny / 2) % ny; }

// s (1/Angstrom) and direction theta of element (x, y) of a half array with row ny / 2 at zero.
struct CtfFreq {
  float s, theta;
};
PICKORA_HD inline CtfFreq ctf_freq_2dh(unsigned x, unsigned y, unsigned nh, unsigned ny, float pixel_size) {
  const float fx = ctf_half_axis_freq(x, nh), fy = ctf_centred_freq(y, ny);
  return CtfFreq{sqrtf(fx * fx + fy * fy) / pixel_size, atan2f(fy, fx)};
}
PICKORA_HD inline CtfFreq ctf_freq_2d(unsigned x, unsigned y, unsigned nx, unsigned ny, float pixel_size) {
  const float fx = ctf_centred_freq(x, nx), fy = ctf_centred_freq(y, ny);
  return CtfFreq{sqrtf(fx * fx + fy * fy) / pixel_size, atan2f(fy, fx)};
}

// =============================================================================================
// Simulators with a CTF_INFO (ctf_simulate.cu)
// =============================================================================================

PICKORA_HD inline float ctf_sim_value(float s, float theta, CTF_INFO info, RESO reso, char mode) {
  return ctf_in_band(s, reso.resL, reso.resH) ? hd_ctfinfo_s(s, theta, info, mode) : 0.0f;
}

// out[i], i < n: s = i / ((2 n - 2) pixel size), theta 0.
PICKORA_HD inline void cuda_ctf_sim_1dh(unsigned i, float* out, unsigned n, float pixel_size, CTF_INFO info, RESO reso,
                                        char mode) {
  if (i < n) out[i] = ctf_sim_value(ctf_half_axis_freq(i, n) / pixel_size, 0.0f, info, reso, mode);
}
PICKORA_HD inline void cuda_ctf_sim_2dh(unsigned x, unsigned y, float* out, unsigned nh, unsigned ny, float pixel_size,
                                        CTF_INFO info, RESO reso, char mode) {
  if (x >= nh || y >= ny) return;
  const CtfFreq f = ctf_freq_2dh(x, y, nh, ny, pixel_size);
  out[y * nh + x] = ctf_sim_value(f.s, f.theta, info, reso, mode);
}
PICKORA_HD inline void cuda_ctf_sim_2d(unsigned x, unsigned y, float* out, unsigned nx, unsigned ny, float pixel_size,
                                       CTF_INFO info, RESO reso, char mode) {
  if (x >= nx || y >= ny) return;
  const CtfFreq f = ctf_freq_2d(x, y, nx, ny, pixel_size);
  out[y * nx + x] = ctf_sim_value(f.s, f.theta, info, reso, mode);
}
PICKORA_HD inline void cuda_ctf_simXraw_2dh(unsigned x, unsigned y, float* out, const float* raw, unsigned nh,
                                            unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  if (x >= nh || y >= ny) return;
  const CtfFreq f = ctf_freq_2dh(x, y, nh, ny, pixel_size);
  out[y * nh + x] = ctf_sim_value(f.s, f.theta, info, reso, mode) * raw[y * nh + x];
}

// The fields as separate floats in their order; the 1D form takes one defocus for U, V and A.
PICKORA_HD inline CTF_INFO ctf_info_of(float kv, float cs, float ac, float ps, float defU, float defV, float defA,
                                       float bfac) {
  return CTF_INFO{kv, cs, ac, ps, defU, defV, defA, bfac};
}
PICKORA_HD inline void cuda_ctf_sim_1dh_c(unsigned i, float* out, unsigned n, float pixel_size, float kv, float cs,
                                          float ac, float ps, float defocus, float bfac, float resL, float resH,
                                          char mode) {
  cuda_ctf_sim_1dh(i, out, n, pixel_size, ctf_info_of(kv, cs, ac, ps, defocus, defocus, 0.0f, bfac), RESO{resL, resH},
                   mode);
}
PICKORA_HD inline void cuda_ctf_sim_2dh_c(unsigned x, unsigned y, float* out, unsigned nh, unsigned ny,
                                          float pixel_size, float kv, float cs, float ac, float ps, float defU,
                                          float defV, float defA, float bfac, float resL, float resH, char mode) {
  cuda_ctf_sim_2dh(x, y, out, nh, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac),
                   RESO{resL, resH}, mode);
}
PICKORA_HD inline void cuda_ctf_sim_2d_c(unsigned x, unsigned y, float* out, unsigned nx, unsigned ny,
                                         float pixel_size, float kv, float cs, float ac, float ps, float defU,
                                         float defV, float defA, float bfac, float resL, float resH, char mode) {
  cuda_ctf_sim_2d(x, y, out, nx, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac),
                  RESO{resL, resH}, mode);
}

void hcuda_ctf_sim_1dh(float* out, unsigned n, float pixel_size, CTF_INFO info, RESO reso, char mode);
void hcuda_ctf_sim_2dh(float* out, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode);
void hcuda_ctf_sim_2d(float* out, unsigned nx, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode);
void hcuda_ctf_simXraw_2dh(float* out, const float* raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info,
                           RESO reso, char mode);
void hcuda_ctf_sim_1dh_c(float* out, unsigned n, float pixel_size, float kv, float cs, float ac, float ps,
                         float defocus, float bfac, float resL, float resH, char mode);
void hcuda_ctf_sim_2dh_c(float* out, unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac,
                         float ps, float defU, float defV, float defA, float bfac, float resL, float resH, char mode);
void hcuda_ctf_sim_2d_c(float* out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                        float defU, float defV, float defA, float bfac, float resL, float resH, char mode);

void gpu_ctf_sim_1dh(float* h_out, unsigned n, float pixel_size, CTF_INFO info, RESO reso, char mode);
void gpu_ctf_sim_2dh(float* h_out, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode);
void gpu_ctf_sim_2d(float* h_out, unsigned nx, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode);
void gpu_ctf_simXraw_2dh(float* h_out, const float* h_raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info,
                         RESO reso, char mode);
void gpu_ctf_sim_1dh_c(float* h_out, unsigned n, float pixel_size, float kv, float cs, float ac, float ps,
                       float defocus, float bfac, float resL, float resH, char mode);
void gpu_ctf_sim_2dh_c(float* h_out, unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac,
                       float ps, float defU, float defV, float defA, float bfac, float resL, float resH, char mode);
void gpu_ctf_sim_2d_c(float* h_out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                      float defU, float defV, float defA, float bfac, float resL, float resH, char mode);

void cpu_ctf_sim_1dh(float* out, unsigned n, float pixel_size, CTF_INFO info, RESO reso, char mode);
void cpu_ctf_sim_2dh(float* out, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode);
void cpu_ctf_sim_2d(float* out, unsigned nx, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode);
void cpu_ctf_simXraw_2dh(float* out, const float* raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info,
                         RESO reso, char mode);
void cpu_ctf_sim_1dh_c(float* out, unsigned n, float pixel_size, float kv, float cs, float ac, float ps, float defocus,
                       float bfac, float resL, float resH, char mode);
void cpu_ctf_sim_2dh_c(float* out, unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                       float defU, float defV, float defA, float bfac, float resL, float resH, char mode);
void cpu_ctf_sim_2d_c(float* out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                      float defU, float defV, float defA, float bfac, float resL, float resH, char mode);

// Stacks: count records (a host array), count arrays one after the other, one launch each.
void hcuda_ctf_sim_1dhs(float* out, unsigned n, float pixel_size, const CTF_INFO* h_infos, unsigned count, RESO reso,
                        char mode);
void hcuda_ctf_sim_2dhs(float* out, unsigned nh, unsigned ny, float pixel_size, const CTF_INFO* h_infos,
                        unsigned count, RESO reso, char mode);
void hcuda_ctf_sim_2ds(float* out, unsigned nx, unsigned ny, float pixel_size, const CTF_INFO* h_infos, unsigned count,
                       RESO reso, char mode);
void gpu_ctf_sim_1dhs(float* h_out, unsigned n, float pixel_size, const CTF_INFO* h_infos, unsigned count, RESO reso,
                      char mode);
void gpu_ctf_sim_2dhs(float* h_out, unsigned nh, unsigned ny, float pixel_size, const CTF_INFO* h_infos,
                      unsigned count, RESO reso, char mode);
void gpu_ctf_sim_2ds(float* h_out, unsigned nx, unsigned ny, float pixel_size, const CTF_INFO* h_infos, unsigned count,
                     RESO reso, char mode);
void cpu_ctf_sim_1dhs(float* out, unsigned n, float pixel_size, const CTF_INFO* infos, unsigned count, RESO reso,
                      char mode);
void cpu_ctf_sim_2dhs(float* out, unsigned nh, unsigned ny, float pixel_size, const CTF_INFO* infos, unsigned count,
                      RESO reso, char mode);
void cpu_ctf_sim_2ds(float* out, unsigned nx, unsigned ny, float pixel_size, const CTF_INFO* infos, unsigned count,
                     RESO reso, char mode);

// The sum over the half array of the simulated value times raw (device raw), through a scratch
// array and hcuda_fast_sum.
float hcuda_ctf_sim_dot_raw_2dh(const float* raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso,
                                char mode);

// =============================================================================================
// The phase-based family (ctf_phase_family.cu): fields one by one, w sin(g) + ac cos(g).
// =============================================================================================

// Limits in either order for the single 1D forms.
PICKORA_HD inline bool ctf_in_band_any_order(float s, float a, float b) {
  return a >= b ? ctf_in_band(s, a, b) : ctf_in_band(s, b, a);
}
// g: aberration phase plus ps in radians, in double.
PICKORA_HD inline double ctf_phase_g(float s, float theta, float kv, float cs, float ps, float defU, float defV,
                                     float defA) {
  const float d = ctf_defocus_at(theta, defU, defV, defA);
  return ctf_aberration_phase(s, ctf_wavelength(kv), d, cs) + static_cast<double>(ps) * kCtfPi / 180.0;
}
PICKORA_HD inline float ctf_mod_value_1d(float s, float ps, float kv, float cs, float ac, float defocus, float bfac) {
  return fabsf(ctf_expansion_sine(ctf_phase_g(s, 0.0f, kv, cs, ps, defocus, defocus, 0.0f), ac)) *
         ctf_envelope_f(s, bfac);
}

PICKORA_HD inline void cuda_ctf_mod_simulate_1d(unsigned i, float* out, float pixel_size, unsigned n, float ps,
                                                float kv, float cs, float ac, float defocus, float bfac, float res_a,
                                                float res_b) {
  if (i >= n) return;
  const float s = ctf_half_axis_freq(i, n) / pixel_size;
  out[i] = ctf_in_band_any_order(s, res_a, res_b) ? ctf_mod_value_1d(s, ps, kv, cs, ac, defocus, bfac) : 0.0f;
}
// The total phase g + asin(ac), no envelope.
PICKORA_HD inline void cuda_ctf_phase_simulate_1d(unsigned i, float* out, float pixel_size, unsigned n, float ps,
                                                  float kv, float cs, float ac, float defocus, float bfac, float res_a,
                                                  float res_b) {
  (void)bfac;
  if (i >= n) return;
  const float s = ctf_half_axis_freq(i, n) / pixel_size;
  out[i] = ctf_in_band_any_order(s, res_a, res_b)
               ? static_cast<float>(ctf_phase_g(s, 0.0f, kv, cs, ps, defocus, defocus, 0.0f) +
                                    asin(static_cast<double>(ac)))
               : 0.0f;
}
// Image shape over n by count: row j is the curve of defocus[j]; resL, resH in this order.
PICKORA_HD inline void cuda_ctf_mod_simulate_1ds_multi_defocus(unsigned i, unsigned j, float* out, float pixel_size,
                                                               unsigned n, float ps, float kv, float cs, float ac,
                                                               const float* defocus, unsigned count, float bfac,
                                                               float resL, float resH) {
  if (i >= n || j >= count) return;
  const float s = ctf_half_axis_freq(i, n) / pixel_size;
  out[static_cast<unsigned long>(j) * n + i] =
      ctf_in_band(s, resL, resH) ? ctf_mod_value_1d(s, ps, kv, cs, ac, defocus[j], bfac) : 0.0f;
}

// Value of the 2D phase family at (s, theta): the expansion sine and its envelope.
PICKORA_HD inline float ctf_sine_2d(CtfFreq f, float kv, float cs, float ac, float ps, float defU, float defV,
                                    float defA) {
  return ctf_expansion_sine(ctf_phase_g(f.s, f.theta, kv, cs, ps, defU, defV, defA), ac);
}
PICKORA_HD inline void cuda_ctf_mod_simulate_2d(unsigned x, unsigned y, float* out, float pixel_size, unsigned nx,
                                                unsigned ny, float kv, float cs, float ac, float ps, float defU,
                                                float defV, float defA, float bfac, float resL, float resH) {
  if (x >= nx || y >= ny) return;
  const CtfFreq f = ctf_freq_2d(x, y, nx, ny, pixel_size);
  out[y * nx + x] = ctf_in_band(f.s, resL, resH)
                        ? fabsf(ctf_sine_2d(f, kv, cs, ac, ps, defU, defV, defA)) * ctf_envelope_f(f.s, bfac)
                        : 0.0f;
}
PICKORA_HD inline void cuda_ctf_mod_simulate_2dh(unsigned x, unsigned y, float* out, float pixel_size, unsigned nh,
                                                 unsigned ny, float kv, float cs, float ac, float ps, float defU,
                                                 float defV, float defA, float bfac, float resL, float resH) {
  if (x >= nh || y >= ny) return;
  const CtfFreq f = ctf_freq_2dh(x, y, nh, ny, pixel_size);
  out[y * nh + x] = ctf_in_band(f.s, resL, resH)
                        ? fabsf(ctf_sine_2d(f, kv, cs, ac, ps, defU, defV, defA)) * ctf_envelope_f(f.s, bfac)
                        : 0.0f;
}
PICKORA_HD inline void cuda_ctf_pow_simulate_2dh(unsigned x, unsigned y, float* out, float pixel_size, unsigned nh,
                                                 unsigned ny, float kv, float cs, float ac, float ps, float defU,
                                                 float defV, float defA, float bfac, float resL, float resH) {
  if (x >= nh || y >= ny) return;
  const CtfFreq f = ctf_freq_2dh(x, y, nh, ny, pixel_size);
  const float c = ctf_sine_2d(f, kv, cs, ac, ps, defU, defV, defA);
  out[y * nh + x] = ctf_in_band(f.s, resL, resH) ? c * c * ctf_envelope_f(f.s, bfac) : 0.0f;
}
// The score term of the defocus search: |sin(p)| e raw[i].
PICKORA_HD inline void cuda_ctf_smrl_2dh(unsigned x, unsigned y, float* out, const float* raw, float pixel_size,
                                         unsigned nh, unsigned ny, float kv, float cs, float ac, float ps, float defU,
                                         float defV, float defA, float bfac, float resL, float resH) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  const CtfFreq f = ctf_freq_2dh(x, y, nh, ny, pixel_size);
  out[i] = ctf_in_band(f.s, resL, resH)
               ? fabsf(ctf_sine_2d(f, kv, cs, ac, ps, defU, defV, defA)) * ctf_envelope_f(f.s, bfac) * raw[i]
               : 0.0f;
}

void hcuda_ctf_mod_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                               float defocus, float bfac, float res_a, float res_b);
void hcuda_ctf_phase_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                                 float defocus, float bfac, float res_a, float res_b);
// defocus: a device array of count values; out: count rows of n.
void hcuda_ctf_mod_simulate_1ds_multi_defocus(float* out, float pixel_size, unsigned n, float ps, float kv, float cs,
                                              float ac, const float* defocus, unsigned count, float bfac, float resL,
                                              float resH);
void hcuda_ctf_mod_simulate_2d(float* out, float pixel_size, unsigned nx, unsigned ny, float kv, float cs, float ac,
                               float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void hcuda_ctf_mod_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                                float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void hcuda_ctf_pow_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                                float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void hcuda_ctf_smrl_2dh(float* out, const float* raw, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                        float ac, float ps, float defU, float defV, float defA, float bfac, float resL, float resH);

void gpu_ctf_mod_simulate_1d(float* h_out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                             float defocus, float bfac, float res_a, float res_b);
void gpu_ctf_phase_simulate_1d(float* h_out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                               float defocus, float bfac, float res_a, float res_b);
void gpu_ctf_mod_simulate_1ds_multi_defocus(float* h_out, float pixel_size, unsigned n, float ps, float kv, float cs,
                                            float ac, const float* h_defocus, unsigned count, float bfac, float resL,
                                            float resH);
void gpu_ctf_mod_simulate_2d(float* h_out, float pixel_size, unsigned nx, unsigned ny, float kv, float cs, float ac,
                             float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void gpu_ctf_mod_simulate_2dh(float* h_out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void gpu_ctf_pow_simulate_2dh(float* h_out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void gpu_ctf_smrl_2dh(float* h_out, const float* h_raw, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                      float ac, float ps, float defU, float defV, float defA, float bfac, float resL, float resH);

void cpu_ctf_mod_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                             float defocus, float bfac, float res_a, float res_b);
void cpu_ctf_phase_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                               float defocus, float bfac, float res_a, float res_b);
void cpu_ctf_mod_simulate_1ds_multi_defocus(float* out, float pixel_size, unsigned n, float ps, float kv, float cs,
                                            float ac, const float* defocus, unsigned count, float bfac, float resL,
                                            float resH);
void cpu_ctf_mod_simulate_2d(float* out, float pixel_size, unsigned nx, unsigned ny, float kv, float cs, float ac,
                             float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void cpu_ctf_mod_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void cpu_ctf_pow_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH);
void cpu_ctf_smrl_2dh(float* out, const float* raw, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                      float ac, float ps, float defU, float defV, float defA, float bfac, float resL, float resH);

// Resolution-based array kernels: fx, fy, s as in cuda_ctf_sim_2dh; 0 outside resL .. resH.
PICKORA_HD inline void cuda_2dh_res_based_square(unsigned x, unsigned y, float* out, const float* in, float pixel_size,
                                                 unsigned nh, unsigned ny, float resL, float resH) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  out[i] = ctf_in_band(ctf_freq_2dh(x, y, nh, ny, pixel_size).s, resL, resH) ? in[i] * in[i] : 0.0f;
}
PICKORA_HD inline void cuda_x2dh_res_based_multiply_inplace(unsigned x, unsigned y, float* a, const float* b,
                                                            float pixel_size, unsigned nh, unsigned ny, float resL,
                                                            float resH) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  a[i] = ctf_in_band(ctf_freq_2dh(x, y, nh, ny, pixel_size).s, resL, resH) ? a[i] * b[i] : 0.0f;
}
void hcuda_2dh_res_based_square(float* out, const float* in, float pixel_size, unsigned nh, unsigned ny, float resL,
                                float resH);
void hcuda_x2dh_res_based_multiply_inplace(float* a, const float* b, float pixel_size, unsigned nh, unsigned ny,
                                           float resL, float resH);
void gpu_2dh_res_based_square(float* h_out, const float* h_in, float pixel_size, unsigned nh, unsigned ny, float resL,
                              float resH);
void gpu_x2dh_res_based_multiply_inplace(float* h_a, const float* h_b, float pixel_size, unsigned nh, unsigned ny,
                                         float resL, float resH);
void cpu_2dh_res_based_square(float* out, const float* in, float pixel_size, unsigned nh, unsigned ny, float resL,
                              float resH);
void cpu_x2dh_res_based_multiply_inplace(float* a, const float* b, float pixel_size, unsigned nh, unsigned ny,
                                         float resL, float resH);

// =============================================================================================
// Applying the model to spectra and images (ctf_apply.cu)
// =============================================================================================

PICKORA_HD inline float2 ctf_scale(float2 v, float k) { return make_float2(v.x * k, v.y * k); }

// The sign of sin(p) at element (x, y) of a half spectrum with the zero frequency at row ny / 2
// (mode 'S': +1 at a zero of the sine).
PICKORA_HD inline float ctf_flip_sign_2dh(unsigned x, unsigned y, unsigned nh, unsigned ny, float pixel_size,
                                          CTF_INFO info) {
  const CtfFreq f = ctf_freq_2dh(x, y, nh, ny, pixel_size);
  return hd_ctfinfo_s(f.s, f.theta, info, 'S');
}
PICKORA_HD inline void cuda_2dh_phase_flip(unsigned x, unsigned y, const float2* in, float2* out, float pixel_size,
                                           unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                                           float defU, float defV, float defA) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  out[i] = ctf_scale(in[i], ctf_flip_sign_2dh(x, y, nh, ny, pixel_size,
                                              ctf_info_of(kv, cs, ac, ps, defU, defV, defA, 0.0f)));
}
PICKORA_HD inline void cuda_phase_flip_c2dh_c(unsigned x, unsigned y, const float2* in, float2* out, unsigned nh,
                                              unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                                              float defU, float defV, float defA) {
  cuda_2dh_phase_flip(x, y, in, out, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA);
}
// Spectrum with its origin at element 0.
PICKORA_HD inline void cuda_phase_flip_c2dh_usw_c(unsigned x, unsigned y, const float2* in, float2* out, unsigned nh,
                                                  unsigned ny, float pixel_size, float kv, float cs, float ac,
                                                  float ps, float defU, float defV, float defA) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  out[i] = ctf_scale(in[i], ctf_flip_sign_2dh(x, ctf_unswapped_row(y, ny), nh, ny, pixel_size,
                                              ctf_info_of(kv, cs, ac, ps, defU, defV, defA, 0.0f)));
}
PICKORA_HD inline void cuda_apply_ctf_c2dh_usw_c(unsigned x, unsigned y, const float2* in, float2* out, unsigned nh,
                                                 unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                                                 float defU, float defV, float defA, float bfac, char mode) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  const CtfFreq f = ctf_freq_2dh(x, ctf_unswapped_row(y, ny), nh, ny, pixel_size);
  out[i] = ctf_scale(in[i], hd_ctfinfo_s(f.s, f.theta, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), mode));
}
// Wiener-type factor c W / (1 + W c^2) with c = sin(p) (no envelope); numerator W (c + e0 sign(c))
// in the second form. A zero denominator gives 0.
PICKORA_HD inline float ctf_wiener_factor(float c, float w, float numerator) {
  const float den = 1.0f + w * c * c;
  return den == 0.0f ? 0.0f : numerator / den;
}
PICKORA_HD inline float ctf_sine_usw(unsigned x, unsigned y, unsigned nh, unsigned ny, float pixel_size, float kv,
                                     float cs, float ac, float ps, float defU, float defV, float defA) {
  const CtfFreq f = ctf_freq_2dh(x, ctf_unswapped_row(y, ny), nh, ny, pixel_size);
  return hd_ctfinfo_s(f.s, f.theta, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, 0.0f), 'F');
}
PICKORA_HD inline void cuda_wd_ctf_c2dh_usw_c(unsigned x, unsigned y, const float2* in, float2* out, const float* W,
                                              unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac,
                                              float ps, float defU, float defV, float defA) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  const float c = ctf_sine_usw(x, y, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  out[i] = ctf_scale(in[i], ctf_wiener_factor(c, W[i], c * W[i]));
}
PICKORA_HD inline void cuda_wd_ctf_c2dh_usw_c_v2(unsigned x, unsigned y, const float2* in, float2* out, const float* W,
                                                 unsigned nh, unsigned ny, float pixel_size, float kv, float cs,
                                                 float ac, float ps, float defU, float defV, float defA, float e0) {
  if (x >= nh || y >= ny) return;
  const unsigned i = y * nh + x;
  const float c = ctf_sine_usw(x, y, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  const float sign = c > 0.0f ? 1.0f : (c < 0.0f ? -1.0f : 0.0f);
  out[i] = ctf_scale(in[i], ctf_wiener_factor(c, W[i], W[i] * (c + e0 * sign)));
}

void hcuda_2dh_phase_flip(const float2* in, float2* out, float pixel_size, unsigned nh, unsigned ny, float kv,
                          float cs, float ac, float ps, float defU, float defV, float defA);
void hcuda_phase_flip_c2dh_c(const float2* in, float2* out, unsigned nh, unsigned ny, float pixel_size, float kv,
                             float cs, float ac, float ps, float defU, float defV, float defA);
void hcuda_phase_flip_c2dh_usw_c(const float2* in, float2* out, unsigned nh, unsigned ny, float pixel_size, float kv,
                                 float cs, float ac, float ps, float defU, float defV, float defA);
void hcuda_apply_ctf_c2dh_usw_c(const float2* in, float2* out, unsigned nh, unsigned ny, float pixel_size, float kv,
                                float cs, float ac, float ps, float defU, float defV, float defA, float bfac,
                                char mode);
void hcuda_wd_ctf_c2dh_usw_c(const float2* in, float2* out, const float* W, unsigned nh, unsigned ny,
                             float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                             float defA);
void hcuda_wd_ctf_c2dh_usw_c_v2(const float2* in, float2* out, const float* W, unsigned nh, unsigned ny,
                                float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                                float defA, float e0);

// Whole real images of nx by ny (even sides): _norm forward transform, the kernel on the
// spectrum as the transform leaves it, _norm inverse transform. in and out may be the same
// array. W is nh x ny weights in the layout of that spectrum. The gpu_ forms take host arrays.
void hcuda_phase_flip_r2d_c(const float* in, float* out, unsigned nx, unsigned ny, float pixel_size, float kv,
                            float cs, float ac, float ps, float defU, float defV, float defA);
void hcuda_apply_ctf_r2d_c(const float* in, float* out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs,
                           float ac, float ps, float defU, float defV, float defA, float bfac, char mode);
void hcuda_wd_ctf_r2d_c(const float* in, float* out, const float* W, unsigned nx, unsigned ny, float pixel_size,
                        float kv, float cs, float ac, float ps, float defU, float defV, float defA);
void hcuda_wd_ctf_r2d_c_v2(const float* in, float* out, const float* W, unsigned nx, unsigned ny, float pixel_size,
                           float kv, float cs, float ac, float ps, float defU, float defV, float defA, float e0);
void gpu_phase_flip_r2d_c(const float* h_in, float* h_out, unsigned nx, unsigned ny, float pixel_size, float kv,
                          float cs, float ac, float ps, float defU, float defV, float defA);
void gpu_apply_ctf_r2d_c(const float* h_in, float* h_out, unsigned nx, unsigned ny, float pixel_size, float kv,
                         float cs, float ac, float ps, float defU, float defV, float defA, float bfac, char mode);
void gpu_wd_ctf_r2d_c(const float* h_in, float* h_out, const float* h_W, unsigned nx, unsigned ny, float pixel_size,
                      float kv, float cs, float ac, float ps, float defU, float defV, float defA);
void gpu_wd_ctf_r2d_c_v2(const float* h_in, float* h_out, const float* h_W, unsigned nx, unsigned ny,
                         float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV, float defA,
                         float e0);

// =============================================================================================
// Files (ctf_files.cpp)
// =============================================================================================

// Writes the phase-flipped micrograph as name with its suffix replaced by "_pf.mrc": _norm
// forward transform, centre swap of the spectrum (zero frequency to row ny / 2), the flip, swap
// back, _norm inverse transform, mrcf_write_xyz_data. The pixels are h_image (nx x ny) when it is
// not null; otherwise the file itself is read by mrcf_get_zdata_all, and its sides must be nx
// and ny. Sides must be even. Returns 0; every failure is fatal.
int mrcf_phase_flip_write(const char* name, const float* h_image, int nx, int ny, float pixel_size, float kv, float cs,
                          float ac, float ps, float defU, float defV, float defA);

// =============================================================================================
// Argument checks shared by the wrappers (ctf_checks.cpp). Each ends the run with a fatal report
// naming `func`.
// =============================================================================================

void ctf_require_usable(const char* func, float pixel_size, float ac);
void ctf_require_usable(const char* func, float pixel_size, const CTF_INFO& info);
void ctf_require_even_sides(const char* func, unsigned nx, unsigned ny);
