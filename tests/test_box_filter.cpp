// The candidate file, box_filter and the final .box and .star files.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "boxfile/box_filter.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace {

// min_dist 40 work pixels: step trunc(28.28) = 28, near when the squared distance is below 1568.
constexpr float kMinDist = 40.0f;
const char* const kStarHead =
    "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
    "_rlnAutopickFigureOfMerit #5\n";

struct Peak {
  int x, y;  // work pixels
  float cc;
  int t;
  float psi;
};

// Candidate rows as the writer makes them, for a work box of `box`.
std::string candidates(const std::vector<Peak>& peaks, int box = 10) {
  std::string text;
  char row[128];
  for (const Peak& p : peaks) {
    std::snprintf(row, sizeof row, PICKORA_CANDIDATE_ROW_FORMAT, p.x - box / 2, p.y - box / 2, box, box, p.cc, p.t,
                  p.psi);
    text += row;
  }
  return text;
}

struct Filter {
  int nx = 280, ny = 280;
  float cc_cutoff = 0.1f;
  float shrink = 1.0f;
  int box = 20;
  std::string excluded = "NULL";
  int mode = BOX_FILTER_BOX;
  int2 origin = make_int2(0, 0);
};

// Runs box_filter over the given candidate text and returns the output file.
std::string run_filter(const TempDir& dir, const std::string& text, const Filter& f = Filter()) {
  const std::string in = dir.file("mic_nonunique.box"), out = dir.file(f.mode == 1 ? "mic.star" : "mic.box");
  write_file_text(in, text);
  box_filter(f.nx, f.ny, kMinDist, f.cc_cutoff, f.shrink, f.box, f.box, f.origin, in.c_str(),
             f.excluded.c_str(), out.c_str(), f.mode);
  return read_file_text(out);
}

// The first two columns of each output row.
std::vector<std::pair<int, int>> corners(const std::string& text) {
  std::vector<std::pair<int, int>> xy;
  std::istringstream rows(text);
  for (std::string row; std::getline(rows, row);) {
    int x = 0, y = 0;
    if (std::sscanf(row.c_str(), "%d %d", &x, &y) == 2) xy.emplace_back(x, y);
  }
  return xy;
}

// Whether one candidate at work pixel (x, y) comes through the filter.
bool kept_one(const TempDir& dir, int x, int y, float cc, const Filter& f) {
  return corners(run_filter(dir, candidates({{x, y, cc, 0, 0.0f}}), f)).size() == 1;
}

TEST(Candidates, WriterKeepsWholeBoxesInsideWithOneSpareLowPixel) {
  // work_size 100, box 20 (half 10): x and y strictly between 10 and 90.
  const int xs[] = {10, 11, 89, 90};
  const bool kept[] = {false, true, true, false};
  TempDir dir;
  for (int k = 0; k < 4; ++k) {
    SCOPED_TRACE(xs[k]);
    for (int axis = 0; axis < 2; ++axis) {
      const unsigned idx = axis == 0 ? 50u * 100u + xs[k] : static_cast<unsigned>(xs[k]) * 100u + 50u;
      const unsigned index[2] = {0u, idx};
      const float cc[2] = {0.9f, 0.5f}, psi[2] = {0.0f, 7.0f};
      FILE* fp = std::fopen(dir.file("c.box").c_str(), "w+");
      output_pickora_coord_one_temp(fp, index, cc, psi, 2, 2, 100, 100, 20);
      std::fclose(fp);
      EXPECT_EQ(read_file_text(dir.file("c.box")).empty(), !kept[k]);
    }
  }
}

