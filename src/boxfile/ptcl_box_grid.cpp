// Neighbour boxes about a particle and regular grids of boxes, for the CTF toolkit's local and
// tilted refinement.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>

#include "boxfile/ptcl_box.h"
#include "cuda_general/report.h"

namespace {

float gauss_weight(double distance, float radius) {
  if (!(radius > 0.0f)) return PTCL_BOX_GAUSS_NORM;
  const float d = static_cast<float>(distance);
  return PTCL_BOX_GAUSS_NORM * std::exp(-(d * d) / (radius * radius / 4.5f));
}

long long clamp_steps(double v) { return v > INT_MAX ? INT_MAX : static_cast<long long>(v); }

int clamp_int(long long v) { return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : static_cast<int>(v); }

// Writes the points as a two-column STAR table of coordinates.
int write_xy_star(const char* name, const std::vector<float2>& points, const char* caller) {
  FILE* fp = name != nullptr ? std::fopen(name, "w+") : nullptr;
  if (fp == nullptr) {
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", name != nullptr ? name : "(null)");
    report_fatal(caller, __FILE__, __LINE__, "open file '%s' failed.", name != nullptr ? name : "(null)");
  }
  std::fputs("\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", fp);
  for (const float2& p : points) std::fprintf(fp, "%12.2f%12.2f\n", p.x, p.y);
  std::fputs("\n", fp);
  std::fclose(fp);
  return static_cast<int>(points.size());
}

// The number of steps k >= 0 for which a box of `box` centred at center + k step (sign -1 or 1)
// lies wholly in [0, n).
long long steps_inside(int n, int box, int center, int step, int sign) {
  const long long low = static_cast<long long>(center) - box / 2;  // corner at step 0
  const long long room = sign < 0 ? low : static_cast<long long>(n) - (low + box);
  return room < 0 ? -1 : room / step;
}

std::vector<uint2> centred_grid(int nx, int ny, int box, int step_x, int step_y, const char* caller) {
  std::vector<uint2> corners;
  if (step_x < 1 || step_y < 1 || box < 1 || box > nx || box > ny) return corners;
  const int cx = nx / 2, cy = ny / 2;
  const long long kx = std::min(steps_inside(nx, box, cx, step_x, -1), steps_inside(nx, box, cx, step_x, 1));
  const long long ky = std::min(steps_inside(ny, box, cy, step_y, -1), steps_inside(ny, box, cy, step_y, 1));
  if (kx < 0 || ky < 0) return corners;
  if ((2 * kx + 1) * (2 * ky + 1) > PTCL_BOX_MAX) {
    report_warning(caller, __FILE__, __LINE__, "Too many particle numbers!!");
    return corners;
  }
  corners.reserve(static_cast<size_t>((2 * kx + 1) * (2 * ky + 1)));
  for (long long j = -ky; j <= ky; ++j)
    for (long long i = -kx; i <= kx; ++i)
      corners.push_back(make_uint2(static_cast<unsigned int>(cx + i * step_x - box / 2),
                                   static_cast<unsigned int>(cy + j * step_y - box / 2)));
  return corners;
}

std::vector<float2> centres_of(const std::vector<uint2>& corners, int box) {
  std::vector<float2> centres;
  centres.reserve(corners.size());
  for (const uint2& c : corners)
    centres.push_back(make_float2(static_cast<float>(c.x + box / 2), static_cast<float>(c.y + box / 2)));
  return centres;
}

}  // namespace

