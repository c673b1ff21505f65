// Element-wise operations on device images and stacks of images.
//
// An image is nx by ny floats, row-major, row stride nx; a stack is nz images, nx * ny floats
// apart. Each cuda_* function is the work of one thread (x, y) of a grid of 32 x 32 blocks; it
// does nothing outside the image and touches the element y * nx + x (indices in 32 bits).
// Each hcuda_* launcher of the same name takes the same arguments less (x, y), runs the kernel
// over ((nx + 31) / 32, (ny + 31) / 32) blocks, waits, and ends the process through the device
// check on failure. The cpu_* twins are plain host loops with the same arithmetic.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"

PICKORA_HD inline bool pk_in_image(unsigned x, unsigned y, unsigned nx, unsigned ny) { return x < nx && y < ny; }
PICKORA_HD inline unsigned pk_pixel(unsigned x, unsigned y, unsigned nx) { return y * nx + x; }

// ---- Fills and copies -------------------------------------------------------------------

PICKORA_HD inline void cuda_2d_empty(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = 0.0f;
}
PICKORA_HD inline void cuda_2d_cx_empty(unsigned x, unsigned y, float2* a, unsigned nx, unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) {
    const unsigned i = pk_pixel(x, y, nx);
    a[i].x = 0.0f;
    a[i].y = 0.0f;
  }
}
PICKORA_HD inline void cuda_2d_memset(unsigned x, unsigned y, float* a, float value, unsigned nx, unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = value;
}
PICKORA_HD inline void cuda_c2d_memset(unsigned x, unsigned y, float2* a, float2 value, unsigned nx, unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = value;
}
PICKORA_HD inline void cuda_2d_memcpy(unsigned x, unsigned y, float* out, const float* a, unsigned nx, unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = a[pk_pixel(x, y, nx)];
}
PICKORA_HD inline void cuda_c2d_memcpy(unsigned x, unsigned y, float2* out, const float2* a, unsigned nx,
                                       unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = a[pk_pixel(x, y, nx)];
}

// ---- Image and scalars ------------------------------------------------------------------

// Defines cuda_2d_NAME (output, a, nx, ny, k) and cuda_2d_NAME_inplace (a, nx, ny, k) for one
// binary operator with a scalar.
#define PK_2D_SCALAR_PAIR(name, op)                                                                        \
  PICKORA_HD inline void cuda_2d_##name(unsigned x, unsigned y, float* out, const float* a, unsigned nx,  \
                                        unsigned ny, float k) {                                            \
    if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = a[pk_pixel(x, y, nx)] op k;                   \
  }                                                                                                        \
  PICKORA_HD inline void cuda_2d_##name##_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny, \
                                                  float k) {                                               \
    if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = a[pk_pixel(x, y, nx)] op k;                     \
  }
PK_2D_SCALAR_PAIR(add, +)
PK_2D_SCALAR_PAIR(sub, -)
PK_2D_SCALAR_PAIR(multi, *)
PK_2D_SCALAR_PAIR(divide, /)  // a true division, not a product with the reciprocal
#undef PK_2D_SCALAR_PAIR

PICKORA_HD inline void cuda_2d_multi_add(unsigned x, unsigned y, float* out, const float* a, unsigned nx,
                                         unsigned ny, float k, float c) {
  if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = fmaf(a[pk_pixel(x, y, nx)], k, c);
}
PICKORA_HD inline void cuda_2d_add_multi(unsigned x, unsigned y, float* out, const float* a, unsigned nx,
                                         unsigned ny, float k, float c) {
  if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = (a[pk_pixel(x, y, nx)] + k) * c;
}
PICKORA_HD inline void cuda_2d_sub_divide(unsigned x, unsigned y, float* out, const float* a, unsigned nx,
                                          unsigned ny, float k, float c) {
  if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = (a[pk_pixel(x, y, nx)] - k) / c;
}
PICKORA_HD inline void cuda_2d_sub_divide_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny,
                                                  float k, float c) {
  if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = (a[pk_pixel(x, y, nx)] - k) / c;
}

// ---- Functions of one pixel -------------------------------------------------------------

PICKORA_HD inline float pk_sqr(float v) { return v * v; }

// Defines cuda_2d_NAME (output, a, nx, ny) and cuda_2d_NAME_inplace (a, nx, ny) for a function
// of one value.
#define PK_2D_UNARY_PAIR(name, fn)                                                                         \
  PICKORA_HD inline void cuda_2d_##name(unsigned x, unsigned y, float* out, const float* a, unsigned nx,  \
                                        unsigned ny) {                                                     \
    if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = fn(a[pk_pixel(x, y, nx)]);                    \
  }                                                                                                        \
  PICKORA_HD inline void cuda_2d_##name##_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny) { \
    if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = fn(a[pk_pixel(x, y, nx)]);                      \
  }
