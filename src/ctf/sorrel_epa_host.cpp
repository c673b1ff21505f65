// The host side of the evaluation: zeros and peaks along a curve, the fits, the local
// correlation of the equiphase average with the model, the resolution limit and the B-factor.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "ctf/sorrel.h"
#include "ctf/sorrel_epa.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "math_utils/host_stats.h"
#include "txt_file/arrays_strings.h"

long cpu_ctf_1dh_get_all_zp_res(std::vector<float2>& list, const float* curve, int n, float pixel_size, float kv,
                                float cs, float ac, float ps, float defocus, float resL, float resH, int zp_mode) {
  const int kind = zp_mode / 10, unit = zp_mode % 10;
  if (zp_mode < 0 || kind > 2 || unit < 1 || unit > 4) {
    PK_WARNING("zp_mode unrecognized!!");
    return -1;
  }
  list.clear();
  const EpaCoef k = epa_coef(kv, cs);
  const float P = ps * static_cast<float>(kCtfPi) / 180.0f, asin_ac = asinf(ac);
  const float kmax = floorf((asin_ac - k.C / (resH * resH * resH * resH) + k.B * defocus / (resH * resH) + P) /
                            static_cast<float>(kCtfPi));
  if (!(kmax >= 0.0f)) return 0;
  const float b = k.B * defocus;
  auto add = [&](float phase) {
    const float s = phase < 0.0f ? 0.0f : epa_root(b, k.C, phase, cs);
    if (s < 1.0f / resL || s > 1.0f / resH) return;
    const long index = static_cast<long>(static_cast<float>(2 * n - 2) * pixel_size * s);
    if (index < 0 || index >= n) return;
    float x = static_cast<float>(index);
    if (unit == 2) x = s;
    if (unit == 3) x = s * s;
    if (unit == 4) x = 1.0f / s;
    list.push_back(float2{x, curve[index]});
  };
  for (int i = 0; i <= static_cast<int>(kmax); ++i) {
    const float zero = static_cast<float>(i) * static_cast<float>(kCtfPi) - asin_ac - P;
    const float peak = zero + static_cast<float>(kCtfPi / 2.0);
    if (kind == 0 || kind == 2) add(zero);
    if (kind == 1 || kind == 2) add(peak);
  }
  return static_cast<long>(list.size());
}

long cpu_ctf_1dh_get_all_zero(std::vector<float2>& list, const float* curve, int n, float pixel_size, float kv,
                              float cs, float ac, float ps, float defocus) {
  list.clear();
  const EpaCoef k = epa_coef(kv, cs);
  const float P = ps * static_cast<float>(kCtfPi) / 180.0f;
  for (int i = 1;; ++i) {
    const float phase = static_cast<float>(i) * static_cast<float>(kCtfPi) - asinf(ac) - P;
    const float s = phase < 0.0f ? 0.0f : epa_root(k.B * defocus, k.C, phase, cs);
    if (s < 0.0f || s > 0.5f / pixel_size) break;
    const long index = static_cast<long>(static_cast<float>(2 * n - 2) * pixel_size * s);
    if (index >= n) break;
    list.push_back(float2{static_cast<float>(index), curve[index]});
  }
  return static_cast<long>(list.size());
}

int smp_gauss_solve(int n, double* m, double* solution, double* rhs) {
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(m[r * n + c]) > std::fabs(m[pivot * n + c])) pivot = r;
    if (!(std::fabs(m[pivot * n + c]) > 0.0)) return -1;
    if (pivot != c) {
      for (int k = 0; k < n; ++k) std::swap(m[c * n + k], m[pivot * n + k]);
      std::swap(rhs[c], rhs[pivot]);
    }
    for (int r = c + 1; r < n; ++r) {
      const double f = m[r * n + c] / m[c * n + c];
      for (int k = c; k < n; ++k) m[r * n + k] -= f * m[c * n + k];
      rhs[r] -= f * rhs[c];
    }
  }
  for (int r = n - 1; r >= 0; --r) {
    double sum = rhs[r];
    for (int k = r + 1; k < n; ++k) sum -= m[r * n + k] * solution[k];
    solution[r] = sum / m[r * n + r];
  }
  return 0;
}

