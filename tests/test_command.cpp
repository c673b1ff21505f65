// The pickora command: the parser and the derived values through the library, and the real
// executable for the help paths, the parameter blocks, the run skeleton and its exit statuses.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "mrcfile/mrcfile.h"
#include "pickora56/pickora_driver.h"
#include "pickora56/pickora_help.h"
#include "pickora56/pickora_para.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

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

// Large enough that the default generated template (about 190 work pixels) fits the work image.
constexpr int kMic = 1200;

void write_mrc(const std::string& path, int nx, int ny) {
  std::vector<float> data(static_cast<size_t>(nx) * ny);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<float>(i % 17) - 8.0f;
  ASSERT_EQ(mrcf_write_xyz_data(path.c_str(), data.data(), nx, ny, 1), 0);
}

std::string pickora_binary() {
  return std::string(PICKORA_BIN_DIR) + (std::string(PICKORA_TEST_BACKEND) == "cuda" ? "/pickora-cuda" : "/pickora");
}

struct RunResult {
  std::string out;
  int status;
};

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

bool has(const std::string& text, const std::string& what) { return text.find(what) != std::string::npos; }

std::string between(const std::string& text, const std::string& from, const std::string& to) {
  const size_t a = text.find(from);
  const size_t b = a == std::string::npos ? a : text.find(to, a + from.size());
  if (b == std::string::npos) return "<no '" + from + "' ... '" + to + "'>";
  return text.substr(a + from.size(), b - a - from.size());
}

using Lines = std::vector<std::pair<std::string, std::string>>;

// The block of all parameters: the defaults with the given values changed, each label padded to
// 30 columns; a label ending in a space is a section title.
std::string all_block(const Lines& changes = {}) {
  Lines lines = {
      {"Basic options:  ", ""}, {"T", "NULL"}, {"apixM", "1.340"}, {"diameter", "400.00"}, {"apixT", "1.340"},
      {"Additional options:  ", ""}, {"ang_step", "5.00"}, {"speed", "2"}, {"boxsize", "396"},
      {"min_dist", "320.00"}, {"cc_cutoff", "0.150"}, {"lsigma_cutoff", "1.300"}, {"lsigma_D", "300.000"},
      {"lave_min", "-1.000"}, {"lave_max", "1.000"}, {"lave_D", "320.000"}, {"dont_invertT", "0"}, {"lp", "40.00"},
      {"hp", "1000.00"}, {"do_pre_filter", "0"}, {"pre_lp", "8.00"}, {"pre_hp", "1000.00"}, {"detect_ice", "1"},
      {"T_norm_type", "1"}, {"do_bandpass", "1"}, {"CTF options: ", ""}, {"do_ctf", "0"}, {"do_local_ctf", "0"},
      {"kV", "300.00"}, {"cs", "2.70"}, {"ac", "0.10"}, {"I/O options:  ", ""}, {"write_ccmax_mic", "0"},
      {"write_pf_mic", "0"}, {"write_pref_mic", "0"}, {"write_bg_mic", "0"}, {"write_bgfree_mic", "0"},
      {"write_lsigma_mic", "0"}, {"write_mic_mask", "0"}, {"write_star", "1"}, {"do_unfinished", "0"},
      {"write_rejected_box", "1"}, {"exclusive_picking", "0"}, {"excluded_suffix", "NULL"}, {"mask_excluded", "0"},
      {"global_excluded_box", "NULL"}, {"extract_raw", "0"}, {"extract_pf", "0"}, {"gid", "0"}};
  for (const auto& [label, value] : changes)
    for (auto& line : lines)
      if (line.first == label) line.second = value;
  std::string text;
  for (const auto& [label, value] : lines) {
    if (label.back() == ' ') {
      text += label + "\n";
      continue;
    }
    char line[256];
    std::snprintf(line, sizeof(line), "       --%-21s%s\n", label.c_str(), value.c_str());
    text += line;
  }
  return text;
}

