// Grid peak search: the first-pixel rule and tie-breaks of the cell scan, partial cells, the
// strict cut-off, the neighbour test and the exclusion loop. Pure integer geometry and
// comparisons, so everything is compared exactly.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "pickora56/grid_peaks.h"
#include "cuda_general/report.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

struct Peak {
  int x, y;
  float cc;
};

// A ccmax map of constant `base` with peaks, and a psi map whose value tells the pixel.
struct Maps {
  int nx, ny;
  std::vector<float> cc, psi;
  Maps(int nx_, int ny_, std::vector<Peak> peaks, float base = 0.0f)
      : nx(nx_), ny(ny_), cc(size_t(nx_) * ny_, base), psi(size_t(nx_) * ny_) {
    for (size_t i = 0; i < psi.size(); ++i) psi[i] = 0.5f * float(i);
    for (const Peak& p : peaks) cc[size_t(p.y) * nx + p.x] = p.cc;
  }
  unsigned index(int x, int y) const { return unsigned(y * nx + x); }
};

struct Grid {
  std::vector<unsigned> index;
  std::vector<float> cc, psi;
};

// The picker's entry, with an exclusion list (none when empty).
Grid search(const Maps& m, int step, float cutoff, const std::vector<unsigned>& exclusion = {}, int exclusion_n = -1) {
  const size_t cells = size_t(grid_cells_along(m.nx, step)) * grid_cells_along(m.ny, step);
  float* cc = to_device(m.cc);
  float* psi = to_device(m.psi);
  unsigned* ex = exclusion.empty() ? nullptr : to_device(exclusion);
  Grid g{std::vector<unsigned>(cells, 77u), std::vector<float>(cells, 77.0f), std::vector<float>(cells, 77.0f)};
  gpu_find_filter_ccmax_psi_grids_exclusive(cc, psi, g.index.data(), g.cc.data(), g.psi.data(), cutoff, m.nx, m.ny,
                                            step, ex, exclusion_n < 0 ? unsigned(exclusion.size()) : exclusion_n);
  EXPECT_EQ(to_host(cc, m.cc.size()), m.cc) << "the caller's map must stay as it was";
  cudaFree(cc);
  cudaFree(psi);
  if (ex != nullptr) cudaFree(ex);
  return g;
}

std::set<unsigned> survivors(const Grid& g) {
  std::set<unsigned> s;
  for (unsigned i : g.index)
    if (i != 0) s.insert(i);
  return s;
}

// ---------------------------------------------------------------------------------------------

// 45 x 35 with steps of 10: 5 x 4 cells, the last column 5 wide and the last row 5 high.
TEST(FindGridPeaks, FirstPixelRuleTiesNaNAndPartialCells) {
  const float nan = NAN;
  const int nx = 45, ny = 35, gnx = 5;
  const Maps m(nx, ny,
               {{0, 0, 5.0f},                    // cell (0,0): maximum on the first pixel, no candidate
                {11, 0, 5.0f},                   // cell (1,0): one pixel further right, a candidate
                {25, 3, 4.0f}, {22, 6, 4.0f},    // cell (2,0): equal maxima, the first in row order wins
                {31, 1, nan}, {35, 5, 3.0f},     // cell (3,0): a NaN never wins
                {40, 10, nan}, {44, 19, 6.0f},   // cell (4,1): a NaN first pixel blocks every later value
                {44, 34, 2.0f},                  // cell (4,3): the partial corner cell
                {2, 31, 9.0f}});                 // cell (0,3): on the row after (49, 30), which is no pixel
  const size_t cells = 20;
  float *cc = to_device(m.cc), *psi = to_device(m.psi);
  float *d_cc = to_device(std::vector<float>(cells, 77.0f)), *d_psi = to_device(std::vector<float>(cells, 77.0f));
  unsigned* d_index = to_device(std::vector<unsigned>(cells, 77u));
  hcuda_find_ccmax_psi_grids(cc, psi, d_index, d_cc, d_psi, nx, ny, 10);

  std::vector<unsigned> want_index(cells, 0u);
  std::vector<float> want_cc(cells, 0.0f);
  auto expect = [&](int gx, int gy, unsigned index, float value) {
    want_index[gy * gnx + gx] = index;
    want_cc[gy * gnx + gx] = value;
  };
  expect(0, 0, 0, 5.0f);
  expect(1, 0, m.index(11, 0), 5.0f);
  expect(2, 0, m.index(25, 3), 4.0f);
  expect(3, 0, m.index(35, 5), 3.0f);
  expect(4, 1, 0, nan);
  expect(4, 3, m.index(44, 34), 2.0f);
  expect(0, 3, m.index(2, 31), 9.0f);
  const std::vector<unsigned> index = to_host(d_index, cells);
  const std::vector<float> got_cc = to_host(d_cc, cells), got_psi = to_host(d_psi, cells);
  EXPECT_EQ(index, want_index);
  for (size_t c = 0; c < cells; ++c) {
    if (std::isnan(want_cc[c]))
      EXPECT_TRUE(std::isnan(got_cc[c])) << c;
    else
      EXPECT_EQ(got_cc[c], want_cc[c]) << c;
    EXPECT_EQ(got_psi[c], index[c] != 0 ? m.psi[index[c]] : 77.0f) << "psi is written with a candidate only, cell " << c;
  }
  for (void* d : {(void*)cc, (void*)psi, (void*)d_index, (void*)d_cc, (void*)d_psi}) cudaFree(d);
}

