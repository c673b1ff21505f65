// Local mean and local standard deviation by FFT convolution with a soft disc.
#include "process2d_raw/local_stats.h"

#include <cstring>

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

// The soft disc for means over a px by py image: its spectrum and the sum of its weights. The
// disc sits on the corner between the four middle pixels, so that after the quadrant swap the
// mean at (x, y) is centred at (x - 0.5, y - 0.5).
SoftDiscSpectrum make_disc(cufftHandle r2c, unsigned px, unsigned py, float radius, float soft) {
  const unsigned long n = static_cast<unsigned long>(px) * py;
  float* weights = device_array<float>(n);
  SoftDiscSpectrum disc;
  disc.radius = radius;
  disc.soft = soft;
  disc.spectrum = device_array<float2>(static_cast<unsigned long>(fft_half_width(px)) * py);
  hcuda_2d_generate_rmask_soft(weights, px, py, static_cast<float>(px - 1) * 0.5f, static_cast<float>(py - 1) * 0.5f,
                               radius, soft);
  disc.weight_sum = hcuda_fast_sum(weights, n, kSumBlock);
  hcuda_2d_fft_exec_r2c(r2c, weights, disc.spectrum);
  PK_CUDA_CHECK(cudaFree(weights));
  return disc;
}

// The periodic weighted mean (px by py) of the image whose spectrum is given, into `out`. The
// product goes to `product`, which may be the image's spectrum itself.
void disc_mean_from_spectrum(float* out, const float2* image_spec, const SoftDiscSpectrum& disc, float2* product,
                             cufftHandle c2r, unsigned px, unsigned py) {
  const unsigned long n = static_cast<unsigned long>(px) * py;
  // The product's division by the pixel count undoes the scale of the unnormalised pair.
  hcuda_c2d_multconj_norm(image_spec, disc.spectrum, product, fft_half_width(px), py, static_cast<float>(n));
  hcuda_2d_fft_exec_c2r(c2r, product, out);
  hcuda_2d_swap_ccf_inplace(out, px, py);
  hcuda_2d_divide_inplace(out, px, py, disc.weight_sum);
}

// Weighted mean of `in` (px by py) under the soft disc, written to `out` (same size; may be
// `in`), the image taken as periodic.
void disc_mean_periodic(float* out, const float* in, unsigned px, unsigned py, float radius, float soft) {
  float2* image_spec = device_array<float2>(static_cast<unsigned long>(fft_half_width(px)) * py);
  cufftHandle forward_image = hcuda_2d_fft_plan(px, py, CUFFT_R2C);
  cufftHandle forward_disc = hcuda_2d_fft_plan(px, py, CUFFT_R2C);
  cufftHandle inverse = hcuda_2d_fft_plan(px, py, CUFFT_C2R);
  const SoftDiscSpectrum disc = make_disc(forward_disc, px, py, radius, soft);
  hcuda_2d_fft_exec_r2c(forward_image, in, image_spec);
  disc_mean_from_spectrum(out, image_spec, disc, image_spec, inverse, px, py);
  hcuda_2d_fft_destroy(forward_image);
  hcuda_2d_fft_destroy(forward_disc);
  hcuda_2d_fft_destroy(inverse);
  PK_CUDA_CHECK(cudaFree(disc.spectrum));
  PK_CUDA_CHECK(cudaFree(image_spec));
}

using LocalMean = void (*)(float*, const float*, unsigned, unsigned, float, float);

// sigma = sqrt(mean(x^2) - mean(x)^2) from the two local means: mean_of_squares becomes sigma,
// mean its square.
void sigma_from_means(float* mean_of_squares, float* mean, unsigned nx, unsigned ny) {
  hcuda_2d_sqr_inplace(mean, nx, ny);
  hcuda_x2d_sub_inplace(mean_of_squares, mean, nx, ny);
  hcuda_2d_sqrt_inplace(mean_of_squares, nx, ny);
}

