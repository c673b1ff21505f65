// Host stand-in for the subset of the CUDA runtime that pickora uses. The host is device 0;
// "device memory" is ordinary, 64-byte aligned host memory, copies are memcpy, and a kernel
// launch is a loop that has finished when the launcher returns. Failures are reported with
// the runtime's codes and texts, so the same checks serve both backends.
#pragma once

#include <cstddef>

struct alignas(8) float2 {
  float x, y;
};
struct alignas(8) int2 {
  int x, y;
};
struct alignas(8) uint2 {
  unsigned int x, y;
};
struct dim3 {
  unsigned int x, y, z;
  constexpr dim3(unsigned int vx = 1, unsigned int vy = 1, unsigned int vz = 1) : x(vx), y(vy), z(vz) {}
};

inline float2 make_float2(float x, float y) { return float2{x, y}; }
inline int2 make_int2(int x, int y) { return int2{x, y}; }
inline uint2 make_uint2(unsigned int x, unsigned int y) { return uint2{x, y}; }

enum cudaError_t {
  cudaSuccess = 0,
  cudaErrorInvalidValue = 1,
  cudaErrorMemoryAllocation = 2,
  cudaErrorNoDevice = 100,
  cudaErrorInvalidDevice = 101,
};
typedef cudaError_t cudaError;

enum cudaMemcpyKind {
  cudaMemcpyHostToHost = 0,
  cudaMemcpyHostToDevice = 1,
  cudaMemcpyDeviceToHost = 2,
  cudaMemcpyDeviceToDevice = 3,
  cudaMemcpyDefault = 4,
};

constexpr unsigned int cudaMemAttachGlobal = 0x01;

struct cudaDeviceProp {
  char name[256];
  std::size_t totalGlobalMem;
  int major;
  int minor;
  int maxThreadsPerBlock;
  int multiProcessorCount;
};

cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaGetDevice(int* device);
cudaError_t cudaMalloc(void** ptr, std::size_t bytes);
cudaError_t cudaMallocManaged(void** ptr, std::size_t bytes, unsigned int flags = cudaMemAttachGlobal);
cudaError_t cudaFree(void* ptr);
cudaError_t cudaMemcpy(void* dst, const void* src, std::size_t bytes, cudaMemcpyKind kind);
cudaError_t cudaMemset(void* ptr, int value, std::size_t bytes);
cudaError_t cudaMemGetInfo(std::size_t* free_bytes, std::size_t* total_bytes);
cudaError_t cudaDeviceSynchronize();
cudaError_t cudaGetLastError();
const char* cudaGetErrorString(cudaError_t error);

// Typed conveniences of the real runtime's C++ API.
template <class T>
inline cudaError_t cudaMalloc(T** ptr, std::size_t bytes) {
  return cudaMalloc(reinterpret_cast<void**>(ptr), bytes);
}
template <class T>
inline cudaError_t cudaMallocManaged(T** ptr, std::size_t bytes, unsigned int flags = cudaMemAttachGlobal) {
  return cudaMallocManaged(reinterpret_cast<void**>(ptr), bytes, flags);
}
