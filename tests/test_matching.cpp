// Rotational matching: rotations by 0 and by quarter turns, the strict update, the angle loop,
// and whole matching runs against a brute-force circular correlation (with tolerances, as FFT
// rounding enters) and against each other (exactly).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "pickora56/matching.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

// A random n by n pattern inside a border of zeros, as templates have: quarter turns then move
// pixels up to float rounding (cos 90 is not exactly 0), and an edge pixel that drops is a zero.
std::vector<float> bordered_pattern(int n, unsigned seed) {
  std::vector<float> v = random_image(size_t(n) * n, seed);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x)
      if (x == 0 || y == 0 || x == n - 1 || y == n - 1) v[y * n + x] = 0.0f;
  return v;
}

// The image turned by a quarter turn k times, picture turning from +x toward +y about the
// centre of a square grid of side n: out(x, y) = in(y, n - 1 - x) for one quarter.
std::vector<float> quarter_turns(const std::vector<float>& in, int n, int k) {
  std::vector<float> cur = in, out(in.size());
  for (int q = 0; q < k; ++q) {
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) out[y * n + x] = cur[(n - 1 - x) * n + y];
    cur = out;
  }
  return cur;
}

std::vector<float> rotate_on_device(const std::vector<float>& src, int nx, int ny, float degrees) {
  float *d_src = to_device(src), *d_out = to_device(std::vector<float>(src.size(), 99.0f));
  hcuda_2d_rotate(d_src, d_out, nx, ny, degrees);
  DeviceFrees frees(d_src, d_out);
  return to_host(d_out, src.size());
}

// What one matching call produces, read back to the host, and what it printed.
struct Maps {
  std::vector<float> ccmax, psi;
  std::string printed;
};

struct Problem {  // a work image of side n with its mask, and a template of side tn
  int n;
  std::vector<float> mic, mask;
  int tn;
  std::vector<float> T;
  float area;
};

Maps run_matching(const Problem& p, float step, float end, MatchWorkspace* ws = nullptr) {
  const size_t pixels = static_cast<size_t>(p.n) * p.n;
  float *mic = to_device(p.mic), *mask = to_device(p.mask), *T = to_device(p.T);
  float *ccmax = to_device(std::vector<float>(pixels)), *psi = to_device(std::vector<float>(pixels, -5.0f));
  testing::internal::CaptureStdout();
  if (ws != nullptr)
    pickora_ccmax_psi_by_one_template(ws, mic, mask, ccmax, psi, 1, p.n, p.n, T, p.tn, p.tn, p.area, 0.0f, end, step);
  else
    pickora_ccmax_psi_by_one_template(mic, mask, ccmax, psi, 1, p.n, p.n, T, p.tn, p.tn, p.area, 0.0f, end, step);
  Maps m{to_host(ccmax, pixels), to_host(psi, pixels), testing::internal::GetCapturedStdout()};
  for (float* d : {mic, mask, T, ccmax, psi}) cudaFree(d);
  return m;
}

// The scale of the final division, in double.
double brute_scale(const Problem& p) {
  double sm = 0.0, st = 0.0, w = 0.0;
  for (size_t i = 0; i < p.mic.size(); ++i) {
    sm += double(p.mic[i]) * p.mic[i] * p.mask[i];
    w += p.mask[i];
  }
  for (float t : p.T) st += double(t) * t;
  return std::sqrt(sm * st * p.area / w);
}

// Map pixel (X, Y) of the template turned by k quarter turns: the circular correlation of the
// image with the template padded into the middle of an empty image, read at shift
// (X - n / 2, Y - n / 2), divided by the scale.
double brute_map(const Problem& p, int k, int X, int Y) {
  const std::vector<float> R = quarter_turns(p.T, p.tn, k);
  const int n = p.n, o = (n - p.tn) / 2;
  double sum = 0.0;
  for (int ty = 0; ty < p.tn; ++ty)
    for (int tx = 0; tx < p.tn; ++tx) {
      const int mx = ((o + tx + X - n / 2) % n + n) % n, my = ((o + ty + Y - n / 2) % n + n) % n;
      sum += double(p.mic[my * n + mx]) * R[ty * p.tn + tx];
    }
  return sum / brute_scale(p);
}

// ---------------------------------------------------------------------------------------------