const std::string kStars(99, '*');

// ---------------------------------------------------------------------------------------------
// Parser and derived values, through the library.

// The values derived from the pixel size and the diameter when not given, or given in any order.
// The radii come from diameters and use twice the pixel size (times the shrink: 4 at speed 2),
// min_dist_px the pixel size itself; the box is rounded toward zero, then down to even. One
// warning per basic option not given; a given apixT is kept.
TEST(DerivedValues, PixelSizeAndDiameterDriveTheDefaults) {
  const struct {
    std::vector<std::string> words;
    float min_dist;
    int boxsize, shrink, warnings;
    float lsigma_D, lave_D, apixT;
  } cases[] = {
      {{"mic.mrc"}, 320.0f, 396, 4, 4, 300.0f, 320.0f, 1.34f},
      {{"--apixM", "2", "--diameter", "100", "mic.mrc"}, 80.0f, 66, 4, 2, 150.0f, 230.0f, 2.0f},
      {{"--apixM", "1", "--diameter", "300", "m.mrc"}, 240.0f, 398, 4, 2, 250.0f, 290.0f, 1.0f},
      {{"--apixM", "3", "--diameter", "100", "m.mrc"}, 80.0f, 44, 4, 2, 150.0f, 230.0f, 3.0f},
      {{"mic.mrc", "--lave_D", "90", "--boxsize", "101", "--min_dist", "50", "--lsigma_D", "70", "--speed", "3",
        "--diameter", "200"}, 50.0f, 101, 6, 3, 70.0f, 90.0f, 1.34f},
      {{"--T", "none", "--diameter", "300", "--apixM", "1.1", "--apixT", "2.2", "a.mrc"}, 240.0f, 362, 4, 0, 250.0f,
       290.0f, 2.2f},
  };
  for (const auto& c : cases) {
    Parsed p(c.words);
    SCOPED_TRACE(c.words.size());
    EXPECT_EQ(p.para.min_dist, c.min_dist);
    EXPECT_EQ(p.para.boxsize, c.boxsize);
    EXPECT_EQ(p.para.shrink, c.shrink);
    EXPECT_EQ(p.para.lsigma_D, c.lsigma_D);
    EXPECT_EQ(p.para.lave_D, c.lave_D);
    const float px2 = (p.para.apixM + p.para.apixM) * c.shrink;
    EXPECT_EQ(p.para.T_radius, (p.para.diameter * 1.3f) / px2);
    EXPECT_EQ(p.para.lsigma_radius, c.lsigma_D / px2);
    EXPECT_EQ(p.para.lave_radius, c.lave_D / px2);
    EXPECT_EQ(p.para.min_dist_px, c.min_dist / (c.shrink * p.para.apixM));
    EXPECT_EQ(p.para.apixT, c.apixT);
    EXPECT_EQ(p.para.auto_T, 1);
    EXPECT_EQ(count_of(p.out, "Waring: "), c.warnings);
    EXPECT_TRUE(has(p.out, "using GPU 0 ...\n"));
  }
}

TEST(Parser, OptionNamesAndValues) {
  // Either hyphen count and any letter case reach the same option.
  Parsed p({"-DIAMETER", "250", "--t", "tpl.mrcs", "-ApixM", "1.5", "--WRITE_STAR", "0", "a.mrc"});
  EXPECT_EQ(p.para.diameter, 250.0f);
  EXPECT_STREQ(p.para.T, "tpl.mrcs");
  EXPECT_EQ(p.para.auto_T, 0);
  EXPECT_EQ(p.para.apixM, 1.5f);
  EXPECT_EQ(p.para.write_star, 0);
  ASSERT_EQ(p.para.nfiles, 1);
  EXPECT_STREQ(p.para.files[0], "a.mrc");
  // A value option takes the next token whatever it looks like.
  Parsed v({"--lave_min", "-1.5", "--lp", "25", "--excluded_suffix", "--weird", "--gid", "0", "m1.mrc", "m2.mrc"});
  EXPECT_EQ(v.para.lave_min, -1.5f);
  EXPECT_EQ(v.para.lp, 25.0f);
  EXPECT_STREQ(v.para.excluded_suffix, "--weird");
  ASSERT_EQ(v.para.nfiles, 2);
  EXPECT_STREQ(v.para.files[1], "m2.mrc");
  // 'none' or 'null' in any case asks for the generated template.
  EXPECT_EQ(Parsed({"--T", "Null", "a.mrc"}).para.auto_T, 1);
}

