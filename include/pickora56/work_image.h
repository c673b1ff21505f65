// Sizes of the even square work image, and square clips of a micrograph. The picker shrinks
// and extends (process2d_raw/meanshrink.h); the clipping forms here stand ready for a caller
// that wants the central square instead.
#pragma once

#include <cstdio>

#include "cuda_general/platform.h"
#include "mrcfile/mrcfile.h"

// work_size: the larger of (nx / (2 s)) * 2 and (ny / (2 s)) * 2. 0 for s below 1.
int get_max_extended_square_even_size(int nx, int ny, int s);
// Each side lowered by 1 if odd, then the smaller of the two.
int get_max_square_even_size(int nx, int ny);
// The corner that centres a square of the smaller side: ((nx - ny) / 2, 0) when nx is the
// larger, else (0, (ny - nx) / 2).
int2 get_max_square_clip_origin(int nx, int ny);

// Read slice 0 of the open micrograph and clip the size by size square at `origin` into `out`
// (pixels outside the image come out 0). A size beyond either side of the file ends the run.
// Returns 0. The two are the same operation under two names.
int mrc_read_square_even(FILE* stream, const MRC_HEAD* head, float* out, int size, int2 origin);
int mrc_read_square_even_extend(FILE* stream, const MRC_HEAD* head, float* out, int size, int2 origin);
