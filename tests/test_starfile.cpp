// STAR heads, the label index, row positioning and row reading, on hand-made and
// RELION-written tables and on malformed input.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "starfile/starfile.h"
#include "support/temp_file.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

namespace {

const std::string kRelion = std::string(PICKORA_TESTDATA_DIR) + "/relion/";

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using HeadPtr = std::unique_ptr<StarHead, FreeDeleter>;

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
std::vector<std::vector<std::string>> read_rows(FILE* fp, int column_count) {
  std::vector<std::vector<std::string>> rows;
  char line[PICKORA_LINE_LEN];
  char* tokens[PICKORA_LINE_LEN / 2];
  star_set_pointer(fp, 0);
  for (int got; (got = star_read_row(fp, line, tokens, column_count)) >= 0;) {
    if (got == 1) rows.emplace_back(tokens, tokens + column_count);
  }
  return rows;
}

std::vector<std::vector<std::string>> read_rows_of(const std::string& path) {
  FILE* fp = std::fopen(path.c_str(), "r");
  EXPECT_NE(fp, nullptr) << path;
  if (fp == nullptr) return {};
  HeadPtr head(star_head_new());
  star_read_head(fp, head.get());
  auto rows = read_rows(fp, head->column_count);
  std::fclose(fp);
  return rows;
}

// The rest of the line at the stream's position.
std::string line_at(FILE* fp) {
  char line[PICKORA_LINE_LEN];
  read_one_line(line, fp);
  return line;
}

TEST(StarKeywords, TableContent) {
  int rows = 0, dimensionality = 0;
  while (STAR_HEAD_KEYWORDS[rows][0] != '\0') {
    if (std::strcmp(STAR_HEAD_KEYWORDS[rows], "_rlnDataDimensionality") == 0) ++dimensionality;
    ++rows;
  }
  EXPECT_EQ(rows, STAR_HEAD_KEYWORD_COUNT);
  EXPECT_EQ(rows, 228);
  EXPECT_EQ(dimensionality, 2);
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[0], "_rlnComment");
  EXPECT_STREQ(STAR_HEAD_KEYWORDS[227], "_rlnSpectralIndex");
  EXPECT_EQ(is_star_head_keyword("_rlnCoordinateX"), 1);
  EXPECT_EQ(is_star_head_keyword("_rlnMicrographId"), 1);
  EXPECT_EQ(is_star_head_keyword("_rlncoordinatex"), 0);
  EXPECT_EQ(is_star_head_keyword("_rlnCoordinate"), 0);
  EXPECT_EQ(is_star_head_keyword("_rlnOpticsGroup"), 0);
  EXPECT_EQ(is_star_head_keyword(""), 0);
  EXPECT_EQ(is_star_head_keyword(nullptr), 0);
}

