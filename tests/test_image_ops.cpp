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
#include "process2d_core/ccc.h"
#include "process2d_core/flip.h"
#include "process2d_core/half_fourier_2dh.h"
#include "process2d_core/unique_peak.h"
#include "process2d_mrc/process2d_mrc.h"
#include "process2d_mrcs/process2d_mrcs.h"
#include "process2d_raw/box_ops.h"
#include "process2d_raw/projection.h"
#include "process2d_raw/resample.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

void python_check(const std::string& check, const TempDir& dir) {
  const std::string cmd = "/usr/bin/python3 " + std::string(PICKORA_SOURCE_DIR) + "/tests/python/image_ops_check.py " +
                          check + " " + dir.path();
  std::string output;
  EXPECT_EQ(run_command(cmd, output), 0) << output;
}

std::vector<float> positive_image(size_t n, unsigned seed) {
  std::vector<float> v = random_image(n, seed);
  for (float& x : v) x = 1.5f + x;  // 0.5 .. 2.5
  return v;
}

// Runs a device operator from one host image to another of the given size.
template <class Op>
std::vector<float> on_device(const std::vector<float>& in, size_t out_count, Op op) {
  float* d_in = to_device(in);
  float* d_out = to_device(std::vector<float>(out_count, -99.0f));
  const DeviceFrees frees(d_in, d_out);
  op(d_in, d_out);
  return to_host(d_out, out_count);
}

// ---- Resampling ---------------------------------------------------------------------------------

TEST(Transform, IdentityReturnsTheImageExactlyInEveryDirection) {
  const unsigned nx = 9, ny = 6;
  std::vector<float> a = random_image(nx * ny, 1);
  // A NaN shows any read of a neighbour that a whole position must not make: 0 * NaN is NaN.
  a[2 * nx] = NAN;
  const RT_Mat2D identity{1, 0, 0, 1, 0, 0};
  for (int direction : {-1, 0, 1, 7})
    for (auto transform : {hcuda_2d_transform, hcuda_2d_transform2}) {
      const auto out = on_device(a, nx * ny, [&](const float* s, float* o) {
        transform(s, o, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), identity, direction);
      });
      EXPECT_EQ(std::memcmp(out.data(), a.data(), sizeof(float) * nx * ny), 0) << "direction " << direction;
    }
}

TEST(Transform, MinusOneWithTheInverseRecordEqualsOneWithTheRecord) {
  const unsigned nx = 24, ny = 20;
  const std::vector<float> a = random_image(nx * ny, 2);
  // A general (not orthogonal) record; its inverse worked out here in double.
  const double r11 = 0.9, r12 = -0.3, r21 = 0.4, r22 = 1.1, tx = 1.3, ty = -0.7, d = r11 * r22 - r12 * r21;
  const RT_Mat2D m{(float)r11, (float)r12, (float)r21, (float)r22, (float)tx, (float)ty};
  const RT_Mat2D inv{(float)(r22 / d),
                     (float)(-r12 / d),
                     (float)(-r21 / d),
                     (float)(r11 / d),
                     (float)((r12 * ty - r22 * tx) / d),
                     (float)((r21 * tx - r11 * ty) / d)};
  const float cx = 11.0f, cy = 9.5f;
  auto run = [&](RT_Mat2D rec, int direction, bool second) {
    return on_device(a, nx * ny, [&](const float* s, float* o) {
      (second ? hcuda_2d_transform2 : hcuda_2d_transform)(s, o, nx, ny, cx, cy, rec, direction);
    });
  };
  const auto forward = run(m, 1, false);
  const auto via_inverse = run(inv, -1, false);
  for (unsigned i = 0; i < nx * ny; ++i) ASSERT_NEAR(forward[i], via_inverse[i], 1e-4f) << i;
  EXPECT_EQ(run(m, 1, true), forward);  // the two forms differ only in where they invert
  EXPECT_NE(run(m, -1, false), forward);
}

TEST(Transform, ForwardDirectionMovesThePictureByTheRecord) {
  const unsigned nx = 8, ny = 7;
  std::vector<float> a(nx * ny, 0.0f);
  a[2 * nx + 3] = 5.0f;  // (3, 2)
  const RT_Mat2D shift{1, 0, 0, 1, 2, 1};
  const auto out = on_device(a, nx * ny, [&](const float* s, float* o) {
    hcuda_2d_transform(s, o, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), shift, 1);
  });
  std::vector<float> want(nx * ny, 0.0f);
  want[3 * nx + 5] = 5.0f;  // (5, 3)
  EXPECT_EQ(out, want);
}

