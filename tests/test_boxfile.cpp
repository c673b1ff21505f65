// Coordinate files into PTCL_BOX records: .box rows of 4 to 7 columns, .star tables, the
// record utilities and the neighbour and grid generators.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "boxfile/ptcl_box.h"
#include "support/exit_report.h"
#include "support/temp_file.h"

namespace {

// The sample tables written by another package are the STAR fuzzer's seeds too: one copy.
const std::string kSamples = std::string(PICKORA_SOURCE_DIR) + "/tests/fuzz/corpus/star/";
using Fields = std::vector<double>;

// Every field of a record, for one-line comparisons: x, y, w, h, cc, class, psi, distance
// (float fields widen exactly).
Fields fields(const PTCL_BOX& b) {
  return {double(b.x), double(b.y), double(b.w), double(b.h), b.cc, double(b.class_number), b.psi, b.distance};
}

// An array pre-filled with a pattern that the reader must clear or overwrite.
std::vector<PTCL_BOX> dirty(int n) {
  PTCL_BOX junk;
  junk.x = junk.y = junk.class_number = -99;
  junk.cc = junk.psi = junk.distance = -9.5f;
  return std::vector<PTCL_BOX>(n, junk);
}

int read(const std::string& text, const std::string& suffix, std::vector<PTCL_BOX>& boxes) {
  TempFile f(text, suffix);
  return read_all_ptcl_boxes(boxes.data(), static_cast<int>(boxes.size()), f.path.c_str());
}

PTCL_BOX box_at(int x, int y, int w, int h) {
  PTCL_BOX b;
  b.x = x, b.y = y, b.w = w, b.h = h;
  return b;
}

// One body over the row forms: .box rows of 4 to 7 columns (more are ignored), the program's own
// picked and rejected rows, blank lines, an empty file, and .star centres with their integer part
// and the optional columns the picker writes. Records past the rows read are cleared.
TEST(BoxFile, RowFormsOfBothKinds) {
  char picked[128], rejected[128], star_row[128];
  std::snprintf(picked, sizeof picked, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", 1802, 1002, 396, 396, 0.456789f, 7,
                123.5f);
  std::snprintf(rejected, sizeof rejected, "%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n", 64, 96, 32, 32, 2.5f, 3.75f);
  std::snprintf(star_row, sizeof star_row, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", 2000, 1200, 33.5f, 2, 0.875f);
  const struct {
    std::string text, suffix;
    std::vector<Fields> want;
  } cases[] = {
      {"10 20 30 40\n11 21 31 41 0.5\n12 22 32 42 0.25 3\n13 23 33 43 0.125 4 90.5\n"
       "14 24 34 44 0.75 5 45.0 extra tokens\n",
       ".box",
       {{10, 20, 30, 40, 0, 0, 0, 0}, {11, 21, 31, 41, 0.5, 0, 0, 0}, {12, 22, 32, 42, 0.25, 3, 0, 0},
        {13, 23, 33, 43, 0.125, 4, 90.5, 0}, {14, 24, 34, 44, 0.75, 5, 45, 0}}},
      // class: the sixth token's integer part
      {std::string(picked) + rejected, "_pickora.box",
       {{1802, 1002, 396, 396, 0.456789f, 7, 123.5, 0}, {64, 96, 32, 32, 2.5, 3, 0, 0}}},
      {"\n1 2 3 4\n   \n\t\r\n5 6 7 8", ".box", {{1, 2, 3, 4, 0, 0, 0, 0}, {5, 6, 7, 8, 0, 0, 0, 0}}},
      {"", ".box", {}},
      {"\n# version 30001\n\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
       "  100.900000   200.100000\n-3.7 4.2\n",
       ".star", {{100, 200, 0, 0, 0, 0, 0, 0}, {-3, 4, 0, 0, 0, 0, 0, 0}}},
      {"\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
       "_rlnAutopickFigureOfMerit #5\n" + std::string(star_row),
       "_pickora.star", {{2000, 1200, 0, 0, 0.875, 2, 33.5, 0}}},
  };
  for (const auto& c : cases) {
    auto boxes = dirty(8);
    ASSERT_EQ(read(c.text, c.suffix, boxes), static_cast<int>(c.want.size())) << c.text;
    for (size_t i = 0; i < 8; ++i)
      EXPECT_EQ(fields(boxes[i]), i < c.want.size() ? c.want[i] : Fields(8, 0.0)) << c.text << " row " << i;
  }
  // Capacity: rows past it are not read, records past it untouched.
  auto boxes = dirty(5);
  TempFile f("1 1 1 1\n2 2 2 2\n3 3 3 3\n4 4 4 4\n", ".box");
  EXPECT_EQ(read_all_ptcl_boxes(boxes.data(), 2, f.path.c_str()), 2);
  EXPECT_EQ(std::vector<int>({boxes[1].x, boxes[2].x}), std::vector<int>({2, -99}));
  EXPECT_EQ(read_all_ptcl_boxes(boxes.data(), 0, f.path.c_str()), 0);
}

TEST(BoxFile, SuffixIsExactAndCaseSensitive) {
  for (auto [name, kind] : {std::pair{"a.star", 1}, {"a_rejected.star", 1}, {"a_nonunique.box", 2}, {"a.BOX", 0},
                            {"a.Star", 0}, {"a.box.txt", 0}})
    EXPECT_EQ(get_boxf_suffixf(name), kind) << name;
  auto boxes = dirty(2);
  testing::internal::CaptureStdout();
  EXPECT_EQ(read("1 2 3 4\n", ".BOX", boxes), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find(
                "unrecognized box file format, only EMAN .box and Relion .star file are supported now.!"),
            std::string::npos);
  EXPECT_EQ(boxes[0].x, 0);
}

TEST(BoxFile, MissingFileIsFatal) {
  std::vector<PTCL_BOX> boxes(4);
  EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 1, "/nonexistent/m.box"),
                     "Cannot open file /nonexistent/m.box. Permission denied or wrong file name.\n.*"
                     "Error in function read_all_ptcl_boxes\\(\\), file src/boxfile on line [0-9]+: "
                     "open file '/nonexistent/m.box' failed.! Exit now!");
}

