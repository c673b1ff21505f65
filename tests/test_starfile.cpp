// STAR heads, the label index, row positioning and row reading, on hand-made and sample
// tables and on malformed input.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cuda_general/owned.h"
#include "starfile/starfile.h"
#include "support/exit_report.h"
#include "support/temp_file.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

namespace {

// The sample tables written by another package are the STAR fuzzer's seeds too: one copy.
const std::string kSamples = std::string(PICKORA_SOURCE_DIR) + "/tests/fuzz/corpus/star/";
using Rows = std::vector<std::vector<std::string>>;

using HeadPtr = HostBlock<StarHead>;

HeadPtr read_head(const std::string& path) {
  HeadPtr head(star_head_new());
  starf_read_head(path.c_str(), head.get());
  return head;
}

HeadPtr read_head_text(const std::string& text) {
  TempFile f(text, ".star");
  return read_head(f.path);
}

ParticleInfoIndex index_of(const StarHead& head) {
  ParticleInfoIndex index;
  set_info_index_from_star_head(&head, &index);
  return index;
}

// The rows that star_read_row accepts from row 0, each as its tokens.
Rows read_rows(FILE* fp, int column_count) {
  Rows rows;
  char line[PICKORA_LINE_LEN];
  char* tokens[PICKORA_LINE_LEN / 2];
  star_set_pointer(fp, 0);
  for (int got; (got = star_read_row(fp, line, tokens, column_count)) >= 0;) {
    if (got == 1) rows.emplace_back(tokens, tokens + column_count);
  }
  return rows;
}

Rows read_rows_of(const std::string& path) {
  FILE* fp = std::fopen(path.c_str(), "r");
  EXPECT_NE(fp, nullptr) << path;
  if (fp == nullptr) return {};
  HeadPtr head(star_head_new());
  star_read_head(fp, head.get());
  Rows rows = read_rows(fp, head->column_count);
  std::fclose(fp);
  return rows;
}

// The rest of the line at the stream's position.
std::string line_at(FILE* fp) {
  char line[PICKORA_LINE_LEN];
  read_one_line(line, fp);
  return line;
}

TEST(StarKeywords, Membership) {
  for (const char* yes : {"_rlnCoordinateX", "_rlnMicrographId"}) EXPECT_EQ(is_star_head_keyword(yes), 1) << yes;
  for (const char* no : {"_rlncoordinatex", "_rlnCoordinate", "_rlnOpticsGroup", ""})
    EXPECT_EQ(is_star_head_keyword(no), 0) << no;
  EXPECT_EQ(is_star_head_keyword(nullptr), 0);
}

TEST(StarIndex, EveryLabelHasItsOwnField) {
  const char* labels[] = {
      "_rlnBfactor", "_rlnMicrographName", "_rlnImageName", "_rlnCoordinateX", "_rlnCoordinateY", "_rlnVoltage",
      "_rlnPhaseShift", "_rlnDefocusU", "_rlnDefocusV", "_rlnDefocusAngle", "_rlnSphericalAberration",
      "_rlnDetectorPixelSize", "_rlnMagnification", "_rlnAmplitudeContrast", "_rlnCtfFigureOfMerit",
      "_rlnCtfMaxResolution", "_rlnClassNumber", "_rlnGroupNumber", "_rlnRandomSubset", "_rlnNormCorrection",
      "_rlnOriginX", "_rlnOriginY", "_rlnAngleRot", "_rlnAngleTilt", "_rlnAnglePsi", "_rlnLogLikeliContribution",
      "_rlnNrOfSignificantSamples", "_rlnMaxValueProbDistribution", "_rlnAutopickFigureOfMerit"};
  const int field_count = sizeof(ParticleInfoIndex) / sizeof(int);
  HostBlock<ParticleInfoIndex> index(particle_info_index_new());
  const int* fields = reinterpret_cast<const int*>(index.get());
  EXPECT_EQ(std::vector<int>(fields, fields + field_count), std::vector<int>(field_count, 0));
  int number = 1;
  for (const char* label : labels) set_info_index_from_keyword_number(label, number++, index.get());
  for (int i = 0; i < number - 1; ++i) {
    EXPECT_EQ(get_info_index_from_keyword(labels[i], index.get()), i + 1) << labels[i];
    EXPECT_EQ(fields[i], i + 1) << labels[i];  // the fields stand in the order of the list
  }
  EXPECT_EQ(index->coordinate_x, 4);
  EXPECT_EQ(index->autopick_figure_of_merit, 29);
  set_info_index_from_keyword_number("_rlnMicrographId", 77, index.get());  // in the table, not in the index
  set_info_index_from_keyword_number("_rlnUnknown", 77, index.get());
  EXPECT_EQ(get_info_index_from_keyword("_rlnMicrographId", index.get()), 0);
  for (int i = 0; i < field_count; ++i) ASSERT_NE(fields[i], 77);
  particle_info_index_init(index.get());
  EXPECT_EQ(index->autopick_figure_of_merit, 0);
}

TEST(StarHeadParse, Grammar) {
  const struct {
    const char* text;
    int column_count;
  } cases[] = {
      {"data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n", 2},
      // A label outside the table, or one of the table without its number, ends the head.
      {"data_\nloop_\n_rlnCoordinateX #1\n_rlnOpticsGroup #2\n_rlnCoordinateY #3\n1 2 3\n", 1},
      {"data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY\n_rlnAnglePsi #3\n", 1},
      {"\n# version 30001\n\ndata_x\n\t\r\n#c\nloop_\n_rlnCoordinateX #1 # trailing\n#c\n_rlnCoordinateY\t#2\r\n", 2},
      {"", 0},
      {"12 34 56\n_rlnCoordinateX #1\n", 0},
      {"_rlnCoordinateX #1", 1},  // no newline at the end
  };
  for (const auto& c : cases) EXPECT_EQ(read_head_text(c.text)->column_count, c.column_count) << c.text;
}

TEST(StarHeadParse, ColumnNumbersComeFromTheFile) {
  auto head = read_head_text("data_\nloop_\n_rlnMicrographId #4\n_rlnAnglePsi #2\n_rlnCoordinateX #3\n"
                             "_rlnCoordinateY #1\n");
  ASSERT_EQ(head->column_count, 4);
  EXPECT_STREQ(head->column_label[0], "_rlnMicrographId");  // in the table, not in the index: an entry only
  EXPECT_EQ(head->column_number[0], 4);
  const ParticleInfoIndex index = index_of(*head);
  EXPECT_EQ(std::vector<int>({index.coordinate_x, index.coordinate_y, index.angle_psi, index.class_number}),
            std::vector<int>({3, 1, 2, 0}));
}

TEST(StarHeadParse, MissingFileIsFatal) {
  StarHead* head = star_head_new();
  EXPECT_EXIT_REPORT(starf_read_head("/nonexistent/a.star", head),
                     "Cannot open file /nonexistent/a.star. Permission denied or wrong file name.\n.*"
                     "Error in function starf_read_head\\(\\), file src/starfile on line [0-9]+: "
                     "open file '/nonexistent/a.star' failed.! Exit now!");
  std::free(head);
}

TEST(StarPointer, RowsAreCountedFromZeroAcrossBlocks) {
  TempFile f("\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n10 20\n\n30 40\n# note\n50 60\n");
  FILE* fp = std::fopen(f.path.c_str(), "r");
  star_set_pointer(fp, 0);
  EXPECT_EQ(line_at(fp), "10 20\n");
  star_set_pointer(fp, 2);
  EXPECT_EQ(line_at(fp), "50 60\n");
  star_set_pointer(fp, 1);
  star_set_next_line(fp);
  EXPECT_EQ(line_at(fp), "# note\n");
  star_set_pointer(fp, 3);
  EXPECT_EQ(std::fgetc(fp), EOF);
  EXPECT_EQ(get_lineN_from_star(fp), 3);
  std::fclose(fp);
  EXPECT_EQ(get_lineN_from_starf(f.path.c_str()), 3);

  // The rows of a second block count on from the first.
  TempFile g("data_a\nloop_\n_rlnCoordinateX #1\n1\n2\ndata_b\nloop_\n_rlnCoordinateX #1\n3\n");
  fp = std::fopen(g.path.c_str(), "r");
  star_set_pointer(fp, 2);
  EXPECT_EQ(line_at(fp), "3\n");
  EXPECT_EQ(read_rows(fp, 1).size(), 3u);
  std::fclose(fp);
}

TEST(StarRows, WidthRuleAndFields) {
  TempFile f(
      "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
      "1 2 3\n4 5\n6 7 8 9\n  \nNONE\n10\t11\t12\r\n");
  // The short row is passed over, the long one cut to the width.
  EXPECT_EQ(read_rows_of(f.path), (Rows{{"1", "2", "3"}, {"6", "7", "8"}, {"10", "11", "12"}}));
  FILE* fp = std::fopen(f.path.c_str(), "r");
  EXPECT_EQ(read_rows(fp, 0).size(), 0u);  // no columns, no rows
  std::fclose(fp);
  char a[] = "a", b[] = "b", c[] = "c";
  char* tokens[] = {a, b, c};  // a row of two: the third token lies past its end
  EXPECT_STREQ(star_row_field(tokens, 2, 2), "b");
  for (int column : {0, 3, -1}) EXPECT_EQ(star_row_field(tokens, 2, column), nullptr) << column;
}

TEST(StarWords, SuffixAndHeadWords) {
  EXPECT_EQ(get_starf_suffixn(".star"), 5);
  EXPECT_EQ(get_starf_suffixn("mic_pickora.star"), 5);
  for (const char* name : {"mic.STAR", "mic.star.bak", "star"}) EXPECT_EQ(get_starf_suffixn(name), 0) << name;

  const struct {
    std::vector<std::string> words;
    int want;
  } cases[] = {
      {{"_rlnCoordinateX", "#1"}, 1}, {{"_rlnCoordinateX"}, 1},   {{"_rlnCoordinateX", "#1", "12"}, 0},
      {{"data_optics", "12", "12"}, 1}, {{"loop_"}, 1},           {{"#", "12", "12"}, 1},
      {{"_rlnOpticsGroup", "#1"}, 0}, {{"12", "12"}, 0},
  };
  EXPECT_EQ(is_words_starhead(nullptr, 0), 1);
  for (const auto& c : cases) {
    std::vector<std::string> copy = c.words;
    std::vector<char*> words;
    for (auto& w : copy) words.push_back(&w[0]);
    EXPECT_EQ(is_words_starhead(words.data(), static_cast<int>(words.size())), c.want) << c.words[0];
  }
}

TEST(SampleFiles, AutopickCoordinates) {
  const std::string path = kSamples + "autopick_coords.star";
  auto head = read_head(path);
  ASSERT_EQ(head->column_count, 5);
  const ParticleInfoIndex index = index_of(*head);
  EXPECT_EQ(std::vector<int>({index.coordinate_x, index.coordinate_y, index.class_number,
                              index.autopick_figure_of_merit, index.angle_psi}),
            std::vector<int>({1, 2, 3, 4, 5}));
  EXPECT_EQ(get_lineN_from_starf(path.c_str()), 13);
  const Rows rows = read_rows_of(path);
  ASSERT_EQ(rows.size(), 13u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"872.000000", "256.000000", "5", "0.756319", "200.000000"}));
  EXPECT_EQ(rows[12][0], "632.000000");
  EXPECT_EQ(rows[12][4], "300.000000");
}

