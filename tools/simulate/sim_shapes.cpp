#include "sim_shapes.h"

#include <cmath>

namespace {

constexpr double kPi = 3.141592653589793;
// The shape is full strength inside kRimStart diameters and fades to 0 at 0.5 (the radius).
constexpr double kRimStart = 0.40;
constexpr double kRimEnd = 0.50;

double lobes_sum(const std::vector<ShapeLobe>& lobes, double u, double v) {
  double s = 0;
  for (const ShapeLobe& l : lobes) {
    const double du = u - l.x, dv = v - l.y;
    s += l.amp * std::exp(-(du * du + dv * dv) / (2.0 * l.sigma * l.sigma));
  }
  return s;
}

double rim_weight(double r) {
  if (r >= kRimEnd) return 0.0;
  if (r <= kRimStart) return 1.0;
  return 0.5 * (1.0 + std::cos(kPi * (r - kRimStart) / (kRimEnd - kRimStart)));
}

// Moves the lobes so that their integrated mass is centred on the origin, which keeps the
// particle in the middle of its box at every angle.
void centre_lobes(std::vector<ShapeLobe>& lobes) {
  double m = 0, mx = 0, my = 0;
  for (const ShapeLobe& l : lobes) {
    const double w = l.amp * l.sigma * l.sigma;
    m += w;
    mx += w * l.x;
    my += w * l.y;
  }
  for (ShapeLobe& l : lobes) {
    l.x -= mx / m;
    l.y -= my / m;
  }
}

void normalise_peak(std::vector<ShapeLobe>& lobes) {
  double peak = 0;
  const int n = 200;
  for (int j = 0; j <= n; ++j)
    for (int i = 0; i <= n; ++i) {
      const double v = shape_value(lobes, -0.5 + double(i) / n, -0.5 + double(j) / n);
      if (v > peak) peak = v;
    }
  for (ShapeLobe& l : lobes) l.amp /= peak;
}

}  // namespace

std::vector<ShapeLobe> make_view_lobes(int view, double width_scale) {
  // The golden angle spreads the arm directions of successive views; the hook bends to
  // alternate sides, so neighbouring views are mirror images in outline but not in detail.
  const double arm = (20.0 + 137.5 * view) * kPi / 180.0;
  const double bend = ((view % 2 == 0) ? 1.0 : -1.0) * (80.0 + 15.0 * (view % 3)) * kPi / 180.0;
  const ShapeLobe body{0.0, 0.0, 0.12, 1.0};
  const ShapeLobe limb{0.21 * std::cos(arm), 0.21 * std::sin(arm), 0.085 * (1.0 + 0.1 * (view % 3)), 0.9};
  const ShapeLobe hook{limb.x + 0.15 * std::cos(arm + bend), limb.y + 0.15 * std::sin(arm + bend), 0.065, 0.85};
  std::vector<ShapeLobe> lobes{body, limb, hook};
  for (ShapeLobe& l : lobes) l.sigma *= width_scale;
  centre_lobes(lobes);
  normalise_peak(lobes);
  return lobes;
}

double shape_value(const std::vector<ShapeLobe>& lobes, double u, double v) {
  const double w = rim_weight(std::hypot(u, v));
  return w > 0 ? w * lobes_sum(lobes, u, v) : 0.0;
}

std::vector<float> render_shape(const std::vector<ShapeLobe>& lobes, int side, double pixel_A, double diameter_A) {
  std::vector<float> img(static_cast<size_t>(side) * side);
  const double step = pixel_A / diameter_A;
  const int c = side / 2;
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      img[static_cast<size_t>(y) * side + x] = static_cast<float>(shape_value(lobes, (x - c) * step, (y - c) * step));
  return img;
}

void rotate_bilinear(const float* src, float* dst, int nx, int ny, double degrees) {
  const double a = degrees * kPi / 180.0;
  const double c = std::cos(a), s = std::sin(a);
  const double cx = (nx - 1) * 0.5, cy = (ny - 1) * 0.5;
  for (int y = 0; y < ny; ++y) {
    for (int x = 0; x < nx; ++x) {
      // The output at a point shows the source at that point turned back by the angle.
      const double dx = x - cx, dy = y - cy;
      const double sx = cx + dx * c + dy * s;
      const double sy = cy + dy * c - dx * s;
      float& out = dst[static_cast<size_t>(y) * nx + x];
      if (sx < 0 || sy < 0 || sx > nx - 1 || sy > ny - 1) {
        out = 0.0f;
        continue;
      }
      const int ix = static_cast<int>(sx), iy = static_cast<int>(sy);
      const double fx = sx - ix, fy = sy - iy;
      const int ix1 = ix + 1 < nx ? ix + 1 : ix;
      const int iy1 = iy + 1 < ny ? iy + 1 : iy;
      const float* r0 = src + static_cast<size_t>(iy) * nx;
      const float* r1 = src + static_cast<size_t>(iy1) * nx;
      const double top = r0[ix] + fx * (r0[ix1] - r0[ix]);
      const double bottom = r1[ix] + fx * (r1[ix1] - r1[ix]);
      out = static_cast<float>(top + fy * (bottom - top));
    }
  }
}
