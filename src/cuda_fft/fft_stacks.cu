// Amplitude spectra of stacks, of boxes and of the tiles of one image, with their logarithms and
// background subtraction. One plan per call, executed for every image or tile.
#include "cuda_complex/cuda_complex.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "math_utils/array_kernels.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/process2d_raw.h"

namespace {

template <class T>
T* device_alloc(size_t count) {
  T* p = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&p), sizeof(T) * count));
  return p;
}

template <class T>
void device_clear(T* p, size_t count) {
  PK_CUDA_CHECK(cudaMemset(p, 0, sizeof(T) * count));
}

void exec_r2c(cufftHandle plan, const float* in, float2* out) {
  PK_CUFFT_CHECK(cufftExecR2C(plan, const_cast<cufftReal*>(in), reinterpret_cast<cufftComplex*>(out)));
}

// a -= b over nx x ny.
// The spectrum background: the box mean in its separable form (row sums, then column sums).
void box_mean(const float* src, float* out, unsigned nx, unsigned ny, int box) {
  double* rows = device_alloc<double>(static_cast<size_t>(nx) * ny);
  hcuda_2d_box_mean_separable(src, out, rows, nx, ny, box, box);
  PK_CUDA_CHECK(cudaFree(rows));
}

void subtract_inplace(float* a, const float* b, unsigned nx, unsigned ny) {
  PK_LAUNCH_IMAGE(
      nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_x2d_sub_inplace(x, y, a, b, nx, ny); });
}

// How the moduli of a stack are weighted into the sum.
enum class AmpWeights { kNone, kHostPerImage, kDevicePerImage, kDevicePerElement };

// out (nh x ny, cleared here) = sum over the images of the row-swapped moduli, weighted.
void amp_sum(const float* in, float* out, unsigned nx, unsigned ny, unsigned n, AmpWeights mode, const float* weights) {
  const unsigned nh = fft_half_width(nx);
  const size_t real = static_cast<size_t>(nx) * ny;
  const unsigned long plane = static_cast<unsigned long>(nh) * ny;
  device_clear(out, plane);
  float2* spectrum = device_alloc<float2>(plane);
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  for (unsigned i = 0; i < n; ++i) {
    exec_r2c(plan, in + i * real, spectrum);
    switch (mode) {
      case AmpWeights::kNone:
        hcuda_complex_mod_addto_center_swap(out, spectrum, plane);
        break;
      case AmpWeights::kHostPerImage:
        hcuda_complex_mod_weighted_addto_center_swap(out, spectrum, plane, weights[i]);
        break;
      case AmpWeights::kDevicePerImage: {
        float w = 0.0f;
        PK_CUDA_CHECK(cudaMemcpy(&w, weights + i, sizeof(float), cudaMemcpyDeviceToHost));
        hcuda_complex_mod_weighted_addto_center_swap(out, spectrum, plane, w);
        break;
      }
      case AmpWeights::kDevicePerElement:
        hcuda_complex_mod_Ws_addto_center_swap(out, spectrum, plane, weights + i * plane);
        break;
    }
  }
  hcuda_2d_fft_destroy(plan);
  PK_CUDA_CHECK(cudaFree(spectrum));
}

// Per image of the stack: transform, row swap of the spectrum, modulus or power scaled into the
// image's place in the output.
void stack_mod_or_pow(const float* in, float* out, unsigned nx, unsigned ny, unsigned n, bool power) {
  const unsigned nh = fft_half_width(nx);
  const size_t real = static_cast<size_t>(nx) * ny, plane = static_cast<size_t>(nh) * ny;
  device_clear(out, plane * n);
  float2* spectrum = device_alloc<float2>(plane);
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  const float norm = fft_norm_factor(nx, ny);
  const float area = static_cast<float>(static_cast<unsigned long>(nx) * ny);
  for (unsigned i = 0; i < n; ++i) {
    exec_r2c(plan, in + i * real, spectrum);
    hcuda_c2dh_fc_swap_inplace(spectrum, nh, ny);
    if (power)
      hcuda_c2d_pow_divR(out + i * plane, spectrum, nh, ny, area);
    else
      hcuda_c2d_mod_divR(out + i * plane, spectrum, nh, ny, norm);
  }
  hcuda_2d_fft_destroy(plan);
  PK_CUDA_CHECK(cudaFree(spectrum));
}

