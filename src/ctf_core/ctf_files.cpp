// The phase-flipped micrograph on disk.
#include <vector>

#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "ctf_buffers.h"

namespace {

// The micrograph's first slice, read through managed memory, as a new device block.
float* read_micrograph_to_device(const char* name, int nx, int ny) {
  int fx = 0, fy = 0;
  get_mrcf_xy(fx, fy, name);
  if (fx != nx || fy != ny)
    PK_FATAL("'%s' is %d x %d pixels, not the %d x %d of the phase flip", name, fx, fy, nx, ny);
  float* managed = mrcf_get_zdata_all(name);
  float* d = ctf_device_block<float>(std::size_t(nx) * ny);
  PK_CUDA_CHECK(memcpy_D2D(d, managed, sizeof(float) * std::size_t(nx) * ny));
  safe_cudaFree(managed);
  return d;
}

}  // namespace

int mrcf_phase_flip_write(const char* name, const float* h_image, int nx, int ny, float pixel_size, float kv, float cs,
                          float ac, float ps, float defU, float defV, float defA) {
  if (nx <= 0 || ny <= 0) PK_FATAL("the micrograph '%s' is %d x %d pixels", name, nx, ny);
  ctf_require_even_sides(__func__, static_cast<unsigned>(nx), static_cast<unsigned>(ny));
  ctf_require_usable(__func__, pixel_size, ac);
  char out_name[1024];
  mrcf_set_outname_by_suffix(out_name, name, "_pf.mrc");

  const unsigned ux = static_cast<unsigned>(nx), uy = static_cast<unsigned>(ny), nh = fft_half_width(ux);
  const std::size_t pixels = std::size_t(nx) * ny, bins = std::size_t(nh) * ny;
  float* image = h_image != nullptr ? ctf_device_block(pixels, h_image) : read_micrograph_to_device(name, nx, ny);
  float2* spectrum = ctf_device_block<float2>(bins);
  float2* swapped = ctf_device_block<float2>(bins);

  hcuda_2d_fft_r2c_norm(image, spectrum, ux, uy);
  // Shifting the flat half array by half its length moves whole rows (ny is even): the zero
  // frequency comes to row ny / 2, where the flip kernel expects it.
  hcuda_complex2d_center_swap(swapped, spectrum, nh, uy);
  hcuda_2dh_phase_flip(swapped, swapped, pixel_size, nh, uy, kv, cs, ac, ps, defU, defV, defA);
  hcuda_complex2d_center_swap(spectrum, swapped, nh, uy);
  hcuda_2d_fft_c2r_norm(spectrum, image, ux, uy);

  std::vector<float> result(pixels);
  ctf_device_return(result.data(), image, pixels);
  safe_cudaFree(spectrum);
  safe_cudaFree(swapped);
  mrcf_write_xyz_data(out_name, result.data(), nx, ny, 1);
  return 0;
}