TEST(Parser, FlagValuesAndOverrides) {
  Parsed p({"--detect_ice", "0", "--write_star", "mic.mrc", "--extract_raw", "2", "--do_bandpass", "0_1.mrc",
            "--mask_excluded", "--cc_cutoff", "0.3", "--cc_cutoff", "0.25", "--write_pf_mic", "0", "--write_pf_mic"});
  EXPECT_EQ(p.para.detect_ice, 0);
  EXPECT_EQ(p.para.write_star, 1);     // a letter follows: nothing consumed
  EXPECT_EQ(p.para.extract_raw, 1);    // non-zero number
  EXPECT_EQ(p.para.do_bandpass, 0);    // the name starting with a digit was taken as the value
  EXPECT_EQ(p.para.mask_excluded, 1);
  EXPECT_EQ(p.para.cc_cutoff, 0.25f);  // the later one wins
  EXPECT_EQ(p.para.write_pf_mic, 1);   // last token, after an earlier 0
  ASSERT_EQ(p.para.nfiles, 1);
  EXPECT_STREQ(p.para.files[0], "mic.mrc");
}

// Each number option refuses a value just outside its range, naming the option, and takes the
// bound itself unless that bound is open; a string value must fit the name buffer.
TEST(Parser, OptionValuesOutsideTheirRangeAreRefused) {
  struct Record {  // freed also when the parse ends on a fatal report
    Pickora_Para para{};
    ~Record() { pickora_free_parameters(&para); }
  };
  auto parse = [](std::vector<std::string> words) {
    Args args(std::move(words));
    Record r;
    pickora_init_parameters(args.argc(), &r.para);
    pickora_get_parameters(args.argc(), args.argv(), &r.para);
  };
  const std::string long_name(1024, 't');
  const struct {
    std::string option, refused, taken;
  } cases[] = {{"--apixM", "0.0099", "0.01"},     {"--apixT", "0.0099", "0.01"},     {"--apixM", "100.1", "100"},
               {"--diameter", "0", "1e5"},        {"--ang_step", "360.1", "360"},    {"--min_dist", "0", "1e5"},
               {"--lsigma_cutoff", "0", "1e30"},  {"--lsigma_D", "0", "1e5"},        {"--lave_D", "100001", "1e5"},
               {"--lp", "0", "999"},              {"--hp", "1000001", "1e6"},        {"--pre_lp", "0", "1e5"},
               {"--pre_hp", "0", "1e6"},          {"--boxsize", "1", "2"},           {"--boxsize", "65537", "65536"},
               {"--cc_cutoff", "-1.001", "-1"},   {"--cc_cutoff", "1.001", "1"},     {"--T_norm_type", "4", "3"},
               {"--T_norm_type", "-1", "0"},      {"--m_edge_ratio", "1.01", "0"},   {"--gid", "-1", "0"},
               {"--T", long_name, "t.mrcs"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.option + " " + c.refused.substr(0, 8));
    EXPECT_EXIT_REPORT(parse({c.option, c.refused, "a.mrc"}),
                       c.option == "--T" ? "longer than 1023 characters" : c.option + " ");
    EXPECT_EXIT_REPORT_STATUS(parse({c.option, c.taken, "a.mrc"}), -1, "");
  }
  // Defaults of the local options, which the parameter blocks do not show.
  Parsed p({"a.mrc"});
  EXPECT_EQ(std::vector<float>({p.para.m_edge_ratio, p.para.local_soft_edge}), std::vector<float>({0.05f, 8.0f}));
}

