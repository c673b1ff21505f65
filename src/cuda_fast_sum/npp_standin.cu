// Stand-in for the vendor's float sum, for builds without the library.
#include "cuda_general/platform.h"

#if !(defined(PICKORA_WITH_NPP) && PICKORA_WITH_NPP)

#include "cuda_general/report.h"
#include "npp_standin.h"
#include "reduce_passes.h"

NppStatus nppsSumGetBufferSize_32f(int nLength, int* hpBufferSize) {
  if (hpBufferSize == nullptr) return NPP_NULL_POINTER_ERROR;
  if (nLength <= 0) return NPP_SIZE_ERROR;
  *hpBufferSize = nLength * static_cast<int>(sizeof(float));  // block sums of the first pass
  return NPP_SUCCESS;
}

NppStatus nppsSum_32f(const Npp32f* pSrc, int nLength, Npp32f* pSum, Npp8u* pDeviceBuffer) {
  if (pSrc == nullptr || pSum == nullptr || pDeviceBuffer == nullptr) return NPP_NULL_POINTER_ERROR;
  if (nLength <= 0) return NPP_SIZE_ERROR;
  const unsigned block = 1024;
  float* partial = reinterpret_cast<float*>(pDeviceBuffer);
  unsigned long count = static_cast<unsigned long>(nLength);
  pk::reduce::sum8_pass(pSrc, partial, count, block);
  for (count = pk::reduce::sum8_blocks(count, block); count > 1; count = pk::reduce::sum8_blocks(count, block))
    pk::reduce::sum8_pass_inplace(partial, count, block);
  PK_CUDA_CHECK(cudaMemcpy(pSum, partial, sizeof(float), cudaMemcpyDeviceToDevice));
  return NPP_SUCCESS;
}

#endif