int smp_poly_fit3(const std::vector<float2>& points, std::vector<double>& coef, int degree) {
  const int count = static_cast<int>(points.size());
  degree = std::max(0, std::min(degree, count - 1));
  coef.assign(degree + 1, 0.0);
  if (count == 0) return 0;
  double scale = 0.0;
  for (const float2& p : points) scale = std::max(scale, std::fabs(static_cast<double>(p.x)));
  if (!(scale > 0.0)) scale = 1.0;
  const int m = degree + 1;
  std::vector<double> a(m * m, 0.0), rhs(m, 0.0), sol(m, 0.0), pw(2 * m);
  for (const float2& p : points) {
    const double x = p.x / scale;
    pw[0] = 1.0;
    for (int k = 1; k < 2 * m; ++k) pw[k] = pw[k - 1] * x;
    for (int r = 0; r < m; ++r) {
      rhs[r] += pw[r] * p.y;
      for (int c = 0; c < m; ++c) a[r * m + c] += pw[r + c];
    }
  }
  if (smp_gauss_solve(m, a.data(), sol.data(), rhs.data()) != 0) return smp_poly_fit3(points, coef, degree - 1);
  for (int k = 0; k < m; ++k) coef[k] = sol[k] / std::pow(scale, k);
  return degree;
}

void smp_poly_get2(const double* x, double* out, int n, const std::vector<double>& coef, int degree) {
  for (int i = 0; i < n; ++i) {
    double v = 0.0;
    for (int k = degree; k >= 0; --k) v = v * x[i] + coef[k];
    out[i] = v;
  }
}

int smp_line_fit(const float* x, const float* y, int n, double& slope, double& intercept) {
  slope = intercept = 0.0;
  if (n < 2) return -1;
  double sx = 0, sy = 0, sxy = 0, sxx = 0;
  for (int i = 0; i < n; ++i) sx += x[i], sy += y[i], sxy += double(x[i]) * y[i], sxx += double(x[i]) * x[i];
  const double mx = sx / n, my = sy / n, den = sxx - n * mx * mx;
  if (!(std::fabs(den) > 0.0)) return -1;
  slope = (sxy - n * mx * my) / den;
  intercept = my - slope * mx;
  return 0;
}

int smp_line_fit2(const std::vector<float2>& points, double& slope, double& intercept) {
  std::vector<float> x, y;
  for (const float2& p : points) x.push_back(p.x), y.push_back(p.y);
  return smp_line_fit(x.data(), y.data(), static_cast<int>(points.size()), slope, intercept);
}

// ---------------------------------------------------------------------------------------------
// The evaluation of one micrograph
// ---------------------------------------------------------------------------------------------

namespace {

// Local correlation of the EPA of the subtracted spectrum with |CTFsim|, then its Gaussian
// smoothing; ccc and smooth hold L values.
void local_ccc(const std::vector<float>& epa, const std::vector<float>& sim, int L, int iL, int iH, int wmax, int wmin,
               std::vector<float>& ccc, std::vector<float>& smooth) {
  const int i0 = iL + wmax / 2, i1 = iH - wmin;
  ccc.assign(L, 0.0f);
  for (int i = 0; i < std::min(i0, L); ++i) ccc[i] = 1.0f;
  std::vector<float> a, b;
  for (int i = std::max(i0, 0); i < std::min(i1, L); ++i) {
    const int w = static_cast<int>(wmax + static_cast<double>(wmin - wmax) * (i - iL) / (i1 - iL));
    const int start = i - w / 2;
    if (w < 2 || start < 0 || start + w > L) continue;  // no window that fits: no correlation
    a.assign(epa.begin() + start, epa.begin() + start + w);
    b.assign(sim.begin() + start, sim.begin() + start + w);
    const float c = hm_ccc_znorm_inplace(a.data(), b.data(), w);
    ccc[i] = (c >= -1.0f && c <= 1.0f) ? c : 0.0f;
  }
  smooth = ccc;
  if (iL + 1 < iH - 30 && iL + 1 < i1 - 10) {
    const int last = std::min(std::min(iH - 31, i1 - 11), L - 1);
    for (int i = std::max(iL + 1, 0); i <= last; ++i) {
      double sum = 0.0, wsum = 0.0;
      for (int j = i - 10; j <= i + 9; ++j) {
        if (j < 0 || j >= L) continue;
        const double k = i - j, wt = std::exp(-k * k / 88.888885);
        sum += wt * ccc[j], wsum += wt;
      }
      smooth[i] = static_cast<float>(sum / wsum);
    }
  }
}

}  // namespace

