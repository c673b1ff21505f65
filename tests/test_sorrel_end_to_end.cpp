// The sorrel command on micrographs simulated through a known CTF: the defocus, the axis of
// astigmatism and the phase shift must come back, with one row per micrograph, finished logs,
// readable images, a resumable run and a read-ahead that changes nothing; a blank and an
// unreadable file must not stop the run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "ctf/sorrel.h"
#include "ctf/sorrel_files.h"
#include "random_utils/random_source.h"
#include "mrcfile/mrcfile.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

std::string bin(const std::string& name) {
  const bool cuda = std::string(PICKORA_TEST_BACKEND) == "cuda";
  return std::string(PICKORA_BIN_DIR) + "/" + name + (cuda && name == "sorrel" ? "-cuda" : "");
}

std::string in_dir(const TempDir& dir) { return "cd '" + dir.path() + "' && "; }

// Small tiles and smoothing boxes keep the run quick on two cores; 512 pixels at 1 A still
// sample the rings of 40000 A defocus at 5 A. Six trial angles keep strategy 1 from settling
// on a round spectrum when its random start angle lies far from the axis.
const char* const kFast = " --apix 1.0 --boxsize 512 --convsize 21 --convs_out 36 --defA_seeds 6 ";

// Runs sorrel in this process, in the folder of the run, with the random source fixed first so
// that the rows are repeatable; returns its status and leaves what it printed in out.
int run_sorrel(const TempDir& dir, const std::string& args, std::string& out, uint64_t seed = 7) {
  std::vector<std::string> words{"sorrel"};
  std::istringstream in(args);
  for (std::string w; in >> w;) words.push_back(w);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  char here[4096];
  if (!getcwd(here, sizeof(here)) || chdir(dir.path().c_str()) != 0) return -1;
  random_source_set_seed(seed);
  testing::internal::CaptureStdout();
  int status;
  {
    SORREL_A s;
    status = s.sorrel_run_all(static_cast<int>(words.size()), argv.data());
  }
  std::fflush(stdout);
  out = testing::internal::GetCapturedStdout();
  if (chdir(here) != 0) return -1;
  return status;
}

struct Row {
  std::string name, line;
  double U, V, A, res, ps;
};

std::vector<Row> read_rows(const std::string& path) {
  std::vector<Row> rows;
  std::istringstream in(read_file_text(path));
  std::string line;
  while (std::getline(in, line)) {
    if (line.find(":mrc") == std::string::npos) continue;
    std::istringstream w(line);
    Row r;
    std::string ctf;
    double kv, cs, ac, mag, dstep, ccc;
    w >> r.name >> ctf >> r.U >> r.V >> r.A >> kv >> cs >> ac >> mag >> dstep >> ccc >> r.res;
    r.ps = 0.0;
    w >> r.ps;
    r.line = line;
    rows.push_back(r);
  }
  return rows;
}

// The axis of the larger defocus, in 0 .. 180.
double axis(double U, double V, double A) {
  const double a = U >= V ? A : A + 90.0;
  return a - 180.0 * std::floor(a / 180.0);
}
double axis_error(double a, double b) {
  const double d = std::fabs(a - b);
  return std::min(d, 180.0 - d);
}
double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2.0;
}

struct Truth {
  double U, V, A, ps;
};

std::map<std::string, Truth> read_truth(const std::string& star, const std::string& folder) {
  std::vector<std::string> names;
  std::vector<CTF_INIT> init;
  get_all_initctf_from_ctfstar(star.c_str(), names, init);
  std::map<std::string, Truth> truth;
  for (size_t i = 0; i < names.size(); ++i) {
    std::string n = names[i];
    if (n.find('/') == std::string::npos) n = folder + "/" + n;
    truth[n] = Truth{init[i].defU, init[i].defV, init[i].defA, init[i].ps};
  }
  return truth;
}

// Errors of the mean defocus and of the axis over every micrograph of the test.
struct Errors {
  std::vector<double> mean, axis;
};

