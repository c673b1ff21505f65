// The exclusion grid and the picking mask.
//
// The exclusion grid is a device array of one unsigned 32-bit word per peak-search cell (side
// grid_step, anchored at pixel (0, 0), cell gy * grid_nx + gx, the last row and column possibly
// partial). A word is 0, meaning nothing to avoid in the cell, or the pixel index y * nx + x of a
// spot to stay away from; a later write replaces an earlier one. Detected contamination and
// user coordinates land there in the same form. The picking mask is a device float image of
// 1.0 in clear cells and 0.0 in marked ones; it steers statistics only.
//
// The plain and masked device normalisations, hcuda_znorm_inplace and
// hcuda_norm_withmask_inplace, live in math_utils/device_stats.h.
#pragma once

#include "boxfile/ptcl_box.h"
#include "cuda_general/platform.h"
#include "pickora56/pickora_para.h"

// Puts the centres of `count` boxes (host records, raw micrograph pixels) into the grid, in
// order: centre (x + w / 2, y + h / 2) / shrink in work pixels, truncated, word cy * nx + cx, in
// the cell that holds it. A centre outside the nx by ny work image (a negative one included)
// has no cell and is ignored. One 4-byte copy per record; the grid stays on the device.
// Returns 0.
int add_excluded_coords_to_ice(unsigned int* grid, int nx, int ny, int grid_step, const PTCL_BOX* boxes, int count,
                               int shrink);
// The same for the records of a coordinate file (.box or .star), read anew on every call with
// room for as many records as the grid has cells. A null or unreadable name (with the access
// warning) leaves the grid untouched. Returns 0.
int add_excluded_boxf_to_ice(unsigned int* grid, int nx, int ny, int grid_step, const char* name, int shrink);

// The micrograph's user coordinates into the grid, with the record's gates: the boxes of the
// micrograph's exclude file (host, `count` of them) only with both --exclusive_picking and
// --mask_excluded, then the records of --global_excluded_box when it names a file. Returns 0.
int pickora_add_exclusions_to_grid(unsigned int* grid, int nx, int ny, int grid_step, const PTCL_BOX* boxes,
                                   int count, const Pickora_Para* para);

// One thread per cell: every pixel of the cell gets `marked` as a float if the cell's word is
// not 0, else 1.0 - marked.
PICKORA_HD inline void cuda_2d_generate_mask_by_coords(unsigned gx, unsigned gy, float* mask, int nx, int ny,
                                                       int grid_step, const unsigned int* grid, int marked) {
  const unsigned step = static_cast<unsigned>(grid_step), width = static_cast<unsigned>(nx),
                 height = static_cast<unsigned>(ny);
  const unsigned grid_nx = (width + step - 1) / step, grid_ny = (height + step - 1) / step;
  if (gx >= grid_nx || gy >= grid_ny) return;
  const float k = static_cast<float>(marked);
  const float value = grid[gy * grid_nx + gx] != 0 ? k : 1.0f - k;
  const unsigned x0 = gx * step, y0 = gy * step;
  const unsigned x1 = x0 + step < width ? x0 + step : width;
  const unsigned y1 = y0 + step < height ? y0 + step : height;
  for (unsigned y = y0; y < y1; ++y)
    for (unsigned x = x0; x < x1; ++x) mask[y * width + x] = value;
}

// The picking mask from the grid (the driver passes marked 0: 0.0 for marked cells, 1.0 for
// clear ones). `image` is not read. Returns 0.
int hcuda_2d_generate_mask_by_coords(float* mask, const float* image, int nx, int ny, int grid_step,
                                     const unsigned int* grid, int marked);

// Element-wise product with a mask.
void hcuda_apply_mask(float* out, const float* in, const float* mask, unsigned long n);
void hcuda_apply_mask_inplace(float* data, const float* mask, unsigned long n);
// hcuda_norm_withmask_inplace, then the product with the mask, so that marked pixels end at 0.0.
void hcuda_norm_withmask_applymask_inplace(float* data, const float* mask, unsigned long n, float stdv, float mean);
// The same on host arrays; the second form leaves `in` as it is.
void gpu_norm_withmask_applymask_inplace(float* data, const float* mask, unsigned long n, float stdv, float mean);
void gpu_norm_withmask_applymask(float* out, const float* in, const float* mask, unsigned long n, float stdv,
                                 float mean);

// Host image: every pixel farther than `radius` from ((nx - 1) / 2, (ny - 1) / 2) becomes 0.0,
// then the sum of all pixels over nx * ny is subtracted from every pixel.
void rmask_subtract_background(float* data, float radius, int nx, int ny);