TEST(StarIndex, EveryLabelHasItsOwnField) {
  const char* labels[] = {"_rlnBfactor", "_rlnMicrographName", "_rlnImageName", "_rlnCoordinateX",
                          "_rlnCoordinateY", "_rlnVoltage", "_rlnPhaseShift", "_rlnDefocusU", "_rlnDefocusV",
                          "_rlnDefocusAngle", "_rlnSphericalAberration", "_rlnDetectorPixelSize",
                          "_rlnMagnification", "_rlnAmplitudeContrast", "_rlnCtfFigureOfMerit",
                          "_rlnCtfMaxResolution", "_rlnClassNumber", "_rlnGroupNumber", "_rlnRandomSubset",
                          "_rlnNormCorrection", "_rlnOriginX", "_rlnOriginY", "_rlnAngleRot", "_rlnAngleTilt",
                          "_rlnAnglePsi", "_rlnLogLikeliContribution", "_rlnNrOfSignificantSamples",
                          "_rlnMaxValueProbDistribution", "_rlnAutopickFigureOfMerit"};
  std::unique_ptr<ParticleInfoIndex, FreeDeleter> index(particle_info_index_new());
  const int* fields = reinterpret_cast<const int*>(index.get());
  for (size_t i = 0; i < sizeof(ParticleInfoIndex) / sizeof(int); ++i) ASSERT_EQ(fields[i], 0);
  int number = 1;
  for (const char* label : labels) set_info_index_from_keyword_number(label, number++, index.get());
  number = 1;
  for (const char* label : labels) {
    EXPECT_EQ(get_info_index_from_keyword(label, index.get()), number) << label;
    EXPECT_EQ(fields[number - 1], number) << label;  // the fields stand in the order of the list
    ++number;
  }
  EXPECT_EQ(index->coordinate_x, 4);
  EXPECT_EQ(index->autopick_figure_of_merit, 29);
  set_info_index_from_keyword_number("_rlnMicrographId", 77, index.get());  // in the table, not in the index
  set_info_index_from_keyword_number("_rlnUnknown", 77, index.get());
  EXPECT_EQ(get_info_index_from_keyword("_rlnMicrographId", index.get()), 0);
  for (size_t i = 0; i < sizeof(ParticleInfoIndex) / sizeof(int); ++i) ASSERT_NE(fields[i], 77);
  particle_info_index_init(index.get());
  EXPECT_EQ(index->autopick_figure_of_merit, 0);
}

