// Validation grading thresholds and the tilt geometry, against independent formulas; the tile
// stage of a tilted micrograph, on an image simulated with a known tilt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "ctf_core/ctf_core.h"
#include "ctf_tilt/ctf_tilt.h"
#include "ctf_tilt/ctf_validation.h"
#include "random_utils/random_source.h"
#include "support/exit_report.h"

TEST(CtfValidationGrade, ThresholdsAndDrift) {
  const float T = 1600.0f;  // band 0: 25 * 8^2
  struct Row { float d; int grade; } rows[] = {
      {0.0f, 5}, {0.38f * T, 5}, {0.39f * T, 4}, {0.70f * T, 4}, {0.71f * T, 3}, {0.999f * T, 3},
      {T, 2}, {1.99f * T, 2}, {2.0f * T, 1}, {1e9f, 1}, {NAN, 1}};
  for (const Row& r : rows) EXPECT_EQ(ctf_validation_grade(r.d, T), r.grade) << "drift " << r.d;
  // equal U and V: the astigmatism term vanishes whatever the angle moves
  EXPECT_FLOAT_EQ(ctf_validation_drift(20000, 20000, 10, 20100, 20100, 80), 100.0f);
  // pure angle move of 30 degrees with |U2 - V2| = 1000: 500
  EXPECT_NEAR(ctf_validation_drift(20500, 19500, 0, 20500, 19500, 30), 500.0f, 0.01f);
}

TEST(CtfTilt, LocalDefocusFollowsDistanceFromAxis) {
  const CTF_INFO base{300, 2.7f, 0.07f, 0, 20000, 19000, 30, 0};
  const int nx = 101, ny = 81;
  CTF_INFO o, out[3];
  get_tilt_local_def_one(o, 50, 40, base, nx, ny, 1.5f, 37, 40);  // centre: on every axis
  EXPECT_EQ(o.defU, base.defU);
  EXPECT_EQ(o.defV, base.defV);
  int2 pos[3] = {{0, 0}, {100, 80}, {10, 70}};
  get_tilt_local_defs(out, pos, 3, base, nx, ny, 1.5f, 0, 20);
  for (int i = 0; i < 3; i++) {
    const double want = 1.5 * (pos[i].y - 40) * std::tan(20 * M_PI / 180);
    EXPECT_NEAR(out[i].defU - base.defU, want, 0.02);
    EXPECT_NEAR(out[i].defV - base.defV, want, 0.02);
    EXPECT_EQ(out[i].defA, base.defA);
  }
  get_tilt_local_def_one(o, 0, 0, base, nx, ny, 1.5f, 0, 0);
  EXPECT_EQ(o.defU, base.defU);
  EXPECT_EXIT_REPORT(get_tilt_local_def_one(o, 0, 0, base, nx, ny, 1.5f, 0, 90), "edge-on");
}

// A tilted specimen with the axis along x: white noise through the CTF of each band of 16 rows
// (the defocus of the band's middle row, at most 15 A from any of its rows), plus white noise.
TEST(CtfTilt, TileStageRefinesTheBaseDefocus) {
  const int n = 512, rows = 16;
  const float apix = 1.5f, tilt = 50.0f;
  const CTF_INFO truth{300, 2.7f, 0.1f, 0, 20300, 19700, 30, 50};
  random_source_set_seed(7);
  std::vector<float> noise(n * n), image(n * n), band(n * n);
  random_fill_normal(noise.data(), noise.size(), 0.0, 1.0);
  for (int y0 = 0; y0 < n; y0 += rows) {
    CTF_INFO at;
    get_tilt_local_def_one(at, n / 2, y0 + rows / 2, truth, n, n, apix, 0.0f, tilt);
    gpu_apply_ctf_r2d_c(noise.data(), band.data(), n, n, apix, at.kv, at.cs, at.ac, at.ps, at.defU, at.defV, at.defA,
                        at.bfac, 'F');
    std::copy(band.begin() + y0 * n, band.begin() + (y0 + rows) * n, image.begin() + y0 * n);
  }
  random_fill_normal(noise.data(), noise.size(), 0.0, 0.5);
  for (int i = 0; i < n * n; ++i) image[i] += noise[i];
  // From 300 A above, the base mean comes back within 25 A (11.5 A the worst over five noise
  // seeds), astigmatism untouched.
  CTF_INFO start = truth, got, mirrored;
  start.defU += 300, start.defV += 300;
  const float ccc = gpu_2d_ctf_tilt_refine_cctf_autogrid(got, start, image.data(), n, n, apix, 0, tilt, 256, 0.5f);
  EXPECT_NEAR((got.defU + got.defV) / 2, 20000.0f, 25.0f);
  EXPECT_FLOAT_EQ(got.defU - got.defV, 600.0f);
  EXPECT_EQ(got.defA, truth.defA);
  // Each tile is scored against its own CTF: the mirrored tilt gives every tile the other side's
  // defocus and must fit clearly worse.
  const float worse =
      gpu_2d_ctf_tilt_refine_cctf_autogrid(mirrored, start, image.data(), n, n, apix, 0, -tilt, 256, 0.5f);
  EXPECT_GT(ccc, worse * 1.2f) << ccc << " vs " << worse;
}

TEST(CtfTilt, TileStageRefusals) {
  std::vector<float> flat(64 * 64, 1.0f);
  const CTF_INFO base{300, 2.7f, 0.1f, 0, 20000, 20000, 0, 0};
  CTF_INFO out;
  struct Row { int box; float overlap, tilt, apix; const char* says; } rows[] = {
      {32, 1.0f, 20, 1.5f, "overlap 1 must be below 1"}, {32, NAN, 20, 1.5f, "overlap nan must be below 1"},
      {32, 0.99f, 20, 1.5f, "step of 0 pixels"},         {128, 0.5f, 20, 1.5f, "larger than the image"},
      {33, 0.5f, 20, 1.5f, "box 33 must be even"},       {32, 0.5f, 90, 1.5f, "edge-on"},
      {32, 0.5f, 20, 0.0f, "pixel size"},
      {32, 0.5f, 20, 1.5f, "not finite"},  // a flat image: its tiles' moduli of 0 have no logarithm
  };
  for (const Row& r : rows)
    EXPECT_EXIT_REPORT(gpu_2d_ctf_tilt_refine_cctf_autogrid(out, base, flat.data(), 64, 64, r.apix, 0, r.tilt, r.box,
                                                            r.overlap),
                       r.says);
}
