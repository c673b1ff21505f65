// Validation of a finished CTF result: refine it again inside five resolution bands and grade
// how far the defocus moves in each, against a tolerance that grows with the band's high limit.
#include <cmath>
#include <cstdio>
#include <vector>

#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel.h"
#include "ctf_core/ctf_core.h"
#include "ctf_tilt/ctf_validation.h"
#include "cuda_fast_sum/cuda_fast_sum.h"

namespace {

// Both streams get the same text; the log only when there is one.
void put_both(FILE* log, const char* text) {
  std::fputs(text, stdout);
  if (log != nullptr) std::fputs(text, log);
}

// Whether the spectrum has anything inside the band: a band with no sample (or only zeros)
// would refine nothing and grade a drift of 0 as perfect.
bool band_has_spectrum(const float* spectrum, float* work, float apix, unsigned nh, unsigned ny, float resL,
                       float resH) {
  hcuda_2dh_res_based_square(work, spectrum, apix, nh, ny, resL, resH);
  const float n = hcuda_fast_sum_inplace(work, static_cast<unsigned long>(nh) * ny, 1024);
  return n > 0.0f && std::isfinite(n);
}

}  // namespace

int ctf_validation(const float* spectrum, float* work, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                   float ac, float ps, float defU, float defV, float defA, float bfac, FILE* log,
                   std::vector<CtfValidationBand>* bands, float* mean_grade) {
  put_both(log, "\n......................................  VALIDATION  ......................................\n");
  put_both(log, "Differences from Original Values:\n  RESOLUTION   Defocus_U   Defocus_V     Angle       CCC      "
                "CONVERGENCE  \n");
  if (bands != nullptr) bands->clear();
  int graded = 0, sum = 0;
  float lowest_high = ctf_validation_bands[0].resH;
  for (const RESO& band : ctf_validation_bands) {
    const float l = band.resL, h = band.resH;
    if (!ctf_validation_band_usable(h, pixel_size)) break;
    lowest_high = h;
    CtfValidationBand out{l, h, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, ctf_validation_tolerance(h), 0};
    char row[160];
    if (!band_has_spectrum(spectrum, work, pixel_size, nh, ny, l, h)) {
      std::snprintf(row, sizeof(row), "  %02d-%02dA   no spectrum inside this band: not graded\n", static_cast<int>(l),
                    static_cast<int>(h));
      put_both(log, row);
      if (bands != nullptr) bands->push_back(out);
      continue;
    }
    float U = defU, V = defV, A = defA, ccc = 0.0f;
    hcuda_ctfvalidate_2dh(spectrum, work, U, V, A, ccc, pixel_size, nh, ny, kv, cs, ac, ps, out.tolerance / 4.0f, 3.0f,
                          bfac, l, h, log);
    out.dU = U - defU, out.dV = V - defV, out.dA = A - defA, out.ccc = ccc;
    out.drift = ctf_validation_drift(defU, defV, defA, U, V, A);
    out.grade = ctf_validation_grade(out.drift, out.tolerance);
    std::snprintf(row, sizeof(row), "  %02d-%02dA %12.2f%12.2f%12.2f%12.2f     ", static_cast<int>(l),
                  static_cast<int>(h), static_cast<double>(out.dU), static_cast<double>(out.dV),
                  static_cast<double>(out.dA), static_cast<double>(ccc));
    put_both(log, row);
    std::printf("%s\n", ctf_validation_grade_stdout(out.grade));
    if (log != nullptr) std::fputs(ctf_validation_grade_log(out.grade), log);
    ++graded, sum += out.grade;
    if (bands != nullptr) bands->push_back(out);
  }
  // A mean over no band has no value: it is reported as such and given as 0.
  const float mean = graded > 0 ? static_cast<float>(sum) / static_cast<float>(graded) : 0.0f;
  char tail[160];
  if (graded > 0)
    std::snprintf(tail, sizeof(tail), "Mean validation score: %.2f over %d bands\n", static_cast<double>(mean), graded);
  else
    std::snprintf(tail, sizeof(tail), "Mean validation score: none, no band could be graded at pixel size %.3f\n",
                  static_cast<double>(pixel_size));
  put_both(log, tail);
  if (mean_grade != nullptr) *mean_grade = mean;
  hcuda_ctf_sim_2dh_c(work, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, bfac, ctf_validation_bands[0].resL,
                      lowest_high, 'A');
  return graded;
}

void sorrel_validate_current(SORREL_A& r) {
  const SORREL_Para& p = r.para;
  ctf_validation(r.d_sub, r.d_work, p.apix, static_cast<unsigned>(r.nh), static_cast<unsigned>(r.box), p.kV, p.cs,
                 p.ac, r.refined[3], r.refined[0], r.refined[1], r.refined[2], p.bfac, r.log);
}
