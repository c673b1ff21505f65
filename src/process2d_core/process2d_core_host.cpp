// Host twins of the image kernels: plain loops over nx * ny elements, single precision,
// with the same arithmetic as the device forms.
#include <cstddef>

#include "cuda_complex/cuda_complex.h"
#include "process2d_core/process2d_core.h"

namespace {

std::size_t pixels(unsigned nx, unsigned ny) { return static_cast<std::size_t>(nx) * ny; }

}  // namespace

void cpu_2d_memset(float* a, float value, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = value;
}

void cpu_2d_empty(float* a, unsigned nx, unsigned ny) { cpu_2d_memset(a, 0.0f, nx, ny); }

void cpu_2d_multi_add(float* out, const float* a, unsigned nx, unsigned ny, float k, float c) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) out[i] = fmaf(a[i], k, c);
}

void cpu_2d_multi_add_inplace(float* a, unsigned nx, unsigned ny, float k, float c) {
  cpu_2d_multi_add(a, a, nx, ny, k, c);
}

void cpu_2d_invert_inplace(float* a, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = -a[i];
}

void cpu_x2d_add_inplace(float* a, const float* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = a[i] + b[i];
}
void cpu_x2d_sub_inplace(float* a, const float* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = a[i] - b[i];
}
void cpu_x2d_multi_inplace(float* a, const float* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = a[i] * b[i];
}
void cpu_x2d_divide_inplace(float* a, const float* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = a[i] / b[i];
}

void cpu_cxc_2d_add_inplace(float2* a, const float2* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = pk_cx_add(a[i], b[i]);
}
void cpu_cxc_2d_sub_inplace(float2* a, const float2* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = pk_cx_sub(a[i], b[i]);
}
void cpu_cxc_2d_multi_inplace(float2* a, const float2* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = pk_cx_multi(a[i], b[i]);
}
void cpu_cxc_2d_divide_inplace(float2* a, const float2* b, unsigned nx, unsigned ny) {
  for (std::size_t i = 0, n = pixels(nx, ny); i < n; ++i) a[i] = pk_cx_divide(a[i], b[i]);
}
