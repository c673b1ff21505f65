// Host stand-in for the two calls of the vendor's signal library that pickora makes: the
// scratch size of a float sum, and the sum itself. "Device" pointers are host memory here, as
// everywhere in the host stand-in; the sum is written through a pointer like the library's.
#pragma once

typedef float Npp32f;
typedef unsigned char Npp8u;

enum NppStatus {
  NPP_NULL_POINTER_ERROR = -8,
  NPP_SIZE_ERROR = -6,
  NPP_SUCCESS = 0,
};

// Bytes of scratch that nppsSum_32f needs for nLength floats.
NppStatus nppsSumGetBufferSize_32f(int nLength, int* hpBufferSize);
// *pSum = the sum of pSrc[0 .. nLength), in single precision, pairwise.
NppStatus nppsSum_32f(const Npp32f* pSrc, int nLength, Npp32f* pSum, Npp8u* pDeviceBuffer);