// |CTFsim| at the mean defocus and the two averages, on the host.
void SORREL_A::sorrel_epa_curves(float d, float resL, float resH, bool with_log) {
  const float ps = refined[3], U = refined[0], V = refined[1], A = refined[2];
  hcuda_ctf_mod_simulate_1d(d_ctfsim, para.apix, epa_n, ps, para.kV, para.cs, para.ac, d, 0.0f, resL, resH);
  PK_CUDA_CHECK(memcpy_D2H(h_ctfsim.data(), d_ctfsim, epa_n * sizeof(float)));
  hcuda_2dh_X_EPA_res(d_epa, para.EPA_oversmp, d_sub, nh, box, para.apix, para.kV, para.cs, para.ac, ps, U, V, A, resL,
                      resH);
  PK_CUDA_CHECK(memcpy_D2H(h_epa_sub.data(), d_epa, epa_n * sizeof(float)));
  if (with_log) {
    hcuda_ctf_phase_simulate_1d(d_ctfsim, para.apix, epa_n, ps, para.kV, para.cs, para.ac, d, 0.0f, resL, resH);
    PK_CUDA_CHECK(memcpy_D2H(h_phase.data(), d_ctfsim, epa_n * sizeof(float)));
    hcuda_2dh_X_EPA_res(d_epa, para.EPA_oversmp, d_log, nh, box, para.apix, para.kV, para.cs, para.ac, ps, U, V, A,
                        resL, resH);
    PK_CUDA_CHECK(memcpy_D2H(h_epa_log.data(), d_epa, epa_n * sizeof(float)));
  }
}

float SORREL_A::sorrel_mean_defocus() const {
  const double a = refined[2] * kCtfPi / 180.0;
  const double c = std::cos(a), s = std::sin(a);
  return static_cast<float>(refined[0] * c * c + refined[1] * s * s);
}

void SORREL_A::sorrel_epa_1d_ccf_B_estimation() {
  const int L = epa_n;
  const float d = sorrel_mean_defocus();
  const EpaCoef k = epa_coef(para.kV, para.cs);
  const float P = refined[3] * static_cast<float>(kCtfPi) / 180.0f;
  const float t = static_cast<float>(kCtfPi) - asinf(para.ac) - P;
  const float s1 = t >= 0.0f ? epa_root(k.B * d, k.C, t, para.cs) : 0.0f;
  const float res1 = s1 > 0.0f ? 1.0f / s1 : INFINITY;
  sorrel_epa_curves(d, para.EPA_resL, para.EPA_resH, true);

  std::vector<float2> zeros, peaks;
  cpu_ctf_1dh_get_all_zp_res(zeros, h_epa_log.data(), L, para.apix, para.kV, para.cs, para.ac, refined[3], d,
                             para.EPA_resL, para.EPA_resH, 1);
  cpu_ctf_1dh_get_all_zp_res(peaks, h_epa_log.data(), L, para.apix, para.kV, para.cs, para.ac, refined[3], d,
                             para.EPA_resL, para.EPA_resH, 11);
  std::vector<double> coef, xs(L), bg(L);
  const int degree = smp_poly_fit3(zeros, coef, para.EPA_bg_pn);
  for (int i = 0; i < L; ++i) xs[i] = i;
  smp_poly_get2(xs.data(), bg.data(), L, coef, degree);

  const int iL = static_cast<int>(2.0f * L * para.apix / std::fmin(res1, para.EPA_resL));
  const int iH = static_cast<int>(2.0f * L * para.apix / para.EPA_resH);
  const int wmax = static_cast<int>(para.ncc_frac_max * nh), wmin = static_cast<int>(para.ncc_frac_min * nh);
  const int i1 = iH - wmin;
  std::vector<float> ccc, smooth;
  local_ccc(h_epa_sub, h_ctfsim, L, iL, iH, wmax, wmin, ccc, smooth);

  char table[SORREL_NAME_LEN];
  replace_file_suffix(table, "_EPA.log", name.c_str(), ".mrc");
  FILE* fp = std::fopen(table, "w+");
  if (fp == nullptr) {
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", table);
    PK_FATAL("open file '%s' failed.", table);
  }
  std::fprintf(fp, "  Resolution      |CTFsim|    EPA( Ln|F| )        Bg         EPA(Ln|F| - Bg)    CCC\n");
  res_limit = para.res_lim_L;
  bool found = false, any = false;
  float res = 0.0f;
  for (int i = std::max(iL + 1, 1); i <= std::min(i1 - 11, L - 1); ++i) {
    any = true;
    res = 2.0f * para.apix * L / i;
    if (!found && smooth[i] < para.res_lim_cc && res < para.res_lim_L) res_limit = res, found = true;
    std::fprintf(fp, "%12.6f  %12.6f  %12.6f   %12.6f   %12.6f   %12.6f \n", res, h_ctfsim[i], h_epa_log[i], bg[i],
                 h_epa_log[i] - bg[i], smooth[i]);
  }
  if (!any) res_limit = 0.0f;
  else if (!found) res_limit = res;
  std::printf("Resolution limit estimated by EPA: \033[1m %.3f \033[m\n", res_limit);
  if (log != nullptr) std::fprintf(log, "Resolution limit estimated by EPA: RES_LIMIT %.3f \n", res_limit);
  (void)peaks;
  if (para.estimate_B) sorrel_bfac_estimation_from_epa_1d3();
  std::fclose(fp);
}

