// The one bilinear sample of the toolkit: the rotation of the matching and every resampling
// operator (rotations about any centre, translations, affine transforms, arc averages, line
// projections, template scaling) read a source image through these two functions, so that a
// position gives the same float wherever it is sampled.
#pragma once

#include "cuda_general/platform.h"

// Whether (sx, sy) lies on the nx by ny pixel grid, edges included. Written as "inside" so that
// a NaN position (from a NaN angle or matrix) counts as outside.
PICKORA_HD inline bool pk_2d_sample_inside(float sx, float sy, unsigned nx, unsigned ny) {
  return sx >= 0.0f && sx <= (float)(nx - 1) && sy >= 0.0f && sy <= (float)(ny - 1);
}

// Bilinear value of the nx-wide image at (sx, sy), which must be inside. ix, iy truncate; a
// coordinate that is a whole number does not read its right (lower) neighbour, so a position on
// the last column or row reads nothing past the image, and a whole position returns its pixel
// exactly.
PICKORA_HD inline float pk_2d_bilinear(const float* src, unsigned nx, float sx, float sy) {
  const int ix = (int)sx, iy = (int)sy;
  const float fx = sx - (float)ix, fy = sy - (float)iy;
  const unsigned i00 = (unsigned)iy * nx + (unsigned)ix;
  const unsigned i10 = sx == (float)ix ? i00 : i00 + 1;
  const unsigned i01 = sy == (float)iy ? i00 : i00 + nx;
  const unsigned i11 = sx == (float)ix ? i01 : i01 + 1;
  const float p00 = src[i00], p10 = src[i10], p01 = src[i01], p11 = src[i11];
  return p00 + fx * (p10 - p00) + fy * (p01 - p00) + fy * fx * (p00 + p11 - p10 - p01);
}

// The sample of a resampling operator: 0.0 outside the image (no wrap, no mirror, no mean
// fill), else the bilinear value.
PICKORA_HD inline float pk_2d_sample(const float* src, unsigned nx, unsigned ny, float sx, float sy) {
  return pk_2d_sample_inside(sx, sy, nx, ny) ? pk_2d_bilinear(src, nx, sx, sy) : 0.0f;
}
