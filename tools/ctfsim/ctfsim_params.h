// What pickora-ctfsim is asked for, and what it drew for one micrograph.
#pragma once

#include <cstdint>
#include <string>

#include "../common/number_options.h"

struct CtfSimParams {
  int nx = 2048, ny = 2048;          // sides, pixels (even)
  int count = 1;                     // micrographs or movies
  int frames = 1;                    // 1: micrographs (.mrc); more: movies (.mrcs stacks)
  double apix = 1.0;                 // pixel size, Angstrom
  double kv = 300, cs = 2.7, ac = 0.1;
  NumberRange defocus{15000, 15000};  // mean of U and V at the image centre, Angstrom
  NumberRange astig{0, 0};            // U - V, Angstrom
  NumberRange angle{0, 0};            // defA, degrees
  NumberRange bfac{100, 100};         // square Angstrom
  NumberRange phase{0, 0};            // additional phase shift, degrees
  double grad_x = 0, grad_y = 0;     // fixed defocus gradient, Angstrom per pixel
  double grad_max = 0;               // above 0: a gradient of random size up to this and random direction
  int grad_levels = 8;               // defocus levels of a gradient
  double drift_def = 0;              // defocus change per frame, Angstrom
  double drift_x = 0, drift_y = 0;   // specimen shift per frame, pixels
  double snr = 0.2;                  // signal power over noise power, per pixel, of the sum of frames
  double bg = 1.0;                   // RMS of the smooth background, in noise sigmas
  uint64_t seed = 1;
  std::string out_dir = "ctfsim";
  std::string prefix = "mic";
};

// The values drawn for one micrograph; the defocus is that of the image centre, averaged over
// the frames of a movie.
struct CtfSimTruth {
  std::string name;  // the image file as written
  double defU, defV, defA, bfac, phase;
  double grad_x, grad_y;  // Angstrom per pixel along x (columns) and y (rows)
};

// Draws the values of micrograph `mic` from the ranges (uses the toolkit's random source, which
// the caller has seeded).
CtfSimTruth draw_truth(const CtfSimParams& p, const std::string& name);
