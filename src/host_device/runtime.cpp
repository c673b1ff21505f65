// Host stand-in for the CUDA runtime: the host is the only device, device 0.
#include "host_cuda_runtime.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr std::size_t kAlignment = 64;

// The picking road allocates and frees scratch of a few megabytes in every call, as it would
// on a GPU. By default the C library maps such blocks afresh and unmaps them on free, so every
// call pays for clearing new pages; kept in the heap, freed blocks serve the next call.
void keep_freed_blocks_once() {
  static std::once_flag once;
  std::call_once(once, [] {
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
  });
}
// Blocks this large (the kept template spectra, large images) are asked for in huge pages: a
// first touch then faults once per 2 MiB instead of once per 4 KiB, which on a virtual machine
// is most of the cost of filling gigabytes, and later passes miss the TLB less.
constexpr std::size_t kHugePage = std::size_t(2) << 20;
constexpr std::size_t kHugeFrom = std::size_t(64) << 20;

void* allocate(std::size_t bytes) {
  if (bytes < kHugeFrom) return std::aligned_alloc(kAlignment, bytes);
  const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
  if (rounded < bytes) return nullptr;
  void* block = std::aligned_alloc(kHugePage, rounded);
  if (block != nullptr) madvise(block, rounded, MADV_HUGEPAGE);  // a hint: refused, it changes nothing
  return block;
}

constexpr char kDeviceName[] = "host CPU (pickora CPU backend)";

int g_current_device = 0;

}  // namespace

cudaError_t cudaGetDeviceCount(int* count) {
  if (count == nullptr) return cudaErrorInvalidValue;
  *count = 1;
  return cudaSuccess;
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device) {
  if (prop == nullptr) return cudaErrorInvalidValue;
  if (device != 0) return cudaErrorInvalidDevice;
  std::memset(prop, 0, sizeof(*prop));
  std::strncpy(prop->name, kDeviceName, sizeof(prop->name) - 1);
  std::size_t free_bytes = 0;
  cudaMemGetInfo(&free_bytes, &prop->totalGlobalMem);
  // A compute capability of 1.0 ranks the host below any real GPU, yet above "none".
  prop->major = 1;
  prop->minor = 0;
  prop->maxThreadsPerBlock = 1024;
  long cores = sysconf(_SC_NPROCESSORS_ONLN);
  prop->multiProcessorCount = cores > 0 ? static_cast<int>(cores) : 1;
  return cudaSuccess;
}

cudaError_t cudaSetDevice(int device) {
  if (device != 0) return cudaErrorInvalidDevice;
  g_current_device = device;
  return cudaSuccess;
}

cudaError_t cudaGetDevice(int* device) {
  if (device == nullptr) return cudaErrorInvalidValue;
  *device = g_current_device;
  return cudaSuccess;
}

cudaError_t cudaMalloc(void** ptr, std::size_t bytes) {
  if (ptr == nullptr) return cudaErrorInvalidValue;
  // Round up so that aligned_alloc's size rule holds; a request of 0 still gets a block.
  std::size_t rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  if (rounded == 0) rounded = kAlignment;
  if (rounded < bytes) {
    *ptr = nullptr;
    return cudaErrorMemoryAllocation;
  }
  keep_freed_blocks_once();
  void* block = allocate(rounded);
  *ptr = block;
  return block != nullptr ? cudaSuccess : cudaErrorMemoryAllocation;
}

cudaError_t cudaMallocManaged(void** ptr, std::size_t bytes, unsigned int flags) {
  if (flags != cudaMemAttachGlobal) return cudaErrorInvalidValue;
  return cudaMalloc(ptr, bytes);
}

cudaError_t cudaFree(void* ptr) {
  std::free(ptr);
  return cudaSuccess;
}

cudaError_t cudaMemcpy(void* dst, const void* src, std::size_t bytes, cudaMemcpyKind kind) {
  if (kind < cudaMemcpyHostToHost || kind > cudaMemcpyDefault) return cudaErrorInvalidValue;
  if (bytes == 0) return cudaSuccess;
  if (dst == nullptr || src == nullptr) return cudaErrorInvalidValue;
  std::memmove(dst, src, bytes);
  return cudaSuccess;
}

cudaError_t cudaMemset(void* ptr, int value, std::size_t bytes) {
  if (bytes == 0) return cudaSuccess;
  if (ptr == nullptr) return cudaErrorInvalidValue;
  std::memset(ptr, value, bytes);
  return cudaSuccess;
}

cudaError_t cudaMemGetInfo(std::size_t* free_bytes, std::size_t* total_bytes) {
  if (free_bytes == nullptr || total_bytes == nullptr) return cudaErrorInvalidValue;
  long page = sysconf(_SC_PAGESIZE);
  long pages = sysconf(_SC_PHYS_PAGES);
  long available = sysconf(_SC_AVPHYS_PAGES);
  if (page <= 0 || pages <= 0 || available < 0) return cudaErrorInvalidValue;
  *total_bytes = static_cast<std::size_t>(pages) * static_cast<std::size_t>(page);
  *free_bytes = static_cast<std::size_t>(available) * static_cast<std::size_t>(page);
  return cudaSuccess;
}

// Kernels of the CPU backend finish before their launcher returns.
cudaError_t cudaDeviceSynchronize() { return cudaSuccess; }

cudaError_t cudaGetLastError() { return cudaSuccess; }

const char* cudaGetErrorString(cudaError_t error) {
  switch (error) {
    case cudaSuccess:
      return "no error";
    case cudaErrorInvalidValue:
      return "invalid argument";
    case cudaErrorMemoryAllocation:
      return "out of memory";
    case cudaErrorNoDevice:
      return "no CUDA-capable device is detected";
    case cudaErrorInvalidDevice:
      return "invalid device ordinal";
  }
  return "unrecognized error code";
}
