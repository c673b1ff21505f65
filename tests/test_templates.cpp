// Templates: the soft blob, resampling and shrinking a stack read from a file, refusal of bad
// stacks, the four normalisation types with their area terms, and the contrast inversion.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/template_norm.h"
#include "pickora56/templates.h"
#include "process2d_raw/meanshrink.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace {

// A stack whose slice z is the plane (z + 1) x + 3 y + 0.5 z.
std::vector<float> ramp_stack(int nx, int ny, int nz) {
  std::vector<float> a(static_cast<size_t>(nx) * ny * nz);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) a[(static_cast<size_t>(z) * ny + y) * nx + x] = (z + 1.0f) * x + 3.0f * y + 0.5f * z;
  return a;
}

std::string write_stack(const TempDir& dir, const std::vector<float>& a, int nx, int ny, int nz) {
  const std::string path = dir.file("templates.mrcs");
  EXPECT_EQ(mrcf_write_xyz_data(path.c_str(), a.data(), nx, ny, nz), 0);
  return path;
}

TEST(SoftMask, ValuesAtKnownRadii) {
  // Centre (5, 5), flat radius 2, soft 3: the fall-off is exp(-t^2 / 2) with t = d - 2; points
  // exactly on R (7, 5) and on R + soft (10, 5) count as inside.
  std::vector<float> m(11 * 11);
  cpu_2d_generate_rmask_soft(m.data(), 11, 11, 5.0f, 5.0f, 2.0f, 3.0f);
  const double cases[][3] = {{5, 5, 1.0},           {7, 5, 1.0},           {8, 5, std::exp(-0.5)},
                             {5, 9, std::exp(-2.0)},  {10, 5, std::exp(-4.5)}, {9, 8, std::exp(-4.5)},
                             {10, 6, 0.0},            {0, 0, 0.0}};
  for (const auto& c : cases)
    EXPECT_NEAR(m[static_cast<int>(c[1] * 11 + c[0])], c[2], 1e-6) << c[0] << ", " << c[1];
}

TEST(GeneratedTemplate, SoftBlobInWorkPixels) {
  const float r = 10.7f, edge = 0.05f;
  for (const char* name : {"NONE", "Null", "none"}) {
    int nx = 0, ny = 0, nz = 0;
    // Pixel sizes and shrink play no part: the radius is already in work pixels.
    float* t = get_or_create_template_data(nx, ny, nz, name, r, 0.0f, 0.0f, 4, edge);
    ASSERT_EQ((std::vector<int>{nx, ny, nz}), (std::vector<int>{40, 40, 1}));
    const double R = r * edge, soft = (1.0 - edge) * r, w = soft / 3.0;
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) {
        const double d = std::hypot(x - 19.5, y - 19.5);
        const double want = d <= R ? 1.0 : d <= R + soft ? std::exp(-(d - R) * (d - R) / (2 * w * w)) : 0.0;
        ASSERT_NEAR(t[y * 40 + x], want, 2e-6) << x << ", " << y;
      }
    destroy_template_data(t);
  }
  int nx, ny, nz;
  EXPECT_EXIT_REPORT(create_template_data(nx, ny, nz, 0.9f, edge), "radius of 0.9");
}

// The value of a plane at the resampled position, computed in double from the definition:
// output (X, Y) shows the input at (X - (onx - 1) / 2) / ratio + (nx - 1) / 2.
double resampled_ramp(int X, int Y, int z, int nx, int ny, int onx, int ony, double ratio) {
  const double sx = (X - (onx - 1) * 0.5) / ratio + (nx - 1) * 0.5;
  const double sy = (Y - (ony - 1) * 0.5) / ratio + (ny - 1) * 0.5;
  if (sx < 0 || sx > nx - 1 || sy < 0 || sy > ny - 1) return 0.0;
  return (z + 1.0) * sx + 3.0 * sy + 0.5 * z;
}

TEST(Resampling, KeepsAPlaneAboutTheCentreAndPadsWithZero) {
  const int nx = 20, ny = 12, nz = 2;
  const std::vector<float> in = ramp_stack(nx, ny, nz);
  for (float ratio : {2.0f, 0.5f, 1.5f, 1.0f}) {
    SCOPED_TRACE("ratio " + std::to_string(ratio));
    const int onx = static_cast<int>(nx * ratio), ony = static_cast<int>(ny * ratio);
    std::vector<float> out(static_cast<size_t>(onx) * ony * nz, -99.0f);
    gpu_2ds_scale(out.data(), in.data(), nx, ny, nz, ratio);
    for (int z = 0; z < nz; ++z)
      for (int Y = 0; Y < ony; ++Y)
        for (int X = 0; X < onx; ++X)
          ASSERT_NEAR(out[(static_cast<size_t>(z) * ony + Y) * onx + X],
                      resampled_ramp(X, Y, z, nx, ny, onx, ony, ratio), 1e-4)
              << X << ", " << Y << ", " << z;
    if (ratio == 1.0f) {
      EXPECT_EQ(out, in);  // whole-number positions read no neighbour
    }
  }
}

