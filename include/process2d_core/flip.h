// Mirrors and transpositions of images and stacks. One thread per source pixel (x, y); the
// output must be another array than the source. A result whose row length is ny (the
// transpositions, flip modes 4 to 6) is ny wide and nx high.
#pragma once

#include "cuda_general/platform.h"

// Where source pixel (x, y) of an nx by ny slice goes under a flip mode:
//   1  y nx + (nx-1-x)            mirror in x, row length nx
//   2  (ny-1-y) nx + x            mirror in y, row length nx
//   3  (ny-1-y) nx + (nx-1-x)     both (a half turn), row length nx
//   4  x ny + y                   transposition, row length ny
//   5  x ny + (ny-1-y)            transposition, then mirror in the new x, row length ny
//   6  (nx-1-x) ny + y            transposition, then mirror in the new y, row length ny
//   other  y nx + x               a copy, row length nx
// Mode 7 is a copy here too; the file command gives it exchanged sides (process2d_mrcs.h).
PICKORA_HD inline unsigned pk_flip_index(unsigned x, unsigned y, unsigned nx, unsigned ny, int mode) {
  // clang-format off
  switch (mode) {
    case 1: return y * nx + (nx - 1 - x);
    case 2: return (ny - 1 - y) * nx + x;
    case 3: return (ny - 1 - y) * nx + (nx - 1 - x);
    case 4: return x * ny + y;
    case 5: return x * ny + (ny - 1 - y);
    case 6: return (nx - 1 - x) * ny + y;
    default: return y * nx + x;
  }
  // clang-format on
}

// Whether a flip mode gives a result ny wide (the sides exchanged).
inline bool pk_flip_exchanges_sides(int mode) { return mode >= 4 && mode <= 7; }

PICKORA_HD inline void cuda_2d_flipx(unsigned x, unsigned y, float* output, const float* source, unsigned nx,
                                     unsigned ny) {
  if (x < nx && y < ny) output[y * nx + x] = source[y * nx + (nx - 1 - x)];
}
PICKORA_HD inline void cuda_2d_flipy(unsigned x, unsigned y, float* output, const float* source, unsigned nx,
                                     unsigned ny) {
  if (x < nx && y < ny) output[y * nx + x] = source[(ny - 1 - y) * nx + x];
}
// The transposition: the result is ny wide.
PICKORA_HD inline void cuda_2d_flipxy(unsigned x, unsigned y, float* output, const float* source, unsigned nx,
                                      unsigned ny) {
  if (x < nx && y < ny) output[x * ny + y] = source[y * nx + x];
}

// Every slice of an nx by ny by nz stack under one mode, slice z to slice z.
PICKORA_HD inline void cuda_2ds_flip(unsigned x, unsigned y, float* output, const float* source, unsigned nx,
                                     unsigned ny, unsigned nz, int mode) {
  if (x >= nx || y >= ny) return;
  const unsigned long slice = static_cast<unsigned long>(nx) * ny;
  const unsigned to = pk_flip_index(x, y, nx, ny, mode), from = y * nx + x;
  for (unsigned z = 0; z < nz; ++z) output[z * slice + to] = source[z * slice + from];
}

// The transposition of every slice (note: source first, then output).
PICKORA_HD inline void cuda_2ds_swap_xy(unsigned x, unsigned y, const float* source, float* output, unsigned nx,
                                        unsigned ny, unsigned nz) {
  cuda_2ds_flip(x, y, output, source, nx, ny, nz, 4);
}

// One image, source pixel (x, y) to x ny + (ny - 1 - y): the mode 5 mapping, which is a turn by
// a quarter (the picture's +x axis goes to its -y axis), ny wide. The index written in older
// code, x ny + ny - y, lies one place further and so leaves the array at y = 0 of the last
// column; of the two readings that stay inside (the plain transposition, or this one) this is
// the one that keeps the mirror that formula meant, and the plain transposition is
// cuda_2d_flipxy.
PICKORA_HD inline void cuda_2d_swap_xy(unsigned x, unsigned y, const float* source, float* output, unsigned nx,
                                       unsigned ny) {
  if (x < nx && y < ny) output[pk_flip_index(x, y, nx, ny, 5)] = source[y * nx + x];
}

// ---- Wrappers on device arrays --------------------------------------------------------------

void hcuda_2d_flipx(float* output, const float* source, unsigned nx, unsigned ny);
void hcuda_2d_flipy(float* output, const float* source, unsigned nx, unsigned ny);
void hcuda_2d_flipxy(float* output, const float* source, unsigned nx, unsigned ny);
void hcuda_2ds_flip(float* output, const float* source, unsigned nx, unsigned ny, unsigned nz, int mode);
void hcuda_2ds_swap_xy(const float* source, float* output, unsigned nx, unsigned ny, unsigned nz);
void hcuda_2d_swap_xy(const float* source, float* output, unsigned nx, unsigned ny);
