// Contamination areas of a simulated micrograph: the places where nothing must be picked.
// Shared by the simulator, which writes them, and the scorer, which counts picks inside them.
//
// Text format, micrograph pixels, one area per line, blank lines and lines starting with '#'
// ignored:
//   disc CX CY R                  a disc of radius R about (CX, CY)
//   polygon N X1 Y1 ... XN YN     a simple polygon of N >= 3 corners, in order
#pragma once

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cuda_general/report.h"

struct ContaminationArea {
  bool is_disc = true;
  double cx = 0, cy = 0, r = 0;   // disc
  std::vector<double> xs, ys;     // polygon corners
};

inline ContaminationArea make_disc_area(double cx, double cy, double r) {
  ContaminationArea a;
  a.cx = cx;
  a.cy = cy;
  a.r = r;
  return a;
}

inline ContaminationArea make_polygon_area(const std::vector<double>& xs, const std::vector<double>& ys) {
  ContaminationArea a;
  a.is_disc = false;
  a.xs = xs;
  a.ys = ys;
  return a;
}

// Even-odd rule; a point exactly on an edge may fall either way.
inline bool polygon_contains(const ContaminationArea& a, double x, double y) {
  bool inside = false;
  const size_t n = a.xs.size();
  for (size_t i = 0, j = n - 1; i < n; j = i++) {
    const bool crosses = (a.ys[i] > y) != (a.ys[j] > y);
    if (crosses && x < (a.xs[j] - a.xs[i]) * (y - a.ys[i]) / (a.ys[j] - a.ys[i]) + a.xs[i]) inside = !inside;
  }
  return inside;
}

inline double segment_distance(double px, double py, double ax, double ay, double bx, double by) {
  const double dx = bx - ax, dy = by - ay;
  const double len2 = dx * dx + dy * dy;
  double t = len2 > 0 ? ((px - ax) * dx + (py - ay) * dy) / len2 : 0.0;
  t = t < 0 ? 0 : (t > 1 ? 1 : t);
  return std::hypot(px - (ax + t * dx), py - (ay + t * dy));
}

// Distance from the point to the area: 0 inside, else the distance to its boundary.
inline double area_distance(const ContaminationArea& a, double x, double y) {
  if (a.is_disc) {
    const double d = std::hypot(x - a.cx, y - a.cy) - a.r;
    return d > 0 ? d : 0.0;
  }
  if (polygon_contains(a, x, y)) return 0.0;
  double best = INFINITY;
  const size_t n = a.xs.size();
  for (size_t i = 0, j = n - 1; i < n; j = i++) {
    const double d = segment_distance(x, y, a.xs[j], a.ys[j], a.xs[i], a.ys[i]);
    if (d < best) best = d;
  }
  return best;
}

inline bool area_contains(const ContaminationArea& a, double x, double y) {
  return a.is_disc ? std::hypot(x - a.cx, y - a.cy) < a.r : polygon_contains(a, x, y);
}

inline bool any_area_contains(const std::vector<ContaminationArea>& areas, double x, double y) {
  for (const ContaminationArea& a : areas)
    if (area_contains(a, x, y)) return true;
  return false;
}

inline void write_contamination_areas(std::FILE* fp, const std::vector<ContaminationArea>& areas) {
  std::fprintf(fp, "# contamination areas, micrograph pixels: nothing here should be picked\n");
  std::fprintf(fp, "# disc CX CY R | polygon N X1 Y1 ... XN YN\n");
  for (const ContaminationArea& a : areas) {
    if (a.is_disc) {
      std::fprintf(fp, "disc %.2f %.2f %.2f\n", a.cx, a.cy, a.r);
      continue;
    }
    std::fprintf(fp, "polygon %zu", a.xs.size());
    for (size_t i = 0; i < a.xs.size(); ++i) std::fprintf(fp, " %.2f %.2f", a.xs[i], a.ys[i]);
    std::fprintf(fp, "\n");
  }
}

// Reads the file into areas (appending). A missing file or a malformed line is fatal.
inline void read_contamination_areas(const char* path, std::vector<ContaminationArea>& areas) {
  std::FILE* fp = std::fopen(path, "r");
  if (fp == nullptr) PK_FATAL("cannot open the contamination file '%s'", path);
  std::string word;
  char buf[64];
  int area_no = 0;
  // One token at a time keeps long polygon lines out of any fixed line buffer.
  auto next_number = [&](double& v) {
    if (std::fscanf(fp, "%63s", buf) != 1) return false;
    char* end = nullptr;
    v = std::strtod(buf, &end);
    return end != buf && *end == '\0';
  };
  while (std::fscanf(fp, " %63s", buf) == 1) {
    word = buf;
    if (word[0] == '#') {
      int c;
      while ((c = std::fgetc(fp)) != EOF && c != '\n') {
      }
      continue;
    }
    ++area_no;
    double v[3];
    if (word == "disc") {
      if (!next_number(v[0]) || !next_number(v[1]) || !next_number(v[2]) || v[2] < 0) {
        std::fclose(fp);
        PK_FATAL("malformed disc in '%s', area %d", path, area_no);
      }
      areas.push_back(make_disc_area(v[0], v[1], v[2]));
    } else if (word == "polygon") {
      double n = 0;
      if (!next_number(n) || n < 3 || n > 1e6 || n != std::floor(n)) {
        std::fclose(fp);
        PK_FATAL("malformed polygon in '%s', area %d", path, area_no);
      }
      std::vector<double> xs, ys;
      for (int i = 0; i < static_cast<int>(n); ++i) {
        if (!next_number(v[0]) || !next_number(v[1])) {
          std::fclose(fp);
          PK_FATAL("polygon in '%s', area %d, has fewer corners than it says", path, area_no);
        }
        xs.push_back(v[0]);
        ys.push_back(v[1]);
      }
      areas.push_back(make_polygon_area(xs, ys));
    } else {
      std::fclose(fp);
      PK_FATAL("unknown area kind '%s' in '%s' (expected disc or polygon)", buf, path);
    }
  }
  std::fclose(fp);
}