TEST(TemplateStack, ResampledBeforeShrunk) {
  TempDir dir;
  struct Case {
    int nx, ny, nz;
    float apixT, apixM;
    int shrink, tnx, tny;
  };
  for (Case c : {Case{20, 12, 2, 2.68f, 1.34f, 4, 10, 6}, Case{13, 13, 1, 1.34f, 1.34f, 4, 3, 3},
                 Case{13, 11, 2, 1.0f, 1.0f, 1, 13, 11}}) {
    SCOPED_TRACE(std::to_string(c.nx) + " x " + std::to_string(c.ny) + " shrink " + std::to_string(c.shrink));
    const std::vector<float> stack = ramp_stack(c.nx, c.ny, c.nz);
    const std::string path = write_stack(dir, stack, c.nx, c.ny, c.nz);
    int tnx = 0, tny = 0, tnz = 0;
    float* t = get_or_create_template_data(tnx, tny, tnz, path.c_str(), 5.0f, c.apixT, c.apixM, c.shrink, 0.05f);
    ASSERT_EQ((std::vector<int>{tnx, tny, tnz}), (std::vector<int>{c.tnx, c.tny, c.nz}));
    // The expected stack: the resampled plane of the file, then plain block means.
    const float ratio = c.apixT / c.apixM;
    const int nx1 = static_cast<int>(c.nx * ratio), ny1 = static_cast<int>(c.ny * ratio);
    for (int z = 0; z < c.nz; ++z)
      for (int Y = 0; Y < tny; ++Y)
        for (int X = 0; X < tnx; ++X) {
          double sum = 0.0;
          for (int j = 0; j < c.shrink; ++j)
            for (int i = 0; i < c.shrink; ++i)
              sum += resampled_ramp(X * c.shrink + i, Y * c.shrink + j, z, c.nx, c.ny, nx1, ny1, ratio);
          ASSERT_NEAR(t[(static_cast<size_t>(z) * tny + Y) * tnx + X], sum / (c.shrink * c.shrink), 1e-4)
              << X << ", " << Y << ", " << z;
        }
    destroy_template_data(t);
  }
}

TEST(TemplateStack, BadStacksEndTheRunNamingFileAndSizes) {
  TempDir dir;
  int tnx, tny, tnz;
  const std::string missing = dir.file("missing.mrcs");
  EXPECT_EXIT_REPORT(get_or_create_template_data(tnx, tny, tnz, missing.c_str(), 5, 1, 1, 1, 0.05f),
                     "Cannot open file .*missing.mrcs.*open file '.*missing.mrcs' failed");

  const std::string path = write_stack(dir, ramp_stack(3, 3, 1), 3, 3, 1);
  // Too small for the shrink factor, and a pixel size that gives no ratio.
  EXPECT_EXIT_REPORT(get_or_create_template_data(tnx, tny, tnz, path.c_str(), 5, 1, 1, 4, 0.05f),
                     "templates.mrcs has sizes 0 x 0 x 1; all must be positive");
  EXPECT_EXIT_REPORT(get_or_create_template_data(tnx, tny, tnz, path.c_str(), 5, 1, 0, 1, 0.05f), "pixel size");

  // A head that says no slices, or a mode that can't be read as floats.
  std::vector<unsigned char> bytes = read_binary_file(path);
  auto set_head_word = [&](int offset, int32_t value) {
    std::memcpy(bytes.data() + offset, &value, 4);
    write_file_bytes(path, bytes);
  };
  set_head_word(8, 0);  // nz
  EXPECT_EXIT_REPORT(get_template_data(tnx, tny, tnz, path.c_str()),
                     "template stack .*templates.mrcs has sizes 3 x 3 x 0; all must be positive");
  set_head_word(8, 1);
  set_head_word(12, 4);  // mode
  EXPECT_EXIT_REPORT(get_template_data(tnx, tny, tnz, path.c_str()), "templates.mrcs has MRC mode 4");
}

// Normalises a 16 x 12 x 2 stack of planes with an offset and returns the device result.
struct Normalised {
  static constexpr int nx = 16, ny = 12, nz = 2;
  std::vector<float> in = ramp_stack(nx, ny, nz);
  std::vector<float> out;
  explicit Normalised(int type, float r, float m) {
    float* d = device_zeros<float>(in.size());
    EXPECT_EQ(normalize_template_data(d, in.data(), nx, ny, nz, type, r, m), 0);
    out = to_host(d, in.size());
    cudaFree(d);
  }
  const float* slice(int z) const { return out.data() + z * nx * ny; }
  const float* input(int z) const { return in.data() + z * nx * ny; }
};

