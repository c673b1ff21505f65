// Meeting the device: choosing it, allocation that stops on failure, clearing and filling
// device memory, thin copies, and two small host utilities that live beside them.
#pragma once

#include <cstddef>

#include "cuda_general/platform.h"
#include "cuda_general/report.h"

// Device choice.
int check_and_set_gid(int gid);
int check_gid(int gid);
int auto_check_and_set_gid(int& gid);

// Allocation. The safe forms end the run with the fatal report on failure.
int safe_cudaMalloc(void** ptr, std::size_t bytes);
int safe_cudaMalloc_empty(void** ptr, std::size_t bytes);
int cudaMalloc_empty(void** ptr, std::size_t bytes);  // returns the runtime's code, no message
template <class T>
int safe_cudaMalloc(T** ptr, std::size_t bytes) {
  return safe_cudaMalloc(reinterpret_cast<void**>(ptr), bytes);
}
template <class T>
int safe_cudaMalloc_empty(T** ptr, std::size_t bytes) {
  return safe_cudaMalloc_empty(reinterpret_cast<void**>(ptr), bytes);
}
template <class T>
int cudaMalloc_empty(T** ptr, std::size_t bytes) {
  return cudaMalloc_empty(reinterpret_cast<void**>(ptr), bytes);
}
// Frees a device block through the device check and leaves the pointer null; null is no-op.
template <class T>
void safe_cudaFree(T*& ptr) {
  if (ptr != nullptr) PK_CUDA_CHECK(cudaFree(ptr));
  ptr = nullptr;
}

// Clearing and filling device memory.
void hcuda_empty(void* d_ptr, std::size_t bytes);
void hcuda_empty_f32(float* d_ptr, unsigned long n);
void hcuda_empty_f64(double* d_ptr, unsigned long n);
void hcuda_memset_int(int* d_ptr, int value, unsigned long n);
void hcuda_memset_uint(unsigned int* d_ptr, unsigned int value, unsigned long n);
void hcuda_memset_f32(float* d_ptr, float value, unsigned long n);
void hcuda_memset_f64(double* d_ptr, double value, unsigned long n);

// The host twins take the count before the value.
void cpu_memset_int(int* ptr, unsigned long n, int value);
void cpu_memset_uint(unsigned int* ptr, unsigned long n, unsigned int value);
void cpu_memset_f32(float* ptr, unsigned long n, float value);
void cpu_memset_f64(double* ptr, unsigned long n, double value);

// Copies; each returns the runtime's code for the caller's device check.
cudaError_t memcpy_H2D(void* d_dst, const void* h_src, std::size_t bytes);
cudaError_t memcpy_D2H(void* h_dst, const void* d_src, std::size_t bytes);
cudaError_t memcpy_D2D(void* d_dst, const void* d_src, std::size_t bytes);

// Prints total, used and free device memory in MB.
void gpu_report_memory();

// Reads the optional 0/1 value behind a flag at argv[index]; may advance index. Returns 0.
int get_bool_keyword(int argc, char** argv, int& value, int& index);

// 0 when every test named by the letters (F exists, R readable, W writable, X executable)
// passes; otherwise prints the first failure and returns -1.
int check_file_access(const char* name, const char* letters);

// Element functions of the fill kernels.
PICKORA_HD inline void cuda_memset_int(unsigned i, int* a, int value, unsigned long n) {
  if (i < n) a[i] = value;
}
PICKORA_HD inline void cuda_memset_uint(unsigned i, unsigned int* a, unsigned int value, unsigned long n) {
  if (i < n) a[i] = value;
}
PICKORA_HD inline void cuda_memset_f32(unsigned i, float* a, float value, unsigned long n) {
  if (i < n) a[i] = value;
}
PICKORA_HD inline void cuda_memset_f64(unsigned i, double* a, double value, unsigned long n) {
  if (i < n) a[i] = value;
}
