// Coordinate files into PTCL_BOX records: .box rows of 4 to 7 columns, .star tables, the
// record utilities and the neighbour and grid generators.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "boxfile/ptcl_box.h"
#include "support/exit_report.h"
#include "support/temp_file.h"

namespace {

const std::string kRelion = std::string(PICKORA_TESTDATA_DIR) + "/relion/";

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

TEST(PtclBox, RecordDefaults) {
  const PTCL_BOX b;
  EXPECT_EQ(b.w, 256);
  EXPECT_EQ(b.h, 256);
  EXPECT_EQ(b.x, 0);
  EXPECT_EQ(b.cc, 0.0f);
  const PTCL_BOX z = one_new_ptcl_box();
  EXPECT_EQ(z.w, 0);
  EXPECT_EQ(z.h, 0);
  EXPECT_EQ(z.distance, 0.0f);
  EXPECT_EQ(sizeof(PTCL_BOX), 32u);
}

TEST(BoxFile, ColumnCountsFourToSeven) {
  auto boxes = dirty(8);
  const std::string text =
      "10 20 30 40\n"
      "11 21 31 41 0.5\n"
      "12 22 32 42 0.25 3\n"
      "13 23 33 43 0.125 4 90.5\n"
      "14 24 34 44 0.75 5 45.0 extra tokens\n";
  ASSERT_EQ(read(text, ".box", boxes), 5);
  EXPECT_EQ(boxes[0].x, 10);
  EXPECT_EQ(boxes[0].h, 40);
  EXPECT_EQ(boxes[0].cc, 0.0f);
  EXPECT_EQ(boxes[0].class_number, 0);
  EXPECT_EQ(boxes[0].psi, 0.0f);
  EXPECT_EQ(boxes[1].cc, 0.5f);
  EXPECT_EQ(boxes[1].class_number, 0);
  EXPECT_EQ(boxes[2].class_number, 3);
  EXPECT_EQ(boxes[2].psi, 0.0f);
  EXPECT_EQ(boxes[3].psi, 90.5f);
  EXPECT_EQ(boxes[4].class_number, 5);
  EXPECT_EQ(boxes[4].psi, 45.0f);
  EXPECT_EQ(boxes[4].distance, 0.0f);
  for (int i = 5; i < 8; ++i) EXPECT_EQ(boxes[i].x, 0) << "cleared beyond the rows read";
}

TEST(BoxFile, ProgramsOwnRows) {
  char picked[128], rejected[128];
  std::snprintf(picked, sizeof picked, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", 1802, 1002, 396, 396, 0.456789f, 7,
                123.5f);
  std::snprintf(rejected, sizeof rejected, "%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n", 64, 96, 32, 32, 2.5f, 3.75f);
  auto boxes = dirty(4);
  ASSERT_EQ(read(std::string(picked) + rejected, "_pickora.box", boxes), 2);
  EXPECT_EQ(boxes[0].x, 1802);
  EXPECT_EQ(boxes[0].w, 396);
  EXPECT_FLOAT_EQ(boxes[0].cc, 0.456789f);
  EXPECT_EQ(boxes[0].class_number, 7);
  EXPECT_EQ(boxes[0].psi, 123.5f);
  EXPECT_EQ(boxes[1].cc, 2.5f);
  EXPECT_EQ(boxes[1].class_number, 3);  // the sixth token's integer part
  EXPECT_EQ(boxes[1].psi, 0.0f);
}

TEST(BoxFile, BlankLinesEmptyFilesAndCapacity) {
  auto boxes = dirty(5);
  ASSERT_EQ(read("\n1 2 3 4\n   \n\t\r\n5 6 7 8", ".box", boxes), 2);
  EXPECT_EQ(boxes[1].x, 5);
  EXPECT_EQ(boxes[1].h, 8);
  boxes = dirty(3);
  EXPECT_EQ(read("", ".box", boxes), 0);
  for (const PTCL_BOX& b : boxes) EXPECT_TRUE(b.x == 0 && b.w == 0 && b.psi == 0.0f);
  boxes = dirty(5);
  TempFile f("1 1 1 1\n2 2 2 2\n3 3 3 3\n4 4 4 4\n", ".box");
  EXPECT_EQ(read_all_ptcl_boxes(boxes.data(), 2, f.path.c_str()), 2);
  EXPECT_EQ(boxes[1].x, 2);
  EXPECT_EQ(boxes[2].x, -99);  // outside the capacity: untouched
  EXPECT_EQ(read_all_ptcl_boxes(boxes.data(), 0, f.path.c_str()), 0);
}

TEST(BoxFile, ShortLineIsFatal) {
  TempFile f("1 2 3 4\n1 2 3\n", ".box");
  std::vector<PTCL_BOX> boxes(4);
  EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 4, f.path.c_str()),
                     "Error in function read_all_ptcl_boxes\\(\\), file src/boxfile on line [0-9]+: "
                     "unrecognized box format!! Exit now!");
}

