// Device launchers of the mirror padding and its inverse.
#include "cuda_general/launch.h"
#include "process2d_raw/process2d_raw.h"

void hcuda_2d_mirror_pad(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_mirror_pad(x, y, out, in, nx, ny); });
}

void hcuda_2d_mirror_pad_inv(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_mirror_pad_inv(x, y, out, in, nx, ny); });
}