// Scores the rows against the truth: each micrograph against the per-micrograph limits; the
// errors are collected for the medians over all micrographs.
void expect_accurate(const std::vector<Row>& rows, const std::map<std::string, Truth>& truth, bool phase,
                     Errors& errors) {
  std::vector<double>& mean_err = errors.mean;
  std::vector<double>& axis_err = errors.axis;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.line);
    ASSERT_TRUE(truth.count(r.name)) << r.name;
    const Truth& t = truth.at(r.name);
    const double m = std::fabs((r.U + r.V) / 2.0 - (t.U + t.V) / 2.0);
    mean_err.push_back(m);
    EXPECT_LE(m, 150.0);
    if (std::fabs(t.U - t.V) >= 500.0) {
      const double e = axis_error(axis(r.U, r.V, r.A), axis(t.U, t.V, t.A));
      axis_err.push_back(e);
      EXPECT_LE(e, 10.0);
    }
    EXPECT_TRUE(std::isfinite(r.res));
    EXPECT_GE(r.res, 2.0);
    if (phase) {
      double d = std::fabs(r.ps - t.ps);
      d = std::min(d, 180.0 - d);
      EXPECT_LE(d, 10.0);
    }
  }
}

TEST(SorrelEndToEnd, DefocusAstigmatismPhaseShiftFilesResumeAndReadAhead) {
  TempDir dir;
  std::string out;
  Errors errors;
  ASSERT_EQ(run_command(in_dir(dir) + bin("pickora-ctfsim") +
                            " --out sim --n 6 --size 1024 --apix 1.0 --defocus 6000:40000 --astig 0:2000 "
                            "--angle -90:90 --bfac 50:200 --seed 2024",
                        out),
            0)
      << out;
  std::vector<float> flat(1024 * 1024, 3.0f);
  mrcf_write_xyz_data(dir.file("sim/blank.mrc").c_str(), flat.data(), 1024, 1024, 1);
  write_file_text(dir.file("sim/broken.mrc"), "not an image at all");
  const std::string inputs = " sim/mic_0000.mrc sim/blank.mrc sim/mic_0001.mrc sim/mic_0002.mrc sim/broken.mrc "
                             "sim/mic_0003.mrc sim/mic_0004.mrc sim/mic_0005.mrc";

  ASSERT_EQ(run_sorrel(dir, kFast + inputs, out), 0) << out;
  const std::vector<Row> rows = read_rows(dir.file("micrographs_all_sorrel.star"));
  ASSERT_EQ(rows.size(), 6u) << out;
  expect_accurate(rows, read_truth(dir.file("sim/mic_truth.star"), "sim"), false, errors);
  EXPECT_NE(out.find("blank.mrc is blank"), std::string::npos);
  for (int i = 0; i < 6; ++i) {
    const std::string stem = dir.file("sim/mic_000" + std::to_string(i));
    const std::string log = read_file_text(stem + "_sorrel.log");
    EXPECT_EQ(log.substr(log.size() - 30), "Processing done successfully.\n");
    EXPECT_FALSE(read_file_text(stem + "_EPA.log").empty());
  }
  // The images open in an independent reader with the box size.
  ASSERT_EQ(run_command(in_dir(dir) + "/usr/bin/python3 -c \"import mrcfile,sys\n"
                                      "for n in ['sim/mic_0003.ctf','sim/mic_0003.pow']:\n"
                                      "  m=mrcfile.open(n,permissive=False); assert m.data.shape[-2:]==(512,512) and m.data.size==512*512, n\n"
                                      "print('ok')\"",
                        out),
            0)
      << out;

  // A rerun that resumes does nothing, and says so for each finished micrograph.
  ASSERT_EQ(run_sorrel(dir, kFast + std::string(" --do_unfinished --ctfstar again.star") + inputs, out),
            0)
      << out;
  EXPECT_EQ(out.find("Processing done successfully."), std::string::npos);
  size_t skipped = 0;
  for (size_t at = out.find("already determined"); at != std::string::npos; at = out.find("already determined", at + 1))
    ++skipped;
  EXPECT_EQ(skipped, 6u);
  EXPECT_TRUE(read_rows(dir.file("again.star")).empty());

  // Reading ahead in a second thread gives the same rows.
  ASSERT_EQ(run_sorrel(dir, kFast + std::string(" --pre_read 1 --ctfstar ahead.star") + inputs, out), 0)
      << out;
  const std::vector<Row> ahead = read_rows(dir.file("ahead.star"));
  ASSERT_EQ(ahead.size(), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(ahead[i].line, rows[i].line);

  // A phase plate: the search over the phase shift (20 .. 160 degrees, 10 apart) in front.
  ASSERT_EQ(run_command(in_dir(dir) + bin("pickora-ctfsim") +
                            " --out ps --prefix ps --n 2 --size 1024 --apix 1.0 --defocus 6000:40000 "
                            "--astig 0:2000 --angle -90:90 --bfac 50:200 --phase 30:150 --seed 2025",
                        out),
            0)
      << out;
  ASSERT_EQ(run_sorrel(dir, kFast + std::string(
                            " --phase_shift_L 20 --phase_shift_H 160 --phase_shift_S 10 --defH 45000 --ctfstar ps.star "
                            "ps/ps_0000.mrc ps/ps_0001.mrc"),
                        out),
            0)
      << out;
  const std::string table = read_file_text(dir.file("ps.star"));
  EXPECT_NE(table.find("_rlnCtfMaxResolution #12\n_rlnPhaseShift #13\n"), std::string::npos);
  const std::vector<Row> ps_rows = read_rows(dir.file("ps.star"));
  ASSERT_EQ(ps_rows.size(), 2u) << out;
  expect_accurate(ps_rows, read_truth(dir.file("ps/ps_truth.star"), "ps"), true, errors);

  // The medians over all micrographs.
  EXPECT_LE(median(errors.mean), 50.0);
  EXPECT_LE(median(errors.axis), 3.0);
}

TEST(SorrelEndToEnd, RunsThatCannotStart) {
  TempDir dir;
  std::string out;
  EXPECT_EQ(run_command(in_dir(dir) + bin("sorrel") + " --apix 1.0", out), 1);
  EXPECT_NE(out.find("Error: No files to be processed."), std::string::npos);
  write_file_text(dir.file("a.mrc"), "text");
  EXPECT_EQ(run_command(in_dir(dir) + bin("sorrel") + " a.mrc missing.mrc", out), 1);
  EXPECT_NE(out.find("none of the 2 input files is a readable MRC micrograph"), std::string::npos);
  EXPECT_EQ(run_command(in_dir(dir) + bin("sorrel") + " --bogus a.mrc", out), 0);
  EXPECT_NE(out.find("Failed to recognize option: --bogus!"), std::string::npos);
  // A micrograph of another size ends the run with status 1, keeping the rows already written.
  std::vector<float> flat(300 * 300, 1.0f);
  ASSERT_EQ(run_command(in_dir(dir) + bin("pickora-ctfsim") + " --out sim --n 1 --size 512 --seed 3", out), 0);
  mrcf_write_xyz_data(dir.file("sim/other.mrc").c_str(), flat.data(), 300, 300, 1);
  EXPECT_EQ(run_command(in_dir(dir) + bin("sorrel") + " --apix 1.0 --boxsize 256 sim/mic_0000.mrc sim/other.mrc", out),
            1);
  EXPECT_EQ(read_rows(dir.file("micrographs_all_sorrel.star")).size(), 1u) << out;
  // Micrographs smaller than the tile shrink it; smaller than the smallest tile, nothing runs.
  EXPECT_EQ(run_command(in_dir(dir) + bin("sorrel") + " --apix 1.0 --do_phase_flip sim/mic_0000.mrc", out), 0) << out;
  EXPECT_NE(out.find("--boxsize 1024 is larger than the micrographs (512 x 512), forcing it to be 512"),
            std::string::npos);
  EXPECT_EQ(read_rows(dir.file("micrographs_all_sorrel.star")).size(), 1u) << out;
  MRC_HEAD head;
  ASSERT_EQ(sorrel_probe_mic(dir.file("sim/mic_0000_pf.mrc").c_str(), &head), SORREL_READ_OK);
  EXPECT_EQ(head.nx, 512);
  std::vector<float> tiny(100 * 100, 1.0f);
  mrcf_write_xyz_data(dir.file("tiny.mrc").c_str(), tiny.data(), 100, 100, 1);
  EXPECT_EQ(run_command(in_dir(dir) + bin("sorrel") + " tiny.mrc", out), 1);
  EXPECT_NE(out.find("smaller than the smallest spectrum tile of 128 pixels"), std::string::npos) << out;
}

}  // namespace