TEST(Resample, TurnAboutTheGridCentreIsTheMatchingRotationToTheBit) {
  const unsigned nx = 31, ny = 26;
  const std::vector<float> a = random_image(nx * ny, 3);
  for (float degrees : {0.0f, 17.5f, 90.0f, 233.0f}) {
    const auto any = on_device(a, nx * ny, [&](const float* s, float* o) {
      hcuda_2d_rotate_anycenter(s, o, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), degrees);
    });
    const auto matching =
        on_device(a, nx * ny, [&](const float* s, float* o) { hcuda_2d_rotate(s, o, nx, ny, degrees); });
    ASSERT_EQ(std::memcmp(any.data(), matching.data(), sizeof(float) * nx * ny), 0) << degrees;
  }
}

TEST(Resample, HalfPixelShiftAveragesEachPixelWithItsLeftNeighbour) {
  const unsigned nx = 7, ny = 5;
  const std::vector<float> a = random_image(nx * ny, 4);
  const auto both =
      on_device(a, nx * ny, [&](const float* s, float* o) { hcuda_2d_translate(s, o, nx, ny, 0.5f, 0.0f); });
  const auto in_x = on_device(a, nx * ny, [&](const float* s, float* o) { hcuda_2d_translate_x(s, o, nx, ny, 0.5f); });
  const auto in_y = on_device(a, nx * ny, [&](const float* s, float* o) { hcuda_2d_translate_y(s, o, nx, ny, 0.5f); });
  EXPECT_EQ(in_x, both);
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x) {
      const unsigned i = y * nx + x;
      if (x == 0)
        EXPECT_EQ(both[i], 0.0f);
      else
        EXPECT_NEAR(both[i], 0.5f * (a[i] + a[i - 1]), 1e-6f);
      if (y == 0)
        EXPECT_EQ(in_y[i], 0.0f);
      else
        EXPECT_NEAR(in_y[i], 0.5f * (a[i] + a[i - nx]), 1e-6f);
    }
}

// rotate_translate turns first and shifts afterwards; translate_rotate shifts first. With a
// quarter turn and whole shifts both are exact compositions away from the border.
TEST(Resample, OrderOfTurnAndShift) {
  const unsigned n = 15;
  const std::vector<float> a = random_image(n * n, 5);
  const float tx = 2.0f, ty = -1.0f;
  auto turn = [&](const std::vector<float>& in) {
    return on_device(in, n * n,
                     [&](const float* s, float* o) { hcuda_2d_rotate_anycenter(s, o, n, n, 7.0f, 7.0f, 90.0f); });
  };
  auto shift = [&](const std::vector<float>& in) {
    return on_device(in, n * n, [&](const float* s, float* o) { hcuda_2d_translate(s, o, n, n, tx, ty); });
  };
  const auto rt =
      on_device(a, n * n, [&](const float* s, float* o) { hcuda_2d_rotate_translate(s, o, n, n, 90.0f, tx, ty); });
  const auto tr =
      on_device(a, n * n, [&](const float* s, float* o) { hcuda_2d_translate_rotate(s, o, n, n, tx, ty, 90.0f); });
  const auto shift_of_turn = shift(turn(a)), turn_of_shift = turn(shift(a));
  for (unsigned y = 3; y < n - 3; ++y)
    for (unsigned x = 3; x < n - 3; ++x) {
      ASSERT_NEAR(rt[y * n + x], shift_of_turn[y * n + x], 1e-5f) << x << "," << y;
      ASSERT_NEAR(tr[y * n + x], turn_of_shift[y * n + x], 1e-5f) << x << "," << y;
    }
}

