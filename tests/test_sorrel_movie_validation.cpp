// Validation grades and the movie defocus refinement, on images simulated through a known CTF:
// the truth validates well and a result moved by twice a band's tolerance does not; a defocus
// that drifts linearly over the frames comes back through the line fit; the run writes both
// without changing the micrograph's own results; spans and fits that cannot work say so.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel.h"
#include "ctf_tilt/ctf_validation.h"
#include "cuda_fft/cuda_fft.h"
#include "mrcfile/mrcfile.h"
#include "random_utils/random_source.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

// One simulated image or movie: 512 x 512 at 1 A, U 12300, V 11700, angle 30, signal strong
// enough that 256-pixel tiles of a 7-frame span still show the rings to 5 A.
constexpr float kU = 12300.0f, kV = 11700.0f, kA = 30.0f, kApix = 1.0f, kKv = 300.0f, kCs = 2.7f, kAc = 0.1f;
constexpr int kSize = 512;

// Simulates into dir/sim and returns the first image or movie, with its number of frames in nz.
std::vector<float> simulate(const TempDir& dir, const std::string& extra, const std::string& name, int& nz) {
  std::string out;
  EXPECT_EQ(run_command("cd '" + dir.path() + "' && " + PICKORA_BIN_DIR + "/pickora-ctfsim --out sim --n 1 --size 512"
                            " --apix 1.0 --defocus 12000 --astig 600 --angle 30 --bfac 50 --snr 1 --seed 5" + extra,
                        out),
            0)
      << out;
  int nx = 0, ny = 0;
  EXPECT_EQ(get_mrcf_xyz(nx, ny, nz, dir.file(name).c_str()), 0);
  EXPECT_EQ(nx, kSize);
  std::vector<float> data(static_cast<size_t>(nx) * ny * nz);
  EXPECT_EQ(mrcf_read_all(dir.file(name).c_str(), data.data()), 0);
  return data;
}

TEST(CtfValidation, TruthGradesWellAndTwiceTheToleranceGradesBadlyInEveryBand) {
  random_source_set_seed(11);
  TempDir dir;
  int nz = 0;
  // At 1.5 A per pixel (bands 0 to 3) and U 8300, V 7700, whose rings 128-pixel tiles still
  // sample at 4 A: the background-subtracted spectrum of the tiles, as the search takes it.
  const std::vector<float> image = simulate(dir, " --apix 1.5 --defocus 8000", "sim/mic_0000.mrc", nz);
  const unsigned nh = 65, ny = 128;
  float *d_image = to_device(image), *sub = device_zeros<float>(nh * ny), *work = device_zeros<float>(nh * ny);
  const DeviceFrees frees(d_image, sub, work);
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg(d_image, sub, kSize, kSize, 128, 128, 64, 11);
  std::string printed;
  float mean = 0.0f;
  const auto validate = [&](float U, float V, float apix = 1.5f) {
    std::vector<CtfValidationBand> bands;
    testing::internal::CaptureStdout();
    ctf_validation(sub, work, apix, nh, ny, kKv, kCs, kAc, 0.0f, U, V, kA, 50.0f, nullptr, &bands, &mean);
    printed = testing::internal::GetCapturedStdout();
    return bands;
  };
  const std::vector<CtfValidationBand> truth = validate(8300.0f, 7700.0f);
  ASSERT_EQ(truth.size(), 4u) << printed;  // band 4's high limit, 3 A, is not above 2 pixel sizes
  int sum = 0;
  for (const CtfValidationBand& b : truth) {
    EXPECT_GE(b.grade, 4) << printed;
    EXPECT_FLOAT_EQ(b.tolerance, 25.0f * b.resH * b.resH);
    sum += b.grade;
  }
  EXPECT_FLOAT_EQ(mean, sum / 4.0f);
  EXPECT_EQ(printed.find("nan"), std::string::npos) << printed;
  // Both defoci moved by twice a band's tolerance, either way. Band 0 is left out: its
  // tolerance, 1600 A, is a fifth of this defocus, 20 to 8 A holds two rings here, and from
  // 3200 A off its search settles on a neighbouring maximum about 1050 A from the start
  // (measured), which grades GOOD.
  for (size_t k = 1; k < truth.size(); ++k)
    for (const float sign : {-1.0f, 1.0f}) {
      SCOPED_TRACE("band " + std::to_string(k) + " moved by " + std::to_string(sign) + " x 2T");
      const float moved = sign * 2.0f * truth[k].tolerance;
      const std::vector<CtfValidationBand> off = validate(8300.0f + moved, 7700.0f + moved);
      ASSERT_GT(off.size(), k);
      EXPECT_LE(off[k].grade, 2) << printed;
      EXPECT_GE(off[k].drift, truth[k].tolerance) << printed;
    }
  // At 4 A per pixel no band is resolvable: nothing is graded and there is no mean.
  EXPECT_TRUE(validate(8300.0f, 7700.0f, 4.0f).empty());
  EXPECT_EQ(mean, 0.0f);
  EXPECT_NE(printed.find("no band could be graded"), std::string::npos) << printed;
}

