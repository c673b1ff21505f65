// The reference templates in work pixels: a stack read from an MRC file, resampled by the
// ratio of the pixel sizes and block-shrunk like the micrographs, or a generated soft blob.
//
// A stack is one host float array, slice after slice: pixel (x, y) of slice z has index
// (z * tny + y) * tnx + x. Every routine that returns a stack hands a new array to its caller,
// who frees it with destroy_template_data.
#pragma once

#include "cuda_general/platform.h"
#include "process2d_raw/bilinear.h"

// The templates for the run. A name that is_str_null takes for empty ("NULL", "NONE" in any
// letter case) generates the blob of create_template_data, with `radius` already in work
// pixels. Otherwise the stack is read, resampled by ratio = apix_template / apix_micrograph
// unless that ratio is exactly 1.0 (gpu_2ds_scale, sides trunc(float side * ratio)), and then,
// unless shrink is 1, block-shrunk by `shrink` (cpu_2ds_meanshrink). tnx, tny, tnz are set.
// A stack that can't be read, or sizes that are not positive at any stage, end the run with a
// report naming the file and the sizes. The caller checks the result against the work image.
float* get_or_create_template_data(int& tnx, int& tny, int& tnz, const char* name, float radius, float apix_template,
                                   float apix_micrograph, int shrink, float edge_ratio);

// The stack exactly as in the file (any mode the MRC reader turns into floats).
float* get_template_data(int& nx, int& ny, int& nz, const char* path);

// A soft blob of side 4 * trunc(radius) in both directions, one slice: flat core of radius
// radius * edge_ratio, then a Gaussian fall-off of width (1 - edge_ratio) * radius.
float* create_template_data(int& nx, int& ny, int& nz, float radius, float edge_ratio);

void destroy_template_data(float* data);

// Value 1.0 within radius R of (cx, cy); from R out to R + soft a Gaussian of standard
// deviation soft / 3 starting at 1.0; 0.0 beyond. Both boundary tests are strict, so a pixel
// exactly on R or on R + soft belongs to the inner zone. Offsets in float, the squared
// distance in double. No normalising factor (unlike the device mask of the filters).
void cpu_2d_generate_rmask_soft(float* out, unsigned nx, unsigned ny, float cx, float cy, float R, float soft);
// The value of that mask at the float offsets (dx, dy) from its centre.
float cpu_rmask_soft_value(float dx, float dy, float R, float soft);

// Resamples every slice of the host stack by `ratio` about the image centre, through the
// device, one slice at a time; the output slices are trunc(float nx * ratio) by
// trunc(float ny * ratio).
void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float ratio);
// One slice on the device.
void hcuda_2d_scale(float* out, const float* in, int nx, int ny, float ratio);

// Bilinear value of the nx-wide image at (sx, sy), which must lie in 0..nx - 1 by 0..ny - 1.
// A coordinate that is a whole number does not read its right (lower) neighbour, so the last
// column and row are safe. The toolkit's one bilinear sample (process2d_raw/bilinear.h).
PICKORA_HD inline float cuda_2d_bilinear_value(const float* in, int nx, float sx, float sy) {
  return pk_2d_bilinear(in, static_cast<unsigned>(nx), sx, sy);
}

// One output pixel of the resampling: the output side is trunc(float side * f), and output
// (x, y) shows the input at (1/f)(x - (onx - 1) 0.5) + (nx - 1) 0.5, likewise in y, so the
// centres stay on each other. Outside the input the value is 0.0.
PICKORA_HD inline void cuda_2d_scale(unsigned x, unsigned y, float* out, const float* in, int nx, int ny, float f) {
  const int onx = static_cast<int>(static_cast<float>(nx) * f);
  const int ony = static_cast<int>(static_cast<float>(ny) * f);
  if (static_cast<long>(x) >= onx || static_cast<long>(y) >= ony) return;
  const float inv = 1.0f / f;
  const float sx =
      inv * (static_cast<float>(x) - static_cast<float>(onx - 1) * 0.5f) + static_cast<float>(nx - 1) * 0.5f;
  const float sy =
      inv * (static_cast<float>(y) - static_cast<float>(ony - 1) * 0.5f) + static_cast<float>(ny - 1) * 0.5f;
  float value = 0.0f;
  if (!(sx < 0.0f || sx > static_cast<float>(nx - 1) || sy < 0.0f || sy > static_cast<float>(ny - 1)))
    value = cuda_2d_bilinear_value(in, nx, sx, sy);
  out[y * static_cast<unsigned>(onx) + x] = value;
}