TEST(BoxFile, SuffixIsExactAndCaseSensitive) {
  EXPECT_EQ(get_boxf_suffixf("a.star"), 1);
  EXPECT_EQ(get_boxf_suffixf("a_rejected.star"), 1);
  EXPECT_EQ(get_boxf_suffixf("a_nonunique.box"), 2);
  EXPECT_EQ(get_boxf_suffixf("a.BOX"), 0);
  EXPECT_EQ(get_boxf_suffixf("a.Star"), 0);
  EXPECT_EQ(get_boxf_suffixf("a.box.txt"), 0);
  for (const char* suffix : {".BOX", ".STAR", ".txt"}) {
    auto boxes = dirty(2);
    testing::internal::CaptureStdout();
    EXPECT_EQ(read("1 2 3 4\n", suffix, boxes), 0) << suffix;
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("unrecognized box file format, only EMAN .box and Relion .star file are supported now.!"),
              std::string::npos);
    EXPECT_EQ(boxes[0].x, 0);
  }
}

TEST(BoxFile, MissingFileIsFatal) {
  std::vector<PTCL_BOX> boxes(1);
  EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 1, "/nonexistent/m.box"),
                     "Cannot open file /nonexistent/m.box. Permission denied or wrong file name.\n.*"
                     "Error in function read_all_ptcl_boxes\\(\\), file src/boxfile on line [0-9]+: "
                     "open file '/nonexistent/m.box' failed.! Exit now!");
  EXPECT_EXIT_REPORT(get_ptcl_number_from_boxf("/nonexistent/m.box"),
                     "Cannot open file /nonexistent/m.box!\n.*open file failed.! Exit now!");
}

TEST(StarCoordinates, DecimalsGiveTheirIntegerPart) {
  auto boxes = dirty(4);
  const std::string text =
      "\n# version 30001\n\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"
      "  100.900000   200.100000\n-3.7 4.2\n";
  ASSERT_EQ(read(text, ".star", boxes), 2);
  EXPECT_EQ(boxes[0].x, 100);
  EXPECT_EQ(boxes[0].y, 200);
  EXPECT_EQ(boxes[0].w, 0);
  EXPECT_EQ(boxes[0].h, 0);
  EXPECT_EQ(boxes[0].cc, 0.0f);
  EXPECT_EQ(boxes[0].class_number, 0);
  EXPECT_EQ(boxes[1].x, -3);
}

