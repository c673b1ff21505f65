// Device buffers of the gpu_ forms and the host loops of the cpu_ forms of the CTF module.
#pragma once

#include <cstddef>

#include "cuda_general/cuda_general.h"

// A device block of n elements, filled from the host array h when it is given.
template <class T>
T* ctf_device_block(std::size_t n, const T* h = nullptr) {
  T* d = nullptr;
  safe_cudaMalloc(&d, sizeof(T) * (n > 0 ? n : 1));
  if (h != nullptr && n > 0) PK_CUDA_CHECK(memcpy_H2D(d, h, sizeof(T) * n));
  return d;
}

// Copies n elements of d to the host array h, then frees d.
template <class T>
void ctf_device_return(T* h, T*& d, std::size_t n) {
  if (n > 0) PK_CUDA_CHECK(memcpy_D2H(h, d, sizeof(T) * n));
  safe_cudaFree(d);
}

// A gpu_ form of an operation that fills n elements: run(d_out) on a device block, then back.
template <class T, class Run>
void ctf_gpu_fill(T* h_out, std::size_t n, Run run) {
  T* d = ctf_device_block<T>(n);
  run(d);
  ctf_device_return(h_out, d, n);
}

template <class F>
void ctf_host_flat(unsigned long n, F f) {
  for (unsigned long i = 0; i < n; ++i) f(static_cast<unsigned>(i));
}
template <class F>
void ctf_host_image(unsigned nx, unsigned ny, F f) {
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x) f(x, y);
}
