// Launchers of the mirrors and transpositions.
#include "cuda_general/launch.h"
#include "process2d_core/flip.h"

void hcuda_2d_flipx(float* output, const float* source, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_flipx(x, y, output, source, nx, ny); });
}

void hcuda_2d_flipy(float* output, const float* source, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_flipy(x, y, output, source, nx, ny); });
}

void hcuda_2d_flipxy(float* output, const float* source, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_flipxy(x, y, output, source, nx, ny); });
}

void hcuda_2ds_flip(float* output, const float* source, unsigned nx, unsigned ny, unsigned nz, int mode) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2ds_flip(x, y, output, source, nx, ny, nz, mode); });
}

void hcuda_2ds_swap_xy(const float* source, float* output, unsigned nx, unsigned ny, unsigned nz) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2ds_swap_xy(x, y, source, output, nx, ny, nz); });
}

void hcuda_2d_swap_xy(const float* source, float* output, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_swap_xy(x, y, source, output, nx, ny); });
}