TEST(StarCoordinates, ProgramsOwnStarFile) {
  // The head and row format the picker writes: centre x, centre y, psi, class, figure of merit.
  char row[128];
  std::snprintf(row, sizeof row, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", 2000, 1200, 33.5f, 2, 0.875f);
  const std::string text = std::string(
                               "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
                               "_rlnClassNumber #4\n_rlnAutopickFigureOfMerit #5\n") +
                           row;
  auto boxes = dirty(2);
  ASSERT_EQ(read(text, "_pickora.star", boxes), 1);
  EXPECT_EQ(boxes[0].x, 2000);
  EXPECT_EQ(boxes[0].y, 1200);
  EXPECT_EQ(boxes[0].psi, 33.5f);
  EXPECT_EQ(boxes[0].class_number, 2);
  EXPECT_EQ(boxes[0].cc, 0.875f);
}

TEST(StarCoordinates, RelionAutopickFile) {
  std::vector<PTCL_BOX> boxes(100);
  const std::string path = kRelion + "autopick_coords.star";
  ASSERT_EQ(read_all_ptcl_boxes(boxes.data(), 100, path.c_str()), 13);
  EXPECT_EQ(boxes[0].x, 872);
  EXPECT_EQ(boxes[0].y, 256);
  EXPECT_EQ(boxes[0].class_number, 5);
  EXPECT_FLOAT_EQ(boxes[0].cc, 0.756319f);
  EXPECT_EQ(boxes[0].psi, 200.0f);
  EXPECT_EQ(boxes[12].x, 632);
  EXPECT_EQ(boxes[12].w, 0);
  EXPECT_EQ(boxes[13].x, 0);
}

TEST(StarCoordinates, TableWithoutCoordinatesIsRefused) {
  std::vector<PTCL_BOX> boxes(10);
  for (const char* file : {"autopick_summary.star", "micrographs_optics.star"}) {
    const std::string path = kRelion + file;
    EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 10, path.c_str()),
                       "read_all_ptcl_boxes.*has no usable _rlnCoordinateX column.*Exit now!")
        << file;
  }
  TempFile only_x("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #3\n1 2\n", ".star");  // #3 of 2 columns
  EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 10, only_x.path.c_str()),
                     "has no usable _rlnCoordinateY column");
}

TEST(Resize, KeepsTheCentre) {
  PTCL_BOX boxes[2];
  boxes[0].x = 1000;
  boxes[0].y = 500;
  boxes[1].x = 10;
  boxes[1].y = 20;
  boxes[1].w = boxes[1].h = 128;
  resize_ptcl_boxes(boxes, 1, 128);
  EXPECT_EQ(boxes[0].x, 1064);
  EXPECT_EQ(boxes[0].y, 564);
  EXPECT_EQ(boxes[0].w, 128);
  resize_ptcl_boxes(boxes + 1, 1, 256);
  EXPECT_EQ(boxes[1].x, -54);
  EXPECT_EQ(boxes[1].y, -44);
  EXPECT_EQ(boxes[1].h, 256);
  PTCL_BOX star_record = one_new_ptcl_box();  // a centre from a .star file becomes a corner
  star_record.x = 300;
  resize_ptcl_boxes(&star_record, 1, 100);
  EXPECT_EQ(star_record.x, 250);
  EXPECT_EQ(star_record.w, 100);
}

TEST(Centres, IntAndFloatForms) {
  PTCL_BOX boxes[2];
  boxes[0].x = 10;
  boxes[0].y = 20;
  boxes[0].w = 31;
  boxes[0].h = 40;
  boxes[1] = one_new_ptcl_box();
  boxes[1].x = 7;
  boxes[1].y = 9;
  int2 c[2];
  float2 f[2];
  ptcl_boxes_to_int2(c, boxes, 2, 0);
  EXPECT_EQ(c[0].x, 25);
  EXPECT_EQ(c[0].y, 40);
  EXPECT_EQ(c[1].x, 7);
  ptcl_boxes_to_int2(c, boxes, 2, 100);
  EXPECT_EQ(c[0].x, 60);
  EXPECT_EQ(c[1].y, 59);
  ptcl_boxes_to_float2(f, boxes, 2, 0);
  EXPECT_EQ(f[0].x, 25.0f);
  EXPECT_EQ(f[1].y, 9.0f);
}

