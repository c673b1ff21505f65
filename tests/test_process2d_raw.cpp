// Box mean and box cutting of process2d_raw.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "process2d_raw/process2d_raw.h"

namespace {

// Box mean written independently from the layout rules, summed in double.
std::vector<float> reference_box_mean(const std::vector<float>& a, int nx, int ny, int bx, int by) {
  std::vector<float> out(a.size());
  const int hx = bx / 2, hy = by / 2;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      double sum = 0.0;
      int count = 0;
      for (int j = std::max(0, y - hy); j < std::min(ny, y + hy); ++j)
        for (int i = std::max(0, x - hx); i < std::min(nx, x + hx); ++i) {
          sum += a[j * nx + i];
          ++count;
        }
      out[y * nx + x] = static_cast<float>(sum / count);
    }
  return out;
}

TEST(BoxMean, ThreeByThreeIsATwoByTwoBoxOnTheLowSide) {
  // 4 x 3 image with distinct values: pixel (x, y) averages (x-1..x) x (y-1..y), clipped.
  const unsigned nx = 4, ny = 3;
  std::vector<float> h = {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048};
  float* d_in = to_device(h);
  float* d_out = to_device(std::vector<float>(nx * ny, -7.0f));
  hcuda_2d_convolution_by_box(d_in, d_out, nx, ny, 3, 3);
  std::vector<float> out = to_host(d_out, nx * ny);
  EXPECT_FLOAT_EQ(out[0], 1.0f);                            // corner: the box is the pixel itself
  EXPECT_FLOAT_EQ(out[1], (1.0f + 2.0f) / 2.0f);            // top row: 2 x 1
  EXPECT_FLOAT_EQ(out[1 * nx + 0], (1.0f + 16.0f) / 2.0f);  // left column: 1 x 2
  EXPECT_FLOAT_EQ(out[1 * nx + 1], (1.0f + 2.0f + 16.0f + 32.0f) / 4.0f);
  EXPECT_FLOAT_EQ(out[2 * nx + 3], (128.0f + 64.0f + 1024.0f + 2048.0f) / 4.0f);  // last pixel
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(BoxMean, MatchesReferenceOnOddSizes) {
  const unsigned nx = 37, ny = 35;
  std::vector<float> h = random_image(nx * ny, 3);
  float* d_in = to_device(h);
  float* d_out = to_device(std::vector<float>(nx * ny + 40, 99.0f));
  for (int b : {2, 5, 8}) {
    hcuda_2d_convolution_by_box(d_in, d_out, nx, ny, b, b + 1);
    std::vector<float> out = to_host(d_out, nx * ny + 40);
    std::vector<float> ref = reference_box_mean(h, nx, ny, b, b + 1);
    for (unsigned i = 0; i < nx * ny; ++i) ASSERT_NEAR(out[i], ref[i], 2e-6f) << "b " << b << " i " << i;
    for (unsigned i = nx * ny; i < nx * ny + 40; ++i) ASSERT_EQ(out[i], 99.0f);  // nothing past the image
  }
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(BoxMean, BoxBelowTwoIsRefusedNotWrittenAsNaN) {
  const unsigned nx = 5, ny = 4;
  float* d_in = to_device(std::vector<float>(nx * ny, 1.0f));
  float* d_out = to_device(std::vector<float>(nx * ny, 0.0f));
  EXPECT_EXIT_REPORT(hcuda_2d_convolution_by_box(d_in, d_out, nx, ny, 1, 4), "A box of 1 x 4 pixels holds no pixel");
  for (float v : to_host(d_out, nx * ny)) EXPECT_EQ(v, 0.0f);
  cudaFree(d_in);
  cudaFree(d_out);
}

TEST(Extract, BoxInsideCopiesPixels) {
  const int nx = 50, ny = 40, w = 7, h = 5, x0 = 10, y0 = 20;
  std::vector<float> img = random_image(nx * ny, 5);
  std::vector<float> out(w * h, -1.0f);
  cpu_2d_extract_small_from_large(out.data(), w, h, img.data(), nx, ny, x0, y0);
  for (int j = 0; j < h; ++j)
    for (int i = 0; i < w; ++i) EXPECT_EQ(out[j * w + i], img[(y0 + j) * nx + x0 + i]);
}

TEST(Extract, BoxBeyondTheEdgeIsZeroFilled) {
  const int nx = 20, ny = 16, w = 8, h = 6;
  std::vector<float> img = random_image(nx * ny, 7);
  for (int x0 : {-3, 15}) {
    for (int y0 : {-2, 12}) {
      std::vector<float> out(w * h, -1.0f);
      cpu_2d_extract_small_from_large(out.data(), w, h, img.data(), nx, ny, x0, y0);
      for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
          const int x = x0 + i, y = y0 + j;
          const float want = (x >= 0 && x < nx && y >= 0 && y < ny) ? img[y * nx + x] : 0.0f;
          ASSERT_EQ(out[j * w + i], want) << x0 << " " << y0 << " " << i << " " << j;
        }
    }
  }
}

TEST(Extract, DeviceMatchesHostForManyBoxes) {
  const int nx = 45, ny = 33, w = 10, h = 9;
  std::vector<float> img = random_image(nx * ny, 11);
  std::vector<int2> origins = {make_int2(0, 0), make_int2(-4, 3), make_int2(40, 30), make_int2(12, -8),
                               make_int2(35, 24)};
  const int count = static_cast<int>(origins.size());
  std::vector<float> host(count * w * h, -1.0f);
  cpu_2d_extract_smalls_from_large(host.data(), w, h, count, img.data(), nx, ny, origins.data());

  float* d_img = to_device(img);
  float* d_out = to_device(std::vector<float>(count * w * h + 16, -5.0f));
  hcuda_2d_extract_smalls_from_large(d_out, w, h, count, d_img, nx, ny, origins.data());
  std::vector<float> dev = to_host(d_out, count * w * h + 16);
  for (int i = 0; i < count * w * h; ++i) ASSERT_EQ(dev[i], host[i]) << i;
  for (int i = count * w * h; i < count * w * h + 16; ++i) ASSERT_EQ(dev[i], -5.0f);

  // Box k is the single-box cut at origin k.
  std::vector<float> one(w * h);
  cpu_2d_extract_small_from_large(one.data(), w, h, img.data(), nx, ny, origins[3].x, origins[3].y);
  for (int i = 0; i < w * h; ++i) EXPECT_EQ(host[3 * w * h + i], one[i]);
  cudaFree(d_img);
  cudaFree(d_out);
}

}  // namespace
