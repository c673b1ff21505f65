// The defocus of a movie followed through its frames: a span of frames slides along the stack,
// the spectrum of each span position is refined from the micrograph's values, and the values
// can be fitted by straight lines over the frame numbers.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "../ctf_core/ctf_buffers.h"
#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel.h"
#include "ctf/sorrel_epa.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "math_utils/array_kernels.h"

namespace {

void put_both(FILE* log, const char* text) {
  std::fputs(text, stdout);
  if (log != nullptr) std::fputs(text, log);
}

void put_head(FILE* log, bool phase) {
  if (log != nullptr)
    std::fputs(phase ? "\n   Defocus_U   Defocus_V       Angle    Phase_shift     CCC\n"
                     : "\n   Defocus_U   Defocus_V       Angle        CCC\n",
               log);
  std::fputs(phase ? "\n   Defocus_U   Defocus_V       Angle      Phase_shift     CCC\n"
                   : "\n   Defocus_U   Defocus_V       Angle          CCC\n",
             stdout);
}

bool all_finite(const std::vector<float>& a) {
  return std::all_of(a.begin(), a.end(), [](float v) { return std::isfinite(v); });
}

// The line fit of each array over the frame numbers of the fit's values; prints the fitted
// table for every frame, or why there is none.
void fit_lines(MovieStackValues& v, int nz, int span, int fit, FILE* log) {
  if (fit <= 0) return;
  if (fit > 1) {
    put_both(log, "Does not support non-linear fitting of particle stack defocus in the current version\n");
    return;
  }
  // The fit takes nz - span values from the first span centre: the last centre stays out.
  const int first = span / 2, count = nz - span;
  if (count < 2) {
    char text[200];
    std::snprintf(text, sizeof(text),
                  "Linear fitting of the stack CTF values needs at least 2 values, %d here (%d frames, span %d); no "
                  "fitted values.\n",
                  std::max(count, 0), nz, span);
    put_both(log, text);
    return;
  }
  std::vector<float> frame(nz);
  for (int i = 0; i < nz; ++i) frame[i] = static_cast<float>(i);
  const std::vector<float>* in[4] = {&v.U, &v.V, &v.A, &v.score};
  std::vector<float>* outs[4] = {&v.fitU, &v.fitV, &v.fitA, &v.fitScore};
  for (int k = 0; k < 4; ++k) {
    double slope = 0.0, intercept = 0.0;
    smp_line_fit(frame.data() + first, in[k]->data() + first, count, slope, intercept);
    outs[k]->resize(nz);
    for (int i = 0; i < nz; ++i) (*outs[k])[i] = static_cast<float>(intercept + slope * i);
  }
  put_both(log, "Linear fitted stack/movie CTF values:\n");
  for (int i = 0; i < nz; ++i) {
    char row[160];
    std::snprintf(row, sizeof(row), "%13.2f%13.2f%13.2f%13.2f STACK CTF Value %d\n", static_cast<double>(v.fitU[i]),
                  static_cast<double>(v.fitV[i]), static_cast<double>(v.fitA[i]),
                  static_cast<double>(v.fitScore[i]), i + 1);
    put_both(log, row);
  }
}

}  // namespace

