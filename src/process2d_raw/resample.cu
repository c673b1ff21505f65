// Launchers of the resampling kernels.
#include <cmath>

#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "process2d_raw/resample.h"

void hcuda_2d_rotate_anycenter(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy,
                               float degrees) {
  const float a = degrees * kResampleDegToRad;
  const float c = cosf(a), s = sinf(a);
  PK_LAUNCH_IMAGE(
      nx, ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_rotate_anycenter_cs(x, y, src, out, nx, ny, cx, cy, c, s); });
}

void hcuda_2d_rotate_translate(const float* src, float* out, unsigned nx, unsigned ny, float degrees, float tx,
                               float ty) {
  const float a = degrees * kResampleDegToRad;
  const float c = cosf(a), s = sinf(a);
  PK_LAUNCH_IMAGE(
      nx, ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_rotate_translate_cs(x, y, src, out, nx, ny, c, s, tx, ty); });
}

void hcuda_2d_translate_rotate(const float* src, float* out, unsigned nx, unsigned ny, float tx, float ty,
                               float degrees) {
  const float a = pk_degrees_to_radians_double(degrees);
  const float c = cosf(a), s = sinf(a);
  PK_LAUNCH_IMAGE(
      nx, ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_translate_rotate_cs(x, y, src, out, nx, ny, tx, ty, c, s); });
}

void hcuda_2d_translate(const float* src, float* out, unsigned nx, unsigned ny, float tx, float ty) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_translate(x, y, src, out, nx, ny, tx, ty); });
}

void hcuda_2d_translate_x(const float* src, float* out, unsigned nx, unsigned ny, float tx) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_translate_x(x, y, src, out, nx, ny, tx); });
}

void hcuda_2d_translate_y(const float* src, float* out, unsigned nx, unsigned ny, float ty) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_translate_y(x, y, src, out, nx, ny, ty); });
}

void hcuda_2d_transform(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy, RT_Mat2D m,
                        int direction) {
  PK_LAUNCH_IMAGE(
      nx, ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_transform(x, y, src, out, nx, ny, cx, cy, m, direction); });
}

void hcuda_2d_transform2(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy, RT_Mat2D m,
                         int direction) {
  PK_LAUNCH_IMAGE(
      nx, ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_transform2(x, y, src, out, nx, ny, cx, cy, m, direction); });
}

void hcuda_2d_rotate_ave_anycenter(const float* src, float* out, unsigned nx, unsigned ny, float cx, float cy,
                                   float degrees) {
  if (!std::isfinite(degrees) || std::fabs(degrees) > 360.0f)
    PK_FATAL("The half range of an arc average must be a finite angle of at most 360 degrees, not %g", degrees);
  const float radians = degrees * kResampleDegToRad;
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_2d_rotate_ave_anycenter_rad(x, y, src, out, nx, ny, cx, cy, radians);
      });
}