// Number of tiles of side `box` at a step of `step` along a side of `n` pixels.
unsigned tile_count(unsigned n, unsigned box, unsigned step) {
  if (n < box) return 0;
  return step == 0 ? 1 : (n - box) / step + 1;
}

// out (nh x by, cleared here) = sum of the row-swapped moduli of the tiles. The tiles are cut by
// row copies (by_rows) or by the extraction kernel.
void grid_amp_sum(const float* image, float* out, unsigned nx, unsigned ny, unsigned bx, unsigned by, unsigned step,
                  bool by_rows) {
  const unsigned nh = fft_half_width(bx);
  const unsigned long plane = static_cast<unsigned long>(nh) * by;
  device_clear(out, plane);
  const unsigned gx = tile_count(nx, bx, step), gy = tile_count(ny, by, step);
  float* tile = device_alloc<float>(static_cast<size_t>(bx) * by);
  float2* spectrum = device_alloc<float2>(plane);
  cufftHandle plan = hcuda_2d_fft_plan(bx, by, CUFFT_R2C);
  for (unsigned r = 0; r < gy; ++r)
    for (unsigned c = 0; c < gx; ++c) {
      const size_t x0 = static_cast<size_t>(c) * step, y0 = static_cast<size_t>(r) * step;
      if (by_rows) {
        for (unsigned j = 0; j < by; ++j)
          PK_CUDA_CHECK(cudaMemcpy(tile + static_cast<size_t>(j) * bx, image + (y0 + j) * nx + x0, sizeof(float) * bx,
                                   cudaMemcpyDeviceToDevice));
      } else {
        hcuda_2d_extract_small_from_large(tile, static_cast<int>(bx), static_cast<int>(by), image, static_cast<int>(nx),
                                          static_cast<int>(ny), static_cast<int>(x0), static_cast<int>(y0));
      }
      exec_r2c(plan, tile, spectrum);
      hcuda_complex_mod_addto_center_swap(out, spectrum, plane);
    }
  hcuda_2d_fft_destroy(plan);
  PK_CUDA_CHECK(cudaFree(tile));
  PK_CUDA_CHECK(cudaFree(spectrum));
}

// log_sum holds an amplitude sum of nh x by (nh = bx / 2 + 1): its logarithm in place, then the
// background subtraction on the full bx x by array into `subtracted`.
void grid_log_subbg(float* log_sum, float* subtracted, unsigned bx, unsigned by, int box, bool clear_c0) {
  const unsigned nh = fft_half_width(bx);
  hcuda_logf_inplace(log_sum, static_cast<unsigned long>(nh) * by);
  const size_t full_size = static_cast<size_t>(bx) * by;
  float* full = device_alloc<float>(full_size);
  float* background = device_alloc<float>(full_size);
  if (clear_c0)
    hcuda_2d_fftA_half2full_c0(full, log_sum, bx, by);
  else
    hcuda_2d_fftA_half2full(full, log_sum, bx, by);
  box_mean(full, background, bx, by, box);
  subtract_inplace(full, background, bx, by);
  PK_LAUNCH_IMAGE(
      nh, by, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_fftA_full2half(x, y, subtracted, full, bx, by); });
  PK_CUDA_CHECK(cudaFree(full));
  PK_CUDA_CHECK(cudaFree(background));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Stacks

void hcuda_2ds_fft_r2c_mod(const float* in, float* out, unsigned nx, unsigned ny, unsigned n) {
  stack_mod_or_pow(in, out, nx, ny, n, false);
}

void hcuda_2ds_fft_r2c_pow(const float* in, float* out, unsigned nx, unsigned ny, unsigned n) {
  stack_mod_or_pow(in, out, nx, ny, n, true);
}

void hcuda_2ds_fft_r2c_logmod(const float* in, float* out, unsigned nx, unsigned ny, unsigned n) {
  const unsigned nh = fft_half_width(nx);
  const size_t real = static_cast<size_t>(nx) * ny, plane = static_cast<size_t>(nh) * ny;
  device_clear(out, plane * n);
  float2* spectrum = device_alloc<float2>(plane);
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  for (unsigned i = 0; i < n; ++i) {
    exec_r2c(plan, in + i * real, spectrum);
    hcuda_complex_logmod(spectrum, out + i * plane, plane);
  }
  hcuda_2d_fft_destroy(plan);
  PK_CUDA_CHECK(cudaFree(spectrum));
}

