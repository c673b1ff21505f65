// 2D refinement of defocus U, V, the angle and the phase shift: the one-parameter steps of
// strategy 1, the simplex of strategies 2 and 3, the end step and the two `1S2R` sequences.
#include <cmath>
#include <cstdio>
#include <utility>

#include "ctf/sorrel.h"
#include "ctf_core/ctf_core.h"
#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_general/report.h"
#include "random_utils/random_source.h"

float SORREL_A::random_unit() { return static_cast<float>(random_uniform()); }

float sorrel_fold_phase_shift(float ps) { return ps - 180.0f * std::floor((ps + 10.0f) / 180.0f); }

void sorrel_fold_angle(float& U, float& V, float& A) {
  A = A - 180.0f * std::floor((A + 90.0f) / 180.0f);
  if (A < 0.0f) {
    A += 90.0f;
    std::swap(U, V);
  }
}

void mspx_refine_lmm(SORREL_A* object, SorrelScore f, RF_MSPX_1D& step, float jitter) {
  if (std::fabs(step.tol) > std::fabs(step.dx)) return;
  const float a = step.x, b = step.x + step.dx;
  const float c = 2.0f * a - b + object->random_unit() * jitter * step.tol;
  const float fa = (object->*f)(a), fb = (object->*f)(b), fc = (object->*f)(c);
  const bool b_better = fb > fa;  // a tie keeps a
  const float B = b_better ? b : a, W = b_better ? a : b;
  const float fB = b_better ? fb : fa, fW = b_better ? fa : fb;
  float next, f_next, other;
  if (fc > fB) {
    const float e = 3.0f * B - 2.0f * W;
    const float fe = (object->*f)(e);
    next = fe > fc ? e : c;
    f_next = fe > fc ? fe : fc;
    other = B;
  } else {
    const float m = fc > fW ? (c + B) / 2.0f : (B + W) / 2.0f;
    const float fm = (object->*f)(m);
    if (fm > fB) {
      next = m, f_next = fm, other = B;
    } else {
      next = B, f_next = fB, other = m;
    }
  }
  step.x = next;
  step.dx = other - next;
  step.best = f_next;
}

SorrelFitSet SORREL_A::fit_set() {
  if (local_pass)
    return SorrelFitSet{&local_init, &local_err, &local_current, local_result, d_local_sub, d_local_work,
                        static_cast<unsigned>(local_nh), static_cast<unsigned>(local_box)};
  return SorrelFitSet{&ref_init, &ref_err, &current, refined, d_sub, d_work, static_cast<unsigned>(nh),
                      static_cast<unsigned>(box)};
}

float SORREL_A::sorrel_tcf_swr_2dh_P(float x) {
  const PUVA& c = *fit_set().current;
  return score(x, c.U, c.V, c.A);
}
float SORREL_A::sorrel_tcf_swr_2dh_UVave(float x) {
  const PUVA& c = *fit_set().current;
  const float d = (c.V - c.U) / 2.0f;
  return score(c.ps, x - d, x + d, c.A);
}
float SORREL_A::sorrel_tcf_swr_2dh_UVdif(float x) {
  const PUVA& c = *fit_set().current;
  const float a = (c.V + c.U) / 2.0f;
  return score(c.ps, a - x, a + x, c.A);
}
float SORREL_A::sorrel_tcf_swr_2dh_A(float x) {
  const PUVA& c = *fit_set().current;
  return score(c.ps, c.U, c.V, x);
}

void SORREL_A::sorrel_set_bres() {
  if (local_pass) {
    score_bfac = para.local_bfac, score_resL = para.local_resL, score_resH = para.local_resH;
  } else if (hres_pass) {
    score_bfac = para.Href_bfac, score_resL = para.Href_resL, score_resH = para.Href_resH;
  } else {
    score_bfac = para.bfac, score_resL = para.resL, score_resH = para.resH;
  }
}

