// The exclusion grid from user coordinates, the picking mask, and the normalisation under it.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "math_utils/device_stats.h"
#include "pickora56/exclusion_mask.h"
#include "support/device_data.h"
#include "support/temp_dir.h"

namespace {

// work_size 1024, grid_step 84: 13 x 13 cells. The grid has a sentinel word past its end.
constexpr int kN = 1024, kStep = 84, kCells = 13 * 13;

PTCL_BOX box_at(int x, int y, int side) {
  PTCL_BOX b;
  b.x = x;
  b.y = y;
  b.w = side;
  b.h = side;
  return b;
}

std::vector<unsigned> grid_after(const std::vector<PTCL_BOX>& boxes, int shrink) {
  unsigned* d = to_device(std::vector<unsigned>(kCells + 1, 0u));
  add_excluded_coords_to_ice(d, kN, kN, kStep, boxes.data(), static_cast<int>(boxes.size()), shrink);
  std::vector<unsigned> g = to_host(d, kCells + 1);
  cudaFree(d);
  return g;
}

TEST(ExcludedCoords, CentreWordInItsCell) {
  // Corner (1000, 800), side 128, shrink 4: centre (266, 216), word 221450, cell 29.
  std::vector<unsigned> want(kCells + 1, 0u);
  want[29] = 221450u;
  EXPECT_EQ(grid_after({box_at(1000, 800, 128)}, 4), want);
  // A .star record (w = h = 0) is its own centre.
  EXPECT_EQ(grid_after({box_at(1064, 864, 0)}, 4), want);
  // Two in one cell: the later stands.
  want[29] = 216u * kN + 270u;
  EXPECT_EQ(grid_after({box_at(1000, 800, 128), box_at(1080, 864, 0)}, 4), want);
}

TEST(ExcludedCoords, CentresOutsideTheWorkImageAreIgnored) {
  const std::vector<unsigned> none(kCells + 1, 0u);
  const std::vector<PTCL_BOX> outside = {
      box_at(4096, 100, 0),   // x of 1024 in work pixels: one past the last column
      box_at(100, 4400, 0),   // below the last row: would land on the word past the grid
      box_at(-200, 100, 128), // negative centre at the rim
      box_at(100, -300, 0)};
  for (const PTCL_BOX& b : outside) EXPECT_EQ(grid_after({b}, 4), none) << b.x << "," << b.y;
}

TEST(ExcludedCoords, GlobalFileAndTheRecordsGates) {
  TempDir dir;
  const std::string file = dir.file("global.box");
  write_file_text(file, "1000 800 128 128\n");
  std::vector<unsigned> marked(kCells + 1, 0u);
  marked[29] = 221450u;
  const std::vector<unsigned> none(kCells + 1, 0u);
  const std::vector<PTCL_BOX> own = {box_at(1000, 800, 128)};

  char null_name[] = "NULL";
  char global_name[1024];
  std::snprintf(global_name, sizeof global_name, "%s", file.c_str());
  struct Case {
    const char* name;
    int exclusive_picking, mask_excluded;
    char* global;
    const std::vector<unsigned>& want;
  } cases[] = {
      {"--mask_excluded without --exclusive_picking", 0, 1, null_name, none},
      {"--exclusive_picking without --mask_excluded", 1, 0, null_name, none},
      {"both", 1, 1, null_name, marked},
      {"global file only", 0, 0, global_name, marked},
  };
  for (const Case& c : cases) {
    Pickora_Para para{};
    para.shrink = 4;
    para.exclusive_picking = c.exclusive_picking;
    para.mask_excluded = c.mask_excluded;
    para.global_excluded_box = c.global;
    unsigned* d = to_device(std::vector<unsigned>(kCells + 1, 0u));
    pickora_add_exclusions_to_grid(d, kN, kN, kStep, own.data(), 1, &para);
    EXPECT_EQ(to_host(d, kCells + 1), c.want) << c.name;
    cudaFree(d);
  }
}

// ---- The mask ---------------------------------------------------------------------------------

TEST(PickingMask, MarkedCellsBlankWholeCellsPartialAtTheRim) {
  // 50 x 50 with cells of 12: 5 x 5 cells, the last column and row 2 pixels wide.
  const int n = 50, step = 12, cols = 5;
  std::vector<unsigned> grid(cols * cols, 0u);
  grid[1 * cols + 2] = 17u * n + 30u;  // a single pixel in cell (2, 1)
  grid[cols * cols - 1] = 49u * n + 49u;  // the partial corner cell
  unsigned* d_grid = to_device(grid);
  float* d_mask = to_device(std::vector<float>(n * n + 8, -5.0f));
  EXPECT_EQ(hcuda_2d_generate_mask_by_coords(d_mask, nullptr, n, n, step, d_grid, 0), 0);
  const std::vector<float> mask = to_host(d_mask, n * n + 8);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const bool in_marked = (x / step == 2 && y / step == 1) || (x >= 48 && y >= 48);
      ASSERT_EQ(mask[y * n + x], in_marked ? 0.0f : 1.0f) << x << "," << y;
    }
  for (int i = n * n; i < n * n + 8; ++i) EXPECT_EQ(mask[i], -5.0f);  // nothing past the image
  cudaFree(d_grid);
  cudaFree(d_mask);
}

TEST(PickingMask, NormalisedUnderTheMaskOnly) {
  // Clear cells carry noise, one marked cell a bright offset that must not shift the statistics.
  const int n = 64, step = 16, cols = 4;
  std::vector<float> img = random_image(n * n, 3);
  for (int y = 16; y < 32; ++y)
    for (int x = 32; x < 48; ++x) img[y * n + x] += 10.0f;
  std::vector<unsigned> grid(cols * cols, 0u);
  grid[1 * cols + 2] = 20u * n + 40u;
  unsigned* d_grid = to_device(grid);
  float* d_mask = device_zeros<float>(n * n);
  float* d_img = to_device(img);
  hcuda_2d_generate_mask_by_coords(d_mask, d_img, n, n, step, d_grid, 0);
  hcuda_norm_withmask_inplace(d_img, d_mask, n * n, 1.0f, 0.0f);
  const std::vector<float> out = to_host(d_img, n * n), mask = to_host(d_mask, n * n);
  double w = 0.0, s1 = 0.0, s2 = 0.0, all = 0.0;
  for (int i = 0; i < n * n; ++i) {
    w += mask[i];
    s1 += mask[i] * out[i];
    s2 += mask[i] * out[i] * out[i];
    all += out[i];
  }
  EXPECT_NEAR(s1 / w, 0.0, 1e-5);
  EXPECT_NEAR(s2 / w, 1.0, 1e-5);
  EXPECT_GT(all / (n * n), 0.5);  // the marked cell keeps its offset, scaled like the rest
  EXPECT_GT(out[20 * n + 40], 5.0f);
  cudaFree(d_grid);
  cudaFree(d_mask);
  cudaFree(d_img);
}

}  // namespace