TEST(Centres, VectorReaderAndCopy) {
  TempFile box("0 0 100 50\n10 10 20 20 0.5 1 2\n", ".box");
  std::vector<int2> centres(3, make_int2(-1, -1));
  ASSERT_EQ(read_all_box_vecxyi(centres, box.path.c_str()), 2);
  ASSERT_EQ(centres.size(), 2u);
  EXPECT_EQ(centres[0].x, 50);
  EXPECT_EQ(centres[0].y, 25);
  EXPECT_EQ(centres[1].x, 20);
  const std::string star = kRelion + "autopick_coords.star";
  int2 out[4] = {};
  EXPECT_EQ(boxf_read_all_xysi(out, 2, star.c_str()), 13);
  EXPECT_EQ(out[1].x, 212);
  EXPECT_EQ(out[1].y, 280);
  EXPECT_EQ(out[2].x, 0);  // only two copied
  std::vector<int2> all(13);
  EXPECT_EQ(boxf_read_all_xysi(all.data(), 0, star.c_str()), 13);
  EXPECT_EQ(all[12].x, 632);
}

TEST(Counting, SevenColumnRowsOnly) {
  TempFile f("1 2 3 4\n1 2 3 4 5 6 7\n\n1 2 3 4 5 6 7 8\n1 2 3 4 5 6\n", ".box");
  EXPECT_EQ(get_ptcl_number_from_boxf(f.path.c_str()), 2);
}

TEST(Printing, FormatAndEmptyBoxes) {
  PTCL_BOX boxes[3];
  boxes[0].x = 5;
  boxes[0].y = 6;
  boxes[0].cc = 0.5f;
  boxes[0].class_number = 2;
  boxes[0].psi = 10.0f;
  boxes[1].w = 0;  // passed over
  boxes[2].h = 0;
  testing::internal::CaptureStdout();
  print_n_ptcl_boxes(boxes, 3);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "5       6       256     256     0.500000        2       10.000000\n");
}

TEST(Printing, WholeArrayToAFileAndTheLimit) {
  PTCL_BOX* all = static_cast<PTCL_BOX*>(std::calloc(PTCL_BOX_MAX, sizeof(PTCL_BOX)));
  ASSERT_NE(all, nullptr);
  all[0].x = 1;
  all[0].w = all[0].h = 2;
  all[PTCL_BOX_MAX - 1].x = 9;
  all[PTCL_BOX_MAX - 1].w = all[PTCL_BOX_MAX - 1].h = 4;
  TempFile f("", ".box");
  fprint_all_ptcl_boxes(f.path.c_str(), all);
  EXPECT_EQ(read_file_bytes(f.path),
            "1       0       2       2       0.000000        0       0.000000\n"
            "9       0       4       4       0.000000        0       0.000000\n");
  std::vector<PTCL_BOX> back(4);
  EXPECT_EQ(read_all_ptcl_boxes(back.data(), 4, f.path.c_str()), 2);  // the printed form reads back
  EXPECT_EQ(back[1].w, 4);
  testing::internal::CaptureStdout();
  EXPECT_EQ(empty_all_ptcl_boxes(all, PTCL_BOX_MAX + 5), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Too many particle numbers!!"), std::string::npos);
  EXPECT_EQ(all[PTCL_BOX_MAX - 1].x, 0);
  std::free(all);
  EXPECT_EXIT_REPORT(fprint_all_ptcl_boxes("/nonexistent/dir/o.box", nullptr),
                     "Cannot open file /nonexistent/dir/o.box. strike any key exit!");
}

TEST(Neighbours, CircleOfGridPoints) {
  PTCL_BOX center;
  center.x = 100;
  center.y = 100;
  center.w = center.h = 20;  // centre (110, 110)
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
    EXPECT_FLOAT_EQ(b.cc, 0.3989423f * std::exp(-b.distance * b.distance / (100.0f / 4.5f)));
    if (b.distance == 0.0f) ++at_centre;
  }
  EXPECT_EQ(at_centre, 1);
  EXPECT_EQ(out[0].y + 8, 100);  // rows from the lowest
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 5, center, 10.0f, 16, 5), 5);
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 64, center, 0.0f, 16, 5), 1);
  EXPECT_EQ(out[0].cc, 0.3989423f);
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 64, center, 10.0f, 16, 0), 0);
  EXPECT_EQ(auto_generate_neighbor_boxes_circular(out.data(), 64, center, 1e30f, 16, 1), 64);  // ends at capacity
}

