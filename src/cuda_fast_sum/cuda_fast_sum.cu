// The loops over passes of the tree sums: a first pass into scratch (or in place), then
// in-place passes over the block sums until one value is left, then a 4-byte copy back.
#include "cuda_fast_sum/cuda_fast_sum.h"

#include "cuda_general/platform.h"
#include "cuda_general/report.h"
#include "math_utils/array_kernels.h"
#include "reduce_passes.h"

namespace {

constexpr unsigned kSumBlock = 1024;

bool is_power_of_two(int v) { return v > 0 && (v & (v - 1)) == 0; }

// The trees are written for power-of-two blocks of at most 1024 threads (the sum1 family
// needs two at least, or a pass would not shrink the data).
unsigned checked_block(int block, int smallest) {
  if (!is_power_of_two(block) || block < smallest || block > static_cast<int>(kSumBlock))
    PK_FATAL("block size %d of a tree sum is not a power of two from %d to %u", block, smallest, kSumBlock);
  return static_cast<unsigned>(block);
}

float first_element(const float* d_data) {
  float value = 0.0f;
  PK_CUDA_CHECK(cudaMemcpy(&value, d_data, sizeof(float), cudaMemcpyDeviceToHost));
  return value;
}

// In-place passes of the main tree over the first `count` elements of data.
void sum8_remaining_passes(float* data, unsigned long count, unsigned block) {
  while (count > 1) {
    pk::reduce::sum8_pass_inplace(data, count, block);
    count = pk::reduce::sum8_blocks(count, block);
  }
}

void sum1_remaining_passes(float* data, unsigned long count, unsigned block) {
  while (count > 1) {
    pk::reduce::sum1_pass_inplace(data, count, block);
    count = pk::reduce::sum1_blocks(count, block);
  }
}

// The main tree from data into scratch (room for n floats), result back to the host.
float sum8_through(const float* data, unsigned long n, unsigned block, float* scratch) {
  if (n == 0) return 0.0f;  // nothing to add; no launch, no read of an empty array
  pk::reduce::sum8_pass(data, scratch, n, block);
  sum8_remaining_passes(scratch, pk::reduce::sum8_blocks(n, block), block);
  return first_element(scratch);
}

}  // namespace

float hcuda_fast_sum8(const float* data, unsigned long n, int block) {
  const unsigned b = checked_block(block, 1);
  float* scratch = nullptr;
  PK_CUDA_CHECK(cudaMalloc(&scratch, (n > 0 ? n : 1) * sizeof(float)));
  const float sum = sum8_through(data, n, b, scratch);
  PK_CUDA_CHECK(cudaFree(scratch));
  return sum;
}

float hcuda_fast_sum(const float* data, unsigned long n, int block) { return hcuda_fast_sum8(data, n, block); }

float hcuda_fast_sum8_inplace2(float* data, unsigned long n, int block) {
  const unsigned b = checked_block(block, 1);
  if (n == 0) return 0.0f;
  sum8_remaining_passes(data, n, b);
  return first_element(data);
}

float hcuda_fast_sum_inplace(float* data, unsigned long n, int block) {
  return hcuda_fast_sum8_inplace2(data, n, block);
}

float hcuda_fast_sum8_inplace1(float* data, unsigned long n, int block) {
  const unsigned b = checked_block(block, 1);
  if (n == 0) return 0.0f;
  for (unsigned long count = n; count > 1; count = pk::reduce::sum8_blocks(count, b))
    pk::reduce::sum8_pass(data, data, count, b);
  return first_element(data);
}

float hcuda_fast_sum8_buf(const float* data, unsigned long n, int block, float* buf) {
  const unsigned b = checked_block(block, 1);
  const float sum = sum8_through(data, n, b, buf);
  PK_CUDA_CHECK(cudaFree(buf));
  return sum;
}

float hcuda_fast_sum1(const float* data, unsigned long n, int block) {
  const unsigned b = checked_block(block, 2);
  if (n == 0) return 0.0f;
  float* scratch = nullptr;
  PK_CUDA_CHECK(cudaMalloc(&scratch, n * sizeof(float)));
  pk::reduce::sum1_pass(data, scratch, n, b);
  sum1_remaining_passes(scratch, pk::reduce::sum1_blocks(n, b), b);
  const float sum = first_element(scratch);
  PK_CUDA_CHECK(cudaFree(scratch));
  return sum;
}

float hcuda_fast_sum1_inplace(float* data, unsigned long n, int block) {
  const unsigned b = checked_block(block, 2);
  if (n == 0) return 0.0f;
  sum1_remaining_passes(data, n, b);
  return first_element(data);
}

void hcuda_reduce_data_for_sum1(const float* in, float* out, unsigned long n, int block) {
  pk::reduce::sum1_pass(in, out, n, checked_block(block, 2));
}

void hcuda_reduce_data_for_sum1_inplace(float* data, unsigned long n, int block) {
  pk::reduce::sum1_pass_inplace(data, n, checked_block(block, 2));
}

float hcuda_fast_dot_inplace(float* a, const float* b, unsigned long n, int block) {
  hcuda_x1d_multi_inplace(a, b, n);
  return hcuda_fast_sum8_inplace2(a, n, static_cast<int>(kSumBlock));
}