void hcuda_2ds_fft_r2c_logmod_subbg(float* out, const float* in, unsigned nx, unsigned ny, unsigned n, int box) {
  const unsigned nh = fft_half_width(nx);
  const size_t real = static_cast<size_t>(nx) * ny, plane = static_cast<size_t>(nh) * ny;
  device_clear(out, plane * n);
  float2* spectrum = device_alloc<float2>(plane);
  float* average = device_alloc<float>(plane);
  float* background = device_alloc<float>(plane);
  device_clear(average, plane);
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  const float norm = fft_norm_factor(nx, ny);
  for (unsigned i = 0; i < n; ++i) {
    float* image = out + i * plane;
    exec_r2c(plan, in + i * real, spectrum);
    hcuda_c2d_divR_inplace(spectrum, nh, ny, norm);
    hcuda_c2d_logmod(image, spectrum, nh, ny);
    hcuda_r2dh_fc_swap_inplace(image, nh, ny);
    hcuda_x2d_add_inplace(average, image, nh, ny);
  }
  hcuda_2d_fft_destroy(plan);
  hcuda_2d_divide_inplace(average, nh, ny, static_cast<float>(n));
  box_mean(average, background, nh, ny, box);
  for (unsigned i = 0; i < n; ++i) subtract_inplace(out + i * plane, background, nh, ny);
  PK_CUDA_CHECK(cudaFree(spectrum));
  PK_CUDA_CHECK(cudaFree(average));
  PK_CUDA_CHECK(cudaFree(background));
}

void hcuda_2d_boxes_fft_r2c_mod(float* out, const int2* boxes, int count, int box_size, const float* image, unsigned nx,
                                unsigned ny) {
  if (count <= 0) return;
  float* stack = device_alloc<float>(static_cast<size_t>(count) * box_size * box_size);
  hcuda_2d_extract_smalls_from_large(stack, box_size, box_size, count, image, static_cast<int>(nx),
                                     static_cast<int>(ny), boxes);
  hcuda_2ds_fft_r2c_mod(stack, out, static_cast<unsigned>(box_size), static_cast<unsigned>(box_size),
                        static_cast<unsigned>(count));
  PK_CUDA_CHECK(cudaFree(stack));
}

// ---------------------------------------------------------------------------------------------
// Amplitude sums of stacks

void hcuda_2ds_fft_r2c_amp_ave(const float* in, float* out, unsigned nx, unsigned ny, unsigned n) {
  amp_sum(in, out, nx, ny, n, AmpWeights::kNone, nullptr);
}

void hcuda_2ds_fft_r2c_amp_ave_log(const float* in, float* out, unsigned nx, unsigned ny, unsigned n) {
  amp_sum(in, out, nx, ny, n, AmpWeights::kNone, nullptr);
  hcuda_logf_inplace(out, static_cast<unsigned long>(fft_half_width(nx)) * ny);
}

void hcuda_2ds_fft_r2c_amp_ave_sqrt(const float* in, float* out, unsigned nx, unsigned ny, unsigned n) {
  amp_sum(in, out, nx, ny, n, AmpWeights::kNone, nullptr);
  hcuda_sqrtf_inplace(out, static_cast<unsigned long>(fft_half_width(nx)) * ny);
}

void hcuda_2ds_fft_r2c_amp_ave_log_subbg(const float* in, float* out, unsigned nx, unsigned ny, unsigned n, int box) {
  amp_sum(in, out, nx, ny, n, AmpWeights::kNone, nullptr);
  hcuda_2dh_fft_amp_log_subbg_inplace(out, fft_half_width(nx), ny, box);
}

void hcuda_2ds_fft_r2c_amp_weighted_ave(const float* in, float* out, unsigned nx, unsigned ny, unsigned n,
                                        const float* h_weights) {
  amp_sum(in, out, nx, ny, n, AmpWeights::kHostPerImage, h_weights);
}