TEST(Resample, RotationCommandsMatchNumpy) {
  TempDir dir;
  const int n = 11;
  std::vector<float> stack = random_image(n * n * 2, 6);
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), stack.data(), n, n, 2);
  mrcf_cuda_2d_rotate(dir.file("in.mrc").c_str(), dir.file("rot90.mrc").c_str(), 90.0f);
  mrcf_cuda_2d_translate_rotate(dir.file("in.mrc").c_str(), dir.file("shift.mrc").c_str(), 0.5f, -1.0f, 0.0f);
  mrcf_cuda_2d_transform(dir.file("in.mrc").c_str(), dir.file("identity.mrc").c_str(), RT_Mat2D{1, 0, 0, 1, 0, 0}, 1);
  python_check("rotation", dir);
}

TEST(ArcAverage, ZeroRangeGivesZeroAndTheSignOfTheRangeDoesNotMatter) {
  const unsigned nx = 21, ny = 17;
  const std::vector<float> a = positive_image(nx * ny, 7);
  auto arc = [&](const std::vector<float>& in, float degrees) {
    return on_device(in, nx * ny, [&](const float* s, float* o) {
      hcuda_2d_rotate_ave_anycenter(s, o, nx, ny, 10.0f, 8.0f, degrees);
    });
  };
  for (float v : arc(a, 0.0f)) ASSERT_EQ(v, 0.0f);
  EXPECT_EQ(arc(a, 25.0f), arc(a, -25.0f));
  // A constant image keeps its value wherever the whole arc lies inside, and radius 1 gives 0.
  const auto flat = arc(std::vector<float>(nx * ny, 3.0f), 25.0f);
  EXPECT_EQ(flat[8 * nx + 10], 0.0f);
  EXPECT_EQ(flat[8 * nx + 11], 0.0f);
  EXPECT_NEAR(flat[8 * nx + 15], 3.0f, 1e-4f);
  EXPECT_NEAR(flat[12 * nx + 13], 3.0f, 1e-4f);
  // On a ramp v = x the bilinear sample is exact, so the arc mean is the mean of cx + dx cos t
  // over the samples t = -A, -A + 1/rho, ... below A.
  std::vector<float> ramp(nx * ny);
  for (unsigned i = 0; i < nx * ny; ++i) ramp[i] = static_cast<float>(i % nx);
  const double A = 25.0 * 3.14159265358979 / 180.0, rho = 5.0;
  double sum = 0.0, count = 0.0;
  for (double t = -A; t < A; t += 1.0 / rho, count += 1.0) sum += 10.0 + rho * std::cos(t);
  EXPECT_NEAR(arc(ramp, 25.0f)[8 * nx + 15], sum / count, 1e-4);
  EXPECT_EXIT_REPORT(arc(a, INFINITY), "arc average must be a finite angle");
}

// ---- Projections -------------------------------------------------------------------------------

TEST(Projection, RectangleSumsMatchNumpyOnBothBackends) {
  TempDir dir;
  const int nx = 23, ny = 19;
  std::vector<float> image = positive_image(nx * ny, 8);
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), image.data(), nx, ny, 1);
  struct Case {
    const char* name;
    int n1, n2;
    float cx, cy, degrees;
    int direction, gid;
  };
  const Case cases[] = {
      {"columns_host", 5, 7, 11, 9, 37, 0, 999},    {"columns_dev", 5, 7, 11, 9, 37, 0, 0},
      {"columns_even", 4, 6, 10.5f, 8.5f, 0, 2, 0}, {"rows", 7, 5, 12, 8, 90, -1, 999},
      {"rows_reversed", 7, 5, 12, 8, 90, 1, 0},
  };
  std::string list;
  for (const Case& c : cases) {
    mrcf_2d_project_local_rect(dir.file(std::string(c.name) + ".mrc").c_str(), dir.file("in.mrc").c_str(), c.n1, c.n2,
                               c.degrees, c.cx, c.cy, c.direction, c.gid);
    list += std::string(c.name) + " " + std::to_string(c.n1) + " " + std::to_string(c.n2) + " " + std::to_string(c.cx) +
            " " + std::to_string(c.cy) + " " + std::to_string(c.degrees) + " " + std::to_string(c.direction) + "\n";
  }
  write_file_text(dir.file("cases.txt"), list);
  python_check("projections", dir);
}

