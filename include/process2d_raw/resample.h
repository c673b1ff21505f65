// Resampling of one image: rotations about any centre, translations, affine transforms and the
// average along circular arcs.
//
// Every kernel makes one output pixel (x, y) of an nx by ny image: it computes the source
// position (sx, sy) and gives it the toolkit's sample (process2d_raw/bilinear.h): 0.0 outside
// the image, else the bilinear value. Angles are degrees; the picture turns from the +x axis
// toward the +y axis, as in the matching. The grid centre is ((nx - 1) 0.5, (ny - 1) 0.5).
// The kernels that take degrees have a _cs element taking cos and sin: their hcuda_ wrappers
// take cos and sin once on the host, so both backends turn by the same values.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"
#include "process2d_raw/bilinear.h"
#include "sym/rt_mat2d.h"

// Degrees to radians with the single-precision value of pi / 180.
constexpr float kResampleDegToRad = 0.017453292f;

// The double conversion: (double degrees * pi / 180) narrowed to float.
PICKORA_HD inline float pk_degrees_to_radians_double(float degrees) {
  return (float)((double)degrees * 3.141592653589793 / 180.0);
}

PICKORA_HD inline float pk_grid_centre(unsigned n) { return (float)(n - 1) * 0.5f; }

// ---- Rotations and translations -------------------------------------------------------------

// Turn about (cx, cy). The sum in brackets is the matching's order, so about the grid centre
// this is cuda_2d_rotate to the bit.
PICKORA_HD inline void cuda_2d_rotate_anycenter_cs(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                   unsigned ny, float cx, float cy, float c, float s) {
  if (x >= nx || y >= ny) return;
  const float dx = (float)x - cx, dy = (float)y - cy;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, cx + (dx * c + dy * s), cy + (dy * c - dx * s));
}
PICKORA_HD inline void cuda_2d_rotate_anycenter(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                unsigned ny, float cx, float cy, float degrees) {
  const float a = degrees * kResampleDegToRad;
  cuda_2d_rotate_anycenter_cs(x, y, src, out, nx, ny, cx, cy, cosf(a), sinf(a));
}

// Turn about the grid centre, then shift by (tx, ty).
PICKORA_HD inline void cuda_2d_rotate_translate_cs(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                   unsigned ny, float c, float s, float tx, float ty) {
  if (x >= nx || y >= ny) return;
  const float c0x = pk_grid_centre(nx), c0y = pk_grid_centre(ny);
  const float dx = (float)x - c0x - tx, dy = (float)y - c0y - ty;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, c0x + (dx * c + dy * s), c0y + (dy * c - dx * s));
}
PICKORA_HD inline void cuda_2d_rotate_translate(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                unsigned ny, float degrees, float tx, float ty) {
  const float a = degrees * kResampleDegToRad;
  cuda_2d_rotate_translate_cs(x, y, src, out, nx, ny, cosf(a), sinf(a), tx, ty);
}

// Shift by (tx, ty), then turn about the grid centre; the angle by the double conversion.
PICKORA_HD inline void cuda_2d_translate_rotate_cs(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                   unsigned ny, float tx, float ty, float c, float s) {
  if (x >= nx || y >= ny) return;
  const float c0x = pk_grid_centre(nx), c0y = pk_grid_centre(ny);
  const float dx = (float)x - c0x, dy = (float)y - c0y;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, c0x + (dx * c + dy * s) - tx, c0y + (dy * c - dx * s) - ty);
}
PICKORA_HD inline void cuda_2d_translate_rotate(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                unsigned ny, float tx, float ty, float degrees) {
  const float a = pk_degrees_to_radians_double(degrees);
  cuda_2d_translate_rotate_cs(x, y, src, out, nx, ny, tx, ty, cosf(a), sinf(a));
}

// Shifts: the picture moves by +t. The one-axis forms interpolate along their own axis only.
PICKORA_HD inline void cuda_2d_translate(unsigned x, unsigned y, const float* src, float* out, unsigned nx, unsigned ny,
                                         float tx, float ty) {
  if (x >= nx || y >= ny) return;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, (float)x - tx, (float)y - ty);
}
PICKORA_HD inline void cuda_2d_translate_x(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                           unsigned ny, float tx) {
  if (x >= nx || y >= ny) return;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, (float)x - tx, (float)y);
}
PICKORA_HD inline void cuda_2d_translate_y(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                           unsigned ny, float ty) {
  if (x >= nx || y >= ny) return;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, (float)x, (float)y - ty);
}

// ---- Affine transform by a record -----------------------------------------------------------

