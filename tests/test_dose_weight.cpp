// Dose and drift weighting: the device average and its host twin against a numpy reference
// written from the formulas, the weights, the text readers and the stack driver.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mrcfile/mrcfile.h"
#include "pre_shiny6/pre_shiny6.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"
#include "support/temp_file.h"

namespace {

GPS_PARA para(int mw, int wnorm, float k, int device = 2) {
  return GPS_PARA{0.8f, 1.6f, 1.0f, 0.2f, k, mw, wnorm, device};
}

template <class T>
void write_raw(const std::string& path, const std::vector<T>& v) {
  write_file_text(path, std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T)));
}

// A small movie of spectra with rising dose, drifts long enough to pass the sinc's first zero,
// and a radial table that is not flat.
struct Movie {
  unsigned nxh = 9, ny = 12, nz = 5;
  std::vector<float2> frames, drift;
  std::vector<float> dose, ctfw;
  Movie() {
    const auto re = random_image(nxh * ny * nz, 3), im = random_image(nxh * ny * nz, 4), d = random_image(2 * nz, 5);
    for (size_t i = 0; i < re.size(); ++i) frames.push_back(make_float2(re[i], im[i]));
    for (unsigned z = 0; z < nz; ++z) {
      dose.push_back(1.5f * z + 0.5f);
      drift.push_back(make_float2(2.5f * d[2 * z], 2.5f * d[2 * z + 1]));
    }
    for (unsigned r = 0; r < nxh; ++r) ctfw.push_back(1.0f + 0.3f * std::sin(0.7f * r));
  }
  std::vector<float2> device_average(const GPS_PARA& p) const {
    float2 *d_frames = to_device(frames), *d_drift = to_device(drift), *d_out = device_zeros<float2>(nxh * ny);
    float *d_dose = to_device(dose), *d_ctfw = to_device(ctfw);
    const DeviceFrees frees(d_frames, d_drift, d_out, d_dose, d_ctfw);
    hcuda_2ds_fft_dose_dft_ctf_wave(d_frames, d_out, nxh, ny, nz, 1.0f, d_dose, d_drift, d_ctfw, p);
    return to_host(d_out, nxh * ny);
  }
  std::vector<float2> host_average(const GPS_PARA& p) const {
    std::vector<float2> out(nxh * ny);
    cpu_2ds_fft_dose_dft_ctf_wave(frames.data(), out.data(), nxh, ny, nz, 1.0f, dose.data(), drift.data(), p);
    return out;
  }
  // The numpy reference (tests/python/dose_weight_reference.py); `mean` asks for the plain mean.
  std::vector<float2> reference(const GPS_PARA& p, bool host, bool mean) const {
    TempDir dir;
    write_raw(dir.file("frames.f32"), frames);
    write_raw(dir.file("dose.f32"), dose);
    write_raw(dir.file("drift.f32"), drift);
    write_raw(dir.file("ctfw.f32"), ctfw);
    char params[512];
    std::snprintf(params, sizeof params, "%u %u %u 1 %.9g %.9g %.9g %.9g %.9g %d %d %d\n", nxh, ny, nz, p.Ne_a, p.Ne_b,
                  p.Da, p.Db, p.k, p.mw_skeme, p.wnorm_type, host ? 1 : 0);
    write_file_text(dir.file("params.txt"), params);
    const std::string cmd =
        "/usr/bin/python3 " + std::string(PICKORA_SOURCE_DIR) + "/tests/python/dose_weight_reference.py " + dir.path();
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
    const std::string bytes = read_file_text(dir.file(mean ? "mean.f32" : "expected.f32"));
    std::vector<float2> out(nxh * ny);
    EXPECT_EQ(bytes.size(), out.size() * sizeof(float2));
    std::memcpy(out.data(), bytes.data(), std::min(bytes.size(), out.size() * sizeof(float2)));
    return out;
  }
};

void expect_close(const std::vector<float2>& got, const std::vector<float2>& want, float tol) {
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_NEAR(got[i].x, want[i].x, tol * (1.0f + std::fabs(want[i].x))) << "element " << i;
    ASSERT_NEAR(got[i].y, want[i].y, tol * (1.0f + std::fabs(want[i].y))) << "element " << i;
  }
}