PK_2D_UNARY_PAIR(sqr, pk_sqr)
PK_2D_UNARY_PAIR(sqrt, sqrtf)
PK_2D_UNARY_PAIR(abs, fabsf)
PK_2D_UNARY_PAIR(exp, expf)
PK_2D_UNARY_PAIR(log, logf)  // log and logf are the same single-precision logarithm
PK_2D_UNARY_PAIR(logf, logf)
PK_2D_UNARY_PAIR(log2, log2f)
PK_2D_UNARY_PAIR(log10, log10f)
PK_2D_UNARY_PAIR(log1p, log1pf)  // and so are log1p and log1pf
PK_2D_UNARY_PAIR(log1pf, log1pf)
#undef PK_2D_UNARY_PAIR

PICKORA_HD inline void cuda_2d_pow2_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny) {
  if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = pk_sqr(a[pk_pixel(x, y, nx)]);
}
PICKORA_HD inline void cuda_2d_pow(unsigned x, unsigned y, float* out, const float* a, unsigned nx, unsigned ny,
                                   float k) {
  if (pk_in_image(x, y, nx, ny)) out[pk_pixel(x, y, nx)] = powf(a[pk_pixel(x, y, nx)], k);
}
PICKORA_HD inline void cuda_2d_powf_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny, float k) {
  if (pk_in_image(x, y, nx, ny)) a[pk_pixel(x, y, nx)] = powf(a[pk_pixel(x, y, nx)], k);
}

// ---- Two images -------------------------------------------------------------------------

// Defines cuda_x2d_NAME (output, a, b, nx, ny) and cuda_x2d_NAME_inplace (a, b, nx, ny).
#define PK_X2D_PAIR(name, op)                                                                              \
  PICKORA_HD inline void cuda_x2d_##name(unsigned x, unsigned y, float* out, const float* a, const float* b, \
                                         unsigned nx, unsigned ny) {                                       \
    if (pk_in_image(x, y, nx, ny)) {                                                                       \
      const unsigned i = pk_pixel(x, y, nx);                                                               \
      out[i] = a[i] op b[i];                                                                               \
    }                                                                                                      \
  }                                                                                                        \
  PICKORA_HD inline void cuda_x2d_##name##_inplace(unsigned x, unsigned y, float* a, const float* b,       \
                                                   unsigned nx, unsigned ny) {                             \
    if (pk_in_image(x, y, nx, ny)) {                                                                       \
      const unsigned i = pk_pixel(x, y, nx);                                                               \
      a[i] = a[i] op b[i];                                                                                 \
    }                                                                                                      \
  }
PK_X2D_PAIR(add, +)
PK_X2D_PAIR(sub, -)
PK_X2D_PAIR(multi, *)
PK_X2D_PAIR(divide, /)
#undef PK_X2D_PAIR

// ---- Stacks: one thread per pixel, slices in ascending order ----------------------------

PICKORA_HD inline void cuda_2ds_logf(unsigned x, unsigned y, float* out, const float* in, unsigned nx, unsigned ny,
                                     unsigned nz) {
  if (!pk_in_image(x, y, nx, ny)) return;
  const unsigned slice = nx * ny;
  for (unsigned z = 0, i = pk_pixel(x, y, nx); z < nz; ++z, i += slice) out[i] = logf(in[i]);
}
PICKORA_HD inline void cuda_2ds_logf_inplace(unsigned x, unsigned y, float* a, unsigned nx, unsigned ny,
                                             unsigned nz) {
  if (!pk_in_image(x, y, nx, ny)) return;
  const unsigned slice = nx * ny;
  for (unsigned z = 0, i = pk_pixel(x, y, nx); z < nz; ++z, i += slice) a[i] = logf(a[i]);
}
PICKORA_HD inline void cuda_2ds_ave(unsigned x, unsigned y, float* out, const float* in, unsigned nx, unsigned ny,
                                    unsigned nz) {
  if (!pk_in_image(x, y, nx, ny)) return;
  const unsigned slice = nx * ny, p = pk_pixel(x, y, nx);
  float sum = 0.0f;
  for (unsigned z = 0, i = p; z < nz; ++z, i += slice) sum = sum + in[i];
  out[p] = sum / (float)nz;
}
PICKORA_HD inline void cuda_2ds_ave_logf(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                         unsigned ny, unsigned nz) {
  if (!pk_in_image(x, y, nx, ny)) return;
  const unsigned slice = nx * ny, p = pk_pixel(x, y, nx);
  float sum = 0.0f;
  for (unsigned z = 0, i = p; z < nz; ++z, i += slice) sum = sum + logf(in[i]);
  out[p] = sum / (float)nz;
}
// Despite its name this is the plain average over the slices, no logarithm taken; callers that
// want the average of the logarithms use gpu_2ds_logf_ave or cuda_2ds_ave_logf.
PICKORA_HD inline void cuda_2ds_logf_ave(unsigned x, unsigned y, float* out, const float* in, unsigned nx,
                                         unsigned ny, unsigned nz) {
  cuda_2ds_ave(x, y, out, in, nx, ny, nz);
}

