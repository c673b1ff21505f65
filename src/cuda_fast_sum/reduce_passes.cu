// The reduction kernels and one pass of each tree. This is the one family of kernels that
// shares memory between the threads of a block, so the block's work is written twice: as a
// real CUDA kernel and as a host emulation of a block. Both run the same stage steps
// (pk_sum8_load, pk_sum8_fold, ... in cuda_fast_sum.h) in the same order, which is what makes
// the sums agree to the bit.
#include "reduce_passes.h"

#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"

namespace pk {
namespace reduce {

unsigned long sum8_blocks(unsigned long n, unsigned block) { return (n + 2ul * block - 1) / (2ul * block); }
unsigned long sum1_blocks(unsigned long n, unsigned block) { return (n + block - 1) / block; }

}  // namespace reduce
}  // namespace pk

#if PICKORA_BACKEND_CUDA

// ---- Device: B threads per block, B floats of dynamic shared memory ---------------------

namespace {

// The fold by halves. Steps 512 .. 64 span several warps and meet at barriers; the last six
// run inside warp 0. Warps are not lockstep on current GPUs, so only the lanes that produce a
// value the tree still needs (t < off) write, and the lanes meet at __syncwarp between steps.
__device__ void sum8_tree(float* s, unsigned t, unsigned block) {
  for (unsigned off = 512; off >= 64; off >>= 1) {
    if (block >= 2 * off) {
      if (t < off) pk_sum8_fold(s, t, off);
      __syncthreads();
    }
  }
  if (t < 32) {
    const unsigned lanes = block >= 32 ? 0xffffffffu : (1u << block) - 1u;
    for (unsigned off = 32; off >= 1; off >>= 1) {
      if (block >= 2 * off) {
        if (t < off) pk_sum8_fold(s, t, off);
        __syncwarp(lanes);
      }
    }
  }
}

// Stores the thread's loaded value, folds, and lets thread 0 write the block sum.
__device__ void sum8_block(float* s, float v, float* out, unsigned long b) {
  const unsigned t = threadIdx.x;
  s[t] = v;
  __syncthreads();
  sum8_tree(s, t, blockDim.x);
  if (t == 0) out[b] = s[0];
}

__device__ void sum1_block(float* s, float v, float* out, unsigned long b) {
  const unsigned t = threadIdx.x;
  s[t] = v;
  __syncthreads();
  for (unsigned k = 1; k < blockDim.x; k <<= 1) {
    pk_sum1_fold(s, t, k, blockDim.x);
    __syncthreads();
  }
  if (t == 0) out[b] = s[0];
}

template <class Kernel, class... Args>
void launch_blocks(Kernel kernel, unsigned long count, unsigned block, Args... args) {
  if (count > 0) kernel<<<static_cast<unsigned>(count), block, block * sizeof(float)>>>(args...);
  PK_CUDA_CHECK(cudaDeviceSynchronize());
}

}  // namespace

// Blocks first .. first + gridDim.x - 1 of a grid of `blocks` blocks.
__global__ void cuda_reduce_data_for_sum8(const float* x, float* out, unsigned long n, unsigned long first,
                                          unsigned long blocks) {
  extern __shared__ float s[];
  const unsigned long b = first + blockIdx.x;
  sum8_block(s, pk_sum8_load(x, n, b, threadIdx.x, blockDim.x, blocks), out, b);
}

__global__ void cuda_reduce_data_for_sum8_inplace(float* data, unsigned long n, unsigned long first,
                                                  unsigned long blocks) {
  extern __shared__ float s[];
  const unsigned long b = first + blockIdx.x;
  sum8_block(s, pk_sum8_load(data, n, b, threadIdx.x, blockDim.x, blocks), data, b);
}

__global__ void cuda_reduce_data_for_dot7t_inplace(float* a, const float* bv, unsigned long n, unsigned long first,
                                                   unsigned long blocks) {
  extern __shared__ float s[];
  const unsigned long b = first + blockIdx.x;
  sum8_block(s, pk_dot7t_load(a, bv, n, b, threadIdx.x, blockDim.x, blocks), a, b);
}

