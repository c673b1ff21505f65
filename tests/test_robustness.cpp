// What a hostile but fair user meets: bad option values, damaged micrographs and templates,
// full disks, kills and long names. Each case says what is wrong and names the file or option,
// and no partial file is left under a final name.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "boxfile/ptcl_box.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/ice_detect.h"
#include "pickora56/pickora_driver.h"
#include "pickora56/pickora_para.h"
#include "pickora56/pixel_check.h"
#include "support/exit_report.h"
#include "support/run_command.h"
#include "support/temp_dir.h"
#include "txt_file/atomic_file.h"

namespace fs = std::filesystem;

namespace {

bool cpu_backend() { return std::string(PICKORA_TEST_BACKEND) == "cpu"; }

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
  return names;
}

// --- The atomic writer ------------------------------------------------------------------------

TEST(AtomicFile, FinalNameAppearsOnlyOnCommitAndAnAbandonedFileLeavesTheOlderOne) {
  TempDir dir;
  const std::string name = dir.file("out.box");
  write_file_text(name, "older\n");
  {
    AtomicFile f(name.c_str());
    std::fputs("newer\n", f.stream());
    EXPECT_EQ(read_file_text(name), "older\n");  // not yet
  }
  EXPECT_EQ(read_file_text(name), "older\n");
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"out.box"});  // temporary file removed
  AtomicFile f(name.c_str());
  f.write("newer\n", 6);
  f.commit();
  EXPECT_EQ(read_file_text(name), "newer\n");
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"out.box"});
}

// A file size limit makes the kernel refuse writes past it: a full disk, injected. Only the soft
// limit is lowered, and put back on the way out, so that later tests in this process can write.
struct FileSizeLimit {
  rlimit before{};
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit lower{bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lower);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before); }
};

void write_past_a_size_limit(const std::string& name, bool through_fputs) {
  signal(SIGXFSZ, SIG_IGN);
  FileSizeLimit limit(4096);
  AtomicFile f(name.c_str());
  const std::string block(10000, 'x');
  if (through_fputs)
    std::fputs(block.c_str(), f.stream());  // buffered: the failure shows at commit
  else
    f.write(block.data(), block.size());
  f.commit();
}

TEST(AtomicFileDeathTest, AFullDiskIsFatalNamingTheFileAndLeavesNothing) {
  TempDir dir;
  const std::string name = dir.file("mic_particles.mrcs");
  for (bool through_fputs : {false, true}) {
    EXPECT_EXIT_REPORT(write_past_a_size_limit(name, through_fputs),
                       "Cannot write to file .*mic_particles.mrcs. Permission denied or no space left!.*"
                       "writing file '.*mic_particles.mrcs' failed \\(File too large\\); nothing was left");
    EXPECT_TRUE(names_in(dir.path()).empty());
  }
}

// A fatal report in the middle of writing leaves no temporary file behind.
TEST(AtomicFileRefusal, AReportInTheMiddleRemovesTheTemporaryFiles) {
  TempDir dir;
  EXPECT_EXIT_REPORT(
      {
        AtomicFile f(dir.file("a.star").c_str());
        StagedName staged(dir.file("a.box").c_str());
        write_file_text(staged.temp_name(), "rows\n");
        std::fputs("data_\n", f.stream());
        std::fflush(f.stream());
        PK_FATAL("stop!");
      },
      "stop!");
  EXPECT_TRUE(names_in(dir.path()).empty());
}

// --- The driver on a full disk, killed, and on damaged micrographs ------------------------------

// Runs a command line in dir; returns its status and leaves its output in out.
int run_in(const TempDir& dir, const std::string& command, std::string& out) {
  return run_command("cd '" + dir.path() + "' && " + command, out);
}

void simulate(const TempDir& dir) {
  std::string out;
  ASSERT_EQ(run_in(dir, std::string(PICKORA_BIN_DIR) + "/pickora-simulate --out . --n 1 --size 512 --apix 1.34 "
                       "--diameter 250 --templates 2 --snr 0.3 --lobe_width 0.5 --bg 0.25 --seed 7", out), 0) << out;
}

const std::string kPick = std::string(PICKORA_BIN_DIR) + "/pickora --apixM 1.34 --diameter 250 --T templates.mrcs ";

