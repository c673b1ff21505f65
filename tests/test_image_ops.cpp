// The two-dimensional image operators, checked against numpy through their MRC files where numpy
// is the independent reference, and against exact properties of the geometry elsewhere.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/matching.h"
#include "process2d_core/half_fourier_2dh.h"
#include "process2d_mrc/process2d_mrc.h"
#include "process2d_mrcs/process2d_mrcs.h"
#include "process2d_raw/box_ops.h"
#include "process2d_raw/resample.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

void python_check(const std::string& check, const TempDir& dir) {
  std::string output, script = std::string(PICKORA_SOURCE_DIR) + "/tests/python/image_ops_check.py ";
  EXPECT_EQ(run_command("/usr/bin/python3 " + script + check + " " + dir.path(), output), 0) << output;
}

std::vector<float> positive_image(size_t n, unsigned seed) {
  std::vector<float> v = random_image(n, seed);
  for (float& x : v) x = 1.5f + x;  // 0.5 .. 2.5
  return v;
}

// The device operator f(src, out, rest...) on a host image, with an output of the input's size.
template <class F, class... A>
std::vector<float> dev(const std::vector<float>& in, F f, A... rest) {
  float *d_in = to_device(in), *d_out = to_device(std::vector<float>(in.size(), -99.0f));
  const DeviceFrees frees(d_in, d_out);
  f(d_in, d_out, rest...);
  return to_host(d_out, in.size());
}

// The same for an operator f(image, rest...) that works in place.
template <class F, class... A>
std::vector<float> dev_in_place(const std::vector<float>& in, F f, A... rest) {
  float* d = to_device(in);
  const DeviceFrees frees(d);
  f(d, rest...);
  return to_host(d, in.size());
}

TEST(Resample, TurnAboutTheGridCentreIsTheMatchingRotationToTheBit) {
  const unsigned nx = 31, ny = 26;
  const std::vector<float> a = random_image(nx * ny, 3);
  for (float degrees : {0.0f, 17.5f, 90.0f, 233.0f}) {
    const auto any = dev(a, hcuda_2d_rotate_anycenter, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), degrees);
    const auto same = dev(a, hcuda_2d_rotate, nx, ny, degrees);
    ASSERT_EQ(std::memcmp(any.data(), same.data(), sizeof(float) * nx * ny), 0) << degrees;
  }
}

TEST(Resample, RotationCommandMatchesNumpy) {
  TempDir dir;
  const std::vector<float> stack = random_image(11 * 11 * 2, 6);
  const std::string in = dir.file("in.mrc");
  mrcf_write_xyz_data(in.c_str(), stack.data(), 11, 11, 2);
  mrcf_cuda_2d_rotate(in.c_str(), dir.file("rot90.mrc").c_str(), 90.0f);
  python_check("rotation", dir);
}

// The replacement value itself is checked against numpy below; here, what is left alone: a
// constant image, and a pixel exactly sigma * factor from the mean (not an outlier).
TEST(HotPixels, ConstantImageAndThePixelAtTheThresholdAreLeftAlone) {
  std::vector<float> flat(5 * 4 * 2, 7.0f), stripes(4 * 4);
  hcuda_2ds_rm_hotpixels_inplace(flat.data(), 5, 4, 2, 0.0f);
  EXPECT_EQ(flat, std::vector<float>(5 * 4 * 2, 7.0f));
  for (unsigned i = 0; i < stripes.size(); ++i) stripes[i] = (i / 4) % 2 ? 1.0f : -1.0f;  // mean 0, deviation 1
  std::vector<float> kept = stripes;
  hcuda_2ds_rm_hotpixels_inplace(kept.data(), 4, 4, 1, 1.0f);
  EXPECT_EQ(kept, stripes);
}

TEST(HotPixels, StackCommandMatchesNumpyWithNeighbouringHotPixels) {
  TempDir dir;
  const int nx = 12, ny = 10, nz = 2;
  std::vector<float> s = random_image(nx * ny * nz, 12);
  for (float& x : s) x = 0.5f + 0.5f * x;
  s[0] = 50.0f;           // a corner, whose missing neighbours repeat the edge
  s[5 * nx + 5] = 40.0f;  // two direct neighbours, each in the other's sum
  s[5 * nx + 6] = 45.0f;
  s[nx * ny + 4 * nx + 11] = -60.0f;  // a cold pixel on the right edge of slice 1
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), s.data(), nx, ny, nz);
  mrcsf_2ds_rm_hotpixels(dir.file("in.mrc").c_str(), dir.file("hot.mrc").c_str(), 3.0f);
  python_check("hotpixels", dir);
}

TEST(Flip, EightModesMatchNumpy) {
  TempDir dir;
  const std::vector<float> s = random_image(5 * 4 * 3, 13);
  const std::string in = dir.file("in.mrc");
  mrcf_write_xyz_data(in.c_str(), s.data(), 5, 4, 3);
  for (int mode = 0; mode <= 7; ++mode)
    mrcf_cuda_2ds_flip(in.c_str(), dir.file("flip" + std::to_string(mode) + ".mrc").c_str(), mode);
  python_check("flips", dir);
  for (int mode : {8, -1})
    EXPECT_EXIT_REPORT(mrcf_cuda_2ds_flip(in.c_str(), dir.file("bad.mrc").c_str(), mode),
                       "flip_mode must be an integer in \\{0,1,3,4,5,6,7\\}! Exit now!");
}

TEST(HalfSpectrum, AverageAndLowFrequencyDampingMatchNumpy) {
  TempDir dir;
  const int nxh = 9, ny = 16;
  const std::vector<float> a = positive_image(nxh * ny, 15);
  auto write = [&](const char* name, const std::vector<float>& v, int nx, int rows) {
    mrcf_write_xyz_data(dir.file(name).c_str(), v.data(), nx, rows, 1);
  };
  std::vector<float> average(nxh + 1, -5.0f), host = a;
  rotational_average_2dh(a.data(), average.data(), nxh, ny);
  EXPECT_EQ(average[nxh], -5.0f);  // nothing past the nxh bins
  cpu_2dh_smooth_low_frequency_inplace(host.data(), nxh, ny, 1.0f, 4.0f);
  write("in.mrc", a, nxh, ny);
  write("average.mrc", average, nxh, 1);
  write("smooth_host.mrc", host, nxh, ny);
  write("smooth_device.mrc", dev_in_place(a, hcuda_2dh_smooth_low_frequency_inplace, nxh, ny, 1.0f, 4.0f), nxh, ny);
  python_check("spectra", dir);
  EXPECT_EXIT_REPORT(cpu_2dh_smooth_low_frequency_inplace(host.data(), nxh, ny, 1.0f, 0.0f), "must both be positive");
}

TEST(ImageCommands, AnOpenFailureEndsTheRunWithoutWaiting) {
  TempDir dir;
  EXPECT_EXIT_REPORT(mrcf_cuda_2d_rotate(dir.file("missing.mrc").c_str(), dir.file("o.mrc").c_str(), 5.0f),
                     "Cannot open file strike any key exit!\n.*open file '.*missing.mrc' failed");
}

}  // namespace
