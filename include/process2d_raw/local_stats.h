// Local statistics of an image by FFT convolution with a soft-edged disc: the weighted local
// mean ("background") and the weighted local standard deviation, with and without mirror
// padding, and the soft disc itself.
//
// The disc weighs 1.0 inside `radius`, falls as a Gaussian of height GAUSS_NORM and width
// soft / 3 over the next `soft` pixels, and is 0.0 beyond. Its weights are divided out, so the
// local mean of a constant image is that constant.
//
// Padded forms (_mpad): the image is mirrored into a 2 nx by 2 ny array, convolved there and
// the top-left quadrant kept, so a disc reaching over an edge sees the mirror image. The
// unpadded forms convolve at nx by ny, where the image wraps around at its edges. In both the
// disc is centred on the corner between the middle pixels, so the mean at (x, y) is that of a
// disc centred half a pixel toward the origin.
//
// The hcuda_ forms take device arrays; output and input may be the same array. Every call
// builds and transforms its own disc and frees its scratch. The gpu_ forms take host arrays.
// Sides must be even for the quadrant swap to be complete.
#pragma once

#include <math.h>

#include <vector>

#include "cuda_general/platform.h"
#include "image_filter/image_filter.h"  // GAUSS_NORM, the height of the disc's Gaussian rim

// Weight of pixel (x, y) of the soft disc centred at (cx, cy). The offsets are single
// precision, their squared sum double precision; the rim is evaluated in single precision.
PICKORA_HD inline float rmask_soft_value(unsigned x, unsigned y, float cx, float cy, float radius, float soft) {
  const float dx = static_cast<float>(x) - cx;
  const float dy = static_cast<float>(y) - cy;
  const double d2 = static_cast<double>(dx) * static_cast<double>(dx) + static_cast<double>(dy) * static_cast<double>(dy);
  const double outer = static_cast<double>(radius + soft);
  if (d2 > outer * outer) return 0.0f;
  if (d2 > static_cast<double>(radius) * static_cast<double>(radius)) {
    const float t = sqrtf(static_cast<float>(d2)) - radius;
    const float s = soft / 3.0f;
    return GAUSS_NORM * expf(-(t * t) / (2.0f * s * s));
  }
  return 1.0f;
}

PICKORA_HD inline void cuda_2d_generate_rmask_soft(unsigned x, unsigned y, float* mask, unsigned nx, unsigned ny,
                                                   float cx, float cy, float radius, float soft) {
  if (x < nx && y < ny) mask[y * nx + x] = rmask_soft_value(x, y, cx, cy, radius, soft);
}

// The soft disc centred at (cx, cy).
void hcuda_2d_generate_rmask_soft(float* mask, unsigned nx, unsigned ny, float cx, float cy, float radius,
                                  float soft);
// The disc centred at ((nx - 1) / 2, (ny - 1) / 2) in float; the sharp one has no rim.
void hcuda_2d_generate_central_rmask(float* mask, unsigned nx, unsigned ny, float radius, float soft);
void hcuda_2d_generate_central_sharp_rmask(float* mask, unsigned nx, unsigned ny, float radius);

// Weighted local mean, mirror-padded.
void hcuda_2d_bg_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void hcuda_2d_bg_mpad_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft);
// data = data - its padded local mean.
void hcuda_2d_subbg_mpad_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft);
// Weighted local mean without padding (the image wraps around).
void hcuda_2d_bg(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void hcuda_2d_bg_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft);
// data = data - its unpadded local mean.
void hcuda_2d_bg_reduce_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft);

// The local average and local sigma maps. sigma = sqrt(mean(x^2) - mean(x)^2), all in single
// precision; rounding can make the difference slightly negative, and the root is then NaN.
void hcuda_2d_local_ave_softR_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void hcuda_2d_local_sigma_softR_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius,
                                     float soft);
void hcuda_2d_local_ave_softR(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void hcuda_2d_local_sigma_softR(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);

// ---- Both maps at once, with what one micrograph leaves for the next -----------------------

// A soft disc's spectrum for means over images of one padded size, and its weight sum.
struct SoftDiscSpectrum {
  float radius = 0.0f, soft = 0.0f;  // what it was made for
  float weight_sum = 0.0f;
  float2* spectrum = nullptr;
};

// Scratch and disc spectra kept between calls of one image size: the micrographs of a run all
// have that size and the same radii, so their discs are made once. Zero-initialise it and
// release it with local_maps_workspace_release; a call at another size starts it afresh.
struct LocalMapsWorkspace {
  unsigned nx = 0, ny = 0;  // image size of the scratch; 0 before the first call
  float* padded = nullptr;  // 2 nx by 2 ny: the mirrored image, then its square
  float* mean = nullptr;    // 2 nx by 2 ny: one mean before it is cut back to nx by ny
  float* mean_x = nullptr;  // nx by ny: the mean under the sigma disc, then its square
  float2* image_spec = nullptr;
  float2* square_spec = nullptr;
  float2* product = nullptr;
  cufftHandle r2c = 0, c2r = 0;
  std::vector<SoftDiscSpectrum> discs;
};
void local_maps_workspace_release(LocalMapsWorkspace* ws);

// The padded local mean at ave_radius into lave and the padded local sigma at sigma_radius into
// lsigma: the same bytes as hcuda_2d_local_ave_softR_mpad and hcuda_2d_local_sigma_softR_mpad,
// for less work, as the mirrored image and its square are transformed once for the three means.
void hcuda_2d_local_ave_sigma_mpad(LocalMapsWorkspace* ws, float* lave, float* lsigma, const float* in, unsigned nx,
                                   unsigned ny, float ave_radius, float sigma_radius, float soft);

// Host arrays: allocate, copy in, call the hcuda_ form of the same name, copy out, free.
void gpu_2d_generate_rmask_soft(float* mask, unsigned nx, unsigned ny, float cx, float cy, float radius,
                                float soft);
void gpu_2d_bg(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_bg_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_bg_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_bg_mpad_inplace(float* data, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_local_ave_softR(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_local_sigma_softR(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_local_ave_softR_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius, float soft);
void gpu_2d_local_sigma_softR_mpad(float* out, const float* in, unsigned nx, unsigned ny, float radius,
                                   float soft);

// File to file: slice 0 of an MRC file through gpu_2d_local_ave_softR_mpad (padded) or
// gpu_2d_local_sigma_softR (not padded), written as one mode-2 section. Returns 0; a file
// that cannot be read or written ends the run.
int mrcf_2d_lave(const char* in_path, const char* out_path, float radius, float soft);
int mrcf_2d_lsigma(const char* in_path, const char* out_path, float radius, float soft);
