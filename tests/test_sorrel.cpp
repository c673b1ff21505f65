// The CTF run's options, result files and read-ahead queue.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ctf/sorrel_files.h"
#include "ctf/sorrel_para.h"
#include "ctf/sorrel_queue.h"
#include "mrcfile/mrcfile.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace {

struct Parsed {
  SORREL_Para para;
  SorrelParse result;
  std::string out;
};

// Parses "sorrel" followed by the words (no device check).
SorrelParse parse_into(const std::vector<std::string>& words, SORREL_Para* para) {
  std::vector<std::string> storage = {"sorrel"};
  storage.insert(storage.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& w : storage) argv.push_back(&w[0]);
  sorrel_init_parameters(para);
  return sorrel_get_parameters(static_cast<int>(argv.size()), argv.data(), para, false);
}

// The same, capturing standard output.
Parsed parse(const std::vector<std::string>& words) {
  Parsed p;
  testing::internal::CaptureStdout();
  p.result = parse_into(words, &p.para);
  p.out = testing::internal::GetCapturedStdout();
  return p;
}

// For the death tests, whose output must reach the matcher.
void parse_plain(const std::vector<std::string>& words) {
  SORREL_Para para;
  parse_into(words, &para);
}

// What `write` puts into a stream.
std::string written(const std::function<void(FILE*)>& write) {
  char* text = nullptr;
  size_t size = 0;
  FILE* fp = open_memstream(&text, &size);
  write(fp);
  std::fclose(fp);
  std::string s(text, size);
  std::free(text);
  return s;
}

// One row of the rule table: the command line (words split at spaces, followed by one input
// file), the fields looked at with their values afterwards, and a text the run must print
// (empty: the row must print nothing at all).
using Field = std::function<double(const SORREL_Para&)>;
struct RuleCase {
  std::string line;
  std::vector<std::pair<Field, double>> checks;
  std::string message;
  RuleCase(std::string l, Field f, double e, std::string m)
      : line(std::move(l)), checks{{std::move(f), e}}, message(std::move(m)) {}
  RuleCase(std::string l, std::vector<std::pair<Field, double>> c, std::string m)
      : line(std::move(l)), checks(std::move(c)), message(std::move(m)) {}
};

#define F(name) [](const SORREL_Para& p) { return static_cast<double>(p.name); }

