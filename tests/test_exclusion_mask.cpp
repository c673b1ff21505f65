// The exclusion grid from user coordinates and the picking mask made from it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "pickora56/exclusion_mask.h"
#include "support/device_data.h"
#include "support/temp_dir.h"

namespace {

// work_size 1024, grid_step 84: 13 x 13 cells. The grid has a sentinel word past its end.
constexpr int kN = 1024, kStep = 84, kCells = 13 * 13;

PTCL_BOX box_at(int x, int y, int side) {
  PTCL_BOX b;
  b.x = x, b.y = y, b.w = b.h = side;
  return b;
}

// The grid with cell 29 holding word (0 for none).
std::vector<unsigned> grid_with(unsigned word) {
  std::vector<unsigned> g(kCells + 1, 0u);
  g[29] = word;
  return g;
}

TEST(ExcludedCoords, CentreWordInItsCellAndNothingOutsideTheWorkImage) {
  // Corner (1000, 800), side 128, shrink 4: centre (266, 216), word 221450, cell 29.
  const struct {
    std::vector<PTCL_BOX> boxes;
    unsigned word;
    const char* what;
  } cases[] = {
      {{box_at(1000, 800, 128)}, 221450u, "a box by its corner"},
      {{box_at(1064, 864, 0)}, 221450u, "a .star record (w = h = 0) is its own centre"},
      {{box_at(1000, 800, 128), box_at(1080, 864, 0)}, 216u * kN + 270u, "two in one cell: the later stands"},
      {{box_at(4096, 100, 0)}, 0u, "x of 1024 in work pixels: one past the last column"},
      {{box_at(100, 4400, 0)}, 0u, "below the last row: would land on the word past the grid"},
      {{box_at(-200, 100, 128)}, 0u, "negative centre at the rim"},
      {{box_at(100, -300, 0)}, 0u, "negative row"},
  };
  for (const auto& c : cases) {
    unsigned* d = to_device(std::vector<unsigned>(kCells + 1, 0u));
    DeviceFrees frees(d);
    add_excluded_coords_to_ice(d, kN, kN, kStep, c.boxes.data(), static_cast<int>(c.boxes.size()), 4);
    EXPECT_EQ(to_host(d, kCells + 1), grid_with(c.word)) << c.what;
  }
}

TEST(ExcludedCoords, GlobalFileAndTheRecordsGates) {
  TempDir dir;
  std::string null_name = "NULL", global_name = dir.file("global.box");
  write_file_text(global_name, "1000 800 128 128\n");
  const PTCL_BOX own = box_at(1000, 800, 128);
  const struct {
    const char* what;
    int exclusive_picking, mask_excluded;
    char* global;
    unsigned word;
  } cases[] = {
      {"--mask_excluded without --exclusive_picking", 0, 1, null_name.data(), 0u},
      {"--exclusive_picking without --mask_excluded", 1, 0, null_name.data(), 0u},
      {"both", 1, 1, null_name.data(), 221450u},
      {"global file only", 0, 0, global_name.data(), 221450u},
  };
  for (const auto& c : cases) {
    Pickora_Para para{};
    para.shrink = 4;
    para.exclusive_picking = c.exclusive_picking;
    para.mask_excluded = c.mask_excluded;
    para.global_excluded_box = c.global;
    unsigned* d = to_device(std::vector<unsigned>(kCells + 1, 0u));
    DeviceFrees frees(d);
    pickora_add_exclusions_to_grid(d, kN, kN, kStep, &own, 1, &para);
    EXPECT_EQ(to_host(d, kCells + 1), grid_with(c.word)) << c.what;
  }
}

// The mask is what the picker's statistics are taken under (the masked normalisation itself is
// checked against a reference in test_reductions).
TEST(PickingMask, MarkedCellsBlankWholeCellsPartialAtTheRim) {
  // 50 x 50 with cells of 12: 5 x 5 cells, the last column and row 2 pixels wide.
  const int n = 50, step = 12, cols = 5;
  std::vector<unsigned> grid(cols * cols, 0u);
  grid[1 * cols + 2] = 17u * n + 30u;     // a single pixel in cell (2, 1)
  grid[cols * cols - 1] = 49u * n + 49u;  // the partial corner cell
  unsigned* d_grid = to_device(grid);
  float* d_mask = to_device(std::vector<float>(n * n + 8, -5.0f));
  DeviceFrees frees(d_grid, d_mask);
  EXPECT_EQ(hcuda_2d_generate_mask_by_coords(d_mask, nullptr, n, n, step, d_grid, 0), 0);
  const std::vector<float> mask = to_host(d_mask, n * n + 8);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const bool in_marked = (x / step == 2 && y / step == 1) || (x >= 48 && y >= 48);
      ASSERT_EQ(mask[y * n + x], in_marked ? 0.0f : 1.0f) << x << "," << y;
    }
  EXPECT_EQ(std::vector<float>(mask.begin() + n * n, mask.end()), std::vector<float>(8, -5.0f));  // nothing past it
}

}  // namespace
