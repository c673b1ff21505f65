// Box cutting of process2d_raw (its box means: test_box_mean.cpp).
#include <gtest/gtest.h>

#include <vector>

#include "cuda_general/cuda_general.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"

namespace {

// Boxes inside the image copy its pixels; beyond any edge they are filled with zeros.
TEST(Extract, BoxIsCopiedAndZeroFilledBeyondTheEdge) {
  const int nx = 20, ny = 16, w = 8, h = 6;
  const std::vector<float> img = random_image(nx * ny, 7);
  for (int x0 : {-3, 5, 15})
    for (int y0 : {-2, 4, 12}) {
      std::vector<float> out(w * h, -1.0f), want(w * h, 0.0f);
      cpu_2d_extract_small_from_large(out.data(), w, h, img.data(), nx, ny, x0, y0);
      for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i)
          if (x0 + i >= 0 && x0 + i < nx && y0 + j >= 0 && y0 + j < ny) want[j * w + i] = img[(y0 + j) * nx + x0 + i];
      EXPECT_EQ(out, want) << x0 << " " << y0;
    }
}

TEST(Extract, DeviceMatchesHostForManyBoxes) {
  const int nx = 45, ny = 33, w = 10, h = 9, count = 5, size = count * w * h;
  const std::vector<float> img = random_image(nx * ny, 11);
  const std::vector<int2> origins = {make_int2(0, 0), make_int2(-4, 3), make_int2(40, 30), make_int2(12, -8),
                                     make_int2(35, 24)};
  std::vector<float> host(size, -1.0f), one(w * h);
  cpu_2d_extract_smalls_from_large(host.data(), w, h, count, img.data(), nx, ny, origins.data());
  float *d_img = to_device(img), *d_out = to_device(std::vector<float>(size + 16, -5.0f));
  const DeviceFrees frees(d_img, d_out);
  hcuda_2d_extract_smalls_from_large(d_out, w, h, count, d_img, nx, ny, origins.data());
  std::vector<float> want = host;
  want.resize(size + 16, -5.0f);  // nothing written past the boxes
  EXPECT_EQ(to_host(d_out, size + 16), want);
  // Box k is the single-box cut at origin k.
  cpu_2d_extract_small_from_large(one.data(), w, h, img.data(), nx, ny, origins[3].x, origins[3].y);
  EXPECT_EQ(std::vector<float>(host.begin() + 3 * w * h, host.begin() + 4 * w * h), one);
}

}  // namespace