TEST(SorrelParameters, RepairTableAndDerivedRules) {
  const double apix2 = 2.0 * static_cast<double>(1.34f);
  const std::vector<RuleCase> cases = {
      // Derived rules; keywords take one or two dashes in any case.
      {"",
       {{F(convsize), 1024 / 12}, {F(convs_out), 1024 / 7}, {F(ctfout_resH), 2.2f * 1.34f + 0.1f},
        {F(EPA_resH), 2.0f * 1.34f + 0.1f}, {F(phase_shift_mode), 0}},
       ""},
      {"--boxsize 600", F(convsize), 600 / 12, ""},
      {"--ctfout_resH 2.5", F(ctfout_resH), 2.2f * 1.34f + 0.1f, ""},  // below 2 apix
      {"--ctfout_resH 6 --EPA_resH 5", {{F(ctfout_resH), 6.0}, {F(EPA_resH), 5.0}}, ""},
      {"--phase_shift_T 2",
       {{F(phase_shift_mode), 1}, {F(phase_shift_S), 3.0}, {F(defH), 30000}, {F(defL), 2000}, {F(defS), 200},
        {F(resL), 15}, {F(boxsize), 512}, {F(convsize), 512 / 20}},
       ""},
      {"--phase_shift_T 2 --convs_out 7", F(convs_out), 512 / 10, ""},
      {"--phase_shift_H 90 --defH 50000", F(defH), 50000, ""},
      {"--phase_shift_L 10 --refine_input_ctf", F(phase_shift_mode), 0, ""},
      {"-APIX 1.1 --Defl 7000", {{F(apix), 1.1f}, {F(defL), 7000}}, ""},
      // The repair table.
      {"--apix 0.005", F(apix), 1.34f, "Warning: Invalid pixel size 0.00! Exit now."},
      {"--apix 20", F(apix), 20, "Warning: pixel size 20.00 too large or small! Program will still run"},
      {"--apix 0.2", F(apix), 0.2f, "too large or small! Program will still run"},
      {"--dstep 0.05", F(dstep), 14, "Warning: Invalid detector size 0.05! Exit now."},
      {"--kV 5", F(kV), 300, "Waring: Invalid high tension value kV=5.00. Exit now."},
      {"--cs -1", F(cs), 2.7f, "Waring: too small or large --Cs -1.00!"}, {"--cs 0", F(cs), 0, ""},
      {"--ac 1.5", F(ac), 0.1f, "Waring: too small or large --ac 1.50!"},
      {"--bfac 5000", F(bfac), 150, "Waring: too small or large --bfac 5000.00!"},
      {"--bfac -500", F(bfac), 150, "Waring: too small or large --bfac -500.00!"},
      {"--defL 50000 --defH 10000", F(defL), 10000, "Warning: defL larger than defH, swapping them"},
      {"--defL 20000 --defH 20005 --defS 1", F(defH), 20010,
       "Warning: difference between defH and defL is too smaller, forcing them to be larger than 10.0 angstrom."},
      {"--defS -300", F(defS), 300, "Warning: defS smaller than 0, forcing it to be positive ..."},
      {"--defS 100000", F(defS), 85000.0f / 3.0f,
       "Warning:  def_step is larger than (defH - defL), forcing it to be (defH - defL)/3 ..."},
      {"--astm -500", F(astm), 500, ""}, {"--astm 10000", F(astm), 1000, "Waring: too large --astm 10000.00!"},
      {"--resL 4 --resH 10", F(resL), 10, "Warning: resL smaller than resH, swapping them ..."},
      {"--resH 1", F(resH), static_cast<float>(apix2), "Waring: Invalid resH 1.00! Exit now."},
      {"--resH 40 --resL 80", F(resH), 4, "Waring: Invalid resH 40.00! Too big for reliable CTF determination!"},
      {"--resH 20", F(resH), 20, "Waring: too large resH 20.00! Program will still run"},
      {"--resL 5 --resH 3", F(resL), 50, "Waring: Invalid resL 5.00! Exit now."},
      {"--resL 10", F(resL), 10, "Waring: too small resL 10.00! Program will still run"},
      {"--boxsize 4096", F(boxsize), 1024, "Waring: too large  --boxsize 4096!"},
      {"--boxsize 64", F(boxsize), 1024, "Waring: too small  --boxsize 64!"},
      {"--overlap 0.95", F(overlap), 0.9f, "Waring: too large --overlap 0.95!"},
      {"--overlap -0.1", F(overlap), 0, "Waring: too small --overlap -0.10!"},
      {"--convsize 600", F(convsize), 1024 / 12, "Waring: too large --convsize 600!"},
      {"--convs_out 600", F(convs_out), 1024 / 5, "Waring: too large --convs_out 600!"},
      {"--B_resH 1", F(B_resH), static_cast<float>(apix2), ""},
      {"--res_lim_cc 1", F(res_lim_cc), 0, "Waring: invalid --res_lim_cc 1.000000!"},
      {"--res_lim_cc -0.5", F(res_lim_cc), -0.5f, ""},
      {"--res_lim_L 150", F(res_lim_L), 20, "Waring: invalid --res_lim_L 150.000000!"},
      {"--phase_shift_L 370", F(phase_shift_L), 10, ""}, {"--phase_shift_H -90", F(phase_shift_H), 270, ""},
      {"--phase_shift_L 170 --phase_shift_H 20", F(phase_shift_L), 20, ""},
      {"--phase_shift_L 0 --phase_shift_H 10 --phase_shift_S 20", F(phase_shift_S), 20,
       "Waring: too large  phase shift search step: --phase_shift_S 20.000000!"},
      {"--phase_shift_T 3", F(phase_shift_T), 1, "Waring: invalid --phase_shift_T 3!"},
      {"--phase_shift_T 0", F(phase_shift_T), 1, "Waring: invalid --phase_shift_T 0!"},
      {"--mdef_fit 1", F(mdef_fit), 1,
       "Linear fitting for movie CTF is only allowed for coherent averaging (--mdef_ave_type 1)."},
      // Values that would make a search endless, huge or undefined.
      {"--defS 0", F(defS), 500, "Warning: defS 0.0000 is too small for a search"},
      {"--defS 0.001 --defL 5000 --defH 5600", F(defS), 200, "too small for a search"},
      {"--defL 0 --defH 1e9 --defS 2", F(defS), 1e9f / 4095.0f, "more than 4096 defocus values"},
      {"--phase_shift_S 0", F(phase_shift_S), 3.0, "is below 0.1 degree, forcing it to be 3.0"},
      {"--defA_seeds 1000000", F(defA_seeds), 180, "--defA_seeds 1000000 is outside 1..180"},
      {"--defA_seeds -2", F(defA_seeds), 1, "--defA_seeds -2 is outside 1..180"},
      {"--EPA_oversmp 0", F(EPA_oversmp), 4, "--EPA_oversmp 0 is outside 1..32"},
      {"--ncc_frac_max 1", F(ncc_frac_max), 0.25f, "--ncc_frac_max 1.000000 must lie between 0 and 1"},
      {"--ncc_frac_min 1.5", F(ncc_frac_min), 0.05f, "--ncc_frac_min 1.500000 must lie between 0 and 1"},
      {"--ncc_frac_min 0.5", F(ncc_frac_max), 0.5f, "ncc_frac_min larger than ncc_frac_max"},
      {"--local_overlap 1", F(local_overlap), 0.5f, "--local_overlap 1.000000 must lie in 0 up to below 1"},
      {"--convsize 0", F(convsize), 1024 / 12, "--convsize 0 is below 1"},
      // Boolean keywords take an optional 0/1.
      {"--pre_read", F(pre_read), 1, ""}, {"--plot_res_ring 0", F(plot_res_ring), 0, ""},
  };
  for (const RuleCase& c : cases) {
    SCOPED_TRACE(c.line);
    std::vector<std::string> words;
    std::istringstream in(c.line);
    for (std::string w; in >> w;) words.push_back(w);
    words.push_back("mic.mrc");
    const Parsed p = parse(words);
    ASSERT_EQ(p.result, SORREL_PARSE_OK);
    for (const auto& [field, expected] : c.checks)
      EXPECT_NEAR(field(p.para), expected, 1e-6 * std::fmax(1.0, std::fabs(expected)));
    if (c.message.empty())
      EXPECT_EQ(p.out, "");
    else
      EXPECT_NE(p.out.find(c.message), std::string::npos) << p.out;
  }
}

