// The two-dimensional image operators, checked against numpy through their MRC files where numpy
// is the independent reference, and against exact properties of the geometry elsewhere.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <sstream>
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

// Runs a device operator from one host image to another of the given size.
template <class Op>
std::vector<float> on_device(const std::vector<float>& in, size_t out_count, Op op) {
  float *d_in = to_device(in), *d_out = to_device(std::vector<float>(out_count, -99.0f));
  const DeviceFrees frees(d_in, d_out);
  op(d_in, d_out);
  return to_host(d_out, out_count);
}

// The device operator f(src, out, rest...) on a host image, with an output of the input's size.
template <class F, class... A>
std::vector<float> dev(const std::vector<float>& in, F f, A... rest) {
  return on_device(in, in.size(), [&](const float* s, float* o) { f(s, o, rest...); });
}

// The same for an operator f(image, rest...) that works in place.
template <class F, class... A>
std::vector<float> dev_in_place(const std::vector<float>& in, F f, A... rest) {
  float* d = to_device(in);
  const DeviceFrees frees(d);
  f(d, rest...);
  return to_host(d, in.size());
}

TEST(Transform, IdentityReturnsTheImageExactlyInEveryDirection) {
  const unsigned nx = 9, ny = 6;
  std::vector<float> a = random_image(nx * ny, 1);
  // A NaN shows any read of a neighbour that a whole position must not make: 0 * NaN is NaN.
  a[2 * nx] = NAN;
  for (int direction : {-1, 0, 1, 7})
    for (auto transform : {hcuda_2d_transform, hcuda_2d_transform2}) {
      const auto out =
          dev(a, transform, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), RT_Mat2D{1, 0, 0, 1, 0, 0}, direction);
      EXPECT_EQ(std::memcmp(out.data(), a.data(), sizeof(float) * nx * ny), 0) << "direction " << direction;
    }
}

