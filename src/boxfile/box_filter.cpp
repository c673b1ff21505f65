// box_filter: where the templates meet. One grid over the shrunk micrograph, one winner per
// cell, one greedy neighbour pass, the exclude file, the edge test, and the final rows.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <vector>

#include "boxfile/box_filter.h"
#include "boxfile/ptcl_box.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/atomic_file.h"
#include "txt_file/txt_file.h"

namespace {

const char* const kFilter = "box_filter";  // the function named in the reports

// The four working arrays, addressed by cell number. An index of 0 means an empty cell.
struct Cells {
  std::vector<unsigned int> index;  // y * nx + x, work pixels
  std::vector<int> cls;             // template of the best candidate, -1 for none
  std::vector<float> cc;
  std::vector<float> psi;
  explicit Cells(int n) : index(n, 0u), cls(n, -1), cc(n, 0.0f), psi(n, 0.0f) {}
};

struct Pixel {
  long long x, y;
};

Pixel decode(unsigned int index, const BoxFilterGrid& g) {
  const unsigned int stride = static_cast<unsigned int>(g.nx);
  return {static_cast<long long>(index % stride), static_cast<long long>(index / stride)};
}

bool near(unsigned int a, unsigned int b, const BoxFilterGrid& g) {
  const Pixel p = decode(a, g), q = decode(b, g);
  const long long dx = p.x - q.x, dy = p.y - q.y;
  return dx * dx + dy * dy < g.near_limit;
}

// Competition between templates: the strictly higher cc takes the cell, so on a tie the row
// read first (the lower template number) keeps it, and a cc at or below 0 never takes one.
void compete(Cells& cells, const BoxFilterGrid& g, const PickoraCandidate& c) {
  const long long x = static_cast<long long>(c.x0) + c.bx / 2;
  const long long y = static_cast<long long>(c.y0) + c.by / 2;
  // x at or beyond nx lies in the mirror extension of the work image; negative positions can
  // only come from a damaged file. Neither has a cell.
  if (x < 0 || y < 0 || x >= g.nx) return;
  const long long cell = (y / g.step) * g.cells_x + x / g.step;
  const unsigned long long index = static_cast<unsigned long long>(y) * g.nx + static_cast<unsigned long long>(x);
  if (cell >= g.cells || index > UINT_MAX) return;
  if (c.cc > cells.cc[cell]) {
    cells.index[cell] = static_cast<unsigned int>(index);
    cells.cc[cell] = c.cc;
    cells.cls[cell] = c.template_number;
    cells.psi[cell] = c.psi;
  }
}

// Reads every row of the candidate file into the cells. A damaged file is fatal, naming the
// file and the line, before anything has been written.
void read_candidates(const char* name, const BoxFilterGrid& g, Cells& cells) {
  FILE* fp = fopen_read_or_exit(name, kFilter, __FILE__, __LINE__);
  char line[PICKORA_LINE_LEN];
  bool cut = false;
  for (int number = 1; read_whole_line(line, fp, &cut); ++number) {
    PickoraCandidate c;
    const int got = cut ? -1 : parse_pickora_candidate_line(line, &c);
    if (got < 0) {
      std::fclose(fp);
      report_fatal(kFilter, __FILE__, __LINE__,
                   "candidate file '%s' is damaged at line %d: seven fields expected (x, y, box, box, cc, "
                   "template, psi)",
                   name, number);
    }
    if (got == 1) compete(cells, g, c);
  }
  const bool failed = std::ferror(fp) != 0;
  std::fclose(fp);
  if (failed) report_fatal(kFilter, __FILE__, __LINE__, "reading the candidate file '%s' failed", name);
}

// One pass in scan order, in place: a cell falls to a near neighbour of greater or equal cc.
// At the rim the missing step is dropped, so a rim cell meets itself (distance 0, equal cc)
// and the outermost ring is always cleared.
void neighbour_pass(Cells& cells, const BoxFilterGrid& g, float cc_cutoff) {
  for (int gy = 0; gy < g.cells_y; ++gy) {
    const int below = std::min(gy + 1, g.cells_y - 1), above = std::max(gy - 1, 0);
    for (int gx = 0; gx < g.cells_x; ++gx) {
      const int left = std::max(gx - 1, 0), right = std::min(gx + 1, g.cells_x - 1);
      const int rows[8] = {below, above, gy, gy, below, below, above, above};
      const int cols[8] = {gx, gx, left, right, left, right, left, right};
      const int self = gy * g.cells_x + gx;
      bool cleared = false;
      for (int k = 0; k < 8 && !cleared; ++k) {
        const int n = rows[k] * g.cells_x + cols[k];
        if (near(cells.index[n], cells.index[self], g) && cells.cc[n] >= cells.cc[self]) {
          cells.index[self] = 0;
          cleared = true;
        }
      }
      if (!cleared && cc_cutoff > cells.cc[self]) cells.index[self] = 0;
    }
  }
}

// The exclude file's boxes, at most one per cell; none for a null name or an unreadable file.
std::vector<PTCL_BOX> read_excluded(const char* name, int max_boxes) {
  std::vector<PTCL_BOX> boxes;
  if (is_str_null(name) || check_file_access(name, "FR") != 0) return boxes;
  boxes.resize(static_cast<size_t>(max_boxes));
  boxes.resize(static_cast<size_t>(read_all_ptcl_boxes(boxes.data(), max_boxes, name)));
  return boxes;
}

// Clears every cell whose position, in micrograph pixels, lies near an excluded box's centre.
void apply_exclusion(Cells& cells, const BoxFilterGrid& g, const std::vector<PTCL_BOX>& excluded, float shrink,
                     int2 origin) {
  if (excluded.empty()) return;
  const float limit_f = static_cast<float>(g.near_limit) * shrink * shrink;
  const double limit = static_cast<double>(limit_f);
  for (int c = 0; c < g.cells; ++c) {
    if (cells.index[c] == 0) continue;  // clearing an empty cell changes nothing
    const Pixel p = decode(cells.index[c], g);
    const long long px = static_cast<long long>(static_cast<float>(p.x) * shrink) + origin.x;
    const long long py = static_cast<long long>(static_cast<float>(p.y) * shrink) + origin.y;
    for (const PTCL_BOX& b : excluded) {
      const double dx = static_cast<double>(px - ptcl_box_center_x(b));
      const double dy = static_cast<double>(py - ptcl_box_center_y(b));
      if (dx * dx + dy * dy < limit) {
        cells.index[c] = 0;
        break;
      }
    }
  }
}

struct Geometry {
  float shrink;
  int boxx, boxy;
  int2 origin;
};

// The edge test and the row of one winning cell, in micrograph pixels.
void write_cell(FILE* fp, const Cells& cells, int c, const BoxFilterGrid& g, const Geometry& geo, int mode) {
  const Pixel p = decode(cells.index[c], g);
  const float xs = static_cast<float>(p.x) * geo.shrink;
  const float ys = static_cast<float>(p.y) * geo.shrink;
  const int half_w = geo.boxx / 2, half_h = geo.boxy / 2;
  const bool inside = static_cast<float>(g.nx) * geo.shrink - static_cast<float>(half_w) > xs &&
                      static_cast<float>(g.ny) * geo.shrink - static_cast<float>(half_h) > ys &&
                      xs > static_cast<float>(half_w) && ys > static_cast<float>(half_h);
  if (!inside) return;
  if (mode == BOX_FILTER_STAR)
    std::fprintf(fp, PICKORA_STAR_ROW_FORMAT, static_cast<int>(xs) + geo.origin.x, static_cast<int>(ys) + geo.origin.y,
                 cells.psi[c], cells.cls[c], cells.cc[c]);
  else
    std::fprintf(fp, PICKORA_BOX_ROW_FORMAT, static_cast<int>(xs - static_cast<float>(half_w)) + geo.origin.x,
                 static_cast<int>(ys - static_cast<float>(half_h)) + geo.origin.y, geo.boxx, geo.boxy, cells.cc[c],
                 cells.cls[c], cells.psi[c]);
}

}  // namespace