TEST(SorrelParameters, DefaultsCtfstarNamesAndGivenOptions) {
  const Parsed p = parse({"a.mrc"}), given = parse({"--Defl", "7000", "x.mrc"});
  EXPECT_EQ(sorrel_defocus_count(&p.para), 170);  // 5000 .. 89500
  EXPECT_EQ(p.para.init[0].valid, 0.0f);
  EXPECT_EQ(sorrel_option_given(&given.para, "defL"), 1);
  EXPECT_EQ(sorrel_option_given(&given.para, "defH"), 0);
  EXPECT_STREQ(parse({"--ctfstar", "none", "x.mrc"}).para.ctfstar, "NULL");
  EXPECT_STREQ(parse({"--ctfstar", "out", "x.mrc"}).para.ctfstar, "out.star");
  EXPECT_STREQ(parse({"--ctfstar", "all.star", "x.mrc"}).para.ctfstar, "all.star");
}

// An unknown option lists the valid ones; no input prints the error first, then the usage. (The
// exit statuses and the messages of both: the end-to-end test's runs that cannot start.)
TEST(SorrelParameters, UnknownOptionListsTheOptionsAndNoInputPrintsTheUsage) {
  const std::string unknown = parse({"--no_such_thing", "x.mrc"}).out, none = parse({"--apix", "1.0"}).out;
  EXPECT_NE(unknown.find("All valid options:"), std::string::npos) << unknown;
  EXPECT_NE(unknown.find("--defA_seeds\t "), std::string::npos) << unknown;
  EXPECT_EQ(none.find("Error: No files to be processed.\n"), 0u) << none;
  EXPECT_NE(none.find("Usage:"), std::string::npos) << none;
}