// A peak at work pixel (500, 300), shrink 4, --boxsize 396: 451 251 99 99 in the candidate
// file, 1802 1002 396 396 in the .box file, 2000 1200 in the .star file.
TEST(BoxFilter, CoordinateChainFromWorkPixelToMicrographAndFormats) {
  TempDir dir;
  const unsigned index[1] = {300u * 1024u + 500u};
  const float cc[1] = {0.5f}, psi[1] = {12.3456f};
  const std::string cand = dir.file("mic_nonunique.box");
  FILE* fp = std::fopen(cand.c_str(), "w+");
  output_pickora_coord_one_temp(fp, index, cc, psi, 3, 1, 1024, 1024, 396 / 4);
  std::fclose(fp);
  const std::string row = read_file_text(cand);
  EXPECT_EQ(row, "451     251     99      99      0.500000\t3       \t12.346  \n");

  // Wider than high, and cut from the micrograph at (7, 11): the centre (2000, 1200) lies inside
  // 1024 x 400 work pixels, and would not inside 400 x 1024.
  Filter f;
  f.nx = 1024;
  f.ny = 400;
  f.shrink = 4.0f;
  f.box = 396;
  f.origin = make_int2(7, 11);
  EXPECT_EQ(run_filter(dir, row, f), "1809    1013    396     396     0.500000\t3       12.346000\n");
  f.mode = BOX_FILTER_STAR;
  EXPECT_EQ(run_filter(dir, row, f), std::string(kStarHead) + "2007    1211    12.346000\t3       0.500000\n");
  f.origin = make_int2(0, 0);
  // An empty candidate file gives a star head only; an odd box size halves by integer division.
  EXPECT_EQ(run_filter(dir, "\n  \n", f), kStarHead);
  f.mode = BOX_FILTER_BOX;
  f.box = 255;
  EXPECT_EQ(run_filter(dir, candidates({{100, 100, 0.5f, 0, 1.0f}}, 63), f),
            "273     273     255     255     0.500000\t0       1.000000\n");
  EXPECT_EQ(run_filter(dir, ""), "");
}

// nx = ny = 280, step 28: cells 0 to 9 per side. The outermost ring meets itself and is always
// cleared, whatever its cc; the next ring is not.
TEST(BoxFilter, OneCandidateKeptOrNot) {
  TempDir dir;
  Filter plain, box100, cut25;
  box100.box = 100;
  cut25.cc_cutoff = 0.25f;
  // Along x and along y through the centre: with nx = ny = 280 and step 28 (cells 0 to 9 per side)
  // the outermost ring of cells meets itself and is always cleared whatever its cc, the next ring
  // is not; with box 100 (half 50) the position must lie strictly between 50 and 230.
  const struct {
    int at;
    const Filter* f;
    bool kept;
  } cases[] = {{14, &plain, false}, {270, &plain, false}, {30, &plain, true},   {250, &plain, true},
               {50, &box100, false}, {51, &box100, true},  {229, &box100, true}, {230, &box100, false}};
  for (const auto& c : cases) {
    EXPECT_EQ(kept_one(dir, c.at, 140, 0.99f, *c.f), c.kept) << "x " << c.at << " box " << c.f->box;
    EXPECT_EQ(kept_one(dir, 140, c.at, 0.99f, *c.f), c.kept) << "y " << c.at << " box " << c.f->box;
  }
  // The cc cut-off keeps equal values.
  EXPECT_TRUE(kept_one(dir, 140, 140, 0.25f, cut25));
  EXPECT_FALSE(kept_one(dir, 140, 140, 0.249999f, cut25));
  // A micrograph narrower than the work image: the mirror extension starts at x = 140; a shorter
  // one: rows beyond the grid's height fall to the edge test.
  Filter narrow, shorter;
  narrow.nx = 140;
  shorter.ny = 140;
  EXPECT_EQ(run_filter(dir, candidates({{150, 140, 0.9f, 0, 0.0f}}), narrow), "");
  EXPECT_EQ(run_filter(dir, candidates({{140, 200, 0.9f, 0, 0.0f}}), shorter), "");
}

TEST(BoxFilter, EqualCcInOneCellStaysWithTheLowerTemplate) {
  TempDir dir;
  // Rows in template order, as the driver writes them.
  EXPECT_EQ(run_filter(dir, candidates({{140, 140, 0.5f, 0, 10.0f}, {141, 141, 0.5f, 1, 20.0f}})),
            "130     130     20      20      0.500000\t0       10.000000\n");
  EXPECT_EQ(run_filter(dir, candidates({{140, 140, 0.5f, 0, 10.0f}, {141, 141, 0.500001f, 1, 20.0f}})),
            "131     131     20      20      0.500001\t1       20.000000\n");
}

