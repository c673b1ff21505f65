#include "sim_scene.h"

#include <algorithm>
#include <cmath>

#include "sim_random.h"
#include "sim_shapes.h"

namespace {

constexpr double kPi = 3.141592653589793;
// Stream purposes, so that adding particles never shifts the noise and the like.
enum Stream : uint64_t { kPlacement = 1, kNoise = 2, kContamination = 3, kBackground = 4 };
constexpr int kBackgroundTerms = 4;
// Fraction of the usable area that the automatic particle count aims to cover with
// min-distance discs; well below the jamming limit of random placement.
constexpr double kAutoCoverage = 0.35;

// Cuts a convex polygon with the half-plane ux x + uy y >= t (one step of polygon clipping).
void clip_half_plane(std::vector<double>& xs, std::vector<double>& ys, double ux, double uy, double t) {
  std::vector<double> ox, oy;
  const size_t n = xs.size();
  for (size_t i = 0; i < n; ++i) {
    const size_t j = (i + 1) % n;
    const double di = ux * xs[i] + uy * ys[i] - t, dj = ux * xs[j] + uy * ys[j] - t;
    if (di >= 0) {
      ox.push_back(xs[i]);
      oy.push_back(ys[i]);
    }
    if ((di >= 0) != (dj >= 0)) {
      const double f = di / (di - dj);
      ox.push_back(xs[i] + f * (xs[j] - xs[i]));
      oy.push_back(ys[i] + f * (ys[j] - ys[i]));
    }
  }
  xs.swap(ox);
  ys.swap(oy);
}

void plan_ice(const SimParams& p, SimRandom& rng, SimScene& s) {
  const double d = p.diameter_px();
  const double cap = std::min(p.nx, p.ny) / 8.0;
  for (int i = 0; i < p.ice; ++i) {
    IceBlob b;
    b.r = std::min(rng.uniform(1.0, 3.0) * d, cap);
    b.edge = 0.25 * b.r;
    b.cx = rng.uniform(0, p.nx);
    b.cy = rng.uniform(0, p.ny);
    b.amp = (i % 2 == 0 ? -1.0 : 1.0) * p.ice_amp;
    s.ice.push_back(b);
    s.areas.push_back(make_disc_area(b.cx, b.cy, b.r + b.edge));
  }
}

// A straight carbon edge that cuts off 12 to 25 % of the image's extent across it.
void plan_carbon(const SimParams& p, SimRandom& rng, SimScene& s) {
  CarbonEdge& c = s.carbon;
  const double phi = rng.uniform(0, 2 * kPi);
  c.present = true;
  c.ux = std::cos(phi);
  c.uy = std::sin(phi);
  const double cx[4] = {0, double(p.nx), 0, double(p.nx)}, cy[4] = {0, 0, double(p.ny), double(p.ny)};
  double lo = INFINITY, hi = -INFINITY;
  for (int i = 0; i < 4; ++i) {
    lo = std::min(lo, c.ux * cx[i] + c.uy * cy[i]);
    hi = std::max(hi, c.ux * cx[i] + c.uy * cy[i]);
  }
  c.t = hi - rng.uniform(0.12, 0.25) * (hi - lo);
  c.half_width = std::max(4.0, 0.05 * p.diameter_px());
  std::vector<double> xs{0, double(p.nx), double(p.nx), 0}, ys{0, 0, double(p.ny), double(p.ny)};
  clip_half_plane(xs, ys, c.ux, c.uy, c.t - c.half_width);
  if (xs.size() >= 3) s.areas.push_back(make_polygon_area(xs, ys));
}

void plan_background(const SimParams& p, SimRandom& rng, SimScene& s) {
  // cos x cos has a mean square of 1/4, so these amplitudes give the requested RMS.
  const double amp = p.bg_rms * 2.0 / std::sqrt(double(kBackgroundTerms));
  for (int k = 0; k < kBackgroundTerms; ++k) {
    BackgroundTerm t;
    t.amp = amp;
    t.fx = 2 * kPi / (p.nx * rng.uniform(0.5, 2.0));
    t.fy = 2 * kPi / (p.ny * rng.uniform(0.5, 2.0));
    t.px = rng.uniform(0, 2 * kPi);
    t.py = rng.uniform(0, 2 * kPi);
    s.background.push_back(t);
  }
}

int automatic_count(const SimParams& p) {
  const double m = p.edge_px(), d = p.min_dist_px();
  const double w = std::max(0.0, p.nx - 2 * m), h = std::max(0.0, p.ny - 2 * m);
  return static_cast<int>(kAutoCoverage * w * h / (d * d));
}

// Random placement with rejection: centres at least min_dist apart, edge pixels from the
// border, and a particle radius (plus a little) away from every contamination area. A grid
// of min_dist cells keeps the neighbour test local.
void place_particles(const SimParams& p, SimRandom& rng, SimScene& s) {
  s.wanted = p.particles > 0 ? p.particles : automatic_count(p);
  const double d = p.min_dist_px(), margin = p.edge_px(), clear = 0.6 * p.diameter_px();
  const int x0 = static_cast<int>(std::ceil(margin)), x1 = static_cast<int>(std::floor(p.nx - 1 - margin));
  const int y0 = static_cast<int>(std::ceil(margin)), y1 = static_cast<int>(std::floor(p.ny - 1 - margin));
  if (x1 < x0 || y1 < y0 || s.wanted <= 0) return;
  const int gx = static_cast<int>(p.nx / d) + 1, gy = static_cast<int>(p.ny / d) + 1;
  std::vector<std::vector<int>> grid(static_cast<size_t>(gx) * gy);
  const long attempts = 200L * s.wanted + 1000;
  for (long a = 0; a < attempts && static_cast<int>(s.particles.size()) < s.wanted; ++a) {
    const int x = x0 + static_cast<int>(rng.uniform() * (x1 - x0 + 1));
    const int y = y0 + static_cast<int>(rng.uniform() * (y1 - y0 + 1));
    const double psi = rng.uniform(0, 360);
    const int view = static_cast<int>(rng.uniform() * p.templates);
    const int cx = static_cast<int>(x / d), cy = static_cast<int>(y / d);
    bool free = true;
    for (int j = std::max(0, cy - 1); free && j <= std::min(gy - 1, cy + 1); ++j)
      for (int i = std::max(0, cx - 1); free && i <= std::min(gx - 1, cx + 1); ++i)
        for (int k : grid[static_cast<size_t>(j) * gx + i]) {
          const SimParticle& q = s.particles[k];
          if (std::hypot(double(q.x - x), double(q.y - y)) < d) {
            free = false;
            break;
          }
        }
    for (size_t k = 0; free && k < s.areas.size(); ++k)
      if (area_distance(s.areas[k], x, y) < clear) free = false;
    if (!free) continue;
    grid[static_cast<size_t>(cy) * gx + cx].push_back(static_cast<int>(s.particles.size()));
    s.particles.push_back(SimParticle{x, y, psi, view});
  }
}

double carbon_weight(const CarbonEdge& c, double x, double y) {
  const double u = (c.ux * x + c.uy * y - c.t) / c.half_width;  // -1 .. 1 across the step
  if (u <= -1) return 0.0;
  if (u >= 1) return 1.0;
  return 0.5 * (1.0 + std::sin(0.5 * kPi * u));
}

void draw_row_background(const SimParams& p, const SimScene& s, const std::vector<std::vector<double>>& cols,
                         int y, float* row) {
  std::vector<double> rowterm(s.background.size());
  for (size_t k = 0; k < s.background.size(); ++k) {
    const BackgroundTerm& t = s.background[k];
    rowterm[k] = t.amp * std::cos(t.fy * y + t.py);
  }
  for (int x = 0; x < p.nx; ++x) {
    double v = 0;
    for (size_t k = 0; k < rowterm.size(); ++k) v += rowterm[k] * cols[k][x];
    row[x] = static_cast<float>(v);
  }
}

void draw_row_noise_and_carbon(const SimParams& p, int mic, const SimScene& s, int y, float* row) {
  SimRandom rng(sim_stream_key(p.seed, kNoise, static_cast<uint64_t>(mic), static_cast<uint64_t>(y)));
  for (int x = 0; x < p.nx; x += 2) {
    double n[2];
    rng.normal_pair(n[0], n[1]);
    for (int k = 0; k < 2 && x + k < p.nx; ++k) {
      const double w = s.carbon.present ? carbon_weight(s.carbon, x + k, y) : 0.0;
      const double sigma = 1.0 + (p.carbon_noise - 1.0) * w;
      row[x + k] += static_cast<float>(p.carbon_step * w + sigma * n[k]);
    }
  }
}

void draw_row_ice(const SimParams& p, const SimScene& s, int y, float* row) {
  for (const IceBlob& b : s.ice) {
    const double outer = b.r + b.edge, dy = y - b.cy;
    if (std::fabs(dy) >= outer) continue;
    const double half = std::sqrt(outer * outer - dy * dy);
    const int xa = std::max(0, static_cast<int>(std::floor(b.cx - half)));
    const int xb = std::min(p.nx - 1, static_cast<int>(std::ceil(b.cx + half)));
    for (int x = xa; x <= xb; ++x) {
      const double r = std::hypot(x - b.cx, dy);
      if (r >= outer) continue;
      const double w = r <= b.r ? 1.0 : 0.5 * (1.0 + std::cos(kPi * (r - b.r) / b.edge));
      row[x] += static_cast<float>(b.amp * w);
    }
  }
}

void subtract_particles(const SimParams& p, const SimScene& s, const ParticleImages& images, float* out) {
  const int side = images.side, c = side / 2;
  std::vector<float> turned(static_cast<size_t>(side) * side);
  for (const SimParticle& q : s.particles) {
    rotate_bilinear(images.views[q.view].data(), turned.data(), side, side, q.psi);
    const float amp = static_cast<float>(images.amplitude[q.view]);
    for (int j = 0; j < side; ++j) {
      const int y = q.y + j - c;
      if (y < 0 || y >= p.ny) continue;
      for (int i = 0; i < side; ++i) {
        const int x = q.x + i - c;
        if (x >= 0 && x < p.nx) out[static_cast<size_t>(y) * p.nx + x] -= amp * turned[static_cast<size_t>(j) * side + i];
      }
    }
  }
}

}  // namespace

