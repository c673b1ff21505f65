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
// ms_inverse_median=... plan_ms=...", plan_ms being the first pair, which makes the plans
// (measures them, with PICKORA_FFTW_WISDOM naming a file that does not hold them yet).
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

  auto forward = [&] { hcuda_2d_fft_exec_r2c(r2c, image, half); };
  auto inverse = [&] { hcuda_2d_fft_exec_c2r(c2r, half, back); };
  auto pair = [&] {
    forward();
    inverse();
  };
  const auto t_plan = std::chrono::steady_clock::now();
  pair();  // first use makes the host plans
  const double plan_seconds = seconds_since(t_plan);
  for (int k = 0; k < 2; ++k) pair();  // let caches settle

  std::vector<double> times, inverse_times;
  const auto start = std::chrono::steady_clock::now();
  while (times.size() < 5 || seconds_since(start) < min_seconds) {
    forward();
    const auto t0 = std::chrono::steady_clock::now();
    inverse();
    inverse_times.push_back(seconds_since(t0));
    const auto t1 = std::chrono::steady_clock::now();
    pair();
    times.push_back(seconds_since(t1));
  }
  double total = 0.0;
  for (double t : times) total += t;
  std::sort(times.begin(), times.end());
  std::sort(inverse_times.begin(), inverse_times.end());
  std::printf("fft_pair N=%u pairs=%zu ms_per_pair_median=%.3f ms_per_pair_mean=%.3f ms_inverse_median=%.3f "
              "plan_ms=%.1f\n",
              n, times.size(), 1e3 * times[times.size() / 2], 1e3 * total / static_cast<double>(times.size()),
              1e3 * inverse_times[inverse_times.size() / 2], 1e3 * plan_seconds);
  std::fflush(stdout);

  hcuda_2d_fft_destroy(r2c);
  hcuda_2d_fft_destroy(c2r);
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
