// Peak search on a coarse grid: launchers of the per-cell kernels and the picker's entry.
#include "pickora56/grid_peaks.h"

#include <cstddef>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"

namespace {

struct GridShape {
  int nx, ny;          // cells along x and y
  std::size_t cells;
};

GridShape grid_shape(int nx, int ny, int grid_step) {
  if (grid_step <= 0 || nx <= 0 || ny <= 0)
    PK_FATAL("A peak grid needs a positive map and step, not %d x %d with step %d", nx, ny, grid_step);
  GridShape g;
  g.nx = grid_cells_along(nx, grid_step);
  g.ny = grid_cells_along(ny, grid_step);
  g.cells = static_cast<std::size_t>(g.nx) * static_cast<std::size_t>(g.ny);
  return g;
}

template <class T>
T* device_array(std::size_t n) {
  T* p = nullptr;
  safe_cudaMalloc(&p, sizeof(T) * n);
  return p;
}

template <class T>
void free_device(T* p) {
  PK_CUDA_CHECK(cudaFree(p));
}

void launch_find_psi(const float* ccmax, const float* psi, unsigned* grid_index, float* grid_cc, float* grid_psi,
                     int nx, int ny, int grid_step, GridShape g) {
  const int gnx = g.nx, gny = g.ny;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(gnx), static_cast<unsigned>(gny), PICKORA_LAMBDA(unsigned gx, unsigned gy) {
        cuda_find_ccmax_psi_grids(gx, gy, ccmax, psi, grid_index, grid_cc, grid_psi, nx, ny, gnx, gny, grid_step);
      });
}

// Decides every cell against `found` (the find step's indices) into grid_index; with a null
// exclusion list, the filter without the exclusion step.
void launch_filter(const unsigned* found, unsigned* grid_index, const float* grid_cc, float cc_cutoff, int nx, int ny,
                   int grid_step, GridShape g, const unsigned* exclusion, unsigned exclusion_n) {
  const int gnx = g.nx, gny = g.ny;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(gnx), static_cast<unsigned>(gny), PICKORA_LAMBDA(unsigned gx, unsigned gy) {
        grid_filter_cell(gx, gy, found, grid_index, grid_cc, cc_cutoff, nx, gnx, gny, grid_step, exclusion,
                         exclusion_n);
      });
}

// The in-place filters of the hcuda_ family decide against a copy of the index array.
void filter_in_place(unsigned* grid_index, const float* grid_cc, float cc_cutoff, int nx, int ny, int grid_step,
                     const unsigned* exclusion = nullptr, unsigned exclusion_n = 0) {
  const GridShape g = grid_shape(nx, ny, grid_step);
  unsigned* found = device_array<unsigned>(g.cells);
  PK_CUDA_CHECK(memcpy_D2D(found, grid_index, sizeof(unsigned) * g.cells));
  launch_filter(found, grid_index, grid_cc, cc_cutoff, nx, ny, grid_step, g, exclusion, exclusion_n);
  free_device(found);
}

// Device scratch of one host-facing call: the find step's indices, the filtered indices, cc, psi.
void find_filter_to_host(float* ccmax, float* psi, unsigned* h_index, float* h_cc, float* h_psi, float cc_cutoff,
                         int nx, int ny, int grid_step, const unsigned* exclusion = nullptr,
                         unsigned exclusion_n = 0) {
  const GridShape g = grid_shape(nx, ny, grid_step);
  unsigned* found = device_array<unsigned>(g.cells);
  unsigned* index = device_array<unsigned>(g.cells);
  float* cc = device_array<float>(g.cells);
  // grid_psi is written only where a cell improves on its first pixel; the rest is meaningless,
  // but is cleared so that no uninitialised memory reaches the caller.
  float* ang = nullptr;
  safe_cudaMalloc_empty(&ang, sizeof(float) * g.cells);
  launch_find_psi(ccmax, psi, found, cc, ang, nx, ny, grid_step, g);
  launch_filter(found, index, cc, cc_cutoff, nx, ny, grid_step, g, exclusion, exclusion_n);
  PK_CUDA_CHECK(memcpy_D2H(h_index, index, sizeof(unsigned) * g.cells));
  PK_CUDA_CHECK(memcpy_D2H(h_cc, cc, sizeof(float) * g.cells));
  PK_CUDA_CHECK(memcpy_D2H(h_psi, ang, sizeof(float) * g.cells));
  free_device(found);
  free_device(index);
  free_device(cc);
  free_device(ang);
}

}  // namespace

