// Dose and drift weighting: the device average and its host twin against a numpy reference
// written from the formulas, the weights, the text readers and the stack driver.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
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
  FILE* f = std::fopen(path.c_str(), "wb");
  std::fwrite(v.data(), sizeof(T), v.size(), f);
  std::fclose(f);
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
    std::vector<float2> out(nxh * ny);
    FILE* f = std::fopen(dir.file(mean ? "mean.f32" : "expected.f32").c_str(), "rb");
    EXPECT_TRUE(f != nullptr && std::fread(out.data(), sizeof(float2), out.size(), f) == out.size());
    if (f != nullptr) std::fclose(f);
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

TEST(DoseAverage, OneFrameStepsAndWeightMapsAgreeWithTheAverage) {
  Movie m;
  const GPS_PARA p = para(3, 2, 0.1f);
  const unsigned plane = m.nxh * m.ny;
  float2* d_sum = device_zeros<float2>(plane);
  float *d_wsum = device_zeros<float>(plane), *d_wadd = device_zeros<float>(plane);
  for (unsigned z = 0; z < m.nz; ++z) {
    float2* d_one = to_device(std::vector<float2>(m.frames.begin() + z * plane, m.frames.begin() + (z + 1) * plane));
    hcuda_2d_fft_dose_dft_wgen_wsum_one(d_one, d_sum, d_wsum, m.nxh, m.ny, 1.0f, m.dose[z], m.drift[z], p);
    hcuda_2d_fft_dose_dft_wadd(d_wadd, m.nxh, m.ny, 1.0f, m.dose[z], m.drift[z], p);
    cudaFree(d_one);
  }
  const auto sum = to_host(d_sum, plane), avg = m.device_average(p);
  const auto wsum = to_host(d_wsum, plane), wadd = to_host(d_wadd, plane);
  EXPECT_EQ(wsum, wadd);
  for (unsigned i = 0; i < plane; ++i) {
    const float scale = hd_ctfw_at(i % m.nxh, i / m.nxh, m.nxh, m.ny, m.ctfw.data()) / (p.k + std::sqrt(wsum[i]));
    ASSERT_NEAR(sum[i].x * scale, avg[i].x, 1e-5f) << i;
    ASSERT_NEAR(sum[i].y * scale, avg[i].y, 1e-5f) << i;
  }
  cudaFree(d_sum), cudaFree(d_wsum), cudaFree(d_wadd);

  std::vector<float> w(plane * m.nz), ws(plane * m.nz);
  testing::internal::CaptureStdout();
  gpu_2ds_fft_dose_dft_wgen(w.data(), m.nxh, m.ny, m.nz, 1.0f, m.dose.data(), m.drift.data(), p);
  gpu_2ds_fft_dose_dft_wgen_swap(ws.data(), m.nxh, m.ny, m.nz, 1.0f, m.dose.data(), m.drift.data(), p);
  testing::internal::GetCapturedStdout();
  bool negative = false;
  for (unsigned z = 0; z < m.nz; ++z)
    for (unsigned i = 0; i < plane; ++i) {
      const float s = dose_frequency(i % m.nxh, i / m.nxh, m.nxh, m.ny, 1.0f), t = dose_theta(i % m.nxh, i / m.nxh, m.ny);
      ASSERT_EQ(w[z * plane + i], hd_frame_weight(s, t, 1.0f, m.dose[z], m.drift[z], p));
      ASSERT_EQ(ws[z * plane + (i + plane / 2) % plane], w[z * plane + i]);
      negative = negative || w[z * plane + i] < 0.0f;
    }
  EXPECT_TRUE(negative) << "drifts past the sinc's first zero give negative weights";
}

TEST(Weights, TermsTableAndRefusals) {
  EXPECT_EQ(hd_dose_weight(0.0f, 5.0f, 1.0f, 1.5f), 1.0f);
  EXPECT_FLOAT_EQ(hd_dose_weight(0.25f, 2.0f, 3.0f, 0.5f), std::exp(-3.0f));
  for (float s : {0.0f, 0.1f, 0.49f}) EXPECT_EQ(hd_drift_weight(s, 1.0f, 1.3f, 0.0f, 0.0f, 1.0f, 0.3f), 1.0f);
  EXPECT_EQ(hd_drift_weight(0.3f, 0.0f, 1.0f, 0.0f, 2.0f, 1.0f, 0.0f), 1.0f);  // Db 0, drift along y, theta 0
  EXPECT_EQ(hd_drift_wsign(0.4f, 0.0f, 1.0f, 1.6f, 0.0f, 1.0f, 0.0f), -1.0f);  // argument past pi
  EXPECT_EQ(hd_drift_wsign(0.1f, 0.0f, 1.0f, 1.6f, 0.0f, 1.0f, 0.0f), 1.0f);
  const int kv[] = {100, 120, 200, 250, 300, 400};
  const float factor[] = {0.68f, 0.75f, 1.0f, 1.0f, 1.22f, 1.33f};
  for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(eq_dose(3.0f, kv[i]), 3.0f / factor[i]) << kv[i];

  const std::vector<float> t = {1.0f, 2.0f, 4.0f, 8.0f, 16.0f};
  EXPECT_EQ(hd_ctfw_at(0, 7, 5, 8, t.data()), 2.0f);   // row 7 of 8 is frequency -1
  EXPECT_EQ(hd_ctfw_at(4, 4, 5, 8, t.data()), 16.0f);  // the corner, radius limited to nxh - 1

  Movie m;
  EXPECT_EXIT_REPORT(m.device_average(para(4, 1, 0.0f)), "mw_skeme must be 0 .*not 4! Exit now!");
  EXPECT_EXIT_REPORT(m.device_average(para(1, 0, 0.0f)), "wnorm_type must be 1 .*not 0! Exit now!");
  EXPECT_EXIT_REPORT(m.host_average(para(-1, 1, 0.0f)), "mw_skeme must be");
  std::vector<float2> out(m.nxh * m.ny);
  for (float apix : {0.0f, -1.0f, NAN})
    EXPECT_EXIT_REPORT(cpu_2ds_fft_dose_dft_ctf_wave(m.frames.data(), out.data(), m.nxh, m.ny, m.nz, apix,
                                                     m.dose.data(), m.drift.data(), para(1, 1, 0.0f)),
                       "pixel size must be a positive number");
  std::vector<float> w(m.nxh * m.ny * m.nz);
  EXPECT_EXIT_REPORT(gpu_2ds_fft_dose_dft_wgen(w.data(), m.nxh, m.ny, m.nz, 0.0f, m.dose.data(), m.drift.data(),
                                               para(3, 1, 0.0f)),
                     "pixel size must be a positive number");
}