TEST(StarHeadParse, MinimalHead) {
  auto head = read_head_text("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
  EXPECT_EQ(head->column_count, 2);
  EXPECT_STREQ(head->column_label[0], "_rlnCoordinateX");
  EXPECT_EQ(head->column_number[1], 2);
}

TEST(StarHeadParse, ColumnNumbersComeFromTheFile) {
  auto head = read_head_text("data_particles\n\nloop_ \n_rlnAnglePsi #2\n_rlnCoordinateX #3\n_rlnCoordinateY #1\n");
  ASSERT_EQ(head->column_count, 3);
  const ParticleInfoIndex index = index_of(*head);
  EXPECT_EQ(index.coordinate_x, 3);
  EXPECT_EQ(index.coordinate_y, 1);
  EXPECT_EQ(index.angle_psi, 2);
  EXPECT_EQ(index.class_number, 0);
}

TEST(StarHeadParse, UnknownLabelEndsTheHead) {
  auto head = read_head_text("data_\nloop_\n_rlnCoordinateX #1\n_rlnOpticsGroup #2\n_rlnCoordinateY #3\n1 2 3\n");
  EXPECT_EQ(head->column_count, 1);
  EXPECT_EQ(index_of(*head).coordinate_y, 0);
}

TEST(StarHeadParse, KnownLabelWithoutNumberEndsTheHead) {
  auto head = read_head_text("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY\n_rlnAnglePsi #3\n");
  EXPECT_EQ(head->column_count, 1);
}

TEST(StarHeadParse, TableLabelOutsideTheIndexTakesAnEntry) {
  auto head = read_head_text("data_\nloop_\n_rlnMicrographId #1\n_rlnCoordinateX #2\n");
  ASSERT_EQ(head->column_count, 2);
  EXPECT_STREQ(head->column_label[0], "_rlnMicrographId");
  EXPECT_EQ(index_of(*head).coordinate_x, 2);
}

TEST(StarHeadParse, CommentsAndBlanksArePassedOver) {
  auto head = read_head_text("\n# version 30001\n\ndata_\n\t\r\n#comment\nloop_\n_rlnCoordinateX #1 # trailing\n"
                             "#another\n_rlnCoordinateY\t#2\r\n");
  EXPECT_EQ(head->column_count, 2);
  EXPECT_EQ(index_of(*head).coordinate_y, 2);
}

TEST(StarHeadParse, NoTableGivesNoColumns) {
  EXPECT_EQ(read_head_text("")->column_count, 0);
  EXPECT_EQ(read_head_text("12 34 56\n")->column_count, 0);
  EXPECT_EQ(read_head_text("_rlnCoordinateX #1")->column_count, 1);  // no newline at the end
}

TEST(StarHeadParse, MissingFileIsFatal) {
  StarHead* head = star_head_new();
  EXPECT_EXIT(
      {
        dup2(2, 1);
        starf_read_head("/nonexistent/a.star", head);
      },
      testing::ExitedWithCode(1),
      "Cannot open file /nonexistent/a.star. Permission denied or wrong file name.\n.*"
      "Error in function starf_read_head\\(\\), file src/starfile on line [0-9]+: "
      "open file '/nonexistent/a.star' failed.! Exit now!");
  std::free(head);
}

TEST(StarPointer, RowsAreCountedFromZero) {
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
}

TEST(StarPointer, HeadOnlyFileEndsAtTheEnd) {
  for (const char* text : {"data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n",
                           "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2", ""}) {
    TempFile f(text, ".star");
    FILE* fp = std::fopen(f.path.c_str(), "r");
    star_set_pointer(fp, 0);
    EXPECT_EQ(std::fgetc(fp), EOF) << text;
    EXPECT_EQ(read_rows(fp, 2).size(), 0u);
    EXPECT_EQ(get_lineN_from_star(fp), 0);
    std::fclose(fp);
  }
}

TEST(StarPointer, SecondBlockRowsCountOn) {
  TempFile f("data_a\nloop_\n_rlnCoordinateX #1\n1\n2\ndata_b\nloop_\n_rlnCoordinateX #1\n3\n");
  FILE* fp = std::fopen(f.path.c_str(), "r");
  star_set_pointer(fp, 2);
  EXPECT_EQ(line_at(fp), "3\n");
  EXPECT_EQ(read_rows(fp, 1).size(), 3u);
  std::fclose(fp);
}

TEST(StarRows, WidthRuleAndFields) {
  TempFile f("data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n"
             "1 2 3\n4 5\n6 7 8 9\n  \nNONE\n10\t11\t12\r\n");
  const auto rows = read_rows_of(f.path);
  ASSERT_EQ(rows.size(), 3u);  // the short row is passed over, the long one cut to the width
  EXPECT_EQ(rows[1], (std::vector<std::string>{"6", "7", "8"}));
  EXPECT_EQ(rows[2][2], "12");
  char a[] = "a", b[] = "b";
  char* tokens[] = {a, b};
  EXPECT_STREQ(star_row_field(tokens, 2, 2), "b");
  EXPECT_EQ(star_row_field(tokens, 2, 0), nullptr);
  EXPECT_EQ(star_row_field(tokens, 2, 3), nullptr);
  EXPECT_EQ(star_row_field(tokens, 2, -1), nullptr);
}

TEST(StarRows, NoColumnsReadsNothing) {
  TempFile f("1 2 3\n4 5 6\n");
  FILE* fp = std::fopen(f.path.c_str(), "r");
  EXPECT_EQ(read_rows(fp, 0).size(), 0u);
  std::fclose(fp);
}

TEST(StarSuffix, Star) {
  EXPECT_EQ(get_starf_suffixn(".star"), 5);
  EXPECT_EQ(get_starf_suffixn("mic_pickora.star"), 5);
  EXPECT_EQ(get_starf_suffixn("mic.STAR"), 0);
  EXPECT_EQ(get_starf_suffixn("mic.star.bak"), 0);
  EXPECT_EQ(get_starf_suffixn("star"), 0);
}

TEST(StarWords, HeadWords) {
  char label[] = "_rlnCoordinateX", hash[] = "#1", value[] = "12", data[] = "data_optics", loop[] = "loop_",
       comment[] = "#", unknown[] = "_rlnOpticsGroup";
  char* w1[] = {label, hash};
  char* w3[] = {label, hash, value};
  char* wd[] = {data, value, value};
  char* wl[] = {loop};
  char* wc[] = {comment, value, value};
  char* wu[] = {unknown, hash};
  char* wv[] = {value, value};
  EXPECT_EQ(is_words_starhead(nullptr, 0), 1);
  EXPECT_EQ(is_words_starhead(w1, 2), 1);
  EXPECT_EQ(is_words_starhead(w1, 1), 1);
  EXPECT_EQ(is_words_starhead(w3, 3), 0);
  EXPECT_EQ(is_words_starhead(wd, 3), 1);
  EXPECT_EQ(is_words_starhead(wl, 1), 1);
  EXPECT_EQ(is_words_starhead(wc, 3), 1);
  EXPECT_EQ(is_words_starhead(wu, 2), 0);
  EXPECT_EQ(is_words_starhead(wv, 2), 0);
}

TEST(RelionFiles, AutopickCoordinates) {
  const std::string path = kRelion + "autopick_coords.star";
  auto head = read_head(path);
  ASSERT_EQ(head->column_count, 5);
  const ParticleInfoIndex index = index_of(*head);
  EXPECT_EQ(index.coordinate_x, 1);
  EXPECT_EQ(index.coordinate_y, 2);
  EXPECT_EQ(index.class_number, 3);
  EXPECT_EQ(index.autopick_figure_of_merit, 4);
  EXPECT_EQ(index.angle_psi, 5);
  EXPECT_EQ(get_lineN_from_starf(path.c_str()), 13);
  const auto rows = read_rows_of(path);
  ASSERT_EQ(rows.size(), 13u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"872.000000", "256.000000", "5", "0.756319", "200.000000"}));
  EXPECT_EQ(rows[12][0], "632.000000");
  EXPECT_EQ(rows[12][4], "300.000000");
}