TEST(StarCoordinates, SampleTableAndTablesWithoutCoordinates) {
  std::vector<PTCL_BOX> boxes(100);
  ASSERT_EQ(read_all_ptcl_boxes(boxes.data(), 100, (kSamples + "autopick_coords.star").c_str()), 13);
  EXPECT_EQ(fields(boxes[0]), Fields({872, 256, 0, 0, 0.756319f, 5, 200, 0}));
  EXPECT_EQ(boxes[12].x, 632);
  EXPECT_EQ(boxes[13].x, 0);
  for (const char* file : {"autopick_summary.star", "micrographs_optics.star"})
    EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 10, (kSamples + file).c_str()),
                       "read_all_ptcl_boxes.*has no usable _rlnCoordinateX column.*Exit now!") << file;
  TempFile only_x("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #3\n1 2\n", ".star");  // #3 of 2 columns
  EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 10, only_x.path.c_str()), "has no usable _rlnCoordinateY column");
}

TEST(Records, ResizeKeepsTheCentreOfBothKinds) {
  PTCL_BOX boxes[3] = {box_at(1000, 500, 256, 256), box_at(10, 20, 128, 128), one_new_ptcl_box()};
  boxes[2].x = 300;  // a centre from a .star file becomes a corner
  resize_ptcl_boxes(boxes, 1, 128);
  resize_ptcl_boxes(boxes + 1, 1, 256);
  resize_ptcl_boxes(boxes + 2, 1, 100);
  EXPECT_EQ(fields(boxes[0]), Fields({1064, 564, 128, 128, 0, 0, 0, 0}));
  EXPECT_EQ(fields(boxes[1]), Fields({-54, -44, 256, 256, 0, 0, 0, 0}));
  EXPECT_EQ(fields(boxes[2]), Fields({250, -50, 100, 100, 0, 0, 0, 0}));
}

TEST(Neighbours, CircleOfGridPoints) {
  const PTCL_BOX center = box_at(100, 100, 20, 20);  // centre (110, 110)
  std::vector<PTCL_BOX> out(64);
  const int n = auto_generate_neighbor_boxes_circular(out.data(), 64, center, 10.0f, 16, 5);
  ASSERT_EQ(n, 13);  // offsets of d 0, 5, 7.07 and 10
  int at_centre = 0;
  for (int i = 0; i < n; ++i) {
    const PTCL_BOX& b = out[i];
    EXPECT_EQ(b.w, 16);
    const float dx = static_cast<float>(b.x + 8 - 110), dy = static_cast<float>(b.y + 8 - 110);
    EXPECT_FLOAT_EQ(b.distance, std::sqrt(dx * dx + dy * dy));
    EXPECT_LE(b.distance, 10.0f);
    at_centre += b.distance == 0.0f;
  }
  EXPECT_EQ(at_centre, 1);
  EXPECT_EQ(out[0].y + 8, 100);  // rows from the lowest
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 5, center, 10.0f, 16, 5), 5);
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 64, center, 0.0f, 16, 5), 1);
  EXPECT_EQ(out[0].cc, 0.3989423f);  // a radius of 0 gives the peak weight, not a division by 0
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 64, center, 10.0f, 16, 0), 0);
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 64, center, 1e30f, 16, 1), 64);  // ends at capacity
}

TEST(Grids, CentredGridFileListsTheBoxCentres) {
  TempFile f("", "_autogrid.star");
  EXPECT_EQ(auto_grid_starboxf_2d_from_center_nxm(f.path.c_str(), 100, 80, 20, 3, 2), 3);
  std::vector<PTCL_BOX> back(8);
  ASSERT_EQ(read_all_ptcl_boxes(back.data(), 8, f.path.c_str()), 3);  // centres, read back as a .star file
  EXPECT_EQ(std::vector<int>({back[0].x, back[1].x, back[1].y}), std::vector<int>({17, 50, 40}));
}

}  // namespace