TEST(FilterGridPeaks, CutoffIsStrictAndKeepsTheCellMaximum) {
  const float below = std::nextafter(0.5f, 0.0f);
  // Wider than high (7 x 5 cells), so that a width taken for the height shows.
  const Maps m(70, 50, {{15, 15, 0.5f}, {35, 15, below}, {65, 45, 0.75f}});
  const Grid g = search(m, 10, 0.5f);
  EXPECT_EQ(survivors(g), (std::set<unsigned>{m.index(15, 15), m.index(65, 45)}));
  EXPECT_EQ(g.cc[1 * 7 + 3], below);
  EXPECT_EQ(g.psi[1 * 7 + 1], m.psi[m.index(15, 15)]);
  EXPECT_EQ(g.psi[4 * 7 + 6], m.psi[m.index(65, 45)]);  // the last cell: every cell comes back
}

// Suppression radius with steps of 10: squared distance strictly below 200.
TEST(FilterGridPeaks, OnlyAStrongerCloseNeighbourSuppresses) {
  struct Case {
    const char* what;
    Peak a, b;
    bool a_stays, b_stays;
  };
  const Case cases[] = {
      {"left/right, close, weaker b", {28, 25, 2.0f}, {31, 25, 1.0f}, true, false},
      {"above/below, close, weaker b", {25, 28, 2.0f}, {25, 31, 1.0f}, true, false},
      {"close, equal values", {28, 25, 1.0f}, {31, 25, 1.0f}, true, true},
      {"diagonal, squared distance 200", {25, 25, 2.0f}, {35, 35, 1.0f}, true, true},
      {"diagonal, squared distance 181", {25, 25, 2.0f}, {35, 34, 1.0f}, true, false},
      {"close but two cells apart", {29, 25, 2.0f}, {40, 25, 1.0f}, true, true},
      {"rim cells, clamped onto themselves", {75, 75, 2.0f}, {1, 78, 1.0f}, true, true},
  };
  for (const Case& c : cases) {
    // 9 x 8 cells: wider than high, so that a width taken for the height moves the neighbours,
    // and the index array ends on an allocation boundary, so that a neighbour read past the
    // last row is caught by the address sanitizer.
    const Maps m(90, 80, {c.a, c.b});
    std::set<unsigned> want;
    if (c.a_stays) want.insert(m.index(c.a.x, c.a.y));
    if (c.b_stays) want.insert(m.index(c.b.x, c.b.y));
    EXPECT_EQ(survivors(search(m, 10, -1.0f)), want) << c.what;
  }
}

// The exclusion list is a flat list of pixel indices; a word of 0 is pixel (0, 0).
TEST(FilterGridPeaks, ExclusionLoopClearsPeaksCloseToAnyListedPixel) {
  const Maps m(60, 60, {{5, 5, 1.0f}, {45, 45, 1.0f}, {25, 45, 1.0f}, {45, 15, 1.0f}});
  const unsigned near_origin = m.index(5, 5), p45 = m.index(45, 45), p25 = m.index(25, 45), p15 = m.index(45, 15);
  const unsigned spot = m.index(52, 52);       // squared distance 98 from (45, 45)
  const unsigned at_limit = m.index(35, 55);   // squared distance 200 from (25, 45)
  const unsigned far_row = m.index(46, 29);    // squared distance 197 from (45, 15), 14 rows away
  std::vector<unsigned> zeros(36, 0u), no_zero(36, m.index(59, 0));
  zeros[3] = spot;
  zeros[4] = at_limit;
  zeros[20] = far_row;
  no_zero[35] = spot;
  struct Case {
    const char* what;
    std::vector<unsigned> list;
    int n;
    std::set<unsigned> want;
  };
  const Case cases[] = {
      {"zero words exclude the origin", zeros, 36, {p25}},
      {"no zero word", no_zero, 36, {near_origin, p25, p15}},
      {"words past exclusion_n are not read", no_zero, 35, {near_origin, p45, p25, p15}},
  };
  for (const Case& c : cases) EXPECT_EQ(survivors(search(m, 10, -1.0f, c.list, c.n)), c.want) << c.what;
}