TEST(TemplateNormalisation, TypesZeroOneTwoInvalidAndInversion) {
  const int n = Normalised::nx * Normalised::ny;
  testing::internal::CaptureStdout();
  const Normalised none(0, 5.0f, 0.05f), bad(7, 5.0f, 0.05f), sub(1, 5.0f, 0.05f), circle(2, 4.0f, 0.05f),
      wide(2, 100.0f, 0.05f);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_EQ(none.out, none.in);
  float* d = to_device(none.in);  // inversion negates every value
  pickora_invert_templates(d, Normalised::nx, Normalised::ny, Normalised::nz);
  const std::vector<float> inverted = to_host(d, none.in.size());
  cudaFree(d);
  for (size_t i = 0; i < none.in.size(); ++i) EXPECT_EQ(inverted[i], -none.in[i]);
  // An invalid type warns once per slice and leaves the stack as it was.
  EXPECT_EQ(bad.out, bad.in);
  const std::string warning = "\033[43mWarning in function normalize_template_data(), file src/pickora56 on line ";
  EXPECT_NE(text.find(warning), std::string::npos) << text;
  EXPECT_EQ(text.find(warning, text.find(warning) + 1), text.rfind(warning)) << text;
  EXPECT_NE(text.find(":Invalid T_norm_type!\n\033[m"), std::string::npos) << text;
  for (int z = 0; z < Normalised::nz; ++z) {
    // Type 2: inside radius 4 of (7.5, 5.5) the pixel is shifted, outside it is minus the mean,
    // which is the sum inside over all 192 pixels.
    auto inside = [&](int i) { return (i % 16 - 7.5) * (i % 16 - 7.5) + (i / 16 - 5.5) * (i / 16 - 5.5) <= 16.0; };
    double sum_inside = 0.0;
    for (int i = 0; i < n; ++i) sum_inside += inside(i) ? circle.input(z)[i] : 0.0;
    const double mean = std::accumulate(sub.input(z), sub.input(z) + n, 0.0) / n;
    for (int i = 0; i < n; ++i) {
      EXPECT_NEAR(sub.slice(z)[i], sub.input(z)[i] - mean, 1e-5) << i;
      EXPECT_NEAR(circle.slice(z)[i], (inside(i) ? circle.input(z)[i] : 0.0) - sum_inside / n, 1e-4) << i;
      // A circle larger than the slice zeroes nothing: type 1 up to the order of the sums.
      EXPECT_NEAR(wide.slice(z)[i], sub.slice(z)[i], 1e-4) << i;
    }
  }
}

TEST(TemplateNormalisation, TypeThreeUnderTheSoftDisc) {
  const int nx = Normalised::nx, ny = Normalised::ny, n = nx * ny;
  for (float m : {0.2f, 0.0f}) {
    SCOPED_TRACE("m " + std::to_string(m));
    const float r = 5.0f;
    const Normalised t3(3, r, m);
    std::vector<float> mask(n);
    cpu_2d_generate_rmask_soft(mask.data(), nx, ny, 7.5f, 5.5f, (1 - m) * r, r * m);
    for (int z = 0; z < Normalised::nz; ++z) {
      // The stored image is (x - M) k w: divided by w it must have masked mean 0 and sd 1.
      double sw = 0, sxw = 0, sxxw = 0;
      for (int i = 0; i < n; ++i) {
        if (mask[i] == 0.0f) {
          EXPECT_EQ(t3.slice(z)[i], 0.0f);
          continue;
        }
        const double v = t3.slice(z)[i] / mask[i];
        sw += mask[i], sxw += v * mask[i], sxxw += v * v * mask[i];
      }
      EXPECT_NEAR(sxw / sw, 0.0, 1e-5);
      EXPECT_NEAR(sxxw / sw, 1.0, 1e-4);
    }
  }
}

TEST(TemplateNormalisation, AreaTerms) {
  EXPECT_NEAR(pickora_template_area_term(1, 48.507f, 0.05f), 7391.945f, 0.01f);  // pi r^2
  EXPECT_EQ(pickora_template_area_term(1, 48.507f, 0.05f), pickora_template_area_term(7, 48.507f, 0.5f));
  // Type 3 sums the disc over a 49 x 49 square that lies in the flat core.
  EXPECT_EQ(pickora_template_area_term(3, 48.507f, 0.05f), 2401.0f);
  // With m 0.5 the corners reach the soft zone.
  const float half = pickora_template_area_term(3, 48.507f, 0.5f);
  EXPECT_LT(half, 2401.0f);
  EXPECT_GT(half, 2300.0f);
  EXPECT_EQ(cpu_2d_rmask_soft_sum(-3.0f, 1.0f), 0.0f);
}

}  // namespace
