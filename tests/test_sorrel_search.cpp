// The defocus search, the refinement and the equiphase average on spectra simulated by the CTF
// model itself, and the folds, zeros and fits beneath them.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "ctf/sorrel.h"
#include "ctf/sorrel_epa.h"
#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "math_utils/host_stats.h"
#include "random_utils/random_source.h"
#include "support/device_data.h"

namespace {

// A run of 256-pixel tiles at 1 A per pixel whose spectrum is the model of the given values.
struct Fixture {
  SORREL_A s;
  explicit Fixture(float U, float V, float A, float ps = 0.0f, bool flat = false) {
    sorrel_init_parameters(&s.para);
    s.para.apix = 1.0f, s.para.boxsize = 256, s.para.convsize = 21, s.para.convs_out = 36;
    s.para.resH = 5.0f, s.para.resL = 30.0f;
    mrc_init_head(&s.head0);
    s.head0.nx = s.head0.ny = 256, s.head0.nz = 1, s.head0.mode = 2;
    testing::internal::CaptureStdout();
    s.sorrel_allocate_ctf_data();
    s.sorrel_reset_for_micrograph();
    testing::internal::GetCapturedStdout();
    s.echo_log = s.echo_stdout = 0;
    s.mic = 0;
    s.para.files.push_back("synthetic.mrc");
    s.para.init.push_back(CTF_INIT{});
    // |CTF| less its mean 2 / pi (a spectrum with its background taken away), or nothing.
    cpu_ctf_mod_simulate_2dh(s.h_sub.data(), 1.0f, s.nh, s.box, 300.0f, 2.7f, 0.1f, ps, U, V, A, 0.0f, 1000.0f, 2.0f);
    for (float& v : s.h_sub) v = flat ? 0.0f : v - 0.63661975f;
    PK_CUDA_CHECK(memcpy_H2D(s.d_sub, s.h_sub.data(), s.n2dh * sizeof(float)));
    random_source_set_seed(11);
  }
};

TEST(SorrelSearch, TheFirstMaximumWinsATie) {
  Fixture f(0, 0, 0, 0, true);
  f.s.sorrel_1D_search_t2(0.0f);
  EXPECT_EQ(f.s.best_defocus, f.s.para.defL);
}

double axis(double U, double V, double A) {
  const double a = U >= V ? A : A + 90.0;
  return a - 180.0 * std::floor(a / 180.0);
}

TEST(SorrelSearch, EveryStrategyRefinesAstigmatism) {
  for (int strategy : {1, 2, 3}) {
    SCOPED_TRACE(strategy);
    Fixture f(19000.0f, 20400.0f, 35.0f);
    f.s.para.refine_2d_T = strategy;
    testing::internal::CaptureStdout();
    f.s.sorrel_1S2R_st1_noPS();
    if (strategy == 1) f.s.sorrel_hcuda_refctf_end_2dh();
    testing::internal::GetCapturedStdout();
    const float* r = f.s.refined;
    EXPECT_NEAR((r[0] + r[1]) / 2.0f, 19700.0f, 30.0f);
    EXPECT_NEAR(std::fabs(r[0] - r[1]), 1400.0f, 60.0f);
    const double e = std::fabs(axis(r[0], r[1], r[2]) - axis(19000, 20400, 35));
    EXPECT_LE(std::min(e, 180.0 - e), 2.0);
    EXPECT_TRUE(r[2] >= 0.0f && r[2] < 90.0f) << r[2];  // folded
    EXPECT_GT(r[4], 0.3f);  // the normalised score of a model against its own rings
  }
}

TEST(SorrelSearch, PhaseShiftMovesOnlyWithScoreType1) {
  for (int type : {1, 2}) {
    Fixture f(15000.0f, 15000.0f, 0.0f, 60.0f);
    f.s.para.phase_shift_T = type, f.s.para.phase_shift_S = 10.0f;
    f.s.ref_PS = 1;
    f.s.ref_init = PUVA{45.0f, 15000.0f, 15000.0f, 0.0f};
    f.s.ref_err = PUVA{10.0f, 100.0f, 100.0f, 5.0f};
    f.s.sorrel_hcuda_refctf_2dh();
    EXPECT_NEAR(f.s.refined[3], type == 1 ? 60.0f : 45.0f, type == 1 ? 3.0f : 0.0f) << type;
  }
}

TEST(SorrelSearch, AStepKeepsTheFirstOfEqualPointsAndSkipsBelowTolerance) {
  Fixture f(0, 0, 0, 0, true);  // every score is 0
  RF_MSPX_1D step{10.0f, 4.0f, 0.2f, 0.0f}, small{10.0f, 0.1f, 0.2f, 5.0f};
  mspx_refine_lmm(&f.s, &SORREL_A::sorrel_tcf_swr_2dh_A, step, 0.3f);
  EXPECT_EQ(step.x, 10.0f);
  EXPECT_EQ(step.dx, 2.0f);  // the midpoint of a and b becomes the other point
  mspx_refine_lmm(&f.s, &SORREL_A::sorrel_tcf_swr_2dh_A, small, 0.3f);
  EXPECT_EQ(small.x, 10.0f);
  EXPECT_EQ(small.dx, 0.1f);
  EXPECT_EQ(small.best, 5.0f);
}

TEST(SorrelSearch, EndStepFolds) {
  struct Case {
    float A, A_out;
    bool swapped;
  };
  for (const Case& c : {Case{-30, 60, true}, Case{120, 30, true}, Case{60, 60, false}, Case{200, 20, false},
                        Case{-100, 80, false}, Case{90, 0, true}}) {
    float U = 1.0f, V = 2.0f, A = c.A;
    sorrel_fold_angle(U, V, A);
    EXPECT_FLOAT_EQ(A, c.A_out) << c.A;
    EXPECT_EQ(U, c.swapped ? 2.0f : 1.0f) << c.A;
  }
  for (const auto& [ps, folded] : {std::pair{175.0f, -5.0f}, {-10.0f, -10.0f}, {-11.0f, 169.0f}, {350.0f, -10.0f}})
    EXPECT_FLOAT_EQ(sorrel_fold_phase_shift(ps), folded) << ps;
}

// Correlation of two curves over the elements i0 .. i1 - 1.
double ccc(const std::vector<float>& a, const std::vector<float>& b, int i0, int i1) {
  std::vector<float> x(a.begin() + i0, a.begin() + i1), y(b.begin() + i0, b.begin() + i1);
  return hm_ccc_znorm_inplace(x.data(), y.data(), x.size());
}

// Strong astigmatism, which smears the rings of a plain rotational average: the equiphase average
// follows them and matches the 1D model at the defocus of direction 0.
TEST(SorrelEpa, TheAverageFollowsCurvesOfEqualPhase) {
  const float U = 14000.0f, V = 17000.0f, A = 30.0f;
  Fixture f(U, V, A);
  const int X = 2, L = (f.s.nh - 1) * X + 1;
  float* d_curve = device_zeros<float>(L);
  hcuda_2dh_X_EPA_res(d_curve, X, f.s.d_sub, f.s.nh, f.s.box, 1.0f, 300.0f, 2.7f, 0.1f, 0.0f, U, V, A, 30.0f, 5.0f);
  const std::vector<float> epa = to_host(d_curve, L);
  cudaFree(d_curve);
  const double a = A * kCtfPi / 180.0;
  const float d0 = static_cast<float>(U * std::cos(a) * std::cos(a) + V * std::sin(a) * std::sin(a));
  std::vector<float> model(L);
  cpu_ctf_mod_simulate_1d(model.data(), 1.0f, L, 0.0f, 300.0f, 2.7f, 0.1f, d0, 0.0f, 30.0f, 5.0f);
  const int i0 = static_cast<int>(2 * (L - 1) / 30.0f) + 1, i1 = static_cast<int>(2 * (L - 1) / 5.0f);
  EXPECT_GT(ccc(epa, model, i0, i1), 0.95);
  EXPECT_EQ(epa[1 * X], f.s.h_sub[(f.s.box / 2) * f.s.nh + 1]);  // outside the limits: row ny / 2
}

TEST(SorrelEpa, ZerosAndPeaksLieWhereTheModelSaysSo) {
  std::vector<float> curve(2001);
  for (size_t i = 0; i < curve.size(); ++i) curve[i] = static_cast<float>(i);
  const CTF_INFO info{300.0f, 2.7f, 0.1f, 20.0f, 18000.0f, 18000.0f, 0.0f, 0.0f};
  const auto find = [&](std::vector<float2>& list, int what) {  // 2 zeros, 12 peaks, at their s
    return cpu_ctf_1dh_get_all_zp_res(list, curve.data(), 2001, 1.0f, 300, 2.7f, 0.1f, 20.0f, 18000, 50, 4, what);
  };
  std::vector<float2> zeros, peaks, none;
  ASSERT_GT(find(zeros, 2), 5);
  ASSERT_GT(find(peaks, 12), 5);
  for (const float2& p : zeros) EXPECT_LT(std::fabs(hd_ctfinfo_s(p.x, 0.0f, info, 'F')), 2e-3f) << p.x;
  for (const float2& p : peaks) {
    EXPECT_GT(std::fabs(hd_ctfinfo_s(p.x, 0.0f, info, 'F')), 0.999f) << p.x;
    EXPECT_TRUE(p.x >= 1.0f / 50.0f && p.x <= 1.0f / 4.0f) << p.x;
    EXPECT_EQ(p.y, static_cast<float>(static_cast<int>(4000.0f * p.x)));  // y is the curve at the index
  }
  for (int bad : {0, 5, 10, 30, -1}) EXPECT_EQ(find(none, bad), -1) << bad;
}

TEST(SorrelEpa, FitsRecoverWhatMadeThePoints) {
  const auto cubic = [](double x) { return 3.0 + x * (-0.02 + x * (4e-5 + x * -1e-8)); };
  std::vector<float2> pts;
  for (int i = 0; i < 40; ++i) pts.push_back(float2{50.0f * i, static_cast<float>(cubic(50.0 * i))});
  std::vector<double> coef, xs = {0, 777, 1950}, ys(3);
  ASSERT_EQ(smp_poly_fit3(pts, coef, 7), 7);
  smp_poly_get2(xs.data(), ys.data(), 3, coef, 7);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(ys[k], cubic(xs[k]), 2e-2) << xs[k];
  // Fewer points than the degree asks for: the degree drops, the fit passes through them.
  EXPECT_EQ(smp_poly_fit3({float2{1, 2}, float2{3, 8}}, coef, 7), 1);
  EXPECT_NEAR(coef[1], 3.0, 1e-9);
  double slope, intercept;
  ASSERT_EQ(smp_line_fit2({float2{0, 1}, float2{1, 3}, float2{2, 5}, float2{4, 9}}, slope, intercept), 0);
  EXPECT_NEAR(slope, 2.0, 1e-12);
  EXPECT_NEAR(intercept, 1.0, 1e-12);
  EXPECT_EQ(smp_line_fit2({float2{1, 1}}, slope, intercept), -1);
  double m[4] = {0, 1, 1, 0}, rhs[2] = {2, 3}, sol[2];
  ASSERT_EQ(smp_gauss_solve(2, m, sol, rhs), 0);  // needs the row exchange
  EXPECT_DOUBLE_EQ(sol[0], 3.0);
  EXPECT_DOUBLE_EQ(sol[1], 2.0);
}

// The output image is the full spectrum of the model on the left and of the data on the right,
// each as the FFT layer unfolds a half spectrum, with the element right of the centre cleared.
TEST(SorrelFilesCtfImage, ModelLeftDataRightAsTheFullSpectrum) {
  const int box = 16, nh = box / 2 + 1, h = box / 2;
  std::vector<float> sim(nh * box), data(nh * box), out(box * box), expected(box * box);
  for (int i = 0; i < nh * box; ++i) sim[i] = 1000.0f + i, data[i] = static_cast<float>(i);
  cpu_2dh_ctf_sim_raw_combine(out.data(), sim.data(), data.data(), box);
  const auto full = [&](const std::vector<float>& half) {
    float *d_half = to_device(half), *d_full = device_zeros<float>(box * box);
    const DeviceFrees frees(d_half, d_full);
    hcuda_2d_fftA_half2full(d_full, d_half, box, box);
    return to_host(d_full, box * box);
  };
  const std::vector<float> full_sim = full(sim), full_data = full(data);
  for (int i = 0; i < box * box; ++i) expected[i] = i % box < h - 1 ? full_sim[i] : full_data[i];
  expected[h * box + h] = 0.0f;
  EXPECT_EQ(out, expected);
}

}  // namespace
