// Launchers of the image and stack kernels: the image shape, then the device check.
#include "process2d_core/process2d_core.h"

#include <cstddef>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"

// Every launcher here has the same form: one image-shaped launch of the kernel of the same
// name with the same arguments. The macro keeps the long list readable.
#define PK_IMAGE_LAUNCHER(kernel, params, ...)                                                        \
  void h##kernel params {                                                                             \
    PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { kernel(x, y, __VA_ARGS__); }); \
  }

// ---- Fills and copies -------------------------------------------------------------------

PK_IMAGE_LAUNCHER(cuda_2d_empty, (float* a, unsigned nx, unsigned ny), a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_2d_cx_empty, (float2* a, unsigned nx, unsigned ny), a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_2d_memset, (float* a, float value, unsigned nx, unsigned ny), a, value, nx, ny)
PK_IMAGE_LAUNCHER(cuda_c2d_memset, (float2* a, float2 value, unsigned nx, unsigned ny), a, value, nx, ny)
PK_IMAGE_LAUNCHER(cuda_2d_memcpy, (float* out, const float* a, unsigned nx, unsigned ny), out, a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_c2d_memcpy, (float2* out, const float2* a, unsigned nx, unsigned ny), out, a, nx, ny)

// ---- Image and scalars ------------------------------------------------------------------

