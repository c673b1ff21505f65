#include "process2d_raw/frame_split.h"

#include <algorithm>
#include <cstddef>

#include "cuda_general/report.h"
#include "random_utils/random_source.h"

void cpu_2d_simulate_split(const float* image, float* frames, unsigned nx, unsigned ny, unsigned n) {
  if (n == 0) PK_FATAL("an image cannot be split over 0 frames");
  const std::size_t plane = std::size_t(nx) * ny;
  std::fill(frames, frames + plane * n, 0.0f);
  for (std::size_t i = 0; i < plane; ++i) frames[random_below(n) * plane + i] = image[i];
}

void cpu_2ds_simulate_frame_split(const float* stack, float* frames, unsigned nx, unsigned ny, unsigned nz,
                                  unsigned n) {
  const std::size_t plane = std::size_t(nx) * ny;
  for (unsigned z = 0; z < nz; ++z) cpu_2d_simulate_split(stack + z * plane, frames + z * plane * n, nx, ny, n);
}
