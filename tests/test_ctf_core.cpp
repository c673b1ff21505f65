// The CTF model against an independent numpy CTF, its application to images, its edge cases and
// refusals; the toolkit's random source; and pickora-ctfsim, whose truth numpy
// finds again in its images.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "mrcfile/mrcfile.h"
#include "random_utils/random_source.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

std::string python_check(const std::string& args) {
  return "/usr/bin/python3 " + std::string(PICKORA_SOURCE_DIR) + "/tests/python/ctf_check.py " + args;
}

float max_abs_diff(const std::vector<float>& a, const std::vector<float>& b) {
  float m = 0;
  for (size_t i = 0; i < a.size(); ++i) m = std::fmax(m, std::fabs(a[i] - b[i]));
  return m;
}
float max_abs(const std::vector<float>& a) { return max_abs_diff(a, std::vector<float>(a.size(), 0.0f)); }

// A random image with nothing in the Nyquist column and row. There the direction of a frequency
// and that of its Friedel mate are not opposite (+1/2 and -1/2 are one frequency), so an
// astigmatic filter is not Hermitian and the inverse transform keeps only part of it.
std::vector<float> random_image_below_nyquist(unsigned nx, unsigned ny, unsigned seed) {
  const unsigned nh = nx / 2 + 1;
  std::vector<float> image = random_image(nx * ny, seed);
  std::vector<float2> spectrum(nh * ny);
  gpu_2d_fft_r2c(image.data(), spectrum.data(), nx, ny);
  for (unsigned y = 0; y < ny; ++y) spectrum[y * nh + nh - 1] = make_float2(0, 0);
  for (unsigned x = 0; x < nh; ++x) spectrum[(ny / 2) * nh + x] = make_float2(0, 0);
  gpu_2d_fft_c2r(spectrum.data(), image.data(), nx, ny);
  return image;
}

// The first five zeros along defA and defA + 90 of a half spectrum from hcuda_ctf_sim_2dh lie
// within one Fourier pixel of those of the numpy CTF; with U and V 4000 A apart, a wrong angle
// sense or a wrong zero row would put them several pixels away.
TEST(CtfModel, ZerosAlongBothAxesMatchAnIndependentCtf) {
  const unsigned nh = 257, ny = 512;
  TempDir dir;
  const std::string half = dir.file("half.f32");
  for (float angle : {0.0f, 30.0f, -45.0f, 75.0f, 120.0f}) {
    const CTF_INFO info{300.0f, 2.7f, 0.1f, 20.0f, 20000.0f, 16000.0f, angle, 0.0f};
    float* d = device_zeros<float>(nh * ny);
    hcuda_ctf_sim_2dh(d, nh, ny, 1.0f, info, RESO{1e6f, 2.0f}, 'F');
    const std::vector<float> h = to_host(d, nh * ny);
    cudaFree(d);
    std::ofstream(half, std::ios::binary).write(reinterpret_cast<const char*>(h.data()), h.size() * sizeof(float));
    char args[512];
    std::snprintf(args, sizeof args, "zeros %s %u %u 1.0 %g %g %g %g %g %g %g", half.c_str(), nh, ny, info.kv, info.cs,
                  info.ac, info.ps, info.defU, info.defV, info.defA);
    std::string out;
    EXPECT_EQ(run_command(python_check(args), out), 0) << "angle " << angle << ": " << out;
  }
}

