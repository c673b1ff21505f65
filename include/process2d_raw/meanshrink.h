// Block-mean shrinking of host images, and making a rectangle square.
//
// A shrunk pixel (X, Y) is the mean of the raw block X*s .. X*s + s - 1 by Y*s .. Y*s + s - 1;
// the origin is kept and no half-block shift is applied. Images are row-major float arrays;
// sizes are 32-bit and every division truncates. All arithmetic is single precision, and the
// order in which a block is summed is part of the result.
//
// A shrink factor below 1 prints a red "Wrong value of shrink_factor" line and writes nothing;
// the process goes on.
#pragma once

// The work image of the picker: a square of side work_size = max(shrunk_nx, shrunk_ny), with
// shrunk_nx = (nx / (2 s)) * 2 and shrunk_ny = (ny / (2 s)) * 2 (the number of whole blocks is
// rounded down to even; trailing raw pixels are not read). The real area is filled with block
// means at row stride work_size, in these orders within a block:
//   s = 1  copy;  s = 2, 3, 4  snake (even rows left to right, odd rows right to left), scaled
//   by 0.25, / 9.0 and by 0.0625;  s >= 5  every row left to right, / float(s * s).
// The rest of the square is the mirror of cpu_2d_extend_to_square_mirror_inplace. `out` holds
// work_size * work_size floats, all of them written. A long side that is not strictly below
// twice the short one (shrunk sides) ends the run with the aspect report.
void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int s);

// The same even rule and summation orders without the extension: shrunk_nx by shrunk_ny,
// row stride shrunk_nx.
void cpu_2d_meanshrink_even(float* out, const float* in, int nx, int ny, int s);

// Plain block mean: nx / s by ny / s, row stride nx / s; each block summed row by row from
// 0.0, every row left to right, divided by float(s * s). s = 1 copies all nx * ny floats.
void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int s);
// cpu_2d_meanshrink on nz slices: input slices nx * ny floats apart, output slices
// (nx / s) * (ny / s) floats apart.
void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int s);
// cpu_2d_meanshrink with the divisor negated, so the mean comes out with inverted sign; s = 1
// goes through the block loop too.
void cpu_2d_meanshrink_invert(float* out, const float* in, int nx, int ny, int s);

// Copies nx by ny into a square of the larger side (row stride that side) and fills the rest
// with `fill`.
void cpu_2d_extend_to_square(float* out, const float* in, unsigned nx, unsigned ny, float fill);
// Fills only the gap of data that already has the square's row stride.
void cpu_2d_extend_to_square_only_fill(float* data, unsigned nx, unsigned ny, float fill);
// Copies into the square, then mirrors as below. Outside the aspect limit it returns with
// nothing written and no message.
void cpu_2d_extend_to_square_mirror(float* out, const float* in, unsigned nx, unsigned ny);
// Mirrors the nx by ny image (row stride max(nx, ny)) into the gap of the square. The axis lies
// between the last real row (column) and the first new one:
//   nx > ny: row y (ny <= y < nx) becomes a copy of row 2 ny - 1 - y;
//   ny > nx: pixel x (nx <= x < ny) of every row becomes a copy of pixel 2 nx - 1 - x.
// The long side must be strictly below twice the short one, or the run ends with
// "Make sure: Ny/2 < Nx < 2Ny". A square needs nothing and is left as it is.
void cpu_2d_extend_to_square_mirror_inplace(float* data, unsigned nx, unsigned ny);
