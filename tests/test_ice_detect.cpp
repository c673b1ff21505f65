// Contamination detection: the soft disc, the local maps, the cell scan, the rejected files
// and the whole detection on a synthetic micrograph.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/ice_detect.h"
#include "process2d_raw/local_stats.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace {

TEST(SoftDisc, FlatCoreGaussianRimAndZeroBeyond) {
  // Centre (10, 10), radius 3, soft 3: along the row the distance is |x - 10|.
  const unsigned n = 21;
  float* d = device_zeros<float>(n * n);
  hcuda_2d_generate_rmask_soft(d, n, n, 10.0f, 10.0f, 3.0f, 3.0f);
  const std::vector<float> m = to_host(d, n * n);
  const float g = 0.3989423f;
  const struct { unsigned x; float want; } cases[] = {
      {10, 1.0f}, {13, 1.0f},                       // on the radius is still inside
      {14, g * std::exp(-0.5f)},                    // t = 1, S = 1
      {16, g * std::exp(-4.5f)},                    // radius + soft is the last non-zero
      {17, 0.0f}, {20, 0.0f}};
  for (const auto& c : cases) EXPECT_NEAR(m[10 * n + c.x], c.want, 1e-7f) << "x " << c.x;
  cudaFree(d);
}

// The padded local mean and sigma written directly: the image mirrored into 2 nx by 2 ny, the
// disc of that size centred between its middle pixels, the mean at (x, y) over the periodic
// padded image with the disc's centre on (x - 0.5, y - 0.5). Double precision.
void reference_local_maps(const std::vector<float>& img, int nx, int ny, float radius, float soft,
                          std::vector<double>& ave, std::vector<double>& sigma) {
  const int px = 2 * nx, py = 2 * ny;
  auto padded = [&](int x, int y) {
    x = ((x % px) + px) % px;
    y = ((y % py) + py) % py;
    return static_cast<double>(img[(y < ny ? y : py - 1 - y) * nx + (x < nx ? x : px - 1 - x)]);
  };
  ave.assign(static_cast<size_t>(nx) * ny, 0.0);
  sigma.assign(ave.size(), 0.0);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      double s0 = 0.0, s1 = 0.0, s2 = 0.0;
      for (int ty = 0; ty < py; ++ty)
        for (int tx = 0; tx < px; ++tx) {
          const double w = rmask_soft_value(tx, ty, (px - 1) * 0.5f, (py - 1) * 0.5f, radius, soft);
          const double v = padded(tx + x - nx, ty + y - ny);
          s0 += w, s1 += w * v, s2 += w * v * v;
        }
      ave[y * nx + x] = s1 / s0;
      sigma[y * nx + x] = std::sqrt(s2 / s0 - (s1 / s0) * (s1 / s0));
    }
}

TEST(LocalMaps, PaddedMeanAndSigmaMatchDirectSums) {
  const int nx = 24, ny = 16;
  const float radius = 3.0f, soft = 2.5f;
  const std::vector<float> img = random_image(nx * ny, 11);
  std::vector<double> ref_ave, ref_sigma;
  reference_local_maps(img, nx, ny, radius, soft, ref_ave, ref_sigma);

  float* d_img = to_device(img);
  float* d_ave = device_zeros<float>(nx * ny);
  float* d_sigma = device_zeros<float>(nx * ny);
  hcuda_2d_local_ave_softR_mpad(d_ave, d_img, nx, ny, radius, soft);
  hcuda_2d_local_sigma_softR_mpad(d_sigma, d_img, nx, ny, radius, soft);
  const std::vector<float> ave = to_host(d_ave, nx * ny), sigma = to_host(d_sigma, nx * ny);
  EXPECT_EQ(to_host(d_img, nx * ny), img);  // the input is only read
  for (int i = 0; i < nx * ny; ++i) {
    ASSERT_NEAR(ave[i], ref_ave[i], 1e-5) << "pixel " << i;
    ASSERT_NEAR(sigma[i], ref_sigma[i], 1e-4) << "pixel " << i;
  }
  // In place gives the same map.
  hcuda_2d_bg_mpad_inplace(d_img, nx, ny, radius, soft);
  EXPECT_EQ(to_host(d_img, nx * ny), ave);
  cudaFree(d_img);
  cudaFree(d_ave);
  cudaFree(d_sigma);
}