__global__ void cuda_reduce_data_for_sum1(const float* x, float* out, unsigned long n, unsigned long first) {
  extern __shared__ float s[];
  const unsigned long b = first + blockIdx.x;
  sum1_block(s, pk_sum1_load(x, n, b, threadIdx.x, blockDim.x), out, b);
}

__global__ void cuda_reduce_data_for_sum1_inplace(float* data, unsigned long n, unsigned long first) {
  extern __shared__ float s[];
  const unsigned long b = first + blockIdx.x;
  sum1_block(s, pk_sum1_load(data, n, b, threadIdx.x, blockDim.x), data, b);
}

namespace {

void run_sum8(const float* in, float* out, unsigned long n, unsigned long first, unsigned long count, unsigned block,
              unsigned long blocks) {
  launch_blocks(cuda_reduce_data_for_sum8, count, block, in, out, n, first, blocks);
}
void run_sum8_inplace(float* data, unsigned long n, unsigned long first, unsigned long count, unsigned block,
                      unsigned long blocks) {
  launch_blocks(cuda_reduce_data_for_sum8_inplace, count, block, data, n, first, blocks);
}
void run_dot7t_inplace(float* a, const float* b, unsigned long n, unsigned long first, unsigned long count,
                       unsigned block, unsigned long blocks) {
  launch_blocks(cuda_reduce_data_for_dot7t_inplace, count, block, a, b, n, first, blocks);
}
void run_sum1(const float* in, float* out, unsigned long n, unsigned long first, unsigned long count,
              unsigned block) {
  launch_blocks(cuda_reduce_data_for_sum1, count, block, in, out, n, first);
}
void run_sum1_inplace(float* data, unsigned long n, unsigned long first, unsigned long count, unsigned block) {
  launch_blocks(cuda_reduce_data_for_sum1_inplace, count, block, data, n, first);
}

}  // namespace

#else

// ---- Host: a loop over blocks (OpenMP), and inside a block a loop over t per stage ------

namespace {

constexpr unsigned kMaxBlock = 1024;

// The same tree as the device: one stage at a time, every thread t < off of the stage.
void sum8_tree(float* s, unsigned block) {
  for (unsigned off = block / 2; off >= 1; off >>= 1)
    for (unsigned t = 0; t < off; ++t) pk_sum8_fold(s, t, off);
}

void sum1_tree(float* s, unsigned block) {
  for (unsigned k = 1; k < block; k <<= 1)
    for (unsigned t = 0; 2u * k * t < block; ++t) pk_sum1_fold(s, t, k, block);
}

// Runs blocks first .. first + count - 1. `load(b, t)` gives thread t's value, `tree` folds
// the block, and the block sum goes to out[b]. Within one call no block reads what another
// writes (see the waves in reduce_passes.h), so the blocks may run in any order.
template <class Load, class Tree>
void run_blocks(unsigned long first, unsigned long count, unsigned block, float* out, Load load, Tree tree) {
  const long total = static_cast<long>(count);
#pragma omp parallel for schedule(static) if (total * static_cast<long>(block) >= pk::kParallelThreshold)
  for (long j = 0; j < total; ++j) {
    const unsigned long b = first + static_cast<unsigned long>(j);
    float s[kMaxBlock];
    for (unsigned t = 0; t < block; ++t) s[t] = load(b, t);
    tree(s, block);
    out[b] = s[0];
  }
  PK_CUDA_CHECK(cudaDeviceSynchronize());
}

}  // namespace

void cuda_reduce_data_for_sum8(const float* x, float* out, unsigned long n, unsigned long first, unsigned long count,
                               unsigned block, unsigned long blocks) {
  run_blocks(first, count, block, out,
             [=](unsigned long b, unsigned t) { return pk_sum8_load(x, n, b, t, block, blocks); }, sum8_tree);
}

void cuda_reduce_data_for_sum8_inplace(float* data, unsigned long n, unsigned long first, unsigned long count,
                                       unsigned block, unsigned long blocks) {
  cuda_reduce_data_for_sum8(data, data, n, first, count, block, blocks);
}

void cuda_reduce_data_for_dot7t_inplace(float* a, const float* bv, unsigned long n, unsigned long first,
                                        unsigned long count, unsigned block, unsigned long blocks) {
  run_blocks(first, count, block, a,
             [=](unsigned long b, unsigned t) { return pk_dot7t_load(a, bv, n, b, t, block, blocks); }, sum8_tree);
}