TEST(TextInputs, DoseDriftAndTableReaders) {
  TempFile good("# frame dose dx dy\n0 0.5 0.1 -0.2\n\n1: 1.5, 0.3, -0.4\n2;2.5;0.5;-0.6 extra\nshort 1\n");
  std::vector<float> dose(4);
  std::vector<float2> drift(4);
  std::string path = good.path;
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, &path[0]), 0);
  EXPECT_EQ(dose, (std::vector<float>{0.5f, 1.5f, 2.5f, 0.0f}));
  EXPECT_EQ(drift[1].y, -0.4f);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 4, &path[0]), -1);  // a frame short
  TempFile skipped("0 1 0 0\n2 1 0 0\n1 1 0 0\n");
  path = skipped.path;
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, &path[0]), -1);
  const std::string warned = testing::internal::GetCapturedStdout();
  EXPECT_NE(warned.find("Can not get lines from dose/drift log file"), std::string::npos);
  EXPECT_NE(warned.find("Can not get dose/drift parameters"), std::string::npos);
  EXPECT_EXIT_REPORT(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 2, &path[0]),
                     "Critical ERROR! Too few Movie frames!! Exit now!");

  TempFile drifts("0 1 2\n1 3 4\n2 5 6\n");
  EXPECT_EQ(get_drift_from_txt(drift.data(), 3, drifts.path.c_str()), 0);
  EXPECT_EQ(drift[2].y, 6.0f);
  TempFile table("0 0.0 1.0\n1 x\n1 0.1 0.9\n2 0.2 0.5\n");
  std::vector<float> t(4, 7.0f);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_ctfw_from_txt(t.data(), 3, table.path.c_str()), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("CTFw text line format error!!"), std::string::npos);
  EXPECT_EQ(t, (std::vector<float>{1.0f, 0.9f, 0.5f, 7.0f}));
  EXPECT_EXIT_REPORT(get_drift_from_txt(drift.data(), 3, "/nonexistent/d.txt"),
                     "Cannot open file /nonexistent/d.txt.*open file '/nonexistent/d.txt' failed");
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
  for (int device = 1; device <= 3; ++device) {
    testing::internal::CaptureStdout();
    mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), fpp, 1, 99, 1.0f, dose.data(), drift.data(), ctfw.data(),
                                   para(0, 1, 0.0f, device));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Particle 1 \n"), std::string::npos);
    ASSERT_EQ(mrcf_read_data_check_xyz(out.c_str(), back.data(), nx, ny, 2), 0);
    for (int i = 0; i < 2 * n; ++i) {
      const float* first = &stack[(i / n * fpp + 1) * n + i % n];
      ASSERT_NEAR(back[i], (first[0] + first[n] + first[2 * n]) / 3.0f, 1e-5f) << "device " << device << " " << i;
    }
  }
  char cwd[4096];
  ASSERT_TRUE(getcwd(cwd, sizeof cwd) != nullptr && chdir(dir.path().c_str()) == 0);
  testing::internal::CaptureStdout();
  mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), fpp, -3, 2, 1.0f, dose.data(), drift.data(), ctfw.data(),
                                 para(1, 1, 0.0f, 4));
  testing::internal::GetCapturedStdout();
  int wx = 0, wy = 0, wz = 0;
  get_mrcf_xyz(wx, wy, wz, "Weights3D.mrcs");
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ((std::vector<int>{wx, wy, wz}), (std::vector<int>{nx / 2 + 1, ny, 2}));
  EXPECT_EXIT_REPORT(mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), 3, 0, 2, 1.0f, dose.data(),
                                                    drift.data(), ctfw.data(), para(0, 1, 0.0f)),
                     "Movie frame number not divided by ! ! Exit now!");
  EXPECT_EXIT_REPORT(mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), 4, 0, 2, 1.0f, dose.data(),
                                                    drift.data(), ctfw.data(), para(0, 1, 0.0f, 5)),
                     "device must be 1");
}

}  // namespace
