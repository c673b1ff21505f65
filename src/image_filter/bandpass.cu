// Band-pass filters of square device and host images: transform, radial weight, transform back,
// directly or through a mirror-padded copy.
#include <cstddef>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "image_filter/image_filter.h"
#include "process2d_raw/process2d_raw.h"

namespace {

struct BandArgs {
  float apix, res1, res2, soft;
};

// Launches one radial weight over the half spectrum of an n-sided transform.
using SpectrumWeight = void (*)(float2* spec, int n, const BandArgs& args);

void weigh_softR(float2* spec, int n, const BandArgs& args) {
  const float apix = args.apix, res1 = args.res1, res2 = args.res2, soft = args.soft;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(n / 2 + 1), static_cast<unsigned>(n),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_bandpass_softR(x, y, spec, n, apix, res1, res2, soft); });
}

void weigh_guas(float2* spec, int n, const BandArgs& args) {
  const float apix = args.apix, res1 = args.res1, res2 = args.res2;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(n / 2 + 1), static_cast<unsigned>(n),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_bandpass_guas(x, y, spec, n, apix, res1, res2); });
}

void weigh_sharp(float2* spec, int n, const BandArgs& args) {
  const float apix = args.apix, res1 = args.res1, res2 = args.res2;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(n / 2 + 1), static_cast<unsigned>(n),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_bandpass_sharp(x, y, spec, n, apix, res1, res2); });
}

// The single-edge filters carry their one resolution in res1.
void weigh_lowpass_sharp(float2* spec, int n, const BandArgs& args) {
  const float apix = args.apix, res = args.res1;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(n / 2 + 1), static_cast<unsigned>(n),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_lowpass_sharp(x, y, spec, n, apix, res); });
}

void weigh_highpass_sharp(float2* spec, int n, const BandArgs& args) {
  const float apix = args.apix, res = args.res1;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(n / 2 + 1), static_cast<unsigned>(n),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_c2d_highpass_sharp(x, y, spec, n, apix, res); });
}

template <class T>
T* device_alloc(std::size_t count) {
  T* p = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&p), sizeof(T) * count));
  return p;
}

// The n by n real array `in` through the weight into `out`; the spectrum lies between them, so
// the two may be the same array.
void filter_square(const float* in, float* out, int n, const BandArgs& args, SpectrumWeight weigh) {
  const unsigned side = static_cast<unsigned>(n);
  float2* spec = device_alloc<float2>(static_cast<std::size_t>(fft_half_width(side)) * side);
  hcuda_2d_fft_r2c(in, spec, side, side);
  weigh(spec, n, args);
  hcuda_2d_fft_c2r(spec, out, side, side);
  PK_CUDA_CHECK(cudaFree(spec));
}

// The N by N image through a 2 N by 2 N mirror-padded copy, filtered with n = 2 N.
void filter_mirror_padded(const float* in, float* out, int N, const BandArgs& args, SpectrumWeight weigh) {
  const unsigned side = static_cast<unsigned>(N);
  float* padded = device_alloc<float>(4 * static_cast<std::size_t>(side) * side);
  hcuda_2d_mirror_pad(padded, in, side, side);
  filter_square(padded, padded, 2 * N, args, weigh);
  hcuda_2d_mirror_pad_inv(out, padded, side, side);
  PK_CUDA_CHECK(cudaFree(padded));
}

