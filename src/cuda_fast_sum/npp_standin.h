// Stand-in for the two calls of the vendor's signal library that pickora makes, for builds
// without that library (the CPU backend always, the CUDA backend where it is not installed):
// the same signatures and codes, summing with the main tree of cuda_fast_sum.h.
#pragma once

typedef float Npp32f;
typedef unsigned char Npp8u;

enum NppStatus {
  NPP_NULL_POINTER_ERROR = -8,
  NPP_SIZE_ERROR = -6,
  NPP_SUCCESS = 0,
};

NppStatus nppsSumGetBufferSize_32f(int nLength, int* hpBufferSize);
// pSrc, pSum and pDeviceBuffer are device pointers.
NppStatus nppsSum_32f(const Npp32f* pSrc, int nLength, Npp32f* pSum, Npp8u* pDeviceBuffer);
