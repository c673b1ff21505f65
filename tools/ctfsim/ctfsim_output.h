// The truth tables of pickora-ctfsim.
#pragma once

#include <string>
#include <vector>

#include "ctfsim_params.h"

// One row per micrograph: _rlnMicrographName, _rlnDefocusU, _rlnDefocusV, _rlnDefocusAngle,
// _rlnVoltage, _rlnSphericalAberration, _rlnAmplitudeContrast, _rlnPhaseShift, _rlnBfactor,
// _rlnMicrographPixelSize, then the toolkit's own _pkDefocusGradientX, _pkDefocusGradientY
// (Angstrom per pixel), _pkDefocusDriftPerFrame (Angstrom), _pkShiftXPerFrame,
// _pkShiftYPerFrame (pixels) and _pkNrOfFrames.
void write_truth_table(const std::string& path, const CtfSimParams& p, const std::vector<CtfSimTruth>& rows);

// For a movie: one row per frame with _rlnMovieFrameNumber (from 1), its _rlnDefocusU,
// _rlnDefocusV and the specimen's shift _pkShiftX, _pkShiftY in pixels.
void write_frame_table(const std::string& path, const CtfSimParams& p, const CtfSimTruth& t);