void SORREL_A::sorrel_set_init_defUVA_for_2D_refine(float phase_shift) {
  if (para.refine_input_ctf) {
    const CTF_INIT& in = para.init[mic];
    if (in.valid != 0.0f && sorrel_option_given(&para, "input_ctfstar")) {
      ref_init = PUVA{in.ps, in.defU, in.defV, in.defA};
      ref_err = PUVA{para.phase_shift_S, para.defU_err, para.defV_err, para.defA_err};
      defocus_err = (para.defU_err + para.defV_err) / 2.0f;
      std::printf("input: PS = %f, defocus_U = %f, defocus_V = %f,  defocus_err = %f,  angle_azimuth = %f,  angle_err "
                  "= %f  \n",
                  in.ps, in.defU, in.defV, defocus_err, in.defA, para.defA_err);
      return;
    }
    if (!sorrel_option_given(&para, "input_ctfstar") && para.files.size() == 1) {
      ref_init = PUVA{para.ps_init, para.defU_init, para.defV_init, para.defA_init};
      ref_err = PUVA{para.ps_err, para.defU_err, para.defV_err, para.defA_err};
      defocus_err = (para.defU_err + para.defV_err) / 2.0f;
      return;
    }
  }
  const float r = random_unit();
  ref_init = PUVA{phase_shift, best_defocus - para.astm / 2.0f, best_defocus + para.astm / 2.0f, 30.0f * r};
  if (seed_angles) ref_init.A = sorrel_best_start_angle(ref_init);
  ref_err = PUVA{ref_PS ? para.phase_shift_S : 0.0f, para.defS, para.defS, 30.0f};
  defocus_err = para.defS;
}

// The trial angles are scored here, at the start's astigmatism of astm: once strategy 1's first
// test has picked the round point of its defocus pair, every angle scores the same and a scan
// would only follow rounding noise.
float SORREL_A::sorrel_best_start_angle(const PUVA& start) {
  sorrel_set_bres();
  const float s = 180.0f / static_cast<float>(para.defA_seeds);
  float best_A = start.A, best = score_puva(start);
  for (int i = 1; i < para.defA_seeds; ++i) {
    const float A = start.A + static_cast<float>(i) * s;
    const float f = score(start.ps, start.U, start.V, A);
    if (f > best) best = f, best_A = A;
  }
  return best_A;
}

void SORREL_A::sorrel_set_init_2DR_Para(CTF_2DR_Para& r) {
  const SorrelFitSet set = fit_set();
  const PUVA& init = *set.init;
  const PUVA& err = *set.err;
  *set.current = init;
  const float e = (err.U + err.V) / 2.0f;
  const float ave = (init.V + init.U) / 2.0f, dif = (init.V - init.U) / 2.0f;
  r.UVave[0] = ave, r.UVave[1] = ave - e;
  r.UVdif[0] = dif, r.UVdif[1] = dif - e;
  r.A[0] = init.A, r.A[1] = init.A - 0.5f * err.A;
  const double p = init.ps, e_ps = err.ps;
  r.PS[0] = init.ps;
  r.PS[1] = static_cast<float>(p - e_ps + e_ps * static_cast<double>(random_unit()) / 3.0);
  r.best = 0.0f;
  r.U = init.U, r.V = init.V;
}

namespace {

void put_step_line(FILE* log, const PUVA& c, float best, const char* end) {
  std::fprintf(log, "          %10.2f %10.2f %10.2f %10.2f %10.6f%s", static_cast<double>(c.U),
               static_cast<double>(c.V), static_cast<double>(c.A), static_cast<double>(c.ps),
               static_cast<double>(best), end);
}

}  // namespace

// One step on a pair: the pair becomes (x, x + dx) of the step, best the record's score.
#define SORREL_STEP(pair, tol, member)                          \
  RF_MSPX_1D s{pair[0], pair[1] - pair[0], tol, r.best};        \
  mspx_refine_lmm(this, &SORREL_A::member, s, 0.3f);            \
  pair[0] = s.x, pair[1] = s.x + s.dx, r.best = s.best

