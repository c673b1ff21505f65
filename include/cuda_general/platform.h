// The one place that decides which platform the compute layer runs on.
//
// PICKORA_BACKEND_CUDA=1: the real CUDA runtime and cuFFT, kernels compiled by nvcc.
// PICKORA_BACKEND_CUDA=0: the host stand-in of src/host_device, the host being device 0,
//                          kernels run as OpenMP loops over the same per-element functions.
//
// Code above this layer includes this header (or a module header that does) and never
// tests the backend itself.
#pragma once

#ifndef PICKORA_BACKEND_CUDA
#error "PICKORA_BACKEND_CUDA must be defined by the build (0 or 1)"
#endif

#if PICKORA_BACKEND_CUDA
#include <cuda_runtime.h>
#include <cufft.h>
#else
#include "host_cuda_runtime.h"
#include "host_cufft.h"
#endif

// Marks a function that runs on both sides: a device thread's element of a kernel and the
// body of the host loop that stands in for it.
#if defined(__CUDACC__)
#define PICKORA_HD __host__ __device__
#define PICKORA_LAMBDA [=] __host__ __device__
#else
#define PICKORA_HD
#define PICKORA_LAMBDA [=]
#endif

static_assert(sizeof(float2) == 8, "float2 must be two packed floats");