TEST(DriverOnAFullDisk, StopsWithStatusOneNamingTheFileAndWritesNoFinalFile) {
  if (!cpu_backend()) GTEST_SKIP();
  TempDir dir;
  simulate(dir);
  std::string out;
  // The 256 x 256 diagnostic image passes a 100 KB limit; the small text files do not.
  EXPECT_EQ(run_in(dir, "trap '' XFSZ && ulimit -f 100 && " + kPick + "--write_star 0 --write_bgfree_mic 1 mic_0000.mrc",
                   out), 1) << out;
  EXPECT_NE(out.find("Cannot write to file mic_0000_bgfree.mrc. Permission denied or no space left!"),
            std::string::npos) << out;
  EXPECT_EQ(out.find("finished successfully"), std::string::npos);
  for (const std::string& name : names_in(dir.path())) {
    EXPECT_EQ(name.find(".tmp-"), std::string::npos) << name;
    EXPECT_NE(name, "mic_0000_bgfree.mrc");
    EXPECT_NE(name, "mic_0000_pickora.box");  // the micrograph is not marked finished
  }
}

TEST(ResumeAfterKill, EveryKillPointResumesToTheOutputsOfOneRun) {
  if (!cpu_backend()) GTEST_SKIP();
  TempDir dir;
  std::string out;
  EXPECT_EQ(run_command(std::string(PICKORA_SOURCE_DIR) + "/scripts/check-resume-after-kill.sh " + PICKORA_BIN_DIR +
                            " '" + dir.path() + "'", out), 0) << out;
  EXPECT_NE(out.find("kill points, 0 differences"), std::string::npos) << out;
}

TEST(DamagedMicrographs, AreRepairedOrSkippedWithAWarningAndNoNaNIsWritten) {
  if (!cpu_backend()) GTEST_SKIP();
  TempDir dir;
  simulate(dir);
  std::vector<float> damaged(512 * 512), blank(damaged.size(), 3.0f);
  ASSERT_EQ(mrcf_read_all(dir.file("mic_0000.mrc").c_str(), damaged.data()), 0);
  damaged[5 * 512 + 5] = std::nanf("");
  for (int y = 100; y < 140; ++y) std::fill_n(damaged.begin() + y * 512 + 100, 40, 3e38f);
  mrcf_write_xyz_data(dir.file("damaged.mrc").c_str(), damaged.data(), 512, 512, 1);
  mrcf_write_xyz_data(dir.file("blank.mrc").c_str(), blank.data(), 512, 512, 1);
  std::string out;
  ASSERT_EQ(run_in(dir, kPick + "damaged.mrc blank.mrc mic_0000.mrc", out), 0) << out;
  for (const char* said : {"the micrograph damaged.mrc has 1 pixels that are NaN or infinite and 1600 above 1e+30",
                           "the micrograph blank.mrc is blank: every usable pixel is 3",
                           "1 of the 3 micrographs were skipped"})
    EXPECT_NE(out.find(said), std::string::npos) << said << "\n" << out;
  EXPECT_FALSE(fs::exists(dir.file("blank_pickora.box")));
  ASSERT_TRUE(fs::exists(dir.file("damaged_pickora.box")));
  EXPECT_EQ(read_file_text(dir.file("damaged_pickora.box")).find("nan"), std::string::npos);
}

// --- Damaged pixels and templates -------------------------------------------------------------

TEST(PixelCheck, VerdictsFromTheCensus) {
  const float nan = std::nanf(""), inf = INFINITY;
  struct Case {
    std::vector<float> pixels;
    MicrographVerdict verdict;
    size_t nonfinite, huge;
    double mean;
  } cases[] = {
      {{1, 2, 3, 4}, MicrographVerdict::kUse, 0, 0, 2.5},
      {{1, nan, 3, 5}, MicrographVerdict::kRepair, 1, 0, 3.0},
      {{1, -inf, 3e38f, 5}, MicrographVerdict::kRepair, 1, 1, 3.0},  // half is still repaired
      {{1, 2e30f, 1e30f, 5}, MicrographVerdict::kRepair, 0, 1, (6.0 + static_cast<double>(1e30f)) / 3},
      {{nan, nan, 3e38f, 5}, MicrographVerdict::kSkip, 2, 1, 5.0},  // more than half damaged
      {{7, 7, 7, 7}, MicrographVerdict::kSkip, 0, 0, 7.0},         // blank
      {{7, nan, 7, 7}, MicrographVerdict::kSkip, 1, 0, 7.0},       // blank once repaired
      {{nan, inf}, MicrographVerdict::kSkip, 2, 0, 0.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.pixels));
    const PixelCensus census = pickora_pixel_census(c.pixels.data(), c.pixels.size());
    EXPECT_EQ(census.nonfinite, c.nonfinite);
    EXPECT_EQ(census.huge, c.huge);
    EXPECT_NEAR(census.mean, c.mean, 1e-9 * std::fabs(c.mean));
    EXPECT_EQ(pickora_micrograph_verdict(census), c.verdict);
    std::vector<float> repaired = c.pixels;
    pickora_repair_pixels(repaired.data(), repaired.size(), census);
    for (size_t i = 0; i < repaired.size(); ++i) {
      const bool bad = !std::isfinite(c.pixels[i]) || std::fabs(c.pixels[i]) > 1e30f;
      EXPECT_EQ(repaired[i], bad ? static_cast<float>(census.mean) : c.pixels[i]) << i;
    }
  }
}