// Edge cases of the formula and of the limits, one row each (the astigmatism's geometry: the
// zeros against numpy above).
TEST(CtfModel, EdgeCases) {
  const CTF_INFO plain{300.0f, 2.7f, 0.07f, 0.0f, 15000.0f, 15000.0f, 0.0f, 80.0f},
      astig{300.0f, 2.7f, 0.07f, 0.0f, 15000.0f, 9000.0f, 25.0f, 80.0f},
      no_ac{300.0f, 2.7f, 0.0f, 0.0f, 15000.0f, 15000.0f, 0.0f, 80.0f};
  struct Row {
    const char* what;
    float got, want, tol;
  } rows[] = {
      {"s = 0, F gives ac", hd_ctfinfo_s(0.0f, 0.3f, plain, 'F'), 0.07f, 1e-7f},
      {"S at a zero of the sine is +1", hd_ctfinfo_s(0.0f, 0.0f, no_ac, 'S'), 1.0f, 0.0f},
      {"300 kV: lambda about 0.0197 A", ctf_wavelength(300.0f), 0.019687f, 2e-6f},
      {"A is |F|", hd_ctfinfo_s(0.31f, 1.0f, astig, 'A'), std::fabs(hd_ctfinfo_s(0.31f, 1.0f, astig, 'F')), 0.0f},
  };
  for (const Row& r : rows) EXPECT_NEAR(r.got, r.want, r.tol) << r.what;

  // Limits are inclusive: n = 51 at 1 A gives s = i / 100; resL 20 A is i = 5, resH 4 A is i = 25.
  std::vector<float> curve(51);
  cpu_ctf_sim_1dh(curve.data(), 51, 1.0f, plain, RESO{20.0f, 4.0f}, 'S');
  for (unsigned i = 0; i < 51; ++i) EXPECT_EQ(curve[i] != 0.0f, i >= 5 && i <= 25) << i;

  // One sample has no frequency step: it is s = 0, not 0 / 0.
  const RESO no_limit{std::numeric_limits<float>::infinity(), 1.0f};
  float one = -1.0f, one_2d = -1.0f;
  cpu_ctf_sim_1dh(&one, 1, 1.0f, plain, no_limit, 'F');
  cpu_ctf_sim_2dh(&one_2d, 1, 1, 1.0f, plain, no_limit, 'F');
  EXPECT_NEAR(one, 0.07f, 1e-7f);
  EXPECT_NEAR(one_2d, 0.07f, 1e-7f);
}

// The simulators the search and the refinement call, against the formula: the field-by-field
// form, the phase-based family (float sine of the expansion), the multi-defocus rows, the score
// term and the band-limited square.
TEST(CtfModel, SimulatorFamiliesAgreeWithTheFormula) {
  const unsigned nh = 65, ny = 128, n = nh * ny;
  const float apix = 1.3f, resL = 40.0f, resH = 3.0f;
  const RESO band{resL, resH};
  const CTF_INFO a{200.0f, 2.0f, 0.1f, 35.0f, 12000.0f, 10500.0f, -32.0f, 60.0f},
      no_b{200.0f, 2.0f, 0.1f, 35.0f, 12000.0f, 10500.0f, -32.0f, 0.0f};
  std::vector<float> ref(n), c_form(n), mod(n), pow2(n), smrl(n), sq(n);
  cpu_ctf_sim_2dh(ref.data(), nh, ny, apix, a, band, 'A');
  gpu_ctf_sim_2dh_c(c_form.data(), nh, ny, apix, a.kv, a.cs, a.ac, a.ps, a.defU, a.defV, a.defA, a.bfac, resL, resH,
                    'A');
  EXPECT_EQ(c_form, ref);

  gpu_ctf_mod_simulate_2dh(mod.data(), apix, nh, ny, a.kv, a.cs, a.ac, a.ps, a.defU, a.defV, a.defA, a.bfac, resL,
                           resH);
  EXPECT_LT(max_abs_diff(mod, ref), 2e-4f);
  gpu_ctf_pow_simulate_2dh(pow2.data(), apix, nh, ny, a.kv, a.cs, a.ac, a.ps, a.defU, a.defV, a.defA, 0.0f, resL, resH);
  const std::vector<float> raw = random_image(n, 5);
  gpu_ctf_smrl_2dh(smrl.data(), raw.data(), apix, nh, ny, a.kv, a.cs, a.ac, a.ps, a.defU, a.defV, a.defA, a.bfac, resL,
                   resH);
  gpu_2dh_res_based_square(sq.data(), raw.data(), apix, nh, ny, resL, resH);
  for (unsigned i = 0; i < n; ++i) {
    const CtfFreq f = ctf_freq_2dh(i % nh, i / nh, nh, ny, apix);
    const bool in = ctf_in_band(f.s, resL, resH);
    const float c = hd_ctfinfo_s(f.s, f.theta, no_b, 'F');
    EXPECT_NEAR(pow2[i], in ? c * c : 0.0f, 2e-4f) << i;
    EXPECT_FLOAT_EQ(smrl[i], mod[i] * raw[i]) << i;
    EXPECT_EQ(sq[i], in ? raw[i] * raw[i] : 0.0f) << i;
  }
  // 1D: rows of the multi-defocus search are the single curves; limits in either order there.
  const unsigned len = 300;
  const float defoci[] = {8000.0f, 14000.0f, 30000.0f};
  std::vector<float> rows(len * 3), single(len), swapped(len), formula(len), phase(len), total(len);
  gpu_ctf_mod_simulate_1ds_multi_defocus(rows.data(), apix, len, a.ps, a.kv, a.cs, a.ac, defoci, 3, a.bfac, resL, resH);
  for (unsigned j = 0; j < 3; ++j) {
    gpu_ctf_mod_simulate_1d(single.data(), apix, len, a.ps, a.kv, a.cs, a.ac, defoci[j], a.bfac, resL, resH);
    cpu_ctf_mod_simulate_1d(swapped.data(), apix, len, a.ps, a.kv, a.cs, a.ac, defoci[j], a.bfac, resH, resL);
    cpu_ctf_sim_1dh_c(formula.data(), len, apix, a.kv, a.cs, a.ac, a.ps, defoci[j], a.bfac, resL, resH, 'A');
    EXPECT_EQ(single, std::vector<float>(rows.begin() + j * len, rows.begin() + (j + 1) * len));
    EXPECT_EQ(single, swapped);
    EXPECT_LT(max_abs_diff(single, formula), 2e-4f);
  }
  gpu_ctf_phase_simulate_1d(phase.data(), apix, len, a.ps, a.kv, a.cs, a.ac, 14000.0f, a.bfac, resL, resH);
  cpu_ctf_sim_1dh_c(total.data(), len, apix, a.kv, a.cs, a.ac, a.ps, 14000.0f, 0.0f, resL, resH, 'P');
  EXPECT_LT(max_abs_diff(phase, total), 1e-4f * max_abs(total));
}

