// Host stand-in for the single-precision 2D real transforms of cuFFT, on FFTW. Same handle
// type, result codes and layout: unscaled, half spectrum of nx / 2 + 1 columns, inverse sign
// opposite to the forward one, in place or out of place with one plan.
#pragma once

#include "host_cuda_runtime.h"

typedef int cufftHandle;
typedef float cufftReal;
typedef float2 cufftComplex;

enum cufftResult {
  CUFFT_SUCCESS = 0,
  CUFFT_INVALID_PLAN = 1,
  CUFFT_ALLOC_FAILED = 2,
  CUFFT_INVALID_TYPE = 3,
  CUFFT_INVALID_VALUE = 4,
  CUFFT_INTERNAL_ERROR = 5,
  CUFFT_EXEC_FAILED = 6,
  CUFFT_SETUP_FAILED = 7,
  CUFFT_INVALID_SIZE = 8,
  CUFFT_UNALIGNED_DATA = 9,
};

enum cufftType {
  CUFFT_R2C = 0x2a,
  CUFFT_C2R = 0x2c,
  CUFFT_C2C = 0x29,
};

// nx is the slow dimension (rows), ny the fast one, as in cuFFT.
cufftResult cufftPlan2d(cufftHandle* plan, int nx, int ny, cufftType type);
// Batches of 2D transforms in the basic layout (null embeddings); other layouts are refused.
cufftResult cufftPlanMany(cufftHandle* plan, int rank, int* n, int* inembed, int istride, int idist, int* onembed,
                          int ostride, int odist, cufftType type, int batch);
cufftResult cufftExecR2C(cufftHandle plan, cufftReal* in, cufftComplex* out);
cufftResult cufftExecC2R(cufftHandle plan, cufftComplex* in, cufftReal* out);
cufftResult cufftDestroy(cufftHandle plan);
