// The stack driver of the dose and drift weighting: every particle's frames to one image.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "pre_shiny6/pre_shiny6.h"

namespace {

struct FreeDeleter {
  void operator()(float* p) const { std::free(p); }
};

// The weight maps of the range for viewing; the driver's fourth mode.
void write_weight_maps(unsigned nxh, unsigned ny, int first, int last, float apix, const float* dose,
                       const float2* drift, const GPS_PARA& para) {
  // One map fewer than the range holds: the maps stand between consecutive frames' doses.
  const int maps = last - first;
  if (maps < 1) PK_FATAL("weight maps need a frame range of two frames at least, not %d", last - first + 1);
  std::vector<float> w(static_cast<size_t>(nxh) * ny * static_cast<size_t>(maps));
  gpu_2ds_fft_dose_dft_wgen_swap(w.data(), nxh, ny, static_cast<unsigned>(maps), apix, dose + first, drift + first,
                                 para);
  mrcf_write_xyz_data("Weights3D.mrcs", w.data(), static_cast<int>(nxh), static_cast<int>(ny), maps);
}

}  // namespace

int mrcsf_dose_drift_ctf_wave_many(const char* in_path, const char* out_path, int frames_per_particle, int first,
                                   int last, float apix, const float* dose, const float2* drift, const float* ctfw,
                                   GPS_PARA para) {
  if (para.device < 1 || para.device > 4)
    PK_FATAL("device must be 1 (host average), 2 (device average), 3 (plain mean) or 4 (weight maps), not %d",
             para.device);
  if (para.device != 3) gps_para_check(para, para.device == 2);
  int nx = 0, ny = 0, nz = 0;
  get_mrcf_xyz(nx, ny, nz, in_path);
  if (nx < 2 || ny < 1 || nz < 1) PK_FATAL("%s holds no images to weight (%d x %d x %d)", in_path, nx, ny, nz);
  if (frames_per_particle < 1 || nz % frames_per_particle != 0) PK_FATAL("Movie frame number not divided by ! ");
  if (first < 0) first = 0;
  if (last > frames_per_particle - 1) last = frames_per_particle - 1;
  if (last < first) PK_FATAL("the frame range %d to %d is empty", first, last);
  const unsigned nxh = fft_half_width(static_cast<unsigned>(nx));
  if (para.device == 4) {
    write_weight_maps(nxh, static_cast<unsigned>(ny), first, last, apix, dose, drift, para);
    return 0;
  }

  const int particles = nz / frames_per_particle;
  const unsigned n = static_cast<unsigned>(last - first + 1);
  const size_t pixels = static_cast<size_t>(nx) * ny, plane = static_cast<size_t>(nxh) * ny;
  std::unique_ptr<float, FreeDeleter> stack(mrcf_get_data_all(in_path));
  std::vector<float2> spectra(plane * n), average(plane);
  std::vector<float> images(pixels * static_cast<size_t>(particles));
  for (int p = 0; p < particles; ++p) {
    const float* frames = stack.get() + (static_cast<size_t>(p) * frames_per_particle + first) * pixels;
    gpu_2ds_fft_r2c(frames, spectra.data(), nx, ny, n);
    if (para.device == 1)
      cpu_2ds_fft_dose_dft_ctf_wave(spectra.data(), average.data(), nxh, ny, n, apix, dose + first, drift + first,
                                    para);
    else if (para.device == 2)
      gpu_2ds_fft_dose_dft_ctf_wave(spectra.data(), average.data(), nxh, ny, n, apix, dose + first, drift + first,
                                    ctfw, para);
    else
      cpu_2ds_fftout_r2c_ave(spectra.data(), average.data(), nxh, ny, n);
    gpu_2d_fft_c2r(average.data(), images.data() + static_cast<size_t>(p) * pixels, nx, ny);
    std::printf("Particle %d \n", p);
  }
  mrcf_write_xyz_data(out_path, images.data(), nx, ny, particles);
  return 0;
}