void hcuda_find_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, int nx, int ny, int grid_step) {
  const GridShape g = grid_shape(nx, ny, grid_step);
  const int gnx = g.nx, gny = g.ny;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(gnx), static_cast<unsigned>(gny), PICKORA_LAMBDA(unsigned gx, unsigned gy) {
        cuda_find_ccmax_grids(gx, gy, ccmax, grid_index, grid_cc, nx, ny, gnx, gny, grid_step);
      });
}

void hcuda_find_update_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, int nx, int ny,
                                   int grid_step) {
  const GridShape g = grid_shape(nx, ny, grid_step);
  const int gnx = g.nx, gny = g.ny;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(gnx), static_cast<unsigned>(gny), PICKORA_LAMBDA(unsigned gx, unsigned gy) {
        cuda_find_update_ccmax_grids(gx, gy, ccmax, grid_index, grid_cc, nx, ny, gnx, gny, grid_step);
      });
}

void hcuda_find_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned* grid_index, float* grid_cc,
                                float* grid_psi, int nx, int ny, int grid_step) {
  launch_find_psi(ccmax, psi, grid_index, grid_cc, grid_psi, nx, ny, grid_step, grid_shape(nx, ny, grid_step));
}

void hcuda_filter_ccmax_grids(const float* ccmax, unsigned* grid_index, const float* grid_cc, float cc_cutoff, int nx,
                              int ny, int grid_step) {
  filter_in_place(grid_index, grid_cc, cc_cutoff, nx, ny, grid_step);
}

void hcuda_filter_ccmax_psi_grids_exclusive(unsigned* grid_index, const float* grid_cc, float cc_cutoff, int nx,
                                            int ny, int grid_step, const unsigned* exclusion, unsigned exclusion_n) {
  filter_in_place(grid_index, grid_cc, cc_cutoff, nx, ny, grid_step, exclusion, exclusion_n);
}

void hcuda_find_filter_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, float cc_cutoff, int nx,
                                   int ny, int grid_step) {
  hcuda_find_ccmax_grids(ccmax, grid_index, grid_cc, nx, ny, grid_step);
  filter_in_place(grid_index, grid_cc, cc_cutoff, nx, ny, grid_step);
}

void hcuda_find_update_filter_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, float cc_cutoff,
                                          int nx, int ny, int grid_step) {
  hcuda_find_update_ccmax_grids(ccmax, grid_index, grid_cc, nx, ny, grid_step);
  filter_in_place(grid_index, grid_cc, cc_cutoff, nx, ny, grid_step);
}

void hcuda_find_filter_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned* grid_index, float* grid_cc,
                                       float* grid_psi, float cc_cutoff, int nx, int ny, int grid_step) {
  hcuda_find_ccmax_psi_grids(ccmax, psi, grid_index, grid_cc, grid_psi, nx, ny, grid_step);
  filter_in_place(grid_index, grid_cc, cc_cutoff, nx, ny, grid_step);
}

void gpu_find_filter_ccmax_psi_grids_exclusive(float* ccmax, float* psi, unsigned int* grid_index, float* grid_cc,
                                               float* grid_psi, float cc_cutoff, int nx, int ny, int grid_step,
                                               unsigned int* exclusion, unsigned int exclusion_n) {
  find_filter_to_host(ccmax, psi, grid_index, grid_cc, grid_psi, cc_cutoff, nx, ny, grid_step, exclusion,
                      exclusion_n);
}

void gpu_find_filter_ccmax_psi_grids(float* ccmax, float* psi, unsigned int* grid_index, float* grid_cc,
                                     float* grid_psi, float cc_cutoff, int nx, int ny, int grid_step) {
  find_filter_to_host(ccmax, psi, grid_index, grid_cc, grid_psi, cc_cutoff, nx, ny, grid_step);
}