TEST(SorrelParametersDeathTest, RefusesWhatCannotBeRepaired) {
  EXPECT_EXIT_REPORT(parse_plain({"x.mrc", "--defS"}), "option --defS is the last word of the command line");
  EXPECT_EXIT_REPORT(parse_plain({"--defS", "nan", "x.mrc"}), "value 'nan' of option --defS is not a finite number");
  EXPECT_EXIT_REPORT(parse_plain({"--apix", "inf", "x.mrc"}), "is not a finite number");
  EXPECT_EXIT_REPORT(parse_plain({"--defH", "1e40", "x.mrc"}), "is not a finite number");
  EXPECT_EXIT_REPORT(parse_plain({"x.mrc", "--ctfstar"}), "Can not get file name for ctfstar");
  EXPECT_EXIT_REPORT(parse_plain({"--ctfstar", "--apix", "x.mrc"}), "Can not get file name for ctfstar");
}

TEST(SorrelParameters, InputCtfstarAddsMicrographsWithStartValues) {
  TempDir dir;
  write_file_text(dir.file("in.star"), "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\n_rlnDefocusV #3\n"
                                       "_rlnVoltage #4\nm1.mrc 21000 23000 200\nm2.mrc 0 15000 300\n");
  const Parsed p = parse({"first.mrc", "--input_ctfstar", dir.file("in.star")});
  ASSERT_EQ(p.para.files, (std::vector<std::string>{"first.mrc", "m1.mrc", "m2.mrc"}));
  EXPECT_EQ(p.para.init[1].valid, 1.0f);
  EXPECT_FLOAT_EQ(p.para.init[1].defV, 23000.0f);
  EXPECT_FLOAT_EQ(p.para.init[1].kv, 200.0f);
  EXPECT_FLOAT_EQ(p.para.init[1].cs, 2.7f);  // absent columns: the defaults
  EXPECT_FLOAT_EQ(p.para.init[1].bfac, 150.0f);
  EXPECT_EQ(p.para.init[2].valid, 0.0f);  // defU of 0: no valid start
}

TEST(SorrelParameters, LogHeadPrintsEveryOptionFromColumnThirty) {
  const Parsed p = parse({"x.mrc"});
  const std::string log = written([&](FILE* fp) {
    sorrel_fput_parameters(fp, &p.para);
    sorrel_fput_parameters_ctffind3_like(fp, &p.para);
  });
  EXPECT_NE(log.find("\n        --apix               1.340\n"), std::string::npos);
  EXPECT_NE(log.find("\n        --kv                 300.00\n"), std::string::npos);
  EXPECT_NE(log.find("Phase shift options:  OFF\n"), std::string::npos);
  int lines = 0;
  for (size_t at = log.find("        --"); at != std::string::npos; at = log.find("        --", at + 1)) ++lines;
  EXPECT_EQ(lines, sorrel_option_count());
  EXPECT_NE(log.find("  2.7    300.0    0.10  104477.6   14.000\n"), std::string::npos);
  EXPECT_NE(log.find(" 1024       50.0        4.0   10000.0   70000.0  500.0    0.0\n"), std::string::npos);
}

// ---- Result files ----------------------------------------------------------------------------

