// The companion tools pickora-simulate and pickora-score, run as executables: the simulator is
// deterministic, puts dark particles where its truth says, at the angle it says, and never in
// its contamination; the scorer counts matches, duplicates, contamination hits and angles.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "boxfile/ptcl_box.h"
#include "mrcfile/mrcfile.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

constexpr double kPi = 3.141592653589793;

std::string tool(const std::string& name) { return std::string(PICKORA_BIN_DIR) + "/" + name; }

// Simulates one micrograph into dir with the given extra options; fails the test on error.
void simulate(const std::string& dir, const std::string& options) {
  std::string out;
  ASSERT_EQ(run_command(tool("pickora-simulate") + " --out " + dir + " " + options, out), 0) << out;
}

// Distance of a point from each area of the file (0 inside), parsed here on its own so that
// the check does not share the tools' code. Polygons are convex (carbon cut by a line).
std::vector<double> distances_to_areas(const std::string& areas_text, double x, double y) {
  std::vector<double> out;
  std::istringstream in(areas_text);
  for (std::string kind; in >> kind;) {
    if (kind[0] == '#') {
      std::getline(in, kind);
    } else if (kind == "disc") {
      double cx, cy, r;
      in >> cx >> cy >> r;
      out.push_back(std::fmax(0.0, std::hypot(x - cx, y - cy) - r));
    } else if (kind == "polygon") {
      int n, left = 0;
      in >> n;
      std::vector<double> xs(n), ys(n);
      for (int i = 0; i < n; ++i) in >> xs[i] >> ys[i];
      double nearest = INFINITY;
      for (int i = 0; i < n; ++i) {  // the side from corner i to the next: which side, how near
        const double dx = xs[(i + 1) % n] - xs[i], dy = ys[(i + 1) % n] - ys[i];
        left += dx * (y - ys[i]) - dy * (x - xs[i]) > 0;
        const double t = std::fmax(0.0, std::fmin(1.0, ((x - xs[i]) * dx + (y - ys[i]) * dy) / (dx * dx + dy * dy)));
        nearest = std::fmin(nearest, std::hypot(x - xs[i] - t * dx, y - ys[i] - t * dy));
      }
      out.push_back(left == 0 || left == n ? 0.0 : nearest);
    } else {
      ADD_FAILURE() << "unknown area kind " << kind;
      break;
    }
  }
  return out;
}

struct Image {
  int nx = 0, ny = 0, nz = 0;
  std::vector<float> data;
  float at(int x, int y, int z = 0) const { return data[(static_cast<size_t>(z) * ny + y) * nx + x]; }
};

Image read_mrc(const std::string& path) {
  Image im;
  get_mrcf_xyz(im.nx, im.ny, im.nz, path.c_str());
  float* d = mrcf_get_data_all(path.c_str());
  im.data.assign(d, d + static_cast<size_t>(im.nx) * im.ny * im.nz);
  std::free(d);
  return im;
}

// Correlation of the negated micrograph about (cx, cy) with template z turned by psi degrees,
// the picture turning from +x toward +y (nearest-neighbour turn, written apart from the tools):
// high only where a dark copy of the template lies at that angle.
double turned_template_score(const Image& mic, const Image& t, int z, int cx, int cy, double psi) {
  const double c = std::cos(psi * kPi / 180), s = std::sin(psi * kPi / 180);
  const double h = (t.nx - 1) * 0.5;
  double score = 0;
  for (int y = 0; y < t.ny; ++y)
    for (int x = 0; x < t.nx; ++x) {
      const double dx = x - h, dy = y - h;
      const int sx = static_cast<int>(std::lround(h + dx * c + dy * s));
      const int sy = static_cast<int>(std::lround(h + dy * c - dx * s));
      const int mx = cx + x - t.nx / 2, my = cy + y - t.ny / 2;
      if (sx < 0 || sy < 0 || sx >= t.nx || sy >= t.ny || mx < 0 || my < 0 || mx >= mic.nx || my >= mic.ny) continue;
      score -= t.at(sx, sy, z) * mic.at(mx, my);
    }
  return score;
}

TEST(Simulator, SameSeedGivesSameBytesAndAnotherSeedAnotherMicrograph) {
  TempDir tmp;
  const std::string options = "--nx 400 --ny 320 --apix 1.5 --diameter 60 --templates 2 --apix_t 2.0 --seed ";
  for (auto [folder, seed] : {std::pair{"a", "7"}, {"b", "7"}, {"c", "8"}}) simulate(tmp.file(folder), options + seed);
  for (const char* name : {"mic_0000.mrc", "mic_0000_truth.star", "mic_0000_areas.txt", "templates.mrcs"}) {
    const std::vector<unsigned char> a = read_binary_file(tmp.file("a/") + name);
    ASSERT_FALSE(a.empty()) << name;
    EXPECT_EQ(a, read_binary_file(tmp.file("b/") + name)) << name;
  }
  EXPECT_NE(read_binary_file(tmp.file("a/mic_0000.mrc")), read_binary_file(tmp.file("c/mic_0000.mrc")));
  EXPECT_NE(read_file_text(tmp.file("a/mic_0000_truth.star")), read_file_text(tmp.file("c/mic_0000_truth.star")));
  const Image t = read_mrc(tmp.file("a/templates.mrcs"));
  EXPECT_EQ(std::vector<int>({t.nx, t.nz}), std::vector<int>({46, 2}));  // 1.5 diameters at 2 A per pixel, even
}

