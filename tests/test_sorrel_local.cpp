// Validation grading thresholds and the drift between two CTF records, against independent
// formulas.
#include <gtest/gtest.h>

#include <cmath>

#include "ctf_tilt/ctf_validation.h"

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
