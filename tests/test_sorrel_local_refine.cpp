// Local CTF refinement of the sorrel command on micrographs simulated with a defocus that tilts
// linearly across the image: the values of a grid must follow the simulated plane, the plane fitted
// to them must have the simulated gradient, and the astigmatism moves only when asked. Then the
// refusals and repairs of bad input, one table.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "ctf/sorrel.h"
#include "random_utils/random_source.h"
#include "support/exit_report.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

using Row = std::vector<std::string>;

Row split(const std::string& line) {
  std::istringstream in(line);
  Row words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

// The data rows of a STAR file: lines whose first word starts with `lead` (or, with an empty
// lead, every line of numbers only).
std::vector<Row> star_rows(const std::string& path, const std::string& lead) {
  std::vector<Row> rows;
  std::istringstream in(read_file_text(path));
  for (std::string line; std::getline(in, line);) {
    const Row w = split(line);
    if (w.empty()) continue;
    const bool numeric = w[0].find_first_not_of("0123456789.-") == std::string::npos;
    if (lead.empty() ? numeric : w[0].rfind(lead, 0) == 0) rows.push_back(w);
  }
  return rows;
}

// The whole run in this process, in the folder of the run, with the random source fixed, so that
// a fatal report reaches the caller as pickora::FatalError.
int sorrel_in(const TempDir& dir, const std::string& args) {
  Row words = split("sorrel " + args);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  char here[4096];
  if (!getcwd(here, sizeof(here)) || chdir(dir.path().c_str()) != 0) return -100;
  random_source_set_seed(7);
  struct Back {
    const char* to;
    ~Back() { (void)!chdir(to); }
  } back{here};
  return SORREL_A().sorrel_run(static_cast<int>(words.size()), argv.data());
}

// The same for a run that must end normally: its status (1000 + the status of a fatal report)
// and what it printed.
int sorrel_printing(const TempDir& dir, const std::string& args, std::string& printed) {
  int status = -1;
  const int fatal = pickora_test::run_to_fatal([&] { status = sorrel_in(dir, args); }, printed);
  return fatal == -1 ? status : 1000 + fatal;
}

void simulate(const TempDir& dir, const std::string& args) {
  std::string out;
  const std::string cmd = "cd '" + dir.path() + "' && " + PICKORA_BIN_DIR + "/pickora-ctfsim --out sim --apix 1.0 ";
  ASSERT_EQ(run_command(cmd + args, out), 0) << out;
}

double num(const std::string& s) { return std::stod(s); }

const char* const kGrid = " --apix 1.0 --boxsize 512 --convsize 21 --convs_out 36 --defA_seeds 6 --do_local_refine 1"
                          " --local_boxtype 3 --local_boxsize 256 --local_radius 128 ";

}  // namespace

TEST(SorrelLocalRefine, GridFollowsTheDefocusGradientAndKeepsTheAstigmatism) {
  TempDir dir;
  simulate(dir, "--n 1 --size 1024 --defocus 15000 --astig 800 --angle 30 --bfac 80 --grad_x 2 --grad_y -1 "
                "--grad_levels 16 --seed 5");
  const Row truth = star_rows(dir.file("sim/mic_truth.star"), "sim/").at(0);
  const double d0 = (num(truth[1]) + num(truth[2])) / 2.0, tgx = num(truth[10]), tgy = num(truth[11]);
  std::string printed;
  ASSERT_EQ(sorrel_printing(dir, std::string(kGrid) + "--local_autogrid_X 7 --local_autogrid_Y 7 --write_local_ctf 1 "
                                                      "sim/mic_0000.mrc", printed), 0)
      << printed;
  const Row mic = star_rows(dir.file("micrographs_all_sorrel.star"), "sim/").at(0);
  // The grid: centres 512 + k (1024 / 7) for every k whose 256-pixel box stays inside.
  const int step = 1024 / 7, reach = (512 - 128) / step;
  std::vector<int> axis;
  for (int k = -reach; k <= reach; ++k) axis.push_back(512 + k * step);
  const auto grid = star_rows(dir.file("sim/mic_0000_autogrid.star"), "");
  const auto rows = star_rows(dir.file("sim/mic_0000_local.star"), "sim/mic_0000.mrc");
  ASSERT_EQ(grid.size(), axis.size() * axis.size());
  ASSERT_EQ(rows.size(), grid.size()) << printed;

  // The grid is symmetric about the centre, so the least-squares plane's slopes are independent
  // sums: g = sum((x - 512) d) / sum((x - 512)^2), likewise in y.
  double sxd = 0.0, sxx = 0.0, syd = 0.0, syy = 0.0;
  for (size_t i = 0; i < rows.size(); ++i) {
    const Row& r = rows[i];
    SCOPED_TRACE(i);
    ASSERT_EQ(r.size(), 14u);
    const double x = num(r[1]), y = num(r[2]), U = num(r[4]), V = num(r[5]);
    EXPECT_EQ(x, axis[i % axis.size()]);
    EXPECT_EQ(y, axis[i / axis.size()]);
    EXPECT_EQ(num(grid[i][0]), x);
    EXPECT_EQ(num(r[10]), 140000.0);  // 10000 x detector pixel 14 / 1 A
    EXPECT_GT(num(r[9]), 0.0);
    // Without --refine_local_astm only the mean moves: U - V and the angle are the micrograph's.
    EXPECT_NEAR(U - V, num(mic[2]) - num(mic[3]), 0.02);
    EXPECT_NEAR(num(r[6]), num(mic[4]), 1e-4);
    const double d = (U + V) / 2.0, plane = d0 + tgx * (x - 512.0) + tgy * (y - 512.0);
    EXPECT_LE(std::fabs(d - plane), 400.0) << "truth " << plane;
    sxd += (x - 512.0) * d, sxx += (x - 512.0) * (x - 512.0), syd += (y - 512.0) * d, syy += (y - 512.0) * (y - 512.0);
  }
  const double gx = sxd / sxx, gy = syd / syy;
  EXPECT_LE(std::hypot(gx - tgx, gy - tgy), 0.1 * std::hypot(tgx, tgy)) << "fitted " << gx << ", " << gy;

  // One diagnostic image per position, readable by an independent reader.
  std::string out;
  EXPECT_EQ(run_command("cd '" + dir.path() + "' && /usr/bin/python3 -c \"import mrcfile,numpy\n"
                        "m=mrcfile.open('sim/mic_0000_local.ctf',permissive=False)\n"
                        "assert m.data.shape==(25,256,256), m.data.shape\nassert numpy.isfinite(m.data).all()\"",
                        out),
            0)
      << out;

  // Asked to, the local pass moves the astigmatism as well.
  ASSERT_EQ(sorrel_printing(dir, std::string(kGrid) + "--local_autogrid_X 3 --local_autogrid_Y 3 --refine_local_astm 1 "
                                                      "sim/mic_0000.mrc", printed), 0)
      << printed;
  const Row mic1 = star_rows(dir.file("micrographs_all_sorrel.star"), "sim/").at(0);
  double moved = 0.0;
  for (const Row& r : star_rows(dir.file("sim/mic_0000_local.star"), "sim/"))
    moved = std::max(moved, std::fabs((num(r[4]) - num(r[5])) - (num(mic1[2]) - num(mic1[3]))));
  EXPECT_GT(moved, 1.0);
}

