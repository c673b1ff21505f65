// Line projections: sums of an image along parallel lines at an angle.
//
// Output element i of n1 is the sum over the n2 steps j of the samples at
//   sx = v p + c u + cx,   sy = v c + u q + cy,
// u = i - (n1 - 1) 0.5, v = j - (n2 - 1) 0.5, with c = cos, (p, q) = (sin, -sin) for direction 1,
// (-sin, sin) for -1, and for any other direction c = 1 and p = q = 0 (the plain column sums).
// The angle is converted in double and narrowed (pk_degrees_to_radians_double). A position
// outside the image adds nothing; inside, the toolkit's bilinear sample. The half-pixel centre
// of u and v is that of the grid centre, so a square projected about its grid centre with
// direction 0 gives exactly its column sums. Sums are single precision, j ascending.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"
#include "process2d_raw/bilinear.h"
#include "process2d_raw/resample.h"

struct PkProjectionAxes {
  float c, p, q;
};

PICKORA_HD inline PkProjectionAxes pk_projection_axes(float degrees, int direction) {
  const float a = pk_degrees_to_radians_double(degrees);
  const float s = sinf(a), c = cosf(a);
  if (direction == 1) return {c, s, -s};
  if (direction == -1) return {c, -s, s};
  return {1.0f, 0.0f, 0.0f};
}

// One output element: the sum along line i of the n1 by n2 rectangle about (cx, cy).
PICKORA_HD inline float pk_2d_project_line(const float* image, unsigned nx, unsigned ny, int n1, int n2, float cx,
                                           float cy, PkProjectionAxes a, int i) {
  const float u = (float)i - (float)(n1 - 1) * 0.5f;
  float sum = 0.0f;
  for (int j = 0; j < n2; ++j) {
    const float v = (float)j - (float)(n2 - 1) * 0.5f;
    const float sx = v * a.p + a.c * u + cx;
    const float sy = v * a.c + u * a.q + cy;
    if (pk_2d_sample_inside(sx, sy, nx, ny)) sum += pk_2d_bilinear(image, nx, sx, sy);
  }
  return sum;
}

// ---- Kernels: one thread per output element (flat launches) --------------------------------

PICKORA_HD inline void cuda_2d_project_local_rect_axes(unsigned i, float* output, int n1, int n2, const float* image,
                                                       unsigned nx, unsigned ny, float cx, float cy,
                                                       PkProjectionAxes axes) {
  if (i >= (unsigned)n1) return;
  output[i] = pk_2d_project_line(image, nx, ny, n1, n2, cx, cy, axes, (int)i);
}
PICKORA_HD inline void cuda_2d_project_local_rect(unsigned i, float* output, int n1, int n2, const float* image,
                                                  unsigned nx, unsigned ny, float cx, float cy, float degrees,
                                                  int direction) {
  cuda_2d_project_local_rect_axes(i, output, n1, n2, image, nx, ny, cx, cy, pk_projection_axes(degrees, direction));
}
// n1 = n2 = the larger side, about the given centre.
PICKORA_HD inline int pk_project_length(unsigned nx, unsigned ny) { return (int)(nx > ny ? nx : ny); }
PICKORA_HD inline void cuda_2d_project(unsigned i, float* output, const float* image, unsigned nx, unsigned ny,
                                       float cx, float cy, float degrees, int direction) {
  const int n = pk_project_length(nx, ny);
  cuda_2d_project_local_rect(i, output, n, n, image, nx, ny, cx, cy, degrees, direction);
}
// A side by side square about its grid centre.
PICKORA_HD inline void cuda_2d_project_square(unsigned i, float* output, const float* image, unsigned side,
                                              float degrees, int direction) {
  const float c = pk_grid_centre(side);
  cuda_2d_project_local_rect(i, output, (int)side, (int)side, image, side, side, c, c, degrees, direction);
}

// Many angles: thread (i, k) makes element i of row k, angle k read from a device array. Rows are
// n1 long (the larger side in cuda_2d_project_many).
PICKORA_HD inline void cuda_2d_project_local_rect_many(unsigned i, unsigned k, float* output, int n1, int n2,
                                                       const float* angles, int count, const float* image, unsigned nx,
                                                       unsigned ny, float cx, float cy, int direction) {
  if (i >= (unsigned)n1 || k >= (unsigned)count) return;
  output[k * (unsigned)n1 + i] =
      pk_2d_project_line(image, nx, ny, n1, n2, cx, cy, pk_projection_axes(angles[k], direction), (int)i);
}
PICKORA_HD inline void cuda_2d_project_many(unsigned i, unsigned k, float* output, const float* angles, int count,
                                            const float* image, unsigned nx, unsigned ny, float cx, float cy,
                                            int direction) {
  const int n = pk_project_length(nx, ny);
  cuda_2d_project_local_rect_many(i, k, output, n, n, angles, count, image, nx, ny, cx, cy, direction);
}

// ---- Device wrappers (device pointers; angles of the _many forms on the device) ----------------

void hcuda_2d_project_square(float* output, const float* image, unsigned side, float degrees, int direction);
void hcuda_2d_project(float* output, const float* image, unsigned nx, unsigned ny, float cx, float cy, float degrees,
                      int direction);
void hcuda_2d_project_local_rect(float* output, int n1, int n2, const float* image, unsigned nx, unsigned ny, float cx,
                                 float cy, float degrees, int direction);
void hcuda_2d_project_many(float* output, const float* angles, int count, const float* image, unsigned nx, unsigned ny,
                           float cx, float cy, int direction);
void hcuda_2d_project_local_rect_many(float* output, int n1, int n2, const float* angles, int count, const float* image,
                                      unsigned nx, unsigned ny, float cx, float cy, int direction);

// ---- Host buffers through the device --------------------------------------------------------

void gpu_2d_project_local_rect(float* output, int n1, int n2, const float* image, unsigned nx, unsigned ny, float cx,
                               float cy, float degrees, int direction);
void gpu_2d_project_many(float* output, const float* angles, int count, const float* image, unsigned nx, unsigned ny,
                         float cx, float cy, int direction);
void gpu_2d_project_local_rect_many(float* output, int n1, int n2, const float* angles, int count, const float* image,
                                    unsigned nx, unsigned ny, float cx, float cy, int direction);

// ---- Host twins, plain loops over the same element ------------------------------------------

// Direction 1.
void cpu_2d_project_square(float* output, const float* image, unsigned side, float degrees);
void cpu_2d_project(float* output, const float* image, unsigned nx, unsigned ny, float cx, float cy, float degrees,
                    int direction);
void cpu_2d_project_local_rect(float* output, int n1, int n2, const float* image, unsigned nx, unsigned ny, float cx,
                               float cy, float degrees, int direction);