void cuda_reduce_data_for_sum1(const float* x, float* out, unsigned long n, unsigned long first, unsigned long count,
                               unsigned block) {
  run_blocks(first, count, block, out, [=](unsigned long b, unsigned t) { return pk_sum1_load(x, n, b, t, block); },
             sum1_tree);
}

void cuda_reduce_data_for_sum1_inplace(float* data, unsigned long n, unsigned long first, unsigned long count,
                                       unsigned block) {
  cuda_reduce_data_for_sum1(data, data, n, first, count, block);
}

namespace {

void run_sum8(const float* in, float* out, unsigned long n, unsigned long first, unsigned long count, unsigned block,
              unsigned long blocks) {
  cuda_reduce_data_for_sum8(in, out, n, first, count, block, blocks);
}
void run_sum8_inplace(float* data, unsigned long n, unsigned long first, unsigned long count, unsigned block,
                      unsigned long blocks) {
  cuda_reduce_data_for_sum8_inplace(data, n, first, count, block, blocks);
}
void run_dot7t_inplace(float* a, const float* b, unsigned long n, unsigned long first, unsigned long count,
                       unsigned block, unsigned long blocks) {
  cuda_reduce_data_for_dot7t_inplace(a, b, n, first, count, block, blocks);
}
void run_sum1(const float* in, float* out, unsigned long n, unsigned long first, unsigned long count,
              unsigned block) {
  cuda_reduce_data_for_sum1(in, out, n, first, count, block);
}
void run_sum1_inplace(float* data, unsigned long n, unsigned long first, unsigned long count, unsigned block) {
  cuda_reduce_data_for_sum1_inplace(data, n, first, count, block);
}

}  // namespace

#endif

// ---- Passes, the same on both backends --------------------------------------------------

namespace {

// Calls run(first, count) for the waves [0, 1), [1, span), [span, span^2), ... cut at blocks.
// Block b writes element b, which only block b / span reads, and that block lies in an
// earlier wave; within a wave the blocks read only elements at or past the wave's end.
template <class Run>
void in_waves(unsigned long blocks, unsigned long span, Run run) {
  unsigned long first = 0, end = 1;
  while (first < blocks) {
    const unsigned long last = end < blocks ? end : blocks;
    run(first, last - first);
    first = last;
    end *= span;
  }
}

}  // namespace

namespace pk {
namespace reduce {

void sum8_pass(const float* in, float* out, unsigned long n, unsigned block) {
  const unsigned long blocks = sum8_blocks(n, block);
  if (in != out) {
    run_sum8(in, out, n, 0, blocks, block, blocks);
    return;
  }
  in_waves(blocks, 2ul * block,
           [&](unsigned long first, unsigned long count) { run_sum8(in, out, n, first, count, block, blocks); });
}

void sum8_pass_inplace(float* data, unsigned long n, unsigned block) {
  const unsigned long blocks = sum8_blocks(n, block);
  in_waves(blocks, 2ul * block,
           [&](unsigned long first, unsigned long count) { run_sum8_inplace(data, n, first, count, block, blocks); });
}

void sum1_pass(const float* in, float* out, unsigned long n, unsigned block) {
  const unsigned long blocks = sum1_blocks(n, block);
  if (in != out) {
    run_sum1(in, out, n, 0, blocks, block);
    return;
  }
  in_waves(blocks, block, [&](unsigned long first, unsigned long count) { run_sum1(in, out, n, first, count, block); });
}

void sum1_pass_inplace(float* data, unsigned long n, unsigned block) {
  const unsigned long blocks = sum1_blocks(n, block);
  in_waves(blocks, block,
           [&](unsigned long first, unsigned long count) { run_sum1_inplace(data, n, first, count, block); });
}

void dot7t_pass_inplace(float* a, const float* b, unsigned long n) {
  const unsigned block = 1024;
  const unsigned long blocks = sum8_blocks(n, block);
  in_waves(blocks, 2ul * block,
           [&](unsigned long first, unsigned long count) { run_dot7t_inplace(a, b, n, first, count, block, blocks); });
}

}  // namespace reduce
}  // namespace pk