TEST(SampleFiles, SummaryMicrographNames) {
  const std::string path = kSamples + "autopick_summary.star";
  ParticleInfoIndex index;
  set_info_index_from_starf(path.c_str(), &index);
  EXPECT_EQ(index.micrograph_name, 1);
  EXPECT_EQ(index.autopick_figure_of_merit, 2);
  HeadPtr head(star_head_new());
  starf_read_head_info_index(path.c_str(), head.get(), &index);
  EXPECT_EQ(head->column_count, 3);  // _rlnGroupNrParticles: in the table, not in the index
  EXPECT_STREQ(head->column_label[2], "_rlnGroupNrParticles");
  char** names = get_all_micrographs_from_ctfstar(path.c_str());
  ASSERT_NE(names, nullptr);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(std::string(names[i]), "micrographs/mic_00" + std::to_string(i) + ".mrc");
  EXPECT_STREQ(names[8], "");
  free2d(names);
}

TEST(SampleFiles, OpticsBlockFirstEndsTheHeadAtItsLabels) {
  // _rlnOpticsGroupName is not a label of the table, so the head ends at the first loop's first
  // label and no column is known: the micrograph block behind it is not reached.
  const std::string path = kSamples + "micrographs_optics.star";
  EXPECT_EQ(read_head(path)->column_count, 0);
  EXPECT_EQ(read_rows_of(path).size(), 0u);
  char** names = get_all_micrographs_from_ctfstar(path.c_str());
  ASSERT_NE(names, nullptr);
  EXPECT_STREQ(names[0], "");
  free2d(names);
}

