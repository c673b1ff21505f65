// The single highest pixel of an image, and of every slice of a stack.
#pragma once

struct Pixel {
  int x, y;
  float value;
};

// Scans row by row and keeps the first pixel of the highest value: a later pixel takes over only
// when it is strictly greater, so ties keep the earliest and a constant image gives (0, 0). A NaN
// never takes over, and a NaN at the first pixel gives way to the first number after it.
void cpu_2d_get_unique_peak(const float* image, int nx, int ny, int& x, int& y, float& value);
// Slice z of the nx by ny by nz stack into peaks[z].
void cpu_2ds_get_unique_peak(const float* stack, int nx, int ny, Pixel* peaks, int nz);
