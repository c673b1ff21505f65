// The device form of the low-frequency damping.
#include "cuda_general/launch.h"
#include "process2d_core/half_fourier_2dh.h"

void hcuda_2dh_smooth_low_frequency_inplace(float* half, int nxh, int ny, float apix, float resolution) {
  pk_2dh_require_resolution(apix, resolution);
  if (nxh <= 0 || ny <= 0) return;
  const unsigned w = static_cast<unsigned>(nxh), h = static_cast<unsigned>(ny);
  const float rc = pk_2dh_resolution_radius(w, apix, resolution);
  PK_LAUNCH_IMAGE(
      w, h, PICKORA_LAMBDA(unsigned x, unsigned r) { cuda_2dh_smooth_low_frequency_inplace(x, r, half, w, h, rc); });
}
