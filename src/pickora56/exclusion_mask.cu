// The exclusion grid from user coordinates, and the picking mask built from the grid.
#include "pickora56/exclusion_mask.h"

#include <cstdio>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "math_utils/array_kernels.h"
#include "math_utils/device_stats.h"
#include "txt_file/arrays_strings.h"

namespace {

int cells_across(int n, int step) { return (n + step - 1) / step; }

void require_positive_sizes(int nx, int ny, int grid_step, int shrink) {
  if (nx <= 0 || ny <= 0 || grid_step <= 0 || shrink <= 0)
    PK_FATAL("invalid exclusion grid: image %d x %d, cell side %d, shrink %d", nx, ny, grid_step, shrink);
}

}  // namespace

int add_excluded_coords_to_ice(unsigned int* grid, int nx, int ny, int grid_step, const PTCL_BOX* boxes, int count,
                               int shrink) {
  if (count <= 0) return 0;
  require_positive_sizes(nx, ny, grid_step, shrink);
  const unsigned width = static_cast<unsigned>(nx), height = static_cast<unsigned>(ny);
  const unsigned step = static_cast<unsigned>(grid_step), factor = static_cast<unsigned>(shrink);
  const unsigned cols = (width + step - 1) / step;
  for (int i = 0; i < count; ++i) {
    const int centre_x = ptcl_box_center_x(boxes[i]), centre_y = ptcl_box_center_y(boxes[i]);
    if (centre_x < 0 || centre_y < 0) continue;
    const unsigned cx = static_cast<unsigned>(centre_x) / factor, cy = static_cast<unsigned>(centre_y) / factor;
    // Outside the work image there is no cell for the record.
    if (cx >= width || cy >= height) continue;
    const unsigned int word = cy * width + cx;
    const unsigned cell = (cy / step) * cols + cx / step;
    PK_CUDA_CHECK(memcpy_H2D(grid + cell, &word, sizeof(word)));
  }
  return 0;
}

int add_excluded_boxf_to_ice(unsigned int* grid, int nx, int ny, int grid_step, const char* name, int shrink) {
  require_positive_sizes(nx, ny, grid_step, shrink);
  const int grid_cells = cells_across(nx, grid_step) * cells_across(ny, grid_step);
  if (is_str_null(name) != 0 || check_file_access(name, "FR") != 0) return 0;
  std::vector<PTCL_BOX> boxes(static_cast<size_t>(grid_cells));
  const int count = read_all_ptcl_boxes(boxes.data(), grid_cells, name);
  std::printf("%8d particles in file %s excluded from auto-picking \n", count, name);
  return add_excluded_coords_to_ice(grid, nx, ny, grid_step, boxes.data(), count, shrink);
}

int pickora_add_exclusions_to_grid(unsigned int* grid, int nx, int ny, int grid_step, const PTCL_BOX* boxes,
                                   int count, const Pickora_Para* para) {
  // Without an exclude file of its own a micrograph has no coordinates to mask, whatever
  // --mask_excluded says.
  if (para->exclusive_picking && para->mask_excluded && count > 0)
    add_excluded_coords_to_ice(grid, nx, ny, grid_step, boxes, count, para->shrink);
  if (is_str_null(para->global_excluded_box) == 0)
    add_excluded_boxf_to_ice(grid, nx, ny, grid_step, para->global_excluded_box, para->shrink);
  return 0;
}

int hcuda_2d_generate_mask_by_coords(float* mask, const float* image, int nx, int ny, int grid_step,
                                     const unsigned int* grid, int marked) {
  (void)image;
  require_positive_sizes(nx, ny, grid_step, 1);
  const unsigned grid_nx = static_cast<unsigned>(cells_across(nx, grid_step));
  const unsigned grid_ny = static_cast<unsigned>(cells_across(ny, grid_step));
  PK_LAUNCH_IMAGE(grid_nx, grid_ny, PICKORA_LAMBDA(unsigned gx, unsigned gy) {
    cuda_2d_generate_mask_by_coords(gx, gy, mask, nx, ny, grid_step, grid, marked);
  });
  return 0;
}

void hcuda_apply_mask(float* out, const float* in, const float* mask, unsigned long n) {
  hcuda_x1d_multi(out, in, mask, n);
}

void hcuda_apply_mask_inplace(float* data, const float* mask, unsigned long n) {
  hcuda_x1d_multi_inplace(data, mask, n);
}

void hcuda_norm_withmask_applymask_inplace(float* data, const float* mask, unsigned long n, float stdv, float mean) {
  hcuda_norm_withmask_inplace(data, mask, n, stdv, mean);
  hcuda_apply_mask_inplace(data, mask, n);
}

void gpu_norm_withmask_applymask(float* out, const float* in, const float* mask, unsigned long n, float stdv,
                                 float mean) {
  const size_t bytes = sizeof(float) * (n > 0 ? n : 1);
  float* d_data = nullptr;
  float* d_mask = nullptr;
  safe_cudaMalloc(&d_data, bytes);
  safe_cudaMalloc(&d_mask, bytes);
  PK_CUDA_CHECK(memcpy_H2D(d_data, in, sizeof(float) * n));
  PK_CUDA_CHECK(memcpy_H2D(d_mask, mask, sizeof(float) * n));
  hcuda_norm_withmask_applymask_inplace(d_data, d_mask, n, stdv, mean);
  PK_CUDA_CHECK(memcpy_D2H(out, d_data, sizeof(float) * n));
  PK_CUDA_CHECK(cudaFree(d_data));
  PK_CUDA_CHECK(cudaFree(d_mask));
}

void gpu_norm_withmask_applymask_inplace(float* data, const float* mask, unsigned long n, float stdv, float mean) {
  gpu_norm_withmask_applymask(data, data, mask, n, stdv, mean);
}