TEST(RelionFiles, SummaryMicrographNames) {
  const std::string path = kRelion + "autopick_summary.star";
  ParticleInfoIndex index;
  set_info_index_from_starf(path.c_str(), &index);
  EXPECT_EQ(index.micrograph_name, 1);
  EXPECT_EQ(index.autopick_figure_of_merit, 2);
  StarHead* head = star_head_new();
  starf_read_head_info_index(path.c_str(), head, &index);
  EXPECT_EQ(head->column_count, 3);  // _rlnGroupNrParticles: in the table, not in the index
  EXPECT_STREQ(head->column_label[2], "_rlnGroupNrParticles");
  std::free(head);
  char** names = get_all_micrographs_from_ctfstar(path.c_str());
  ASSERT_NE(names, nullptr);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(std::string(names[i]), "micrographs/mic_00" + std::to_string(i) + ".mrc");
  EXPECT_STREQ(names[8], "");
  free2d(names);
}

TEST(RelionFiles, OpticsBlockFirstEndsTheHeadAtItsLabels) {
  // _rlnOpticsGroupName is not a label of the table, so the head ends at the first loop's first
  // label and no column is known: the micrograph block behind it is not reached.
  const std::string path = kRelion + "micrographs_optics.star";
  auto head = read_head(path);
  EXPECT_EQ(head->column_count, 0);
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
  particle_star_write_oneline(fp, "mic_000.mrc", 100.0f, 200.5f, 300.0f, 21552.92f, 21161.51f, 23.46f, 2.7f, 5.0f,
                              0.2f, 10000.0f, 0.1f, 0.75f, 0.0f);
  std::fclose(fp);
  const std::string text = read_file_bytes(f.path);
  EXPECT_EQ(text.rfind("\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCoordinateX #2\n_rlnCoordinateY #3\n", 0), 0u);
  EXPECT_NE(text.find("_rlnPhaseShift #14\nmic_000.mrc   100.000000   200.500000"), std::string::npos) << text;
  auto head = read_head(f.path);
  ASSERT_EQ(head->column_count, 14);
  const ParticleInfoIndex index = index_of(*head);
  const auto rows = read_rows_of(f.path);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][index.defocus_u - 1], "21552.919922");
  EXPECT_EQ(rows[0][index.defocus_v - 1], "21161.509766");
  EXPECT_EQ(rows[0][index.magnification - 1], "10000.000000");
  EXPECT_EQ(rows[0][index.phase_shift - 1], "0.000000");
}