#define PK_SCALAR_LAUNCHERS(name)                                                                     \
  PK_IMAGE_LAUNCHER(cuda_2d_##name, (float* out, const float* a, unsigned nx, unsigned ny, float k), \
                    out, a, nx, ny, k)                                                                \
  PK_IMAGE_LAUNCHER(cuda_2d_##name##_inplace, (float* a, unsigned nx, unsigned ny, float k), a, nx, ny, k)
PK_SCALAR_LAUNCHERS(add)
PK_SCALAR_LAUNCHERS(sub)
PK_SCALAR_LAUNCHERS(multi)
PK_SCALAR_LAUNCHERS(divide)
#undef PK_SCALAR_LAUNCHERS

PK_IMAGE_LAUNCHER(cuda_2d_multi_add, (float* out, const float* a, unsigned nx, unsigned ny, float k, float c), out,
                  a, nx, ny, k, c)
PK_IMAGE_LAUNCHER(cuda_2d_add_multi, (float* out, const float* a, unsigned nx, unsigned ny, float k, float c), out,
                  a, nx, ny, k, c)
PK_IMAGE_LAUNCHER(cuda_2d_sub_divide, (float* out, const float* a, unsigned nx, unsigned ny, float k, float c), out,
                  a, nx, ny, k, c)
PK_IMAGE_LAUNCHER(cuda_2d_sub_divide_inplace, (float* a, unsigned nx, unsigned ny, float k, float c), a, nx, ny, k,
                  c)

// ---- Functions of one pixel -------------------------------------------------------------

#define PK_UNARY_LAUNCHERS(name)                                                                              \
  PK_IMAGE_LAUNCHER(cuda_2d_##name, (float* out, const float* a, unsigned nx, unsigned ny), out, a, nx, ny) \
  PK_IMAGE_LAUNCHER(cuda_2d_##name##_inplace, (float* a, unsigned nx, unsigned ny), a, nx, ny)
PK_UNARY_LAUNCHERS(sqr)
PK_UNARY_LAUNCHERS(sqrt)
PK_UNARY_LAUNCHERS(abs)
PK_UNARY_LAUNCHERS(exp)
PK_UNARY_LAUNCHERS(log)
PK_UNARY_LAUNCHERS(logf)
PK_UNARY_LAUNCHERS(log2)
PK_UNARY_LAUNCHERS(log10)
PK_UNARY_LAUNCHERS(log1p)
PK_UNARY_LAUNCHERS(log1pf)
#undef PK_UNARY_LAUNCHERS

PK_IMAGE_LAUNCHER(cuda_2d_pow2_inplace, (float* a, unsigned nx, unsigned ny), a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_2d_pow, (float* out, const float* a, unsigned nx, unsigned ny, float k), out, a, nx, ny, k)
PK_IMAGE_LAUNCHER(cuda_2d_powf_inplace, (float* a, unsigned nx, unsigned ny, float k), a, nx, ny, k)

// ---- Two images -------------------------------------------------------------------------

#define PK_X2D_LAUNCHERS(name)                                                                             \
  PK_IMAGE_LAUNCHER(cuda_x2d_##name, (float* out, const float* a, const float* b, unsigned nx, unsigned ny), \
                    out, a, b, nx, ny)                                                                     \
  PK_IMAGE_LAUNCHER(cuda_x2d_##name##_inplace, (float* a, const float* b, unsigned nx, unsigned ny), a, b, nx, ny)
PK_X2D_LAUNCHERS(add)
PK_X2D_LAUNCHERS(sub)
PK_X2D_LAUNCHERS(multi)
PK_X2D_LAUNCHERS(divide)
#undef PK_X2D_LAUNCHERS

// ---- Stacks -----------------------------------------------------------------------------

PK_IMAGE_LAUNCHER(cuda_2ds_logf, (float* out, const float* in, unsigned nx, unsigned ny, unsigned nz), out, in, nx,
                  ny, nz)
PK_IMAGE_LAUNCHER(cuda_2ds_logf_inplace, (float* a, unsigned nx, unsigned ny, unsigned nz), a, nx, ny, nz)
PK_IMAGE_LAUNCHER(cuda_2ds_ave, (float* out, const float* in, unsigned nx, unsigned ny, unsigned nz), out, in, nx,
                  ny, nz)
PK_IMAGE_LAUNCHER(cuda_2ds_ave_logf, (float* out, const float* in, unsigned nx, unsigned ny, unsigned nz), out, in,
                  nx, ny, nz)
PK_IMAGE_LAUNCHER(cuda_2ds_logf_ave, (float* out, const float* in, unsigned nx, unsigned ny, unsigned nz), out, in,
                  nx, ny, nz)

#undef PK_IMAGE_LAUNCHER

// ---- Launchers with more to them --------------------------------------------------------

void hcuda_2d_invert_inplace(float* a, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_multi_inplace(x, y, a, nx, ny, -1.0f); });
}

void hcuda_x2ds_multi_inplace(float* a, const float* b, unsigned nx, unsigned ny, unsigned nz) {
  const std::size_t slice = static_cast<std::size_t>(nx) * ny;
  for (unsigned z = 0; z < nz; ++z) hcuda_x2d_multi_inplace(a + z * slice, b, nx, ny);
}

void gpu_x2d_sub_inplace(float* a, const float* b, unsigned nx, unsigned ny) {
  const std::size_t bytes = static_cast<std::size_t>(nx) * ny * sizeof(float);
  float* d_a = nullptr;
  float* d_b = nullptr;
  PK_CUDA_CHECK(cudaMalloc(&d_a, bytes));
  PK_CUDA_CHECK(cudaMalloc(&d_b, bytes));
  PK_CUDA_CHECK(memcpy_H2D(d_a, a, bytes));
  PK_CUDA_CHECK(memcpy_H2D(d_b, b, bytes));
  hcuda_x2d_sub_inplace(d_a, d_b, nx, ny);
  PK_CUDA_CHECK(memcpy_D2H(a, d_a, bytes));
  PK_CUDA_CHECK(cudaFree(d_a));
  PK_CUDA_CHECK(cudaFree(d_b));
}

namespace {

// Sums the slices of a host stack on the device, one slice at a time in ascending order,
// optionally through the logarithm, and divides by the slice count.
void average_host_stack(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz, bool take_log) {
  const std::size_t slice = static_cast<std::size_t>(nx) * ny;
  const std::size_t bytes = slice * sizeof(float);
  float* d_sum = nullptr;
  float* d_slice = nullptr;
  PK_CUDA_CHECK(cudaMalloc(&d_sum, bytes));
  PK_CUDA_CHECK(cudaMalloc(&d_slice, bytes));
  hcuda_2d_empty(d_sum, nx, ny);
  for (unsigned z = 0; z < nz; ++z) {
    PK_CUDA_CHECK(memcpy_H2D(d_slice, in + z * slice, bytes));
    if (take_log) hcuda_2d_logf_inplace(d_slice, nx, ny);
    hcuda_x2d_add_inplace(d_sum, d_slice, nx, ny);
  }
  hcuda_2d_divide_inplace(d_sum, nx, ny, static_cast<float>(nz));
  PK_CUDA_CHECK(memcpy_D2H(out, d_sum, bytes));
  PK_CUDA_CHECK(cudaFree(d_sum));
  PK_CUDA_CHECK(cudaFree(d_slice));
}

}  // namespace

void gpu_2ds_ave(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz) {
  average_host_stack(out, in, nx, ny, nz, false);
}
void gpu_2ds_ave_logf(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz) {
  average_host_stack(out, in, nx, ny, nz, true);
}
// Unlike its kernel namesake, this one does average the logarithms.
void gpu_2ds_logf_ave(float* out, const float* in, unsigned nx, unsigned ny, unsigned nz) {
  average_host_stack(out, in, nx, ny, nz, true);
}