// The two maps made together, with discs kept from call to call, are the bytes of the two
// separate functions: on the call that makes the discs, on a later image, and with radii swapped.
TEST(LocalMaps, MadeTogetherTheyAreTheBytesOfTheSeparateFunctions) {
  const int nx = 24, ny = 16;
  LocalMapsWorkspace ws{};
  float* d_ave = device_zeros<float>(nx * ny);
  float* d_sigma = device_zeros<float>(nx * ny);
  for (auto [seed, r_ave, r_sigma] : {std::tuple{21u, 5.0f, 3.0f}, {22u, 5.0f, 3.0f}, {23u, 3.0f, 5.0f}}) {
    float* d_img = to_device(random_image(nx * ny, seed));
    hcuda_2d_local_ave_softR_mpad(d_ave, d_img, nx, ny, r_ave, 2.5f);
    hcuda_2d_local_sigma_softR_mpad(d_sigma, d_img, nx, ny, r_sigma, 2.5f);
    const std::vector<float> want_ave = to_host(d_ave, nx * ny), want_sigma = to_host(d_sigma, nx * ny);
    hcuda_2d_local_ave_sigma_mpad(&ws, d_ave, d_sigma, d_img, nx, ny, r_ave, r_sigma, 2.5f);
    const std::vector<float> ave = to_host(d_ave, nx * ny), sigma = to_host(d_sigma, nx * ny);
    EXPECT_EQ(0, std::memcmp(ave.data(), want_ave.data(), ave.size() * sizeof(float))) << seed;
    EXPECT_EQ(0, std::memcmp(sigma.data(), want_sigma.data(), sigma.size() * sizeof(float))) << seed;
    cudaFree(d_img);
  }
  EXPECT_EQ(ws.discs.size(), 2u);  // one per radius, kept across the three images
  local_maps_workspace_release(&ws);
  cudaFree(d_ave);
  cudaFree(d_sigma);
}

// ---- The cell scan ---------------------------------------------------------------------------

struct ScanCase {
  const char* name;
  std::vector<float> ave, sigma;  // one 4 x 4 cell, scan order
  unsigned want_word;
};

std::vector<float> filled(float v) { return std::vector<float>(16, v); }
std::vector<float> with(std::vector<float> m, std::initializer_list<std::pair<int, float>> set) {
  for (auto [i, v] : set) m[i] = v;
  return m;
}
std::vector<float> ramp(float start, float step) {
  std::vector<float> m(16);
  for (int i = 0; i < 16; ++i) m[i] = start + step * static_cast<float>(i);
  return m;
}

// Scans an nx x ny map in cells of 4 with the cut-offs lave_min -1, lave_max 1, lsigma_cutoff 1.3;
// returns the cell words, averages and sigmas, each with one guard entry past the grid.
struct Scan {
  std::vector<unsigned> word;
  std::vector<float> ave, sigma;
};
Scan scan(const std::vector<float>& ave, const std::vector<float>& sigma, int nx, int ny, int cells) {
  float* d_ave = to_device(ave);
  float* d_sigma = to_device(sigma);
  unsigned* d_grid = to_device(std::vector<unsigned>(cells + 1, 99u));
  float* d_cave = to_device(std::vector<float>(cells + 1, 99.0f));
  float* d_csig = to_device(std::vector<float>(cells + 1, 99.0f));
  hcuda_find_sigma_grids(d_ave, d_sigma, d_grid, d_cave, d_csig, nx, ny, 4, -1.0f, 1.0f, 1.3f);
  Scan r{to_host(d_grid, cells + 1), to_host(d_cave, cells + 1), to_host(d_csig, cells + 1)};
  for (void* p : {(void*)d_ave, (void*)d_sigma, (void*)d_grid, (void*)d_cave, (void*)d_csig}) cudaFree(p);
  return r;
}

TEST(SigmaGrids, RecordRules) {
  const std::vector<ScanCase> cases = {
      {"only the first pixel beyond", filled(0.0f), with(filled(0.5f), {{0, 2.0f}}), 0},
      {"constant beyond the cut-off", filled(0.0f), filled(2.0f), 0},
      {"exactly at the cut-off", filled(0.0f), with(filled(0.5f), {{5, 1.3f}}), 0},
      {"just above the cut-off", filled(0.0f), with(filled(0.5f), {{5, 1.31f}}), 5},
      {"falling average: last new low", ramp(-0.5f, -0.16f), filled(0.5f), 15},
      {"rising from -3: nothing", ramp(-3.0f, 0.1f), filled(0.5f), 0},
      {"bright then dark: the later stands", with(filled(0.0f), {{4, 1.5f}, {9, -1.5f}}), filled(0.5f), 9},
      // The record is one pair: taking pixel 6 for its average also puts its sigma 0.5 on
      // record, so pixel 9 (1.5, below the earlier 2.0) is taken after it.
      {"one pair on record", with(filled(0.0f), {{6, 1.5f}}), with(filled(0.5f), {{3, 2.0f}, {9, 1.5f}}), 9},
  };
  for (const auto& c : cases) {
    const Scan s = scan(c.ave, c.sigma, 4, 4, 1);
    EXPECT_EQ(s.word[0], c.want_word) << c.name;
    EXPECT_EQ(s.ave[0], c.ave[c.want_word]) << c.name;
    EXPECT_EQ(s.sigma[0], c.sigma[c.want_word]) << c.name;
  }
  // 6 x 6 in cells of 4: 2 x 2 cells, the last column and row 2 pixels wide; nothing past the grid.
  std::vector<float> sigma(36, 0.5f);
  sigma[35] = 3.0f;
  const Scan partial = scan(std::vector<float>(36, 0.0f), sigma, 6, 6, 4);
  EXPECT_EQ(partial.word, (std::vector<unsigned>{0, 0, 0, 35, 99}));
  EXPECT_EQ(partial.sigma[4], 99.0f);
}