// A noiseless image through the CTF ("F"), phase flipped into "_pf.mrc" by way of the centred
// spectrum, equals the specimen through |CTF| ("A") by way of the spectrum as transformed, read
// from the file or given in memory.
TEST(CtfApply, PhaseFlipFileEqualsModeA) {
  const unsigned nx = 128, ny = 96;
  const float apix = 1.5f, kv = 300.0f, cs = 2.7f, ac = 0.07f, ps = 0.0f, U = 12000.0f, V = 9000.0f, A = 30.0f;
  const std::vector<float> specimen = random_image_below_nyquist(nx, ny, 11);
  std::vector<float> image(nx * ny), expected(nx * ny), from_file(nx * ny), from_memory(nx * ny);
  gpu_apply_ctf_r2d_c(specimen.data(), image.data(), nx, ny, apix, kv, cs, ac, ps, U, V, A, 0.0f, 'F');
  gpu_apply_ctf_r2d_c(specimen.data(), expected.data(), nx, ny, apix, kv, cs, ac, ps, U, V, A, 0.0f, 'A');
  TempDir dir;
  const std::string name = dir.file("mic.mrc"), flip = dir.file("mic_pf.mrc");
  mrcf_write_xyz_data(name.c_str(), image.data(), nx, ny, 1);
  mrcf_phase_flip_write(name.c_str(), nullptr, nx, ny, apix, kv, cs, ac, ps, U, V, A);
  ASSERT_EQ(mrcf_read_all(flip.c_str(), from_file.data()), 0);
  EXPECT_LT(max_abs_diff(from_file, expected), 1e-5f * max_abs(expected));
  EXPECT_GT(max_abs_diff(image, expected), 0.1f * max_abs(expected));  // the flip did something
  mrcf_phase_flip_write(name.c_str(), image.data(), nx, ny, apix, kv, cs, ac, ps, U, V, A);
  ASSERT_EQ(mrcf_read_all(flip.c_str(), from_memory.data()), 0);
  EXPECT_EQ(from_memory, from_file);
}

TEST(CtfApply, RefusesWhatWouldGiveNaNOrMisplacedRows) {
  std::vector<float> a(64 * 64, 1.0f), b(64 * 64);
  EXPECT_EXIT_REPORT(gpu_ctf_sim_2dh(b.data(), 33, 64, 1.0f, CTF_INFO{300, 2.7f, 1.5f, 0, 1e4f, 1e4f, 0, 0},
                                     RESO{50, 3}, 'F'),
                     "amplitude contrast is 1.5; it must lie within -1 .. 1");
  EXPECT_EXIT_REPORT(gpu_ctf_mod_simulate_1d(b.data(), 0.0f, 64, 0, 300, 2.7f, 0.1f, 1e4f, 0, 50, 3),
                     "pixel size is 0 Angstrom; it must be above 0");
  EXPECT_EXIT_REPORT(gpu_apply_ctf_r2d_c(a.data(), b.data(), 63, 64, 1.0f, 300, 2.7f, 0.1f, 0, 1e4f, 1e4f, 0, 0, 'F'),
                     "63 x 64 pixels; the CTF filters need even sides");
  TempDir dir;
  const std::string missing = dir.file("none.mrc"), small = dir.file("small.mrc");
  EXPECT_EXIT_REPORT(mrcf_phase_flip_write(missing.c_str(), nullptr, 64, 64, 1.0f, 300, 2.7f, 0.1f, 0, 1e4f, 1e4f, 0),
                     "open file '.*none.mrc' failed");
  mrcf_write_xyz_data(small.c_str(), a.data(), 32, 32, 1);
  EXPECT_EXIT_REPORT(mrcf_phase_flip_write(small.c_str(), nullptr, 64, 64, 1.0f, 300, 2.7f, 0.1f, 0, 1e4f, 1e4f, 0),
                     "is 32 x 32 pixels, not the 64 x 64");
}

