// Resampling template slices on the device.
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "pickora56/templates.h"

void hcuda_2d_scale(float* out, const float* in, int nx, int ny, float ratio) {
  const unsigned onx = static_cast<unsigned>(static_cast<int>(static_cast<float>(nx) * ratio));
  const unsigned ony = static_cast<unsigned>(static_cast<int>(static_cast<float>(ny) * ratio));
  PK_LAUNCH_IMAGE(
      onx, ony, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_scale(x, y, out, in, nx, ny, ratio); });
}

void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float ratio) {
  const size_t in_slice = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  const size_t out_slice = static_cast<size_t>(static_cast<int>(static_cast<float>(nx) * ratio)) *
                           static_cast<size_t>(static_cast<int>(static_cast<float>(ny) * ratio));
  float* d_in = nullptr;
  float* d_out = nullptr;
  safe_cudaMalloc(&d_in, sizeof(float) * in_slice);
  safe_cudaMalloc(&d_out, sizeof(float) * out_slice);
  for (int z = 0; z < nz; ++z) {
    PK_CUDA_CHECK(memcpy_H2D(d_in, in + z * in_slice, sizeof(float) * in_slice));
    hcuda_2d_scale(d_out, d_in, nx, ny, ratio);
    PK_CUDA_CHECK(memcpy_D2H(out + z * out_slice, d_out, sizeof(float) * out_slice));
  }
  PK_CUDA_CHECK(cudaFree(d_in));
  PK_CUDA_CHECK(cudaFree(d_out));
}