SimScene plan_scene(const SimParams& p, int mic) {
  SimScene s;
  SimRandom contamination(sim_stream_key(p.seed, kContamination, static_cast<uint64_t>(mic)));
  if (p.contamination) {
    plan_ice(p, contamination, s);
    if (p.carbon) plan_carbon(p, contamination, s);
  }
  SimRandom background(sim_stream_key(p.seed, kBackground, static_cast<uint64_t>(mic)));
  plan_background(p, background, s);
  SimRandom placement(sim_stream_key(p.seed, kPlacement, static_cast<uint64_t>(mic)));
  place_particles(p, placement, s);
  return s;
}

ParticleImages make_particle_images(const SimParams& p) {
  ParticleImages im;
  // Odd, and wide enough for the whole disc: the rotation centre is then a pixel centre.
  im.side = 2 * static_cast<int>(std::ceil(0.55 * p.diameter_px())) + 1;
  const double radius = 0.5 * p.diameter_px();
  const int c = im.side / 2;
  for (int v = 0; v < p.templates; ++v) {
    im.views.push_back(render_shape(make_view_lobes(v, p.lobe_width), im.side, p.apix, p.diameter_A));
    // Mean power over the particle disc sets the amplitude for the SNR against unit noise.
    double power = 0;
    long n = 0;
    for (int y = 0; y < im.side; ++y)
      for (int x = 0; x < im.side; ++x)
        if (std::hypot(double(x - c), double(y - c)) <= radius) {
          const double t = im.views.back()[static_cast<size_t>(y) * im.side + x];
          power += t * t;
          ++n;
        }
    im.amplitude.push_back(power > 0 ? std::sqrt(p.snr * n / power) : 0.0);
  }
  return im;
}

void render_micrograph(const SimParams& p, int mic, const SimScene& s, const ParticleImages& images, float* out) {
  std::vector<std::vector<double>> cols(s.background.size(), std::vector<double>(p.nx));
  for (size_t k = 0; k < s.background.size(); ++k)
    for (int x = 0; x < p.nx; ++x) cols[k][x] = std::cos(s.background[k].fx * x + s.background[k].px);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < p.ny; ++y) {
    float* row = out + static_cast<size_t>(y) * p.nx;
    draw_row_background(p, s, cols, y, row);
    draw_row_noise_and_carbon(p, mic, s, y, row);
    draw_row_ice(p, s, y, row);
  }
  subtract_particles(p, s, images, out);
}