#define STAR_HEAD "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n"

TEST(SorrelLocalRefine, BadInputIsRefusedOrRepairedWithAMessage) {
  const char* const picks = "sim/mic_0000_pickora.star";
  const struct {
    const char* options;
    const char* box_name;  // written beside sim/mic_0000.mrc when not empty, with box_text
    const char* box_text;
    int status;  // 0: repaired, the run ends normally
    const char* message;
  } cases[] = {
      {"--local_boxtype 2", "", "", 1, "LOCAL_REFINE_GIVENBOX unsupported in the current version!! Exit now!"},
      {"--local_boxtype 4", "", "", 1, "unrecognized local_boxtype!! Exit now!"},
      {"--boxsuffix _p.box", "sim/mic_0000_p.box", "100 100\n", 1, "unrecognized box format"},
      {"", picks, "\ndata_\n\nloop_\n_rlnAnglePsi #1\n12\n", 1, "no usable _rlnCoordinateX column"},
      {"--local_overlap 1.0", picks, STAR_HEAD "256 256\n", 0, "forcing it to be 0.5"},
      {"--local_overlap 0.999", "", "", 1, "leaves a tile step of 0 pixels"},
      {"--local_boxsize 32", "", "", 1, "they must have 64 pixels or more"},
      {"--local_radius -3", "", "", 1, "--local_radius -3.000000 must be 0 or more"},
      {"", picks, STAR_HEAD, 0, "No positions in sim/mic_0000_pickora.star"},
      {"--local_radius 0", picks, STAR_HEAD "5 5\n256 256\n", 0,
       "No usable local spectrum about \\(5, 5\\) \\(0 tiles"},
      {"--local_avetype 7", picks, STAR_HEAD "256 256\n", 0, "Unknown local CTF average type"},
  };
  TempDir dir;
  simulate(dir, "--n 2 --size 512 --defocus 12000 --astig 500 --angle 20 --bfac 80 --seed 9");
  const std::string base = " --apix 1.0 --boxsize 256 --convsize 21 --convs_out 36 --do_local_refine 1 "
                           "--local_boxsize 128 --local_radius 64 ";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    std::remove(dir.file(picks).c_str());
    std::remove(dir.file("sim/mic_0000_local.star").c_str());
    if (*c.box_name != '\0') write_file_text(dir.file(c.box_name), c.box_text);
    const std::string args = base + c.options + " sim/mic_0000.mrc";
    if (c.status != 0) {
      EXPECT_EXIT_REPORT(sorrel_in(dir, args), c.message);
      continue;
    }
    std::string printed;
    ASSERT_EQ(sorrel_printing(dir, args, printed), 0) << printed;
    EXPECT_TRUE(testing::internal::RE::PartialMatch(printed, testing::internal::RE(c.message))) << printed;
    // Every row written is whole and finite; a position without tiles has the micrograph's values.
    const Row mic = star_rows(dir.file("micrographs_all_sorrel.star"), "sim/").at(0);
    for (const Row& r : star_rows(dir.file("sim/mic_0000_local.star"), "sim/")) {
      ASSERT_EQ(r.size(), 14u);
      for (size_t k = 1; k < r.size(); ++k) EXPECT_TRUE(std::isfinite(num(r[k]))) << r[k];
      if (r[1] != "5.000000") continue;
      EXPECT_EQ(Row(r.begin() + 4, r.begin() + 6), Row(mic.begin() + 2, mic.begin() + 4));
    }
  }
  // A micrograph whose box file is missing ends the run, and what the earlier one wrote stays.
  write_file_text(dir.file(picks), STAR_HEAD "256 256\n300 200\n");
  std::remove(dir.file("sim/mic_0001_pickora.star").c_str());
  EXPECT_EXIT_REPORT(sorrel_in(dir, base + "sim/mic_0000.mrc sim/mic_0001.mrc"),
                     "mic_0001_pickora.star does NOT exist");
  EXPECT_EQ(star_rows(dir.file("sim/mic_0000_local.star"), "sim/").size(), 2u);
  EXPECT_EQ(star_rows(dir.file("micrographs_all_sorrel.star"), "sim/").size(), 1u);
}
