// One pass of each reduction tree: the block sums of a pass written to elements 0 .. blocks - 1
// of the output. The kernels behind them differ per backend (reduce_passes.cu); the loops over
// passes (cuda_fast_sum.cu) do not.
//
// In-place passes, and passes whose output is their input, read everything before any block
// sum can be seen: element b of the output is read only by block b / span (span = elements per
// block), so the blocks run in waves [0, 1), [1, span), [span, span^2), ..., each wave after
// the one that reads what it writes.
#pragma once

namespace pk {
namespace reduce {

// Number of blocks of one pass.
unsigned long sum8_blocks(unsigned long n, unsigned block);
unsigned long sum1_blocks(unsigned long n, unsigned block);

// Main tree: block sums of in[0 .. n) into out. in may equal out.
void sum8_pass(const float* in, float* out, unsigned long n, unsigned block);
void sum8_pass_inplace(float* data, unsigned long n, unsigned block);
// Neighbours-first tree.
void sum1_pass(const float* in, float* out, unsigned long n, unsigned block);
void sum1_pass_inplace(float* data, unsigned long n, unsigned block);
// Main tree over the products a[i] * b[i], block sums into a (B = 1024).
void dot7t_pass_inplace(float* a, const float* b, unsigned long n);

}  // namespace reduce
}  // namespace pk
