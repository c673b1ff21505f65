// Validation grading thresholds and the tilt geometry, against independent formulas.
#include <gtest/gtest.h>

#include <cmath>

#include "ctf_tilt/ctf_tilt.h"
#include "ctf_tilt/ctf_validation.h"
#include "support/exit_report.h"

TEST(CtfValidationGrade, TableOfThresholds) {
  const float T = 1600.0f;  // band 0: 25 * 8^2
  ASSERT_FLOAT_EQ(ctf_validation_tolerance(8.0f), T);
  struct Row { float d; int grade; } rows[] = {
      {0.0f, 5}, {0.38f * T, 5}, {0.39f * T, 4}, {0.70f * T, 4}, {0.71f * T, 3}, {0.999f * T, 3},
      {T, 2}, {1.99f * T, 2}, {2.0f * T, 1}, {1e9f, 1}, {NAN, 1}};
  for (const Row& r : rows) EXPECT_EQ(ctf_validation_grade(r.d, T), r.grade) << "drift " << r.d;
  EXPECT_STREQ(ctf_validation_grade_stdout(5), "PERFECT        ");
  EXPECT_STREQ(ctf_validation_grade_stdout(1), "WRONG     ");
  EXPECT_STREQ(ctf_validation_grade_log(4), "VALIDATION_SCORE: 4           \n");
}

TEST(CtfValidationGrade, DriftAndBands) {
  // equal U and V: the astigmatism term vanishes whatever the angle moves
  EXPECT_FLOAT_EQ(ctf_validation_drift(20000, 20000, 10, 20100, 20100, 80), 100.0f);
  // pure angle move of 30 degrees with |U2 - V2| = 1000: 500
  EXPECT_NEAR(ctf_validation_drift(20500, 19500, 0, 20500, 19500, 30), 500.0f, 0.01f);
  // pixel size 2 resolves bands 0 to 2 only
  int n = 0;
  for (const RESO& b : ctf_validation_bands) n += ctf_validation_band_usable(b.resH, 2.0f);
  EXPECT_EQ(n, 3);
}

TEST(CtfTilt, LocalDefocusFollowsDistanceFromAxis) {
  const CTF_INFO base{300, 2.7f, 0.07f, 0, 20000, 19000, 30, 0};
  const int nx = 101, ny = 81;
  CTF_INFO o;
  get_tilt_local_def_one(o, 50, 40, base, nx, ny, 1.5f, 37, 40);  // centre: on every axis
  EXPECT_EQ(o.defU, base.defU);
  EXPECT_EQ(o.defV, base.defV);
  int2 pos[3] = {{0, 0}, {100, 80}, {10, 70}};
  CTF_INFO out[3];
  get_tilt_local_defs(out, pos, 3, base, nx, ny, 1.5f, 0, 20);
  for (int i = 0; i < 3; i++) {
    const double want = 1.5 * (pos[i].y - 40) * std::tan(20 * M_PI / 180);
    EXPECT_NEAR(out[i].defU - base.defU, want, 0.02);
    EXPECT_NEAR(out[i].defV - base.defV, want, 0.02);
    EXPECT_EQ(out[i].defA, base.defA);
  }
  EXPECT_LT(out[0].defU, base.defU);
  EXPECT_GT(out[1].defU, base.defU);
  get_tilt_local_def_one(o, 0, 0, base, nx, ny, 1.5f, 0, 0);
  EXPECT_EQ(o.defU, base.defU);
  EXPECT_EXIT_REPORT(get_tilt_local_def_one(o, 0, 0, base, nx, ny, 1.5f, 0, 90), "edge-on");
}