TEST(Projection, ManyAnglesAreRowsOfSingleProjectionsAndSquareIsDirectionOne) {
  const unsigned nx = 17, ny = 12;
  const std::vector<float> image = random_image(nx * ny, 9);
  const std::vector<float> angles = {0.0f, 33.0f, 90.0f, 151.0f};
  const int n = 17, count = 4;
  std::vector<float> many(n * count);
  gpu_2d_project_many(many.data(), angles.data(), count, image.data(), nx, ny, 8.0f, 5.5f, -1);
  for (int k = 0; k < count; ++k) {
    std::vector<float> one(n);
    cpu_2d_project(one.data(), image.data(), nx, ny, 8.0f, 5.5f, angles[k], -1);
    for (int i = 0; i < n; ++i) ASSERT_NEAR(many[k * n + i], one[i], 1e-5f) << k << "," << i;
  }
  const unsigned side = 12;
  const std::vector<float> square(image.begin(), image.begin() + side * side);
  std::vector<float> host(side);
  cpu_2d_project_square(host.data(), square.data(), side, 33.0f);
  const auto dev =
      on_device(square, side, [&](const float* s, float* o) { hcuda_2d_project_square(o, s, side, 33.0f, 1); });
  const auto other =
      on_device(square, side, [&](const float* s, float* o) { hcuda_2d_project_square(o, s, side, 33.0f, -1); });
  for (unsigned i = 0; i < side; ++i) EXPECT_NEAR(dev[i], host[i], 1e-5f);
  EXPECT_NE(other, dev);
}

// ---- Box statistics, logarithm, hot pixels ------------------------------------------------------

TEST(BoxStd, ThreeIsATwoByTwoBoxAndAConstantImageHasNoDeviation) {
  const unsigned nx = 6, ny = 5;
  const std::vector<float> a = random_image(nx * ny, 10);
  const auto out = on_device(a, nx * ny, [&](const float* s, float* o) { hcuda_2d_std_by_box(s, o, nx, ny, 3, 3); });
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x) {
      std::vector<double> box;  // the 2 x 2 box reaching back, clipped at the top and left edges
      for (unsigned j = y > 0 ? y - 1 : 0; j <= y; ++j)
        for (unsigned i = x > 0 ? x - 1 : 0; i <= x; ++i) box.push_back(a[j * nx + i]);
      double m = 0.0, ss = 0.0;
      for (double v : box) m += v / box.size();
      for (double v : box) ss += (v - m) * (v - m);
      EXPECT_NEAR(out[y * nx + x], std::sqrt(ss) / box.size(), 1e-6) << x << "," << y;
    }
  const auto flat = on_device(std::vector<float>(nx * ny, 2.75f), nx * ny,
                              [&](const float* s, float* o) { hcuda_2d_std_by_box(s, o, nx, ny, 4, 5); });
  for (float v : flat) EXPECT_EQ(v, 0.0f);
  EXPECT_EXIT_REPORT(on_device(a, nx * ny, [&](const float* s, float* o) { hcuda_2d_std_by_box(s, o, nx, ny, 1, 3); }),
                     "A box of 1 x 3 pixels holds no pixel");
}

TEST(LogSubBg, LogarithmLessItsBoxMean) {
  const unsigned nx = 9, ny = 7;
  const std::vector<float> a = positive_image(nx * ny, 11);
  const auto out = on_device(a, nx * ny, [&](const float* s, float* o) {
    cudaMemcpy(o, s, sizeof(float) * nx * ny, cudaMemcpyDeviceToDevice);
    hcuda_2d_log_subbg_boxconv_inplace(o, nx, ny, 4);
  });
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nx; ++x) {
      double sum = 0.0;
      int count = 0;
      for (unsigned j = y >= 2 ? y - 2 : 0; j < std::min(ny, y + 2); ++j)
        for (unsigned i = x >= 2 ? x - 2 : 0; i < std::min(nx, x + 2); ++i, ++count) sum += std::log(a[j * nx + i]);
      EXPECT_NEAR(out[y * nx + x], std::log(a[y * nx + x]) - sum / count, 2e-6) << x << "," << y;
    }
  std::vector<float> bad = a;
  bad[17] = 0.0f;
  EXPECT_EXIT_REPORT(
      on_device(bad, nx * ny, [&](float* s, float*) { hcuda_2d_log_subbg_boxconv_inplace(s, nx, ny, 4); }),
      "1 of 63 pixels are not positive");
}