TEST(SorrelFiles, SummaryTableHeadsAndRows) {
  const std::string head = written([](FILE* fp) { log_ctfstar_head(fp, 0); });
  EXPECT_EQ(head.find("\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCtfImage #2\n_rlnDefocusU #3\n"), 0u);
  EXPECT_NE(head.find("_rlnCtfFigureOfMerit #11\n_rlnFinalResolution #12\n"), std::string::npos);
  EXPECT_EQ(head.find("_rlnPhaseShift"), std::string::npos);
  EXPECT_EQ(written([](FILE* fp) {
              log_ctfstar_ex_oneline(fp, "a.mrc", "a.ctf", 21000.5f, 22000.25f, -45.0f, 300.0f, 2.7f, 0.1f, 1.0f,
                                     14.0f, 0.25f, 3.5f);
            }),
            "a.mrc a.ctf:mrc 21000.500000 22000.250000   -45.000000   300.000000     2.700000     0.100000 "
            "140000.000000    14.000000     0.250000     3.500000\n");
  const std::string row_ps = written([](FILE* fp) {
    log_ctfstar_ex_oneline_phase_shift(fp, "b.mrc", "b.ctf", 1, 2, 3, 4, 5, 0, 2.0f, 1.0f, 7, 8, 90.0f);
  });
  EXPECT_EQ(row_ps.substr(row_ps.size() - 27), "     8.000000    90.000000\n");
  EXPECT_NE(row_ps.find(" 5000.000000 "), std::string::npos);  // 10000 x 1.0 / 2.0
}

TEST(SorrelFiles, PowerImageCentreIsTheMeanOfItsNeighbours) {
  for (int box : {2, 4, 8}) {
    std::vector<float> a(box * box);
    for (int i = 0; i < box * box; ++i) a[i] = static_cast<float>((i * 37) % 11);
    std::vector<float> b = a;
    sorrel_powf_fix_centre(b.data(), box);
    const int x = box / 2 - 1, y = box / 2;
    const auto at = [&](int xx, int yy) {  // outside the image: the centre itself
      return (xx < 0 || yy < 0 || xx >= box || yy >= box) ? a[y * box + x] : a[yy * box + xx];
    };
    a[y * box + x] = (at(x - 1, y) + at(x + 1, y) + at(x, y - 1) + at(x, y + 1)) * 0.25f;
    EXPECT_EQ(b, a) << box;
  }
}

TEST(SorrelFiles, PowerFileHeadAndReadingBack) {
  TempDir dir;
  const std::string name = dir.file("m.pow");
  std::vector<float> a(16 * 16), back(a.size());
  for (size_t i = 0; i < a.size(); ++i) a[i] = static_cast<float>(i) * 0.5f;
  sorrel_write_powf_file(name.c_str(), a.data(), 16);
  MRC_HEAD head;
  ASSERT_EQ(sorrel_probe_mic(name.c_str(), &head), SORREL_READ_OK);
  EXPECT_EQ(head.cid, SORREL_POW_CID);
  EXPECT_EQ(head.nz, 1);
  EXPECT_FLOAT_EQ(head.amax, 127.5f);
  EXPECT_EQ(sorrel_read_mic(name.c_str(), &head, &head, back.data()), SORREL_READ_OK);
  EXPECT_EQ(back, a);
}

// (A missing file and one of text are read through the queue's reader below.)
TEST(SorrelFiles, ReadingReportsACutFileAndAnotherSizeAsValues) {
  TempDir dir;
  std::vector<float> a(8 * 8, 1.0f), dst(64, -1.0f);
  mrcf_write_xyz_data(dir.file("good.mrc").c_str(), a.data(), 8, 8, 1);
  mrcf_write_xyz_data(dir.file("other.mrc").c_str(), a.data(), 4, 16, 1);
  std::vector<unsigned char> bytes = read_binary_file(dir.file("good.mrc"));
  bytes.resize(bytes.size() - 4);
  write_file_bytes(dir.file("short.mrc"), bytes);
  MRC_HEAD first, head;
  ASSERT_EQ(sorrel_probe_mic(dir.file("good.mrc").c_str(), &first), SORREL_READ_OK);
  EXPECT_EQ(sorrel_read_mic(dir.file("short.mrc").c_str(), &first, &head, dst.data()), SORREL_READ_BAD_FILE);
  EXPECT_EQ(sorrel_read_mic(dir.file("other.mrc").c_str(), &first, &head, dst.data()), SORREL_READ_OTHER_SIZE);
  EXPECT_EQ(dst[0], -1.0f);  // untouched by the failures
  EXPECT_EQ(sorrel_read_mic(dir.file("good.mrc").c_str(), &first, &head, dst.data()), SORREL_READ_OK);
  EXPECT_EQ(dst[63], 1.0f);
}