int auto_generate_neighbor_boxes_circular(PTCL_BOX* out, int max_out, const PTCL_BOX& center, float radius,
                                          int box_size, int step) {
  if (out == nullptr || max_out < 1 || step < 1 || !(radius >= 0.0f)) return 0;
  const long long cx = ptcl_box_center_x(center), cy = ptcl_box_center_y(center);
  const double r = radius, s = step;
  const long long n = clamp_steps(std::floor(r / s));
  int count = 0;
  // Every row has its point i = 0, so the walk ends after at most max_out rows.
  for (long long j = -n; j <= n && count < max_out; ++j) {
    const double rest = r * r - (j * s) * (j * s);
    const long long m = rest > 0.0 ? clamp_steps(std::floor(std::sqrt(rest) / s)) + 1 : 1;
    for (long long i = -m; i <= m && count < max_out; ++i) {
      const double d = s * std::sqrt(static_cast<double>(i) * i + static_cast<double>(j) * j);
      if (d > r) continue;
      PTCL_BOX& b = out[count++];
      b = one_new_ptcl_box();
      b.x = clamp_int(cx + i * step - box_size / 2);
      b.y = clamp_int(cy + j * step - box_size / 2);
      b.w = b.h = box_size;
      b.cc = gauss_weight(d, radius);
      b.distance = static_cast<float>(d);
    }
  }
  return count;
}

int generate_neighbor_boxes_from_boxf(PTCL_BOX* out, int max_out, const char* name, const PTCL_BOX& center,
                                      float radius, int box_size) {
  const int count = read_all_ptcl_boxes(out, max_out, name);
  const double cx = ptcl_box_center_x(center), cy = ptcl_box_center_y(center);
  for (int k = 0; k < count; ++k) {
    PTCL_BOX& b = out[k];
    const int x = ptcl_box_center_x(b), y = ptcl_box_center_y(b);
    const double d = std::hypot(x - cx, y - cy);
    b.x = x - box_size / 2;
    b.y = y - box_size / 2;
    b.w = b.h = box_size;
    b.cc = gauss_weight(d, radius);
    b.distance = static_cast<float>(d);
  }
  return count;
}

std::vector<float2> auto_gridbox_2d(float x0, float x1, float step_x, float y0, float y1, float step_y) {
  std::vector<float2> points;
  if (!(step_x > 0.0f) || !(step_y > 0.0f) || !(x1 >= x0) || !(y1 >= y0)) return points;
  const double nx = std::floor((static_cast<double>(x1) - x0) / step_x) + 1;
  const double ny = std::floor((static_cast<double>(y1) - y0) / step_y) + 1;
  if (nx * ny > PTCL_BOX_MAX) {
    PK_WARNING("Too many particle numbers!!");
    return points;
  }
  points.reserve(static_cast<size_t>(nx * ny));
  for (int j = 0; j < static_cast<int>(ny); ++j)
    for (int i = 0; i < static_cast<int>(nx); ++i)
      points.push_back(make_float2(x0 + static_cast<float>(i) * step_x, y0 + static_cast<float>(j) * step_y));
  return points;
}

int auto_gridboxf_2d(const char* name, float x0, float x1, float step_x, float y0, float y1, float step_y) {
  return write_xy_star(name, auto_gridbox_2d(x0, x1, step_x, y0, y1, step_y), __func__);
}

std::vector<uint2> auto_gridbox_2d_from_center(int nx, int ny, int box, int step_x, int step_y) {
  return centred_grid(nx, ny, box, step_x, step_y, __func__);
}

std::vector<uint2> auto_gridbox_2d_from_center_nxm(int nx, int ny, int box, int n, int m) {
  return centred_grid(nx, ny, box, nx / (n < 1 ? 1 : n), ny / (m < 1 ? 1 : m), __func__);
}

int auto_grid_starboxf_2d_from_center(const char* name, int nx, int ny, int box, int step_x, int step_y) {
  return write_xy_star(name, centres_of(centred_grid(nx, ny, box, step_x, step_y, __func__), box), __func__);
}

int auto_grid_starboxf_2d_from_center_nxm(const char* name, int nx, int ny, int box, int n, int m) {
  return write_xy_star(
      name, centres_of(centred_grid(nx, ny, box, nx / (n < 1 ? 1 : n), ny / (m < 1 ? 1 : m), __func__), box),
      __func__);
}
