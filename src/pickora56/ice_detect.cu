// Ice and contamination detection on the device: the two local maps, the cell scan, and the
// files of one micrograph.
#include "pickora56/ice_detect.h"

#include <vector>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/pickora_driver.h"
#include "process2d_raw/local_stats.h"

namespace {

// The device arrays of one detection, freed however the detection ends (a failed write of its
// files included).
struct IceScratch {
  float* lsigma = nullptr;
  float* lave = nullptr;
  float* cell_ave = nullptr;
  float* cell_sigma = nullptr;
  IceScratch() = default;
  IceScratch(const IceScratch&) = delete;
  IceScratch& operator=(const IceScratch&) = delete;
  ~IceScratch() {
    for (float** d : {&lsigma, &lave, &cell_ave, &cell_sigma})
      if (*d != nullptr) cudaFree(*d);  // no report from a destructor: it may run while unwinding
  }
};

float* device_floats(unsigned long count) {
  float* d = nullptr;
  PK_CUDA_CHECK(cudaMalloc(reinterpret_cast<void**>(&d), sizeof(float) * count));
  return d;
}

void write_rejected_files(const char* mic_name, const std::vector<unsigned int>& grid,
                          const std::vector<float>& cell_ave, const std::vector<float>& cell_sigma, int nx, int ny,
                          int2 origin, int ice_step, int shrink) {
  char name[1024];
  mrcf_set_outname_by_suffix(name, mic_name, "_rejected.box");
  output_ice_coord(name, grid.data(), cell_ave.data(), cell_sigma.data(), nx, ny, origin, ice_step, shrink, 2);
  mrcf_set_outname_by_suffix(name, mic_name, "_rejected.star");
  output_ice_coord(name, grid.data(), cell_ave.data(), cell_sigma.data(), nx, ny, origin, ice_step, shrink, 1);
}

void write_map(const char* mic_name, const char* suffix, const float* d_map, int nx, int ny) {
  char name[1024];
  mrcf_set_outname_by_suffix(name, mic_name, suffix);
  mrcf_write_xyz_ddata(name, d_map, nx, ny, 1);
}

}  // namespace

int ice_detect_step(const Pickora_Para* para) { return pickora_grid_step(para->min_dist, para->shrink, para->apixM); }

void hcuda_find_sigma_grids(const float* lave, const float* lsigma, unsigned int* grid, float* cell_ave,
                            float* cell_sigma, int nx, int ny, int ice_step, float lave_min, float lave_max,
                            float lsigma_cutoff) {
  const unsigned ice_nx = static_cast<unsigned>(ice_cells_across(nx, ice_step));
  const unsigned ice_ny = static_cast<unsigned>(ice_cells_across(ny, ice_step));
  PK_LAUNCH_IMAGE(ice_nx, ice_ny, PICKORA_LAMBDA(unsigned gx, unsigned gy) {
    cuda_find_sigma_grids(gx, gy, lave, lsigma, grid, cell_ave, cell_sigma, nx, ny, ice_step, lave_min, lave_max,
                          lsigma_cutoff);
  });
}

int hcuda_2d_ice_detect(const float* image, int nx, int ny, int2 origin, unsigned int* grid, const char* mic_name,
                        const Pickora_Para* para) {
  LocalMapsWorkspace maps{};
  hcuda_2d_ice_detect(&maps, image, nx, ny, origin, grid, mic_name, para);
  local_maps_workspace_release(&maps);
  return 0;
}

int hcuda_2d_ice_detect(LocalMapsWorkspace* maps, const float* image, int nx, int ny, int2 origin, unsigned int* grid,
                        const char* mic_name, const Pickora_Para* para) {
  const int ice_step = ice_detect_step(para);
  if (ice_step <= 0) PK_FATAL("cell side %d from --min_dist is not positive", ice_step);
  const unsigned ux = static_cast<unsigned>(nx), uy = static_cast<unsigned>(ny);
  const unsigned long pixels = static_cast<unsigned long>(ux) * uy;
  const unsigned long cells =
      static_cast<unsigned long>(ice_cells_across(nx, ice_step)) * static_cast<unsigned long>(ice_cells_across(ny, ice_step));

  IceScratch d;
  d.lsigma = device_floats(pixels);
  d.lave = device_floats(pixels);
  d.cell_ave = device_floats(cells);
  d.cell_sigma = device_floats(cells);
  std::vector<unsigned int> h_grid(cells);
  std::vector<float> h_ave(cells), h_sigma(cells);

  hcuda_2d_local_ave_sigma_mpad(maps, d.lave, d.lsigma, image, ux, uy, para->lave_radius, para->lsigma_radius,
                                para->local_soft_edge);
  hcuda_find_sigma_grids(d.lave, d.lsigma, grid, d.cell_ave, d.cell_sigma, nx, ny, ice_step, para->lave_min,
                         para->lave_max, para->lsigma_cutoff);
  PK_CUDA_CHECK(memcpy_D2H(h_grid.data(), grid, sizeof(unsigned int) * cells));
  PK_CUDA_CHECK(memcpy_D2H(h_ave.data(), d.cell_ave, sizeof(float) * cells));
  PK_CUDA_CHECK(memcpy_D2H(h_sigma.data(), d.cell_sigma, sizeof(float) * cells));

  pickora_warn_rejected_share(mic_name, h_grid.data(), cells);
  if (para->write_rejected_box)
    write_rejected_files(mic_name, h_grid, h_ave, h_sigma, nx, ny, origin, ice_step, para->shrink);
  if (para->write_bg_mic) write_map(mic_name, "_bg.mrc", d.lave, nx, ny);
  if (para->write_lsigma_mic) write_map(mic_name, "_lsigma.mrc", d.lsigma, nx, ny);

  for (float** p : {&d.lsigma, &d.lave, &d.cell_ave, &d.cell_sigma}) safe_cudaFree(*p);
  return 0;
}
