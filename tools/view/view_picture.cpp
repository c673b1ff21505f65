#include "view_picture.h"

#include <algorithm>
#include <cmath>

#include "../common/contamination_areas.h"

Picture::Picture(int w, int h, Rgb fill) : width(w), height(h), rgb(static_cast<size_t>(w) * h * 3) {
  for (size_t i = 0; i < rgb.size(); i += 3) {
    rgb[i] = fill.r;
    rgb[i + 1] = fill.g;
    rgb[i + 2] = fill.b;
  }
}

Rgb Picture::at(int x, int y) const {
  const size_t i = (static_cast<size_t>(y) * width + x) * 3;
  return Rgb{rgb[i], rgb[i + 1], rgb[i + 2]};
}

void Picture::set(int x, int y, Rgb c) {
  const size_t i = (static_cast<size_t>(y) * width + x) * 3;
  rgb[i] = c.r;
  rgb[i + 1] = c.g;
  rgb[i + 2] = c.b;
}

int reduction_factor(int nx, int ny, int max_side) {
  const int longer = std::max(nx, ny);
  return std::max(1, (longer + max_side - 1) / max_side);
}

FloatImage block_means(const float* data, int nx, int ny, int factor) {
  FloatImage out;
  out.nx = (nx + factor - 1) / factor;
  out.ny = (ny + factor - 1) / factor;
  out.v.assign(static_cast<size_t>(out.nx) * out.ny, 0.0f);
  std::vector<double> sum(static_cast<size_t>(out.nx) * out.ny, 0.0);
  std::vector<int> count(sum.size(), 0);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const float v = data[static_cast<size_t>(y) * nx + x];
      if (!std::isfinite(v)) continue;
      const size_t o = static_cast<size_t>(y / factor) * out.nx + x / factor;
      sum[o] += v;
      ++count[o];
    }
  for (size_t i = 0; i < sum.size(); ++i) out.v[i] = count[i] > 0 ? static_cast<float>(sum[i] / count[i]) : NAN;
  return out;
}

float finite_percentile(const std::vector<float>& values, double q) {
  std::vector<float> finite;
  finite.reserve(values.size());
  for (float v : values)
    if (std::isfinite(v)) finite.push_back(v);
  if (finite.empty()) return NAN;
  const double rank = std::round(std::clamp(q, 0.0, 1.0) * static_cast<double>(finite.size() - 1));
  auto nth = finite.begin() + static_cast<std::ptrdiff_t>(rank);
  std::nth_element(finite.begin(), nth, finite.end());
  return *nth;
}

namespace {

// Position of v in lo .. hi, clamped to 0 .. 1; a flat range gives one half.
double unit_level(float v, float lo, float hi) {
  if (!(hi > lo)) return 0.5;
  return std::clamp((static_cast<double>(v) - lo) / (static_cast<double>(hi) - lo), 0.0, 1.0);
}

uint8_t to_byte(double unit) { return static_cast<uint8_t>(std::lround(255.0 * std::clamp(unit, 0.0, 1.0))); }

Rgb heat_colour(double t) {
  static const double stops[][3] = {{0, 0, 0}, {0.1, 0.1, 0.6}, {0.85, 0.15, 0.15}, {1, 0.85, 0.1}, {1, 1, 1}};
  constexpr int kLast = 4;
  const double s = t * kLast;
  const int i = std::min(static_cast<int>(s), kLast - 1);
  const double f = s - i;
  double c[3];
  for (int k = 0; k < 3; ++k) c[k] = stops[i][k] + f * (stops[i + 1][k] - stops[i][k]);
  return Rgb{to_byte(c[0]), to_byte(c[1]), to_byte(c[2])};
}

template <typename Colour>
Picture map_picture(const FloatImage& im, float lo, float hi, Colour colour) {
  Picture p(im.nx, im.ny, Rgb{0, 0, 0});
  for (int y = 0; y < im.ny; ++y)
    for (int x = 0; x < im.nx; ++x) {
      const float v = im.v[static_cast<size_t>(y) * im.nx + x];
      if (std::isfinite(v)) p.set(x, y, colour(unit_level(v, lo, hi)));
    }
  return p;
}

// floor(v) held to 0 .. hi, so that any value (far off the picture, NaN) gives an index.
int pixel_index(double v, int hi) { return v > 0 ? static_cast<int>(std::fmin(std::floor(v), hi)) : 0; }

// Calls paint(px, py) for every pixel of the box [x0, x1] x [y0, y1] that lies in the picture.
template <typename Paint>
void for_pixels_in(const Picture& p, double x0, double y0, double x1, double y1, Paint paint) {
  if (!(x1 >= 0 && y1 >= 0)) return;
  const int ix0 = pixel_index(x0, p.width), ix1 = pixel_index(x1, p.width - 1);
  const int iy0 = pixel_index(y0, p.height), iy1 = pixel_index(y1, p.height - 1);
  for (int y = iy0; y <= iy1; ++y)
    for (int x = ix0; x <= ix1; ++x) paint(x, y);
}

}  // namespace

