// Peak search on a coarse grid: at most one peak per cell of a ccmax map, then a filter that
// drops peaks below the correlation cut-off, peaks close to an excluded spot and peaks
// overshadowed by a stronger peak in one of the eight neighbouring cells.
//
// Geometry. Cells of grid_step by grid_step work pixels anchored at pixel (0, 0); grid_nx =
// (nx + grid_step - 1) / grid_step, likewise grid_ny, so the last column and row of cells may be
// partial. Cell (gx, gy) has number gy * grid_nx + gx. A peak is stored as the pixel index
// y * nx + x (x = index % nx, y = index / nx); index 0 means "no candidate", so a peak really at
// pixel (0, 0) reads as an empty cell. Two pixels are close when dx^2 + dy^2, formed in 32-bit
// words and compared unsigned, is strictly below 2 * grid_step^2.
//
// Peak arrays, grid_cells elements each: grid_index (the peak's pixel index or 0), grid_cc (the
// cell's maximum; kept when the candidate is cleared), grid_psi (the psi map at the peak,
// meaningful only where grid_index is not 0).
//
// Every kernel is one thread per cell (gx, gy), launched with 32 x 32 blocks over grid_nx by
// grid_ny. The filters decide every cell against the index array as the find step left it (the
// `found` argument) and write their decisions into a separate grid_index, so the result does not
// depend on the order in which cells are decided.
#pragma once

#include "cuda_general/platform.h"

// ---- Geometry ----------------------------------------------------------------------------

PICKORA_HD inline int grid_cells_along(int n, int grid_step) { return (n + grid_step - 1) / grid_step; }
PICKORA_HD inline int grid_suppress_limit(int grid_step) { return 2 * grid_step * grid_step; }

// Squares in 32-bit words: the unsigned arithmetic wraps exactly as the signed would, without
// its undefined behaviour.
PICKORA_HD inline bool grid_pixels_close(unsigned a, unsigned b, int nx, int grid_step) {
  const unsigned unx = (unsigned)nx;
  const unsigned dx = a % unx - b % unx, dy = a / unx - b / unx;
  return dx * dx + dy * dy < (unsigned)grid_suppress_limit(grid_step);
}

// ---- Find kernels ------------------------------------------------------------------------

// Scans the cell row by row from its first pixel. The best value starts at the first pixel and
// the index at 0, and only a strictly larger value moves them: the first of equal maxima wins, a
// NaN never wins, and a cell whose maximum is its own first pixel ends with index 0. psi_map and
// grid_psi may be null (no angle map).
PICKORA_HD inline void grid_scan_cell(unsigned gx, unsigned gy, const float* ccmax, const float* psi_map, int nx,
                                      int ny, int grid_step, float* best, unsigned* best_index, float* best_psi) {
  const unsigned step = (unsigned)grid_step;
  const unsigned x0 = gx * step, y0 = gy * step;
  const unsigned x1 = x0 + step < (unsigned)nx ? x0 + step : (unsigned)nx;
  const unsigned y1 = y0 + step < (unsigned)ny ? y0 + step : (unsigned)ny;
  float cc = ccmax[y0 * (unsigned)nx + x0];
  unsigned index = 0;
  for (unsigned y = y0; y < y1; ++y)
    for (unsigned x = x0; x < x1; ++x) {
      const unsigned i = y * (unsigned)nx + x;
      if (cc < ccmax[i]) {
        cc = ccmax[i];
        index = i;
        if (psi_map != nullptr) *best_psi = psi_map[i];
      }
    }
  *best = cc;
  *best_index = index;
}

PICKORA_HD inline void cuda_find_ccmax_psi_grids(unsigned gx, unsigned gy, const float* ccmax, const float* psi,
                                                 unsigned* grid_index, float* grid_cc, float* grid_psi, int nx,
                                                 int ny, int grid_nx, int grid_ny, int grid_step) {
  if (gx >= (unsigned)grid_nx || gy >= (unsigned)grid_ny) return;
  const unsigned self = gy * (unsigned)grid_nx + gx;
  grid_scan_cell(gx, gy, ccmax, psi, nx, ny, grid_step, &grid_cc[self], &grid_index[self], &grid_psi[self]);
}

PICKORA_HD inline void cuda_find_ccmax_grids(unsigned gx, unsigned gy, const float* ccmax, unsigned* grid_index,
                                             float* grid_cc, int nx, int ny, int grid_nx, int grid_ny,
                                             int grid_step) {
  if (gx >= (unsigned)grid_nx || gy >= (unsigned)grid_ny) return;
  const unsigned self = gy * (unsigned)grid_nx + gx;
  grid_scan_cell(gx, gy, ccmax, nullptr, nx, ny, grid_step, &grid_cc[self], &grid_index[self], nullptr);
}