// The record that maps output to source. direction -1 takes the record as it is; any other
// value its inverse, so that the picture moves as the record says. The inverse is general (the
// determinant divided out, no orthogonality assumed), in single precision.
PICKORA_HD inline RT_Mat2D pk_rt_mat2d_for_direction(RT_Mat2D m, int direction) {
  if (direction == -1) return m;
  const float d = m.R11 * m.R22 - m.R12 * m.R21;
  RT_Mat2D inv;
  inv.R11 = m.R22 / d;
  inv.R12 = -m.R12 / d;
  inv.R21 = -m.R21 / d;
  inv.R22 = m.R11 / d;
  inv.Tx = (m.R12 * m.Ty - m.R22 * m.Tx) / d;
  inv.Ty = (m.R21 * m.Tx - m.R11 * m.Ty) / d;
  return inv;
}

// Source position of output (x, y) about (cx, cy) under the output-to-source record m.
PICKORA_HD inline void pk_transform_sample(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                           unsigned ny, float cx, float cy, const RT_Mat2D& m) {
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float sx = (dx * m.R11 + dy * m.R12) + m.Tx + cx;
  const float sy = (dx * m.R21 + dy * m.R22) + m.Ty + cy;
  out[y * nx + x] = pk_2d_sample(src, nx, ny, sx, sy);
}

// The two forms differ only in whether the record is turned before or after the bounds test.
PICKORA_HD inline void cuda_2d_transform(unsigned x, unsigned y, const float* src, float* out, unsigned nx, unsigned ny,
                                         float cx, float cy, RT_Mat2D m, int direction) {
  if (x >= nx || y >= ny) return;
  pk_transform_sample(x, y, src, out, nx, ny, cx, cy, pk_rt_mat2d_for_direction(m, direction));
}
PICKORA_HD inline void cuda_2d_transform2(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                          unsigned ny, float cx, float cy, RT_Mat2D m, int direction) {
  const RT_Mat2D used = pk_rt_mat2d_for_direction(m, direction);
  if (x >= nx || y >= ny) return;
  pk_transform_sample(x, y, src, out, nx, ny, cx, cy, used);
}

// ---- Arc average ----------------------------------------------------------------------------

// The mean of the samples along the arc of half range `radians` (its absolute value) through
// (x, y) about (cx, cy), one sample about every pixel of arc length, starting at -range. Pixels
// within radius 1 of the centre, and a zero range, give 0.0; w starts at 1e-5 so that an arc
// with no sample inside the image divides 0 by it.
PICKORA_HD inline void cuda_2d_rotate_ave_anycenter_rad(unsigned x, unsigned y, const float* src, float* out,
                                                        unsigned nx, unsigned ny, float cx, float cy, float radians) {
  if (x >= nx || y >= ny) return;
  const float A = fabsf(radians);
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float rho = sqrtf(dx * dx + dy * dy);
  float sum = 0.0f, w = 1e-5f;
  if (rho > 1.0f && A > 0.0f) {
    const float step = 1.0f / rho;
    float t = -A;
    do {
      const float c = cosf(t), s = sinf(t);
      const float sx = cx + (dx * c + dy * s), sy = cy + (dy * c - dx * s);
      if (pk_2d_sample_inside(sx, sy, nx, ny)) {
        sum += pk_2d_bilinear(src, nx, sx, sy);
        w += 1.0f;
      }
      t = t + step;
    } while (t < A);
  }
  out[y * nx + x] = sum / w;
}
PICKORA_HD inline void cuda_2d_rotate_ave_anycenter(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                                    unsigned ny, float cx, float cy, float degrees) {
  cuda_2d_rotate_ave_anycenter_rad(x, y, src, out, nx, ny, cx, cy, degrees * kResampleDegToRad);
}

// ---- Wrappers on device images (32 x 32 blocks, wait, device check) ----------------------------

void hcuda_2d_rotate_anycenter(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy,
                               float degrees);
void hcuda_2d_rotate_translate(const float* src, float* out, unsigned nx, unsigned ny, float degrees, float tx,
                               float ty);
void hcuda_2d_translate_rotate(const float* src, float* out, unsigned nx, unsigned ny, float tx, float ty,
                               float degrees);
void hcuda_2d_translate(const float* src, float* out, unsigned nx, unsigned ny, float tx, float ty);
void hcuda_2d_translate_x(const float* src, float* out, unsigned nx, unsigned ny, float tx);
void hcuda_2d_translate_y(const float* src, float* out, unsigned nx, unsigned ny, float ty);
void hcuda_2d_transform(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy, RT_Mat2D m,
                        int direction);
void hcuda_2d_transform2(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy, RT_Mat2D m,
                         int direction);
// The half range must be finite and at most 360 degrees: the step along the arc is one pixel,
// and a range far beyond a full turn would only repeat samples (an infinite one would never end).
// Anything else ends the run with a fatal report.
void hcuda_2d_rotate_ave_anycenter(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy,
                                   float degrees);
