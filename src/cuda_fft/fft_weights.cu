// Spectral weights, phase shifts and spectrum averages.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"

void hcuda_c2ds_ave(float2* out, const float2* in, unsigned width, unsigned height, unsigned n) {
  PK_LAUNCH_IMAGE(
      width, height, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2ds_ave(x, y, out, in, width, height, n); });
}

void cpu_2ds_fftout_r2c_ave(const float2* in, float2* out, unsigned width, unsigned height, unsigned n) {
  for (unsigned y = 0; y < height; ++y)
    for (unsigned x = 0; x < width; ++x) cuda_c2ds_ave(x, y, out, in, width, height, n);
}

// ---------------------------------------------------------------------------------------------
// Phase shifts

void hcuda_c2dh_linear_Pshift(const float2* in, float2* out, unsigned nh, unsigned ny, float sx, float sy) {
  PK_LAUNCH_IMAGE(
      nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2dh_linear_Pshift(x, y, in, out, nh, ny, sx, sy); });
}

void hcuda_c2dh_linear_Pshift_inplace(float2* a, unsigned nh, unsigned ny, float sx, float sy) {
  PK_LAUNCH_IMAGE(
      nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2dh_linear_Pshift_inplace(x, y, a, nh, ny, sx, sy); });
}

void hcuda_2d_shift(const float* in, float* out, unsigned nx, unsigned ny, float sx, float sy) {
  const unsigned nh = fft_half_width(nx);
  float2* spectrum = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&spectrum), sizeof(float2) * nh * ny));
  hcuda_2d_fft_r2c_norm(in, spectrum, nx, ny);
  hcuda_c2dh_linear_Pshift_inplace(spectrum, nh, ny, sx, sy);
  hcuda_2d_fft_c2r_norm(spectrum, out, nx, ny);
  PK_CUDA_CHECK(cudaFree(spectrum));
}

void hcuda_2d_shift_inplace(float* a, unsigned nx, unsigned ny, float sx, float sy) {
  hcuda_2d_shift(a, a, nx, ny, sx, sy);
}

void gpu_2d_shift(const float* h_in, float* h_out, unsigned nx, unsigned ny, float sx, float sy) {
  const size_t bytes = sizeof(float) * nx * ny;
  float *d_in = nullptr, *d_out = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_in), bytes));
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_out), bytes));
  PK_CUDA_CHECK(cudaMemcpy(d_in, h_in, bytes, cudaMemcpyHostToDevice));
  hcuda_2d_shift(d_in, d_out, nx, ny, sx, sy);
  PK_CUDA_CHECK(cudaMemcpy(h_out, d_out, bytes, cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(d_in));
  PK_CUDA_CHECK(cudaFree(d_out));
}

void gpu_2d_shift2(const float* h_in, float* h_out, unsigned nx, unsigned ny, float sx, float sy) {
  const size_t bytes = sizeof(float) * nx * ny;
  float* d_a = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_a), bytes));
  PK_CUDA_CHECK(cudaMemcpy(d_a, h_in, bytes, cudaMemcpyHostToDevice));
  hcuda_2d_shift_inplace(d_a, nx, ny, sx, sy);
  PK_CUDA_CHECK(cudaMemcpy(h_out, d_a, bytes, cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(d_a));
}

void gpu_2d_shift_inplace(float* h_a, unsigned nx, unsigned ny, float sx, float sy) {
  gpu_2d_shift2(h_a, h_a, nx, ny, sx, sy);
}

// ---------------------------------------------------------------------------------------------
// Radial ramp

void hcuda_c2dh_rweight(float2* out, const float2* in, unsigned width, unsigned ny, float R, float W) {
  PK_LAUNCH_IMAGE(
      width, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2dh_rweight(x, y, out, in, width, ny, R, W); });
}

void hcuda_c2dh_rweight_inplace(float2* a, unsigned width, unsigned ny, float R, float W) {
  PK_LAUNCH_IMAGE(
      width, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2dh_rweight_inplace(x, y, a, width, ny, R, W); });
}

namespace {

// The plain (uncoloured) refusal of an odd size, on standard output, exit status 1.
void require_even(unsigned value, const char* func, const char* file, int line) {
  if (value % 2 == 0) return;
  std::printf("Error in function %s(), file %s on line %d: %d not an even number! Exit now!\n", func,
              report_module_path(file), line, static_cast<int>(value));
  report_exit(1);
}

}  // namespace

