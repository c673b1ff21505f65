// Local mean and local standard deviation by FFT convolution with a soft disc.
#include "process2d_raw/local_stats.h"

#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/process2d_raw.h"

namespace {

constexpr int kSumBlock = 1024;

template <class T>
T* device_array(unsigned long count) {
  T* d = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d), sizeof(T) * count));
  return d;
}

// Weighted mean of `in` (px by py) under the soft disc, written to `out` (same size; may be
// `in`). The disc sits on the corner between the four middle pixels, so that after the
// quadrant swap the mean at (x, y) is centred at (x - 0.5, y - 0.5), and the image is taken as
// periodic.
void disc_mean_periodic(float* out, const float* in, unsigned px, unsigned py, float radius, float soft) {
  const unsigned long n = static_cast<unsigned long>(px) * py;
  const unsigned nh = fft_half_width(px);
  float* disc = device_array<float>(n);
  float2* image_spec = device_array<float2>(static_cast<unsigned long>(nh) * py);
  float2* disc_spec = device_array<float2>(static_cast<unsigned long>(nh) * py);

  hcuda_2d_generate_rmask_soft(disc, px, py, static_cast<float>(px - 1) * 0.5f, static_cast<float>(py - 1) * 0.5f,
                               radius, soft);
  const float weight_sum = hcuda_fast_sum(disc, n, kSumBlock);

  cufftHandle forward_image = hcuda_2d_fft_plan(px, py, CUFFT_R2C);
  cufftHandle forward_disc = hcuda_2d_fft_plan(px, py, CUFFT_R2C);
  cufftHandle inverse = hcuda_2d_fft_plan(px, py, CUFFT_C2R);
  hcuda_2d_fft_exec_r2c(forward_image, in, image_spec);
  hcuda_2d_fft_exec_r2c(forward_disc, disc, disc_spec);
  // The product's division by the pixel count undoes the scale of the unnormalised pair.
  hcuda_c2d_multconj_norm_inplace(image_spec, disc_spec, nh, py, static_cast<float>(n));
  hcuda_2d_fft_exec_c2r(inverse, image_spec, out);
  hcuda_2d_swap_ccf_inplace(out, px, py);
  hcuda_2d_divide_inplace(out, px, py, weight_sum);

  hcuda_2d_fft_destroy(forward_image);
  hcuda_2d_fft_destroy(forward_disc);
  hcuda_2d_fft_destroy(inverse);
  PK_CUDA_CHECK(cudaFree(disc));
  PK_CUDA_CHECK(cudaFree(image_spec));
  PK_CUDA_CHECK(cudaFree(disc_spec));
}

using LocalMean = void (*)(float*, const float*, unsigned, unsigned, float, float);

// sqrt(mean(x^2) - mean(x)^2) with the given local mean; out may be in.
void local_sigma(LocalMean local_mean, float* out, const float* in, unsigned nx, unsigned ny, float radius,
                 float soft) {
  float* mean_sq = device_array<float>(static_cast<unsigned long>(nx) * ny);
  local_mean(mean_sq, in, nx, ny, radius, soft);
  hcuda_2d_sqr_inplace(mean_sq, nx, ny);
  hcuda_2d_sqr(out, in, nx, ny);
  local_mean(out, out, nx, ny, radius, soft);
  hcuda_x2d_sub_inplace(out, mean_sq, nx, ny);
  hcuda_2d_sqrt_inplace(out, nx, ny);
  PK_CUDA_CHECK(cudaFree(mean_sq));
}

// data = data - local_mean(data).
void subtract_local_mean(LocalMean local_mean, float* data, unsigned nx, unsigned ny, float radius, float soft) {
  float* mean = device_array<float>(static_cast<unsigned long>(nx) * ny);
  local_mean(mean, data, nx, ny, radius, soft);
  hcuda_x2d_sub_inplace(data, mean, nx, ny);
  PK_CUDA_CHECK(cudaFree(mean));
}

// Runs a device operation that works in place on one image over a host image.
template <class Op>
void on_device_copy(float* h_out, const float* h_in, unsigned nx, unsigned ny, Op op) {
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  float* d = device_array<float>(n);
  if (h_in != nullptr) PK_CUDA_CHECK(memcpy_H2D(d, h_in, sizeof(float) * n));
  op(d);
  PK_CUDA_CHECK(memcpy_D2H(h_out, d, sizeof(float) * n));
  PK_CUDA_CHECK(cudaFree(d));
}

}  // namespace