TEST(DoseAverage, DeviceAndHostMatchTheFormulas) {
  Movie m;
  for (int mw = 1; mw <= 3; ++mw)
    for (int wnorm = 1; wnorm <= 2; ++wnorm)
      for (float k : {0.0f, 0.5f}) {
        SCOPED_TRACE(testing::Message() << "mw " << mw << " wnorm " << wnorm << " k " << k);
        expect_close(m.device_average(para(mw, wnorm, k)), m.reference(para(mw, wnorm, k), false, false), 2e-4f);
        if (wnorm == 2 && k > 0)  // the host twin: its own normaliser and scheme-1 curve, no table
          expect_close(m.host_average(para(mw, wnorm, k)), m.reference(para(mw, wnorm, k), true, false), 2e-4f);
      }
  // Scheme 0, k 0, a flat table: the plain mean of the frames, on both roads.
  m.ctfw.assign(m.nxh, 1.0f);
  const auto mean = m.reference(para(0, 1, 0.0f), false, true);
  expect_close(m.device_average(para(0, 1, 0.0f)), mean, 1e-5f);
  expect_close(m.host_average(para(0, 7, 0.0f)), mean, 1e-5f);  // the host twin ignores wnorm_type
}

// The weight maps, plain and row-swapped, hold every frame's weight from the formula.
TEST(DoseAverage, WeightMapsHoldEachFramesWeight) {
  Movie m;
  const GPS_PARA p = para(3, 2, 0.1f);
  const unsigned plane = m.nxh * m.ny;
  std::vector<float> w(plane * m.nz), ws(plane * m.nz);
  gpu_2ds_fft_dose_dft_wgen(w.data(), m.nxh, m.ny, m.nz, 1.0f, m.dose.data(), m.drift.data(), p);
  gpu_2ds_fft_dose_dft_wgen_swap(ws.data(), m.nxh, m.ny, m.nz, 1.0f, m.dose.data(), m.drift.data(), p);
  bool negative = false;
  for (unsigned j = 0; j < plane * m.nz; ++j) {
    const unsigned i = j % plane, z = j / plane, x = i % m.nxh, y = i / m.nxh;
    const float s = dose_frequency(x, y, m.nxh, m.ny, 1.0f), t = dose_theta(x, y, m.ny);
    ASSERT_EQ(w[j], hd_frame_weight(s, t, 1.0f, m.dose[z], m.drift[z], p));
    ASSERT_EQ(ws[z * plane + (i + plane / 2) % plane], w[j]);
    negative = negative || w[j] < 0.0f;
  }
  EXPECT_TRUE(negative) << "drifts past the sinc's first zero give negative weights";
}

// The terms themselves are checked through the averages above; here, what those cannot reach.
TEST(Weights, TermsTableAndRefusals) {
  EXPECT_EQ(hd_drift_weight(0.3f, 1.0f, 1.3f, 0.0f, 0.0f, 1.0f, 0.3f), 1.0f);  // no drift: a zero argument
  const int kv[] = {100, 120, 200, 250, 300, 400};
  const float factor[] = {0.68f, 0.75f, 1.0f, 1.0f, 1.22f, 1.33f};
  for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(eq_dose(3.0f, kv[i]), 3.0f / factor[i]) << kv[i];

  Movie m;
  EXPECT_EXIT_REPORT(m.device_average(para(4, 1, 0.0f)), "mw_skeme must be 0 .*not 4! Exit now!");
  EXPECT_EXIT_REPORT(m.device_average(para(1, 0, 0.0f)), "wnorm_type must be 1 .*not 0! Exit now!");
  EXPECT_EXIT_REPORT(m.host_average(para(-1, 1, 0.0f)), "mw_skeme must be");
  std::vector<float2> out(m.nxh * m.ny);
  std::vector<float> w(m.nxh * m.ny * m.nz);
  for (float apix : {0.0f, -1.0f, NAN})
    EXPECT_EXIT_REPORT(cpu_2ds_fft_dose_dft_ctf_wave(m.frames.data(), out.data(), m.nxh, m.ny, m.nz, apix,
                                                     m.dose.data(), m.drift.data(), para(1, 1, 0.0f)),
                       "pixel size must be a positive number");
  EXPECT_EXIT_REPORT(
      gpu_2ds_fft_dose_dft_wgen(w.data(), m.nxh, m.ny, m.nz, 0.0f, m.dose.data(), m.drift.data(), para(3, 1, 0.0f)),
      "pixel size must be a positive number");
}

