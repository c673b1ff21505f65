// The whole road on simulated micrographs: particles planted at known places and angles must
// come back as picks, with their angles, and nothing may be picked on contamination.
#include <gtest/gtest.h>

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

// The start of a command line that runs in the test's folder.
std::string in_dir(const TempDir& dir) { return "cd '" + dir.path() + "' && "; }

// The key=value pairs of the scorer's last line.
std::map<std::string, double> score_values(const std::string& output) {
  std::map<std::string, double> values;
  const size_t at = output.rfind("score:");
  if (at == std::string::npos) return values;
  std::istringstream words(output.substr(at + 6));
  std::string word;
  while (words >> word) {
    const size_t eq = word.find('=');
    if (eq == std::string::npos) continue;
    try {
      values[word.substr(0, eq)] = std::stod(word.substr(eq + 1));
    } catch (...) {
      values[word.substr(0, eq)] = -1.0;
    }
  }
  return values;
}

struct Scene {
  std::string simulate;  // options of the simulator
  std::string pick;      // options of the picker
};

void simulate_and_pick(const TempDir& dir, const Scene& scene, std::string* log) {
  std::string out;
  EXPECT_EQ(run_command(in_dir(dir) + bin("pickora-simulate") + " --out sim " + scene.simulate, out), 0) << out;
  *log = out;
  EXPECT_EQ(run_command(in_dir(dir) + "cd sim && " + bin("pickora") + " " + scene.pick + " mic_*.mrc", out), 0) << out;
  *log += out;
}

std::map<std::string, double> score(const TempDir& dir, const std::string& psi_tolerance, std::string* log) {
  std::string out;
  EXPECT_EQ(run_command(in_dir(dir) + bin("pickora-score") + " --dir sim --psi_tol " + psi_tolerance, out), 0) << out;
  *log += out;
  return score_values(out);
}

// Micrographs 2048 pixels wide, 1.34 A, particles of 250 A: 28 per micrograph, shrunk 4 times
// for matching. Lobes of half the default width give the shape enough fine detail to fix its
// angle; the smooth background is a quarter of the noise.
constexpr const char* kSimulated =
    "--n 2 --size 2048 --apix 1.34 --diameter 250 --templates 2 --snr 0.3 --lobe_width 0.5 --bg 0.25";

TEST(EndToEnd, AsymmetricTemplatesAreFoundWithTheirAngles) {
  TempDir dir;
  const Scene scene{std::string(kSimulated) + " --seed 11 --contamination 0",
                    "--apixM 1.34 --diameter 250 --T templates.mrcs --do_bandpass 0 --detect_ice 0"};
  std::string log;
  simulate_and_pick(dir, scene, &log);
  auto s = score(dir, "5", &log);
  ASSERT_GT(s["truth"], 50) << log;
  EXPECT_GT(s["precision"], 0.9) << log;
  EXPECT_GT(s["recall"], 0.9) << log;
  // Angles are sampled every 5 degrees, and the bilinear rotation favours the quarter turns a
  // little, so a few true picks land just beyond one step of their planted angle: nine in ten
  // must lie within one step, and all within two.
  EXPECT_GE(s["psi_fraction"], 0.9) << log;
  auto wide = score(dir, "10", &log);
  EXPECT_EQ(wide["psi_ok"], wide["psi_checked"]) << log;
}

TEST(EndToEnd, DefaultRoadKeepsAwayFromContamination) {
  TempDir dir;
  const Scene scene{std::string(kSimulated) + " --seed 5", "--apixM 1.34 --diameter 250 --T templates.mrcs"};
  std::string log;
  simulate_and_pick(dir, scene, &log);
  auto s = score(dir, "5", &log);
  ASSERT_GT(s["truth"], 50) << log;
  EXPECT_EQ(s["in_contamination"], 0) << log;
  EXPECT_GT(s["f1"], 0.9) << log;
}

}  // namespace