TEST(Simulator, ParticlesAreDarkAtTheTruthAngleAndOutsideContamination) {
  TempDir tmp;
  const double d = 40;  // pixels
  simulate(tmp.path(), "--nx 640 --ny 560 --apix 1.5 --diameter 60 --snr 20 --bg 0 --ice 3 --seed 3");
  const Image mic = read_mrc(tmp.file("mic_0000.mrc")), tpl = read_mrc(tmp.file("templates.mrcs"));
  ASSERT_EQ(std::make_pair(mic.nx, mic.ny), std::make_pair(640, 560));
  std::vector<PTCL_BOX> truth(1000);
  truth.resize(read_all_ptcl_boxes(truth.data(), 1000, tmp.file("mic_0000_truth.star").c_str()));
  const std::string areas = read_file_text(tmp.file("mic_0000_areas.txt"));
  ASSERT_GE(truth.size(), 10u);
  ASSERT_EQ(distances_to_areas(areas, 0, 0).size(), 4u);  // three ice blobs and the carbon
  for (const PTCL_BOX& b : truth) {
    // Only a dark particle there at that angle scores above the other quarter turns.
    const double right = turned_template_score(mic, tpl, b.class_number, b.x, b.y, b.psi);
    for (double off : {90.0, 180.0, 270.0})
      EXPECT_GT(right, turned_template_score(mic, tpl, b.class_number, b.x, b.y, b.psi + off))
          << "angle at " << b.x << "," << b.y;
    for (double dist : distances_to_areas(areas, b.x, b.y)) EXPECT_GE(dist, 0.5 * d) << b.x << "," << b.y;
  }
}

// Truth with a diameter of 20 pixels (radius 10). Picks: one close to the first particle with
// psi across 0 (359 vs 1), a duplicate of it, one at the second particle with psi 30 degrees
// off, one inside the contamination disc and one far from everything. The totals are read from
// the scorer's machine-readable line.
TEST(Scorer, CountsMatchesDuplicatesContaminationAndAnglesAndRefusesAnOddList) {
  TempDir tmp;
  write_file_text(tmp.file("m_truth.star"),
                  "# simulated particles: diameter_px=20.000 apix=1.0000\n\ndata_\n\nloop_\n_rlnCoordinateX #1\n"
                  "_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
                  "100 100 359.0 0\n200 100 10.0 0\n300 300 90.0 1\n");
  write_file_text(tmp.file("m_areas.txt"), "# a disc\ndisc 500 500 50\n");
  const struct {
    const char* picks_name;
    std::string text;
    bool by_folder;
    const char *psi_checked, *psi_ok;
  } cases[] = {
      {"m_pickora.star",
       "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n"
       "_rlnAutopickFigureOfMerit #5\n101 100 1.0 0 0.9\n104 100 1.0 0 0.8\n205 100 40.0 0 0.7\n510 490 0.0 0 0.6\n"
       "700 700 0.0 0 0.5\n",
       true, "2", "1"},
      // Box corners: centre minus half the box of 40.
      {"m.box",
       "81 80 40 40 0.9\t0 1.0\n84 80 40 40 0.8\t0 1.0\n185 80 40 40 0.7\t0 40.0\n490 470 40 40 0.6\t0 0.0\n"
       "680 680 40 40 0.5\t0 0.0\n",
       false, "2", "1"},
      {"m4.box", "81 80 40 40\n84 80 40 40\n185 80 40 40\n490 470 40 40\n680 680 40 40\n", false, "0", "0"},
  };
  for (const auto& c : cases) {
    write_file_text(tmp.file(c.picks_name), c.text);
    std::string out;
    ASSERT_EQ(run_command(tool("pickora-score") + " --psi_tol 10 " +
                              (c.by_folder ? "--dir " + tmp.path() : tmp.file(c.picks_name) + " " + tmp.file("m_truth.star")),
                          out), 0) << out;
    std::istringstream line(out.substr(out.rfind("score:") + 6));
    std::map<std::string, std::string> got;
    for (std::string pair; line >> pair;) got[pair.substr(0, pair.find('='))] = pair.substr(pair.find('=') + 1);
    const std::map<std::string, std::string> want = {
        {"micrographs", "1"}, {"truth", "3"}, {"picks", "5"}, {"tp", "2"}, {"fp", "3"}, {"fn", "1"},
        {"precision", "0.4000"}, {"recall", "0.6667"}, {"in_contamination", "1"}, {"psi_checked", c.psi_checked},
        {"psi_ok", c.psi_ok}};
    for (const auto& [key, value] : want) EXPECT_EQ(got[key], value) << c.picks_name << " " << key << "\n" << out;
  }
  std::string out;
  EXPECT_EQ(run_command(tool("pickora-score") + " only_one.star", out), 1);  // names come in pairs
  EXPECT_NE(out.find("pairs"), std::string::npos) << out;
}

}  // namespace