TEST(Transform, MinusOneWithTheInverseRecordEqualsOneWithTheRecord) {
  const unsigned nx = 24, ny = 20;
  const std::vector<float> a = random_image(nx * ny, 2);
  // A general (not orthogonal) record; its inverse worked out here in double.
  const double r[6] = {0.9, -0.3, 0.4, 1.1, 1.3, -0.7}, d = r[0] * r[3] - r[1] * r[2];
  const RT_Mat2D m{(float)r[0], (float)r[1], (float)r[2], (float)r[3], (float)r[4], (float)r[5]};
  const RT_Mat2D inv{(float)(r[3] / d),
                     (float)(-r[1] / d),
                     (float)(-r[2] / d),
                     (float)(r[0] / d),
                     (float)((r[1] * r[5] - r[3] * r[4]) / d),
                     (float)((r[2] * r[4] - r[0] * r[5]) / d)};
  const auto forward = dev(a, hcuda_2d_transform, nx, ny, 11.0f, 9.5f, m, 1);
  const auto via_inverse = dev(a, hcuda_2d_transform, nx, ny, 11.0f, 9.5f, inv, -1);
  for (unsigned i = 0; i < nx * ny; ++i) ASSERT_NEAR(forward[i], via_inverse[i], 1e-4f) << i;
  // The two forms differ only in where they invert.
  EXPECT_EQ(dev(a, hcuda_2d_transform2, nx, ny, 11.0f, 9.5f, m, 1), forward);
  EXPECT_NE(dev(a, hcuda_2d_transform, nx, ny, 11.0f, 9.5f, m, -1), forward);
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

TEST(Resample, HalfPixelShiftAveragesEachPixelWithItsLeftNeighbour) {
  const unsigned nx = 7, ny = 5;
  const std::vector<float> a = random_image(nx * ny, 4);
  const auto both = dev(a, hcuda_2d_translate, nx, ny, 0.5f, 0.0f), in_y = dev(a, hcuda_2d_translate_y, nx, ny, 0.5f);
  EXPECT_EQ(dev(a, hcuda_2d_translate_x, nx, ny, 0.5f), both);
  for (unsigned i = 0; i < nx * ny; ++i) {  // zero where the neighbour lies outside
    EXPECT_NEAR(both[i], i % nx ? 0.5f * (a[i] + a[i - 1]) : 0.0f, 1e-6f) << i;
    EXPECT_NEAR(in_y[i], i >= nx ? 0.5f * (a[i] + a[i - nx]) : 0.0f, 1e-6f) << i;
  }
}

// rotate_translate turns first and shifts afterwards; translate_rotate shifts first. With a
// quarter turn and whole shifts both are exact compositions away from the border.
TEST(Resample, OrderOfTurnAndShift) {
  const unsigned n = 15;
  const std::vector<float> a = random_image(n * n, 5);
  auto turn = [&](const std::vector<float>& in) { return dev(in, hcuda_2d_rotate_anycenter, n, n, 7.0f, 7.0f, 90.0f); };
  auto shift = [&](const std::vector<float>& in) { return dev(in, hcuda_2d_translate, n, n, 2.0f, -1.0f); };
  const auto rt = dev(a, hcuda_2d_rotate_translate, n, n, 90.0f, 2.0f, -1.0f), shift_of_turn = shift(turn(a));
  const auto tr = dev(a, hcuda_2d_translate_rotate, n, n, 2.0f, -1.0f, 90.0f), turn_of_shift = turn(shift(a));
  for (unsigned y = 3; y < n - 3; ++y)
    for (unsigned x = 3; x < n - 3; ++x) {
      ASSERT_NEAR(rt[y * n + x], shift_of_turn[y * n + x], 1e-5f) << x << "," << y;
      ASSERT_NEAR(tr[y * n + x], turn_of_shift[y * n + x], 1e-5f) << x << "," << y;
    }
}

TEST(Resample, RotationCommandsMatchNumpy) {
  TempDir dir;
  const std::vector<float> stack = random_image(11 * 11 * 2, 6);
  const std::string in = dir.file("in.mrc");
  mrcf_write_xyz_data(in.c_str(), stack.data(), 11, 11, 2);
  mrcf_cuda_2d_rotate(in.c_str(), dir.file("rot90.mrc").c_str(), 90.0f);
  mrcf_cuda_2d_translate_rotate(in.c_str(), dir.file("shift.mrc").c_str(), 0.5f, -1.0f, 0.0f);
  mrcf_cuda_2d_transform(in.c_str(), dir.file("moved.mrc").c_str(), RT_Mat2D{1, 0, 0, 1, 2, 1}, 1);
  python_check("rotation", dir);
}

TEST(Projection, RectangleSumsMatchNumpyOnBothBackends) {
  TempDir dir;
  const std::vector<float> image = positive_image(23 * 19, 8);
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), image.data(), 23, 19, 1);
  // name n1 n2 cx cy degrees direction gid: the host (999) and device (0) forms; numpy reads the same lines.
  const std::string cases =
      "columns_host 5 7 11 9 37 0 999\ncolumns_dev 5 7 11 9 37 0 0\ncolumns_even 4 6 10.5 8.5 0 2 0\n"
      "rows 7 5 12 8 90 -1 999\nrows_reversed 7 5 12 8 90 1 0\n";
  write_file_text(dir.file("cases.txt"), cases);
  std::istringstream lines(cases);
  std::string name;
  int n1, n2, direction, gid;
  float cx, cy, degrees;
  while (lines >> name >> n1 >> n2 >> cx >> cy >> degrees >> direction >> gid)
    mrcf_2d_project_local_rect(dir.file(name + ".mrc").c_str(), dir.file("in.mrc").c_str(), n1, n2, degrees, cx, cy,
                               direction, gid);
  python_check("projections", dir);
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