Picture grey_picture(const FloatImage& im, float lo, float hi) {
  return map_picture(im, lo, hi, [](double t) {
    const uint8_t g = to_byte(t);
    return Rgb{g, g, g};
  });
}

Picture heat_picture(const FloatImage& im, float lo, float hi) { return map_picture(im, lo, hi, heat_colour); }

void draw_ring(Picture& p, double cx, double cy, double radius, double width, Rgb c) {
  const double half = 0.5 * width, reach = radius + half;
  for_pixels_in(p, cx - reach, cy - reach, cx + reach, cy + reach, [&](int x, int y) {
    if (std::fabs(std::hypot(x + 0.5 - cx, y + 0.5 - cy) - radius) <= half) p.set(x, y, c);
  });
}

void draw_segment(Picture& p, double x0, double y0, double x1, double y1, double width, Rgb c) {
  const double half = 0.5 * width;
  for_pixels_in(p, std::min(x0, x1) - half, std::min(y0, y1) - half, std::max(x0, x1) + half,
                std::max(y0, y1) + half, [&](int x, int y) {
                  if (segment_distance(x + 0.5, y + 0.5, x0, y0, x1, y1) <= half) p.set(x, y, c);
                });
}

void tint(Picture& p, const std::vector<bool>& mask, Rgb c, double alpha) {
  auto blend = [alpha](uint8_t under, uint8_t over) {
    return static_cast<uint8_t>(std::lround((1.0 - alpha) * under + alpha * over));
  };
  for (int y = 0; y < p.height; ++y)
    for (int x = 0; x < p.width; ++x) {
      if (!mask[static_cast<size_t>(y) * p.width + x]) continue;
      const Rgb u = p.at(x, y);
      p.set(x, y, Rgb{blend(u.r, c.r), blend(u.g, c.g), blend(u.b, c.b)});
    }
}

Picture scale_to_height(const Picture& p, int height) {
  if (p.height == height || p.height == 0) return p;
  const int width = std::max(1, static_cast<int>(std::lround(static_cast<double>(p.width) * height / p.height)));
  Picture out(width, height, Rgb{0, 0, 0});
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      out.set(x, y, p.at(static_cast<int>(static_cast<long>(x) * p.width / width),
                         static_cast<int>(static_cast<long>(y) * p.height / height)));
  return out;
}

Picture side_by_side(const Picture& a, const Picture& b, int gap, Rgb background) {
  Picture out(a.width + gap + b.width, std::max(a.height, b.height), background);
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x) out.set(x, y, a.at(x, y));
  for (int y = 0; y < b.height; ++y)
    for (int x = 0; x < b.width; ++x) out.set(a.width + gap + x, y, b.at(x, y));
  return out;
}