// Cells 5, 6, 7 of row 5: A-B and B-C are near (30 pixels), A-C is not (60).
TEST(BoxFilter, NeighbourPassIsGreedyInScanOrder) {
  struct Case {
    float a, b, c;
    std::vector<std::pair<int, int>> kept;  // corners, box 20
  };
  const Case cases[] = {
      {0.3f, 0.4f, 0.5f, {{210, 130}}},              // A falls to B, B to C
      {0.5f, 0.4f, 0.3f, {{150, 130}, {210, 130}}},  // B falls to A; C is beside a cleared B
      {0.5f, 0.5f, 0.1f, {{180, 130}}},              // equal: the earlier cell goes; C falls to B
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.a << " " << c.b << " " << c.c);
    const std::string out =
        run_filter(dir, candidates({{160, 140, c.a, 0, 0.0f}, {190, 140, c.b, 0, 0.0f}, {220, 140, c.c, 0, 0.0f}}));
    EXPECT_EQ(corners(out), c.kept);
  }
}

// Exclusion in micrograph pixels: shrink 2 makes the limit 1568 * 4 = 6272, so candidates whose
// position (2x, 2y) lies within a squared distance below 6272 of the excluded centre go.
TEST(BoxFilter, ExcludedBoxesClearCandidatesOnAllSides) {
  // Suffix and text of files excluding the centre (280, 280).
  const char* files[][2] = {{".box", "270 270 20 20\n"},
                            {".star", "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n280.7 280.2\n"}};
  // Work pixels (dx, dy) from (140, 140), kept or not: (2 dx)^2 + (2 dy)^2 against 6272, where
  // 28,28 gives exactly 6272 and stays.
  const int offsets[][3] = {{-39, 0, 0}, {0, 39, 0}, {28, 27, 0}, {-28, -28, 1}};
  TempDir dir;
  for (const auto& file : files) {
    Filter f;
    f.nx = f.ny = 560;
    f.shrink = 2.0f;
    f.excluded = dir.file(std::string("exclude") + file[0]);
    write_file_text(f.excluded, file[1]);
    for (const auto& o : offsets)
      EXPECT_EQ(kept_one(dir, 140 + o[0], 140 + o[1], 0.5f, f), o[2] == 1) << file[0] << " " << o[0] << "," << o[1];
  }
  Filter missing;
  missing.excluded = dir.file("absent.box");  // a warning, and picking goes on
  EXPECT_TRUE(kept_one(dir, 140, 140, 0.5f, missing));
}

TEST(BoxFilterRefusal, DamagedOrUnopenableFilesAreFatalAndEarlierOutputKept) {
  TempDir dir;
  const std::string in = dir.file("mic_nonunique.box"), out = dir.file("mic.box");
  const std::string good = candidates({{140, 140, 0.5f, 0, 0.0f}});
  write_file_text(out, "earlier result\n");
  const std::string damaged[] = {
      good + "130     130     10      10      0.5\t0\n",         // six fields
      good + "130     130     10      10      0.5\t0       \t\n",  // a seventh of blanks
      good + "130     130     ten     10      0.5\t0       \t1\n",  // not a number
      good + std::string(1100, '1') + "\n",                      // longer than a line buffer
  };
  for (const std::string& text : damaged) {
    write_file_text(in, text);
    EXPECT_EXIT_REPORT(box_filter(280, 280, kMinDist, 0.1f, 1.0f, 20, 20, make_int2(0, 0), in.c_str(), "NULL",
                                  out.c_str(), 2),
                       "box_filter.*candidate file '.*mic_nonunique.box' is damaged at line 2");
  }
  EXPECT_EQ(read_file_text(out), "earlier result\n");

  write_file_text(in, "");
  EXPECT_EXIT_REPORT(box_filter(280, 280, kMinDist, 0.1f, 1.0f, 20, 20, make_int2(0, 0), in.c_str(), "NULL",
                                dir.file("no_such_folder/mic.box").c_str(), 2),
                     "Cannot write to file .*no_such_folder/mic.box. Permission denied or no space left!.*"
                     "open file '.*mic.box' failed");
  EXPECT_EXIT_REPORT(box_filter(280, 280, kMinDist, 0.1f, 1.0f, 20, 20, make_int2(0, 0),
                                dir.file("absent_nonunique.box").c_str(), "NULL", out.c_str(), 2),
                     "Cannot open file .*absent_nonunique.box. Permission denied or wrong file name");
}

}  // namespace