// Keeps a running best over repeated calls: the cell's scan replaces what the arrays hold only
// when its maximum is strictly greater than grid_cc (which the caller initialises).
PICKORA_HD inline void cuda_find_update_ccmax_grids(unsigned gx, unsigned gy, const float* ccmax,
                                                    unsigned* grid_index, float* grid_cc, int nx, int ny,
                                                    int grid_nx, int grid_ny, int grid_step) {
  if (gx >= (unsigned)grid_nx || gy >= (unsigned)grid_ny) return;
  const unsigned self = gy * (unsigned)grid_nx + gx;
  float cc;
  unsigned index;
  grid_scan_cell(gx, gy, ccmax, nullptr, nx, ny, grid_step, &cc, &index, nullptr);
  if (cc > grid_cc[self]) {
    grid_cc[self] = cc;
    grid_index[self] = index;
  }
}

// ---- Filter kernels ----------------------------------------------------------------------

// Neighbour test of cell (gx, gy) whose peak is pixel p: true when one of the eight neighbours,
// clamped at the rim of the grid, has its peak close to p and a strictly larger grid_cc.
// Neighbours without a candidate decode to pixel (0, 0) and stay in play with that position.
PICKORA_HD inline bool grid_overshadowed(unsigned gx, unsigned gy, unsigned p, const unsigned* found,
                                         const float* grid_cc, int nx, int grid_nx, int grid_ny, int grid_step) {
  const unsigned below = gy + 1 < (unsigned)grid_ny ? gy + 1 : gy, above = gy > 0 ? gy - 1 : gy;
  const unsigned left = gx > 0 ? gx - 1 : gx, right = gx + 1 < (unsigned)grid_nx ? gx + 1 : gx;
  const unsigned rows[8] = {below, above, gy, gy, below, below, above, above};
  const unsigned cols[8] = {gx, gx, left, right, left, right, left, right};
  const float cc = grid_cc[gy * (unsigned)grid_nx + gx];
  for (int k = 0; k < 8; ++k) {
    const unsigned n = rows[k] * (unsigned)grid_nx + cols[k];
    if (grid_pixels_close(found[n], p, nx, grid_step) && cc < grid_cc[n]) return true;
  }
  return false;
}

// The largest r with r * r below the suppression limit: close pixels differ by at most r in x
// and in y, so their indices differ by at most r * (nx + 1).
PICKORA_HD inline unsigned grid_suppress_reach(int grid_step) {
  const unsigned limit = (unsigned)grid_suppress_limit(grid_step);
  unsigned r = (unsigned)grid_step;
  while ((r + 1) * (r + 1) < limit) ++r;
  return r;
}

// True when any of the n words of the exclusion list, each a pixel index (0 standing for pixel
// (0, 0), not skipped), is close to p.
//
// Every cell walks the whole list, so the words are first screened without decoding: a word
// whose index differs from p by more than the reach cannot be close. The screen runs over blocks
// of 32 words without branches (|e - p| <= reach as the wrapping e - (p - reach) <= 2 reach), and
// only a block with a word in reach gets the full test. That is the full test's answer for every
// word whose pixel lies less than 46341 rows and columns from p, where no square overflows.
PICKORA_HD inline bool grid_excluded(unsigned p, const unsigned* exclusion, unsigned exclusion_n, int nx,
                                     int grid_step) {
  const unsigned long reach = (unsigned long)grid_suppress_reach(grid_step) * ((unsigned long)nx + 1);
  const bool screened = reach < 0x80000000ul;  // else every word goes to the full test
  const unsigned low = screened ? p - (unsigned)reach : 0u, span = screened ? 2u * (unsigned)reach : 0xffffffffu;
  for (unsigned k0 = 0; k0 < exclusion_n; k0 += 32) {
    const unsigned k1 = exclusion_n - k0 < 32 ? exclusion_n : k0 + 32;
    unsigned near = 0;
    for (unsigned k = k0; k < k1; ++k) near |= exclusion[k] - low <= span;
    if (near == 0) continue;
    for (unsigned k = k0; k < k1; ++k)
      if (grid_pixels_close(exclusion[k], p, nx, grid_step)) return true;
  }
  return false;
}

