// Two-dimensional symmetry averaging: geometry of the patch, the host and device forms, the
// correlation and its shift refinement, and the file commands' refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "math_utils/host_stats.h"
#include "mrcfile/mrcfile.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"
#include "sym/ncs2d.h"
#include "sym/sym.h"

namespace {

RT_Mat2D rotation(double degrees, float tx = 0.0f, float ty = 0.0f) {
  const double a = degrees * M_PI / 180.0;
  return RT_Mat2D{(float)std::cos(a), (float)-std::sin(a), (float)std::sin(a), (float)std::cos(a), tx, ty};
}

// A smooth motif of three Gaussians around (30, 18) of a 48 x 48 image centred at 23.5.
double motif(double x, double y) {
  const double px[3] = {30.0, 34.0, 27.0}, py[3] = {18.0, 16.0, 13.0}, w[3] = {1.0, 0.6, -0.5};
  double v = 0.0;
  for (int k = 0; k < 3; ++k) v += w[k] * std::exp(-((x - px[k]) * (x - px[k]) + (y - py[k]) * (y - py[k])) / 6.0);
  return v;
}

// The motif copied by the given operators about the centre c of an n x n image: the value at q
// is the sum over the operators of the motif at M^-1 (q - c) + c.
constexpr unsigned kN = 48;
constexpr float kC = (kN - 1) / 2.0f;
std::vector<float> symmetric_image(const std::vector<RT_Mat2D>& ops) {
  std::vector<float> img(kN * kN, 0.0f);
  for (const RT_Mat2D& m : ops) {
    const RT_Mat2D inv = rtmat2d_inverse(m);
    for (unsigned q = 0; q < kN * kN; ++q) {
      const double dx = q % kN - kC, dy = q / kN - kC;
      img[q] += (float)motif(inv.R11 * dx + inv.R12 * dy + inv.Tx + kC, inv.R21 * dx + inv.R22 * dy + inv.Ty + kC);
    }
  }
  return img;
}

// A 16 x 14 patch at (22, 6) of the 48 x 48 image, with its mask.
struct Patch {
  unsigned mnx = 16, mny = 14;
  float ox = 22.0f, oy = 6.0f;
  std::vector<float> mask = std::vector<float>(16 * 14, 1.0f);
  std::vector<float> one(const RT_Mat2D& r, const std::vector<float>& img) const {
    std::vector<float> out(mnx * mny);
    cpu_2d_ncs_get_one(out.data(), r, mnx, mny, ox, oy, img.data(), kN, kN, kC, kC, mask.data());
    return out;
  }
};

// One identity operator gives the image's rectangle back (0 where it leaves the image), on both
// roads; a second operator that misses the image halves every pixel, a mask of 0.5 halves it
// again and a mask of 0 gives nothing.
TEST(NcsAverage, PatchGeometryMaskAndReplace) {
  const unsigned nx = 20, ny = 12, mnx = 8, mny = 6;
  const auto image = random_image(nx * ny, 1);
  std::vector<float> mask(mnx * mny, 1.0f), host(mnx * mny), dev(mnx * mny), half(mnx * mny), window(mnx * mny, 0.0f);
  const RT_Mat2D ops[2] = {rtmat2d_identity(), RT_Mat2D{1, 0, 0, 1, 50.0f, 0}};
  testing::internal::CaptureStdout();
  cpu_2d_ncs_average(host.data(), ops, 1, mnx, mny, 15.0f, 9.0f, image.data(), nx, ny, 9.5f, 5.5f, mask.data());
  gpu_2d_ncs_average(dev.data(), ops, 1, mnx, mny, 15.0f, 9.0f, image.data(), nx, ny, 9.5f, 5.5f, mask.data());
  mask[1] = 0.5f, mask[2] = 0.0f;
  cpu_2d_ncs_average(half.data(), ops, 2, mnx, mny, 2.0f, 3.0f, image.data(), nx, ny, 9.5f, 5.5f, mask.data());
  EXPECT_NE(testing::internal::GetCapturedStdout().find("  1.000000  0.000000  0.000000  1.000000  0.000000  0.000000"),
            std::string::npos);
  for (unsigned j = 0; j < mny; ++j)
    for (unsigned i = 0; i < mnx; ++i)
      if (15 + i < nx && 9 + j < ny) window[j * mnx + i] = image[(9 + j) * nx + 15 + i];
  EXPECT_EQ(host, window);
  EXPECT_EQ(dev, window);
  EXPECT_FLOAT_EQ(half[0], image[3 * nx + 2] / 2.0f);
  EXPECT_FLOAT_EQ(half[1], image[3 * nx + 3] * 0.5f / 2.0f);
  EXPECT_EQ(half[2], 0.0f);
  EXPECT_EXIT_REPORT(
      cpu_2d_ncs_average(host.data(), ops, 0, mnx, mny, 0, 0, image.data(), nx, ny, 9.5f, 5.5f, mask.data()),
      "one operator at least, not 0! Exit now!");
}

TEST(NcsAverage, SymmetryAverageBeatsEveryNoisyCopy) {
  const std::vector<RT_Mat2D> c3 = {rotation(0), rotation(120), rotation(240)};
  const auto clean = symmetric_image(c3);
  auto noisy = clean;
  std::mt19937 gen(7);
  std::normal_distribution<float> noise(0.0f, 0.5f);
  for (float& v : noisy) v += noise(gen);
  const Patch p;
  const auto truth = p.one(c3[0], clean);
  std::vector<float> avg(truth.size()), dev(truth.size());
  cpu_2d_ncs_average(avg.data(), c3.data(), 3, p.mnx, p.mny, p.ox, p.oy, noisy.data(), kN, kN, kC, kC, p.mask.data());
  gpu_2d_ncs_average(dev.data(), c3.data(), 3, p.mnx, p.mny, p.ox, p.oy, noisy.data(), kN, kN, kC, kC, p.mask.data());
  for (size_t i = 0; i < avg.size(); ++i) ASSERT_NEAR(avg[i], dev[i], 1e-6f) << i;
  const float averaged = hm_ccc_znorm(avg.data(), truth.data(), avg.size());
  for (const RT_Mat2D& m : c3)
    EXPECT_GT(averaged, hm_ccc_znorm(p.one(m, noisy).data(), truth.data(), truth.size()) + 0.05f);
  EXPECT_GT(averaged, 0.6f);
}

TEST(NcsCorrelation, OwnPatchIsOneAndCopiesAreNearlyOne) {
  const std::vector<RT_Mat2D> ops = {rotation(0), rotation(120), rotation(240), rotation(60)};
  const auto image = symmetric_image({ops[0], ops[1], ops[2]});
  Patch p;
  for (unsigned j = 0; j < p.mny; ++j) p.mask[j * p.mnx] = 0.25f;  // a soft edge
  const auto ref = p.one(ops[0], image);
  std::vector<float> ccc(4);
  gpu_2d_ncs_cccs(ccc.data(), ref.data(), ops.data(), 4, p.mnx, p.mny, p.ox, p.oy, image.data(), kN, kN, kC, kC,
                  p.mask.data());
  EXPECT_NEAR(ccc[0], 1.0f, 1e-5f);
  EXPECT_GT(std::fmin(ccc[1], ccc[2]), 0.95f);  // the symmetry copies, up to the resampling
  EXPECT_LT(ccc[3], 0.5f);                      // not a symmetry of the image
  p.mask[5] = 1.5f;
  EXPECT_EXIT_REPORT(p.one(ops[0], image), "i,j = 5 0  1.500000\n.*Mask value must range from 0 to 1.0! Exit now!");
}

// Files: a C2 pair of copies whose second lies 1.5 pixels right of and 1 pixel above where the
// operator file says; the refinement on the host finds the shift, the device gives the plain
// correlations, and bad inputs are refused.
class NcsFiles : public testing::Test {
 protected:
  TempDir dir;
  std::string image = dir.file("image.mrc"), mask = dir.file("mask.mrc"), ref = dir.file("ref.mrc"),
              ops = dir.file("ops.txt"), patch = dir.file("patch.mrc");
  const Patch p;
  const std::vector<float> img = symmetric_image({rotation(0), rotation(180, 1.5f, -1.0f)});
  void SetUp() override {
    mrcf_write_xyz_data(image.c_str(), img.data(), kN, kN, 1);
    mrcf_write_xyz_data(mask.c_str(), p.mask.data(), p.mnx, p.mny, 1);
    mrcf_write_xyz_data(ref.c_str(), p.one(rotation(0), img).data(), p.mnx, p.mny, 1);
    write_file_text(ops, ".ncs_symmetry_operators\n1 0\n0 1\n0 0\n.ncs_symmetry_operators\n-1 0\n0 -1\n0 0\n");
  }
  // What the correlation command prints, with the device number given.
  std::string cccs(int gid) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(mrcf_2d_ncs_cccs(ref.c_str(), p.ox, p.oy, image.c_str(), mask.c_str(), ops.c_str(), 1, gid), 0);
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(NcsFiles, RefinementFindsTheKnownShift) {
  const std::string out = cccs(999), plain = cccs(0);
  float angle, dx[2], dy[2], ccc[2], unrefined = 2.0f;
  size_t at = out.find("max ");
  for (int s = 0; s < 2; ++s, at = out.find("max ", at + 1)) {
    ASSERT_NE(at, std::string::npos) << out;
    ASSERT_EQ(std::sscanf(out.c_str() + at, "max %f%f%f%f", &angle, &dx[s], &dy[s], &ccc[s]), 4);
  }
  EXPECT_EQ((std::vector<float>{dx[0], dy[0], dx[1], dy[1]}), (std::vector<float>{0.0f, 0.0f, 1.5f, -1.0f}));
  EXPECT_GT(ccc[1], 0.99f);
  EXPECT_NE(out.find("ccc = 1.000000 \n"), std::string::npos);
  EXPECT_EQ(plain.find("max "), std::string::npos);  // the device does not refine
  ASSERT_EQ(std::sscanf(plain.c_str() + plain.rfind("ccc = "), "ccc = %f", &unrefined), 1);
  EXPECT_LT(unrefined, ccc[1] - 0.05f);
}

// A shift of +5 in x: direction 1 reads 5 pixels to the right, -1 (the inverse) 5 to the left,
// on the host and on the device alike.
TEST_F(NcsFiles, DirectionChoosesTheOperatorOrItsInverse) {
  write_file_text(ops, ".ncs_symmetry_operators\n1 0\n0 1\n5 0\n");
  std::vector<float> got(p.mnx * p.mny);
  for (int direction : {1, -1})
    for (int gid : {999, 0}) {
      mrcf_2d_ncs_average(patch.c_str(), p.ox, p.oy, image.c_str(), mask.c_str(), ops.c_str(), direction, gid);
      ASSERT_EQ(mrcf_read_data_check_xyz(patch.c_str(), got.data(), p.mnx, p.mny, 1), 0);
      for (unsigned k = 0; k < got.size(); ++k)
        ASSERT_EQ(got[k], img[(k / p.mnx + 6) * kN + k % p.mnx + 22 + 5 * direction]) << direction << " " << gid;
    }
}

TEST_F(NcsFiles, BadInputsAreRefused) {
  EXPECT_EXIT_REPORT(mrcf_2d_ncs_average(patch.c_str(), 0, 0, image.c_str(), mask.c_str(), ops.c_str(), 0, 999),
                     "direction must be 1 .*not 0! Exit now!");
  write_file_text(dir.file("empty.txt"), "no operators\n");
  EXPECT_EXIT_REPORT(
      mrcf_2d_ncs_average(patch.c_str(), 0, 0, image.c_str(), mask.c_str(), dir.file("empty.txt").c_str(), 1, 999),
      "no symmetry operator in .*empty.txt! Exit now!");
  EXPECT_EXIT_REPORT(mrcf_2d_ncs_average(patch.c_str(), 0, 0, mask.c_str(), image.c_str(), ops.c_str(), 1, 999),
                     "is larger than the image \\(16 x 14\\)! Exit now!");
  EXPECT_EXIT_REPORT(mrcf_2d_ncs_cccs(image.c_str(), 0, 0, image.c_str(), mask.c_str(), ops.c_str(), 1, 999),
                     "must have the mask's size \\(16 x 14\\)! Exit now!");
  EXPECT_FALSE(std::ifstream(patch).good()) << "nothing is written by a refused command";
}

}  // namespace
