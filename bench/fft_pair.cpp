// Times one forward (real to complex) and one inverse (complex to real) 2D transform of an
// N x N image through the program's own FFT layer, out of place, with the plans made once:
// the pair that rotational matching runs at every angle of a template it has not kept the
// spectra of, and the inverse alone, which is all it transforms at an angle whose template
// spectrum it kept. Matching a template over A angles on an N x N work image can be no faster
// than A inverse transforms.
//
//   fft_pair [--min_seconds S] N [N ...]
//
// Prints per size: "fft_pair N=... pairs=... ms_per_pair_median=... ms_per_pair_mean=...
// ms_inverse_median=... ms_inverse_batched_median=... plan_ms=...", plan_ms being the first
// pair, which makes the plans (measures them, with PICKORA_FFTW_WISDOM naming a file that does
// not hold them yet). The batched figure is per transform of a batch of kBatch inverses in one
// execution, as the picker runs a batch of angles (on the host: side by side, one per core),
// timed in the same loop as the single inverse so that the two see the same machine.
// Built by bench/run.sh against the library of the backend it measures.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"

namespace {

constexpr int kBatch = 4;  // the picker's angle batch

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A fixed pseudo-random image, so the transforms see ordinary data rather than zeros.
std::vector<float> test_image(unsigned n) {
  std::vector<float> image(static_cast<std::size_t>(n) * n);
  unsigned state = 12345u;
  for (float& v : image) {
    state = state * 1664525u + 1013904223u;
    v = static_cast<float>(state >> 8) / 16777216.0f - 0.5f;
  }
  return image;
}

void time_pairs(unsigned n, double min_seconds) {
  const std::size_t pixels = static_cast<std::size_t>(n) * n;
  const std::size_t spectrum = static_cast<std::size_t>(fft_half_width(n)) * n;
  float* image = nullptr;
  float* back = nullptr;
  float2* half = nullptr;
  safe_cudaMalloc(&image, pixels * sizeof(float));
  safe_cudaMalloc(&back, pixels * sizeof(float));
  safe_cudaMalloc(&half, spectrum * sizeof(float2));
  const std::vector<float> host = test_image(n);
  PK_CUDA_CHECK(memcpy_H2D(image, host.data(), pixels * sizeof(float)));
  const cufftHandle r2c = hcuda_2d_fft_plan(n, n, CUFFT_R2C);
  const cufftHandle c2r = hcuda_2d_fft_plan(n, n, CUFFT_C2R);
  const cufftHandle r2c_batch = hcuda_2d_fft_plan_batch(n, n, CUFFT_R2C, kBatch);
  const cufftHandle c2r_batch = hcuda_2d_fft_plan_batch(n, n, CUFFT_C2R, kBatch);
  float* images = nullptr;
  float* backs = nullptr;
  float2* halves = nullptr;
  safe_cudaMalloc(&images, kBatch * pixels * sizeof(float));
  safe_cudaMalloc(&backs, kBatch * pixels * sizeof(float));
  safe_cudaMalloc(&halves, kBatch * spectrum * sizeof(float2));
  for (int k = 0; k < kBatch; ++k)
    PK_CUDA_CHECK(memcpy_H2D(images + k * pixels, host.data(), pixels * sizeof(float)));
  // The inverse may use its input as work space, so each one is fed a fresh forward transform.
  auto batched_inverse = [&] {
    hcuda_2d_fft_exec_r2c(r2c_batch, images, halves);
    const auto t0 = std::chrono::steady_clock::now();
    hcuda_2d_fft_exec_c2r(c2r_batch, halves, backs);
    return seconds_since(t0) / kBatch;
  };

  auto forward = [&] { hcuda_2d_fft_exec_r2c(r2c, image, half); };
  auto inverse = [&] { hcuda_2d_fft_exec_c2r(c2r, half, back); };
  auto pair = [&] {
    forward();
    inverse();
  };
  const auto t_plan = std::chrono::steady_clock::now();
  pair();  // first use makes the host plans
  const double plan_seconds = seconds_since(t_plan);
  for (int k = 0; k < 2; ++k) pair(), batched_inverse();  // let caches settle

  std::vector<double> times, inverse_times, batched_times;
  const auto start = std::chrono::steady_clock::now();
  while (times.size() < 5 || seconds_since(start) < min_seconds) {
    forward();
    const auto t0 = std::chrono::steady_clock::now();
    inverse();
    inverse_times.push_back(seconds_since(t0));
    const auto t1 = std::chrono::steady_clock::now();
    pair();
    times.push_back(seconds_since(t1));
    batched_times.push_back(batched_inverse());
  }
  double total = 0.0;
  for (double t : times) total += t;
  std::sort(times.begin(), times.end());
  std::sort(inverse_times.begin(), inverse_times.end());
  std::sort(batched_times.begin(), batched_times.end());
  std::printf("fft_pair N=%u pairs=%zu ms_per_pair_median=%.3f ms_per_pair_mean=%.3f ms_inverse_median=%.3f "
              "ms_inverse_batched_median=%.3f plan_ms=%.1f\n",
              n, times.size(), 1e3 * times[times.size() / 2], 1e3 * total / static_cast<double>(times.size()),
              1e3 * inverse_times[inverse_times.size() / 2], 1e3 * batched_times[batched_times.size() / 2],
              1e3 * plan_seconds);
  std::fflush(stdout);

  hcuda_2d_fft_destroy(r2c);
  hcuda_2d_fft_destroy(c2r);
  hcuda_2d_fft_destroy(r2c_batch);
  hcuda_2d_fft_destroy(c2r_batch);
  for (void* p : {static_cast<void*>(images), static_cast<void*>(backs), static_cast<void*>(halves)})
    PK_CUDA_CHECK(cudaFree(p));
  PK_CUDA_CHECK(cudaFree(image));
  PK_CUDA_CHECK(cudaFree(back));
  PK_CUDA_CHECK(cudaFree(half));
}

}  // namespace

int main(int argc, char** argv) {
  double min_seconds = 1.0;
  std::vector<unsigned> sizes;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--min_seconds") == 0 && i + 1 < argc) {
      min_seconds = std::atof(argv[++i]);
      continue;
    }
    const long n = std::strtol(argv[i], nullptr, 10);
    if (n < 2 || n > 65536) {
      std::fprintf(stderr, "fft_pair: bad size '%s'\n", argv[i]);
      return 1;
    }
    sizes.push_back(static_cast<unsigned>(n));
  }
  if (sizes.empty()) {
    std::fprintf(stderr, "usage: fft_pair [--min_seconds S] N [N ...]\n");
    return 1;
  }
  for (unsigned n : sizes) time_pairs(n, min_seconds);
  return 0;
}