void SORREL_A::sorrel_hcuda_refctf_A_2dh_t3(CTF_2DR_Para& r) {
  PUVA& current = *fit_set().current;
  if (seed_angles && !hres_pass) {
    const float s = 180.0f / static_cast<float>(para.defA_seeds), A0 = r.A[0];
    for (int i = 1; i <= para.defA_seeds; ++i) {
      const float trial = A0 + static_cast<float>(i) * s;
      const float f = score(current.ps, current.U, current.V, trial);
      if (f > r.best) {
        const float shift = trial - r.A[0];
        r.A[0] += shift, r.A[1] += shift, r.best = f;
      }
      if (step_log()) {
        PUVA t = current;
        t.A = trial;
        put_step_line(log, t, f, "  \n");
      }
    }
    current.A = r.A[0];
  }
  SORREL_STEP(r.A, 0.2f, sorrel_tcf_swr_2dh_A);
  current.A = r.A[0];
  if (step_log()) put_step_line(log, current, r.best, "\n");
}

void SORREL_A::sorrel_hcuda_refctf_UVave_2dh_t3(CTF_2DR_Para& r) {
  PUVA& current = *fit_set().current;
  SORREL_STEP(r.UVave, 2.0f, sorrel_tcf_swr_2dh_UVave);
  const float d = (current.V - current.U) / 2.0f;
  current.U = r.UVave[0] - d, current.V = r.UVave[0] + d;
  if (step_log()) put_step_line(log, current, r.best, "\n");
}

void SORREL_A::sorrel_hcuda_refctf_UVdif_2dh_t3(CTF_2DR_Para& r) {
  PUVA& current = *fit_set().current;
  SORREL_STEP(r.UVdif, 2.0f, sorrel_tcf_swr_2dh_UVdif);
  const float a = (current.V + current.U) / 2.0f;
  current.U = a - r.UVdif[0], current.V = a + r.UVdif[0];
  if (step_log()) put_step_line(log, current, r.best, "\n");
}

void SORREL_A::sorrel_hcuda_refctf_PS_2dh_t3(CTF_2DR_Para& r) {
  PUVA& current = *fit_set().current;
  SORREL_STEP(r.PS, 0.2f, sorrel_tcf_swr_2dh_P);
  current.ps = r.PS[0];
  if (step_log()) put_step_line(log, current, r.best, "\n");
}

#undef SORREL_STEP

