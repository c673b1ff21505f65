// Host stand-in for the float sum of the vendor's signal library.
#include "host_npp.h"

namespace {

// Pairwise summation: halves until short runs, which are added left to right.
float pairwise_sum(const float* x, int n) {
  if (n <= 8) {
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) sum += x[i];
    return sum;
  }
  const int half = n / 2;
  return pairwise_sum(x, half) + pairwise_sum(x + half, n - half);
}

}  // namespace

NppStatus nppsSumGetBufferSize_32f(int nLength, int* hpBufferSize) {
  if (hpBufferSize == nullptr) return NPP_NULL_POINTER_ERROR;
  if (nLength <= 0) return NPP_SIZE_ERROR;
  *hpBufferSize = 64;  // the host sum needs no scratch; a token block keeps callers honest
  return NPP_SUCCESS;
}

NppStatus nppsSum_32f(const Npp32f* pSrc, int nLength, Npp32f* pSum, Npp8u* pDeviceBuffer) {
  if (pSrc == nullptr || pSum == nullptr || pDeviceBuffer == nullptr) return NPP_NULL_POINTER_ERROR;
  if (nLength <= 0) return NPP_SIZE_ERROR;
  *pSum = pairwise_sum(pSrc, nLength);
  return NPP_SUCCESS;
}