// ---- The random source ------------------------------------------------------------------

// Repeatability for a seed: CtfSim.TheSameSeedGivesTheSameBytes, through the simulator.
TEST(RandomSource, TheNormalAndUniformFormsHaveTheirMomentsAndRange) {
  random_source_set_seed(42);
  double sum = 0, sum2 = 0, usum = 0;
  const int n = 200000;
  for (int i = 0; i < n; ++i) {
    const double z = random_normal(), u = random_uniform();
    ASSERT_TRUE(u >= 0.0 && u < 1.0);
    sum += z, sum2 += z * z, usum += u;
  }
  EXPECT_NEAR(sum / n, 0.0, 0.01);
  EXPECT_NEAR(sum2 / n, 1.0, 0.015);
  EXPECT_NEAR(usum / n, 0.5, 0.003);
}

// ---- pickora-ctfsim ------------------------------------------------------------------------

std::string ctfsim() { return std::string(PICKORA_BIN_DIR) + "/pickora-ctfsim"; }

TEST(CtfSim, TheSameSeedGivesTheSameBytes) {
  ASSERT_EQ(access(ctfsim().c_str(), X_OK), 0) << "build pickora-ctfsim first";
  TempDir dir;
  const std::string opts = " --out sim --size 128 --frames 3 --drift_def 40 --drift_x 0.7 --grad_max 2 --grad_levels 3"
                           " --defocus 6000:40000 --astig 0:2000 --angle -90:90 --bfac 50:200 --phase 30:150";
  std::string out;
  // The same output folder name in three places, so that the names in the tables agree too.
  for (const char* run : {"a", "b", "c"}) {
    const std::string seed = run[0] == 'c' ? " --seed 6" : " --seed 5";
    ASSERT_EQ(run_command("mkdir " + dir.file(run) + " && cd " + dir.file(run) + " && " + ctfsim() + opts + seed, out), 0)
        << out;
  }
  for (const char* f : {"/sim/mic_0000.mrcs", "/sim/mic_truth.star", "/sim/mic_0000_frames.star"}) {
    EXPECT_EQ(read_binary_file(dir.file("a") + f), read_binary_file(dir.file("b") + f)) << f;
    EXPECT_NE(read_binary_file(dir.file("a") + f), read_binary_file(dir.file("c") + f)) << f;
  }
  // Sizes the filters cannot take and contrasts the model cannot take are refused up front.
  EXPECT_EQ(run_command(ctfsim() + " --out " + dir.file("d") + " --size 101", out), 1);
  EXPECT_NE(out.find("takes an even number of pixels"), std::string::npos) << out;
  EXPECT_EQ(run_command(ctfsim() + " --out " + dir.file("d") + " --ac 1.2", out), 1);
  EXPECT_NE(out.find("within -1 .. 1"), std::string::npos) << out;
}

// numpy's own grid search over its own CTF finds each image's truth: the mean defocus within 1 %
// and, with astigmatism, the angle within 5 degrees, over the ranges the defocus search is tested
// with, and for a movie with defocus drift and shift and a gradient.
TEST(CtfSim, NumpyFindsTheTruthInTheImages) {
  TempDir dir;
  std::string out;
  for (const char* call :
       {" --size 1024 --n 3 --defocus 6000:40000 --astig 500:2000 --angle -90:90 --bfac 50:200 --phase 30:150 --seed 3",
        " --prefix movie --size 512 --frames 4 --drift_def 30 --drift_x 0.5 --grad_x 0.3 --grad_levels 4 --defocus "
        "20000 --astig 1500 --angle 40 --phase 90 --seed 4"})
    ASSERT_EQ(run_command(ctfsim() + " --out " + dir.path() + " --snr 2" + call, out), 0) << out;
  for (const char* truth : {"mic_truth.star", "movie_truth.star"})
    EXPECT_EQ(run_command(python_check("truth " + dir.file(truth)), out), 0) << out;
}

}  // namespace
