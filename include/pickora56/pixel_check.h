// Pixels the picker can't use: values that are not finite numbers, or so large that sums over
// a shrink block or a transform overflow single precision. One such pixel turns the whole
// work image into NaN, and a constant image has a standard deviation of 0, which the
// normalisation divides by; either way the run would pick nothing without a word.
#pragma once

#include <cstddef>

// Magnitudes above this are taken as damaged: a block of 64 such values and their squares in
// double precision stay finite, and no detector or processed image comes near it.
constexpr float PICKORA_LARGEST_USABLE_PIXEL = 1e30f;

struct PixelCensus {
  size_t count = 0;      // pixels looked at
  size_t nonfinite = 0;  // NaN or infinity
  size_t huge = 0;       // finite, magnitude above PICKORA_LARGEST_USABLE_PIXEL
  double mean = 0.0;     // of the usable pixels
  float lo = 0.0f, hi = 0.0f;  // smallest and largest usable pixel
  size_t unusable() const { return nonfinite + huge; }
  size_t usable() const { return count - unusable(); }
};

PixelCensus pickora_pixel_census(const float* data, size_t count);

// What the driver does with a micrograph, from its census.
enum class MicrographVerdict {
  kUse,     // every pixel usable, not constant
  kRepair,  // a few unusable pixels (at most half): they take the mean of the others
  kSkip,    // more than half unusable, or the usable ones all equal: nothing to pick
};
MicrographVerdict pickora_micrograph_verdict(const PixelCensus& census);

// Sets every unusable pixel to the census mean.
void pickora_repair_pixels(float* data, size_t count, const PixelCensus& census);

// Checks the micrograph's slice 0 and says what happened in the program's warning form,
// naming the file and the cause. Repairs in place when that is the verdict. Returns false
// when the micrograph must be skipped.
bool pickora_accept_micrograph_pixels(float* data, size_t count, const char* name);

// Ends the run, naming the file and the template, when a template slice has an unusable
// pixel or is constant (it would correlate as NaN, or as nothing, with every micrograph).
void pickora_require_usable_templates(const float* stack, int nx, int ny, int nz, const char* name);