TEST(HotPixels, CornerKeepsFiveTwelfthsAndAConstantImageIsLeftAlone) {
  const unsigned nx = 5, ny = 4;
  std::vector<float> a(nx * ny, 1.0f);
  const float v = 40.0f, ra = 2.0f, cb = 3.0f, dc = 5.0f;
  a[0] = v;
  a[1] = ra;       // row neighbour
  a[nx] = cb;      // column neighbour
  a[nx + 1] = dc;  // diagonal neighbour
  std::vector<float> stack = a;
  hcuda_2ds_rm_hotpixels_inplace(stack.data(), nx, ny, 1, 3.0f);
  EXPECT_NEAR(stack[0], (3 * ra + 3 * cb + dc + 5 * v) / 12.0f, 1e-5f);
  for (unsigned i = 1; i < nx * ny; ++i) EXPECT_EQ(stack[i], a[i]) << i;
  std::vector<float> flat(nx * ny * 2, 7.0f);
  hcuda_2ds_rm_hotpixels_inplace(flat.data(), nx, ny, 2, 0.0f);
  for (float x : flat) EXPECT_EQ(x, 7.0f);
  // Mean 0 and deviation 1 exactly: a pixel exactly sigma * factor away is not an outlier.
  std::vector<float> stripes(4 * 4);
  for (unsigned i = 0; i < stripes.size(); ++i) stripes[i] = (i / 4) % 2 ? 1.0f : -1.0f;
  std::vector<float> kept = stripes;
  hcuda_2ds_rm_hotpixels_inplace(kept.data(), 4, 4, 1, 1.0f);
  EXPECT_EQ(kept, stripes);
}

TEST(HotPixels, StackCommandMatchesNumpyWithNeighbouringHotPixels) {
  TempDir dir;
  const int nx = 12, ny = 10, nz = 2;
  std::vector<float> s = random_image(nx * ny * nz, 12);
  for (float& x : s) x = 0.5f + 0.5f * x;
  s[0] = 50.0f;           // a corner
  s[5 * nx + 5] = 40.0f;  // two direct neighbours, each in the other's sum
  s[5 * nx + 6] = 45.0f;
  s[nx * ny + 4 * nx + 11] = -60.0f;  // a cold pixel on the right edge of slice 1
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), s.data(), nx, ny, nz);
  mrcsf_2ds_rm_hotpixels(dir.file("in.mrc").c_str(), dir.file("hot.mrc").c_str(), 3.0f);
  python_check("hotpixels", dir);
}

// ---- Flips -------------------------------------------------------------------------------------

TEST(Flip, SevenModesAndTheSwapsMatchNumpy) {
  TempDir dir;
  const int nx = 5, ny = 4, nz = 3;
  std::vector<float> s = random_image(nx * ny * nz, 13);
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), s.data(), nx, ny, nz);
  for (int mode = 0; mode <= 7; ++mode)
    mrcf_cuda_2ds_flip(dir.file("in.mrc").c_str(), dir.file("flip" + std::to_string(mode) + ".mrc").c_str(), mode);
  mrcf_cuda_2ds_swap_xy(dir.file("in.mrc").c_str(), dir.file("swap2ds.mrc").c_str());
  mrcf_cuda_2d_swap_xy(dir.file("in.mrc").c_str(), dir.file("swap2d.mrc").c_str());
  python_check("flips", dir);
  for (int mode : {8, -1})
    EXPECT_EXIT_REPORT(mrcf_cuda_2ds_flip(dir.file("in.mrc").c_str(), dir.file("bad.mrc").c_str(), mode),
                       "flip_mode must be an integer in \\{0,1,3,4,5,6,7\\}! Exit now!");
}

TEST(Flip, SingleImageFormsAreTheirModesAndSwapStaysInside) {
  const unsigned nx = 6, ny = 4, n = nx * ny;
  const std::vector<float> a = random_image(n, 14);
  auto mode = [&](int m) {
    return on_device(a, n, [&](const float* s, float* o) { hcuda_2ds_flip(o, s, nx, ny, 1, m); });
  };
  EXPECT_EQ(on_device(a, n, [&](const float* s, float* o) { hcuda_2d_flipx(o, s, nx, ny); }), mode(1));
  EXPECT_EQ(on_device(a, n, [&](const float* s, float* o) { hcuda_2d_flipy(o, s, nx, ny); }), mode(2));
  EXPECT_EQ(on_device(a, n, [&](const float* s, float* o) { hcuda_2d_flipxy(o, s, nx, ny); }), mode(4));
  // One element beyond the image must keep its guard value.
  const auto swapped = on_device(a, n + 1, [&](const float* s, float* o) { hcuda_2d_swap_xy(s, o, nx, ny); });
  EXPECT_EQ(swapped[n], -99.0f);
  EXPECT_EQ(std::vector<float>(swapped.begin(), swapped.begin() + n), mode(5));
}

