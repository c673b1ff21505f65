// The phase-flipped micrograph on disk.
#include <vector>

#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "ctf_buffers.h"

namespace {

// The micrograph's first slice, read through managed memory, into the device block d.
void read_micrograph_to_device(const char* name, int nx, int ny, float* d) {
  int fx = 0, fy = 0;
  get_mrcf_xy(fx, fy, name);
  if (fx != nx || fy != ny)
    PK_FATAL("'%s' is %d x %d pixels, not the %d x %d of the phase flip", name, fx, fy, nx, ny);
  float* managed = mrcf_get_zdata_all(name);
  PK_CUDA_CHECK(memcpy_D2D(d, managed, sizeof(float) * std::size_t(nx) * ny));
  safe_cudaFree(managed);
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
  CtfDeviceBlock<float> image(pixels, h_image);
  if (h_image == nullptr) read_micrograph_to_device(name, nx, ny, image.get());
  CtfDeviceBlock<float2> spectrum(bins), swapped(bins);

  hcuda_2d_fft_r2c_norm(image.get(), spectrum.get(), ux, uy);
  // Shifting the flat half array by half its length moves whole rows (ny is even): the zero
  // frequency comes to row ny / 2, where the flip kernel expects it.
  hcuda_complex2d_center_swap(swapped.get(), spectrum.get(), nh, uy);
  hcuda_2dh_phase_flip(swapped.get(), swapped.get(), pixel_size, nh, uy, kv, cs, ac, ps, defU, defV, defA);
  hcuda_complex2d_center_swap(spectrum.get(), swapped.get(), nh, uy);
  hcuda_2d_fft_c2r_norm(spectrum.get(), image.get(), ux, uy);

  std::vector<float> result(pixels);
  image.copy_to_host(result.data());
  image.release();
  spectrum.release();
  swapped.release();
  mrcf_write_xyz_data(out_name, result.data(), nx, ny, 1);
  return 0;
}