// The local sigma with the given local mean; out may be in.
void local_sigma(LocalMean local_mean, float* out, const float* in, unsigned nx, unsigned ny, float radius,
                 float soft) {
  float* mean = device_array<float>(static_cast<unsigned long>(nx) * ny);
  local_mean(mean, in, nx, ny, radius, soft);
  hcuda_2d_sqr(out, in, nx, ny);
  local_mean(out, out, nx, ny, radius, soft);
  sigma_from_means(out, mean, nx, ny);
  PK_CUDA_CHECK(cudaFree(mean));
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

void prepare_local_maps(LocalMapsWorkspace* ws, unsigned nx, unsigned ny) {
  if (ws->nx == nx && ws->ny == ny) return;
  local_maps_workspace_release(ws);
  const unsigned px = 2 * nx, py = 2 * ny;
  const unsigned long padded = static_cast<unsigned long>(px) * py;
  const unsigned long spectrum = static_cast<unsigned long>(fft_half_width(px)) * py;
  ws->padded = device_array<float>(padded);
  ws->mean = device_array<float>(padded);
  ws->mean_x = device_array<float>(static_cast<unsigned long>(nx) * ny);
  ws->image_spec = device_array<float2>(spectrum);
  ws->square_spec = device_array<float2>(spectrum);
  ws->product = device_array<float2>(spectrum);
  ws->r2c = hcuda_2d_fft_plan(px, py, CUFFT_R2C);
  ws->c2r = hcuda_2d_fft_plan(px, py, CUFFT_C2R);
  ws->nx = nx;
  ws->ny = ny;
}

// The index of the disc of this radius and rim in the workspace, made on first need.
std::size_t kept_disc(LocalMapsWorkspace* ws, float radius, float soft) {
  for (std::size_t i = 0; i < ws->discs.size(); ++i)
    if (std::memcmp(&ws->discs[i].radius, &radius, sizeof radius) == 0 &&
        std::memcmp(&ws->discs[i].soft, &soft, sizeof soft) == 0)
      return i;
  ws->discs.push_back(make_disc(ws->r2c, 2 * ws->nx, 2 * ws->ny, radius, soft));
  return ws->discs.size() - 1;
}

// One padded mean from a padded spectrum, cut back to nx by ny into out.
void padded_mean(LocalMapsWorkspace* ws, float* out, const float2* spectrum, std::size_t disc) {
  disc_mean_from_spectrum(ws->mean, spectrum, ws->discs[disc], ws->product, ws->c2r, 2 * ws->nx, 2 * ws->ny);
  hcuda_2d_mirror_pad_inv(out, ws->mean, ws->nx, ws->ny);
}

}  // namespace

void local_maps_workspace_release(LocalMapsWorkspace* ws) {
  for (SoftDiscSpectrum& d : ws->discs) safe_cudaFree(d.spectrum);
  ws->discs.clear();
  if (ws->nx != 0) {
    hcuda_2d_fft_destroy(ws->r2c);
    hcuda_2d_fft_destroy(ws->c2r);
  }
  safe_cudaFree(ws->padded);
  safe_cudaFree(ws->mean);
  safe_cudaFree(ws->mean_x);
  safe_cudaFree(ws->image_spec);
  safe_cudaFree(ws->square_spec);
  safe_cudaFree(ws->product);
  ws->nx = ws->ny = 0;
}

void hcuda_2d_local_ave_sigma_mpad(LocalMapsWorkspace* ws, float* lave, float* lsigma, const float* in, unsigned nx,
                                   unsigned ny, float ave_radius, float sigma_radius, float soft) {
  prepare_local_maps(ws, nx, ny);
  const unsigned px = 2 * nx, py = 2 * ny;
  hcuda_2d_mirror_pad(ws->padded, in, nx, ny);
  hcuda_2d_fft_exec_r2c(ws->r2c, ws->padded, ws->image_spec);
  // Squaring the mirrored image mirrors the squared one: the same values either way.
  hcuda_2d_sqr_inplace(ws->padded, px, py);
  hcuda_2d_fft_exec_r2c(ws->r2c, ws->padded, ws->square_spec);
  const std::size_t ave = kept_disc(ws, ave_radius, soft), sigma = kept_disc(ws, sigma_radius, soft);

  padded_mean(ws, lave, ws->image_spec, ave);
  padded_mean(ws, ws->mean_x, ws->image_spec, sigma);
  padded_mean(ws, lsigma, ws->square_spec, sigma);
  sigma_from_means(lsigma, ws->mean_x, nx, ny);
}

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
