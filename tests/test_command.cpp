// The pickora command: the parser and the derived values through the library, and the real
// executable for the help paths, the parameter blocks, the run skeleton and its exit statuses.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "pickora56/pickora_driver.h"
#include "pickora56/pickora_help.h"
#include "pickora56/pickora_para.h"
#include "support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

// ---------------------------------------------------------------------------------------------
// Helpers.

struct Args {
  std::vector<std::string> words;
  std::vector<char*> ptrs;
  explicit Args(std::vector<std::string> w) : words(std::move(w)) {
    words.insert(words.begin(), "pickora");
    for (auto& s : words) ptrs.push_back(&s[0]);
    ptrs.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words.size()); }
  char** argv() { return ptrs.data(); }
};

// A parsed command line; the record's file entries point into args.
struct Parsed {
  Args args;
  Pickora_Para para{};
  std::string out;
  explicit Parsed(std::vector<std::string> w) : args(std::move(w)) {
    testing::internal::CaptureStdout();
    pickora_init_parameters(args.argc(), &para);
    pickora_get_parameters(args.argc(), args.argv(), &para);
    out = testing::internal::GetCapturedStdout();
  }
  ~Parsed() { pickora_free_parameters(&para); }
  std::string blocks() {
    FILE* f = std::tmpfile();
    pickora_fput_parameters(args.argc(), args.argv(), &para, f);
    std::string text(static_cast<size_t>(std::ftell(f)), '\0');
    std::rewind(f);
    EXPECT_EQ(std::fread(&text[0], 1, text.size(), f), text.size());
    std::fclose(f);
    return text;
  }
};

void parse_and_exit(std::vector<std::string> w) {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::exit(78);  // keep the test log short
  Args args(std::move(w));
  Pickora_Para para{};
  pickora_init_parameters(args.argc(), &para);
  pickora_get_parameters(args.argc(), args.argv(), &para);
  std::exit(77);  // not reached when the parser stops the run
}

// Side of the micrographs of the runs: large enough that the default generated template
// (about 190 work pixels at the default shrink of 4) fits the work image.
constexpr int kMic = 1200;

// A mode-2 MRC file with a plain head and nx * ny * nz floats.
void write_mrc(const fs::path& path, int nx, int ny, int nz = 1) {
  unsigned char head[1024] = {};
  const int sizes[4] = {nx, ny, nz, 2};
  std::memcpy(head, sizes, sizeof(sizes));
  std::memcpy(head + 208, "MAP ", 4);
  std::ofstream f(path, std::ios::binary);
  f.write(reinterpret_cast<const char*>(head), sizeof(head));
  std::vector<float> data(static_cast<size_t>(nx) * ny * nz);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<float>(i % 17) - 8.0f;
  f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size() * sizeof(float)));
}

std::string pickora_binary() {
  return std::string(PICKORA_BIN_DIR) + (std::string(PICKORA_TEST_BACKEND) == "cuda" ? "/pickora-cuda" : "/pickora");
}

struct RunResult {
  std::string out;
  int status;
};

