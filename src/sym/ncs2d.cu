// Symmetry averaging and correlation on the device.
#include <cstddef>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "math_utils/array_kernels.h"
#include "sym/ncs2d.h"
#include "sym/sym.h"

namespace {

template <class T>
T* device_copy(const T* host, std::size_t count) {
  T* d = nullptr;
  safe_cudaMalloc(&d, count * sizeof(T));
  PK_CUDA_CHECK(memcpy_H2D(d, host, count * sizeof(T)));
  return d;
}

}  // namespace

void hcuda_2d_ncs_average(float* d_out, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny, float ox, float oy,
                          const float* d_image, unsigned nx, unsigned ny, float cx, float cy, const float* d_mask) {
  if (nsym < 1) PK_FATAL("symmetry averaging needs one operator at least, not %d", nsym);
  for (int s = 0; s < nsym; ++s) {
    const RT_Mat2D r = syms[s];
    PK_LAUNCH_IMAGE(mnx, mny, PICKORA_LAMBDA(unsigned i, unsigned j) {
      cuda_2d_ncs_add_one(i, j, d_out, r, mnx, mny, ox, oy, d_image, nx, ny, cx, cy, d_mask);
    });
    print_rtmat2d(r);
  }
  hcuda_divide_inplace(d_out, static_cast<unsigned long>(mnx) * mny, static_cast<float>(nsym));
}

void gpu_2d_ncs_average(float* out, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny, float ox, float oy,
                        const float* image, unsigned nx, unsigned ny, float cx, float cy, const float* mask) {
  const std::size_t patch = static_cast<std::size_t>(mnx) * mny;
  float* d_image = device_copy(image, static_cast<std::size_t>(nx) * ny);
  float* d_mask = device_copy(mask, patch);
  float* d_out = nullptr;
  safe_cudaMalloc(&d_out, patch * sizeof(float));
  hcuda_empty(d_out, patch * sizeof(float));
  hcuda_2d_ncs_average(d_out, syms, nsym, mnx, mny, ox, oy, d_image, nx, ny, cx, cy, d_mask);
  PK_CUDA_CHECK(memcpy_D2H(out, d_out, patch * sizeof(float)));
  safe_cudaFree(d_image);
  safe_cudaFree(d_mask);
  safe_cudaFree(d_out);
}

void gpu_2d_ncs_cccs(float* results, const float* ref, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny,
                     float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx, float cy,
                     const float* mask) {
  if (nsym < 1) PK_FATAL("symmetry correlation needs one operator at least, not %d", nsym);
  ncs_check_mask(mask, mnx, mny);
  const std::size_t patch = static_cast<std::size_t>(mnx) * mny;
  float* d_image = device_copy(image, static_cast<std::size_t>(nx) * ny);
  float* d_mask = device_copy(mask, patch);
  float* d_one = nullptr;
  safe_cudaMalloc(&d_one, patch * sizeof(float));
  std::vector<float> one(patch);
  for (int s = 0; s < nsym; ++s) {
    const RT_Mat2D r = syms[s];
    PK_LAUNCH_IMAGE(mnx, mny, PICKORA_LAMBDA(unsigned i, unsigned j) {
      cuda_2d_ncs_get_one(i, j, d_one, r, mnx, mny, ox, oy, d_image, nx, ny, cx, cy, d_mask);
    });
    PK_CUDA_CHECK(memcpy_D2H(one.data(), d_one, patch * sizeof(float)));
    results[s] = ncs_masked_ccc(ref, one.data(), mask, mnx, mny);
  }
  safe_cudaFree(d_image);
  safe_cudaFree(d_mask);
  safe_cudaFree(d_one);
}