TEST(Rotate, ZeroQuarterTurnsAndOutside) {
  for (auto [nx, ny] : {std::pair{7, 5}, {8, 8}, {1, 3}}) {
    const std::vector<float> src = random_image(size_t(nx) * ny, 3);
    EXPECT_EQ(rotate_on_device(src, nx, ny, 0.0f), src) << nx << " x " << ny;  // every pixel exactly
  }
  // Quarter turns move pixels from x toward y.
  for (int n : {7, 8})
    for (int k : {1, 2, 3}) {
      const std::vector<float> src = bordered_pattern(n, 11), got = rotate_on_device(src, n, n, 90.0f * k);
      const std::vector<float> want = quarter_turns(src, n, k);
      for (int i = 0; i < n * n; ++i) ASSERT_NEAR(got[i], want[i], 1e-6) << "side " << n << ", " << 90 * k << ", " << i;
    }
  // Bilinear weights give a constant back exactly inside; the corners turn out of the square to zero.
  const std::vector<float> out = rotate_on_device(std::vector<float>(81, 2.5f), 9, 9, 45.0f);
  EXPECT_EQ(out[4 * 9 + 4], 2.5f);
  for (int i : {0, 8, 72, 80}) EXPECT_EQ(out[i], 0.0f) << i;
}

TEST(UpdateCcmax, OnlyAStrictlyLargerValueReplacesTheMaximumAndItsAngle) {
  //                            raise  tie   NaN   from -inf  lower
  const std::vector<float> start{0.0f, 1.0f, 1.0f, -INFINITY, 2.0f}, corr{1.0f, 1.0f, NAN, 5.0f, -3.0f};
  float *ccmax = to_device(start), *cc_only = to_device(start), *c = to_device(corr);
  float* psi = to_device(std::vector<float>(5, 7.0f));
  DeviceFrees frees(ccmax, cc_only, c, psi);
  hcuda_update_ccmax_psi_2d(ccmax, c, psi, 9.0f, 5, 1);
  hcuda_update_ccmax_2d(cc_only, c, 5, 1);
  const std::vector<float> want{1.0f, 1.0f, 1.0f, 5.0f, 2.0f};
  EXPECT_EQ(to_host(ccmax, 5), want);
  EXPECT_EQ(to_host(cc_only, 5), want);
  EXPECT_EQ(to_host(psi, 5), (std::vector<float>{9.0f, 7.0f, 7.0f, 9.0f, 7.0f}));
}

// A batch of angles must leave the maps exactly as the same angles one at a time: ties keep the
// earlier angle, NaN never wins, and a short batch repeats its last entry harmlessly.
TEST(UpdateCcmax, ABatchOfAnglesEqualsTheSameAnglesOneAtATime) {
  const int nx = 37, ny = 5, n = nx * ny;
  std::vector<float> start = random_image(n, 70);
  for (int i = 0; i < n; ++i) start[i] = i % 4 == 0 ? -INFINITY : i % 10 == 3 ? 0.25f : start[i];
  std::vector<float*> d_corr;
  for (int j = 0; j < kAngleBatch; ++j) {
    std::vector<float> c = random_image(n, 60 + j);
    for (int i = 0; i < n; ++i) c[i] = i % 7 == 0 ? NAN : i % 5 == 3 ? 0.25f : c[i];  // ties with the start too
    d_corr.push_back(to_device(c));
  }
  for (int count : {kAngleBatch, 1}) {
    float *one = to_device(start), *batched = to_device(start), *cc_only = to_device(start);
    float *psi_one = to_device(std::vector<float>(n, -1.0f)), *psi_batched = to_device(std::vector<float>(n, -1.0f));
    DeviceFrees frees(one, batched, cc_only, psi_one, psi_batched);
    AngleBatch batch{};
    batch.pitch = nx;
    for (int j = 0; j < kAngleBatch; ++j) {
      batch.correlation[j] = d_corr[std::min(j, count - 1)];
      batch.degrees[j] = 10.0f * std::min(j, count - 1);
    }
    for (int j = 0; j < count; ++j) hcuda_update_ccmax_psi_2d(one, d_corr[j], psi_one, 10.0f * j, nx, ny);
    hcuda_update_ccmax_psi_2d_batch(batched, batch, psi_batched, nx, ny);
    hcuda_update_ccmax_psi_2d_batch(cc_only, batch, nullptr, nx, ny);
    const std::vector<float> want = to_host(one, n), got = to_host(batched, n), got_only = to_host(cc_only, n);
    EXPECT_EQ(0, std::memcmp(got.data(), want.data(), n * sizeof(float))) << count;  // NaN-proof
    EXPECT_EQ(0, std::memcmp(got_only.data(), want.data(), n * sizeof(float))) << count;
    EXPECT_EQ(to_host(psi_batched, n), to_host(psi_one, n)) << count;
  }
  for (float* d : d_corr) cudaFree(d);
}

