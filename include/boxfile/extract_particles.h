// Cutting the picked boxes out of the raw micrograph (or movie) into one particle stack.
//
// A box starts at its record's x, y (the corner, micrograph pixels). Pixels beyond the image
// are 0: no mirroring, no mean fill, no refusal. Values are copied unchanged.
#pragma once

#include "boxfile/ptcl_box.h"

// Most records extracted per micrograph; further rows of the coordinate file are left out.
constexpr int PICKORA_MAX_PARTICLES = 10240;

// The whole step for one micrograph: reads up to PICKORA_MAX_PARTICLES records of the
// coordinate file, resizes them to box_size unless it is 0 (a .star file's centres become
// corners), takes the stack's sides from the first record, and writes stem + "_particles.mrcs"
// (mode 2) with depth records times sections, particle by particle, all frames of one particle
// together. A file with no rows gives a stack of sides 0 and depth 0. invert != 0 negates the
// values. Returns 0. Unreadable input, an unwritable stack, a negative box side or a section
// count below 1 are fatal.
int mrcf_2d_extract_ptcls_from_micrograph(const char* mrc_name, const char* box_name, int box_size, int invert);
// The stack of the step above as a new array (free), nz * w * h * records floats.
float* mrcf_get_data_ptcls(const char* mrc_name, const char* box_name, int box_size, int invert);

// One w by h slice per record out of an nx by ny image, by each record's x and y.
void cpu_2d_extract_ptcls_from_micrograph(float* out, int w, int h, int count, const float* image, int nx, int ny,
                                          const PTCL_BOX* boxes);
// `frames` slices per record out of a stack of frames nx * ny apart: all frames of the first
// record, then all of the second, and so on.
void cpu_2d_extract_ptcls_from_movie(float* out, int w, int h, int frames, int count, const float* stack, int nx,
                                     int ny, const PTCL_BOX* boxes);
// The same box, corner (x0, y0), out of each frame; frames w * h apart in the output.
void cpu_x2d_movie_extract_small_from_large(float* out, int w, int h, int frames, const float* stack, int nx, int ny,
                                            int x0, int y0);
