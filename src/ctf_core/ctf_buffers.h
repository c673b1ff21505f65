// Device buffers of the gpu_ forms and the host loops of the cpu_ forms of the CTF module.
#pragma once

#include <cstddef>

#include "cuda_general/cuda_general.h"

// A device block of n elements, filled from the host array h when one is given. release()
// frees it through the device check; a block still held when it goes out of scope (a fatal
// report thrown on the way) is freed without a check, as nothing may be reported from there.
template <class T>
class CtfDeviceBlock {
 public:
  explicit CtfDeviceBlock(std::size_t n, const T* h = nullptr) : n_(n) {
    safe_cudaMalloc(&d_, sizeof(T) * (n > 0 ? n : 1));
    if (h != nullptr && n > 0) PK_CUDA_CHECK(memcpy_H2D(d_, h, sizeof(T) * n));
  }
  ~CtfDeviceBlock() {
    if (d_ != nullptr) static_cast<void>(cudaFree(d_));
  }
  CtfDeviceBlock(const CtfDeviceBlock&) = delete;
  CtfDeviceBlock& operator=(const CtfDeviceBlock&) = delete;

  T* get() const { return d_; }
  void copy_to_host(T* h) const {
    if (n_ > 0) PK_CUDA_CHECK(memcpy_D2H(h, d_, sizeof(T) * n_));
  }
  void release() { safe_cudaFree(d_); }

 private:
  T* d_ = nullptr;
  std::size_t n_;
};

// A gpu_ form of an operation that fills n elements: run(d_out) on a device block, then back.
template <class T, class Run>
void ctf_gpu_fill(T* h_out, std::size_t n, Run run) {
  CtfDeviceBlock<T> d(n);
  run(d.get());
  d.copy_to_host(h_out);
  d.release();
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