TEST(AngleLoop, CountsAnglesBelowTheEndAndRefusesLoopsThatNeverEnd) {
  const struct {
    float start, end, step;
    int count;
  } cases[] = {{0, 359, 5, 72}, {0, 359, 1, 359}, {0, 359, 360, 1}, {10, 10, 1, 0}, {0, 359, 0, -1}, {0, 359, -5, -1},
               {1e8f, 2e8f, 1, -1}};  // 1e8 + 1 rounds back to 1e8
  for (const auto& c : cases)
    EXPECT_EQ(matching_angle_count(c.start, c.end, c.step), c.count) << c.start << " " << c.end << " " << c.step;
}

// A random image with a partly cleared mask, a random odd template, angles 0 and 90: every map
// pixel against the brute-force correlation, and the angle wherever the two angles differ
// clearly. Also fixes the direction of the shift, the template's anchor and the scale. The side
// 26 = 2 x 13 transforms on 32, just wide enough for the image and a template beyond it.
TEST(Matching, MapsAgreeWithBruteForceCorrelation) {
  for (int n : {32, 26}) {
    Problem p{n, random_image(n * n, 21), std::vector<float>(n * n, 1.0f), 7, bordered_pattern(7, 22), 3.0f};
    std::fill_n(p.mask.begin(), n * 10, 0.0f);
    const Maps m = run_matching(p, 90.0f, 180.0f);
    int decided = 0;
    for (int Y = 0; Y < p.n; ++Y)
      for (int X = 0; X < p.n; ++X) {
        const double c0 = brute_map(p, 0, X, Y), c90 = brute_map(p, 1, X, Y);
        const size_t i = size_t(Y) * p.n + X;
        ASSERT_NEAR(m.ccmax[i], std::max(c0, c90), 1e-5) << n << ": " << X << ", " << Y;
        if (std::fabs(c0 - c90) > 1e-4) {
          EXPECT_EQ(m.psi[i], c90 > c0 ? 90.0f : 0.0f) << n << ": " << X << ", " << Y;
          ++decided;
        }
      }
    EXPECT_GT(decided, n * n - 100) << n;
  }
  const struct {
    int n, t, side;
  } sides[] = {{1024, 50, 1024}, {958, 50, 1008}, {682, 40, 750}, {26, 7, 32}, {22, 1, 24}, {2, 2, 2}};
  for (const auto& c : sides) EXPECT_EQ(matching_transform_side(c.n, c.t), c.side) << c.n << " " << c.t;
}

// A template planted at 90 degrees into weak noise is found at its place, with its angle, with
// the score of the brute-force correlation there, and well above every other pixel.
TEST(Matching, PlantedTemplateIsFoundAtItsPlaceAndAngle) {
  const int n = 64, tn = 16, px = 40, py = 21;
  Problem p{n, random_image(n * n, 31), std::vector<float>(n * n, 1.0f), tn, bordered_pattern(tn, 32), 1.0f};
  for (float& v : p.mic) v *= 0.05f;
  const std::vector<float> turned = quarter_turns(p.T, tn, 1);
  // For an even side the template's pixel (tn / 2, tn / 2) is its anchor on the map.
  for (int y = 0; y < tn; ++y)
    for (int x = 0; x < tn; ++x) p.mic[(py - tn / 2 + y) * n + px - tn / 2 + x] += turned[y * tn + x];
  Maps m = run_matching(p, 30.0f, 359.0f);
  const size_t best = std::max_element(m.ccmax.begin(), m.ccmax.end()) - m.ccmax.begin();
  EXPECT_EQ(best, size_t(py) * n + px);
  EXPECT_EQ(m.psi[best], 90.0f);
  EXPECT_NEAR(m.ccmax[best], brute_map(p, 1, px, py), 1e-5);
  const float top = m.ccmax[best];
  m.ccmax[best] = -INFINITY;
  EXPECT_GT(top, 2.0f * *std::max_element(m.ccmax.begin(), m.ccmax.end()));
}

