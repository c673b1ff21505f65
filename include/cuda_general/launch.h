// Launchers: the one place where a kernel's element function meets a backend.
//
// A kernel is written once as a PICKORA_HD function of its thread coordinates that tests its
// own indices. A launcher runs it over the grid of the fixed launch shapes:
//   flat        blocks of 1024 threads, (n + 1023) >> 10 blocks, index i = block * 1024 + thread
//   image       blocks of 32 x 32 threads, ((nx + 31) >> 5, (ny + 31) >> 5) blocks
//   half rows   the image shape over nx by ny / 2, for the in-place pair swaps
// then waits for the device and puts the result through the device check. On the CUDA
// backend that is a real launch on the default stream; on the CPU backend an OpenMP loop over
// every thread of the same grid.
//
// Use through the macros, which carry the caller's file and line into the device check:
//   PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_foo(i, a, n); });
//   PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_bar(x, y, a, nx, ny); });
#pragma once

#include "cuda_general/platform.h"
#include "cuda_general/report.h"

namespace pk {

constexpr unsigned kFlatBlock = 1024;
constexpr unsigned kTile = 32;

inline unsigned flat_blocks(unsigned long n) { return static_cast<unsigned>((n + kFlatBlock - 1) >> 10); }
inline unsigned tiles(unsigned n) { return (n + kTile - 1) >> 5; }

#if PICKORA_BACKEND_CUDA
#if !defined(__CUDACC__)
#error "a file that launches kernels must be compiled by nvcc on the CUDA backend"
#endif

template <class F>
__global__ void flat_kernel(F f) {
  f(blockIdx.x * blockDim.x + threadIdx.x);
}

template <class F>
__global__ void image_kernel(F f) {
  f(blockIdx.x * blockDim.x + threadIdx.x, blockIdx.y * blockDim.y + threadIdx.y);
}

template <class F>
void launch_flat(unsigned long n, F f, const char* file, int line) {
  unsigned blocks = flat_blocks(n);
  if (blocks > 0) flat_kernel<<<blocks, kFlatBlock>>>(f);
  report_device_check(cudaDeviceSynchronize(), file, line);
}

template <class F>
void launch_image(unsigned nx, unsigned ny, F f, const char* file, int line) {
  dim3 grid(tiles(nx), tiles(ny));
  if (grid.x > 0 && grid.y > 0) image_kernel<<<grid, dim3(kTile, kTile)>>>(f);
  report_device_check(cudaDeviceSynchronize(), file, line);
}

#else

// Small grids are not worth waking the thread team for.
constexpr long kParallelThreshold = 1L << 15;

template <class F>
void launch_flat(unsigned long n, F f, const char* file, int line) {
  const long threads = static_cast<long>(flat_blocks(n)) * kFlatBlock;
#pragma omp parallel for schedule(static) if (threads >= kParallelThreshold)
  for (long i = 0; i < threads; ++i) f(static_cast<unsigned>(i));
  report_device_check(cudaDeviceSynchronize(), file, line);
}

template <class F>
void launch_image(unsigned nx, unsigned ny, F f, const char* file, int line) {
  const long width = static_cast<long>(tiles(nx)) * kTile;
  const long height = static_cast<long>(tiles(ny)) * kTile;
#pragma omp parallel for schedule(static) if (width * height >= kParallelThreshold)
  for (long y = 0; y < height; ++y)
    // The threads of a launch never touch each other's elements (no kernel here races, as none
    // may on a GPU), so the pixels of a row may run side by side in vector registers.
#pragma omp simd
    for (long x = 0; x < width; ++x) f(static_cast<unsigned>(x), static_cast<unsigned>(y));
  report_device_check(cudaDeviceSynchronize(), file, line);
}

#endif

// The in-place pair swaps cover only the upper half of the rows; each thread owns a pair.
template <class F>
void launch_half_rows(unsigned nx, unsigned ny, F f, const char* file, int line) {
  launch_image(nx, ny / 2, f, file, line);
}

}  // namespace pk

#define PK_LAUNCH_FLAT(n, ...) ::pk::launch_flat((n), __VA_ARGS__, __FILE__, __LINE__)
#define PK_LAUNCH_IMAGE(nx, ny, ...) ::pk::launch_image((nx), (ny), __VA_ARGS__, __FILE__, __LINE__)
#define PK_LAUNCH_HALF_ROWS(nx, ny, ...) ::pk::launch_half_rows((nx), (ny), __VA_ARGS__, __FILE__, __LINE__)