// ---- The rejected files ----------------------------------------------------------------------

TEST(RejectedFiles, LinesRimRuleAndUnwritablePath) {
  // work_size 1024, cells of 84 (13 x 13), shrink 4, so half = 42.
  const int n = 1024, step = 84, cols = 13;
  std::vector<unsigned> grid(cols * cols, 0);
  std::vector<float> ave(grid.size(), 0.0f), sigma(grid.size(), 0.0f);
  auto mark = [&](int x, int y) {
    const int cell = (y / step) * cols + x / step;
    grid[cell] = static_cast<unsigned>(y * n + x);
    ave[cell] = 1.5f;
    sigma[cell] = 0.75f;
  };
  mark(42, 100);   // on the rim band: kept in the grid, not listed
  mark(43, 200);   // just inside
  mark(500, 300);
  mark(981, 500);  // last column inside: x < 1024 - 42
  mark(982, 600);  // on the far rim band
  TempDir dir;
  const std::string box = dir.file("m_rejected.box"), star = dir.file("m_rejected.star");
  output_ice_coord(box.c_str(), grid.data(), ave.data(), sigma.data(), n, n, int2{0, 0}, step, 4, 2);
  output_ice_coord(star.c_str(), grid.data(), ave.data(), sigma.data(), n, n, int2{0, 0}, step, 4, 1);
  EXPECT_EQ(read_file_text(box),
            "4       632     336     336     \t1.500000\t0.750000\n"
            "1832    1032    336     336     \t1.500000\t0.750000\n"
            "3756    1832    336     336     \t1.500000\t0.750000\n");
  EXPECT_EQ(read_file_text(star),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
            "172     800     \n"
            "2000    1200    \n"
            "3924    2000    \n");
  EXPECT_EXIT_REPORT(output_ice_coord("/nonexistent-dir/x_rejected.box", grid.data(), ave.data(), sigma.data(), n, n,
                                      int2{0, 0}, step, 4, 2),
                     "Cannot write to file /nonexistent-dir/x_rejected.box.*open file "
                     "'/nonexistent-dir/x_rejected.box' failed");
}

// ---- The whole detection ---------------------------------------------------------------------