TEST(Neighbours, FromAFile) {
  TempFile f("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n110 110\n113 114\n", ".star");
  PTCL_BOX center;
  center.x = 100;
  center.y = 100;
  center.w = center.h = 20;
  std::vector<PTCL_BOX> out(8);
  ASSERT_EQ(generate_neighbor_boxes_from_boxf(out.data(), 8, f.path.c_str(), center, 10.0f, 32), 2);
  EXPECT_EQ(out[0].x, 94);
  EXPECT_EQ(out[0].w, 32);
  EXPECT_EQ(out[0].distance, 0.0f);
  EXPECT_FLOAT_EQ(out[1].distance, 5.0f);
  EXPECT_FLOAT_EQ(out[1].cc, 0.3989423f * std::exp(-25.0f / (100.0f / 4.5f)));
}

TEST(Grids, PlainGrid) {
  const auto points = auto_gridbox_2d(0, 10, 5, 0, 4, 2);
  ASSERT_EQ(points.size(), 9u);
  EXPECT_EQ(points[1].x, 5.0f);
  EXPECT_EQ(points[1].y, 0.0f);
  EXPECT_EQ(points[8].x, 10.0f);
  EXPECT_EQ(points[8].y, 4.0f);
  EXPECT_TRUE(auto_gridbox_2d(0, 10, 0, 0, 4, 2).empty());
  EXPECT_TRUE(auto_gridbox_2d(10, 0, 1, 0, 4, 2).empty());
  testing::internal::CaptureStdout();
  EXPECT_TRUE(auto_gridbox_2d(0, 1e6f, 0.01f, 0, 1e6f, 0.01f).empty());
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Too many particle numbers!!"), std::string::npos);
  TempFile f("", ".star");
  EXPECT_EQ(auto_gridboxf_2d(f.path.c_str(), 0, 5, 5, 1, 1, 1), 2);
  EXPECT_EQ(read_file_bytes(f.path),
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n        0.00        1.00\n"
            "        5.00        1.00\n\n");
}

TEST(Grids, CentredBoxesStayInside) {
  const auto corners = auto_gridbox_2d_from_center(100, 80, 20, 30, 30);
  ASSERT_EQ(corners.size(), 9u);
  EXPECT_EQ(corners[0].x, 10u);
  EXPECT_EQ(corners[0].y, 0u);
  EXPECT_EQ(corners[4].x, 40u);  // the middle box is centred on the area
  EXPECT_EQ(corners[4].y, 30u);
  EXPECT_EQ(corners[8].x, 70u);
  EXPECT_EQ(corners[8].y, 60u);
  EXPECT_EQ(auto_gridbox_2d_from_center_nxm(100, 80, 20, 3, 2).size(), 3u);
  EXPECT_TRUE(auto_gridbox_2d_from_center(100, 80, 120, 30, 30).empty());
  EXPECT_TRUE(auto_gridbox_2d_from_center(100, 80, 20, 0, 30).empty());
  TempFile f("", "_autogrid.star");
  EXPECT_EQ(auto_grid_starboxf_2d_from_center_nxm(f.path.c_str(), 100, 80, 20, 3, 2), 3);
  std::vector<PTCL_BOX> back(8);
  ASSERT_EQ(read_all_ptcl_boxes(back.data(), 8, f.path.c_str()), 3);  // centres, read back as a .star file
  EXPECT_EQ(back[0].x, 17);
  EXPECT_EQ(back[1].x, 50);
  EXPECT_EQ(back[1].y, 40);
  EXPECT_EQ(auto_grid_starboxf_2d_from_center(f.path.c_str(), 100, 80, 20, 30, 30), 9);
}

}  // namespace
