// The two small searches of the plain-function refinements: the mean defocus alone, and U, V
// and the angle one step at a time.
#include <cmath>
#include <cstdio>
#include <functional>
#include <utility>

#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel.h"
#include "ctf_core/ctf_core.h"
#include "cuda_fast_sum/cuda_fast_sum.h"
#include "random_utils/random_source.h"

namespace {

constexpr int kMaxCycles = 100;

// The fixed part of a score: the spectrum, the sizes and every CTF field but the three moved.
struct Scorer {
  const float* spectrum;
  float* work;
  float apix;
  unsigned nh, ny;
  float kv, cs, ac, ps, bfac, resL, resH;
  float operator()(float U, float V, float A) const {
    return ctf_tcf_swr_2dh(work, spectrum, apix, nh, ny, ps, kv, cs, ac, U, V, A, bfac, resL, resH);
  }
};

// The jitter of a step, so that a step never lands exactly where the previous one did.
float jitter(float scale) { return static_cast<float>(random_uniform()) * scale; }

// One step of a parameter on the pair (first, second), f scoring a value of the parameter:
// extrapolate past the first point; keep the better of that and a midpoint.
template <class F>
void step_pair(float& first, float& second, float j, F f) {
  const float a = first, b = second, c = 2.0f * a - b + j;
  const float fa = f(a), fb = f(b), fc = f(c);
  if (fc > fa) {
    second = a, first = c;
    return;
  }
  const float m = !(fc > fb) ? (b + a) / 2.0f : (c + a) / 2.0f;
  if (f(m) > fa)
    second = a, first = m;
  else
    second = m;
}

// The score normalised by the root square sums of the model and the spectrum in the limits.
float normalised_score(const Scorer& s, float raw, float U, float V, float A) {
  hcuda_ctf_sim_2dh_c(s.work, s.nh, s.ny, s.apix, s.kv, s.cs, s.ac, s.ps, U, V, A, s.bfac, s.resL, s.resH, 'A');
  const float n1 = ctf_band_square_sum(s.work, s.work, s.apix, s.nh, s.ny, s.resL, s.resH);
  const float n2 = ctf_band_square_sum(s.work, s.spectrum, s.apix, s.nh, s.ny, s.resL, s.resH);
  if (!(n1 > 0.0f && n2 > 0.0f) || !std::isfinite(n1) || !std::isfinite(n2)) return 0.0f;
  return raw / std::sqrt(n1) / std::sqrt(n2);
}

void three_parameter_search(const Scorer& s, float& U, float& V, float& A, float& ccc, float defocus_err,
                            float angle_err, FILE* log) {
  const float U0 = U, V0 = V;
  const float ave0 = (U + V) / 2.0f, d = (U - V) / 2.0f;
  // Half difference h: U = ave - h, V = ave + h. The better of the two labellings leads.
  float h[2] = {d, -d};
  if (s(ave0 + d, ave0 - d, A) > s(ave0 - d, ave0 + d, A)) std::swap(h[0], h[1]);
  float ave[2] = {ave0, ave0 - defocus_err};
  float ang[2] = {A, A + angle_err};
  if (s(ave0 - h[0], ave0 + h[0], ang[1]) > s(ave0 - h[0], ave0 + h[0], ang[0])) std::swap(ang[0], ang[1]);
  int done_A = 0, done_ave = 0, done_h = 0, cycles = 0;
  for (; cycles < kMaxCycles; ++cycles) {
    if (std::fabs(ang[1] - ang[0]) > 0.5f)
      step_pair(ang[0], ang[1], jitter(0.5f / 20.0f),
                [&](float x) { return s(ave[0] - h[0], ave[0] + h[0], x); });
    else
      done_A = 1;
    if (std::fabs(ave[1] - ave[0]) > 1.0f)
      step_pair(ave[0], ave[1], jitter(1.0f / 20.0f), [&](float x) { return s(x - h[0], x + h[0], ang[0]); });
    else
      done_ave = 1;
    if (std::fabs(h[1] - h[0]) > 1.0f)
      step_pair(h[0], h[1], jitter(1.0f / 20.0f), [&](float x) { return s(ave[0] - x, ave[0] + x, ang[0]); });
    else
      done_h = 1;
    if (done_A && done_ave && done_h) break;
  }
  U = ave[0] - h[0], V = ave[0] + h[0], A = ang[0];
  if (cycles < kMaxCycles) {
    sorrel_fold_angle(U, V, A);
  } else {
    // Out of cycles the values stand as found; only a negative angle is turned over.
    if (A < 0.0f) A += 90.0f, std::swap(U, V);
    if (log != nullptr)
      std::fprintf(log, "WARNING: Too many refinement cycles, Sorrel might have failed on this micrograph!\n");
  }
  // The same CTF with U and V exchanged and the angle turned by 90: report it in the labels
  // nearer to the input's.
  const float kept = (U - U0) * (U - U0) + (V - V0) * (V - V0);
  const float swapped = (U - V0) * (U - V0) + (V - U0) * (V - U0);
  if (swapped < kept) {
    std::swap(U, V);
    A = A <= std::fabs(A - 90.0f) ? A + 90.0f : A - 90.0f;
  }
  ccc = normalised_score(s, s(U, V, A), U, V, A);
}

}  // namespace

