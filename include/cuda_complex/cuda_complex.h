// Element-wise operations on complex device arrays (float2: real part, then imaginary part).
//
// The flat kernels (input, output, n) use the flat shape of 1024-thread blocks; the 2D kernels
// use the image shape of 32 x 32 threads over nx by ny elements, row stride nx. Launchers
// hcuda_* take the kernel's arguments less the thread coordinates, wait, and end the process
// through the device check on failure.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"

// ---- Scalar forms, shared by the kernels and the host twins -----------------------------

PICKORA_HD inline float2 pk_cx(float re, float im) {
  float2 v;
  v.x = re;
  v.y = im;
  return v;
}

PICKORA_HD inline float2 pk_cx_add(float2 a, float2 b) { return pk_cx(a.x + b.x, a.y + b.y); }
PICKORA_HD inline float2 pk_cx_sub(float2 a, float2 b) { return pk_cx(a.x - b.x, a.y - b.y); }

// Real part with each product rounded on its own; imaginary part fused.
PICKORA_HD inline float2 pk_cx_multi(float2 a, float2 b) {
  return pk_cx(a.x * b.x - a.y * b.y, fmaf(b.y, a.x, a.y * b.x));
}

PICKORA_HD inline float2 pk_cx_divide(float2 a, float2 b) {
  const float d = fmaf(b.y, b.y, b.x * b.x);
  return pk_cx(fmaf(a.x, b.x, a.y * b.y) / d, (a.y * b.x - a.x * b.y) / d);
}

// a times the conjugate of b.
PICKORA_HD inline float2 pk_cx_multconj(float2 a, float2 b) {
  return pk_cx(fmaf(a.x, b.x, a.y * b.y), a.y * b.x - a.x * b.y);
}

// |z| squared, fused.
PICKORA_HD inline float pk_cx_power(float2 z) { return fmaf(z.x, z.x, z.y * z.y); }

// |z| without overflow or underflow of the squares: the larger part times
// sqrt(1 + (smaller / larger)^2). Zero gives 0, an infinite part gives infinity, NaN spreads.
PICKORA_HD inline float pk_cx_safe_mod(float2 z) {
  const float kFloatMax = 3.402823466e38f;
  const float a = fabsf(z.x), b = fabsf(z.y);
  if (a > kFloatMax) return a;  // an infinite part wins, even over NaN
  if (b > kFloatMax) return b;
  const float big = a > b ? a : b;
  const float small = a > b ? b : a;
  if (big == 0.0f && small == 0.0f) return 0.0f;
  const float r = small / big;
  return big * sqrtf(fmaf(r, r, 1.0f));
}

// ---- Flat kernels: const float2* input, float* output, n --------------------------------

PICKORA_HD inline void cuda_complex_mod(unsigned i, const float2* in, float* out, unsigned long n) {
  if (i < n) out[i] = pk_cx_safe_mod(in[i]);
}
PICKORA_HD inline void cuda_complex_phi(unsigned i, const float2* in, float* out, unsigned long n) {
  if (i < n) out[i] = atan2f(in[i].y, in[i].x);
}
PICKORA_HD inline void cuda_complex_pow(unsigned i, const float2* in, float* out, unsigned long n) {
  if (i < n) out[i] = pk_cx_power(in[i]);
}
PICKORA_HD inline void cuda_complex_logmod(unsigned i, const float2* in, float* out, unsigned long n) {
  if (i < n) out[i] = logf(sqrtf(pk_cx_power(in[i])));
}
PICKORA_HD inline void cuda_complex_log1p_mod(unsigned i, const float2* in, float* out, unsigned long n) {
  if (i < n) out[i] = logf(1.0f + sqrtf(pk_cx_power(in[i])));
}

// ---- 2D kernels -------------------------------------------------------------------------

PICKORA_HD inline bool pk_cx_in_image(unsigned x, unsigned y, unsigned nx, unsigned ny) { return x < nx && y < ny; }