BoxFilterGrid box_filter_grid(int nx, int ny, float min_dist) {
  if (nx < 1 || ny < 1) PK_FATAL("image size %d x %d: both sides must be positive", nx, ny);
  const float step_f = min_dist * 1.4142135f * 0.5f;
  if (!(step_f >= 1.0f) || step_f > 1e6f)
    PK_FATAL("min_dist of %g work pixels gives no usable grid (cell side %g)", min_dist, step_f);
  BoxFilterGrid g;
  g.step = static_cast<int>(step_f);
  const long long step = g.step;
  const long long grid_n = (std::max(nx, ny) + step - 1) / step;
  if (grid_n * grid_n > INT_MAX) PK_FATAL("a grid of %lld x %lld cells is too large", grid_n, grid_n);
  g.grid_n = static_cast<int>(grid_n);
  g.cells = static_cast<int>(grid_n * grid_n);
  g.nx = nx;
  g.ny = ny;
  g.cells_x = static_cast<int>((nx + step - 1) / step);
  g.cells_y = static_cast<int>((ny + step - 1) / step);
  g.near_limit = 2 * step * step;
  return g;
}

int get_grid_Num(int nx, int ny, float min_dist) { return box_filter_grid(nx, ny, min_dist).cells; }

int box_filter(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int boxx, int boxy, int2 origin,
               const char* candidates, const char* excluded, const char* output, int mode) {
  const BoxFilterGrid g = box_filter_grid(nx, ny, min_dist);
  Cells cells(g.cells);
  read_candidates(candidates, g, cells);
  neighbour_pass(cells, g, cc_cutoff);
  apply_exclusion(cells, g, read_excluded(excluded, g.cells), shrink, origin);

  AtomicFile out(output);  // a kill or a full disk leaves no partial file under the final name
  if (mode == BOX_FILTER_STAR) output_starbox_head(out.stream());
  const Geometry geo{shrink, boxx, boxy, origin};
  for (int c = 0; c < g.cells; ++c)
    if (cells.cls[c] != -1 && cells.index[c] != 0) write_cell(out.stream(), cells, c, g, geo, mode);
  out.commit();
  return 0;
}