void hcuda_r2d_rweight(float* out, const float* in, unsigned nx, unsigned ny, float R, float W) {
  require_even(nx, __func__, __FILE__, __LINE__);
  require_even(ny, __func__, __FILE__, __LINE__);
  const unsigned nh = fft_half_width(nx);
  float2* spectrum = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&spectrum), sizeof(float2) * nh * ny));
  hcuda_2d_fft_r2c_norm(in, spectrum, nx, ny);
  hcuda_c2dh_rweight_inplace(spectrum, nh, ny, R, W);
  hcuda_2d_fft_c2r_norm(spectrum, out, nx, ny);
  PK_CUDA_CHECK(cudaFree(spectrum));
}

void hcuda_r2d_rweight_inplace(float* a, unsigned nx, unsigned ny, float R, float W) {
  require_even(nx, __func__, __FILE__, __LINE__);
  require_even(ny, __func__, __FILE__, __LINE__);
  hcuda_r2d_rweight(a, a, nx, ny, R, W);
}

// ---------------------------------------------------------------------------------------------
// Local amplitude weights

void hcuda_2d_fft_amp_local_w2d_gen(float* w, unsigned width, unsigned ny, float a, float b, float c, float d) {
  PK_LAUNCH_IMAGE(
      width, ny,
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_fft_amp_local_w2d_gen(x, y, w, width, ny, a, b, c, d); });
}

void hcuda_2ds_fft_amp_local_w2ds_gen(float* w, unsigned width, unsigned ny, unsigned n, const float* distances,
                                      float b, float c, float d) {
  PK_LAUNCH_IMAGE(
      width, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_2ds_fft_amp_local_w2ds_gen(x, y, w, width, ny, n, distances, b, c, d);
      });
}

void hcuda_2ds_fft_amp_local_w1d_gen(float* w, unsigned n, const float* distances, float b) {
  PK_LAUNCH_FLAT(
      n, PICKORA_LAMBDA(unsigned i) { cuda_2ds_fft_amp_local_w1d_gen(i, w, n, distances, b); });
}

void cpu_2d_fft_amp_local_w2d_gen(float* w, unsigned width, unsigned ny, float a, float b, float c, float d) {
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < width; ++x) w[y * width + x] = fft_amp_local_weight(x, y, width, ny, a, b, c, d);
}

void cpu_2d_fft_amp_local_w1d_gen(float* w, unsigned n, float a, float b, float c, float d) {
  for (unsigned i = 0; i < n; ++i) {
    const float r = static_cast<float>(static_cast<double>(i) / (2.0 * static_cast<double>(n) - 2.0));
    const float rc = r / c;
    w[i] = expf(-(0.5f * rc * rc * d * d) * (a * a / (2.0f * b * b)));
  }
}

// ---------------------------------------------------------------------------------------------
// B-factors on half amplitude arrays (host)

namespace {

// fy_row is the row whose frequency (fy_row - ny / 2) / ny is meant.
double bfac_factor(unsigned x, unsigned fy_row, unsigned width, unsigned ny, float pixel_size, float B) {
  const double fx = static_cast<double>(x) / (2.0 * (static_cast<double>(width) - 1.0));
  const double fy = (static_cast<double>(fy_row) - static_cast<double>(ny / 2)) / static_cast<double>(ny);
  const double s = std::sqrt(fx * fx + fy * fy) / static_cast<double>(pixel_size);
  return std::exp(-s * s * static_cast<double>(B) / 4.0);
}

}  // namespace

void cpu_r2dh_fftA_appy_bfac(float* out, const float* in, unsigned width, unsigned ny, float pixel_size, float B) {
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < width; ++x)
      out[y * width + x] = static_cast<float>(in[y * width + x] * bfac_factor(x, y, width, ny, pixel_size, B));
}

void cpu_r2dh_usw_fftA_appy_bfac(float* out, const float* in, unsigned width, unsigned ny, float pixel_size, float B) {
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < width; ++x)
      out[y * width + x] =
          static_cast<float>(in[y * width + x] * bfac_factor(x, (y + ny / 2) % ny, width, ny, pixel_size, B));
}

void cpu_r2dh_usw_fftA_appy_bfac_inplace(float* a, unsigned width, unsigned ny, float pixel_size, float B) {
  cpu_r2dh_usw_fftA_appy_bfac(a, a, width, ny, pixel_size, B);
}
