// Moving test data to and from the device, and random test images.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "cuda_general/cuda_general.h"

// A new device block holding h (at least one element); the test frees it with cudaFree.
template <class T>
T* to_device(const std::vector<T>& h) {
  T* d = nullptr;
  safe_cudaMalloc(&d, sizeof(T) * (h.empty() ? 1 : h.size()));
  if (!h.empty()) {
    EXPECT_EQ(memcpy_H2D(d, h.data(), sizeof(T) * h.size()), cudaSuccess);
  }
  return d;
}

// Frees the device blocks it was given when its scope ends, also when a fatal report unwinds
// through the scope (the sanitizer build reports any block left behind).
class DeviceFrees {
 public:
  template <class... T>
  explicit DeviceFrees(T*... blocks) : blocks_{static_cast<void*>(blocks)...} {}
  DeviceFrees(const DeviceFrees&) = delete;
  DeviceFrees& operator=(const DeviceFrees&) = delete;
  ~DeviceFrees() {
    for (void* d : blocks_) cudaFree(d);
  }

 private:
  std::vector<void*> blocks_;
};

template <class T>
T* device_zeros(size_t n) {
  T* d = nullptr;
  safe_cudaMalloc_empty(&d, sizeof(T) * n);
  return d;
}

template <class T>
std::vector<T> to_host(const T* d, size_t n) {
  std::vector<T> h(n);
  EXPECT_EQ(memcpy_D2H(h.data(), d, sizeof(T) * n), cudaSuccess);
  return h;
}

// n values uniform in [-1, 1), the same for the same seed.
inline std::vector<float> random_image(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (auto& x : v) x = dist(gen);
  return v;
}