// Every launcher family agrees with the picker's entry on one random map (non-square, partial
// cells, a cut-off that drops some peaks, a running best over two maps).
TEST(GridPeakLaunchers, AgreeWithThePickersEntry) {
  const int nx = 47, ny = 33, step = 8, cells = 6 * 5;
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  Maps a(nx, ny, {}), b(nx, ny, {});
  for (float& v : a.cc) v = u(rng);
  for (float& v : b.cc) v = u(rng);
  const std::vector<unsigned> exclusion = {a.index(20, 20), a.index(3, 30)};
  const Grid want = search(a, step, 0.9f), want_ex = search(a, step, 0.9f, exclusion);
  float *cc = to_device(a.cc), *cc_b = to_device(b.cc), *psi = to_device(a.psi);
  unsigned* index = device_zeros<unsigned>(cells);
  float *g_cc = device_zeros<float>(cells), *g_psi = device_zeros<float>(cells);
  unsigned* ex = to_device(exclusion);
  DeviceFrees frees(cc, cc_b, psi, index, g_cc, g_psi, ex);
  auto expect_index = [&](const std::vector<unsigned>& w, const char* what) {
    EXPECT_EQ(to_host(index, cells), w) << what;
    EXPECT_EQ(to_host(g_cc, cells), want.cc) << what;
  };
  hcuda_find_filter_ccmax_psi_grids(cc, psi, index, g_cc, g_psi, 0.9f, nx, ny, step);
  expect_index(want.index, "find and filter with psi");
  const std::vector<float> got_psi = to_host(g_psi, cells);
  for (int c = 0; c < cells; ++c) {
    if (want.index[c] != 0) {
      EXPECT_EQ(got_psi[c], want.psi[c]) << c;
    }
  }
  hcuda_find_filter_ccmax_grids(cc, index, g_cc, 0.9f, nx, ny, step);
  expect_index(want.index, "find and filter");
  hcuda_find_ccmax_grids(cc, index, g_cc, nx, ny, step);
  hcuda_filter_ccmax_grids(cc, index, g_cc, 0.9f, nx, ny, step);
  expect_index(want.index, "find, then filter in place");
  hcuda_find_ccmax_grids(cc, index, g_cc, nx, ny, step);
  hcuda_filter_ccmax_psi_grids_exclusive(index, g_cc, 0.9f, nx, ny, step, ex, 2);
  expect_index(want_ex.index, "find, then filter in place with exclusions");

  // Running best: the second map replaces a cell only where its maximum is strictly larger.
  hcuda_find_ccmax_grids(cc_b, index, g_cc, nx, ny, step);
  const std::vector<unsigned> found_b = to_host(index, cells);
  const std::vector<float> cc_of_b = to_host(g_cc, cells);
  hcuda_find_ccmax_grids(cc, index, g_cc, nx, ny, step);
  std::vector<unsigned> best = to_host(index, cells);
  std::vector<float> best_cc = to_host(g_cc, cells);
  for (int c = 0; c < cells; ++c)
    if (cc_of_b[c] > best_cc[c]) best[c] = found_b[c], best_cc[c] = cc_of_b[c];
  hcuda_find_update_ccmax_grids(cc_b, index, g_cc, nx, ny, step);
  EXPECT_EQ(to_host(index, cells), best);
  EXPECT_EQ(to_host(g_cc, cells), best_cc);
  hcuda_filter_ccmax_grids(cc, index, g_cc, -1.0f, nx, ny, step);
  const std::vector<unsigned> filtered = to_host(index, cells);
  EXPECT_NE(filtered, best) << "some neighbour suppresses";
  EXPECT_EQ(memcpy_H2D(index, best.data(), sizeof(unsigned) * cells), cudaSuccess);
  hcuda_find_update_filter_ccmax_grids(cc_b, index, g_cc, -1.0f, nx, ny, step);
  EXPECT_EQ(to_host(g_cc, cells), best_cc) << "a second pass with the same map changes nothing";
  EXPECT_EQ(to_host(index, cells), filtered);

  for (int bad : {0, -3}) EXPECT_THROW(hcuda_find_ccmax_grids(cc, index, g_cc, nx, ny, bad), pickora::FatalError);
  EXPECT_EXIT_REPORT(hcuda_find_ccmax_grids(cc, index, g_cc, 0, ny, step), "not 0 x 33 with step 8");
  EXPECT_THROW(hcuda_find_ccmax_grids(cc, index, g_cc, nx, 0, step), pickora::FatalError);
}

}  // namespace