// Strategy 1 on the set of fit_set(): the micrograph's members, or a particle's local ones.
void SORREL_A::sorrel_hcuda_refctf_2dh() {
  const SorrelFitSet set = fit_set();
  PUVA& current = *set.current;
  CTF_2DR_Para r;
  if (local_pass)
    sorrel_set_init_2DR_Para_local(r);
  else
    sorrel_set_init_2DR_Para(r);
  const bool talk = step_log();
  if (talk)
    std::fprintf(log, "* *************************************   2D   REFINE    "
                      "************************************************************ *\n");
  sorrel_set_bres();
  // Which of the two start points of each pair is the better one. The half difference's other
  // point is a candidate only when the difference is refined: a pass that moves the mean alone
  // keeps the astigmatism it started from.
  if (ref_UVave || ref_UVdif) {
    const float ave = r.UVave[0];
    const float f0 = score(current.ps, ave - r.UVdif[0], ave + r.UVdif[0], current.A);
    const float f1 = ref_UVdif ? score(current.ps, ave - r.UVdif[1], ave + r.UVdif[1], current.A) : f0;
    if (f1 > f0) std::swap(r.UVdif[0], r.UVdif[1]);
    current.U = ave - r.UVdif[0], current.V = ave + r.UVdif[0];
    r.best = f1 > f0 ? f1 : f0;
  }
  if (ref_A) {
    const float f0 = score(current.ps, current.U, current.V, r.A[0]);
    const float f1 = score(current.ps, current.U, current.V, r.A[1]);
    if (f1 > f0) std::swap(r.A[0], r.A[1]);
    current.A = r.A[0];
    r.best = f1 > f0 ? f1 : f0;
  }
  if (ref_PS) {
    const float f0 = score(r.PS[0], current.U, current.V, current.A);
    const float f1 = score(r.PS[1], current.U, current.V, current.A);
    if (f1 > f0) std::swap(r.PS[0], r.PS[1]);
    current.ps = r.PS[0];
    r.best = f1 > f0 ? f1 : f0;
  }
  if (!ref_UVave) r.UVave[1] = r.UVave[0];
  if (!ref_UVdif) r.UVdif[1] = r.UVdif[0];
  if (!ref_A) r.A[1] = r.A[0];
  if (!ref_PS) r.PS[1] = r.PS[0];
  if (talk) std::fprintf(log, "          defocus_U   defocus_V   angle   phase_shift    CCC         \n");
  done_A = done_UVave = done_UVdif = done_PS = 0;
  int cycle = 0;
  for (; cycle < 100; ++cycle) {
    if (talk) std::fprintf(log, "Cycle: %02d\n", cycle);
    r.U = current.U, r.V = current.V;
    if (!done_A && ref_A && std::fabs(r.A[1] - r.A[0]) > tol_angle)
      sorrel_hcuda_refctf_A_2dh_t3(r);
    else
      done_A = 1;
    if (!done_UVave && ref_UVave && std::fabs(r.UVave[1] - r.UVave[0]) > tol_defocus)
      sorrel_hcuda_refctf_UVave_2dh_t3(r);
    else
      done_UVave = 1;
    if (!done_UVdif && ref_UVdif && std::fabs(r.UVdif[1] - r.UVdif[0]) > tol_defocus)
      sorrel_hcuda_refctf_UVdif_2dh_t3(r);
    else
      done_UVdif = 1;
    if (!done_PS && para.phase_shift_T == 1 && ref_PS && std::fabs(r.PS[1] - r.PS[0]) > tol_phase)
      sorrel_hcuda_refctf_PS_2dh_t3(r);
    else
      done_PS = 1;
    if (done_A && done_UVave && done_UVdif && done_PS) break;
  }
  float U, V, A = r.A[0];
  if (cycle < 100) {
    done_A = done_UVave = done_UVdif = done_PS = 0;
    U = r.UVave[0] - r.UVdif[0], V = r.UVave[0] + r.UVdif[0];
    A = A - 180.0f * std::floor((90.0f + A) / 180.0f);
    if (talk)
      std::fprintf(log, "**************************************   LAST CYCLE    "
                        "*************************************************************\n");
  } else {
    if (warn) {
      std::printf("\033[43mWARNING: Too man refinement cycles, SORREL might have failed on this micrograph!\033[m\n");
      if (log != nullptr)
        std::fprintf(log, "WARNING: Too man refinement cycles, SORREL might have failed on this micrograph!\n");
    }
    U = r.U, V = r.V;
  }
  set.result[0] = U, set.result[1] = V, set.result[2] = A, set.result[3] = r.PS[0], set.result[4] = r.best;
}

// ---------------------------------------------------------------------------------------------
// Strategies 2 and 3: a simplex of five vertices
// ---------------------------------------------------------------------------------------------

void SORREL_A::sorrel_set_first_vertices(float p) {
  const float a = para.astm, U0 = best_defocus - a / 2.0f, V0 = best_defocus + a / 2.0f;
  const float t = static_cast<float>(60.0 * static_cast<double>(random_unit()));
  const float q = (ref_PS && para.phase_shift_mode) ? p + para.phase_shift_S : p;
  vertices[0] = PUVA{p, U0, V0, t};
  vertices[1] = PUVA{q, U0 - a, V0, t};
  vertices[2] = PUVA{p, U0 - a, V0 + a, t};
  vertices[3] = PUVA{p, U0, V0 + a, t + 30.0f};
  vertices[4] = PUVA{q, U0, V0, t + 30.0f};
}

void SORREL_A::sorrel_set_later_vertices(PUVA f) {
  const float q = para.phase_shift_mode ? f.ps - para.phase_shift_S : f.ps;
  vertices[0] = PUVA{f.ps, f.U, f.V, f.A};
  vertices[1] = PUVA{q, f.U + 100.0f, f.V, f.A};
  vertices[2] = PUVA{f.ps, f.U + 100.0f, f.V - 100.0f, f.A};
  vertices[3] = PUVA{f.ps, f.U, f.V - 100.0f, f.A + 5.0f};
  vertices[4] = PUVA{q, f.U, f.V, f.A + 5.0f};
}

