// Launches of the equiphase-average kernels.
#include "ctf/sorrel_epa.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"

void hcuda_2dh_X_EPA_res(float* out, int X, const float* spectrum, unsigned nh, unsigned ny, float pixel_size,
                         float kv, float cs, float ac, float ps, float defU, float defV, float defA, float resL,
                         float resH) {
  (void)ac, (void)ps;
  const unsigned L = (nh - 1) * static_cast<unsigned>(X) + 1;
  PK_LAUNCH_FLAT(L, PICKORA_LAMBDA(unsigned i) {
    cuda_2dh_X_EPA_res(i, out, X, spectrum, nh, ny, pixel_size, kv, cs, defU, defV, defA, resL, resH);
  });
}

void hcuda_2dh_EPA_from_1d(float* out, const float* spectrum, const float* curve, unsigned nh, unsigned ny,
                           float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                           float defA, float resL, float resH) {
  (void)ac, (void)ps;
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2dh_EPA_from_1d2(x, y, out, spectrum, curve, nh, ny, pixel_size, kv, cs, defU, defV, defA, resL, resH);
  });
}

void hcuda_2dh_EPA_from_1d3(float* out, const float* spectrum, const float* curve, unsigned nh, unsigned ny,
                            float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                            float defA, float resL, float resH) {
  (void)ac, (void)ps;
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2dh_EPA_from_1d3(x, y, out, spectrum, curve, nh, ny, pixel_size, kv, cs, defU, defV, defA, resL, resH);
  });
}

void hcuda_2dh_EPA(float* out, const float* spectrum, unsigned nh, unsigned ny, float pixel_size, float kv, float cs,
                   float ac, float ps, float defU, float defV, float defA, float resL, float resH) {
  float* curve = nullptr;
  safe_cudaMalloc(&curve, nh * sizeof(float));
  hcuda_2dh_X_EPA_res(curve, 1, spectrum, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, resL, resH);
  hcuda_2dh_EPA_from_1d(out, spectrum, curve, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, resL, resH);
  safe_cudaFree(curve);
}
