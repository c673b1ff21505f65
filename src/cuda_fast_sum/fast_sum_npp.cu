// The float sum by the vendor's signal library, or by its stand-in.
#include "cuda_fast_sum/cuda_fast_sum.h"

#include <cstdio>

#include "cuda_general/platform.h"
#include "cuda_general/report.h"

#if defined(PICKORA_WITH_NPP) && PICKORA_WITH_NPP
#include <npps.h>
#else
#include "npp_standin.h"
#endif

namespace {

// Library versions differ in the integer type of the scratch size; take the one declared.
template <class Length, class Size>
Size buffer_size_type(NppStatus (*)(Length, Size*));
using NppBufferSize = decltype(buffer_size_type(&nppsSumGetBufferSize_32f));

void npp_check(NppStatus status, const char* call, const char* file, int line) {
  if (status >= NPP_SUCCESS) return;  // positive codes are the library's warnings
  char text[96];
  std::snprintf(text, sizeof(text), "%s failed with NPP status %d", call, static_cast<int>(status));
  report_device_failure(text, file, line);
}

}  // namespace

#define PK_NPP_CHECK(name, ...) npp_check(name(__VA_ARGS__), #name, __FILE__, __LINE__)

float hcuda_fast_sum_npp(const float* data, unsigned long n) {
  const int length = static_cast<int>(n);  // the library counts in 32 bits
  if (length == 0) return 0.0f;
  NppBufferSize bytes = 0;
  PK_NPP_CHECK(nppsSumGetBufferSize_32f, length, &bytes);
  Npp8u* buffer = nullptr;
  float* d_sum = nullptr;
  PK_CUDA_CHECK(cudaMalloc(&buffer, bytes > 0 ? static_cast<size_t>(bytes) : 1));
  PK_CUDA_CHECK(cudaMalloc(&d_sum, sizeof(float)));
  PK_NPP_CHECK(nppsSum_32f, data, length, d_sum, buffer);
  float sum = 0.0f;
  PK_CUDA_CHECK(cudaMemcpy(&sum, d_sum, sizeof(float), cudaMemcpyDeviceToHost));
  PK_CUDA_CHECK(cudaFree(buffer));
  PK_CUDA_CHECK(cudaFree(d_sum));
  return sum;
}