PICKORA_HD inline void cuda_complex2d_norm(unsigned x, unsigned y, float2* out, const float2* a, unsigned nx,
                                           unsigned ny, float k) {
  if (!pk_cx_in_image(x, y, nx, ny)) return;
  const unsigned i = y * nx + x;
  out[i] = pk_cx(a[i].x / k, a[i].y / k);
}
PICKORA_HD inline void cuda_c2d_divR(unsigned x, unsigned y, float2* out, const float2* a, unsigned nx, unsigned ny,
                                     float k) {
  cuda_complex2d_norm(x, y, out, a, nx, ny, k);
}
PICKORA_HD inline void cuda_c2d_divR_inplace(unsigned x, unsigned y, float2* a, unsigned nx, unsigned ny, float k) {
  cuda_complex2d_norm(x, y, a, a, nx, ny, k);
}

// Moduli here are the plain root of the power, not the overflow-safe form.
#define PK_C2D_REAL_OF_COMPLEX(name, expr)                                                                \
  PICKORA_HD inline void name(unsigned x, unsigned y, float* out, const float2* a, unsigned nx, unsigned ny) { \
    if (!pk_cx_in_image(x, y, nx, ny)) return;                                                            \
    const unsigned i = y * nx + x;                                                                        \
    const float p = pk_cx_power(a[i]);                                                                    \
    out[i] = (expr);                                                                                      \
  }
PK_C2D_REAL_OF_COMPLEX(cuda_c2d_mod, sqrtf(p))
PK_C2D_REAL_OF_COMPLEX(cuda_c2d_pow, p)
PK_C2D_REAL_OF_COMPLEX(cuda_c2d_logmod, logf(sqrtf(p)))
PK_C2D_REAL_OF_COMPLEX(cuda_c2d_logmod_1p, logf(1.0f + sqrtf(p)))
#undef PK_C2D_REAL_OF_COMPLEX

PICKORA_HD inline void cuda_c2d_mod_divR(unsigned x, unsigned y, float* out, const float2* a, unsigned nx,
                                         unsigned ny, float k) {
  if (!pk_cx_in_image(x, y, nx, ny)) return;
  const unsigned i = y * nx + x;
  out[i] = sqrtf(pk_cx_power(a[i])) / k;
}
PICKORA_HD inline void cuda_c2d_pow_divR(unsigned x, unsigned y, float* out, const float2* a, unsigned nx,
                                         unsigned ny, float k) {
  if (!pk_cx_in_image(x, y, nx, ny)) return;
  const unsigned i = y * nx + x;
  out[i] = pk_cx_power(a[i]) / k;
}

// Complex with complex: cuda_cxc_2d_NAME (output, a, b, nx, ny) and, for all but
// multconj_divide, cuda_cxc_2d_NAME_inplace (a, b, nx, ny).
#define PK_CXC_PAIR(name, form)                                                                              \
  PICKORA_HD inline void cuda_cxc_2d_##name(unsigned x, unsigned y, float2* out, const float2* a,            \
                                            const float2* b, unsigned nx, unsigned ny) {                     \
    if (!pk_cx_in_image(x, y, nx, ny)) return;                                                               \
    const unsigned i = y * nx + x;                                                                           \
    out[i] = form(a[i], b[i]);                                                                               \
  }                                                                                                          \
  PICKORA_HD inline void cuda_cxc_2d_##name##_inplace(unsigned x, unsigned y, float2* a, const float2* b,    \
                                                      unsigned nx, unsigned ny) {                            \
    cuda_cxc_2d_##name(x, y, a, a, b, nx, ny);                                                               \
  }
PK_CXC_PAIR(add, pk_cx_add)
PK_CXC_PAIR(sub, pk_cx_sub)
PK_CXC_PAIR(multi, pk_cx_multi)
PK_CXC_PAIR(divide, pk_cx_divide)
PK_CXC_PAIR(multconj, pk_cx_multconj)
#undef PK_CXC_PAIR

PICKORA_HD inline void cuda_cxc_2d_multconj_divide(unsigned x, unsigned y, float2* out, const float2* a,
                                                   const float2* b, unsigned nx, unsigned ny, float k) {
  if (!pk_cx_in_image(x, y, nx, ny)) return;
  const unsigned i = y * nx + x;
  const float2 p = pk_cx_multconj(a[i], b[i]);
  out[i] = pk_cx(p.x / k, p.y / k);
}