TEST(Flip, SevenModesAndTheSwapsMatchNumpy) {
  TempDir dir;
  const std::vector<float> s = random_image(5 * 4 * 3, 13);
  const std::string in = dir.file("in.mrc");
  mrcf_write_xyz_data(in.c_str(), s.data(), 5, 4, 3);
  for (int mode = 0; mode <= 7; ++mode)
    mrcf_cuda_2ds_flip(in.c_str(), dir.file("flip" + std::to_string(mode) + ".mrc").c_str(), mode);
  mrcf_cuda_2ds_swap_xy(in.c_str(), dir.file("swap2ds.mrc").c_str());
  mrcf_cuda_2d_swap_xy(in.c_str(), dir.file("swap2d.mrc").c_str());
  python_check("flips", dir);
  for (int mode : {8, -1})
    EXPECT_EXIT_REPORT(mrcf_cuda_2ds_flip(in.c_str(), dir.file("bad.mrc").c_str(), mode),
                       "flip_mode must be an integer in \\{0,1,3,4,5,6,7\\}! Exit now!");
}

TEST(HalfSpectrum, AverageAndLowFrequencyFiltersMatchNumpy) {
  TempDir dir;
  const int nxh = 9, ny = 16;
  const std::vector<float> a = positive_image(nxh * ny, 15);
  auto write = [&](const char* name, const std::vector<float>& v, int nx, int rows) {
    mrcf_write_xyz_data(dir.file(name).c_str(), v.data(), nx, rows, 1);
  };
  std::vector<float> average(nxh + 1, -5.0f), zero = a, host = a;
  rotational_average_2dh(a.data(), average.data(), nxh, ny);
  EXPECT_EQ(average[nxh], -5.0f);  // nothing past the nxh bins
  cpu_2dh_zero_low_frequency_inplace(zero.data(), nxh, ny, 1.0f, 4.0f);
  cpu_2dh_smooth_low_frequency_inplace(host.data(), nxh, ny, 1.0f, 4.0f);
  write("in.mrc", a, nxh, ny);
  write("average.mrc", average, nxh, 1);
  write("zero.mrc", zero, nxh, ny);
  write("smooth_host.mrc", host, nxh, ny);
  write("smooth_device.mrc", dev_in_place(a, hcuda_2dh_smooth_low_frequency_inplace, nxh, ny, 1.0f, 4.0f), nxh, ny);
  python_check("spectra", dir);
  EXPECT_EXIT_REPORT(cpu_2dh_zero_low_frequency_inplace(zero.data(), nxh, ny, 1.0f, 0.0f), "must both be positive");
}

TEST(ImageCommands, OpenFailuresEndTheRunWithoutWaiting) {
  TempDir dir;
  const std::string missing = dir.file("missing.mrc"), in = dir.file("in.mrc"), out = dir.file("o.mrc");
  const std::vector<float> image(16, 1.0f);
  mrcf_write_xyz_data(in.c_str(), image.data(), 4, 4, 1);
  EXPECT_EXIT_REPORT(mrcf_cuda_2d_rotate(missing.c_str(), out.c_str(), 5.0f),
                     "Cannot open file strike any key exit!\n.*open file '.*missing.mrc' failed");
  EXPECT_EXIT_REPORT(mrcf_cuda_2d_translate_rotate(in.c_str(), dir.file("no/such/o.mrc").c_str(), 1, 1, 0),
                     "Cannot open file strike any key exit!\n.*open file '.*no/such/o.mrc' failed");
  EXPECT_EXIT_REPORT(mrcf_cuda_2d_transform(missing.c_str(), out.c_str(), RT_Mat2D{1, 0, 0, 1, 0, 0}, 1),
                     "Cannot open file .*missing.mrc. Permission denied or wrong file name.");
  EXPECT_EXIT_REPORT(mrcf_2d_project_local_rect(out.c_str(), in.c_str(), 3, 3, 0, 1, 1, 0, 77), "GPU device problem");
}

}  // namespace
