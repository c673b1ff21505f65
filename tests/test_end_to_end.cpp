// The whole road on simulated micrographs: particles planted at known places and angles must
// come back as picks, with their angles, and nothing may be picked on contamination.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

std::string bin(const std::string& name) {
  const bool cuda = std::string(PICKORA_TEST_BACKEND) == "cuda";
  return std::string(PICKORA_BIN_DIR) + "/" + name + (cuda && name == "pickora" ? "-cuda" : "");
}

// Runs a command line in the test's folder, adding what it printed to the log.
std::string run_in(const TempDir& dir, const std::string& command, std::string* log) {
  std::string out;
  EXPECT_EQ(run_command("cd '" + dir.path() + "' && " + command, out), 0) << out;
  *log += out;
  return out;
}

// Micrographs 2048 pixels wide, 1.34 A, particles of 250 A: 28 per micrograph, shrunk 4 times
// for matching. Lobes of half the default width give the shape enough fine detail to fix its
// angle; the smooth background is a quarter of the noise.
void simulate_and_pick(const TempDir& dir, const std::string& simulate, const std::string& pick, std::string* log) {
  run_in(dir, bin("pickora-simulate") + " --out sim --n 2 --size 2048 --apix 1.34 --diameter 250 --templates 2 "
                  "--snr 0.3 --lobe_width 0.5 --bg 0.25 " + simulate, log);
  run_in(dir, "cd sim && " + bin("pickora") + " --apixM 1.34 --diameter 250 --T templates.mrcs " + pick + " mic_*.mrc",
         log);
}

// The key=value totals of the scorer's last line; a value that is not a number reads as -1.
std::map<std::string, double> score(const TempDir& dir, const std::string& psi_tolerance, std::string* log) {
  const std::string out = run_in(dir, bin("pickora-score") + " --dir sim --psi_tol " + psi_tolerance, log);
  const size_t at = out.rfind("score:");
  std::istringstream words(at == std::string::npos ? "" : out.substr(at + 6));
  std::map<std::string, double> values;
  for (std::string word; words >> word;) {
    const size_t eq = word.find('=');
    if (eq == std::string::npos) continue;
    char* end = nullptr;
    const double v = std::strtod(word.c_str() + eq + 1, &end);
    values[word.substr(0, eq)] = *end == '\0' && end != word.c_str() + eq + 1 ? v : -1.0;
  }
  return values;
}

TEST(EndToEnd, AsymmetricTemplatesAreFoundWithTheirAngles) {
  TempDir dir;
  std::string log;
  simulate_and_pick(dir, "--seed 11 --contamination 0", "--do_bandpass 0 --detect_ice 0", &log);
  auto s = score(dir, "5", &log);
  ASSERT_GT(s["truth"], 50) << log;
  EXPECT_GT(s.at("precision"), 0.9) << log;
  EXPECT_GT(s.at("recall"), 0.9) << log;
  // Angles are sampled every 5 degrees, and the bilinear rotation favours the quarter turns a
  // little, so a few true picks land just beyond one step of their planted angle: nine in ten
  // must lie within one step, and all within two.
  EXPECT_GE(s.at("psi_fraction"), 0.9) << log;
  auto wide = score(dir, "10", &log);
  EXPECT_EQ(wide.at("psi_ok"), wide.at("psi_checked")) << log;
}

TEST(EndToEnd, DefaultRoadKeepsAwayFromContamination) {
  TempDir dir;
  std::string log;
  simulate_and_pick(dir, "--seed 5", "", &log);
  auto s = score(dir, "5", &log);
  ASSERT_GT(s["truth"], 50) << log;
  EXPECT_EQ(s.at("in_contamination"), 0) << log;
  EXPECT_GT(s.at("f1"), 0.9) << log;
}

}  // namespace
