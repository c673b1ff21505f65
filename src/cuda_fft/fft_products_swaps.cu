// Launchers of the conjugate products and of the swaps that bring an origin to the centre.
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/launch.h"

void hcuda_c2d_multconj_norm(const float2* a, const float2* b, float2* out, unsigned width, unsigned height, float d) {
  PK_LAUNCH_IMAGE(
      width, height,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_multconj_norm(x, y, a, b, out, width, height, d); });
}

void hcuda_c2d_multconj_norm_inplace(float2* a, const float2* b, unsigned width, unsigned height, float d) {
  PK_LAUNCH_IMAGE(
      width, height,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_multconj_norm_inplace(x, y, a, b, width, height, d); });
}

void hcuda_2d_swap_ccf(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_swap_ccf(x, y, out, in, nx, ny); });
}

void hcuda_2d_swap_ccf_inplace(float* a, unsigned nx, unsigned ny) {
  PK_LAUNCH_HALF_ROWS(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_swap_ccf_inplace(x, y, a, nx, ny); });
}

void hcuda_2d_swap_norm_ccf_inplace(float* a, unsigned nx, unsigned ny, float d) {
  PK_LAUNCH_HALF_ROWS(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_swap_norm_ccf_inplace(x, y, a, nx, ny, d); });
}

void hcuda_r2d_fc_swap(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_r2d_fc_swap(x, y, out, in, nx, ny); });
}

void hcuda_r2d_fc_swap_inplace(float* a, unsigned nx, unsigned ny) {
  PK_LAUNCH_HALF_ROWS(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_r2d_fc_swap_inplace(x, y, a, nx, ny); });
}

void hcuda_r2dh_fc_swap(float* out, const float* in, unsigned width, unsigned ny) {
  PK_LAUNCH_IMAGE(
      width, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_r2dh_fc_swap(x, y, out, in, width, ny); });
}

void hcuda_r2dh_fc_swap_inplace(float* a, unsigned width, unsigned ny) {
  PK_LAUNCH_HALF_ROWS(
      width, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_r2dh_fc_swap_inplace(x, y, a, width, ny); });
}

void hcuda_c2dh_fc_swap_inplace(float2* a, unsigned width, unsigned ny) {
  PK_LAUNCH_HALF_ROWS(
      width, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2dh_fc_swap_inplace(x, y, a, width, ny); });
}

void hcuda_complex2d_center_swap(float2* out, const float2* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_complex2d_center_swap(x, y, out, in, nx, ny); });
}

void hcuda_complex2d_center_swap_norm(float2* out, const float2* in, unsigned nx, unsigned ny, float d) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_complex2d_center_swap_norm(x, y, out, in, nx, ny, d); });
}