// ---- Launchers --------------------------------------------------------------------------

void hcuda_2d_empty(float* a, unsigned nx, unsigned ny);
void hcuda_2d_cx_empty(float2* a, unsigned nx, unsigned ny);
void hcuda_2d_memset(float* a, float value, unsigned nx, unsigned ny);
void hcuda_c2d_memset(float2* a, float2 value, unsigned nx, unsigned ny);
void hcuda_2d_memcpy(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_c2d_memcpy(float2* out, const float2* a, unsigned nx, unsigned ny);

void hcuda_2d_add(float* out, const float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_sub(float* out, const float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_multi(float* out, const float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_divide(float* out, const float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_add_inplace(float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_sub_inplace(float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_multi_inplace(float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_divide_inplace(float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_multi_add(float* out, const float* a, unsigned nx, unsigned ny, float k, float c);
void hcuda_2d_add_multi(float* out, const float* a, unsigned nx, unsigned ny, float k, float c);
void hcuda_2d_sub_divide(float* out, const float* a, unsigned nx, unsigned ny, float k, float c);
void hcuda_2d_sub_divide_inplace(float* a, unsigned nx, unsigned ny, float k, float c);

void hcuda_2d_sqr(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_sqrt(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_abs(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_exp(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_log(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_logf(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_log2(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_log10(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_log1p(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_log1pf(float* out, const float* a, unsigned nx, unsigned ny);
void hcuda_2d_sqr_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_sqrt_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_abs_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_exp_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_log_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_logf_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_log2_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_log10_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_log1p_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_log1pf_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_pow2_inplace(float* a, unsigned nx, unsigned ny);
void hcuda_2d_pow(float* out, const float* a, unsigned nx, unsigned ny, float k);
void hcuda_2d_powf_inplace(float* a, unsigned nx, unsigned ny, float k);

void hcuda_x2d_add(float* out, const float* a, const float* b, unsigned nx, unsigned ny);
void hcuda_x2d_sub(float* out, const float* a, const float* b, unsigned nx, unsigned ny);
void hcuda_x2d_multi(float* out, const float* a, const float* b, unsigned nx, unsigned ny);
void hcuda_x2d_divide(float* out, const float* a, const float* b, unsigned nx, unsigned ny);
void hcuda_x2d_add_inplace(float* a, const float* b, unsigned nx, unsigned ny);
void hcuda_x2d_sub_inplace(float* a, const float* b, unsigned nx, unsigned ny);  // a = a - b
void hcuda_x2d_multi_inplace(float* a, const float* b, unsigned nx, unsigned ny);
void hcuda_x2d_divide_inplace(float* a, const float* b, unsigned nx, unsigned ny);

// Negates every pixel: cuda_2d_multi_inplace with k = -1.0.
void hcuda_2d_invert_inplace(float* a, unsigned nx, unsigned ny);
// Multiplies every slice of the stack a by the one image b, one launch per slice.
void hcuda_x2ds_multi_inplace(float* a, const float* b, unsigned nx, unsigned ny, unsigned nz);
// a = a - b on host images, through the device.
void gpu_x2d_sub_inplace(float* a, const float* b, unsigned nx, unsigned ny);

void hcuda_2ds_logf(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);
void hcuda_2ds_logf_inplace(float* a, unsigned nx, unsigned ny, unsigned nz);
void hcuda_2ds_ave(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);
void hcuda_2ds_ave_logf(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);
void hcuda_2ds_logf_ave(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);

// Averages of a host stack into a host image, one slice on the device at a time: the plain
// average, and (both of the others) the average of the natural logarithms.
void gpu_2ds_ave(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);
void gpu_2ds_ave_logf(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);
void gpu_2ds_logf_ave(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz);

// ---- Host twins on host images, single precision ----------------------------------------

void cpu_2d_memset(float* a, float value, unsigned nx, unsigned ny);
void cpu_2d_empty(float* a, unsigned nx, unsigned ny);
void cpu_2d_multi_add(float* out, const float* a, unsigned nx, unsigned ny, float k, float c);  // fused
void cpu_2d_multi_add_inplace(float* a, unsigned nx, unsigned ny, float k, float c);         // fused
void cpu_2d_invert_inplace(float* a, unsigned nx, unsigned ny);
void cpu_x2d_add_inplace(float* a, const float* b, unsigned nx, unsigned ny);
void cpu_x2d_sub_inplace(float* a, const float* b, unsigned nx, unsigned ny);
void cpu_x2d_multi_inplace(float* a, const float* b, unsigned nx, unsigned ny);
void cpu_x2d_divide_inplace(float* a, const float* b, unsigned nx, unsigned ny);
void cpu_cxc_2d_add_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void cpu_cxc_2d_sub_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void cpu_cxc_2d_multi_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void cpu_cxc_2d_divide_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