float SORREL_A::sorrel_bfac_estimation_from_epa_1d3() {
  std::vector<float2> peaks;
  cpu_ctf_1dh_get_all_zp_res(peaks, h_epa_log.data(), epa_n, para.apix, para.kV, para.cs, para.ac, refined[3],
                             refined[0], para.B_resL, para.B_resH, 13);
  if (peaks.size() < 3) {
    b_factor = 0.0f;
    PK_WARNING("Bfactor estimation failed due to too few CTF peaks\n!");
  } else {
    double slope = 0.0, intercept = 0.0;
    smp_line_fit2(peaks, slope, intercept);
    b_factor = static_cast<float>(-4.0 * slope);
  }
  std::printf("Estimated Bfactor: \033[1m %.2f \033[m\n", b_factor);
  if (log != nullptr) std::fprintf(log, "Estimated Bfactor: B_FACTOR  %.2f \n", b_factor);
  return b_factor;
}

float SORREL_A::sorrel_epa_1d_ccf_limit() {
  const int L = epa_n;
  const float low = para.resL, high = 2.0f * para.apix + 0.1f;
  sorrel_epa_curves(sorrel_mean_defocus(), low, high, false);
  const int iL = static_cast<int>(2.0f * L * para.apix / low), iH = static_cast<int>(2.0f * L * para.apix / high);
  const int wmax = (nh * 256) / 513, wmin = (nh * 64) / 513, i1 = iH - wmin;
  std::vector<float> ccc, smooth;
  local_ccc(h_epa_sub, h_ctfsim, L, iL, iH, wmax, wmin, ccc, smooth);
  float res = 20.0f;
  for (int i = std::max(iL + 1, 1); i <= std::min(i1 - 11, L - 1); ++i) {
    res = 2.0f * para.apix * L / i;
    if (smooth[i] < 0.0f && res < 20.0f) return res;
  }
  return res;
}

void SORREL_A::sorrel_refine_after_EPA() {
  const char* head = "Refining after EPA ...     phase_shfift  defocus_U  defocus_V  angle  ccc \nInput: %12.2f %12.2f "
                     "%12.2f %12.2f %12.6f\n";
  std::printf(head, refined[3], refined[0], refined[1], refined[2], refined[4]);
  if (log != nullptr) std::fprintf(log, head, refined[3], refined[0], refined[1], refined[2], refined[4]);
  hcuda_2dh_EPA(d_work, d_sub, nh, box, para.apix, para.kV, para.cs, para.ac, refined[3], refined[0], refined[1],
                refined[2], para.ctfout_resL, para.ctfout_resH);
  PK_CUDA_CHECK(memcpy_D2H(h_out.data(), d_sub, n2dh * sizeof(float)));  // the old spectrum waits on the host
  PK_CUDA_CHECK(memcpy_D2D(d_sub, d_work, n2dh * sizeof(float)));
  if (para.refine_2d_T == 1) {
    sorrel_set_init_defUVA_for_2D_refine(refined[3]);
    sorrel_hcuda_refctf_2dh();
  } else {
    sorrel_refine_by_strategy(false, refined[3]);
  }
  PK_CUDA_CHECK(memcpy_H2D(d_sub, h_out.data(), n2dh * sizeof(float)));
}