// Runs the executable in dir with the words as arguments (each passed as one argument).
RunResult run_pickora(const fs::path& dir, const std::vector<std::string>& words) {
  std::string command = "cd '" + dir.string() + "' && '" + pickora_binary() + "'";
  for (const std::string& w : words) command += " '" + w + "'";
  command += " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  RunResult result{"", -1};
  if (pipe == nullptr) return result;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) result.out.append(buffer, n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string captured_help(void (*print)(char*)) {
  std::string name = pickora_binary();
  testing::internal::CaptureStdout();
  print(&name[0]);
  return testing::internal::GetCapturedStdout();
}

int count_of(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

std::string between(const std::string& text, const std::string& from, const std::string& to) {
  const size_t a = text.find(from);
  if (a == std::string::npos) return "<no '" + from + "'>";
  const size_t b = text.find(to, a + from.size());
  if (b == std::string::npos) return "<no '" + to + "'>";
  return text.substr(a + from.size(), b - a - from.size());
}

// The block of all parameters for the given values, laid out as label padded to 30 columns.
std::string all_block(const std::vector<std::pair<std::string, std::string>>& lines) {
  std::string text;
  for (const auto& [label, value] : lines) {
    if (label.back() == ' ') {  // a section title
      text += label + "\n";
      continue;
    }
    char line[256];
    std::snprintf(line, sizeof(line), "       --%-21s%s\n", label.c_str(), value.c_str());
    text += line;
  }
  return text;
}

std::vector<std::pair<std::string, std::string>> default_all_lines() {
  return {{"Basic options:  ", ""},      {"T", "NULL"},
          {"apixM", "1.340"},            {"diameter", "400.00"},
          {"apixT", "1.340"},            {"Additional options:  ", ""},
          {"ang_step", "5.00"},          {"speed", "2"},
          {"boxsize", "396"},            {"min_dist", "320.00"},
          {"cc_cutoff", "0.150"},        {"lsigma_cutoff", "1.300"},
          {"lsigma_D", "300.000"},       {"lave_min", "-1.000"},
          {"lave_max", "1.000"},         {"lave_D", "320.000"},
          {"dont_invertT", "0"},         {"lp", "40.00"},
          {"hp", "1000.00"},             {"do_pre_filter", "0"},
          {"pre_lp", "8.00"},            {"pre_hp", "1000.00"},
          {"detect_ice", "1"},           {"T_norm_type", "1"},
          {"do_bandpass", "1"},          {"CTF options: ", ""},
          {"do_ctf", "0"},               {"do_local_ctf", "0"},
          {"kV", "300.00"},              {"cs", "2.70"},
          {"ac", "0.10"},                {"I/O options:  ", ""},
          {"write_ccmax_mic", "0"},      {"write_pf_mic", "0"},
          {"write_pref_mic", "0"},       {"write_bg_mic", "0"},
          {"write_bgfree_mic", "0"},     {"write_lsigma_mic", "0"},
          {"write_mic_mask", "0"},       {"write_star", "1"},
          {"do_unfinished", "0"},        {"write_rejected_box", "1"},
          {"exclusive_picking", "0"},    {"excluded_suffix", "NULL"},
          {"mask_excluded", "0"},        {"global_excluded_box", "NULL"},
          {"extract_raw", "0"},          {"extract_pf", "0"},
          {"gid", "0"}};
}

void set_value(std::vector<std::pair<std::string, std::string>>& lines, const std::string& label,
               const std::string& value) {
  for (auto& line : lines)
    if (line.first == label) line.second = value;
}

const std::string kStars(99, '*');

// ---------------------------------------------------------------------------------------------
// Parser and derived values, through the library.

TEST(DerivedValues, DefaultsGiveTheWorkedNumbers) {
  Parsed p({"mic.mrc"});
  EXPECT_EQ(p.para.min_dist, 320.0f);
  EXPECT_EQ(p.para.boxsize, 396);
  EXPECT_EQ(p.para.lsigma_D, 300.0f);
  EXPECT_EQ(p.para.lave_D, 320.0f);
  EXPECT_NEAR(p.para.T_radius, 48.507f, 5e-4f);
  EXPECT_NEAR(p.para.min_dist_px, 59.70f, 5e-3f);
  EXPECT_NEAR(p.para.lsigma_radius, 27.985f, 5e-4f);
  EXPECT_NEAR(p.para.lave_radius, 29.851f, 5e-4f);
  EXPECT_EQ(p.para.auto_T, 1);
  EXPECT_EQ(p.para.apixT, p.para.apixM);
}

TEST(DerivedValues, PixelSizeAndDiameterDriveTheDefaults) {
  Parsed p({"--apixM", "2", "--diameter", "100", "mic.mrc"});
  EXPECT_EQ(p.para.min_dist, 80.0f);
  EXPECT_EQ(p.para.boxsize, 66);  // 66.5 truncated, already even
  EXPECT_EQ(p.para.lsigma_D, 150.0f);
  EXPECT_EQ(p.para.lave_D, 230.0f);
  EXPECT_EQ(p.para.apixT, 2.0f);
  // Radii from diameters use twice the pixel size, min_dist_px the pixel size itself.
  EXPECT_FLOAT_EQ(p.para.T_radius, 130.0f / 16.0f);
  EXPECT_FLOAT_EQ(p.para.min_dist_px, 80.0f / 8.0f);
}

TEST(DerivedValues, BoxsizeIsRoundedTowardZeroToEven) {
  // 1.33 * 300 / 1.0 = 399: odd, so 398.
  EXPECT_EQ(Parsed({"--apixM", "1", "--diameter", "300", "m.mrc"}).para.boxsize, 398);
  // 1.33 * 100 / 3.0 = 44.33: 44.
  EXPECT_EQ(Parsed({"--apixM", "3", "--diameter", "100", "m.mrc"}).para.boxsize, 44);
}

TEST(DerivedValues, ExplicitValuesAreUsedUnchangedInAnyOrder) {
  Parsed p({"mic.mrc", "--lave_D", "90", "--boxsize", "101", "--min_dist", "50", "--lsigma_D", "70", "--speed",
            "3", "--diameter", "200"});
  EXPECT_EQ(p.para.boxsize, 101);
  EXPECT_EQ(p.para.min_dist, 50.0f);
  EXPECT_EQ(p.para.lsigma_D, 70.0f);
  EXPECT_EQ(p.para.lave_D, 90.0f);
  EXPECT_EQ(p.para.shrink, 6);
  const float px2 = (1.34f + 1.34f) * 6.0f;
  EXPECT_EQ(p.para.T_radius, (200.0f * 1.3f) / px2);
  EXPECT_EQ(p.para.lsigma_radius, 70.0f / px2);
  EXPECT_EQ(p.para.lave_radius, 90.0f / px2);
  EXPECT_EQ(p.para.min_dist_px, 50.0f / (6.0f * 1.34f));
}

TEST(Parser, HyphensAndLetterCaseReachTheSameOption) {
  Parsed p({"-DIAMETER", "250", "--t", "tpl.mrcs", "-ApixM", "1.5", "--WRITE_STAR", "0", "a.mrc"});
  EXPECT_EQ(p.para.diameter, 250.0f);
  EXPECT_STREQ(p.para.T, "tpl.mrcs");
  EXPECT_EQ(p.para.apixM, 1.5f);
  EXPECT_EQ(p.para.write_star, 0);
  ASSERT_EQ(p.para.nfiles, 1);
  EXPECT_STREQ(p.para.files[0], "a.mrc");
}

TEST(Parser, ValueOptionTakesTheNextTokenWhateverItLooksLike) {
  Parsed p({"--lave_min", "-1.5", "--lp", "abc", "--excluded_suffix", "--weird", "--gid", "0", "m1.mrc", "m2.mrc"});
  EXPECT_EQ(p.para.lave_min, -1.5f);
  EXPECT_EQ(p.para.lp, 0.0f);  // no text check: a bad number is 0
  EXPECT_STREQ(p.para.excluded_suffix, "--weird");
  ASSERT_EQ(p.para.nfiles, 2);
  EXPECT_STREQ(p.para.files[1], "m2.mrc");
}

TEST(Parser, FlagValueRules) {
  Parsed p({"--detect_ice", "0", "--write_star", "mic.mrc", "--extract_raw", "2", "--do_bandpass", "0_1.mrc",
            "--mask_excluded"});
  EXPECT_EQ(p.para.detect_ice, 0);
  EXPECT_EQ(p.para.write_star, 1);   // a letter follows: nothing consumed
  EXPECT_EQ(p.para.extract_raw, 1);  // non-zero number
  EXPECT_EQ(p.para.do_bandpass, 0);  // the name starting with a digit was taken as the value
  EXPECT_EQ(p.para.mask_excluded, 1);  // last token
  ASSERT_EQ(p.para.nfiles, 1);
  EXPECT_STREQ(p.para.files[0], "mic.mrc");
}

TEST(Parser, LaterOptionOverridesEarlier) {
  Parsed p({"--cc_cutoff", "0.3", "--detect_ice", "0", "a.mrc", "--cc_cutoff", "0.25", "--detect_ice"});
  EXPECT_EQ(p.para.cc_cutoff, 0.25f);
  EXPECT_EQ(p.para.detect_ice, 1);
}

TEST(Parser, TemplateNameDecidesBetweenGeneratedAndGiven) {
  EXPECT_EQ(Parsed({"--T", "none", "a.mrc"}).para.auto_T, 1);
  EXPECT_EQ(Parsed({"--T", "Null", "a.mrc"}).para.auto_T, 1);
  EXPECT_EQ(Parsed({"--T", "refs.mrcs", "a.mrc"}).para.auto_T, 0);
}

TEST(Parser, SpeedTable) {
  const int expected[] = {1, 2, 4, 6, 8};
  for (int speed = 0; speed <= 4; ++speed) {
    int s = speed, shrink = -1;
    pickora_speed2shrink(s, shrink);
    EXPECT_EQ(shrink, expected[speed]) << speed;
  }
  int s = 5, shrink = 0;
  EXPECT_EXIT(pickora_speed2shrink(s, shrink), testing::ExitedWithCode(1), "");
  s = -1;
  EXPECT_EXIT(pickora_speed2shrink(s, shrink), testing::ExitedWithCode(1), "");
}

TEST(Parser, WarningsOnlyForMissingBasicOptions) {
  Parsed none({"a.mrc"});
  EXPECT_EQ(count_of(none.out, "Waring: "), 4);
  EXPECT_NE(none.out.find("using GPU 0 ...\n"), std::string::npos);
  Parsed all({"--T", "none", "--diameter", "300", "--apixM", "1.1", "--apixT", "2.2", "a.mrc"});
  EXPECT_EQ(count_of(all.out, "Waring: "), 0);
  EXPECT_EQ(all.para.apixT, 2.2f);  // kept, not replaced by apixM
}

TEST(ParserStops, BadCommandLinesEndTheRunWithTheirStatus) {
  EXPECT_EXIT(parse_and_exit({"--speed", "9", "a.mrc"}), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(parse_and_exit({"a.mrc", "--diameter"}), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(parse_and_exit({"a.mrc", "--ang_step", "0"}), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(parse_and_exit({"a.mrc", "--ang_step", "-5"}), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(parse_and_exit({"--diameter", "300"}), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(parse_and_exit({"a.mrc", "--nonsense"}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(parse_and_exit({"a.mrc", "-5"}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(parse_and_exit({"a.mrc", "--ang_step", "1"}), testing::ExitedWithCode(77), "");
}

// ---------------------------------------------------------------------------------------------
// The parameter blocks.

TEST(ParameterBlocks, DefaultRun) {
  Parsed p({"mic.mrc"});
  const std::string expected = kStars + "\nUser input parameters:\n\nAll parameters to be used:\n" +
                               all_block(default_all_lines()) + "\n\nAll 1 files to be used:\n        mic.mrc\n";
  EXPECT_EQ(p.blocks(), expected);
}

TEST(ParameterBlocks, UserBlockEchoesTokensOrRecordAsEachOptionDoes) {
  Parsed p({"--boxsize", "100", "--lp", "20", "first.mrc", "--boxsize", "200", "--lp", "35", "--do_local_ctf",
            "--m_edge_ratio", "0.2", "--global_excluded_box", "g.box", "--mic_znorm", "0", "--T", "t.mrcs",
            "--write_star", "0", "second.mrc"});
  const std::string user = between(p.blocks(), "User input parameters:\n", "\nAll parameters to be used:");
  EXPECT_EQ(user,
            "       --boxsize            100\n"  // token
            "       --lp                 35.000\n"  // record
            "       --boxsize            200\n"
            "       --lp                 35.000\n"
            "       --local_ctf          1\n"
            "       --m_edge_ratio      0.200\n"
            "       --global_excluded_box    g.box\n"
            "       --T                  t.mrcs\n"
            "       --write_star         0\n");
}

TEST(ParameterBlocks, AllBlockShowsDerivedAndGivenValues) {
  Parsed p({"--apixM", "2", "--diameter", "100", "--speed", "3", "--T", "none", "--ang_step", "10", "--hp",
            "500", "--excluded_suffix", "_bad.star", "--do_unfinished", "--gid", "0", "a.mrc", "b.mrc"});
  auto lines = default_all_lines();
  set_value(lines, "T", "none");
  set_value(lines, "apixM", "2.000");
  set_value(lines, "apixT", "2.000");
  set_value(lines, "diameter", "100.00");
  set_value(lines, "ang_step", "10.00");
  set_value(lines, "speed", "3");
  set_value(lines, "boxsize", "66");
  set_value(lines, "min_dist", "80.00");
  set_value(lines, "lsigma_D", "150.000");
  set_value(lines, "lave_D", "230.000");
  set_value(lines, "hp", "500.00");
  set_value(lines, "excluded_suffix", "_bad.star");
  set_value(lines, "do_unfinished", "1");
  const std::string text = p.blocks();
  EXPECT_EQ(between(text, "All parameters to be used:\n", "\n\nAll 2 files"), all_block(lines));
  EXPECT_NE(text.find("All 2 files to be used:\n        a.mrc\n        b.mrc\n"), std::string::npos);
}

TEST(ParameterBlocks, ValidOptionListHasEveryKeyword) {
  testing::internal::CaptureStdout();
  pickora_print_valid_options();
  const std::string text = testing::internal::GetCapturedStdout();
  std::string expected = std::string(130, '-') + "\nAll valid options:\n";
  for (const char* keyword : PICKORA_OPTIONS) expected += std::string("--") + keyword + "\t ";
  expected += "\n" + std::string(128, '-') + "\n";
  EXPECT_EQ(text, expected);
  EXPECT_STREQ(PICKORA_OPTIONS[0], "apixM");
  EXPECT_STREQ(PICKORA_OPTIONS[PICKORA_NOPTIONS - 1], "gid");
}

// ---------------------------------------------------------------------------------------------
// First micrograph, sizes, names.

TEST(FirstMicrograph, SkipsMissingNamesAndGivesEntryZeroItsOwnStorage) {
  TempDir dir;
  // Longer than the argument it replaces, in folders since one name may have 255 bytes at most.
  const std::string folder = dir.file(std::string(120, 'd') + "/" + std::string(120, 'e'));
  fs::create_directories(folder);
  const std::string long_name = folder + "/" + std::string(200, 'm') + ".mrc";
  write_mrc(long_name, 8, 8);
  Args args({"x.mrc", long_name, "--write_star"});
  Pickora_Para para{};
  testing::internal::CaptureStdout();
  pickora_init_parameters(args.argc(), &para);
  pickora_get_parameters(args.argc(), args.argv(), &para);
  FILE* fp = nullptr;
  pickora_open_first_mic(&para, fp);
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(fp, nullptr);
  std::fclose(fp);
  EXPECT_NE(out.find("the micrograph x.mrc does NOT exsit! Automatically ignored!"), std::string::npos);
  EXPECT_NE(out.find("Opening " + long_name + " for initial test and preperation .......\n"), std::string::npos);
  EXPECT_EQ(para.files[0], para.first_mic);
  EXPECT_EQ(std::string(para.files[0]), long_name);
  EXPECT_STREQ(args.words[1].c_str(), "x.mrc");  // the argument string itself is untouched
  EXPECT_EQ(para.nfiles, 2);
  pickora_free_parameters(&para);
}

TEST(FirstMicrograph, NoReadableNameEndsTheRun) {
  char a[] = "missing_1.mrc", b[] = "missing_2.mrc";
  char* files[] = {a, b};
  char first[1024];
  FILE* fp = nullptr;
  EXPECT_EXIT(check_access_openf_1st(files, 2, first, fp), testing::ExitedWithCode(1), "");
}

TEST(RunSizes, WorkImageAndGrid) {
  Pickora_Sizes s{};
  pickora_set_work_sizes(4096, 4096, 4, &s);
  EXPECT_EQ(s.work_size, 1024);
  pickora_set_work_sizes(3838, 3710, 4, &s);
  EXPECT_EQ(s.work_size, 958);
  EXPECT_EQ(s.shrunk_nx, 958);
  EXPECT_EQ(s.shrunk_ny, 926);
  pickora_set_work_sizes(1000, 3000, 6, &s);
  EXPECT_EQ(s.work_size, 500);  // 3000 / 12 = 250, doubled
  EXPECT_EQ(s.shrunk_nx, 166);
  EXPECT_EQ(s.shrunk_ny, 500);

  EXPECT_EQ(pickora_grid_step(56.0f, 4, 1.0f), 9);
  EXPECT_EQ(pickora_grid_step(57.0f, 4, 1.0f), 10);
  Pickora_Para para{};
  para.min_dist = 320.0f;
  para.shrink = 4;
  para.apixM = 1.34f;
  pickora_set_work_sizes(4096, 4096, 4, &s);
  pickora_set_grid_sizes(&para, &s);
  EXPECT_EQ(s.grid_step, 42);
  EXPECT_EQ(s.grid_nx, 25);
  EXPECT_EQ(s.grid_ny, 25);
  EXPECT_EQ(s.grid_cells, 625);
  para.min_dist = 56.0f;
  para.apixM = 1.0f;
  EXPECT_EXIT(pickora_set_grid_sizes(&para, &s), testing::ExitedWithCode(1), "");
}

TEST(RunSizes, TemplateMustFitTheWorkImage) {
  EXPECT_EQ(pickora_check_template_fits(64, 64, 64), 0);
  EXPECT_EXIT(pickora_check_template_fits(65, 10, 64), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(pickora_check_template_fits(10, 65, 64), testing::ExitedWithCode(1), "");
}

TEST(OutputNames, CandidateNameAndDoneTest) {
  char out[1024];
  std::memset(out, 'z', sizeof(out));
  set_name_shrinked_box(out, "dir/mic_01.mrc", 4);
  EXPECT_STREQ(out, "dir/mic_01_nonunique.box");
  set_name_shrinked_box(out, "stack.mrcs", 8);
  EXPECT_STREQ(out, "stack_nonunique.box");
  EXPECT_EQ(out[1023], '\0');

  TempDir dir;
  const std::string done = dir.file("x_pickora.star");
  EXPECT_EQ(is_file_pickora_done(done.c_str()), 0);
  std::ofstream(done) << "data_\n";
  EXPECT_EQ(is_file_pickora_done(done.c_str()), 1);
}

TEST(Tips, ChoiceFollowsTheClockAndTheListEndsEmpty) {
  for (long t : {0L, 1L, 1700000000L, 1700000001L}) {
    const int a = pickora_tip_index(t);
    EXPECT_EQ(pickora_tip_index(t), a);
    EXPECT_GE(a, 0);
    EXPECT_LT(a, PICKORA_NTIPS);
  }
  EXPECT_STREQ(PICKORA_ALL_TIPS[PICKORA_NTIPS - 1], "");
  for (int k = 0; k + 1 < PICKORA_NTIPS; ++k)
    EXPECT_EQ(std::string(PICKORA_ALL_TIPS[k]).rfind("\033[1m Tips\033[m: ", 0), 0u) << k;
}

TEST(Tips, HelpExitPrintsUsageOnlyWithStatusOne) {
  char name[] = "pickora";
  EXPECT_EXIT(
      {
        if (std::freopen("/dev/null", "w", stdout) != nullptr) pickora_help_exit(name, "why");
      },
      testing::ExitedWithCode(1), "");
}

// ---------------------------------------------------------------------------------------------
// The executable.

class Command : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(pickora_binary())) << pickora_binary() << " is missing: build the pickora target";
  }
  TempDir dir;
};

TEST_F(Command, NoArgumentPrintsTheUsageWithStatusZero) {
  const RunResult r = run_pickora(fs::path(dir.path()), {});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, captured_help(pickora_help));
  EXPECT_EQ(r.out.rfind(kStars + "\nVersion:       " + pickora_binary() + " v0.56, updated on 2017-07-30\n", 0), 0u);
  EXPECT_EQ(r.out.find("Tips"), std::string::npos);
  EXPECT_EQ(r.out.find("using GPU"), std::string::npos);
}

TEST_F(Command, HelpKeywordFirstPrintsFullHelpInAnyCase) {
  const std::string full = captured_help(pickora_help_full);
  for (const char* keyword : {"--help", "-H", "-Help", "--h"}) {
    const RunResult r = run_pickora(fs::path(dir.path()), {keyword, "--speed", "9"});
    EXPECT_EQ(r.status, 0) << keyword;
    EXPECT_EQ(r.out, full) << keyword;
  }
  EXPECT_EQ(count_of(full, "\033[1m Tips\033[m:"), 8);
  EXPECT_NE(full.find(std::string(127, '-') + "\n"), std::string::npos);
}

TEST_F(Command, HelpElsewhereAndUnknownOptionsAreCriticalWithStatusZero) {
  write_mrc(dir.file("a.mrc"), 64, 64);
  for (const char* bad : {"--help", "--bogus", "-5"}) {
    const RunResult r = run_pickora(fs::path(dir.path()), {"a.mrc", bad});
    EXPECT_EQ(r.status, 0) << bad;
    EXPECT_NE(r.out.find(std::string("Failed to recognize option: \033[41m\033[1m\033[5m") + bad +
                         "!\033[m Exit now. Check your input please.\n\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("All valid options:\n--apixM\t --T\t "), std::string::npos);
    EXPECT_EQ(r.out.find("Reading File"), std::string::npos);
  }
}

TEST_F(Command, OptionsButNoMicrographPrintUsageWithStatusOne) {
  const RunResult r = run_pickora(fs::path(dir.path()), {"--diameter", "200", "--detect_ice", "0"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, captured_help(pickora_help));
}

TEST_F(Command, BadSpeedStopsBeforeTheDevice) {
  write_mrc(dir.file("a.mrc"), 64, 64);
  const RunResult r = run_pickora(fs::path(dir.path()), {"a.mrc", "--speed", "9"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("speed level must belong to {0,1,2,3,4}! Exit now!\033[m\n"), std::string::npos);
  EXPECT_EQ(r.out.find("using GPU"), std::string::npos);
}

TEST_F(Command, ValueOptionAtTheEndStopsWithStatusOne) {
  write_mrc(dir.file("a.mrc"), 64, 64);
  const RunResult r = run_pickora(fs::path(dir.path()), {"a.mrc", "--lp"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("option --lp is the last word of the command line and has no value! Exit now!"),
            std::string::npos);
}

TEST_F(Command, DefaultRunPrintsBlocksTimesClosingAndTip) {
  write_mrc(dir.file("mic.mrc"), kMic, kMic - 200);
  const RunResult r = run_pickora(fs::path(dir.path()), {"mic.mrc"});
  ASSERT_EQ(r.status, 0) << r.out;
  const std::string expected_blocks = "User input parameters:\n\nAll parameters to be used:\n" +
                                      all_block(default_all_lines()) +
                                      "\n\nAll 1 files to be used:\n        mic.mrc\n";
  EXPECT_NE(r.out.find(kStars + "\n" + expected_blocks), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Opening mic.mrc for initial test and preperation .......\n"), std::string::npos);
  EXPECT_NE(r.out.find("\n" + std::string(129, '-') + "\nReading File mic.mrc ...\n"), std::string::npos);
  EXPECT_NE(r.out.find("Normalizing the micrograph mic.mrc ...\n"), std::string::npos);
  EXPECT_NE(r.out.find("File mic.mrc finished.\n"), std::string::npos);

  // The time lines, in order, each label right-aligned in 64 columns.
  std::vector<std::string> labels;
  const std::regex time_line(">>>>>>TIME<<<<<< {0,63}([A-Z]+): [0-9]+\\.[0-9]{6}s\n");
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), time_line), end; it != end; ++it) {
    const std::string label = (*it)[1];
    EXPECT_EQ(it->str(0).substr(16, 64), std::string(64 - label.size(), ' ') + label);
    labels.push_back(label);
  }
  EXPECT_EQ(labels, (std::vector<std::string>{"PREPARATION", "READING", "NORMALIZATION", "PICKING", "TOTAL"}));

  // Closing: rule, count, TOTAL, rule, blank line, then one tip between two rules, last.
  const std::string hashes(129, '#'), dashes(127, '-');
  const size_t closing = r.out.find(hashes + "\nAll 1 files finished successfully:\n>>>>>>TIME<<<<<<");
  ASSERT_NE(closing, std::string::npos);
  const size_t tip_start = r.out.find(hashes + "\n\n" + dashes + "\n", closing + hashes.size());
  ASSERT_NE(tip_start, std::string::npos);
  const std::string tail = r.out.substr(tip_start + hashes.size() + 2 + dashes.size() + 1);
  ASSERT_GE(tail.size(), dashes.size() + 1);
  const std::string tip = tail.substr(0, tail.size() - dashes.size() - 1);
  EXPECT_EQ(tail.substr(tip.size()), dashes + "\n");
  bool known = false;
  for (const char* t : PICKORA_ALL_TIPS) known = known || tip == t;
  EXPECT_TRUE(known) << tip;

  // The candidate file was opened afresh and is empty until matching fills it.
  EXPECT_TRUE(fs::exists(dir.file("mic_nonunique.box")));
  EXPECT_EQ(fs::file_size(dir.file("mic_nonunique.box")), 0u);
}

TEST_F(Command, OptionMixesShowInBothBlocks) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  const RunResult r = run_pickora(
      fs::path(dir.path()), {"--apixM", "2", "--diameter", "100", "--lave_min", "-0.8", "--T", "none", "a.mrc", "--write_bg_mic",
                   "--boxsize", "101", "--lp", "25", "--ang_step", "10", "--speed", "1"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(between(r.out, "User input parameters:\n", "\nAll parameters"),
            "       --apixM              2.000\n"
            "       --diameter           100.00\n"
            "       --lave_min           -0.800\n"
            "       --T                  none\n"
            "       --write_bg_mic       1\n"
            "       --boxsize            101\n"
            "       --lp                 25.000\n"
            "       --ang_step           10.00\n"
            "       --speed              1\n");
  auto lines = default_all_lines();
  set_value(lines, "T", "none");
  set_value(lines, "apixM", "2.000");
  set_value(lines, "apixT", "2.000");
  set_value(lines, "diameter", "100.00");
  set_value(lines, "ang_step", "10.00");  // printed before the driver forces one angle
  set_value(lines, "speed", "1");
  set_value(lines, "boxsize", "101");
  set_value(lines, "min_dist", "80.00");
  set_value(lines, "lsigma_D", "150.000");
  set_value(lines, "lave_min", "-0.800");
  set_value(lines, "lave_D", "230.000");
  set_value(lines, "lp", "25.00");
  set_value(lines, "write_bg_mic", "1");
  EXPECT_EQ(between(r.out, "All parameters to be used:\n", "\n\nAll 1 files"), all_block(lines));
  // '--T none' is a given option: no warning for it.
  EXPECT_EQ(r.out.find("parameter '--T'"), std::string::npos);
  EXPECT_NE(r.out.find("parameter '--apixT'"), std::string::npos);
}

TEST_F(Command, MinDistDecidesTheGridStep) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  const RunResult small = run_pickora(fs::path(dir.path()), {"--apixM", "1", "--min_dist", "56", "a.mrc"});
  EXPECT_EQ(small.status, 1);
  EXPECT_NE(small.out.find("--min_dist too small! ! Exit now!\033[m\n"), std::string::npos);
  EXPECT_EQ(small.out.find("Reading File"), std::string::npos);
  const RunResult fine = run_pickora(fs::path(dir.path()), {"--apixM", "1", "--min_dist", "57", "a.mrc"});
  EXPECT_EQ(fine.status, 0);
  EXPECT_NE(fine.out.find("All 1 files finished successfully:\n"), std::string::npos);
  // A tiny diameter leads to a tiny min_dist although --min_dist was never given.
  const RunResult tiny = run_pickora(fs::path(dir.path()), {"--apixM", "1", "--diameter", "50", "a.mrc"});
  EXPECT_EQ(tiny.status, 1);
  EXPECT_NE(tiny.out.find("--min_dist too small!"), std::string::npos);
}

TEST_F(Command, FlagBeforeADigitNameSwallowsTheName) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  write_mrc(dir.file("0_b.mrc"), kMic, kMic);
  const RunResult r = run_pickora(fs::path(dir.path()), {"--detect_ice", "0_b.mrc", "a.mrc"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("       --detect_ice         0\n"), std::string::npos);
  EXPECT_NE(r.out.find("All 1 files to be used:\n        a.mrc\n"), std::string::npos);
  EXPECT_EQ(r.out.find("Reading File 0_b.mrc"), std::string::npos);
}

TEST_F(Command, DoUnfinishedSkipsAMicrographWithOnlyItsStar) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  write_mrc(dir.file("b.mrc"), kMic, kMic);
  std::ofstream(dir.file("a_pickora.star")) << "data_\n";
  const RunResult r = run_pickora(fs::path(dir.path()), {"--do_unfinished", "a.mrc", "b.mrc"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("\n" + std::string(129, '-') +
                       "\nMicrograph a.mrc has already been processed. Automatically skipped.\n\n" +
                       std::string(129, '-') + "\nReading File b.mrc ...\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("Reading File a.mrc"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir.file("a_nonunique.box")));
  EXPECT_TRUE(fs::exists(dir.file("b_nonunique.box")));
  EXPECT_EQ(count_of(r.out, ">>>>>>TIME<<<<<<"), 1 + 3 + 1);  // one micrograph timed
  EXPECT_NE(r.out.find("All 2 files finished successfully:\n"), std::string::npos);

  // Without the flag both are done again.
  const RunResult again = run_pickora(fs::path(dir.path()), {"a.mrc", "b.mrc"});
  EXPECT_EQ(again.status, 0);
  EXPECT_NE(again.out.find("Reading File a.mrc ...\n"), std::string::npos);
}

TEST_F(Command, MissingFirstNameIsReplacedAndStillCounted) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  const RunResult r = run_pickora(fs::path(dir.path()), {"gone.mrc", "a.mrc"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("the micrograph gone.mrc does NOT exsit! Automatically ignored!"), std::string::npos);
  EXPECT_EQ(count_of(r.out, "Reading File a.mrc ...\n"), 2);  // entry 0 took its name
  EXPECT_NE(r.out.find("All 2 files finished successfully:\n"), std::string::npos);
}

TEST_F(Command, MissingLaterNameStopsTheRunWhenReached) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  const RunResult r = run_pickora(fs::path(dir.path()), {"a.mrc", "gone.mrc"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("File a.mrc finished.\n"), std::string::npos);
  EXPECT_NE(r.out.find("Cannot open file gone.mrc. Permission denied or wrong file name.\n"), std::string::npos);
  EXPECT_NE(r.out.find("open file 'gone.mrc' failed.! Exit now!"), std::string::npos);
}

TEST_F(Command, NoReadableMicrographStopsWithStatusOne) {
  const RunResult r = run_pickora(fs::path(dir.path()), {"gone1.mrc", "gone2.mrc"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("none of the 2 micrographs on the command line exists and can be read! Exit now!"),
            std::string::npos);
}

TEST_F(Command, DifferentSizeStopsTheRunAndLeavesTheEmptyCandidateFile) {
  write_mrc(dir.file("a.mrc"), kMic, kMic);
  write_mrc(dir.file("b.mrc"), kMic, kMic - 200);
  const RunResult r = run_pickora(fs::path(dir.path()), {"a.mrc", "b.mrc"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("File a.mrc finished.\n"), std::string::npos);
  EXPECT_EQ(r.out.find("Reading File b.mrc"), std::string::npos);
  EXPECT_TRUE(fs::exists(dir.file("b_nonunique.box")));
}

}  // namespace
