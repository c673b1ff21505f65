// Sums of device float arrays by a tree of fixed shape, so that every backend adds the same
// numbers in the same order and returns the same float.
//
// The main tree (the "sum8" family), B threads per block, span = 2 B elements per block,
// blocks = (n + span - 1) / span:
//   1. thread t of block b holds x[i] + x[i + B] for i = span b + t (x[i] alone when i + B is
//      past the end, 0.0 when i is), stored as v + 0.0 so that -0.0 becomes 0.0;
//   2. the B partial sums fold in halves, s[t] = s[t + off] + s[t] for off = B/2, ..., 2, 1;
//   3. s[0] is the block's sum, written to element b of the output.
// Passes repeat over the block sums until one value is left. Within a block element t thus
// meets element t + B first, then the upper half of the partial sums meets the lower half.
//
// The "sum1" family loads one element per thread (blocks = (n + B - 1) / B) and pairs
// neighbours first: s[2kt] = s[2kt + k] + s[2kt] for k = 1, 2, 4, ... below B.
//
// Everything is single precision. `block` is B; callers pass 1024. It must be a power of two
// up to 1024 (at least 2 for the sum1 family); anything else ends the process. An empty array
// (n of 0) sums to 0.0 with nothing launched and nothing read.
#pragma once

#include <math.h>

#include "cuda_general/platform.h"

// ---- Stage steps shared by the device kernels and the host emulation --------------------

// Step 1 of the main tree: the value that thread t of block b stores before the fold. The
// stride loop adds further pairs when a grid has fewer blocks than the data needs; with the
// block count above it never runs.
PICKORA_HD inline float pk_sum8_load(const float* x, unsigned long n, unsigned long b, unsigned t, unsigned block,
                                     unsigned long blocks) {
  const unsigned long span = 2ul * block, stride = span * blocks;
  unsigned long i = span * b + t;
  float v = 0.0f;
  if (i < n) {
    v = x[i];
    if (i + block < n) v = v + x[i + block];
    for (i += stride; i < n; i += stride) {
      v = v + x[i];
      if (i + block < n) v = v + x[i + block];
    }
  }
  return v + 0.0f;
}

// Step 1 of the dot product's tree: a[i] * b[i], with a[i + B] * b[i + B] fused into it.
PICKORA_HD inline float pk_dot7t_load(const float* a, const float* bv, unsigned long n, unsigned long b, unsigned t,
                                      unsigned block, unsigned long blocks) {
  const unsigned long span = 2ul * block, stride = span * blocks;
  unsigned long i = span * b + t;
  float v = 0.0f;
  if (i < n) {
    v = a[i] * bv[i];
    if (i + block < n) v = fmaf(a[i + block], bv[i + block], v);
    for (i += stride; i < n; i += stride) {
      v = fmaf(a[i], bv[i], v);
      if (i + block < n) v = fmaf(a[i + block], bv[i + block], v);
    }
  }
  return v + 0.0f;
}

// Step 2 of the main tree, for one thread t below off.
PICKORA_HD inline void pk_sum8_fold(float* s, unsigned t, unsigned off) { s[t] = s[t + off] + s[t]; }

// The sum1 family: one element per thread, 0.0 past the end.
PICKORA_HD inline float pk_sum1_load(const float* x, unsigned long n, unsigned long b, unsigned t, unsigned block) {
  const unsigned long i = b * block + t;
  return i < n ? x[i] : 0.0f;
}

// One neighbours-first step of distance k for thread t.
PICKORA_HD inline void pk_sum1_fold(float* s, unsigned t, unsigned k, unsigned block) {
  const unsigned j = 2u * k * t;
  if (j < block) s[j] = s[j + k] + s[j];
}

// ---- Core sums (device data, result on the host) ----------------------------------------

// The sum; data is left as it was. Forwards to hcuda_fast_sum8.
float hcuda_fast_sum(const float* data, unsigned long n, int block);
float hcuda_fast_sum8(const float* data, unsigned long n, int block);
// The same sum; data is destroyed: its head holds the block sums of the passes, data[0] the
// result. Nothing is launched for n of 1, which returns data[0] as it is. Forwards to
// hcuda_fast_sum8_inplace2.
float hcuda_fast_sum_inplace(float* data, unsigned long n, int block);
float hcuda_fast_sum8_inplace2(float* data, unsigned long n, int block);
// The same values by way of the out-of-place kernel run with input and output both data.
float hcuda_fast_sum8_inplace1(float* data, unsigned long n, int block);
// hcuda_fast_sum with the caller's device array of n floats as scratch; frees it before returning.
float hcuda_fast_sum8_buf(const float* data, unsigned long n, int block, float* buf);

// The neighbours-first family, and one pass of it (block sums into out[0 .. blocks)).
float hcuda_fast_sum1(const float* data, unsigned long n, int block);
float hcuda_fast_sum1_inplace(float* data, unsigned long n, int block);
void hcuda_reduce_data_for_sum1(const float* in, float* out, unsigned long n, int block);
void hcuda_reduce_data_for_sum1_inplace(float* data, unsigned long n, int block);

// Sum of a[i] * b[i]: multiplies a by b in place, then the in-place sum with B = 1024 whatever
// `block` says; a is destroyed.
float hcuda_fast_dot_inplace(float* a, const float* b, unsigned long n, int block);

// The sum by the vendor's signal library (nppsSum_32f), n cut to 32 bits; its order of
// additions is the library's, not the tree above.
float hcuda_fast_sum_npp(const float* data, unsigned long n);