TEST(Parser, SpeedTable) {
  const int expected[] = {1, 2, 4, 6, 8};
  for (int speed = 0; speed <= 4; ++speed) {
    int s = speed, shrink = -1;
    pickora_speed2shrink(s, shrink);
    EXPECT_EQ(shrink, expected[speed]) << speed;
  }
  int bad[] = {5, -1}, shrink = 0;
  for (int& s : bad) EXPECT_EXIT_REPORT(pickora_speed2shrink(s, shrink), "speed level must belong");
}

TEST(ParameterBlocks, UserBlockEchoesTokensOrRecordAsEachOptionDoes) {
  Parsed p({"--boxsize", "100", "--lp", "20", "first.mrc", "--boxsize", "200", "--lp", "35", "--do_local_ctf",
            "--m_edge_ratio", "0.2", "--global_excluded_box", "g.box", "--mic_znorm", "0", "--T", "t.mrcs",
            "--write_star", "0", "--excluded_suffix", "--boxsize", "second.mrc"});
  EXPECT_EQ(between(p.blocks(), "User input parameters:\n", "\nAll parameters to be used:"),
            "       --boxsize            100\n"  // token
            "       --lp                 35.000\n"  // record
            "       --boxsize            200\n"
            "       --lp                 35.000\n"
            "       --local_ctf          1\n"
            "       --m_edge_ratio      0.200\n"
            "       --global_excluded_box    g.box\n"
            "       --T                  t.mrcs\n"
            "       --write_star         0\n"
            "       --excluded_suffix    --boxsize\n");  // a value, however it looks
}

TEST(ParameterBlocks, AllBlockShowsDerivedAndGivenValues) {
  Parsed p({"--apixM", "2", "--diameter", "100", "--speed", "3", "--T", "none", "--ang_step", "10", "--hp", "500",
            "--excluded_suffix", "_bad.star", "--do_unfinished", "--lave_min", "-0.8", "--lp", "25",
            "--write_bg_mic", "--gid", "0", "a.mrc", "b.mrc"});
  const std::string text = p.blocks();
  EXPECT_EQ(between(text, "All parameters to be used:\n", "\n\nAll 2 files"),
            all_block({{"T", "none"}, {"apixM", "2.000"}, {"apixT", "2.000"}, {"diameter", "100.00"},
                       {"ang_step", "10.00"}, {"speed", "3"}, {"boxsize", "66"}, {"min_dist", "80.00"},
                       {"lsigma_D", "150.000"}, {"lave_min", "-0.800"}, {"lave_D", "230.000"}, {"lp", "25.00"},
                       {"hp", "500.00"}, {"write_bg_mic", "1"}, {"excluded_suffix", "_bad.star"},
                       {"do_unfinished", "1"}}));
  EXPECT_TRUE(has(text, "All 2 files to be used:\n        a.mrc\n        b.mrc\n"));
}

TEST(ParameterBlocks, ValidOptionListHasEveryKeyword) {
  testing::internal::CaptureStdout();
  pickora_print_valid_options();
  std::string expected = std::string(130, '-') + "\nAll valid options:\n";
  for (const char* keyword : PICKORA_OPTIONS) expected += std::string("--") + keyword + "\t ";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + "\n" + std::string(128, '-') + "\n");
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
  Parsed p({"x.mrc", long_name, "--write_star"});
  testing::internal::CaptureStdout();
  FILE* fp = nullptr;
  pickora_open_first_mic(&p.para, fp);
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(fp, nullptr);
  std::fclose(fp);
  EXPECT_TRUE(has(out, "the micrograph x.mrc does NOT exsit! Automatically ignored!"));
  EXPECT_TRUE(has(out, "Opening " + long_name + " for initial test and preperation .......\n"));
  EXPECT_EQ(p.para.files[0], p.para.first_mic);
  EXPECT_EQ(std::string(p.para.files[0]), long_name);
  EXPECT_STREQ(p.args.words[1].c_str(), "x.mrc");  // the argument string itself is untouched
  EXPECT_EQ(p.para.nfiles, 2);
}