// ---- The read-ahead queue --------------------------------------------------------------------

mrcf_data_packet packet_named(const std::string& name) {
  mrcf_data_packet p;
  p.name = name;
  p.state = 1;
  p.data = static_cast<float*>(std::malloc(4 * sizeof(float)));
  p.count = 4;
  return p;
}

TEST(SorrelQueue, HoldsFiveInOrderRefusesTheSixthAndDropsSkippedOnes) {
  SorrelDataQueue queue(1);
  for (int i = 0; i < 5; ++i) {
    mrcf_data_packet p = packet_named("m" + std::to_string(i));
    ASSERT_EQ(queue.send(p), 1);
    EXPECT_EQ(p.data, nullptr);  // the queue took it over
  }
  mrcf_data_packet sixth = packet_named("m5"), got;
  EXPECT_EQ(queue.send(sixth), 0);
  EXPECT_NE(sixth.data, nullptr);
  ASSERT_EQ(queue.get(got), 1);
  EXPECT_EQ(got.name, "m0");
  sorrel_free_packet(got);
  EXPECT_EQ(queue.send(sixth), 1);  // there is room again
  // Asked for m4, the queue drops the packets of the micrographs skipped on the way, in order.
  queue.set_all_sent();
  ASSERT_EQ(queue.get_for_name("m4", got), 1);
  EXPECT_EQ(got.name, "m4");
  sorrel_free_packet(got);
  EXPECT_EQ(queue.size(), 1u);  // m5
  EXPECT_EQ(queue.get_for_name("d", got), 0);
  EXPECT_EQ(queue.size(), 0u);
  EXPECT_EQ(queue.get(got), 0);
  // Empty with everything sent: the waiting form answers at once.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(queue.get_until_succeed(got), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(SorrelQueue, ReaderPassesFailuresSkipsUnwantedInputsAndStopsWithTheRun) {
  TempDir dir;
  std::vector<std::string> files;
  for (int i = 0; i < 9; ++i) {
    files.push_back(dir.file("m" + std::to_string(i) + ".mrc"));
    const std::vector<float> a(8 * 8, static_cast<float>(i));
    if (i != 3) mrcf_write_xyz_data(files.back().c_str(), a.data(), 8, 8, 1);  // m3 is missing
  }
  write_file_text(files[5], "garbage");
  MRC_HEAD first;
  ASSERT_EQ(sorrel_probe_mic(files[0].c_str(), &first), SORREL_READ_OK);
  {
    SorrelDataQueue queue(1);
    SorrelReader reader;
    reader.start(&queue, &files, &first, [](int i) { return i != 7; }, 1);
    for (int i = 0; i < 9; ++i) {
      if (i == 7) continue;
      mrcf_data_packet got;
      ASSERT_EQ(queue.get_for_name(files[i], got), 1) << i;
      EXPECT_EQ(got.read_result, i == 3 ? SORREL_READ_NO_ACCESS : i == 5 ? SORREL_READ_BAD_FILE : SORREL_READ_OK) << i;
      if (got.read_result == SORREL_READ_OK) EXPECT_EQ(got.data[10], static_cast<float>(i));
      else EXPECT_EQ(got.data, nullptr);
      sorrel_free_packet(got);
    }
    reader.join();
    mrcf_data_packet none;
    EXPECT_EQ(queue.get_until_succeed(none), 0);
  }
  // Nobody takes anything: the reader waits for room until the run ends, and is joined before
  // the queue goes.
  const auto start = std::chrono::steady_clock::now();
  {
    SorrelDataQueue queue(1);
    SorrelReader reader;
    reader.start(&queue, &files, &first, nullptr, 1);
    while (queue.size() < 5) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

}  // namespace