float ctf_band_square_sum(float* work, const float* a, float apix, unsigned nh, unsigned ny, float resL, float resH) {
  hcuda_2dh_res_based_square(work, a, apix, nh, ny, resL, resH);
  return hcuda_fast_sum_inplace(work, static_cast<unsigned long>(nh) * ny, 1024);
}

bool ctf_search_one_parameter(float& a, float& fa, float err, const std::function<float(float)>& f) {
  float b = a - err;
  fa = f(a);
  int pass = 0;
  for (; pass < kMaxCycles && std::fabs(a - b) > 1.0f; ++pass) {
    const float c = 2.0f * a - b + jitter(1.0f / 20.0f);
    const float fb = f(b), fc = f(c);
    if (fc > fa) {
      b = a, a = c, fa = fc;
      continue;
    }
    const float m = !(fc > fb) ? (b + a) / 2.0f : (c + a) / 2.0f;
    const float fm = f(m);
    if (fm > fa)
      b = a, a = m, fa = fm;
    else
      b = m;
  }
  return pass < kMaxCycles || !(std::fabs(a - b) > 1.0f);
}

void hcuda_refctf_2dh_only_defave(const float* spectrum, float* work, float& U, float& V, float& score,
                                  float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                                  float defA, float defocus_err, float bfac, float resL, float resH, FILE* log) {
  const Scorer s{spectrum, work, pixel_size, nh, ny, kv, cs, ac, ps, bfac, resL, resH};
  const float d = (V - U) / 2.0f;
  float a = (U + V) / 2.0f;
  const bool converged = ctf_search_one_parameter(a, score, defocus_err, [&](float x) { return s(x - d, x + d, defA); });
  if (converged) {
    U = a - d, V = a + d;
    return;
  }
  std::printf("WARNING: Too man refinement cycles, Sorrel might have failed on this micrograph!");
  if (log != nullptr)
    std::fprintf(log, "WARNING: Too man refinement cycles, Sorrel might have failed on this micrograph!\n");
}

void hcuda_refctf_2dh_local(const float* spectrum, float* work, float& U, float& V, float& A, float& ccc,
                            float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                            float defocus_err, float angle_err, float bfac, float resL, float resH, FILE* log) {
  const Scorer s{spectrum, work, pixel_size, nh, ny, kv, cs, ac, ps, bfac, resL, resH};
  three_parameter_search(s, U, V, A, ccc, defocus_err, angle_err, log);
}

void hcuda_ctfvalidate_2dh(const float* spectrum, float* work, float& U, float& V, float& A, float& ccc,
                           float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                           float defocus_err, float angle_err, float bfac, float resL, float resH, FILE* log) {
  hcuda_refctf_2dh_local(spectrum, work, U, V, A, ccc, pixel_size, nh, ny, kv, cs, ac, ps, defocus_err, angle_err,
                         bfac, resL, resH, log);
}
