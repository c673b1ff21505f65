// The box means: the direct one and the two-pass one of the spectrum background that replaces
// it, against a double-precision sum written here, at the box sizes the spectra use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

// Pixel (x, y) averages x - bx/2 .. x + bx/2 - 1 by y - by/2 .. y + by/2 - 1, clipped at the edges.
double direct_mean(const std::vector<float>& a, int nx, int ny, int x, int y, int bx, int by) {
  double sum = 0.0, count = 0.0;
  for (int j = std::max(0, y - by / 2); j < std::min(ny, y + by / 2); ++j)
    for (int i = std::max(0, x - bx / 2); i < std::min(nx, x + bx / 2); ++i, count += 1.0) sum += a[j * nx + i];
  return sum / count;
}

TEST(BoxMean, BoxMeansMatchADoubleSum) {
  // Log-amplitude-like values: an offset of a few units with noise, where float sums of some
  // 10^4 terms round visibly while the double row sums do not.
  struct Case {
    unsigned nx, ny;
    int bx, by;
  };
  const Case cases[] = {{160, 130, 85, 85}, {130, 160, 146, 85}, {97, 61, 2, 7}, {37, 35, 3, 3},
                        {37, 35, 8, 9},     {64, 64, 3, 146},    {1, 5, 4, 4}};  // 3 x 3: a 2 x 2 box
  for (const Case& c : cases) {
    const unsigned n = c.nx * c.ny;
    std::vector<float> h = random_image(n, 5);
    for (float& v : h) v = 4.0f + v;
    const std::vector<float> guard(n + 16, 77.0f);
    float *d_in = to_device(h), *d_direct = to_device(guard), *d_sep = to_device(guard);
    double* d_rows = nullptr;
    safe_cudaMalloc(reinterpret_cast<void**>(&d_rows), sizeof(double) * n);
    const DeviceFrees frees(d_in, d_direct, d_sep, d_rows);
    hcuda_2d_convolution_by_box(d_in, d_direct, c.nx, c.ny, c.bx, c.by);
    hcuda_2d_box_mean_separable(d_in, d_sep, d_rows, c.nx, c.ny, c.bx, c.by);
    const std::vector<float> direct = to_host(d_direct, n + 16), sep = to_host(d_sep, n + 16);
    for (unsigned i = 0; i < n; ++i) {
      const double ref = direct_mean(h, c.nx, c.ny, i % c.nx, i / c.nx, c.bx, c.by);
      // Double sums then one rounding to float: within one float step of the exact mean; the
      // direct float loop rounds each of its bx*by additions.
      ASSERT_NEAR(sep[i], ref, 1e-6 * std::fabs(ref))
          << c.nx << "x" << c.ny << " box " << c.bx << "," << c.by << " at " << i % c.nx << "," << i / c.nx;
      ASSERT_NEAR(direct[i], ref, (1e-6 + 2.5e-8 * c.bx * c.by) * std::fabs(ref))
          << "at " << i % c.nx << "," << i / c.nx;
    }
    const std::vector<float> past(16, 77.0f);  // nothing written past the image
    EXPECT_EQ(std::vector<float>(sep.begin() + n, sep.end()), past);
    EXPECT_EQ(std::vector<float>(direct.begin() + n, direct.end()), past);
  }
}

TEST(BoxMean, BoxBelowTwoIsRefusedNotWrittenAsNaN) {
  float *d_in = to_device(std::vector<float>(20, 1.0f)), *d_out = to_device(std::vector<float>(20, 0.0f));
  const DeviceFrees frees(d_in, d_out);
  EXPECT_EXIT_REPORT(hcuda_2d_convolution_by_box(d_in, d_out, 5, 4, 1, 4), "A box of 1 x 4 pixels holds no pixel");
  EXPECT_EQ(to_host(d_out, 20), std::vector<float>(20, 0.0f));
}

}  // namespace
