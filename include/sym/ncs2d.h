// Two-dimensional symmetry averaging: a patch given by a mask is followed through every
// symmetry operator into the image, and what is found there is averaged, or compared with a
// reference operator by operator.
//
// Geometry. The patch is mnx by mny pixels; its pixel (0, 0) lies at (ox, oy) of the nx by ny
// image, and the operators act about (cx, cy). Patch pixel (i, j) under operator M reads the
// image at
//   dx = i + ox - cx,  dy = j + oy - cy
//   sx = dx R11 + dy R12 + Tx + cx,  sy = dx R21 + dy R22 + Ty + cy
// with the toolkit's bilinear sample (include/process2d_raw/bilinear.h); outside the image it
// receives nothing. The mask value m weighs what it reads: in full from 0.999999 up, by m above
// 0, not at all otherwise.
//
// The average divides by the number of operators whether or not each reached a pixel, so
// pixels some operators cannot reach come out darker. nsym below 1 is refused.
//
// Every operation takes the patch first, then the image: mnx, mny, ox, oy, image, nx, ny, cx,
// cy, mask, after its own leading arguments.
#pragma once

#include "cuda_general/platform.h"
#include "process2d_raw/bilinear.h"
#include "sym/rt_mat2d.h"

// The masked value of one patch pixel under one operator; false when it falls outside the image
// or the mask gives it nothing.
PICKORA_HD inline bool ncs_patch_value(unsigned i, unsigned j, float ox, float oy, const float* image, unsigned nx,
                                       unsigned ny, float cx, float cy, float m, const RT_Mat2D& r, float& value) {
  const float dx = (float)i + ox - cx, dy = (float)j + oy - cy;
  const float sx = dx * r.R11 + dy * r.R12 + r.Tx + cx;
  const float sy = dx * r.R21 + dy * r.R22 + r.Ty + cy;
  if (!pk_2d_sample_inside(sx, sy, nx, ny) || !(m > 0.0f)) return false;
  const float v = pk_2d_bilinear(image, nx, sx, sy);
  value = m >= 0.999999f ? v : v * m;
  return true;
}

// One thread per patch pixel adds one operator's contribution to its own accumulator pixel.
PICKORA_HD inline void cuda_2d_ncs_add_one(unsigned i, unsigned j, float* acc, RT_Mat2D r, unsigned mnx,
                                           unsigned mny, float ox, float oy, const float* image, unsigned nx,
                                           unsigned ny, float cx, float cy, const float* mask) {
  if (i >= mnx || j >= mny) return;
  const unsigned p = j * mnx + i;
  float v;
  if (ncs_patch_value(i, j, ox, oy, image, nx, ny, cx, cy, mask[p], r, v)) acc[p] += v;
}

// One operator's patch, stored, not added: 0.0 where nothing is read.
PICKORA_HD inline void cuda_2d_ncs_get_one(unsigned i, unsigned j, float* out, RT_Mat2D r, unsigned mnx, unsigned mny,
                                           float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx,
                                           float cy, const float* mask) {
  if (i >= mnx || j >= mny) return;
  const unsigned p = j * mnx + i;
  float v = 0.0f;
  out[p] = ncs_patch_value(i, j, ox, oy, image, nx, ny, cx, cy, mask[p], r, v) ? v : 0.0f;
}

// ---- Host ------------------------------------------------------------------------------------

void cpu_2d_ncs_add_one(float* acc, RT_Mat2D r, unsigned mnx, unsigned mny, float ox, float oy, const float* image,
                        unsigned nx, unsigned ny, float cx, float cy, const float* mask);
// Clears out, adds every operator (printing each), divides by nsym.
void cpu_2d_ncs_average(float* out, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny, float ox, float oy,
                        const float* image, unsigned nx, unsigned ny, float cx, float cy, const float* mask);
// out_image (nx by ny) is the image with the averaged patch pasted at (ox, oy); patch pixels
// beyond the image are dropped, and mask-0 pixels overwrite the image with 0.
void cpu_2d_ncs_average_replace(float* out_image, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny,
                                unsigned ox, unsigned oy, const float* image, unsigned nx, unsigned ny, float cx,
                                float cy, const float* mask);
// One operator's patch. A mask value below -1e-6 or above 1.000001 prints "i,j = %d %d  %f" and
// is fatal ("Mask value must range from 0 to 1.0").
void cpu_2d_ncs_get_one(float* out, RT_Mat2D r, unsigned mnx, unsigned mny, float ox, float oy, const float* image,
                        unsigned nx, unsigned ny, float cx, float cy, const float* mask);
// The correlation of the reference with one operator's patch, both normalised under the mask.
float cpu_2d_ncs_ccc_one(const float* ref, RT_Mat2D r, unsigned mnx, unsigned mny, float ox, float oy,
                         const float* image, unsigned nx, unsigned ny, float cx, float cy, const float* mask);
void cpu_2d_ncs_cccs(float* results, const float* ref, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny,
                     float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx, float cy,
                     const float* mask);
// For every operator the best correlation over translations of Tx, Ty by -15 to +15 pixels in
// steps of 0.5 (61 by 61 positions, the earliest of equal ones kept); prints "max" lines with
// the best shift.
void cpu_2d_ncs_cccs_refine(float* results, const float* ref, const RT_Mat2D* syms, int nsym, unsigned mnx,
                            unsigned mny, float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx,
                            float cy, const float* mask);

// The correlation of two patches, each normalised to mean 0 and deviation 1 under the mask and
// multiplied by it.
float ncs_masked_ccc(const float* ref, const float* patch, const float* mask, unsigned mnx, unsigned mny);
// Ends the run when a mask value lies outside 0 to 1 (with 1e-6 of slack), naming the pixel.
void ncs_check_mask(const float* mask, unsigned mnx, unsigned mny);

// The small image pasted into the large one at (x0, y0); pixels beyond the large one dropped.
void cpu_x2d_cp_small_to_large(float* large, const float* small, unsigned large_nx, unsigned large_ny,
                               unsigned small_nx, unsigned small_ny, unsigned x0, unsigned y0);

// ---- Device ----------------------------------------------------------------------------------

// Device image, mask and patch; operators on the host. One launch per operator, then the
// division by nsym.
void hcuda_2d_ncs_average(float* d_out, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny, float ox, float oy,
                          const float* d_image, unsigned nx, unsigned ny, float cx, float cy, const float* d_mask);
// Host arrays, device work.
void gpu_2d_ncs_average(float* out, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny, float ox, float oy,
                        const float* image, unsigned nx, unsigned ny, float cx, float cy, const float* mask);
// The device form of cpu_2d_ncs_cccs: patches on the device, correlations on the host.
void gpu_2d_ncs_cccs(float* results, const float* ref, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny,
                     float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx, float cy,
                     const float* mask);

// ---- Files -------------------------------------------------------------------------------------
// Operators from an O-style file, used as they are (direction 1) or inverted (-1); the centre is
// the image's grid centre; GPU id 999 works on the host. Refused with a fatal report: another
// direction, a file without operators, a mask larger than the image, a reference of another
// size than the mask, an unusable device.

// Writes the averaged patch (mnx by mny, one slice) to out_path.
int mrcf_2d_ncs_average(const char* out_path, float ox, float oy, const char* image_path, const char* mask_path,
                        const char* sym_path, int direction, int gid);
// Prints each operator with "ccc = %f": the refined correlation on the host, the plain one on the
// device.
int mrcf_2d_ncs_cccs(const char* ref_path, float ox, float oy, const char* image_path, const char* mask_path,
                     const char* sym_path, int direction, int gid);
