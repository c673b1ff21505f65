// Image operators from file to file: each reads the first slice of an MRC file, applies one
// operator of process2d_raw or process2d_core on the device (or its host twin) and writes the
// result as a mode 2 file of one slice. Each returns 0; a file that cannot be opened or created
// ends the run with a fatal report (exit status 1).
#pragma once

#include "sym/rt_mat2d.h"

// cuda_2d_rotate by `degrees`. Prints "Begin Rotation %f:" and "Rotation finished!". A file that
// cannot be opened prints "Cannot open file strike any key exit!" and then ends the run through
// the fatal report, without waiting for a key.
int mrcf_cuda_2d_rotate(const char* in_path, const char* out_path, float degrees);
// cuda_2d_translate_rotate; the same open failure as the rotation.
int mrcf_cuda_2d_translate_rotate(const char* in_path, const char* out_path, float tx, float ty, float degrees);
// cuda_2d_transform about the grid centre, with the record and direction as the kernel takes them.
int mrcf_cuda_2d_transform(const char* in_path, const char* out_path, RT_Mat2D m, int direction);
// cuda_2d_swap_xy (a quarter turn, the mode 5 mapping of the flips): the file written is ny wide
// and nx high, so that it holds the picture the kernel made.
int mrcf_cuda_2d_swap_xy(const char* in_path, const char* out_path);
// The projection of the n1 by n2 rectangle about (cx, cy) into one row of n1 values, written as
// an n1 by 1 image. GPU id 999 runs the host twin; any other id is tested with check_gid first.
// n1 below 1 is refused.
int mrcf_2d_project_local_rect(const char* out_path, const char* in_path, int n1, int n2, float degrees, float cx,
                               float cy, int direction, int gid);