TEST(StarWriter, HeadAndRowsReadBack) {
  TempFile f("", ".star");
  FILE* fp = std::fopen(f.path.c_str(), "w+");
  particle_star_write_head(fp);
  particle_star_write_oneline(fp, "mic_000.mrc", 100.0f, 200.5f, 300.0f, 21552.92f, 21161.51f, 23.46f, 2.7f, 5.0f, 0.2f,
                              10000.0f, 0.1f, 0.75f, 0.0f);
  std::fclose(fp);
  const std::string text = read_file_bytes(f.path);
  EXPECT_EQ(text.rfind("\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n_rlnCoordinateY #3\n", 0), 0u);
  EXPECT_NE(text.find("_rlnPhaseShift #14\nmic_000.mrc   100.000000   200.500000"), std::string::npos) << text;
  auto head = read_head(f.path);
  ASSERT_EQ(head->column_count, 14);
  const ParticleInfoIndex index = index_of(*head);
  const Rows rows = read_rows_of(f.path);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][index.defocus_u - 1], "21552.919922");
  EXPECT_EQ(rows[0][index.defocus_v - 1], "21161.509766");
  EXPECT_EQ(rows[0][index.magnification - 1], "10000.000000");
  EXPECT_EQ(rows[0][index.phase_shift - 1], "0.000000");
}