// A host image through a device copy of its own.
void filter_host_image(const float* h_in, float* h_out, int N,
                       void (*device_filter)(float*, int, const BandArgs&), const BandArgs& args) {
  const std::size_t bytes = sizeof(float) * static_cast<std::size_t>(N) * static_cast<std::size_t>(N);
  float* d_image = device_alloc<float>(bytes / sizeof(float));
  PK_CUDA_CHECK(cudaMemcpy(d_image, h_in, bytes, cudaMemcpyHostToDevice));
  device_filter(d_image, N, args);
  PK_CUDA_CHECK(cudaMemcpy(h_out, d_image, bytes, cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(d_image));
}

void device_softR_or_sharp(float* d, int N, const BandArgs& a) {
  if (a.soft < 1.0f)
    hcuda_2d_bandpass_sharp_inplace(d, N, a.apix, a.res1, a.res2);
  else
    hcuda_2d_bandpass_softR_inplace(d, N, a.apix, a.res1, a.res2, a.soft);
}
void device_guas(float* d, int N, const BandArgs& a) { hcuda_2d_bandpass_guas_inplace(d, N, a.apix, a.res1, a.res2); }
void device_sharp(float* d, int N, const BandArgs& a) {
  hcuda_2d_bandpass_sharp_inplace(d, N, a.apix, a.res1, a.res2);
}
void device_guas_mpad(float* d, int N, const BandArgs& a) {
  hcuda_2d_bandpass_guas_mpad_inplace(d, N, a.apix, a.res1, a.res2);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Mirror-padded device filters.

void hcuda_2d_bandpass_softR_mpad(const float* in, float* out, int N, float apix, float res1, float res2, float soft) {
  filter_mirror_padded(in, out, N, {apix, res1, res2, soft}, weigh_softR);
}

void hcuda_2d_bandpass_guas_mpad(const float* in, float* out, int N, float apix, float res1, float res2) {
  filter_mirror_padded(in, out, N, {apix, res1, res2, 0.0f}, weigh_guas);
}

void hcuda_2d_bandpass_softR_mpad_inplace(float* image, int N, float apix, float res1, float res2, float soft) {
  hcuda_2d_bandpass_softR_mpad(image, image, N, apix, res1, res2, soft);
}

void hcuda_2d_bandpass_guas_mpad_inplace(float* image, int N, float apix, float res1, float res2) {
  hcuda_2d_bandpass_guas_mpad(image, image, N, apix, res1, res2);
}

// ---------------------------------------------------------------------------------------------
// Plain device filters.

void hcuda_2d_bandpass_softR(const float* in, float* out, int N, float apix, float res1, float res2, float soft) {
  filter_square(in, out, N, {apix, res1, res2, soft}, weigh_softR);
}

void hcuda_2d_bandpass_softR_inplace(float* image, int N, float apix, float res1, float res2, float soft) {
  hcuda_2d_bandpass_softR(image, image, N, apix, res1, res2, soft);
}

void hcuda_2d_bandpass_guas(const float* in, float* out, int N, float apix, float res1, float res2) {
  filter_square(in, out, N, {apix, res1, res2, 0.0f}, weigh_guas);
}

void hcuda_2d_bandpass_guas_inplace(float* image, int N, float apix, float res1, float res2) {
  hcuda_2d_bandpass_guas(image, image, N, apix, res1, res2);
}

void hcuda_2d_bandpass_sharp(const float* in, float* out, int N, float apix, float res1, float res2) {
  filter_square(in, out, N, {apix, res1, res2, 0.0f}, weigh_sharp);
}

void hcuda_2d_bandpass_sharp_inplace(float* image, int N, float apix, float res1, float res2) {
  hcuda_2d_bandpass_sharp(image, image, N, apix, res1, res2);
}

void hcuda_2d_lowpass_sharp(const float* in, float* out, int N, float apix, float res) {
  filter_square(in, out, N, {apix, res, res, 0.0f}, weigh_lowpass_sharp);
}

void hcuda_c2d_highpass_sharp(const float* in, float* out, int N, float apix, float res) {
  filter_square(in, out, N, {apix, res, res, 0.0f}, weigh_highpass_sharp);
}

// ---------------------------------------------------------------------------------------------
// Host images.

void gpu_2d_bandpass_softR_inplace(float* h_image, int N, float apix, float res1, float res2, float soft) {
  filter_host_image(h_image, h_image, N, device_softR_or_sharp, {apix, res1, res2, soft});
}

void gpu_2d_bandpass_guas_inplace(float* h_image, int N, float apix, float res1, float res2) {
  filter_host_image(h_image, h_image, N, device_guas, {apix, res1, res2, 0.0f});
}

void gpu_2d_bandpass_sharp_inplace(float* h_image, int N, float apix, float res1, float res2) {
  filter_host_image(h_image, h_image, N, device_sharp, {apix, res1, res2, 0.0f});
}

void gpu_2d_bandpass_guas_mpad(const float* h_in, float* h_out, int N, float apix, float res1, float res2) {
  filter_host_image(h_in, h_out, N, device_guas_mpad, {apix, res1, res2, 0.0f});
}

void gpu_2d_bandpass_guas_mpad_inplace(float* h_image, int N, float apix, float res1, float res2) {
  gpu_2d_bandpass_guas_mpad(h_image, h_image, N, apix, res1, res2);
}