// A frame short of the log and too few frames: test_image_toolkit.cpp, through pickora-image dose.
TEST(TextInputs, DoseDriftAndTableReaders) {
  TempFile good("# frame dose dx dy\n0 0.5 0.1 -0.2\n\n1: 1.5, 0.3, -0.4\n2;2.5;0.5;-0.6 extra\nshort 1\n");
  TempFile skipped("0 1 0 0\n2 1 0 0\n1 1 0 0\n");
  TempFile table("0 0.0 1.0\n1 x\n1 0.1 0.9\n2 0.2 0.5\n");
  std::vector<float> dose(4), t(4, 7.0f);
  std::vector<float2> drift(4);
  std::string path = good.path;
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, &path[0]), 0);
  EXPECT_EQ(dose, (std::vector<float>{0.5f, 1.5f, 2.5f, 0.0f}));
  EXPECT_EQ(drift[1].y, -0.4f);
  path = skipped.path;
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, &path[0]), -1);
  EXPECT_EQ(get_ctfw_from_txt(t.data(), 3, table.path.c_str()), 0);
  const std::string warned = testing::internal::GetCapturedStdout();
  EXPECT_NE(warned.find("Can not get dose/drift parameters"), std::string::npos);
  EXPECT_NE(warned.find("CTFw text line format error!!"), std::string::npos);
  EXPECT_EQ(t, (std::vector<float>{1.0f, 0.9f, 0.5f, 7.0f}));
}

// Two particles of four frames: every averaging mode without weights gives the mean of the
// range, and mode 4 writes one weight map fewer than the range holds.
TEST(StackDriver, ModesOnASmallStack) {
  TempDir dir;
  const int nx = 8, ny = 6, fpp = 4, n = nx * ny;
  const auto stack = random_image(n * fpp * 2, 9);
  const std::string in = dir.file("movie.mrcs"), out = dir.file("avg.mrcs");
  mrcf_write_xyz_data(in.c_str(), stack.data(), nx, ny, fpp * 2);
  std::vector<float> dose = {1, 2, 3, 4}, ctfw(nx / 2 + 1, 1.0f), back(n * 2);
  std::vector<float2> drift(4, make_float2(0.0f, 0.0f));
  auto run = [&](int fpp_arg, int first, int last, int device) {
    mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), fpp_arg, first, last, 1.0f, dose.data(), drift.data(),
                                   ctfw.data(), para(device == 4, 1, 0.0f, device));
  };
  for (int device = 1; device <= 3; ++device) {
    testing::internal::CaptureStdout();
    run(fpp, 1, 99, device);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Particle 1 \n"), std::string::npos);
    ASSERT_EQ(mrcf_read_data_check_xyz(out.c_str(), back.data(), nx, ny, 2), 0);
    for (int i = 0; i < 2 * n; ++i) {
      const float* first = &stack[(i / n * fpp + 1) * n + i % n];
      ASSERT_NEAR(back[i], (first[0] + first[n] + first[2 * n]) / 3.0f, 1e-5f) << "device " << device << " " << i;
    }
  }
  char cwd[4096];
  ASSERT_TRUE(getcwd(cwd, sizeof cwd) != nullptr && chdir(dir.path().c_str()) == 0);
  run(fpp, -3, 2, 4);  // scheme 1
  int wx = 0, wy = 0, wz = 0;
  get_mrcf_xyz(wx, wy, wz, "Weights3D.mrcs");
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ((std::vector<int>{wx, wy, wz}), (std::vector<int>{nx / 2 + 1, ny, 2}));
  EXPECT_EXIT_REPORT(run(3, 0, 2, 2), "Movie frame number not divided by ! ! Exit now!");
  EXPECT_EXIT_REPORT(run(fpp, 0, 2, 5), "device must be 1");
}

}  // namespace