// A cell keeps its found peak unless: grid_cc is strictly below cc_cutoff (equal stays), or the
// peak is close to an excluded spot (exclusive form only), or a close neighbour is strictly
// stronger. A cell that found no candidate stays empty.
PICKORA_HD inline void grid_filter_cell(unsigned gx, unsigned gy, const unsigned* found, unsigned* grid_index,
                                        const float* grid_cc, float cc_cutoff, int nx, int grid_nx, int grid_ny,
                                        int grid_step, const unsigned* exclusion, unsigned exclusion_n) {
  if (gx >= (unsigned)grid_nx || gy >= (unsigned)grid_ny) return;
  const unsigned self = gy * (unsigned)grid_nx + gx;
  const unsigned p = found[self];
  const bool keep = p != 0 && !(grid_cc[self] < cc_cutoff) &&
                    !(exclusion != nullptr && grid_excluded(p, exclusion, exclusion_n, nx, grid_step)) &&
                    !grid_overshadowed(gx, gy, p, found, grid_cc, nx, grid_nx, grid_ny, grid_step);
  grid_index[self] = keep ? p : 0u;
}

PICKORA_HD inline void cuda_filter_ccmax_psi_grids_exclusive(unsigned gx, unsigned gy, const unsigned* found,
                                                             unsigned* grid_index, const float* grid_cc,
                                                             const float* grid_psi, float cc_cutoff, int nx, int ny,
                                                             int grid_nx, int grid_ny, int grid_step,
                                                             const unsigned* exclusion, unsigned exclusion_n) {
  grid_filter_cell(gx, gy, found, grid_index, grid_cc, cc_cutoff, nx, grid_nx, grid_ny, grid_step, exclusion,
                   exclusion_n);
}

PICKORA_HD inline void cuda_filter_ccmax_grids(unsigned gx, unsigned gy, const unsigned* found, unsigned* grid_index,
                                               const float* grid_cc, float cc_cutoff, int nx, int ny, int grid_nx,
                                               int grid_ny, int grid_step) {
  grid_filter_cell(gx, gy, found, grid_index, grid_cc, cc_cutoff, nx, grid_nx, grid_ny, grid_step, nullptr, 0);
}

// The same as cuda_filter_ccmax_grids; psi is not read.
PICKORA_HD inline void cuda_filter_ccmax_psi_grids(unsigned gx, unsigned gy, const unsigned* found,
                                                   unsigned* grid_index, const float* grid_cc, const float* psi,
                                                   float cc_cutoff, int nx, int ny, int grid_nx, int grid_ny,
                                                   int grid_step) {
  cuda_filter_ccmax_grids(gx, gy, found, grid_index, grid_cc, cc_cutoff, nx, ny, grid_nx, grid_ny, grid_step);
}

// ---- Launchers on device arrays (each waits and runs the device check) -------------------

void hcuda_find_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, int nx, int ny, int grid_step);
void hcuda_find_update_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, int nx, int ny,
                                   int grid_step);
void hcuda_find_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned* grid_index, float* grid_cc,
                                float* grid_psi, int nx, int ny, int grid_step);
// Filters grid_index in place (against a copy of itself); the map argument is not read.
void hcuda_filter_ccmax_grids(const float* ccmax, unsigned* grid_index, const float* grid_cc, float cc_cutoff, int nx,
                              int ny, int grid_step);
void hcuda_filter_ccmax_psi_grids_exclusive(unsigned* grid_index, const float* grid_cc, float cc_cutoff, int nx,
                                            int ny, int grid_step, const unsigned* exclusion, unsigned exclusion_n);

// Find, then filter without exclusion, on device arrays.
void hcuda_find_filter_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, float cc_cutoff, int nx,
                                   int ny, int grid_step);
void hcuda_find_update_filter_ccmax_grids(const float* ccmax, unsigned* grid_index, float* grid_cc, float cc_cutoff,
                                          int nx, int ny, int grid_step);
void hcuda_find_filter_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned* grid_index, float* grid_cc,
                                       float* grid_psi, float cc_cutoff, int nx, int ny, int grid_step);

// The picker's entry: device maps and exclusion list in, the three host arrays of grid_cells
// elements out (overwritten; grid_psi is 0.0 where a cell found no candidate). No device array
// of the caller's is changed. A null exclusion list is read as an empty one.
void gpu_find_filter_ccmax_psi_grids_exclusive(float* ccmax, float* psi, unsigned int* grid_index, float* grid_cc,
                                               float* grid_psi, float cc_cutoff, int nx, int ny, int grid_step,
                                               unsigned int* exclusion, unsigned int exclusion_n);
// The same without the exclusion list.
void gpu_find_filter_ccmax_psi_grids(float* ccmax, float* psi, unsigned int* grid_index, float* grid_cc,
                                     float* grid_psi, float cc_cutoff, int nx, int ny, int grid_step);
