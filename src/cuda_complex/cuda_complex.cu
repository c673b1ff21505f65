// Launchers of the complex kernels: flat or image shape, then the device check.
#include "cuda_complex/cuda_complex.h"

#include <cstddef>

#include "cuda_general/launch.h"

#define PK_FLAT_CX_LAUNCHER(name, kernel)                                                          \
  void name(const float2* in, float* out, unsigned long n) {                                       \
    PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { kernel(i, in, out, n); });                      \
  }
PK_FLAT_CX_LAUNCHER(hcuda_complex_mod, cuda_complex_mod)
PK_FLAT_CX_LAUNCHER(hcuda_complex_phi, cuda_complex_phi)
PK_FLAT_CX_LAUNCHER(hcuda_complex_pow, cuda_complex_pow)
PK_FLAT_CX_LAUNCHER(hcuda_complex_logmod, cuda_complex_logmod)
PK_FLAT_CX_LAUNCHER(hcuda_complex_log1p_mod, cuda_complex_log1p_mod)
PK_FLAT_CX_LAUNCHER(hcuda_complex_A, cuda_complex_mod)
PK_FLAT_CX_LAUNCHER(hcuda_complex_P, cuda_complex_phi)
PK_FLAT_CX_LAUNCHER(hcuda_complex_W, cuda_complex_pow)
PK_FLAT_CX_LAUNCHER(hcuda_complex_L, cuda_complex_logmod)
PK_FLAT_CX_LAUNCHER(hcuda_complex_M, cuda_complex_log1p_mod)
#undef PK_FLAT_CX_LAUNCHER

void hcuda_complex_proc(const float2* in, float* out, unsigned long n, char letter) {
  switch (letter) {
    case 'A': hcuda_complex_A(in, out, n); break;
    case 'P': hcuda_complex_P(in, out, n); break;
    case 'W': hcuda_complex_W(in, out, n); break;
    case 'L': hcuda_complex_L(in, out, n); break;
    case 'M': hcuda_complex_M(in, out, n); break;
    default: break;  // unknown letter: nothing is launched, the output stays as it was
  }
}

// One image-shaped launch of the kernel of the same name with the same arguments.
#define PK_IMAGE_LAUNCHER(kernel, params, ...)                                                        \
  void h##kernel params {                                                                             \
    PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { kernel(x, y, __VA_ARGS__); }); \
  }

PK_IMAGE_LAUNCHER(cuda_complex2d_norm, (float2* out, const float2* a, unsigned nx, unsigned ny, float k), out, a,
                  nx, ny, k)
PK_IMAGE_LAUNCHER(cuda_c2d_divR, (float2* out, const float2* a, unsigned nx, unsigned ny, float k), out, a, nx, ny, k)
PK_IMAGE_LAUNCHER(cuda_c2d_divR_inplace, (float2* a, unsigned nx, unsigned ny, float k), a, nx, ny, k)

PK_IMAGE_LAUNCHER(cuda_c2d_mod, (float* out, const float2* a, unsigned nx, unsigned ny), out, a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_c2d_pow, (float* out, const float2* a, unsigned nx, unsigned ny), out, a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_c2d_logmod, (float* out, const float2* a, unsigned nx, unsigned ny), out, a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_c2d_logmod_1p, (float* out, const float2* a, unsigned nx, unsigned ny), out, a, nx, ny)
PK_IMAGE_LAUNCHER(cuda_c2d_mod_divR, (float* out, const float2* a, unsigned nx, unsigned ny, float k), out, a, nx,
                  ny, k)
PK_IMAGE_LAUNCHER(cuda_c2d_pow_divR, (float* out, const float2* a, unsigned nx, unsigned ny, float k), out, a, nx,
                  ny, k)

#define PK_CXC_LAUNCHERS(name)                                                                                    \
  PK_IMAGE_LAUNCHER(cuda_cxc_2d_##name, (float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny), \
                    out, a, b, nx, ny)                                                                            \
  PK_IMAGE_LAUNCHER(cuda_cxc_2d_##name##_inplace, (float2* a, const float2* b, unsigned nx, unsigned ny), a, b, nx, \
                    ny)
PK_CXC_LAUNCHERS(add)
PK_CXC_LAUNCHERS(sub)
PK_CXC_LAUNCHERS(multi)
PK_CXC_LAUNCHERS(divide)
PK_CXC_LAUNCHERS(multconj)
#undef PK_CXC_LAUNCHERS
PK_IMAGE_LAUNCHER(cuda_cxc_2d_multconj_divide,
                  (float2* out, const float2* a, const float2* b, unsigned nx, unsigned ny, float k), out, a, b, nx,
                  ny, k)

PK_IMAGE_LAUNCHER(cuda_cxr_2d_multi, (float2* out, const float2* a, const float* r, unsigned nx, unsigned ny), out,
                  a, r, nx, ny)
PK_IMAGE_LAUNCHER(cuda_cxr_2d_divide, (float2* out, const float2* a, const float* r, unsigned nx, unsigned ny), out,
                  a, r, nx, ny)
PK_IMAGE_LAUNCHER(cuda_cxr_2d_multi_inplace, (float2* a, const float* r, unsigned nx, unsigned ny), a, r, nx, ny)
PK_IMAGE_LAUNCHER(cuda_cxr_2d_divide_inplace, (float2* a, const float* r, unsigned nx, unsigned ny), a, r, nx, ny)
#undef PK_IMAGE_LAUNCHER

void hcuda_cxr_2ds_multi_inplace(float2* a, const float* r, unsigned nx, unsigned ny, unsigned nz) {
  const std::size_t slice = static_cast<std::size_t>(nx) * ny;
  for (unsigned z = 0; z < nz; ++z) hcuda_cxr_2d_multi_inplace(a + z * slice, r, nx, ny);
}
