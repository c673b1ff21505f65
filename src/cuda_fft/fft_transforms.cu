// Plans and transforms: cuFFT on the CUDA backend, the FFTW stand-in of src/host_device on the
// CPU backend, every call through the cuFFT check.
#include <cstdio>

#include "cuda_complex/cuda_complex.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/report.h"
#include "process2d_core/process2d_core.h"

cufftHandle hcuda_2d_fft_plan(unsigned nx, unsigned ny, cufftType type) {
  cufftHandle plan = 0;
  // cuFFT takes the slow dimension first.
  PK_CUFFT_CHECK(cufftPlan2d(&plan, static_cast<int>(ny), static_cast<int>(nx), type));
  return plan;
}

cufftHandle hcuda_2d_fft_plan_batch(unsigned nx, unsigned ny, cufftType type, int batch) {
  cufftHandle plan = 0;
  int n[2] = {static_cast<int>(ny), static_cast<int>(nx)};
  PK_CUFFT_CHECK(cufftPlanMany(&plan, 2, n, nullptr, 1, 0, nullptr, 1, 0, type, batch));
  return plan;
}

void hcuda_2d_fft_exec_r2c(cufftHandle plan, const float* in, float2* out) {
  // An out-of-place forward transform leaves its input intact.
  PK_CUFFT_CHECK(cufftExecR2C(plan, const_cast<cufftReal*>(in), reinterpret_cast<cufftComplex*>(out)));
  PK_CUDA_CHECK(cudaDeviceSynchronize());
}

void hcuda_2d_fft_exec_c2r(cufftHandle plan, float2* in, float* out) {
  PK_CUFFT_CHECK(cufftExecC2R(plan, reinterpret_cast<cufftComplex*>(in), out));
  PK_CUDA_CHECK(cudaDeviceSynchronize());
}

void hcuda_2d_fft_destroy(cufftHandle plan) { PK_CUFFT_CHECK(cufftDestroy(plan)); }

void hcuda_2d_fft_r2c(const float* in, float2* out, unsigned nx, unsigned ny) {
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  hcuda_2d_fft_exec_r2c(plan, in, out);
  hcuda_2d_fft_destroy(plan);
}

void hcuda_2d_fft_c2r(float2* in, float* out, unsigned nx, unsigned ny) {
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_C2R);
  hcuda_2d_fft_exec_c2r(plan, in, out);
  hcuda_2d_fft_destroy(plan);
}

void hcuda_2d_fft_r2c_norm(const float* in, float2* out, unsigned nx, unsigned ny) {
  hcuda_2d_fft_r2c(in, out, nx, ny);
  hcuda_c2d_divR_inplace(out, fft_half_width(nx), ny, fft_norm_factor(nx, ny));
}

void hcuda_2d_fft_c2r_norm(float2* in, float* out, unsigned nx, unsigned ny) {
  hcuda_2d_fft_c2r(in, out, nx, ny);
  hcuda_2d_divide_inplace(out, nx, ny, fft_norm_factor(nx, ny));
}

void gpu_2d_fft_r2c(const float* h_in, float2* h_out, unsigned nx, unsigned ny) {
  const unsigned nh = fft_half_width(nx);
  const size_t real_bytes = sizeof(float) * nx * ny, spec_bytes = sizeof(float2) * nh * ny;
  float* d_in = nullptr;
  float2* d_out = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_in), real_bytes));
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_out), spec_bytes));
  PK_CUDA_CHECK(cudaMemcpy(d_in, h_in, real_bytes, cudaMemcpyHostToDevice));
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  hcuda_2d_fft_exec_r2c(plan, d_in, d_out);
  hcuda_2d_fft_destroy(plan);
  hcuda_c2d_divR_inplace(d_out, nh, ny, fft_norm_factor(nx, ny));
  PK_CUDA_CHECK(cudaMemcpy(h_out, d_out, spec_bytes, cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(d_in));
  PK_CUDA_CHECK(cudaFree(d_out));
}