TEST(RunSizes, WorkImageGridAndTemplateFit) {
  Pickora_Sizes s{};
  pickora_set_work_sizes(3838, 3710, 4, &s);
  EXPECT_EQ(std::vector<int>({s.work_size, s.shrunk_nx, s.shrunk_ny}), std::vector<int>({958, 958, 926}));
  pickora_set_work_sizes(1000, 3000, 6, &s);  // 3000 / 12 = 250, doubled
  EXPECT_EQ(std::vector<int>({s.work_size, s.shrunk_nx, s.shrunk_ny}), std::vector<int>({500, 166, 500}));
  EXPECT_EQ(pickora_grid_step(56.0f, 4, 1.0f), 9);
  EXPECT_EQ(pickora_grid_step(57.0f, 4, 1.0f), 10);
  Pickora_Para para{};
  para.min_dist = 320.0f;
  para.shrink = 4;
  para.apixM = 1.34f;
  pickora_set_work_sizes(4096, 4096, 4, &s);
  pickora_set_grid_sizes(&para, &s);
  EXPECT_EQ(std::vector<int>({s.work_size, s.grid_step, s.grid_nx, s.grid_ny, s.grid_cells}),
            std::vector<int>({1024, 42, 25, 25, 625}));
  para.min_dist = 56.0f;
  para.apixM = 1.0f;
  EXPECT_EXIT_REPORT(pickora_set_grid_sizes(&para, &s), "");
  EXPECT_EQ(pickora_check_template_fits(64, 64, 64), 0);
  EXPECT_EXIT_REPORT(pickora_check_template_fits(65, 10, 64), "");
  EXPECT_EXIT_REPORT(pickora_check_template_fits(10, 65, 64), "");
}

// Whether a micrograph counts as done: Command.DoUnfinishedSkipsAMicrographWithItsBox, both ways.
TEST(OutputNames, CandidateNameInTheMicrographsFolderForEitherSuffix) {
  char out[1024];
  set_name_shrinked_box(out, "dir/mic_01.mrc", 4);
  EXPECT_STREQ(out, "dir/mic_01_nonunique.box");
  set_name_shrinked_box(out, "stack.mrcs", 8);
  EXPECT_STREQ(out, "stack_nonunique.box");
}

// The help that ends a run without micrographs: Command.UsageAndHelp.
TEST(Tips, IndexInRangeAndListForm) {
  for (long t : {0L, 1700000001L})
    EXPECT_LT(static_cast<unsigned>(pickora_tip_index(t)), static_cast<unsigned>(PICKORA_NTIPS)) << t;
  EXPECT_STREQ(PICKORA_ALL_TIPS[PICKORA_NTIPS - 1], "");
  for (int k = 0; k + 1 < PICKORA_NTIPS; ++k)
    EXPECT_EQ(std::string(PICKORA_ALL_TIPS[k]).rfind("\033[1m Tips\033[m: ", 0), 0u) << k;
}

// ---------------------------------------------------------------------------------------------
// The executable.

class Command : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(pickora_binary())) << pickora_binary() << " is missing: build the pickora target";
  }
  // Runs the executable in the scratch folder, each word one argument.
  RunResult run(const std::vector<std::string>& words) const {
    std::string command = "cd '" + dir.path() + "' && '" + pickora_binary() + "'";
    for (const std::string& w : words) command += " '" + w + "'";
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    RunResult result{"", -1};
    if (pipe == nullptr) return result;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
  }
  void mic(const std::string& name, int ny = kMic) const { write_mrc(dir.file(name), kMic, ny); }
  TempDir dir;
};