// ---- Peaks, spectra, correlation ---------------------------------------------------------------

TEST(UniquePeak, FirstOfTheHighestWins) {
  int x = -1, y = -1;
  float value = 0.0f;
  const std::vector<float> flat(12, 4.0f);
  cpu_2d_get_unique_peak(flat.data(), 4, 3, x, y, value);
  EXPECT_EQ((std::vector<float>{float(x), float(y), value}), (std::vector<float>{0, 0, 4}));
  std::vector<float> stack = {NAN, 1, 2, 9, 0, 9,   // slice 0: NaN first, the first 9 at (3, 0)
                              0,   0, 0, 0, 5, 1};  // slice 1: 5 at (1, 1)
  Pixel peaks[2];
  cpu_2ds_get_unique_peak(stack.data(), 4, 3, peaks, 1);
  cpu_2ds_get_unique_peak(stack.data() + 6, 3, 2, peaks + 1, 1);
  EXPECT_EQ((std::vector<float>{float(peaks[0].x), float(peaks[0].y), peaks[0].value, float(peaks[1].x),
                                float(peaks[1].y)}),
            (std::vector<float>{3, 0, 9, 1, 1}));
}

TEST(HalfSpectrum, AverageAndLowFrequencyFiltersMatchNumpy) {
  TempDir dir;
  const int nxh = 9, ny = 16;
  const std::vector<float> a = positive_image(nxh * ny, 15);
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), a.data(), nxh, ny, 1);
  std::vector<float> average(nxh + 1, -5.0f);
  rotational_average_2dh(a.data(), average.data(), nxh, ny);
  EXPECT_EQ(average[nxh], -5.0f);  // nothing past the nxh bins
  mrcf_write_xyz_data(dir.file("average.mrc").c_str(), average.data(), nxh, 1, 1);
  std::vector<float> zero = a, host = a;
  cpu_2dh_zero_low_frequency_inplace(zero.data(), nxh, ny, 1.0f, 4.0f);
  cpu_2dh_smooth_low_frequency_inplace(host.data(), nxh, ny, 1.0f, 4.0f);
  const auto device = on_device(a, a.size(), [&](const float* s, float* o) {
    cudaMemcpy(o, s, sizeof(float) * a.size(), cudaMemcpyDeviceToDevice);
    hcuda_2dh_smooth_low_frequency_inplace(o, nxh, ny, 1.0f, 4.0f);
  });
  mrcf_write_xyz_data(dir.file("zero.mrc").c_str(), zero.data(), nxh, ny, 1);
  mrcf_write_xyz_data(dir.file("smooth_host.mrc").c_str(), host.data(), nxh, ny, 1);
  mrcf_write_xyz_data(dir.file("smooth_device.mrc").c_str(), device.data(), nxh, ny, 1);
  python_check("spectra", dir);
  EXPECT_EXIT_REPORT(cpu_2dh_zero_low_frequency_inplace(zero.data(), nxh, ny, 1.0f, 0.0f), "must both be positive");
}

// Pearson's coefficient over the places where `mask` is set, in double.
double pearson(const std::vector<float>& a, const std::vector<float>& b, const std::vector<float>& mask) {
  double n = 0, ma = 0, mb = 0;
  for (size_t i = 0; i < a.size(); ++i)
    if (mask[i] != 0) n += 1, ma += a[i], mb += b[i];
  ma /= n;
  mb /= n;
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < a.size(); ++i)
    if (mask[i] != 0) {
      ab += (a[i] - ma) * (b[i] - mb);
      aa += (a[i] - ma) * (a[i] - ma);
      bb += (b[i] - mb) * (b[i] - mb);
    }
  return ab / std::sqrt(aa * bb);
}

