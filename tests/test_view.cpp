// pickora-view, run as an executable on a tiny micrograph with one pick and one rejected cell:
// the picture's size, the circle on its ring and not at its centre, the shaded cell, the map
// panel beside it, and clear failures for missing inputs.
#include <gtest/gtest.h>
#include <png.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mrcfile/mrcfile.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

constexpr int kNx = 64, kNy = 48;
constexpr int kPickX = 20, kPickY = 24, kRadius = 8;  // micrograph pixels
constexpr int kCellX = 40, kCellY = 8, kCellSide = 16;

std::string view_tool() { return std::string(PICKORA_BIN_DIR) + "/pickora-view"; }

struct Png {
  int width = 0, height = 0;
  std::vector<unsigned char> rgb;
  const unsigned char* at(int x, int y) const { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
};

bool read_png(const std::string& path, Png& out) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return false;
  image.format = PNG_FORMAT_RGB;
  out.width = static_cast<int>(image.width);
  out.height = static_cast<int>(image.height);
  out.rgb.resize(PNG_IMAGE_SIZE(image));
  return png_image_finish_read(&image, nullptr, out.rgb.data(), 0, nullptr) != 0;
}

bool is_grey(const unsigned char* c) { return c[0] == c[1] && c[1] == c[2]; }

class ViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A gradient, so that the contrast stretch has a range and every plain pixel is grey.
    std::vector<float> mic(kNx * kNy);
    for (int i = 0; i < kNx * kNy; ++i) mic[i] = static_cast<float>(i % kNx + i / kNx);
    mrcf_write_xyz_data(dir.file("mic.mrc").c_str(), mic.data(), kNx, kNy, 1);
    write_file_text(dir.file("mic_pickora.star"), "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n" +
                                                      std::to_string(kPickX) + " " + std::to_string(kPickY) + "\n");
    const std::string side = std::to_string(kCellSide);
    write_file_text(dir.file("mic_rejected.box"),
                    std::to_string(kCellX) + " " + std::to_string(kCellY) + " " + side + " " + side + "\t0.5\t2.0\n");
  }

  // Runs the tool on the micrograph with the pick and the cell; fails the test on error.
  Png render(const std::string& options) {
    std::string out;
    EXPECT_EQ(run_command(view_tool() + " " + dir.file("mic.mrc") + " --picks " + dir.file("mic_pickora.star") +
                              " --rejected " + dir.file("mic_rejected.box") + " --radius_px " +
                              std::to_string(kRadius) + " --out " + dir.file("mic.png") + " " + options, out), 0)
        << out;
    Png p;
    EXPECT_TRUE(read_png(dir.file("mic.png"), p)) << "no readable PNG";
    return p;
  }

  TempDir dir;
};

// At full size and reduced by two: the picture's size, a pixel on the circle coloured green,
// the pick's own pixel left grey, the rejected cell tinted red and a plain pixel grey.
TEST_F(ViewTest, OverlaysLandOnTheirPixelsAtEveryReduction) {
  for (auto [max_size, f] : {std::pair{"1024", 1}, {"32", 2}}) {
    SCOPED_TRACE(std::string("--max_size ") + max_size);
    const Png p = render(std::string("--max_size ") + max_size);
    ASSERT_EQ(p.width, kNx / f);
    ASSERT_EQ(p.height, kNy / f);
    const unsigned char* ring = p.at((2 * (kPickX + kRadius) + 1) / (2 * f), (2 * kPickY + 1) / (2 * f));
    EXPECT_GT(ring[1], ring[0] + 100);
    EXPECT_GT(ring[1], ring[2] + 100);
    EXPECT_TRUE(is_grey(p.at(kPickX / f, kPickY / f)));
    const unsigned char* shaded = p.at((kCellX + kCellSide / 2) / f, (kCellY + kCellSide / 2) / f);
    EXPECT_GT(shaded[0], shaded[1] + 20);
    EXPECT_EQ(shaded[1], shaded[2]);
    EXPECT_TRUE(is_grey(p.at((kCellX + kCellSide / 2) / f, (kCellY + kCellSide + 4) / f)));
    EXPECT_TRUE(is_grey(p.at(60 / f, 40 / f)));
  }
}

// A 16 x 12 map with one peak goes to the right of the micrograph at its height (four times
// larger), and the peak is the brightest thing there.
TEST_F(ViewTest, MapPanelBesideAtTheSameHeight) {
  std::vector<float> map(16 * 12);
  for (int i = 0; i < 16 * 12; ++i) map[i] = 0.01f * static_cast<float>(i % 16);
  map[3 * 16 + 4] = 10.0f;
  mrcf_write_xyz_data(dir.file("mic_ccmaxZ.mrc").c_str(), map.data(), 16, 12, 1);
  const Png p = render("--ccmap " + dir.file("mic_ccmaxZ.mrc"));
  ASSERT_EQ(p.height, kNy);
  ASSERT_GT(p.width, kNx + 64);
  const unsigned char *peak = p.at(p.width - 64 + 4 * 4 + 2, 3 * 4 + 2), *plain = p.at(p.width - 64 + 8 * 4 + 2, 34);
  EXPECT_EQ(std::vector<int>(peak, peak + 3), std::vector<int>(3, 255));
  EXPECT_LT(plain[0] + plain[1] + plain[2], 3 * 200);
}

TEST_F(ViewTest, MissingInputsFailWithAClearMessage) {
  const std::string mic = dir.file("mic.mrc"), picks = dir.file("mic_pickora.star");
  for (auto [options, message] : {std::pair{mic + " --picks " + picks, "--diameter"},
                                  {mic + " --rejected " + picks, ".box"}, {"--picks " + picks, "no micrograph"}}) {
    std::string out;
    EXPECT_NE(run_command(view_tool() + " " + options + " --out " + dir.file("x.png"), out), 0) << options;
    EXPECT_NE(out.find(message), std::string::npos) << out;
  }
}

}  // namespace