TEST(StarMalformed, NumberBehindHash) {
  auto head = read_head_text(
      "_rlnCoordinateX #\n_rlnCoordinateY #abc\n_rlnAnglePsi #-4\n"
      "_rlnClassNumber #99999999999999999999\n_rlnVoltage #7x\n1 2 3 4 5\n");
  ASSERT_EQ(head->column_count, 5);
  EXPECT_EQ(std::vector<int>(head->column_number, head->column_number + 5),
            std::vector<int>({0, 0, -4, 2147483647, 7}));
  const ParticleInfoIndex index = index_of(*head);
  char one[] = "1";
  char* tokens[5] = {one, one, one, one, one};
  for (int column : {index.angle_psi, index.class_number, index.voltage})
    EXPECT_EQ(star_row_field(tokens, 5, column), nullptr) << column;
}

TEST(StarMalformed, VeryLongLinesAreOneLineAndNoRow) {
  std::string wide;
  for (int i = 0; i < 2000; ++i) wide += "7 ";
  const std::string exact(1023, 'e');  // exactly fills a line buffer: still a whole line
  TempFile f("data_\nloop_\n_rlnCoordinateX #1 " + std::string(3000, ' ') + "junk\n_rlnCoordinateY #2\n" + wide +
                 "\n1 2\n" + wide + "\n" + exact + " 9\n3 4\n" + exact + "\n",
             ".star");
  EXPECT_EQ(read_head(f.path)->column_count, 2);
  EXPECT_EQ(read_rows_of(f.path), (Rows{{"1", "2"}, {"3", "4"}}));
  FILE* fp = std::fopen(f.path.c_str(), "r");
  EXPECT_EQ(get_lineN_from_star(fp), 6);
  star_set_pointer(fp, 1);
  EXPECT_EQ(line_at(fp), "1 2\n");
  star_set_pointer(fp, 4);
  EXPECT_EQ(line_at(fp), "3 4\n");
  std::fclose(fp);
  TempFile g(wide + "\n_rlnCoordinateX #1\n", ".star");
  EXPECT_EQ(read_head(g.path)->column_count, 0);
}

TEST(StarMalformed, ThousandsOfColumnsStopAtTheLineLimit) {
  std::string text = "data_\nloop_\n", row;
  for (int i = 1; i <= 3000; ++i) {
    text += std::string(STAR_HEAD_KEYWORDS[i % STAR_HEAD_KEYWORD_COUNT]) + " #" + std::to_string(i) + "\n";
    row += "1 ";
  }
  TempFile f(text + row + "\n", ".star");
  auto head = read_head(f.path);
  EXPECT_EQ(head->column_count, STAR_HEAD_MAX_LINES - 2);  // data_ and loop_ take two of the 512 lines
  EXPECT_EQ(head->column_number[head->column_count - 1], STAR_HEAD_MAX_LINES - 2);
  FILE* fp = std::fopen(f.path.c_str(), "r");
  EXPECT_EQ(read_rows(fp, head->column_count).size(), 0u);  // a 6000-character row never has the width
  EXPECT_EQ(read_rows(fp, 3000).size(), 0u);                // nor a width beyond what a line can hold
  std::fclose(fp);
  char** names = get_all_micrographs_from_ctfstar(f.path.c_str());
  ASSERT_NE(names, nullptr);
  free2d(names);
}

}  // namespace