TEST(Correlation, PlainAndNormalisedAgreeWithDoublePrecision) {
  const unsigned nx = 33, ny = 21, n = nx * ny;
  const std::vector<float> a = random_image(n, 16);
  std::vector<float> b = random_image(n, 17);
  for (unsigned i = 0; i < n; ++i) b[i] = 0.6f * a[i] + 0.4f * b[i] + 3.0f;
  double dot = 0.0;
  for (unsigned i = 0; i < n; ++i) dot += static_cast<double>(a[i]) * b[i];
  EXPECT_NEAR(gpu_x2d_ccc(a.data(), b.data(), nx, ny), dot, 1e-5 * std::fabs(dot));
  const std::vector<float> all(n, 1.0f);
  EXPECT_NEAR(gpu_x2d_norm_ccc(a.data(), b.data(), nx, ny), pearson(a, b, all), 1e-5);
  EXPECT_EQ(gpu_x2d_norm_ccc(a.data(), a.data(), nx, ny), 1.0f);
  const std::vector<float> flat(n, 2.0f);
  EXPECT_EQ(gpu_x2d_norm_ccc(a.data(), flat.data(), nx, ny), 0.0f);
}

TEST(Correlation, MaskedFormsArePearsonOverTheMask) {
  const unsigned nx = 16, ny = 12, n = nx * ny;
  const std::vector<float> a = random_image(n, 18), noise = random_image(n, 19);
  std::vector<float> b(n), mask_a(n), mask_b(n), both(n);
  for (unsigned i = 0; i < n; ++i) {
    b[i] = a[i] + 0.8f * noise[i];
    mask_a[i] = (i % nx) < 11 ? 1.0f : 0.0f;
    mask_b[i] = (i / nx) > 2 ? 1.0f : 0.0f;
    both[i] = mask_a[i] * mask_b[i];
  }
  const double want = pearson(a, b, both);
  EXPECT_NEAR(cpu_x2d_ccc_withmask(a.data(), b.data(), both.data(), nx, ny), want, 1e-5);
  EXPECT_NEAR(cpu_x2d_ccc_with2maskfs(a.data(), b.data(), mask_a.data(), mask_b.data(), nx, ny), want, 1e-5);
  EXPECT_NEAR(cpu_x2d_ccc_with2maskfs2(a.data(), b.data(), mask_a.data(), mask_b.data(), nx, ny), want, 1e-5);
  std::vector<float> ca = a, cb = b;
  EXPECT_NEAR(cpu_x2d_ccc_withmask_inplace(ca.data(), cb.data(), both.data(), nx, ny), want, 1e-5);
  EXPECT_EQ(ca[n - 1], 0.0f);  // left normalised, with the mask applied
}

// ---- Failures of the file commands --------------------------------------------------------------

TEST(ImageCommands, OpenFailuresEndTheRunWithoutWaiting) {
  TempDir dir;
  const std::string missing = dir.file("missing.mrc");
  EXPECT_EXIT_REPORT(mrcf_cuda_2d_rotate(missing.c_str(), dir.file("o.mrc").c_str(), 5.0f),
                     "Cannot open file strike any key exit!\n.*open file '.*missing.mrc' failed");
  std::vector<float> image(16, 1.0f);
  mrcf_write_xyz_data(dir.file("in.mrc").c_str(), image.data(), 4, 4, 1);
  EXPECT_EXIT_REPORT(
      mrcf_cuda_2d_translate_rotate(dir.file("in.mrc").c_str(), dir.file("no/such/o.mrc").c_str(), 1, 1, 0),
      "Cannot open file strike any key exit!\n.*open file '.*no/such/o.mrc' failed");
  EXPECT_EXIT_REPORT(mrcf_cuda_2d_transform(missing.c_str(), dir.file("o.mrc").c_str(), RT_Mat2D{1, 0, 0, 1, 0, 0}, 1),
                     "Cannot open file .*missing.mrc. Permission denied or wrong file name.");
  EXPECT_EXIT_REPORT(
      mrcf_2d_project_local_rect(dir.file("o.mrc").c_str(), dir.file("in.mrc").c_str(), 3, 3, 0, 1, 1, 0, 77),
      "GPU device problem");
}

}  // namespace