// A template of one pixel turns onto itself exactly at every angle, so all four angles
// correlate equally everywhere and the first one must stay. One dot per angle shows progress.
TEST(Matching, EqualCorrelationsKeepTheFirstAngleAndEachAnglePrintsADot) {
  Problem p{16, random_image(16 * 16, 41), std::vector<float>(16 * 16, 1.0f), 1, {1.5f}, 1.0f};
  const Maps m = run_matching(p, 90.0f, 359.0f);
  EXPECT_EQ(m.psi, std::vector<float>(16 * 16, 0.0f));
  EXPECT_EQ(m.printed, "....\n");
}

void expect_same(const Maps& got, const Maps& want, const std::string& what) {
  EXPECT_EQ(got.ccmax, want.ccmax) << what;
  EXPECT_EQ(got.psi, want.psi) << what;
}

// Scratch and template spectra kept across calls give the maps of a fresh call, byte for byte:
// on the call that makes the spectra and on later ones; for a different template, which gets
// spectra of its own also at the same address; for a smaller template after a larger one, whose
// padded image must be cleared again; and with no budget, or too little, when nothing is kept.
TEST(Matching, KeptWorkspaceAndTemplateSpectraGiveTheSameBytes) {
  Problem p{32, random_image(32 * 32, 81), std::vector<float>(32 * 32, 1.0f), 9, random_image(81, 82), 2.0f};
  Problem other = p, small = p;
  other.T = random_image(81, 83);
  other.mic = random_image(32 * 32, 84);
  small.tn = 5;
  small.T = random_image(25, 53);
  const float step = 70.0f;  // 6 angles: a full batch and a short one
  const Maps fresh = run_matching(p, step, 359.0f);
  MatchWorkspace ws{};
  expect_same(run_matching(p, step, 359.0f, &ws), fresh, "first");
  ASSERT_EQ(ws.kept.size(), 1u);
  expect_same(run_matching(p, step, 359.0f, &ws), fresh, "again");
  expect_same(run_matching(other, step, 359.0f, &ws), run_matching(other, step, 359.0f), "other");
  expect_same(run_matching(small, step, 359.0f, &ws), run_matching(small, step, 359.0f), "smaller");
  EXPECT_EQ(ws.kept.size(), 3u);
  EXPECT_EQ(ws.kept_bytes, 3 * 6 * size_t(17) * 32 * sizeof(float2));
  match_workspace_release(&ws);
  MatchWorkspace last{};  // a last call reads what is kept but keeps nothing new
  last.make_kept = false;
  expect_same(run_matching(p, step, 359.0f, &last), fresh, "last");
  EXPECT_TRUE(last.kept.empty());
  match_workspace_release(&last);

  // 6 spectra of 129 x 256 take 1.5 MiB: a budget of 1 MiB keeps none, nor does one of 0.
  Problem large{256, random_image(256 * 256, 85), std::vector<float>(256 * 256, 1.0f), 9, p.T, 2.0f};
  const Maps fresh_large = run_matching(large, step, 359.0f);
  for (const char* budget : {"0", "1"}) {
    setenv("PICKORA_SPECTRA_MIB", budget, 1);
    MatchWorkspace few{};
    run_matching(large, step, 359.0f, &few);
    expect_same(run_matching(large, step, 359.0f, &few), fresh_large, budget);
    EXPECT_TRUE(few.kept.empty()) << budget;
    match_workspace_release(&few);
  }
  unsetenv("PICKORA_SPECTRA_MIB");
}

TEST(MatchingRefusal, RefusesABudgetThatIsNotAWholeNumber) {
  for (const char* bad : {"lots", "-1", "12MB", "1e3"}) {
    setenv("PICKORA_SPECTRA_MIB", bad, 1);
    EXPECT_EXIT_REPORT(matching_spectra_budget(), "PICKORA_SPECTRA_MIB must be a whole number") << bad;
  }
  unsetenv("PICKORA_SPECTRA_MIB");
}

TEST(MatchingRefusal, RefusesWhatHasNoResult) {
  float* img = to_device(std::vector<float>(256, 1.0f));
  DeviceFrees frees(img);
  const auto match = [&](int n, int tn, float step) {
    pickora_ccmax_by_one_template(img, img, img, n, n, img, tn, tn, 1.0f, 0.0f, 359.0f, step);
  };
  EXPECT_EXIT_REPORT(match(16, 4, 0.0f), "angle step 0 never");
  EXPECT_EXIT_REPORT(match(16, 4, -5.0f), "angle step -5 never");
  EXPECT_EXIT_REPORT(match(8, 10, 5.0f), "10 x 10 does not fit");
  EXPECT_EXIT_REPORT(match(15, 4, 5.0f), "positive even sides");
}

}  // namespace