TEST(CtfMovieStack, LinearDefocusDriftOverTwentyFramesComesBack) {
  random_source_set_seed(12);
  TempDir dir;
  const float drift = 100.0f;  // A per frame; frame f sits at 12000 + (f - 9.5) drift
  int nz = 0;
  const std::vector<float> stack = simulate(dir, " --frames 20 --drift_def 100", "sim/mic_0000.mrcs", nz);
  ASSERT_EQ(nz, 20);
  MovieStackValues v;
  testing::internal::CaptureStdout();
  const int positions = ctf_movie_stack_refine(stack.data(), kSize, kSize, nz, kApix, 256, 128, 21, kKv, kCs, kAc, 0.0f,
                                               kU, kV, kA, 50.0f, 30.0f, 5.0f, nullptr, 1, 7, 1, 0,
                                               CTF_REF_CONTROL{0, 500.0f}, &v);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(positions, 14);
  for (int i = 0; i < nz; ++i) EXPECT_EQ(v.valid[i], i >= 3 && i <= 16 ? 1 : 0) << "frame " << i;
  EXPECT_EQ(printed.find("nan"), std::string::npos);
  // Each span centre against the truth of its frames' mean defocus; U - V untouched.
  for (int p = 3; p <= 16; ++p) {
    EXPECT_NEAR((v.U[p] + v.V[p]) / 2.0f, 12000.0f + (p - 9.5f) * drift, 60.0f) << "position " << p;
    EXPECT_NEAR(v.U[p] - v.V[p], kU - kV, 0.1f);
  }
  // The fit against an independent least-squares line, in double, over the 13 values from index 3.
  ASSERT_EQ(v.fitU.size(), 20u);
  double mx = 9.0, my = 0, sxy = 0, sxx = 0;
  for (int p = 3; p < 16; ++p) my += v.U[p] / 13.0;
  for (int p = 3; p < 16; ++p) sxy += (p - mx) * (v.U[p] - my), sxx += (p - mx) * (p - mx);
  for (int i : {0, 19}) EXPECT_NEAR(v.fitU[i], my + sxy / sxx * (i - mx), 0.05) << "frame " << i;
  EXPECT_NEAR((v.fitU[19] - v.fitU[0]) / 19.0f, drift, 0.2f * drift);
  EXPECT_NEAR((v.fitV[19] - v.fitV[0]) / 19.0f, drift, 0.2f * drift);
  EXPECT_NE(printed.find(" STACK CTF Value 20\n"), std::string::npos);  // fitted table numbers frames from 1
}

