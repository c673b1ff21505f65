#include <cmath>

#include "ctf_tilt/ctf_validation.h"

const RESO ctf_validation_bands[CTF_VALIDATION_NBANDS] = {
    {20.0f, 8.0f}, {15.0f, 6.0f}, {12.0f, 5.0f}, {10.0f, 4.0f}, {8.0f, 3.0f}};

float ctf_validation_tolerance(float res_high) { return 25.0f * res_high * res_high; }

bool ctf_validation_band_usable(float res_high, float apix) { return res_high > 2.0f * apix; }

float ctf_validation_drift(float U, float V, float A, float U2, float V2, float A2) {
  const float m = std::fmax(std::fabs(U2 - U), std::fabs(V2 - V));
  const double dA = std::fabs((double)A2 - (double)A) * M_PI / 180.0;
  const float a = (float)(std::fabs((double)U2 - (double)V2) * std::sin(dA));
  return std::fmax(m, a);
}

int ctf_validation_grade(float drift, float tolerance) {
  if (!(drift == drift)) return 1;
  const double D = drift, T = tolerance;
  if (D < 0.3826834323650898 * T) return 5;
  if (D < 0.7071067811865475 * T) return 4;
  if (D < T) return 3;
  if (D < 2.0 * T) return 2;
  return 1;
}

const char* ctf_validation_grade_stdout(int grade) {
  switch (grade) {
    case 5: return "PERFECT        ";
    case 4: return "GOOD           ";
    case 3: return "USABLE         ";
    case 2: return "BAD            ";
    default: return "WRONG     ";
  }
}

const char* ctf_validation_grade_log(int grade) {
  switch (grade) {
    case 5: return "VALIDATION_SCORE: 5        \n";
    case 4: return "VALIDATION_SCORE: 4           \n";
    case 3: return "VALIDATION_SCORE: 3         \n";
    case 2: return "VALIDATION_SCORE: 2            \n";
    default: return "VALIDATION_SCORE: 1     \n";
  }
}