TEST(PixelCheckDeathTest, ABadTemplateIsRefusedNamingItsNumberAndFile) {
  std::vector<float> stack(2 * 9), with_nan, flat;
  for (size_t i = 0; i < stack.size(); ++i) stack[i] = static_cast<float>(i % 5);
  pickora_require_usable_templates(stack.data(), 3, 3, 2, "t.mrcs");  // both fine
  with_nan = flat = stack;
  with_nan[9 + 4] = std::nanf("");
  EXPECT_EXIT_REPORT(pickora_require_usable_templates(with_nan.data(), 3, 3, 2, "t.mrcs"),
                     "template 2 of t.mrcs has 1 pixels that are NaN or infinite");
  std::fill_n(flat.begin(), 9, 0.0f);
  EXPECT_EXIT_REPORT(pickora_require_usable_templates(flat.data(), 3, 3, 2, "t.mrcs"),
                     "template 1 of t.mrcs is constant \\(every pixel 0\\)");
}

// --- Option values ----------------------------------------------------------------------------

// Parses "pickora words..." into para; the caller frees it.
void parse_into(std::vector<std::string> words, Pickora_Para* para) {
  words.insert(words.begin(), "pickora");
  std::vector<char*> argv;
  for (std::string& s : words) argv.push_back(&s[0]);
  argv.push_back(nullptr);
  pickora_init_parameters(static_cast<int>(words.size()), para);
  pickora_get_parameters(static_cast<int>(words.size()), argv.data(), para);
}

void parse(const std::vector<std::string>& words) {
  struct Freed : Pickora_Para {
    ~Freed() { pickora_free_parameters(this); }
  } para{};
  parse_into(words, &para);
}

TEST(OptionValuesDeathTest, EachBadValueIsRefusedNamingTheOption) {
  const struct {
    std::vector<std::string> words;
    const char* message;
  } cases[] = {
      {{"--speed", "abc"}, "option --speed takes a number, not 'abc'"},
      {{"--cc_cutoff", "nan"}, "option --cc_cutoff takes a number, not 'nan'"},
      {{"--cc_cutoff", "1.5"}, "option --cc_cutoff must be at most 1, not '1.5'"},
      {{"--T_norm_type", "4"}, "option --T_norm_type takes a whole number from 0 to 3, not '4'"},
      {{"--lp", "0"}, "option --lp must be above 0 and at most 100000 angstrom, not '0'"},
      {{"--diameter", "1e6"}, "option --diameter must be at most 100000 angstrom, not '1e6'"},
      {{"--diameter", "0"}, "option --diameter must be above 0"},
      {{"--boxsize", "1e9"}, "option --boxsize takes a whole number from 2 to 65536, not '1e9'"},
      {{"--apixT", "1e8"}, "option --apixT must be at most 100 angstrom, not '1e8'"},
      {{"--apixM", "1e-7"}, "option --apixM must be at least 0.01 and at most 100 angstrom, not '1e-7'"},
      {{"--lsigma_cutoff", "12abc"}, "option --lsigma_cutoff takes a number, not '12abc'"},
      {{"--lave_min", "2"}, "--lave_min \\(2\\) must be below --lave_max \\(1\\)"},
      {{"--lp", "2000"}, "--lp \\(2000 angstrom\\) must be below --hp \\(1000 angstrom\\)"},
  };
  for (const auto& c : cases)
    EXPECT_EXIT_REPORT(parse({c.words[0], c.words[1], "a.mrc"}), c.message) << c.words[0] << " " << c.words[1];
}

TEST(OptionValues, ALowPassFinerThanTheWorkImageIsRaisedWithAWarning) {
  Pickora_Para para{};
  testing::internal::CaptureStdout();
  parse_into({"--apixM", "1", "--speed", "1", "--lp", "3", "a.mrc"}, &para);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(para.lp, 4.0f);  // twice the work pixel of 2 angstrom
  EXPECT_NE(out.find("--lp 3 angstrom is finer than the work image holds (4 angstrom at --speed 1); 4 is used"),
            std::string::npos) << out;
  pickora_free_parameters(&para);
}

// --- Names and files --------------------------------------------------------------------------