// The sorrel command in this process, in the folder of the run, with the random source fixed.
int run_sorrel(const TempDir& dir, const std::string& args, std::string& out) {
  std::vector<std::string> words{"sorrel"};
  std::istringstream in(args);
  for (std::string w; in >> w;) words.push_back(w);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  char here[4096];
  if (!getcwd(here, sizeof(here)) || chdir(dir.path().c_str()) != 0) return -1;
  random_source_set_seed(7);
  testing::internal::CaptureStdout();
  int status = SORREL_A().sorrel_run_all(static_cast<int>(words.size()), argv.data());
  out = testing::internal::GetCapturedStdout();
  return chdir(here) == 0 ? status : -1;
}

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// On a movie: validation and movie rows in the log, and the micrograph's own results (summary
// row, phase-flipped sum) exactly those of a run without them.
TEST(CtfMovieStack, SorrelRunWritesBothAndKeepsTheMicrographResults) {
  TempDir dir;
  int nz = 0;
  simulate(dir, " --frames 20 --drift_def 100", "sim/mic_0000.mrcs", nz);
  const std::string common = " --apix 1.0 --boxsize 256 --convsize 21 --convs_out 36 --defA_seeds 6 --do_phase_flip 1"
                             " --mdef_ave_type 1 ";
  std::string out;
  ASSERT_EQ(run_sorrel(dir, common + "--ctfstar plain.star sim/mic_0000.mrcs", out), 0) << out;
  const std::string plain_pf = read_file_text(dir.file("sim/mic_0000_pf.mrc"));
  EXPECT_EQ(count(read_file_text(dir.file("sim/mic_0000_sorrel.log")), "VALIDATION_SCORE"), 0u);
  ASSERT_EQ(run_sorrel(dir, common + "--do_validation 1 --do_mdef_refine 1 --mdef_fit 1 --ctfstar both.star "
                                     "sim/mic_0000.mrcs", out), 0)
      << out;
  const std::string log = read_file_text(dir.file("sim/mic_0000_sorrel.log"));
  EXPECT_EQ(count(log, "VALIDATION_SCORE: "), 5u) << log;
  EXPECT_NE(log.find("Mean validation score: "), std::string::npos);
  EXPECT_EQ(count(log, "STACK CTF Value"), 14u + 20u);
  EXPECT_EQ(log.find("nan"), std::string::npos);
  EXPECT_EQ(read_file_text(dir.file("sim/mic_0000_pf.mrc")), plain_pf);
  const std::string a = read_file_text(dir.file("plain.star")), b = read_file_text(dir.file("both.star"));
  EXPECT_EQ(a.substr(a.find("sim/")), b.substr(b.find("sim/")));
  // A span of no frame is refused before any micrograph is searched.
  EXPECT_EQ(run_sorrel(dir, common + "--do_mdef_refine 1 --mdef_aveN 0 --ctfstar none.star sim/mic_0000.mrcs", out), 1);
  EXPECT_NE(out.find("(--mdef_aveN) is 0; it must be at least 1 frame"), std::string::npos) << out;
  EXPECT_EQ(out.find("Final Values"), std::string::npos);
}

TEST(CtfMovieStack, SpansAndFitsThatCannotWork) {
  const int n = 128, nz = 20;
  const std::vector<float> noise = random_image(static_cast<size_t>(n) * n * nz, 9), blank(noise.size(), 2.0f);
  struct Row {
    const char* what;
    bool blank;
    int box, span, fit, ave_type;
    const char* fatal;  // regex of the fatal report, or null
    int positions;
    const char* says;  // printed when the call returns
  } rows[] = {
      {"span 0", false, 128, 0, 0, 1, "at least 1 frame", 0, nullptr},
      {"tile larger than a frame", false, 256, 7, 0, 1, "does not fit in frames of 128 x 128", 0, nullptr},
      {"span longer than the stack", false, 128, 21, 1, 1, nullptr, 0, "longer than the stack of 20"},
      {"one position, no value to fit", false, 128, 20, 1, 1, nullptr, 1, "needs at least 2 values, 0 here"},
      {"fit over one value", false, 128, 19, 1, 1, nullptr, 2, "needs at least 2 values, 1 here"},
      {"fit over two values", false, 128, 18, 1, 1, nullptr, 3, "Linear fitted stack/movie CTF values:"},
      {"non-linear fit", false, 128, 18, 2, 1, nullptr, 3, "Does not support non-linear fitting"},
      {"averaging type 0", false, 128, 7, 1, 0, nullptr, 0, "type 0 refines nothing"},
      {"blank frames", true, 128, 7, 1, 1, nullptr, 0, "is not finite (blank frames?): no value"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    MovieStackValues v;
    const auto call = [&]() {
      return ctf_movie_stack_refine((r.blank ? blank : noise).data(), n, n, nz, 2.0f, r.box, 64, 10, kKv, kCs, kAc,
                                    0.0f, 15000.0f, 14000.0f, 20.0f, 100.0f, 30.0f, 6.0f, nullptr, r.ave_type, r.span,
                                    r.fit, 1, CTF_REF_CONTROL{0, 500.0f}, &v);
    };
    if (r.fatal != nullptr) {
      EXPECT_EXIT_REPORT(call(), r.fatal);
      continue;
    }
    testing::internal::CaptureStdout();
    const int positions = call();
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(positions, r.positions) << printed;
    EXPECT_NE(printed.find(r.says), std::string::npos) << printed;
    EXPECT_EQ(printed.find("nan"), std::string::npos) << printed;
    const bool fitted = std::string(r.says).find("Linear fitted") == 0;
    EXPECT_EQ(printed.find("Linear fitted") != std::string::npos, fitted) << printed;
    EXPECT_EQ(v.fitU.size(), fitted ? 20u : 0u);
    for (int i = 0; i < nz; ++i) EXPECT_TRUE(std::isfinite(v.U[i]) && std::isfinite(v.score[i]));
  }
}

}  // namespace
