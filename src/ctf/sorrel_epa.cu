// Launches of the equiphase-average kernels.
#include <cstddef>

#include "../ctf_core/ctf_buffers.h"
#include "ctf/sorrel_epa.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"

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

void hcuda_2dhs_X_EPA_res(float* out, int X, const float* spectra, unsigned n, unsigned nh, unsigned ny,
                          float pixel_size, float kv, float cs, float ac, float ps, const UVA_c* uva, float resL,
                          float resH) {
  (void)ac, (void)ps;
  if (n == 0) PK_FATAL("an equiphase average of a stack needs one spectrum at least");
  const unsigned L = (nh - 1) * static_cast<unsigned>(X) + 1;
  PK_LAUNCH_FLAT(L, PICKORA_LAMBDA(unsigned i) {
    cuda_2dhs_X_EPA_res(i, out, X, spectra, n, nh, ny, pixel_size, kv, cs, uva, resL, resH);
  });
}

void hcuda_2dhs_EPA(float* out, const float* spectra, unsigned n, unsigned nh, unsigned ny, float pixel_size,
                    float kv, float cs, float ac, float ps, const UVA_c* uva, float resL, float resH) {
  if (n == 0) PK_FATAL("an equiphase average of a stack needs one spectrum at least");
  UVA_c first;
  PK_CUDA_CHECK(memcpy_D2H(&first, uva, sizeof(UVA_c)));
  CtfDeviceBlock<float> curve(nh);
  hcuda_2dhs_X_EPA_res(curve.get(), 1, spectra, n, nh, ny, pixel_size, kv, cs, ac, ps, uva, resL, resH);
  hcuda_2dh_EPA_from_1d(out, spectra, curve.get(), nh, ny, pixel_size, kv, cs, ac, ps, first.defU, first.defV,
                        first.defA, resL, resH);
  curve.release();
}

void gpu_2dhs_EPA(float* out, const float* spectra, unsigned n, unsigned nh, unsigned ny, float pixel_size, float kv,
                  float cs, float ac, float ps, const UVA_c* uva, float resL, float resH) {
  if (n == 0) PK_FATAL("an equiphase average of a stack needs one spectrum at least");
  const std::size_t plane = static_cast<std::size_t>(nh) * ny;
  CtfDeviceBlock<float> d_spectra(plane * n, spectra), d_out(plane);
  CtfDeviceBlock<UVA_c> d_uva(n, uva);
  hcuda_2dhs_EPA(d_out.get(), d_spectra.get(), n, nh, ny, pixel_size, kv, cs, ac, ps, d_uva.get(), resL, resH);
  d_out.copy_to_host(out);
  d_spectra.release(), d_out.release(), d_uva.release();
}