int ctf_movie_stack_refine(const float* stack, int nx, int ny, int nz, float pixel_size, int box, int step,
                           int convbox, float kv, float cs, float ac, float ps, float defU, float defV, float defA,
                           float bfac, float resL, float resH, FILE* log, int ave_type, int span, int fit, int astm,
                           CTF_REF_CONTROL control, MovieStackValues* out) {
  if (span < 1) PK_FATAL("the span of frames (--mdef_aveN) is %d; it must be at least 1 frame", span);
  if (box < 2 || box > nx || box > ny)
    PK_FATAL("the tile of %d pixels does not fit in frames of %d x %d", box, nx, ny);
  if (nz < 1) PK_FATAL("a stack of %d frames has nothing to refine", nz);
  MovieStackValues local;
  MovieStackValues& v = out != nullptr ? *out : local;
  for (std::vector<float>* a : {&v.U, &v.V, &v.A, &v.score}) a->assign(nz, 0.0f);
  v.valid.assign(nz, 0);
  for (std::vector<float>* a : {&v.fitU, &v.fitV, &v.fitA, &v.fitScore}) a->clear();
  if (ave_type != 1) {
    char text[160];
    std::snprintf(text, sizeof(text), "Stack CTF refinement runs with averaging type 1 only; type %d refines nothing.\n",
                  ave_type);
    put_both(log, text);
    return 0;
  }
  const bool phase = control.phase_shift != 0;
  put_head(log, phase);
  if (span > nz) {
    char text[160];
    std::snprintf(text, sizeof(text), "The span of %d frames is longer than the stack of %d: no position to refine.\n",
                  span, nz);
    put_both(log, text);
  }
  const unsigned nh = static_cast<unsigned>(box / 2 + 1), nyh = static_cast<unsigned>(box);
  const unsigned long n2dh = static_cast<unsigned long>(nh) * nyh, plane = static_cast<unsigned long>(nx) * ny;
  CtfDeviceBlock<float> d_frame(plane), d_amp(n2dh), d_sum(n2dh), d_work(n2dh);
  std::vector<float> h_sum(n2dh);
  const float err = control.defocus_err / 10.0f;
  const int half = span / 2;
  int positions = 0;
  for (int s = 0; s + span <= nz; ++s) {
    const int at = s + half;
    hcuda_empty(d_sum.get(), n2dh * sizeof(float));
    std::printf("\n# %d ", at);
    for (int z = s; z < s + span; ++z) {
      std::printf(".");
      std::fflush(stdout);
      PK_CUDA_CHECK(memcpy_H2D(d_frame.get(), stack + static_cast<unsigned long>(z) * plane, plane * sizeof(float)));
      hcuda_2d_gridfft_r2c_amp_ave(d_frame.get(), d_amp.get(), nx, ny, box, box, step, 0);
      hcuda_addto_float(d_sum.get(), d_amp.get(), n2dh);
    }
    hcuda_2dh_fft_amp_log_subbg_inplace(d_sum.get(), nh, nyh, convbox);
    d_sum.copy_to_host(h_sum.data());
    if (!all_finite(h_sum)) {
      // Blank frames have no logarithm: this position gets no value rather than a NaN.
      char text[160];
      std::snprintf(text, sizeof(text), "\nThe spectrum of frames %d to %d is not finite (blank frames?): no value.\n",
                    s, s + span - 1);
      put_both(log, text);
      continue;
    }
    float U = defU, V = defV, A = defA, score = 0.0f;
    if (astm) {
      hcuda_refctf_2dh_local(d_sum.get(), d_work.get(), U, V, A, score, pixel_size, nh, nyh, kv, cs, ac, ps, err, 1.0f,
                             bfac, resL, resH, log);
    } else {
      hcuda_refctf_2dh_only_defave(d_sum.get(), d_work.get(), U, V, score, pixel_size, nh, nyh, kv, cs, ac, ps, A, err,
                                   bfac, resL, resH, log);
    }
    hcuda_refctf_2dh_only_defave(d_sum.get(), d_work.get(), U, V, score, pixel_size, nh, nyh, kv, cs, ac, ps, A, err,
                                 bfac, resL, resH, log);
    v.U[at] = U, v.V[at] = V, v.A[at] = A, v.score[at] = score, v.valid[at] = 1;
    ++positions;
    char row[200];
    if (phase)
      std::snprintf(row, sizeof(row), "\n%12.2f%12.2f%12.2f%12.2f%12.6f  STACK CTF Value %d\n", static_cast<double>(U),
                    static_cast<double>(V), static_cast<double>(A), static_cast<double>(ps),
                    static_cast<double>(score), at);
    else
      std::snprintf(row, sizeof(row), "\n%12.2f%12.2f%12.2f%12.6f  STACK CTF Value %d\n", static_cast<double>(U),
                    static_cast<double>(V), static_cast<double>(A), static_cast<double>(score), at);
    put_both(log, row);
  }
  put_both(log, "\n");
  if (positions > 0 || fit > 1) fit_lines(v, nz, span, fit, log);
  d_frame.release(), d_amp.release(), d_sum.release(), d_work.release();
  return positions;
}

namespace {

// The run keeps the sum of the frames in the place of frame 0: frame 0 is recovered from it for
// the time of the movie refinement, and the sum is put back whatever happens on the way.
class FrameZeroRestored {
 public:
  FrameZeroRestored(float* stack, int nz, unsigned long plane) : stack_(stack), sum_(stack, stack + plane) {
    for (int z = nz - 1; z >= 1; --z) {
      const float* f = stack + static_cast<unsigned long>(z) * plane;
      for (unsigned long i = 0; i < plane; ++i) stack[i] -= f[i];
    }
  }
  ~FrameZeroRestored() { std::copy(sum_.begin(), sum_.end(), stack_); }
  FrameZeroRestored(const FrameZeroRestored&) = delete;
  FrameZeroRestored& operator=(const FrameZeroRestored&) = delete;

 private:
  float* stack_;
  std::vector<float> sum_;
};

}  // namespace

void sorrel_movie_check_setup(const SORREL_A& r) {
  const SORREL_Para& p = r.para;
  if (!p.do_mdef_refine) return;
  // Refused before any micrograph is searched, rather than after the first one.
  if (p.mdef_aveN < 1) PK_FATAL("the span of frames (--mdef_aveN) is %d; it must be at least 1 frame", p.mdef_aveN);
  if (r.nz < 2)
    PK_WARNING("Movie defocus refinement (--do_mdef_refine) needs stacks of frames; these micrographs have one, so "
               "it is skipped.");
  else if (p.mdef_ave_type != 1)
    PK_WARNING("Movie defocus refinement (--do_mdef_refine) runs with --mdef_ave_type 1 only; with %d it refines "
               "nothing.",
               p.mdef_ave_type);
  else if (p.mdef_aveN > r.nz)
    PK_WARNING("--mdef_aveN %d is longer than the stack of %d frames: no span position will be refined.",
               p.mdef_aveN, r.nz);
}

void sorrel_movie_refine_current(SORREL_A& r) {
  const SORREL_Para& p = r.para;
  if (r.nz < 2 || p.mdef_ave_type != 1) return;  // said once by sorrel_movie_check_setup
  const unsigned long plane = static_cast<unsigned long>(r.nx) * r.ny;
  FrameZeroRestored frames(r.h_image.data(), r.nz, plane);
  ctf_movie_stack_refine(r.h_image.data(), r.nx, r.ny, r.nz, p.apix, r.box, r.step, p.convsize, p.kV, p.cs, p.ac,
                         r.refined[3], r.refined[0], r.refined[1], r.refined[2], p.bfac, p.resL, p.resH, r.log,
                         p.mdef_ave_type, p.mdef_aveN, p.mdef_fit, 0, CTF_REF_CONTROL{p.phase_shift_mode, p.defS});
}