// Malformed input: each case must end, stay inside its buffers and give a sane head.
TEST(StarMalformed, TruncatedFiles) {
  const std::string full = "data_\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n10 20\n30 40\n";
  for (size_t cut = 0; cut <= full.size(); ++cut) {
    TempFile f(full.substr(0, cut), ".star");
    auto head = read_head(f.path);
    EXPECT_LE(head->column_count, 2);
    EXPECT_LE(read_rows_of(f.path).size(), 2u);
    EXPECT_LE(get_lineN_from_starf(f.path.c_str()), 2);
  }
}

TEST(StarMalformed, NumberBehindHash) {
  auto head = read_head_text("_rlnCoordinateX #\n_rlnCoordinateY #abc\n_rlnAnglePsi #-4\n"
                             "_rlnClassNumber #99999999999999999999\n_rlnVoltage #7x\n1 2 3 4 5\n");
  ASSERT_EQ(head->column_count, 5);
  EXPECT_EQ(head->column_number[0], 0);
  EXPECT_EQ(head->column_number[1], 0);
  EXPECT_EQ(head->column_number[2], -4);
  EXPECT_EQ(head->column_number[3], 2147483647);
  EXPECT_EQ(head->column_number[4], 7);
  const ParticleInfoIndex index = index_of(*head);
  char one[] = "1";
  char* tokens[5] = {one, one, one, one, one};
  EXPECT_EQ(star_row_field(tokens, 5, index.angle_psi), nullptr);
  EXPECT_EQ(star_row_field(tokens, 5, index.class_number), nullptr);
  EXPECT_EQ(star_row_field(tokens, 5, index.voltage), nullptr);
}

TEST(StarMalformed, VeryLongLinesAreOneLineAndNoRow) {
  std::string wide;
  for (int i = 0; i < 2000; ++i) wide += "7 ";
  const std::string exact(1023, 'e');  // exactly fills a line buffer: still a whole line
  TempFile f("data_\nloop_\n_rlnCoordinateX #1 " + std::string(3000, ' ') + "junk\n_rlnCoordinateY #2\n" + wide +
                 "\n1 2\n" + wide + "\n" + exact + " 9\n3 4\n" + exact + "\n",
             ".star");
  auto head = read_head(f.path);
  EXPECT_EQ(head->column_count, 2);
  EXPECT_EQ(read_rows_of(f.path), (std::vector<std::vector<std::string>>{{"1", "2"}, {"3", "4"}}));
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
  std::string text = "data_\nloop_\n";
  for (int i = 1; i <= 3000; ++i)
    text += std::string(STAR_HEAD_KEYWORDS[i % STAR_HEAD_KEYWORD_COUNT]) + " #" + std::to_string(i) + "\n";
  std::string row;
  for (int i = 0; i < 3000; ++i) row += "1 ";
  text += row + "\n";
  TempFile f(text, ".star");
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

TEST(StarMalformed, BinaryGarbage) {
  std::mt19937 random(12345);
  for (int trial = 0; trial < 50; ++trial) {
    std::string bytes(4096 + trial * 37, '\0');
    for (char& c : bytes) c = static_cast<char>(random() & 0xff);
    if (trial % 2 == 1) bytes = "data_\nloop_\n_rlnCoordinateX #1\n_rlnMicrographName #2\n" + bytes;
    TempFile f(bytes, ".star");
    auto head = read_head(f.path);
    ASSERT_LE(head->column_count, STAR_HEAD_MAX_LINES);
    for (int i = 0; i < head->column_count; ++i) ASSERT_EQ(is_star_head_keyword(head->column_label[i]), 1);
    read_rows_of(f.path);
    get_lineN_from_starf(f.path.c_str());
    char** names = get_all_micrographs_from_ctfstar(f.path.c_str());
    ASSERT_NE(names, nullptr);
    free2d(names);
  }
}

}  // namespace
