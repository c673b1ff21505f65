// Grading of a finished CTF result: the result is refined again inside five resolution bands
// and the distance the defocus moves in each band is graded against a tolerance that grows
// with the square of the band's high limit. The grading itself is a pure function so that
// its thresholds can be checked without any refinement.
#pragma once

#include "ctf_core/ctf_core.h"

// The five bands, low and high limit in Angstrom.
constexpr int CTF_VALIDATION_NBANDS = 5;
extern const RESO ctf_validation_bands[CTF_VALIDATION_NBANDS];

// Tolerance of a band, 25 h^2 (h the high limit in Angstrom).
float ctf_validation_tolerance(float res_high);

// Whether a band is resolvable at this pixel size: its high limit must exceed 2 pixel sizes.
bool ctf_validation_band_usable(float res_high, float apix);

// Drift of a re-refined result (U2, V2, A2) from the input (U, V, A): the larger of the
// larger defocus move and |U2 - V2| sin(|A2 - A|) (angles in degrees).
float ctf_validation_drift(float U, float V, float A, float U2, float V2, float A2);

// Grade 5 (PERFECT) to 1 (WRONG) of drift D against tolerance T, first rule that holds:
// D < T sin(22.5 deg) -> 5, D < T cos(45 deg) -> 4, D < T -> 3, D < 2T -> 2, else 1.
// A NaN drift grades 1: a refinement that produced no number is not usable.
int ctf_validation_grade(float drift, float tolerance);

// The grade's words on standard output and in the log, exactly as the run prints them.
const char* ctf_validation_grade_stdout(int grade);
const char* ctf_validation_grade_log(int grade);
