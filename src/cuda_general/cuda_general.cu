#include "cuda_general/cuda_general.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "cuda_general/launch.h"
#include "cuda_general/report.h"

int check_and_set_gid(int gid) {
  int count = 0;
  PK_CUDA_CHECK(cudaGetDeviceCount(&count));
  if (count == 0) PK_FATAL("Warning: no GPU device found!\n");
  cudaDeviceProp prop;
  if (cudaGetDeviceProperties(&prop, gid) != cudaSuccess) PK_FATAL("Warning: no GPU device found!\n");
  PK_CUDA_CHECK(cudaSetDevice(gid));
  std::printf("using GPU %d ...\n", gid);
  return 0;
}

int check_gid(int gid) {
  int count = 0;
  cudaGetDeviceCount(&count);
  if (count == 0) PK_FATAL("Warning: no GPU device found!\n");
  cudaDeviceProp prop;
  if (cudaGetDeviceProperties(&prop, gid) != cudaSuccess) PK_FATAL("Warning: GPU device problem!\n");
  std::printf("using GPU %d ...\n", gid);
  return 0;
}

int auto_check_and_set_gid(int& gid) {
  int count = 0;
  cudaGetDeviceCount(&count);
  if (count == 0) PK_FATAL("Warning: no GPU device found!\n");
  cudaDeviceProp prop;
  if (cudaGetDeviceProperties(&prop, gid) == cudaSuccess) {
    cudaSetDevice(gid);
    return 0;
  }
  // The highest compute capability wins; among equals the lowest id.
  int best_major = 0, best_minor = 0, best = -1;
  for (int id = 0; id < count; ++id) {
    if (cudaGetDeviceProperties(&prop, id) != cudaSuccess) continue;
    if (prop.major > best_major || (prop.major == best_major && prop.minor > best_minor)) {
      best_major = prop.major;
      best_minor = prop.minor;
      best = id;
    }
  }
  if (best >= 0) gid = best;
  if (best < 0 || cudaSetDevice(gid) != cudaSuccess) PK_FATAL("Warning: Cannot find alternative GPU device!\n");
  return 0;
}

int safe_cudaMalloc(void** ptr, std::size_t bytes) {
  if (cudaMalloc(ptr, bytes) != cudaSuccess) PK_FATAL("Device memory allocation failed");
  return 0;
}

int safe_cudaMalloc_empty(void** ptr, std::size_t bytes) {
  safe_cudaMalloc(ptr, bytes);
  PK_CUDA_CHECK(cudaMemset(*ptr, 0, bytes));
  return 0;
}

int cudaMalloc_empty(void** ptr, std::size_t bytes) {
  cudaError_t result = cudaMalloc(ptr, bytes);
  if (result != cudaSuccess) return static_cast<int>(result);
  PK_CUDA_CHECK(cudaMemset(*ptr, 0, bytes));
  return 0;
}

void hcuda_empty(void* d_ptr, std::size_t bytes) { PK_CUDA_CHECK(cudaMemset(d_ptr, 0, bytes)); }
void hcuda_empty_f32(float* d_ptr, unsigned long n) { PK_CUDA_CHECK(cudaMemset(d_ptr, 0, n * sizeof(float))); }
void hcuda_empty_f64(double* d_ptr, unsigned long n) { PK_CUDA_CHECK(cudaMemset(d_ptr, 0, n * sizeof(double))); }

void hcuda_memset_int(int* d_ptr, int value, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_memset_int(i, d_ptr, value, n); });
}
void hcuda_memset_uint(unsigned int* d_ptr, unsigned int value, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_memset_uint(i, d_ptr, value, n); });
}
void hcuda_memset_f32(float* d_ptr, float value, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_memset_f32(i, d_ptr, value, n); });
}
void hcuda_memset_f64(double* d_ptr, double value, unsigned long n) {
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_memset_f64(i, d_ptr, value, n); });
}

void cpu_memset_int(int* ptr, unsigned long n, int value) {
  for (unsigned long i = 0; i < n; ++i) ptr[i] = value;
}
void cpu_memset_uint(unsigned int* ptr, unsigned long n, unsigned int value) {
  for (unsigned long i = 0; i < n; ++i) ptr[i] = value;
}
void cpu_memset_f32(float* ptr, unsigned long n, float value) {
  for (unsigned long i = 0; i < n; ++i) ptr[i] = value;
}
void cpu_memset_f64(double* ptr, unsigned long n, double value) {
  for (unsigned long i = 0; i < n; ++i) ptr[i] = value;
}

cudaError_t memcpy_H2D(void* d_dst, const void* h_src, std::size_t bytes) {
  return cudaMemcpy(d_dst, h_src, bytes, cudaMemcpyHostToDevice);
}
cudaError_t memcpy_D2H(void* h_dst, const void* d_src, std::size_t bytes) {
  return cudaMemcpy(h_dst, d_src, bytes, cudaMemcpyDeviceToHost);
}
cudaError_t memcpy_D2D(void* d_dst, const void* d_src, std::size_t bytes) {
  return cudaMemcpy(d_dst, d_src, bytes, cudaMemcpyDeviceToDevice);
}

void gpu_report_memory() {
  std::size_t free_bytes = 0, total_bytes = 0;
  cudaError_t result = cudaMemGetInfo(&free_bytes, &total_bytes);
  if (result != cudaSuccess) {
    std::printf("Error: cudaMemGetInfo fails, %s \n", cudaGetErrorString(result));
    PK_FATAL("Device memory, cudaMemGetInfo failed");
  }
  const double mb = 1024.0 * 1024.0;
  std::printf("GPU memory usage:  total = %f MB, used = %f, free = %f MB\n", total_bytes / mb,
              (total_bytes - free_bytes) / mb, free_bytes / mb);
}

int get_bool_keyword(int argc, char** argv, int& value, int& index) {
  value = 1;
  if (index + 1 >= argc) return 0;
  unsigned char next = static_cast<unsigned char>(argv[index + 1][0]);
  if (next == '-' || std::isalpha(next)) return 0;
  ++index;
  value = std::strtol(argv[index], nullptr, 10) != 0 ? 1 : 0;
  return 0;
}

int check_file_access(const char* name, const char* letters) {
  for (const char* p = letters; p != nullptr && *p != '\0'; ++p) {
    int mode = 0;
    const char* failure = nullptr;
    switch (std::toupper(static_cast<unsigned char>(*p))) {
      case 'F': mode = F_OK; failure = "does NOT exist"; break;
      case 'R': mode = R_OK; failure = "are NOT readable"; break;
      case 'W': mode = W_OK; failure = "are NOT writable"; break;
      case 'X': mode = X_OK; failure = "are NOT executable"; break;
      default:
        std::printf("\033[43m\033[1m\033[5mError in function %s(), file %s on line %d:  the mode '%c' for checking "
                    "access of file %s are NOT recoganized!\033[m\n\n",
                    __func__, report_module_path(__FILE__), __LINE__, *p, name);
        std::fflush(stdout);
        return -1;
    }
    if (access(name, mode) != 0) {
      PK_ATTENTION("the file %s %s! Automatically ignored!", name, failure);
      return -1;
    }
  }
  return 0;
}
