// From the per-template peaks to the final coordinate files.
//
// Per micrograph the picker appends the survivors of every template's peak search to one
// candidate text file ("_nonunique.box", work pixels). box_filter reads that file back, lets the
// templates compete per grid cell, removes close neighbours, excluded spots and boxes too near
// the edge, and writes the final "_pickora.box" or "_pickora.star" file in micrograph pixels.
// Work pixel x stands for micrograph pixel x * shrink, with no half-pixel correction.
#pragma once

#include <cstdio>

#include "cuda_general/platform.h"

// Row formats. The candidate row: x - half, y - half, box, box, cc, template, psi (work pixels).
#define PICKORA_CANDIDATE_ROW_FORMAT "%-8d%-8d%-8d%-8d%-8.6f\t%-8d\t%-8.3f\n"
// The final .box row: corner x, corner y, box width, box height, cc, template, psi.
#define PICKORA_BOX_ROW_FORMAT "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n"
// The final .star row: centre x, centre y, psi, template, cc.
#define PICKORA_STAR_ROW_FORMAT "%-8d%-8d%-8.6f\t%-8d%-8.6f\n"

// Output formats of box_filter; any mode other than 1 writes the .box format.
constexpr int BOX_FILTER_STAR = 1;
constexpr int BOX_FILTER_BOX = 2;

// Rewinds the stream and writes the head of the final STAR file: data_, loop_ and the labels
// _rlnCoordinateX #1, _rlnCoordinateY #2, _rlnAnglePsi #3, _rlnClassNumber #4,
// _rlnAutopickFigureOfMerit #5. Returns 0.
int output_starbox_head(FILE* fp);
// The same with the two coordinate labels only (the rejected-cell STAR file). Returns 0.
int output_starbox_head_XYonly(FILE* fp);

// Appends one template's peaks to the open candidate file, cells in cell order: a cell with
// grid_index 0 is skipped; the peak (x, y) = (index % nx, index / nx) is written only when
// half < x < nx - half and half < y < ny - half (half = box / 2, all strict), as one
// PICKORA_CANDIDATE_ROW_FORMAT row. The driver passes work_size as nx and ny, and
// --boxsize / shrink (integer division) as box. Returns 0; a failed write is fatal.
int output_pickora_coord_one_temp(FILE* fp, const unsigned int* grid_index, const float* grid_cc,
                                  const float* grid_psi, int template_number, int cells, int nx, int ny, int box);

// One parsed candidate row, the columns as written.
struct PickoraCandidate {
  int x0, y0;  // corner of the box, work pixels
  int bx, by;  // box sides, work pixels
  float cc;
  int template_number;
  float psi;
};
// Parses one line of a candidate file. Returns 1 for a row, 0 for a line without tokens (to be
// passed over) and -1 for a malformed line: fewer than seven fields, or a field that is not a
// whole number (columns 1 to 4 and 6) or a number (columns 5 and 7). Fields beyond the seventh
// are ignored. The line is cut in place.
int parse_pickora_candidate_line(char* line, PickoraCandidate* out);

// The grid of box_filter, built from its own arguments.
struct BoxFilterGrid {
  int step;        // trunc(min_dist * 1.4142135 * 0.5), single precision
  int grid_n;      // (max(nx, ny) + step - 1) / step
  int cells;       // grid_n * grid_n: the arrays are square
  int nx, ny;      // row stride of the pixel indices and the micrograph's height, work pixels
  int cells_x;     // (nx + step - 1) / step: the row stride of the cell arrays
  int cells_y;     // (ny + step - 1) / step: the rows of the neighbour pass
  long long near_limit;  // 2 * step * step: pixels are near when their squared distance is below it
};
// A step below 1, a non-positive size or a grid too large to address is fatal.
BoxFilterGrid box_filter_grid(int nx, int ny, float min_dist);
// get_grid_Num: the number of cells, grid_n squared.
int get_grid_Num(int nx, int ny, float min_dist);

// The final decision for one micrograph; returns 0.
//   nx, ny      shrunk_nx and shrunk_ny: the micrograph's size after shrinking, work pixels
//   min_dist    --min_dist in work pixels (min_dist_px)
//   cc_cutoff   a winner below it is dropped (equal stays)
//   shrink      the shrink factor
//   boxx, boxy  --boxsize, micrograph pixels
//   origin      added to the written coordinates and to the position in the exclusion test
//   candidates  the candidate file, read once
//   excluded    an exclude file (.box or .star) or a null name ("NULL"); a missing or unreadable
//               file gives a warning and is not used
//   output      the file written, mode "w+"
//   mode        BOX_FILTER_STAR for the STAR format, anything else for the .box format
// Per cell of the grid the candidate of strictly highest cc wins (on a tie the row read first,
// i.e. the lower template number). A single in-place pass in scan order then clears a cell
// when one of its eight neighbours (clamped at the rim, so a rim cell meets itself and is
// always cleared) holds a near pixel with cc greater than or equal to its own. Excluded boxes
// clear candidates whose position lies near their centre; boxes closer than half a box to the
// micrograph's edge are dropped. Rows come out in cell order.
// The candidate file and the exclude file are read in full before the output file is opened,
// so a malformed candidate file (fatal, naming the file and line) leaves an earlier output
// untouched. A candidate file or output file that can't be opened is fatal.
int box_filter(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int boxx, int boxy, int2 origin,
               const char* candidates, const char* excluded, const char* output, int mode);
