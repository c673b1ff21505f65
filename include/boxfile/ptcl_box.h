// PTCL_BOX, the one record of a particle position, and the reader of coordinate files: EMAN
// .box files with 4 to 7 columns and RELION .star tables, chosen by the file's suffix (exact
// case: ".star", then ".box"). Also the neighbour and grid generators of the CTF toolkit.
#pragma once

#include <vector>

#include "cuda_general/platform.h"

struct PTCL_BOX {
  int x = 0;             // first column of the box, micrograph pixels; from a .star file, the centre
  int y = 0;             // first row of the box; from a .star file, the centre
  int w = 256;           // box width; 0 from a .star file
  int h = 256;           // box height; 0 from a .star file
  float cc = 0;          // figure of merit; the neighbour generators store a weight here
  int class_number = 0;  // template number
  float psi = 0;         // in-plane angle, degrees
  float distance = 0;    // distance from a central box (neighbour generators only)
};

// Largest array the clearing and printing functions handle (records; distances likewise).
constexpr int PTCL_BOX_MAX = 10000000;
// Most centres read_all_box_vecxyi keeps.
constexpr int PTCL_BOX_VEC_MAX = 10240;
// Height of the Gaussian weight of the neighbour generators: 1 / sqrt(2 pi) in single precision.
constexpr float PTCL_BOX_GAUSS_NORM = 0.3989423f;

// The centre of a box, x + w / 2 and y + h / 2 (integer halving); for a record from a .star
// file (w and h 0) the position itself.
// Formed in 64 bits and held to the int range, so absurd values from a damaged file can't
// overflow.
inline int ptcl_box_clamp_int(long long v) {
  return v > 2147483647LL ? 2147483647 : (v < -2147483647LL - 1 ? -2147483647 - 1 : static_cast<int>(v));
}
inline int ptcl_box_center_x(const PTCL_BOX& b) { return ptcl_box_clamp_int(static_cast<long long>(b.x) + b.w / 2); }
inline int ptcl_box_center_y(const PTCL_BOX& b) { return ptcl_box_clamp_int(static_cast<long long>(b.y) + b.h / 2); }

// Clears boxes[0 .. max_boxes) (up to PTCL_BOX_MAX) and reads at most max_boxes records from
// the file; returns how many. A file that can't be opened is fatal (exit status 1).
//   .star: x and y from _rlnCoordinateX and _rlnCoordinateY (integer part), w = h = 0; cc,
//          class_number and psi from _rlnAutopickFigureOfMerit, _rlnClassNumber, _rlnAnglePsi
//          when present. A table without both coordinate columns is fatal.
//   .box:  per line x y w h [cc [class_number [psi]]]; further tokens are ignored, a blank line
//          is passed over, a line of 1 to 3 tokens is fatal ("unrecognized box format!").
//   other: a warning, and 0.
int read_all_ptcl_boxes(PTCL_BOX* boxes, int max_boxes, const char* name);
// 1 if the name ends in ".star", 2 if in ".box", else 0 (exact case).
int get_boxf_suffixf(const char* name);
// The number of lines with at least seven whitespace-separated tokens. Fatal if the file
// can't be opened.
int get_ptcl_number_from_boxf(const char* name);

// Clears n records (up to PTCL_BOX_MAX; beyond, a warning). Returns 0.
int empty_all_ptcl_boxes(PTCL_BOX* boxes, int n);
// Clears an array of PTCL_BOX_MAX distances. Returns 0.
int empty_all_ptcl_distances(float* distances);
// An all-zero record.
PTCL_BOX one_new_ptcl_box();
// Gives each record the box size new_size and moves x and y so that the centre stays. Returns 0.
int resize_ptcl_boxes(PTCL_BOX* boxes, int n, int new_size);
// Per record: with box 0 the record's own centre; otherwise x + box / 2, y + box / 2.
int ptcl_boxes_to_int2(int2* out, const PTCL_BOX* boxes, int n, int box);
int ptcl_boxes_to_float2(float2* out, const PTCL_BOX* boxes, int n, int box);

// Printing, in "%-8d%-8d%-8d%-8d%-8.6f        %-8d%-8.6f\n" (x, y, w, h, cc, class_number,
// psi); records whose w or h is 0 are passed over.
int print_n_ptcl_boxes(const PTCL_BOX* boxes, int n);
// From an array of PTCL_BOX_MAX records.
int print_all_ptcl_boxes(const PTCL_BOX* boxes);
// The same into a new file ("w+"); fatal if it can't be created.
int fprint_all_ptcl_boxes(const char* name, const PTCL_BOX* boxes);

// Empties the vector and fills it with the centres of up to PTCL_BOX_VEC_MAX records of the
// file, read as read_all_ptcl_boxes does; returns their number.
int read_all_box_vecxyi(std::vector<int2>& centres, const char* name);
// Reads the centres through read_all_box_vecxyi and copies at most n of them (all if n is 0)
// to out; returns the number read, not the number copied.
int boxf_read_all_xysi(int2* out, int n, const char* name);

// Neighbour generators. A record at grid offset (i step, j step) from the centre of `center`,
// for every i, j with d = step sqrt(i^2 + j^2) <= radius (rows of j from -n to n, i from -n to
// n), is a box of box_size centred there, with d in `distance` and the weight
// PTCL_BOX_GAUSS_NORM exp(-d^2 / (radius^2 / 4.5)) in `cc` (the exponential taken as 1 at
// radius 0). At most max_out
// records; returns how many. A step below 1 or a negative radius gives 0.
int auto_generate_neighbor_boxes_circular(PTCL_BOX* out, int max_out, const PTCL_BOX& center, float radius,
                                          int box_size, int step);
// Reads at most max_out records from the file and makes each a box of box_size about its
// centre, with its distance from the centre of `center` and the same weight. Returns how many.
int generate_neighbor_boxes_from_boxf(PTCL_BOX* out, int max_out, const char* name, const PTCL_BOX& center,
                                      float radius, int box_size);

// Grid points x0 + i step_x <= x1, y0 + j step_y <= y1, rows of y; empty for a step <= 0 or an
// empty range. A grid of more than PTCL_BOX_MAX points gives a warning and no points.
std::vector<float2> auto_gridbox_2d(float x0, float x1, float step_x, float y0, float y1, float step_y);
// The same points in a STAR file: "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n",
// rows "%12.2f%12.2f\n", one closing newline. Fatal if it can't be written. Returns the count.
int auto_gridboxf_2d(const char* name, float x0, float x1, float step_x, float y0, float y1, float step_y);
// Corners of boxes of size box whose centres stand at nx / 2 + i step_x, ny / 2 + j step_y,
// symmetric about the centre of the nx by ny area, each box wholly inside it; rows of j.
// Empty for a step below 1 or a box larger than the area; a grid of more than PTCL_BOX_MAX
// boxes gives a warning and no boxes.
std::vector<uint2> auto_gridbox_2d_from_center(int nx, int ny, int box, int step_x, int step_y);
// The same with step_x = nx / n and step_y = ny / m (n and m below 1 count as 1).
std::vector<uint2> auto_gridbox_2d_from_center_nxm(int nx, int ny, int box, int n, int m);
// The box centres of the two generators above in a STAR file of the format of auto_gridboxf_2d.
// Return the count.
int auto_grid_starboxf_2d_from_center(const char* name, int nx, int ny, int box, int step_x, int step_y);
int auto_grid_starboxf_2d_from_center_nxm(const char* name, int nx, int ny, int box, int n, int m);
