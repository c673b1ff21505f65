// Launchers of the dose and drift kernels and their host-array forms.
#include <cmath>
#include <cstddef>
#include <cstdio>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "pre_shiny6/pre_shiny6.h"

void gps_para_check(const GPS_PARA& para, bool with_norm) {
  if (para.mw_skeme < 0 || para.mw_skeme > 3)
    PK_FATAL("mw_skeme must be 0 (no weight), 1 (dose), 2 (drift) or 3 (both), not %d", para.mw_skeme);
  if (with_norm && para.wnorm_type != 1 && para.wnorm_type != 2)
    PK_FATAL("wnorm_type must be 1 (sum of |w|) or 2 (root of the sum of w^2), not %d", para.wnorm_type);
}

void dose_sampling_check(unsigned nxh, unsigned ny, float apix) {
  if (nxh < 2 || ny < 1) PK_FATAL("a half spectrum of %u x %u is too small to weight", nxh, ny);
  if (!(apix > 0.0f) || !std::isfinite(apix))
    PK_FATAL("the pixel size must be a positive number of angstrom, not %g", static_cast<double>(apix));
}

namespace {

template <class T>
T* device_copy(const T* host, std::size_t count) {
  T* d = nullptr;
  safe_cudaMalloc(&d, count * sizeof(T));
  PK_CUDA_CHECK(memcpy_H2D(d, host, count * sizeof(T)));
  return d;
}

}  // namespace

void hcuda_2ds_fft_dose_dft_ctf_wave(const float2* frames, float2* out, unsigned nxh, unsigned ny, unsigned nz,
                                     float apix, const float* dose, const float2* drift, const float* ctfw,
                                     GPS_PARA p) {
  gps_para_check(p, true);
  dose_sampling_check(nxh, ny, apix);
  if (ctfw == nullptr) PK_FATAL("the weighted average needs a radial table");
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2ds_fft_dose_dft_ctf_wave(x, y, frames, out, nxh, ny, nz, apix, dose, drift, ctfw, p);
  });
}

void hcuda_2d_fft_dose_dft_wgen(float* w, unsigned nxh, unsigned ny, float apix, float dose, float2 drift,
                                GPS_PARA p) {
  gps_para_check(p, false);
  dose_sampling_check(nxh, ny, apix);
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2d_fft_dose_dft_wgen(x, y, w, nxh, ny, apix, dose, drift, p);
  });
}

void hcuda_2d_fft_dose_dft_wadd(float* w, unsigned nxh, unsigned ny, float apix, float dose, float2 drift,
                                GPS_PARA p) {
  gps_para_check(p, true);
  dose_sampling_check(nxh, ny, apix);
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2d_fft_dose_dft_wadd(x, y, w, nxh, ny, apix, dose, drift, p);
  });
}

void hcuda_2ds_fft_dose_dft_wgen(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose,
                                 const float2* drift, GPS_PARA p) {
  gps_para_check(p, false);
  dose_sampling_check(nxh, ny, apix);
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2ds_fft_dose_dft_wgen(x, y, w, nxh, ny, nz, apix, dose, drift, p);
  });
}

void hcuda_2ds_fft_dose_dft_wgen_swap(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix,
                                      const float* dose, const float2* drift, GPS_PARA p) {
  gps_para_check(p, false);
  dose_sampling_check(nxh, ny, apix);
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2ds_fft_dose_dft_wgen_swap(x, y, w, nxh, ny, nz, apix, dose, drift, p);
  });
}

void hcuda_2d_fft_dose_dft_wgen_wsum_one(const float2* frame, float2* sum, float* wsum, unsigned nxh, unsigned ny,
                                         float apix, float dose, float2 drift, GPS_PARA p) {
  gps_para_check(p, true);
  dose_sampling_check(nxh, ny, apix);
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2d_fft_dose_dft_wgen_wsum_one(x, y, frame, sum, wsum, nxh, ny, apix, dose, drift, p);
  });
}

void gpu_2ds_fft_dose_dft_ctf_wave(const float2* frames, float2* out, unsigned nxh, unsigned ny, unsigned nz,
                                   float apix, const float* dose, const float2* drift, const float* ctfw, GPS_PARA p) {
  gps_para_check(p, true);
  dose_sampling_check(nxh, ny, apix);
  if (ctfw == nullptr) PK_FATAL("the weighted average needs a radial table");
  const std::size_t plane = static_cast<std::size_t>(nxh) * ny;
  print_dose_drif_ctfw(dose, drift, static_cast<int>(nz), ctfw, static_cast<int>(nxh));
  float2* d_frames = device_copy(frames, plane * nz);
  float* d_dose = device_copy(dose, nz);
  float2* d_drift = device_copy(drift, nz);
  float* d_ctfw = device_copy(ctfw, nxh);
  float2* d_out = nullptr;
  safe_cudaMalloc(&d_out, plane * sizeof(float2));
  hcuda_2ds_fft_dose_dft_ctf_wave(d_frames, d_out, nxh, ny, nz, apix, d_dose, d_drift, d_ctfw, p);
  PK_CUDA_CHECK(memcpy_D2H(out, d_out, plane * sizeof(float2)));
  safe_cudaFree(d_frames);
  safe_cudaFree(d_dose);
  safe_cudaFree(d_drift);
  safe_cudaFree(d_ctfw);
  safe_cudaFree(d_out);
}

namespace {

void gpu_wgen(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose, const float2* drift,
              GPS_PARA p, bool swap) {
  gps_para_check(p, false);
  dose_sampling_check(nxh, ny, apix);
  const std::size_t count = static_cast<std::size_t>(nxh) * ny * nz;
  print_dose_drif_ctfw(dose, drift, static_cast<int>(nz), nullptr, 0);
  float* d_dose = device_copy(dose, nz);
  float2* d_drift = device_copy(drift, nz);
  float* d_w = nullptr;
  safe_cudaMalloc(&d_w, count * sizeof(float));
  if (swap)
    hcuda_2ds_fft_dose_dft_wgen_swap(d_w, nxh, ny, nz, apix, d_dose, d_drift, p);
  else
    hcuda_2ds_fft_dose_dft_wgen(d_w, nxh, ny, nz, apix, d_dose, d_drift, p);
  PK_CUDA_CHECK(memcpy_D2H(w, d_w, count * sizeof(float)));
  safe_cudaFree(d_dose);
  safe_cudaFree(d_drift);
  safe_cudaFree(d_w);
}

}  // namespace

void gpu_2ds_fft_dose_dft_wgen(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose,
                               const float2* drift, GPS_PARA p) {
  gpu_wgen(w, nxh, ny, nz, apix, dose, drift, p, false);
}

void gpu_2ds_fft_dose_dft_wgen_swap(float* w, unsigned nxh, unsigned ny, unsigned nz, float apix, const float* dose,
                                    const float2* drift, GPS_PARA p) {
  gpu_wgen(w, nxh, ny, nz, apix, dose, drift, p, true);
}
