// Shrinking micrographs to the even square work image, its mirrored extension, and the plain
// block means.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "pickora56/work_image.h"
#include "process2d_raw/meanshrink.h"
#include "support/exit_report.h"

namespace {

// Values over many orders of magnitude and both signs, so that float sums of one block depend
// on the order in which they are taken.
std::vector<float> wide_range_image(int nx, int ny, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
  std::uniform_int_distribution<int> expo(-4, 8);
  std::vector<float> a(static_cast<size_t>(nx) * ny);
  for (float& v : a) v = mant(gen) * std::pow(10.0f, static_cast<float>(expo(gen)));
  return a;
}

// The visiting order of the block's pixels, spelled out: snake for 2, 3, 4, rows otherwise.
std::vector<std::pair<int, int>> block_order(int s, bool snake) {
  std::vector<std::pair<int, int>> order;
  for (int j = 0; j < s; ++j)
    for (int k = 0; k < s; ++k) order.push_back({snake && j % 2 == 1 ? s - 1 - k : k, j});
  return order;
}

float reference_block(const std::vector<float>& a, int nx, int X, int Y, int s, bool snake) {
  if (s == 1) return a[static_cast<size_t>(Y) * nx + X];
  float sum = 0.0f;
  for (auto [i, j] : block_order(s, snake)) sum += a[static_cast<size_t>(Y * s + j) * nx + X * s + i];
  if (s == 2) return sum * 0.25f;
  if (s == 3) return sum / 9.0f;
  if (s == 4) return sum * 0.0625f;
  return sum / static_cast<float>(s * s);
}

std::vector<float> work_image(const std::vector<float>& raw, int nx, int ny, int s, int work_size) {
  std::vector<float> out(static_cast<size_t>(work_size) * work_size, -12345.0f);
  cpu_2d_meanshrink_extended_even_square(out.data(), raw.data(), nx, ny, s);
  return out;
}

TEST(EvenSquareShrink, RealAreaFollowsTheSummationOrderOfEachFactor) {
  const int nx = 97, ny = 90;  // shrunk sides differ for most factors, so the mirror runs too
  const std::vector<float> raw = wide_range_image(nx, ny, 7);
  for (int s : {1, 2, 3, 4, 5, 6, 8}) {
    SCOPED_TRACE("s = " + std::to_string(s));
    const int sx = nx / (2 * s) * 2, sy = ny / (2 * s) * 2, ws = std::max(sx, sy);
    const std::vector<float> out = work_image(raw, nx, ny, s, ws);
    const bool snake = s >= 2 && s <= 4;
    int order_matters = 0;
    for (int Y = 0; Y < sy; ++Y)
      for (int X = 0; X < sx; ++X) {
        const float want = reference_block(raw, nx, X, Y, s, snake);
        ASSERT_EQ(out[static_cast<size_t>(Y) * ws + X], want) << "pixel " << X << ", " << Y;
        order_matters += want != reference_block(raw, nx, X, Y, s, !snake);
      }
    EXPECT_TRUE(!snake || order_matters > 0) << "the data can't tell the snake from row order";
  }
  // Summed top left, top right, bottom right, bottom left, the big values cancel only after
  // both ones were absorbed.
  std::vector<float> four(16, 0.0f);
  four[0] = 1e8f, four[1] = 1.0f, four[4] = -1e8f, four[5] = 1.0f;
  EXPECT_EQ(work_image(four, 4, 4, 2, 2)[0], 0.0f);
}

TEST(EvenSquareShrink, WideAndTallMicrographsMirrorIntoTheGap) {
  struct Case {
    int nx, ny, s;
  };
  // 70 x 78 at s = 4 has the shape of 3710 x 3838 (926 x 958): columns past the real area
  // mirror back from the axis; 10 x 9 and 10 x 19 at s = 1 drop an odd row or column first.
  for (Case c : {Case{70, 78, 4}, Case{78, 70, 4}, Case{10, 9, 1}, Case{10, 19, 1}, Case{9, 10, 1}}) {
    SCOPED_TRACE(std::to_string(c.nx) + " x " + std::to_string(c.ny) + " s " + std::to_string(c.s));
    std::vector<float> raw = wide_range_image(c.nx, c.ny, 3);
    const int sx = c.nx / (2 * c.s) * 2, sy = c.ny / (2 * c.s) * 2, ws = std::max(sx, sy);
    // Raw pixels outside the whole even blocks are never read.
    for (int y = 0; y < c.ny; ++y)
      for (int x = 0; x < c.nx; ++x)
        if (x >= sx * c.s || y >= sy * c.s) raw[static_cast<size_t>(y) * c.nx + x] = NAN;
    const std::vector<float> out = work_image(raw, c.nx, c.ny, c.s, ws);
    for (int y = 0; y < ws; ++y)
      for (int x = 0; x < ws; ++x) {
        const int mx = x < sx ? x : 2 * sx - 1 - x, my = y < sy ? y : 2 * sy - 1 - y;
        ASSERT_EQ(out[static_cast<size_t>(y) * ws + x], out[static_cast<size_t>(my) * ws + mx]) << x << ", " << y;
        ASSERT_FALSE(std::isnan(out[static_cast<size_t>(y) * ws + x]));
      }
  }
}

TEST(EvenSquareShrink, AspectLimitIsStrictOnTheShrunkSides) {
  std::vector<float> raw(2000 * 4, 1.0f);
  // 20 x 10 at s = 1: the long side is exactly twice the short one.
  EXPECT_EXIT_REPORT(work_image(raw, 20, 10, 1, 20), "Make sure: Ny/2 < Nx < 2Ny! Exit now!");
  // 16 x 3 at s = 2: the short side shrinks to 0.
  EXPECT_EXIT_REPORT(work_image(raw, 16, 3, 2, 8), "Make sure: Ny/2 < Nx < 2Ny");
  // 21 x 11 at s = 1 shrinks to 20 x 10 and is refused as well; 19 x 10 passes.
  EXPECT_EXIT_REPORT(work_image(raw, 21, 11, 1, 20), "Make sure");
  EXPECT_EQ(work_image(raw, 19, 10, 1, 18).size(), 18u * 18u);
}

TEST(EvenSquareShrink, FactorBelowOneWritesNothingAndGoesOn) {
  const std::vector<float> raw(16, 1.0f);
  std::vector<float> out(16, -7.0f);
  testing::internal::CaptureStdout();
  cpu_2d_meanshrink_extended_even_square(out.data(), raw.data(), 4, 4, 0);
  cpu_2d_meanshrink(out.data(), raw.data(), 4, 4, -1);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_NE(text.find("file src/process2d_raw on line"), std::string::npos) << text;
  EXPECT_NE(text.find(":Wrong value of shrink_factor. Must be >=1  Wrong value of shrink_factor. Must be >=1!\n"),
            std::string::npos) << text;
  EXPECT_EQ(out, std::vector<float>(16, -7.0f));
}

TEST(PlainBlockMean, TightOutputAndStackSlices) {
  const int nx = 7, ny = 5, nz = 2, s = 2;  // 3 x 2 per slice; column 6 and row 4 dropped
  const std::vector<float> raw = wide_range_image(nx, ny * nz, 11);
  std::vector<float> out(3 * 2 * nz);
  cpu_2ds_meanshrink(out.data(), raw.data(), nx, ny, nz, s);
  for (int k = 0; k < 3 * 2 * nz; ++k) {
    const int z = k / 6, Y = k / 3 % 2, X = k % 3;
    float sum = 0.0f;
    for (auto [i, j] : block_order(s, false)) sum += raw[(z * ny + Y * s + j) * nx + X * s + i];
    EXPECT_EQ(out[k], sum / 4.0f) << k;
  }
  // s = 1 copies every pixel, odd sizes included.
  std::vector<float> copy(nx * ny);
  cpu_2d_meanshrink(copy.data(), raw.data(), nx, ny, 1);
  EXPECT_TRUE(std::equal(copy.begin(), copy.end(), raw.begin()));
}

}  // namespace