void hcuda_2ds_fft_r2c_amp_weighted_ave_log(const float* in, float* out, unsigned nx, unsigned ny, unsigned n,
                                            const float* h_weights) {
  amp_sum(in, out, nx, ny, n, AmpWeights::kHostPerImage, h_weights);
  hcuda_logf_inplace(out, static_cast<unsigned long>(fft_half_width(nx)) * ny);
}

void hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(const float* in, float* out, unsigned nx, unsigned ny, unsigned n,
                                                  int box, const float* d_weights, int type) {
  AmpWeights mode = AmpWeights::kNone;
  if (type == 1)
    mode = AmpWeights::kDevicePerImage;
  else if (type == 2)
    mode = AmpWeights::kDevicePerElement;
  else
    PK_FATAL("Unkown FFT amplitude average type");
  amp_sum(in, out, nx, ny, n, mode, d_weights);
  hcuda_2dh_fft_amp_log_subbg_inplace(out, fft_half_width(nx), ny, box);
}

// ---------------------------------------------------------------------------------------------
// Background subtraction of half amplitude arrays

void hcuda_2dh_fftA_subbg(float* out, const float* in, unsigned nh, unsigned ny, int box) {
  const unsigned nx = 2 * (nh - 1);
  const size_t full_size = static_cast<size_t>(nx) * ny;
  float* full = device_alloc<float>(full_size);
  float* background = device_alloc<float>(full_size);
  hcuda_2d_fftA_half2full(full, in, nx, ny);
  box_mean(full, background, nx, ny, box);
  subtract_inplace(full, background, nx, ny);
  hcuda_2d_fftA_full2half(out, full, nx, ny);
  PK_CUDA_CHECK(cudaFree(full));
  PK_CUDA_CHECK(cudaFree(background));
}

void hcuda_2dh_fftA_subbg_inplace(float* a, unsigned nh, unsigned ny, int box) {
  hcuda_2dh_fftA_subbg(a, a, nh, ny, box);
}

void hcuda_2dh_fft_amp_log_subbg_inplace(float* a, unsigned nh, unsigned ny, int box) {
  hcuda_2d_logf_inplace(a, nh, ny);
  hcuda_2dh_fftA_subbg_inplace(a, nh, ny, box);
}

// ---------------------------------------------------------------------------------------------
// Tiles of one image

void hcuda_2d_gridfft_r2c_amp_ave(const float* image, float* out, unsigned nx, unsigned ny, unsigned bx, unsigned by,
                                  unsigned step, int /*ignored*/) {
  grid_amp_sum(image, out, nx, ny, bx, by, step, true);
}

void hcuda_2d_gridfft_r2c_amp_ave_log_subbg(const float* image, float* out, unsigned nx, unsigned ny, unsigned bx,
                                            unsigned by, unsigned step, int box) {
  grid_amp_sum(image, out, nx, ny, bx, by, step, false);
  grid_log_subbg(out, out, bx, by, box, false);
}

void hcuda_2d_gridfft_r2c_amp_ave_log_subbg2(const float* image, float* subtracted, float* log_sum, unsigned nx,
                                             unsigned ny, unsigned bx, unsigned by, unsigned step, int box) {
  grid_amp_sum(image, log_sum, nx, ny, bx, by, step, false);
  grid_log_subbg(log_sum, subtracted, bx, by, box, false);
}

void hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(const float* image, float* amp_sum_out, float* log_sum, float* subtracted,
                                             unsigned nx, unsigned ny, unsigned bx, unsigned by, unsigned step,
                                             int box) {
  grid_amp_sum(image, amp_sum_out, nx, ny, bx, by, step, false);
  hcuda_2dh_amp_log_subbg3(amp_sum_out, log_sum, subtracted, bx, by, box);
}

void hcuda_2dh_amp_log_subbg3(const float* amp_sum, float* log_sum, float* subtracted, unsigned bx, unsigned by,
                              int box) {
  const size_t plane = static_cast<size_t>(fft_half_width(bx)) * by;
  PK_CUDA_CHECK(cudaMemcpy(log_sum, amp_sum, sizeof(float) * plane, cudaMemcpyDeviceToDevice));
  grid_log_subbg(log_sum, subtracted, bx, by, box, true);
}
