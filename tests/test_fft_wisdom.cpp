// Measured FFT plans kept in a wisdom file: the file is written (by default in the user's cache
// folder), and a file that is not wisdom is never written over.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "support/device_data.h"
#include "support/temp_dir.h"

namespace {

// The forward transform of a random n x n image, through a new plan.
std::vector<float2> forward(unsigned n) {
  float* image = to_device(random_image(size_t(n) * n, n));
  float2* spectrum = nullptr;
  const size_t values = size_t(fft_half_width(n)) * n;
  safe_cudaMalloc(&spectrum, values * sizeof(float2));
  const cufftHandle plan = hcuda_2d_fft_plan(n, n, CUFFT_R2C);
  hcuda_2d_fft_exec_r2c(plan, image, spectrum);
  hcuda_2d_fft_destroy(plan);
  std::vector<float2> out(values);
  memcpy_D2H(out.data(), spectrum, values * sizeof(float2));
  cudaFree(image);
  cudaFree(spectrum);
  return out;
}

TEST(FftWisdom, MeasuredPlansAreKeptInTheCacheOrTheNamedFileAndAForeignFileIsLeftAlone) {
#if PICKORA_BACKEND_CUDA
  GTEST_SKIP() << "cuFFT makes its own plans";
#else
  TempDir dir;
  const std::string wisdom = dir.file("fftw.wisdom"), notes = dir.file("notes.txt");
  setenv("PICKORA_FFTW_WISDOM", "none", 1);
  const std::vector<float2> estimated = forward(40);
  const auto expect_estimated = [&](const char* what) {
    const std::vector<float2> got = forward(40);
    ASSERT_EQ(got.size(), estimated.size()) << what;
    for (size_t i = 0; i < estimated.size(); ++i) {
      ASSERT_EQ(got[i].x, estimated[i].x) << what << " " << i;
      ASSERT_EQ(got[i].y, estimated[i].y) << what << " " << i;
    }
  };
  // A file that is not wisdom is left alone, and the plan is estimated as without one.
  write_file_text(notes, "my notes\n");
  setenv("PICKORA_FFTW_WISDOM", notes.c_str(), 1);
  expect_estimated("beside notes");
  EXPECT_EQ(read_file_text(notes), "my notes\n");
  // Nor is anything measured where the wisdom cannot be saved.
  setenv("PICKORA_FFTW_WISDOM", dir.file("missing/fftw.wisdom").c_str(), 1);
  expect_estimated("unwritable");

  setenv("PICKORA_FFTW_WISDOM", wisdom.c_str(), 1);
  forward(48);
  const std::string kept = read_file_text(wisdom);
  EXPECT_EQ(kept.rfind("(fftw-3.3", 0), 0u) << kept.substr(0, 40);

  // Unset, the wisdom lives in the cache folder, made when missing.
  unsetenv("PICKORA_FFTW_WISDOM");
  setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
  forward(36);
  EXPECT_EQ(read_file_text(dir.file("cache/pickora/fftw.wisdom")).rfind("(fftw-3.3", 0), 0u);
  setenv("PICKORA_FFTW_WISDOM", "none", 1);
#endif
}

}  // namespace