void gpu_2d_fft_c2r(const float2* h_in, float* h_out, unsigned nx, unsigned ny) {
  const unsigned nh = fft_half_width(nx);
  const size_t real_bytes = sizeof(float) * nx * ny, spec_bytes = sizeof(float2) * nh * ny;
  float2* d_in = nullptr;
  float* d_out = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_in), spec_bytes));
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_out), real_bytes));
  PK_CUDA_CHECK(cudaMemcpy(d_in, h_in, spec_bytes, cudaMemcpyHostToDevice));
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_C2R);
  hcuda_2d_fft_exec_c2r(plan, d_in, d_out);
  hcuda_2d_fft_destroy(plan);
  hcuda_2d_divide_inplace(d_out, nx, ny, fft_norm_factor(nx, ny));
  PK_CUDA_CHECK(cudaMemcpy(h_out, d_out, real_bytes, cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(d_in));
  PK_CUDA_CHECK(cudaFree(d_out));
}

void gpu_2d_fft_r2c_mod(const float* h_in, float* h_out, unsigned nx, unsigned ny) {
  const unsigned nh = fft_half_width(nx);
  const unsigned long n = static_cast<unsigned long>(nh) * ny;
  const size_t real_bytes = sizeof(float) * nx * ny;
  float* d_in = nullptr;
  float2* d_spec = nullptr;
  float* d_mod = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_in), real_bytes));
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_spec), sizeof(float2) * n));
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_mod), sizeof(float) * n));
  PK_CUDA_CHECK(cudaMemcpy(d_in, h_in, real_bytes, cudaMemcpyHostToDevice));
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  hcuda_2d_fft_exec_r2c(plan, d_in, d_spec);
  hcuda_2d_fft_destroy(plan);
  hcuda_complex_mod(d_spec, d_mod, n);
  PK_CUDA_CHECK(cudaMemcpy(h_out, d_mod, sizeof(float) * n, cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(d_in));
  PK_CUDA_CHECK(cudaFree(d_spec));
  PK_CUDA_CHECK(cudaFree(d_mod));
}

void hcuda_2ds_fft_r2c(const float* in, float2* out, unsigned nx, unsigned ny, unsigned n) {
  const size_t real = static_cast<size_t>(nx) * ny, spec = static_cast<size_t>(fft_half_width(nx)) * ny;
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  for (unsigned i = 0; i < n; ++i)
    PK_CUFFT_CHECK(
        cufftExecR2C(plan, const_cast<cufftReal*>(in + i * real), reinterpret_cast<cufftComplex*>(out + i * spec)));
  PK_CUDA_CHECK(cudaDeviceSynchronize());
  hcuda_2d_fft_destroy(plan);
}

void gpu_2ds_fft_r2c(const float* h_in, float2* h_out, unsigned nx, unsigned ny, unsigned n) {
  const unsigned nh = fft_half_width(nx);
  const size_t real = static_cast<size_t>(nx) * ny, spec = static_cast<size_t>(nh) * ny;
  const float norm = fft_norm_factor(nx, ny);
  float* d_in = nullptr;
  float2* d_out = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_in), sizeof(float) * real));
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d_out), sizeof(float2) * spec));
  cufftHandle plan = hcuda_2d_fft_plan(nx, ny, CUFFT_R2C);
  for (unsigned i = 0; i < n; ++i) {
    PK_CUDA_CHECK(cudaMemcpy(d_in, h_in + i * real, sizeof(float) * real, cudaMemcpyHostToDevice));
    hcuda_2d_fft_exec_r2c(plan, d_in, d_out);
    hcuda_c2d_divR_inplace(d_out, nh, ny, norm);
    PK_CUDA_CHECK(cudaMemcpy(h_out + i * spec, d_out, sizeof(float2) * spec, cudaMemcpyDeviceToHost));
  }
  hcuda_2d_fft_destroy(plan);
  PK_CUDA_CHECK(cudaFree(d_in));
  PK_CUDA_CHECK(cudaFree(d_out));
  std::printf(".");
  std::fflush(stdout);
}
