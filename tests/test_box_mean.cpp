// The two-pass box mean of the spectrum background against the direct box mean it replaces and
// against a double-precision sum written here, at the box sizes the spectra use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "process2d_raw/process2d_raw.h"
#include "support/device_data.h"

namespace {

double direct_mean(const std::vector<float>& a, int nx, int ny, int x, int y, int bx, int by) {
  const int hx = bx / 2, hy = by / 2;
  double sum = 0.0;
  long count = 0;
  for (int j = std::max(0, y - hy); j < std::min(ny, y + hy); ++j)
    for (int i = std::max(0, x - hx); i < std::min(nx, x + hx); ++i) {
      sum += a[j * nx + i];
      ++count;
    }
  return sum / static_cast<double>(count);
}

struct Case {
  unsigned nx, ny;
  int bx, by;
};

TEST(SeparableBoxMean, MatchesTheDirectBoxMeanAndADoubleSum) {
  // Log-amplitude-like values: an offset of a few units with noise, where float sums of some
  // 10^4 terms round visibly while the double row sums do not.
  const Case cases[] = {{160, 130, 85, 85}, {130, 160, 146, 85}, {97, 61, 2, 7}, {64, 64, 3, 146}, {1, 5, 4, 4}};
  for (const Case& c : cases) {
    const unsigned n = c.nx * c.ny;
    std::vector<float> h = random_image(n, 5);
    for (float& v : h) v = 4.0f + v;
    float* d_in = to_device(h);
    float* d_direct = to_device(std::vector<float>(n, -1.0f));
    float* d_sep = to_device(std::vector<float>(n + 16, 77.0f));
    double* d_rows = nullptr;
    safe_cudaMalloc(reinterpret_cast<void**>(&d_rows), sizeof(double) * n);
    hcuda_2d_convolution_by_box(d_in, d_direct, c.nx, c.ny, c.bx, c.by);
    hcuda_2d_box_mean_separable(d_in, d_sep, d_rows, c.nx, c.ny, c.bx, c.by);
    const std::vector<float> direct = to_host(d_direct, n), sep = to_host(d_sep, n + 16);
    for (unsigned y = 0; y < c.ny; ++y)
      for (unsigned x = 0; x < c.nx; ++x) {
        const unsigned i = y * c.nx + x;
        const double ref = direct_mean(h, c.nx, c.ny, x, y, c.bx, c.by);
        // Double sums then one rounding to float: within one float step of the exact mean.
        ASSERT_NEAR(sep[i], ref, 1e-6 * std::fabs(ref)) << c.nx << "x" << c.ny << " box " << c.bx << "," << c.by
                                                         << " at " << x << "," << y;
        // The direct float loop rounds each of up to bx*by additions (about 1e-4 relative).
        ASSERT_NEAR(sep[i], direct[i], 2e-4 * std::fabs(ref)) << "at " << x << "," << y;
      }
    for (unsigned i = n; i < n + 16; ++i) ASSERT_EQ(sep[i], 77.0f);  // nothing written past the image
    cudaFree(d_in);
    cudaFree(d_direct);
    cudaFree(d_sep);
    cudaFree(d_rows);
  }
}

}  // namespace