TEST(IceDetect, BrightAndDarkBlobsRejectTheirCellsOnly) {
  // Wider than high, so that the width taken for the height shows.
  const int nx = 256, ny = 192, step = 32, cols = nx / step, rows = ny / step;
  std::mt19937 gen(5);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> img(nx * ny);
  for (auto& v : img) v = noise(gen);
  const struct { int x, y; float value; } blobs[] = {{80, 80, 4.0f}, {176, 144, -4.0f}};
  for (const auto& b : blobs)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x)
        if ((x - b.x) * (x - b.x) + (y - b.y) * (y - b.y) <= 12 * 12) img[y * nx + x] = b.value;

  Pickora_Para para{};
  para.apixM = 0.5f;  // not a whole number, so that it can't stand in for the shrink
  para.shrink = 2;
  para.min_dist = 45.3f;  // cells of trunc(1.4142135 * 45.3 / (2 * 0.5 * 2)) = 32
  para.lave_radius = 6.0f;
  para.lsigma_radius = 6.0f;
  para.local_soft_edge = 8.0f;
  para.lave_min = -1.0f;
  para.lave_max = 1.0f;
  para.lsigma_cutoff = 1.3f;
  para.write_rejected_box = 1;
  para.write_bg_mic = 1;
  para.write_lsigma_mic = 1;
  ASSERT_EQ(ice_detect_step(&para), step);

  TempDir dir;
  const std::string mic = dir.file("mic.mrc");
  float* d_img = to_device(img);
  unsigned* d_grid = device_zeros<unsigned>(cols * rows);
  EXPECT_EQ(hcuda_2d_ice_detect(d_img, nx, ny, int2{0, 0}, d_grid, mic.c_str(), &para), 0);
  const std::vector<unsigned> grid = to_host(d_grid, cols * rows);
  EXPECT_EQ(to_host(d_img, nx * ny), img);

  // A cell is expected marked when it holds a blob's centre, clear when all of it lies farther
  // from both blobs than the blob radius plus the disc's reach.
  const int reach = 12 + 6 + 8 + 2;
  for (int gy = 0; gy < rows; ++gy)
    for (int gx = 0; gx < cols; ++gx) {
      bool holds_blob = false, far = true;
      for (const auto& b : blobs) {
        holds_blob |= b.x / step == gx && b.y / step == gy;
        const int dx = std::max({gx * step - b.x, b.x - (gx * step + step - 1), 0});
        const int dy = std::max({gy * step - b.y, b.y - (gy * step + step - 1), 0});
        far &= dx * dx + dy * dy > reach * reach;
      }
      const unsigned word = grid[gy * cols + gx];
      EXPECT_TRUE(!holds_blob || word != 0) << "cell " << gx << "," << gy;
      EXPECT_TRUE(!far || word == 0) << "cell " << gx << "," << gy;
      if (word != 0) {  // the recorded pixel lies in its own cell
        EXPECT_EQ(static_cast<int>(word % nx) / step, gx);
        EXPECT_EQ(static_cast<int>(word / nx) / step, gy);
      }
    }

  const std::string box_text = read_file_text(dir.file("mic_rejected.box"));
  const std::string star_text = read_file_text(dir.file("mic_rejected.star"));
  EXPECT_FALSE(box_text.empty());
  EXPECT_EQ(std::count(box_text.begin(), box_text.end(), '\n') + 6,
            std::count(star_text.begin(), star_text.end(), '\n'));  // the same cells; the head has 6 line ends
  // Every recorded pixel off the rim band (half a cell) is listed, at twice its place (shrink 2,
  // origin 0), with a box one cell wide around it, the cell's average (the dark blob's below
  // lave_min) and its deviation (never negative).
  int inside = 0;
  for (unsigned word : grid)
    inside += word != 0 && word % nx > step / 2 && word % nx < nx - step / 2 && word / nx > step / 2 &&
              word / nx < ny - step / 2;
  int rows_read = 0;
  float lowest_ave = 0.0f;
  std::istringstream star_rows(star_text), box_rows(box_text);
  for (std::string row; std::getline(star_rows, row);) {
    int x = 0, y = 0;
    if (std::sscanf(row.c_str(), "%d %d", &x, &y) != 2) continue;
    ++rows_read;
    EXPECT_NE(std::find(grid.begin(), grid.end(), static_cast<unsigned>(y / 2 * nx + x / 2)), grid.end()) << row;
    std::string box_row;
    ASSERT_TRUE(std::getline(box_rows, box_row));
    int bx = 0, by = 0, w = 0;
    float ave = 0.0f, sigma = -1.0f;
    ASSERT_EQ(std::sscanf(box_row.c_str(), "%d %d %d %*d %f %f", &bx, &by, &w, &ave, &sigma), 5);
    EXPECT_EQ(std::make_tuple(bx, by, w), std::make_tuple(x - step, y - step, 2 * step));
    EXPECT_GE(sigma, 0.0f) << box_row;
    lowest_ave = std::min(lowest_ave, ave);
  }
  EXPECT_EQ(rows_read, inside);
  EXPECT_LT(lowest_ave, para.lave_min);
  for (const char* map : {"mic_bg.mrc", "mic_lsigma.mrc"}) {
    int map_nx = 0, map_ny = 0;
    get_mrcf_xy(map_nx, map_ny, dir.file(map).c_str());
    EXPECT_EQ(std::make_pair(map_nx, map_ny), std::make_pair(nx, ny)) << map;
  }

  // Without the output flags nothing is written; a cell side below 1 is refused.
  para.write_rejected_box = para.write_bg_mic = para.write_lsigma_mic = 0;
  const std::string quiet = dir.file("quiet.mrc");
  EXPECT_EQ(hcuda_2d_ice_detect(d_img, nx, ny, int2{0, 0}, d_grid, quiet.c_str(), &para), 0);
  for (const char* suffix : {"_rejected.box", "_rejected.star", "_bg.mrc", "_lsigma.mrc"})
    EXPECT_FALSE(std::filesystem::exists(dir.file(std::string("quiet") + suffix))) << suffix;
  for (float min_dist : {1.0f, -45.3f}) {
    para.min_dist = min_dist;
    EXPECT_EXIT_REPORT(hcuda_2d_ice_detect(d_img, nx, ny, int2{0, 0}, d_grid, quiet.c_str(), &para),
                       "from --min_dist is not positive");
  }
  cudaFree(d_img);
  cudaFree(d_grid);
}

}  // namespace