namespace {

PUVA combine(const PUVA& a, float ka, const PUVA& b, float kb) {
  return PUVA{ka * a.ps + kb * b.ps, ka * a.U + kb * b.U, ka * a.V + kb * b.V, ka * a.A + kb * b.A};
}

void best_and_worst(const float* f, int& best, int& worst) {
  float hi = -1e10f, lo = 1e10f;
  best = worst = 0;
  for (int k = 0; k < 5; ++k) {
    if (f[k] > hi) hi = f[k], best = k;
    if (f[k] < lo) lo = f[k], worst = k;
  }
}

bool converged(const PUVA& a, const PUVA& b, float ps, float uv, float ang) {
  return std::fabs(a.ps - b.ps) < ps && std::fabs(a.U - b.U) < uv && std::fabs(a.V - b.V) < uv &&
         std::fabs(a.A - b.A) < ang;
}

}  // namespace

// One move of vertex w through the centre of all five.
static void move_vertex(SORREL_A& s, int w) {
  const float fw = s.score_puva(s.vertices[w]);
  PUVA c{0, 0, 0, 0};
  for (const PUVA& v : s.vertices) c = combine(c, 1.0f, v, 1.0f);
  c = PUVA{c.ps / 5.0f, c.U / 5.0f, c.V / 5.0f, c.A / 5.0f};
  const PUVA r = combine(c, 2.0f, s.vertices[w], -1.0f);
  const PUVA e = combine(c, 3.0f, s.vertices[w], -2.0f);
  const float fc = s.score_puva(c), fr = s.score_puva(r), fe = s.score_puva(e);
  if (!(fc > fw)) {
    s.vertex_score[w] = fw;
  } else if (!(fr > fc)) {
    s.vertices[w] = c, s.vertex_score[w] = fc;
  } else if (fe > fr) {
    s.vertices[w] = e, s.vertex_score[w] = fe;
  } else {
    s.vertices[w] = r, s.vertex_score[w] = fr;
  }
}

static void simplex(SORREL_A& s, int strategy) {
  const char* line = strategy == 2 ? "******** ******** ********  using refinement strategy: 2  ******** ******** ********"
                                   : "******** ******** ********  using refinement strategy: 3  ******** ******** ********";
  if (s.echo_log && s.log != nullptr) std::fprintf(s.log, "%s\n", line);
  if (s.echo_stdout) std::printf("%s\n", line);
  s.sorrel_set_bres();
  for (int k = 0; k < 5; ++k) s.vertex_score[k] = s.score_puva(s.vertices[k]);
  int best = 0, worst = 0;
  best_and_worst(s.vertex_score, best, worst);
  int cycle = 0;
  for (; cycle < 299; ++cycle) {
    if (strategy == 2) {
      if (converged(s.vertices[best], s.vertices[worst], 0.2f, 2.0f, 0.5f)) break;
      move_vertex(s, worst);
    } else {
      if (converged(s.vertices[best], s.vertices[worst], 0.5f, 2.0f, 0.2f)) break;
      for (int k = 0; k < 5; ++k) move_vertex(s, k);
    }
    best_and_worst(s.vertex_score, best, worst);
  }
  if (cycle == 299 && s.warn) {
    std::printf("\033[43mWARNING: Too man refinement cycles, Sorrel might have failed on this micrograph!\033[m\n");
    if (s.log != nullptr)
      std::fprintf(s.log, "WARNING: Too man refinement cycles, Sorrel might have failed on this micrograph!\n");
  }
  const PUVA& b = s.vertices[best];
  s.sorrel_set_refined_PUVAC(PUVAC{b.ps, b.U, b.V, b.A, s.vertex_score[best]});
  s.sorrel_hcuda_refctf_end_2dh();
}

void SORREL_A::sorrel_hcuda_refctf_st2_2dh() { simplex(*this, 2); }
void SORREL_A::sorrel_hcuda_refctf_st3_2dh() { simplex(*this, 3); }