void hcuda_2d_generate_rmask_soft(float* mask, unsigned nx, unsigned ny, float cx, float cy, float radius,
                                  float soft) {
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2d_generate_rmask_soft(x, y, mask, nx, ny, cx, cy, radius, soft);
  });
}

void hcuda_2d_generate_central_rmask(float* mask, unsigned nx, unsigned ny, float radius, float soft) {
  hcuda_2d_generate_rmask_soft(mask, nx, ny, static_cast<float>(nx - 1) * 0.5f, static_cast<float>(ny - 1) * 0.5f,
                               radius, soft);
}

void hcuda_2d_generate_central_sharp_rmask(float* mask, unsigned nx, unsigned ny, float radius) {
  hcuda_2d_generate_central_rmask(mask, nx, ny, radius, 0.0f);
}

void hcuda_2d_bg_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft) {
  const unsigned px = 2 * nx, py = 2 * ny;
  float* padded = device_array<float>(static_cast<unsigned long>(px) * py);
  float* result = device_array<float>(static_cast<unsigned long>(px) * py);
  hcuda_2d_mirror_pad(padded, in, nx, ny);
  disc_mean_periodic(result, padded, px, py, radius, soft);
  hcuda_2d_mirror_pad_inv(out, result, nx, ny);
  PK_CUDA_CHECK(cudaFree(padded));
  PK_CUDA_CHECK(cudaFree(result));
}

void hcuda_2d_bg_mpad_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft) {
  hcuda_2d_bg_mpad(data, data, nx, ny, radius, soft);
}

void hcuda_2d_subbg_mpad_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft) {
  subtract_local_mean(hcuda_2d_bg_mpad, data, nx, ny, radius, soft);
}

void hcuda_2d_bg(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft) {
  disc_mean_periodic(out, in, nx, ny, radius, soft);
}

void hcuda_2d_bg_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft) {
  hcuda_2d_bg(data, data, nx, ny, radius, soft);
}

void hcuda_2d_bg_reduce_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft) {
  subtract_local_mean(hcuda_2d_bg, data, nx, ny, radius, soft);
}

void hcuda_2d_local_ave_softR_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft) {
  hcuda_2d_bg_mpad(out, in, nx, ny, radius, soft);
}

void hcuda_2d_local_sigma_softR_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius,
                                     float soft) {
  local_sigma(hcuda_2d_bg_mpad, out, in, nx, ny, radius, soft);
}

void hcuda_2d_local_ave_softR(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft) {
  hcuda_2d_bg(out, in, nx, ny, radius, soft);
}

void hcuda_2d_local_sigma_softR(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft) {
  local_sigma(hcuda_2d_bg, out, in, nx, ny, radius, soft);
}

// ---- Host arrays ----------------------------------------------------------------------------

void gpu_2d_generate_rmask_soft(float* mask, unsigned nx, unsigned ny, float cx, float cy, float radius,
                                float soft) {
  on_device_copy(mask, nullptr, nx, ny,
                 [&](float* d) { hcuda_2d_generate_rmask_soft(d, nx, ny, cx, cy, radius, soft); });
}

// One host form per local operation, all through one device buffer worked in place.
#define PK_GPU_LOCAL_FORM(name)                                                                     \
  void gpu_##name(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft) { \
    on_device_copy(out, in, nx, ny, [&](float* d) { hcuda_##name(d, d, nx, ny, radius, soft); });  \
  }
PK_GPU_LOCAL_FORM(2d_bg)
PK_GPU_LOCAL_FORM(2d_bg_mpad)
PK_GPU_LOCAL_FORM(2d_local_ave_softR)
PK_GPU_LOCAL_FORM(2d_local_sigma_softR)
PK_GPU_LOCAL_FORM(2d_local_ave_softR_mpad)
PK_GPU_LOCAL_FORM(2d_local_sigma_softR_mpad)
#undef PK_GPU_LOCAL_FORM

void gpu_2d_bg_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft) {
  gpu_2d_bg(data, data, nx, ny, radius, soft);
}

void gpu_2d_bg_mpad_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft) {
  gpu_2d_bg_mpad(data, data, nx, ny, radius, soft);
}
