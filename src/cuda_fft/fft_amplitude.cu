// Launchers of the flat amplitude kernels and of the half/full amplitude conversions.
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/launch.h"

void hcuda_complex_mod_center_swap(float* out, const float2* in, unsigned long n) {
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_complex_mod_center_swap(i, out, in, n); });
}

void hcuda_complex_mod_addto_center_swap(float* out, const float2* in, unsigned long n) {
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_complex_mod_addto_center_swap(i, out, in, n); });
}

void hcuda_complex_mod_weighted_addto_center_swap(float* out, const float2* in, unsigned long n, float w) {
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_complex_mod_weighted_addto_center_swap(i, out, in, n, w); });
}

void hcuda_complex_mod_Ws_addto_center_swap(float* out, const float2* in, unsigned long n, const float* W) {
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_complex_mod_Ws_addto_center_swap(i, out, in, n, W); });
}

void hcuda_complex_logmod_center_swap(float* out, const float2* in, unsigned long n) {
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_complex_logmod_center_swap(i, out, in, n); });
}

void hcuda_2d_fftA_full2half(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      fft_half_width(nx), ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_fftA_full2half(x, y, out, in, nx, ny); });
}

void hcuda_2d_fftA_half2full(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_fftA_half2full(x, y, out, in, nx, ny); });
}

void hcuda_2d_fftA_half2full_c0(float* out, const float* in, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_fftA_half2full_c0(x, y, out, in, nx, ny); });
}