// Strategy 1 from ref_init / ref_err, or the simplex from the first or the later vertices.
void SORREL_A::sorrel_refine_by_strategy(bool first_vertices, float phase_shift) {
  if (para.refine_2d_T == 1) {
    sorrel_hcuda_refctf_2dh();
  } else if (para.refine_2d_T == 2 || para.refine_2d_T == 3) {
    if (first_vertices)
      sorrel_set_first_vertices(phase_shift);
    else
      sorrel_set_later_vertices(PUVA{refined[3], refined[0], refined[1], refined[2]});
    if (para.refine_2d_T == 2)
      sorrel_hcuda_refctf_st2_2dh();
    else
      sorrel_hcuda_refctf_st3_2dh();
  }
}

// ---------------------------------------------------------------------------------------------
// The end step
// ---------------------------------------------------------------------------------------------

void SORREL_A::sorrel_hcuda_refctf_end_2dh() {
  refined[3] = sorrel_fold_phase_shift(refined[3]);
  sorrel_fold_angle(refined[0], refined[1], refined[2]);
  hcuda_ctf_sim_2dh_c(d_sim, nh, box, para.apix, para.kV, para.cs, para.ac, refined[3], refined[0], refined[1],
                      refined[2], para.bfac, para.resL, para.resH, 'A');
  hcuda_2dh_res_based_square(d_work, d_sim, para.apix, nh, box, para.resL, para.resH);
  const float n1 = hcuda_fast_sum_inplace(d_work, n2dh, 1024);
  hcuda_2dh_res_based_square(d_work, d_sub, para.apix, nh, box, para.resL, para.resH);
  const float n2 = hcuda_fast_sum_inplace(d_work, n2dh, 1024);
  if (n1 > 0.0f && n2 > 0.0f && std::isfinite(n1) && std::isfinite(n2)) {
    refined[4] = refined[4] / std::sqrt(n1);
    refined[4] = refined[4] / std::sqrt(n2);
  } else {
    refined[4] = 0.0f;  // nothing to correlate within the limits
  }
  sorrel_hcuda_refctf_output_FinalValues();
  hcuda_ctf_pow_simulate_2dh(d_sim, para.apix, nh, box, para.kV, para.cs, para.ac, refined[3], refined[0], refined[1],
                             refined[2], para.ctfout_bfac, para.ctfout_resL, para.ctfout_resH);
}

