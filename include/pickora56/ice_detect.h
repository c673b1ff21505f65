// Ice and contamination detection: the local average and local sigma maps of the work image,
// a scan of the peak-search cells for pixels beyond the cut-offs, the list of rejected cells
// in "_rejected.box" and "_rejected.star", and the two maps as "_bg.mrc" and "_lsigma.mrc".
//
// The cells are those of the driver's exclusion grid: side `ice_step` (see ice_detect_step),
// anchored at pixel (0, 0), cell (gx, gy) has number gy * ice_nx + gx with
// ice_nx = (nx + ice_step - 1) / ice_step, and the last row and column may be partial.
// A cell's word is 0, or the pixel index y * nx + x of the pixel on record for it.
#pragma once

#include "cuda_general/platform.h"
#include "pickora56/pickora_para.h"
#include "process2d_raw/local_stats.h"

// Side of a scan cell in work pixels. The scan writes into the driver's exclusion grid, so the
// side is the driver's grid_step, worked out from the same record fields by the same float
// expression; trunc((1.4142135 min_dist_px) 0.5) is the same value by another rounding path and
// can land one below it, which would make the scan's cells disagree with the grid's.
int ice_detect_step(const Pickora_Para* para);

// Cells per row of an nx-wide image: (nx + step - 1) / step.
PICKORA_HD inline int ice_cells_across(int n, int step) { return (n + step - 1) / step; }

// One thread per cell (gx, gy). The first pixel of the cell is the baseline of a record of
// one (sigma, average) pair; walking the cell row by row, a pixel is taken when
//   its sigma beats the recorded sigma and lies above lsigma_cutoff, or
//   its average is below the recorded average and below lave_min, or
//   its average is above the recorded average and above lave_max;
// taking it stores both of its values and its index. The cell's word is the index of the last
// pixel taken, 0 if none. The first pixel can never be taken, and NaN map values take nothing.
PICKORA_HD inline void cuda_find_sigma_grids(unsigned gx, unsigned gy, const float* lave, const float* lsigma,
                                             unsigned int* grid, float* cell_ave, float* cell_sigma, int nx, int ny,
                                             int ice_step, float lave_min, float lave_max, float lsigma_cutoff) {
  const unsigned ice_nx = static_cast<unsigned>(ice_cells_across(nx, ice_step));
  const unsigned ice_ny = static_cast<unsigned>(ice_cells_across(ny, ice_step));
  if (gx >= ice_nx || gy >= ice_ny) return;
  const unsigned step = static_cast<unsigned>(ice_step), width = static_cast<unsigned>(nx);
  const unsigned x0 = gx * step, y0 = gy * step;
  const unsigned x1 = x0 + step < width ? x0 + step : width;
  const unsigned y1 = y0 + step < static_cast<unsigned>(ny) ? y0 + step : static_cast<unsigned>(ny);
  const unsigned first = y0 * width + x0;
  float rec_sigma = lsigma[first], rec_ave = lave[first];
  unsigned int word = 0;
  for (unsigned y = y0; y < y1; ++y)
    for (unsigned x = x0; x < x1; ++x) {
      const unsigned p = y * width + x;
      const float sig = lsigma[p], ave = lave[p];
      const bool take = (rec_sigma < sig && sig > lsigma_cutoff) || (rec_ave > ave && ave < lave_min) ||
                        (rec_ave < ave && ave > lave_max);
      if (take) {
        rec_sigma = sig;
        rec_ave = ave;
        word = p;
      }
    }
  const unsigned cell = gy * ice_nx + gx;
  cell_sigma[cell] = rec_sigma;
  cell_ave[cell] = rec_ave;
  grid[cell] = word;
}

// The scan over all cells (device arrays); every cell's three values are rewritten.
void hcuda_find_sigma_grids(const float* lave, const float* lsigma, unsigned int* grid, float* cell_ave,
                            float* cell_sigma, int nx, int ny, int ice_step, float lave_min, float lave_max,
                            float lsigma_cutoff);

// Writes the rejected cells (host arrays) to `path`: mode 1 the STAR form (head, then the
// recorded pixel "%-8d%-8d\n" in raw pixels), any other mode the box form (a box of the cell's
// size around the recorded pixel by its lower corner, then cell_ave and cell_sigma). Cells
// whose word is 0, or whose pixel lies within ice_step / 2 of the image's rim, are left out.
// The origin is added to every written coordinate. Returns 0; a file that cannot be opened ends
// the run.
int output_ice_coord(const char* path, const unsigned int* grid, const float* cell_ave, const float* cell_sigma,
                     int nx, int ny, int2 origin, int ice_step, int shrink, int mode);

// Above this share of rejected cells a micrograph is far from usual (simulated micrographs with
// ice blobs and a carbon edge lose 17 to 22 percent): crowded, half blank or
// mostly carbon, where bounds relative to the whole micrograph mislead.
constexpr double PICKORA_UNUSUAL_REJECTED_SHARE = 0.3;
// Counts the marked cells of the grid; above PICKORA_UNUSUAL_REJECTED_SHARE warns, naming the
// micrograph, the share and the options to try. Returns the share.
double pickora_warn_rejected_share(const char* mic_name, const unsigned int* grid, unsigned long cells);

// The whole detection on the device image (nx by ny, left unchanged): both maps, the scan into
// the exclusion grid (device, sized for the driver's grid), and the files that the record's
// write_rejected_box, write_bg_mic and write_lsigma_mic ask for, named from mic_name.
// Returns 0.
int hcuda_2d_ice_detect(const float* image, int nx, int ny, int2 origin, unsigned int* grid, const char* mic_name,
                        const Pickora_Para* para);
// The same with the scratch and disc spectra of the two maps kept in `maps` from one call to the
// next (the driver keeps one for the run); the form above makes and frees its own.
int hcuda_2d_ice_detect(LocalMapsWorkspace* maps, const float* image, int nx, int ny, int2 origin, unsigned int* grid,
                        const char* mic_name, const Pickora_Para* para);