// Complex with real: both parts multiplied or divided by r.
PICKORA_HD inline void cuda_cxr_2d_multi(unsigned x, unsigned y, float2* out, const float2* a, const float* r,
                                         unsigned nx, unsigned ny) {
  if (!pk_cx_in_image(x, y, nx, ny)) return;
  const unsigned i = y * nx + x;
  out[i] = pk_cx(a[i].x * r[i], a[i].y * r[i]);
}
PICKORA_HD inline void cuda_cxr_2d_divide(unsigned x, unsigned y, float2* out, const float2* a, const float* r,
                                          unsigned nx, unsigned ny) {
  if (!pk_cx_in_image(x, y, nx, ny)) return;
  const unsigned i = y * nx + x;
  out[i] = pk_cx(a[i].x / r[i], a[i].y / r[i]);
}
PICKORA_HD inline void cuda_cxr_2d_multi_inplace(unsigned x, unsigned y, float2* a, const float* r, unsigned nx,
                                                 unsigned ny) {
  cuda_cxr_2d_multi(x, y, a, a, r, nx, ny);
}
PICKORA_HD inline void cuda_cxr_2d_divide_inplace(unsigned x, unsigned y, float2* a, const float* r, unsigned nx,
                                                  unsigned ny) {
  cuda_cxr_2d_divide(x, y, a, a, r, nx, ny);
}

// ---- Launchers --------------------------------------------------------------------------

void hcuda_complex_mod(const float2* in, float* out, unsigned long n);
void hcuda_complex_phi(const float2* in, float* out, unsigned long n);
void hcuda_complex_pow(const float2* in, float* out, unsigned long n);
void hcuda_complex_logmod(const float2* in, float* out, unsigned long n);
void hcuda_complex_log1p_mod(const float2* in, float* out, unsigned long n);
// Letter aliases: A modulus, P phase, W power, L log modulus, M log(1 + modulus).
void hcuda_complex_A(const float2* in, float* out, unsigned long n);
void hcuda_complex_P(const float2* in, float* out, unsigned long n);
void hcuda_complex_W(const float2* in, float* out, unsigned long n);
void hcuda_complex_L(const float2* in, float* out, unsigned long n);
void hcuda_complex_M(const float2* in, float* out, unsigned long n);
// Runs the kernel of the letter 'A', 'P', 'W', 'L' or 'M'; any other letter launches nothing.
void hcuda_complex_proc(const float2* in, float* out, unsigned long n, char letter);

void hcuda_complex2d_norm(float2* out, const float2* a, unsigned nx, unsigned ny, float k);
void hcuda_c2d_divR(float2* out, const float2* a, unsigned nx, unsigned ny, float k);
void hcuda_c2d_divR_inplace(float2* a, unsigned nx, unsigned ny, float k);
void hcuda_c2d_mod(float* out, const float2* a, unsigned nx, unsigned ny);
void hcuda_c2d_pow(float* out, const float2* a, unsigned nx, unsigned ny);
void hcuda_c2d_logmod(float* out, const float2* a, unsigned nx, unsigned ny);
void hcuda_c2d_logmod_1p(float* out, const float2* a, unsigned nx, unsigned ny);
void hcuda_c2d_mod_divR(float* out, const float2* a, unsigned nx, unsigned ny, float k);
void hcuda_c2d_pow_divR(float* out, const float2* a, unsigned nx, unsigned ny, float k);

void hcuda_cxc_2d_add(float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_sub(float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_multi(float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_divide(float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_multconj(float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_multconj_divide(float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny, float k);
void hcuda_cxc_2d_add_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_sub_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_multi_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_divide_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);
void hcuda_cxc_2d_multconj_inplace(float2* a, const float2* b, unsigned nx, unsigned ny);

void hcuda_cxr_2d_multi(float2* out, const float2* a, const float* r, unsigned nx, unsigned ny);
void hcuda_cxr_2d_divide(float2* out, const float2* a, const float* r, unsigned nx, unsigned ny);
void hcuda_cxr_2d_multi_inplace(float2* a, const float* r, unsigned nx, unsigned ny);
void hcuda_cxr_2d_divide_inplace(float2* a, const float* r, unsigned nx, unsigned ny);
// Multiplies every slice of the complex stack a by the one real image r, one launch per slice.
void hcuda_cxr_2ds_multi_inplace(float2* a, const float* r, unsigned nx, unsigned ny, unsigned nz);
