// Particle extraction into "_particles.mrcs": zero fill at the edges, the capacity, odd boxes,
// movies, .star centres.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "boxfile/extract_particles.h"
#include "mrcfile/mrcfile.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace {

constexpr int kNx = 40, kNy = 30;

// Pixel (x, y) of frame f holds 1 + x + 100 y + 10000 f, so every copied value names its source.
float pixel(int x, int y, int f = 0) { return 1.0f + x + 100.0f * y + 10000.0f * f; }

std::string write_micrograph(const TempDir& dir, int frames) {
  std::vector<float> data;
  for (int f = 0; f < frames; ++f)
    for (int y = 0; y < kNy; ++y)
      for (int x = 0; x < kNx; ++x) data.push_back(pixel(x, y, f));
  const std::string name = dir.file("mic.mrc");
  mrcf_write_xyz_data(name.c_str(), data.data(), kNx, kNy, frames);
  return name;
}

struct Stack {
  int nx = -1, ny = -1, nz = -1;
  std::vector<float> data;
  float at(int x, int y, int z) const { return data[(static_cast<size_t>(z) * ny + y) * nx + x]; }
};

Stack extract(const std::string& boxes, const std::string& suffix, int box_size, int frames = 1, int invert = 0) {
  TempDir dir;
  const std::string mic = write_micrograph(dir, frames), box_name = dir.file("mic_pickora" + suffix);
  write_file_text(box_name, boxes);
  mrcf_2d_extract_ptcls_from_micrograph(mic.c_str(), box_name.c_str(), box_size, invert);
  const std::string out = dir.file("mic_particles.mrcs");
  Stack s;
  get_mrcf_xyz(s.nx, s.ny, s.nz, out.c_str());
  s.data.resize(static_cast<size_t>(s.nx) * s.ny * s.nz);
  if (!s.data.empty()) mrcf_read_all(out.c_str(), s.data.data());
  return s;
}

// Odd box 7 at corners inside, left of, right of, above and below the micrograph: the pixels
// of the image are copied, the ones beyond it are 0.
TEST(Extraction, BoxesAtTheEdgesAreZeroFilledOutside) {
  const int corners[][2] = {{5, 6}, {-3, 10}, {36, 10}, {10, -4}, {10, 26}, {-6, -6}};
  std::string text;
  for (const auto& c : corners) text += std::to_string(c[0]) + " " + std::to_string(c[1]) + " 7 7 0.5 0 0\n";
  const Stack s = extract(text, ".box", 7);
  ASSERT_EQ(std::vector<int>({s.nx, s.ny, s.nz}), std::vector<int>({7, 7, 6}));
  for (int k = 0; k < 6; ++k)
    for (int j = 0; j < 7; ++j)
      for (int i = 0; i < 7; ++i) {
        const int x = corners[k][0] + i, y = corners[k][1] + j;
        const bool inside = x >= 0 && x < kNx && y >= 0 && y < kNy;
        ASSERT_EQ(s.at(i, j, k), inside ? pixel(x, y) : 0.0f) << "box " << k << " pixel " << i << "," << j;
      }
}

TEST(Extraction, StackHoldsAtMost10240BoxesAndNoneFromAnEmptyFile) {
  std::string text;
  for (int k = 0; k < PICKORA_MAX_PARTICLES + 1; ++k) text += std::to_string(k % 30) + " 2 4 4\n";
  const Stack s = extract(text, ".box", 4);
  ASSERT_EQ(s.nz, PICKORA_MAX_PARTICLES);
  EXPECT_EQ(s.at(0, 0, PICKORA_MAX_PARTICLES - 1), pixel((PICKORA_MAX_PARTICLES - 1) % 30, 2));
  const Stack empty = extract("", ".box", 360);
  EXPECT_EQ(std::vector<int>({empty.nx, empty.ny, empty.nz}), std::vector<int>({0, 0, 0}));
}

// A .star file holds centres; the box size turns them into corners (centre 20,15 - 5/2).
TEST(Extraction, StarCentresBecomeCornersAndInvertNegates) {
  const Stack s = extract("\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n20 15\n", ".star", 5, 1, 1);
  ASSERT_EQ(std::vector<int>({s.nx, s.nz}), std::vector<int>({5, 1}));
  EXPECT_EQ(s.at(0, 0, 0), -pixel(18, 13));
  EXPECT_EQ(s.at(4, 4, 0), -pixel(22, 17));
}

TEST(Extraction, MovieGivesAllFramesOfOneBoxTogether) {
  const Stack s = extract("1 2 3 3\n30 20 3 3\n", ".box", 3, 3);
  ASSERT_EQ(s.nz, 6);
  const int corner[2][2] = {{1, 2}, {30, 20}};
  for (int k = 0; k < 2; ++k)
    for (int f = 0; f < 3; ++f) EXPECT_EQ(s.at(1, 1, k * 3 + f), pixel(corner[k][0] + 1, corner[k][1] + 1, f));
}

TEST(ExtractionRefusal, UnreadableMicrographAndUnwritableStackAreFatal) {
  TempDir dir;
  const std::string mic = write_micrograph(dir, 1), boxes = dir.file("mic_pickora.box");
  write_file_text(boxes, "1 1 4 4\n");
  EXPECT_EXIT_REPORT(mrcf_2d_extract_ptcls_from_micrograph(dir.file("absent.mrc").c_str(), boxes.c_str(), 4, 0),
                     "absent.mrc");
  // A folder in the stack's place can't be opened for writing, whoever runs the test.
  ASSERT_EQ(mkdir(dir.file("mic_particles.mrcs").c_str(), 0755), 0);
  EXPECT_EXIT_REPORT(mrcf_2d_extract_ptcls_from_micrograph(mic.c_str(), boxes.c_str(), 4, 0),
                     "Cannot write to file .*mic_particles.mrcs");
}

}  // namespace