TEST(NamesDeathTest, ALaterNameWhoseOutputsPass1023CharactersIsRefusedBeforeAnything) {
  // 1023 - 15 ("_particles.mrcs") - 2 x 16 (temporary endings) = 976 characters fit.
  EXPECT_EXIT_REPORT(parse({"a.mrc", std::string(973, 'a') + ".mrc"}),
                     "number 2 on the list, 977 characters\\) is too long.*at most 976 fit");
}

TEST(MicrographFilesDeathTest, FoldersEmptyFilesAndShortDataAreNamed) {
  TempDir dir;
  fs::create_directory(dir.file("folder.mrc"));
  write_file_text(dir.file("empty.mrc"), "");
  const std::string big = dir.file("big.mrc");
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, 100000, 100000, 1, MRC_MODE_FLOAT);
  mrc_new_file(big.c_str(), &head);
  EXPECT_EXIT_REPORT(pickora_require_mrc_file(dir.file("folder.mrc").c_str(), nullptr),
                     "the micrograph .*folder.mrc is a folder, not an MRC file");
  EXPECT_EXIT_REPORT(pickora_require_mrc_file(dir.file("empty.mrc").c_str(), nullptr),
                     "the micrograph .*empty.mrc is 0 bytes long, shorter than the 1024-byte MRC head");
  pickora_require_mrc_file(big.c_str(), nullptr);  // a head alone is a head
  EXPECT_EXIT_REPORT(pickora_require_mrc_file(big.c_str(), &head),
                     "big.mrc is 1024 bytes long, but its head \\(100000 x 100000 pixels, 1 slices, mode 2\\) needs "
                     "40000001024");
  EXPECT_EXIT_REPORT(pickora_check_box_fits(600, 1024, 600, "m.mrc"), "the box of 600 micrograph pixels");
  pickora_check_box_fits(598, 1024, 600, "m.mrc");
}

TEST(CoordinateFilesDeathTest, AShortBoxLineNamesTheFileTheLineAndItsColumns) {
  TempDir dir;
  const std::string name = dir.file("m_rubbish.box");
  write_file_text(name, "1 2 3 4\n\n5 6 7\n");
  std::vector<PTCL_BOX> boxes(4);
  EXPECT_EXIT_REPORT(read_all_ptcl_boxes(boxes.data(), 4, name.c_str()),
                     "The coordinate file .*m_rubbish.box has 3 columns on line 3; a .box line needs 4 to 7.\n.*"
                     "unrecognized box format!");
}

TEST(WorkAspectDeathTest, TheRuleHoldsInWorkPixelsAndTheMessageGivesBothSizes) {
  const struct {
    int nx, ny, shrink;
    bool ok;
  } cases[] = {{1024, 513, 4, false}, {1024, 516, 4, false}, {1024, 520, 4, true},
               {1024, 516, 2, true},  {513, 1024, 4, false}, {1024, 1024, 8, true}};
  for (const auto& c : cases) {
    Pickora_Sizes sizes{};
    pickora_set_work_sizes(c.nx, c.ny, c.shrink, &sizes);
    const std::string in = std::to_string(c.nx) + " x " + std::to_string(c.ny);
    SCOPED_TRACE(in + " / " + std::to_string(c.shrink));
    if (c.ok) {
      EXPECT_EQ(pickora_check_work_aspect(sizes, c.shrink, "m.mrc"), 0);
    } else {
      EXPECT_EXIT_REPORT(pickora_check_work_aspect(sizes, c.shrink, "m.mrc"),
                         "m.mrc \\(" + in + " pixels\\) shrinks by " + std::to_string(c.shrink) + " to " +
                             std::to_string(sizes.shrunk_nx) + " x " + std::to_string(sizes.shrunk_ny) + " work pixels");
    }
  }
}

TEST(RejectedShare, AWarningAboveThreeTenthsNamesTheShareAndTheOptions) {
  for (int marked : {30, 31}) {
    std::vector<unsigned int> grid(100, 0u);
    std::fill_n(grid.begin() + 5, marked, 9u);
    testing::internal::CaptureStdout();
    EXPECT_DOUBLE_EQ(pickora_warn_rejected_share("m.mrc", grid.data(), grid.size()), marked / 100.0);
    const std::string out = testing::internal::GetCapturedStdout();
    if (marked == 30) {
      EXPECT_EQ(out, "");
    } else {
      EXPECT_NE(out.find("31 of the 100 cells (31%) of the micrograph m.mrc were rejected"), std::string::npos) << out;
      EXPECT_NE(out.find("--detect_ice 0"), std::string::npos) << out;
    }
  }
}

}  // namespace