TEST_F(Command, UsageAndHelp) {
  const RunResult bare = run({});
  EXPECT_EQ(bare.status, 0);
  EXPECT_EQ(bare.out, captured_help(pickora_help));
  EXPECT_EQ(bare.out.rfind(kStars + "\nVersion:       " + pickora_binary() + " v0.56, updated on 2017-07-30\n", 0), 0u);
  EXPECT_FALSE(has(bare.out, "Tips"));
  EXPECT_FALSE(has(bare.out, "using GPU"));

  const RunResult no_mic = run({"--diameter", "200", "--detect_ice", "0"});
  EXPECT_EQ(no_mic.status, 1);
  EXPECT_EQ(no_mic.out, bare.out);

  // A help keyword first, in any case and with either hyphen count, wins over a bad option.
  const std::string full = captured_help(pickora_help_full);
  EXPECT_EQ(count_of(full, "\033[1m Tips\033[m:"), 8);
  EXPECT_TRUE(has(full, std::string(127, '-') + "\n"));
  for (const char* keyword : {"-Help", "--h"}) {
    const RunResult r = run({keyword, "--speed", "9"});
    EXPECT_EQ(r.status, 0) << keyword;
    EXPECT_EQ(r.out, full) << keyword;
  }
}

// Bad command lines and unusable micrographs stop the run before any micrograph is read.
TEST_F(Command, BadInputStopsBeforeReading) {
  mic("a.mrc");
  const std::string unknown = "Failed to recognize option: \033[41m\033[1m\033[5m";
  const std::string unknown_end = "!\033[m Exit now. Check your input please.\n\n" + std::string(130, '-') +
                                  "\nAll valid options:\n--apixM\t --T\t ";
  struct Case {
    std::vector<std::string> words;
    int status;
    std::string message;
  } cases[] = {
      {{"a.mrc", "--help"}, 0, unknown + "--help" + unknown_end},
      {{"a.mrc", "-5"}, 0, unknown + "-5" + unknown_end},
      {{"a.mrc", "--speed", "9"}, 1, "speed level must belong to {0,1,2,3,4}! Exit now!\033[m\n"},
      {{"a.mrc", "--lp"}, 1, "option --lp is the last word of the command line and has no value! Exit now!"},
      {{"a.mrc", "--ang_step", "0"}, 1, "option --ang_step must be above 0 and at most 360 degrees, not '0'!"},
      {{"--apixM", "1", "--min_dist", "56", "a.mrc"}, 1, "--min_dist too small! ! Exit now!\033[m\n"},
      // A tiny diameter gives a tiny min_dist although --min_dist was never given.
      {{"--apixM", "1", "--diameter", "50", "a.mrc"}, 1, "--min_dist too small!"},
      {{"gone1.mrc", "gone2.mrc"}, 1,
       "none of the 2 micrographs on the command line exists and can be read! Exit now!"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    const RunResult r = run(c.words);
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(has(r.out, c.message)) << r.out;
    EXPECT_FALSE(has(r.out, "Reading File"));
    if (c.words.back() == "9") {
      EXPECT_FALSE(has(r.out, "using GPU"));  // stopped before the device
    }
  }
}

TEST_F(Command, DefaultRunPrintsBlocksTimesClosingAndTip) {
  mic("mic.mrc", kMic - 200);
  const RunResult r = run({"mic.mrc"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(has(r.out, kStars + "\nUser input parameters:\n\nAll parameters to be used:\n" + all_block() +
                             "\n\nAll 1 files to be used:\n        mic.mrc\n"))
      << r.out;
  EXPECT_TRUE(has(r.out, "\n" + std::string(129, '-') + "\nReading File mic.mrc ...\n"));
  EXPECT_TRUE(has(r.out, "Normalizing the micrograph mic.mrc ...\n"));

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
  EXPECT_TRUE(has(r.out, hashes + "\nAll 1 files finished successfully:\n>>>>>>TIME<<<<<<"));
  const std::string closing = hashes + "\n\n" + dashes + "\n";
  bool ends_with_a_tip = false;
  for (const char* t : PICKORA_ALL_TIPS) {
    const std::string end = closing + t + dashes + "\n";
    ends_with_a_tip |= r.out.size() >= end.size() && r.out.compare(r.out.size() - end.size(), end.size(), end) == 0;
  }
  EXPECT_TRUE(ends_with_a_tip) << r.out.substr(r.out.size() - 400);

  // The candidate file was opened afresh and is empty until matching fills it.
  EXPECT_TRUE(fs::exists(dir.file("mic_nonunique.box")));
  EXPECT_EQ(fs::file_size(dir.file("mic_nonunique.box")), 0u);
}

TEST_F(Command, DoUnfinishedSkipsAMicrographWithItsBox) {
  mic("a.mrc");
  mic("b.mrc");
  std::ofstream(dir.file("a_pickora.box")) << "";
  const RunResult r = run({"--do_unfinished", "a.mrc", "b.mrc"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(has(r.out, "\n" + std::string(129, '-') +
                             "\nMicrograph a.mrc has already been processed. Automatically skipped.\n\n" +
                             std::string(129, '-') + "\nReading File b.mrc ...\n"))
      << r.out;
  EXPECT_FALSE(has(r.out, "Reading File a.mrc"));
  EXPECT_FALSE(fs::exists(dir.file("a_nonunique.box")));
  EXPECT_TRUE(fs::exists(dir.file("b_nonunique.box")));
  EXPECT_EQ(count_of(r.out, ">>>>>>TIME<<<<<<"), 1 + 3 + 1);  // one micrograph timed
  EXPECT_TRUE(has(r.out, "All 2 files finished successfully:\n"));

  // Without the flag a is done again; a missing first name takes the next readable one and still
  // counts. The smallest min_dist that leaves a grid step runs; a given angle step and '--T none'
  // show as given (no warning for T), although the driver forces one angle with no template.
  const RunResult again =
      run({"--apixM", "1", "--min_dist", "57", "--T", "none", "--ang_step", "10", "gone.mrc", "a.mrc"});
  ASSERT_EQ(again.status, 0) << again.out;
  EXPECT_TRUE(has(again.out, "the micrograph gone.mrc does NOT exsit! Automatically ignored!"));
  EXPECT_EQ(count_of(again.out, "Reading File a.mrc ...\n"), 2);
  EXPECT_TRUE(has(again.out, "All 2 files finished successfully:\n"));
  EXPECT_TRUE(has(again.out, "       --ang_step           10.00\n"));
  EXPECT_FALSE(has(again.out, "parameter '--T'"));
  EXPECT_TRUE(has(again.out, "parameter '--apixT'"));
}

TEST_F(Command, MissingOrDifferentSizeLaterMicrographStopsTheRunWhenReached) {
  mic("a.mrc");
  mic("b.mrc", kMic - 200);
  const RunResult gone = run({"a.mrc", "gone.mrc"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_TRUE(has(gone.out, "File a.mrc finished.\n"));
  EXPECT_TRUE(has(gone.out, "Cannot open file gone.mrc. Permission denied or wrong file name.\n"));
  EXPECT_TRUE(has(gone.out, "open file 'gone.mrc' failed.! Exit now!"));
  // A different size stops before reading; the unfinished candidate file is not left behind.
  const RunResult other = run({"a.mrc", "b.mrc"});
  EXPECT_EQ(other.status, 1);
  EXPECT_TRUE(has(other.out, "File a.mrc finished.\n"));
  EXPECT_FALSE(has(other.out, "Reading File b.mrc"));
  EXPECT_FALSE(fs::exists(dir.file("b_nonunique.box")));
}

}  // namespace