void SORREL_A::sorrel_hcuda_refctf_output_FinalValues() {
  const double U = refined[0], V = refined[1], A = refined[2], P = refined[3], C = refined[4];
  if (echo_log && log != nullptr) {
    if (!para.phase_shift_mode) {
      std::fprintf(log, "\n   Defocus_U   Defocus_V       Angle        CCC\n");
      std::fprintf(log, "%12.2f%12.2f%12.2f%12.6f  Final Values\n\n", U, V, A, C);
    } else {
      std::fprintf(log, "\n   Defocus_U   Defocus_V       Angle    Phase_shift     CCC\n");
      std::fprintf(log, "%12.2f%12.2f%12.2f%12.2f%12.6f  Final Values\n\n", U, V, A, P, C);
    }
  }
  if (echo_stdout) {
    const char* tail = hres_pass ? "  Final Values (Hres refine)\n\n" : "  Final Values\n\n";
    if (!para.phase_shift_mode) {
      std::printf("\n   Defocus_U   Defocus_V       Angle          CCC\n");
      std::printf("%12.2f%12.2f%12.2f%12.6f%s", U, V, A, C, tail);
    } else {
      std::printf("\n   Defocus_U   Defocus_V       Angle      Phase_shift     CCC\n");
      std::printf("%12.2f%12.2f%12.2f%12.2f%16.6f%s", U, V, A, P, C, tail);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The sequences
// ---------------------------------------------------------------------------------------------

namespace {

float given_or(const SORREL_Para& p, const char* keyword, float value, float fallback) {
  return sorrel_option_given(&p, keyword) ? value : fallback;
}

}  // namespace

static void high_resolution_pass(SORREL_A& s, bool phase_shift_free) {
  s.ref_PS = phase_shift_free ? 1 : 0;
  s.hres_pass = 1;
  s.warn = s.echo_stdout = s.echo_log = 1;
  if (s.para.refine_2d_T == 1) {
    const SORREL_Para& p = s.para;
    s.ref_init = PUVA{s.refined[3], s.refined[0], s.refined[1], s.refined[2]};
    s.ref_err = PUVA{p.phase_shift_mode ? given_or(p, "Href_PS_err", p.Href_PS_err, 2.0f) : 2.0f,
                     given_or(p, "Href_U_err", p.Href_U_err, 100.0f), given_or(p, "Href_V_err", p.Href_V_err, 100.0f),
                     given_or(p, "Href_A_err", p.Href_A_err, 5.0f)};
    s.sorrel_hcuda_refctf_2dh();
  } else {
    s.sorrel_refine_by_strategy(false, s.refined[3]);
  }
}

void SORREL_A::sorrel_1S2R_st1_noPS() {
  sorrel_1D_search_t2(0.0f);
  if (para.refine_2d_T == 1) sorrel_set_init_defUVA_for_2D_refine(0.0f);
  sorrel_refine_by_strategy(true, 0.0f);
  if (para.do_Hres_ref) high_resolution_pass(*this, false);
}

void SORREL_A::sorrel_1S2R_st1_PS() {
  const char* head = para.phase_shift_T == 1
                         ? "searching phase shift ... \n Phase_shift      def_U         def_V         Angle       CCC        "
                         : "searching phase shift ... \n Phase_shift      def_U         def_V         Angle       CCC     "
                           "     Res_limit";
  std::printf("%s\n", head);
  if (log != nullptr) std::fprintf(log, "%s\n", head);
  float best_score = -1.0f, best_res = 20.0f;
  float kept[5] = {0, 0, 0, 0, 0};  // U, V, angle, phase shift, CCC
  for (float p = para.phase_shift_L; p < para.phase_shift_H; p += para.phase_shift_S) {
    ref_PS = para.cosearch_refine_ps;
    hres_pass = warn = echo_stdout = echo_log = 0;
    sorrel_1D_search_t2(p);
    if (para.refine_2d_T == 1) sorrel_set_init_defUVA_for_2D_refine(p);
    sorrel_refine_by_strategy(true, p);
    if (para.refine_2d_T == 1) sorrel_fold_angle(refined[0], refined[1], refined[2]);
    if (para.phase_shift_T == 1) {
      std::printf("%12.2f %12.2f %12.2f %12.2f %12.6f \n", refined[3], refined[0], refined[1], refined[2], refined[4]);
      if (log != nullptr)
        std::fprintf(log, "%12.2f %12.2f %12.2f %12.2f %12.6f \n", refined[3], refined[0], refined[1], refined[2],
                     refined[4]);
      if (refined[4] > best_score) best_score = refined[4], std::copy(refined, refined + 5, kept);
    } else {
      const float res = sorrel_epa_1d_ccf_limit();
      std::printf("%12.2f %12.2f %12.2f %12.2f %12.6f %12.4f \n", refined[3], refined[0], refined[1], refined[2],
                  refined[4], res);
      if (log != nullptr)
        std::fprintf(log, "%12.2f %12.2f %12.2f %12.2f %12.6f %12.4f \n", refined[3], refined[0], refined[1],
                     refined[2], refined[4], res);
      if (res < best_res) best_res = res, std::copy(refined, refined + 5, kept);
    }
  }
  ref_PS = warn = echo_stdout = echo_log = 1;
  hres_pass = 0;
  std::copy(kept, kept + 5, refined);
  if (para.only_search_ps) {
    sorrel_hcuda_refctf_output_FinalValues();
  } else {
    ref_init = current = PUVA{kept[3], kept[0], kept[1], kept[2]};
    ref_err = PUVA{2.0f, 100.0f, 100.0f, 5.0f};
    sorrel_refine_by_strategy(false, kept[3]);
  }
  if (para.do_Hres_ref) {
    if (log != nullptr) std::fprintf(log, "\n Do high resolution refinement ...\n");
    high_resolution_pass(*this, true);
  }
  if (para.refine_after_EPA) sorrel_refine_after_EPA();
}
