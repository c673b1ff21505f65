// Dose and drift weighting: the weights, the device average and its host twin against a numpy
// reference written from the formulas, the text readers and the stack driver.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "mrcfile/mrcfile.h"
#include "pre_shiny6/pre_shiny6.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"
#include "support/temp_file.h"

namespace {

GPS_PARA para(int mw, int wnorm, float k) {
  GPS_PARA p{};
  p.Ne_a = 0.8f, p.Ne_b = 1.6f, p.Da = 1.0f, p.Db = 0.2f, p.k = k;
  p.mw_skeme = mw, p.wnorm_type = wnorm, p.device = 2;
  return p;
}

template <class T>
void write_raw(const std::string& path, const std::vector<T>& v) {
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  std::fwrite(v.data(), sizeof(T), v.size(), f);
  std::fclose(f);
}

std::vector<float> read_raw(const std::string& path) {
  std::vector<float> v;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return v;
  float x;
  while (std::fread(&x, sizeof x, 1, f) == 1) v.push_back(x);
  std::fclose(f);
  return v;
}

// A small movie of spectra with rising dose, drifts long enough to pass the sinc's first zero,
// and a radial table that is not flat.
struct Movie {
  unsigned nxh = 9, ny = 12, nz = 5;
  float apix = 1.0f;
  std::vector<float2> frames;
  std::vector<float> dose, ctfw;
  std::vector<float2> drift;
  Movie() {
    const auto re = random_image(nxh * ny * nz, 3), im = random_image(nxh * ny * nz, 4);
    for (size_t i = 0; i < re.size(); ++i) frames.push_back(make_float2(re[i], im[i]));
    const auto d = random_image(2 * nz, 5);
    for (unsigned z = 0; z < nz; ++z) {
      dose.push_back(1.5f * z + 0.5f);
      drift.push_back(make_float2(2.5f * d[2 * z], 2.5f * d[2 * z + 1]));
    }
    for (unsigned r = 0; r < nxh; ++r) ctfw.push_back(1.0f + 0.3f * std::sin(0.7f * r));
  }
  std::vector<float2> device_average(const GPS_PARA& p) const {
    float2 *d_frames = to_device(frames), *d_drift = to_device(drift), *d_out = device_zeros<float2>(nxh * ny);
    float *d_dose = to_device(dose), *d_ctfw = to_device(ctfw);
    hcuda_2ds_fft_dose_dft_ctf_wave(d_frames, d_out, nxh, ny, nz, apix, d_dose, d_drift, d_ctfw, p);
    auto out = to_host(d_out, nxh * ny);
    for (void* d : {(void*)d_frames, (void*)d_drift, (void*)d_out, (void*)d_dose, (void*)d_ctfw}) cudaFree(d);
    return out;
  }
  // The numpy reference: expected.f32 and mean.f32 as float pairs.
  void reference(const GPS_PARA& p, bool host, std::vector<float>& expected, std::vector<float>& mean) const {
    TempDir dir;
    write_raw(dir.file("frames.f32"), frames);
    write_raw(dir.file("dose.f32"), dose);
    write_raw(dir.file("drift.f32"), drift);
    write_raw(dir.file("ctfw.f32"), ctfw);
    char params[512];
    std::snprintf(params, sizeof params, "%u %u %u %.9g %.9g %.9g %.9g %.9g %.9g %d %d %d\n", nxh, ny, nz, apix,
                  p.Ne_a, p.Ne_b, p.Da, p.Db, p.k, p.mw_skeme, p.wnorm_type, host ? 1 : 0);
    write_file_text(dir.file("params.txt"), params);
    const std::string cmd =
        "/usr/bin/python3 " + std::string(PICKORA_SOURCE_DIR) + "/tests/python/dose_weight_reference.py " + dir.path();
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    expected = read_raw(dir.file("expected.f32"));
    mean = read_raw(dir.file("mean.f32"));
    ASSERT_EQ(expected.size(), 2u * nxh * ny);
  }
};

void expect_close(const std::vector<float2>& got, const std::vector<float>& want, float tol, const char* what) {
  ASSERT_EQ(2 * got.size(), want.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_NEAR(got[i].x, want[2 * i], tol * (1.0f + std::fabs(want[2 * i]))) << what << " element " << i;
    ASSERT_NEAR(got[i].y, want[2 * i + 1], tol * (1.0f + std::fabs(want[2 * i + 1]))) << what << " element " << i;
  }
}

TEST(DoseAverage, SchemeZeroWithFlatTableIsThePlainMean) {
  Movie m;
  m.ctfw.assign(m.nxh, 1.0f);
  std::vector<float> expected, mean;
  m.reference(para(0, 1, 0.0f), false, expected, mean);
  expect_close(m.device_average(para(0, 1, 0.0f)), mean, 1e-5f, "device");
  std::vector<float2> host(m.nxh * m.ny);
  cpu_2ds_fft_dose_dft_ctf_wave(m.frames.data(), host.data(), m.nxh, m.ny, m.nz, m.apix, m.dose.data(),
                                m.drift.data(), para(0, 7, 0.0f));  // the host twin ignores wnorm_type
  expect_close(host, mean, 1e-5f, "host");
}

TEST(DoseAverage, DeviceAverageMatchesTheFormulas) {
  Movie m;
  for (int mw = 1; mw <= 3; ++mw)
    for (int wnorm = 1; wnorm <= 2; ++wnorm)
      for (float k : {0.0f, 0.5f}) {
        SCOPED_TRACE(testing::Message() << "mw " << mw << " wnorm " << wnorm << " k " << k);
        std::vector<float> expected, mean;
        m.reference(para(mw, wnorm, k), false, expected, mean);
        expect_close(m.device_average(para(mw, wnorm, k)), expected, 2e-4f, "device");
      }
}

TEST(DoseAverage, HostTwinKeepsItsOwnRules) {
  Movie m;
  for (int mw = 1; mw <= 3; ++mw) {
    SCOPED_TRACE(mw);
    std::vector<float> expected, mean;
    m.reference(para(mw, 2, 0.25f), true, expected, mean);
    std::vector<float2> host(m.nxh * m.ny);
    cpu_2ds_fft_dose_dft_ctf_wave(m.frames.data(), host.data(), m.nxh, m.ny, m.nz, m.apix, m.dose.data(),
                                  m.drift.data(), para(mw, 2, 0.25f));
    expect_close(host, expected, 2e-4f, "host");
  }
}

TEST(DoseAverage, OneFrameStepsAddUpToTheAverage) {
  // wsum_one frame by frame, then the normaliser and the table by hand, equals the one-pass kernel.
  Movie m;
  const GPS_PARA p = para(3, 2, 0.1f);
  const unsigned plane = m.nxh * m.ny;
  float2* d_sum = device_zeros<float2>(plane);
  float* d_wsum = device_zeros<float>(plane);
  float* d_wadd = device_zeros<float>(plane);
  for (unsigned z = 0; z < m.nz; ++z) {
    std::vector<float2> one(m.frames.begin() + z * plane, m.frames.begin() + (z + 1) * plane);
    float2* d_one = to_device(one);
    hcuda_2d_fft_dose_dft_wgen_wsum_one(d_one, d_sum, d_wsum, m.nxh, m.ny, m.apix, m.dose[z], m.drift[z], p);
    hcuda_2d_fft_dose_dft_wadd(d_wadd, m.nxh, m.ny, m.apix, m.dose[z], m.drift[z], p);
    cudaFree(d_one);
  }
  const auto sum = to_host(d_sum, plane);
  const auto wsum = to_host(d_wsum, plane), wadd = to_host(d_wadd, plane);
  const auto avg = m.device_average(p);
  for (unsigned y = 0; y < m.ny; ++y)
    for (unsigned x = 0; x < m.nxh; ++x) {
      const unsigned i = y * m.nxh + x;
      EXPECT_EQ(wsum[i], wadd[i]);
      const float scale = hd_ctfw_at(x, y, m.nxh, m.ny, m.ctfw.data()) / (p.k + std::sqrt(wsum[i]));
      EXPECT_NEAR(sum[i].x * scale, avg[i].x, 1e-5f) << i;
      EXPECT_NEAR(sum[i].y * scale, avg[i].y, 1e-5f) << i;
    }
  cudaFree(d_sum), cudaFree(d_wsum), cudaFree(d_wadd);
}

TEST(DoseAverage, WeightMapsAndTheirSwap) {
  Movie m;
  const GPS_PARA p = para(3, 1, 0.0f);
  const unsigned plane = m.nxh * m.ny;
  std::vector<float> w(plane * m.nz), ws(plane * m.nz);
  testing::internal::CaptureStdout();
  gpu_2ds_fft_dose_dft_wgen(w.data(), m.nxh, m.ny, m.nz, m.apix, m.dose.data(), m.drift.data(), p);
  gpu_2ds_fft_dose_dft_wgen_swap(ws.data(), m.nxh, m.ny, m.nz, m.apix, m.dose.data(), m.drift.data(), p);
  testing::internal::GetCapturedStdout();
  bool negative = false;
  for (unsigned z = 0; z < m.nz; ++z) {
    EXPECT_EQ(w[z * plane], 1.0f);                   // s == 0 at the origin
    EXPECT_EQ(ws[z * plane + plane / 2], 1.0f);      // moved to row ny / 2
    for (unsigned i = 0; i < plane; ++i) {
      ASSERT_EQ(ws[z * plane + (i + plane / 2) % plane], w[z * plane + i]);
      negative = negative || w[z * plane + i] < 0.0f;
    }
  }
  EXPECT_TRUE(negative) << "drifts past the sinc's first zero give negative weights";
}

TEST(Weights, DoseAndDriftTerms) {
  EXPECT_EQ(hd_dose_weight(0.0f, 5.0f, 1.0f, 1.5f), 1.0f);
  EXPECT_LT(hd_dose_weight(0.3f, 5.0f, 1.0f, 1.5f), hd_dose_weight(0.2f, 5.0f, 1.0f, 1.5f));
  EXPECT_LT(hd_dose_weight(0.2f, 6.0f, 1.0f, 1.5f), hd_dose_weight(0.2f, 5.0f, 1.0f, 1.5f));
  EXPECT_FLOAT_EQ(hd_dose_weight(0.25f, 2.0f, 3.0f, 0.5f), std::exp(-3.0f));
  for (float s : {0.0f, 0.1f, 0.49f})
    for (float theta : {0.0f, 1.0f, -2.0f}) EXPECT_EQ(hd_drift_weight(s, theta, 1.3f, 0.0f, 0.0f, 1.0f, 0.3f), 1.0f);
  // Db 0 and drift along y: a frequency along x is not damped.
  EXPECT_EQ(hd_drift_weight(0.3f, 0.0f, 1.0f, 0.0f, 2.0f, 1.0f, 0.0f), 1.0f);
  // Along the drift: sinc of s 2 pi |d| apix.
  const float arg = 0.2f * 6.2831853f * 2.0f * 1.5f;
  EXPECT_NEAR(hd_drift_weight(0.2f, 0.5f, 1.5f, 2.0f * std::cos(0.5f), 2.0f * std::sin(0.5f), 1.0f, 0.3f),
              std::sin(arg) / arg, 1e-6f);
  // A drift whose argument passes pi: negative weight, sign -1.
  EXPECT_LT(hd_drift_weight(0.4f, 0.0f, 1.0f, 1.6f, 0.0f, 1.0f, 0.0f), 0.0f);
  EXPECT_EQ(hd_drift_wsign(0.4f, 0.0f, 1.0f, 1.6f, 0.0f, 1.0f, 0.0f), -1.0f);
  EXPECT_EQ(hd_drift_wsign(0.1f, 0.0f, 1.0f, 1.6f, 0.0f, 1.0f, 0.0f), 1.0f);
  EXPECT_EQ(hd_drift_wsign(0.0f, 0.0f, 1.0f, 1.6f, 0.0f, 1.0f, 0.0f), 1.0f);
  EXPECT_FLOAT_EQ(host_fixed_dose_weight(0.5f, 2.0f), std::exp(-2.0f * std::pow(0.5f, 1.31489f) / 1.35172f));

  const int kv[] = {100, 120, 200, 250, 300, 400};
  const float factor[] = {0.68f, 0.75f, 1.0f, 1.0f, 1.22f, 1.33f};
  for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(eq_dose(3.0f, kv[i]), 3.0f / factor[i]) << kv[i];
}

TEST(Weights, RadialTableReadAtTheLastEntryBeyondIt) {
  const unsigned nxh = 5, ny = 8;
  const std::vector<float> t = {1.0f, 2.0f, 4.0f, 8.0f, 16.0f};
  EXPECT_EQ(hd_ctfw_at(3, 0, nxh, ny, t.data()), 8.0f);
  EXPECT_EQ(hd_ctfw_at(0, 7, nxh, ny, t.data()), 2.0f);   // row 7 is frequency -1
  EXPECT_EQ(hd_ctfw_at(4, 4, nxh, ny, t.data()), 16.0f);  // the corner, radius limited to 4
  EXPECT_FLOAT_EQ(hd_ctfw_at(1, 1, nxh, ny, t.data()), 2.0f + (std::sqrt(2.0f) - 1.0f) * 2.0f);
}

TEST(Weights, BadParametersAreRefused) {
  Movie m;
  GPS_PARA p = para(4, 1, 0.0f);
  EXPECT_EXIT_REPORT(m.device_average(p), "mw_skeme must be 0 .*not 4! Exit now!");
  p = para(1, 0, 0.0f);
  EXPECT_EXIT_REPORT(m.device_average(p), "wnorm_type must be 1 .*not 0! Exit now!");
  std::vector<float> w(m.nxh * m.ny);
  p = para(-1, 1, 0.0f);
  EXPECT_EXIT_REPORT(hcuda_2d_fft_dose_dft_wgen(w.data(), m.nxh, m.ny, 1.0f, 1.0f, make_float2(0, 0), p),
                     "mw_skeme must be");
  std::vector<float2> out(m.nxh * m.ny);
  EXPECT_EXIT_REPORT(cpu_2ds_fft_dose_dft_ctf_wave(m.frames.data(), out.data(), m.nxh, m.ny, m.nz, 1.0f,
                                                   m.dose.data(), m.drift.data(), para(5, 1, 0.0f)),
                     "mw_skeme must be");
}

TEST(TextInputs, DoseDriftAndTableReaders) {
  TempFile good("# frame dose dx dy\n0 0.5 0.1 -0.2\n\n1: 1.5, 0.3, -0.4\n2;2.5;0.5;-0.6 extra\nshort 1\n");
  std::vector<float> dose(3);
  std::vector<float2> drift(3);
  std::string path = good.path;
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, &path[0]), 0);
  EXPECT_EQ(dose, (std::vector<float>{0.5f, 1.5f, 2.5f}));
  EXPECT_EQ(drift[2].x, 0.5f);
  EXPECT_EQ(drift[1].y, -0.4f);

  std::vector<float2> d4(4);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), d4.data(), 4, &path[0]), -1);  // a frame short
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Can not get lines from dose/drift log file"),
            std::string::npos);

  TempFile skipped("0 1 0 0\n2 1 0 0\n1 1 0 0\n");
  path = skipped.path;
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 3, &path[0]), -1);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Can not get dose/drift parameters"), std::string::npos);
  EXPECT_EXIT_REPORT(get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), 2, &path[0]),
                     "Critical ERROR! Too few Movie frames!! Exit now!");

  TempFile drifts("0 1 2\n1 3 4\n2 5 6\n");
  EXPECT_EQ(get_drift_from_txt(drift.data(), 3, drifts.path.c_str()), 0);
  EXPECT_EQ(drift[2].y, 6.0f);
  EXPECT_EXIT_REPORT(get_drift_from_txt(drift.data(), 1, drifts.path.c_str()), "Too few Movie frames");

  TempFile table("0 0.0 1.0\n1 x\n1 0.1 0.9\n2 0.2 0.5\n");
  std::vector<float> t(4, 7.0f);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_ctfw_from_txt(t.data(), 3, table.path.c_str()), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("CTFw text line format error!!"), std::string::npos);
  EXPECT_EQ(t, (std::vector<float>{1.0f, 0.9f, 0.5f, 7.0f}));
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_ctfw_from_txt(t.data(), 4, table.path.c_str()), -1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(t[3], 0.0f);  // cleared first
  EXPECT_EXIT_REPORT(get_drift_from_txt(drift.data(), 3, "/nonexistent/drift.txt"),
                     "Cannot open file /nonexistent/drift.txt.*open file '/nonexistent/drift.txt' failed");
}

// Two particles of four frames: every mode that averages gives back the mean of the range
// with no weighting, and mode 4 writes one weight map fewer than the range holds.
TEST(StackDriver, ModesOnASmallStack) {
  TempDir dir;
  const int nx = 8, ny = 6, fpp = 4, particles = 2;
  const auto stack = random_image(nx * ny * fpp * particles, 9);
  const std::string in = dir.file("movie.mrcs"), out = dir.file("avg.mrcs");
  mrcf_write_xyz_data(in.c_str(), stack.data(), nx, ny, fpp * particles);
  std::vector<float> dose = {1, 2, 3, 4}, ctfw(nx / 2 + 1, 1.0f);
  std::vector<float2> drift(4, make_float2(0.0f, 0.0f));
  for (int device = 1; device <= 3; ++device) {
    GPS_PARA p = para(0, 1, 0.0f);
    p.device = device;
    testing::internal::CaptureStdout();
    mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), fpp, 1, 99, 1.0f, dose.data(), drift.data(),
                                   ctfw.data(), p);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Particle 1 \n"), std::string::npos);
    std::vector<float> back(nx * ny * particles);
    MRC_HEAD h;
    mrcf_get_head_data(out.c_str(), &h, back.data());
    ASSERT_EQ(h.nz, particles);
    for (int q = 0; q < particles; ++q)
      for (int i = 0; i < nx * ny; ++i) {
        float mean = 0.0f;
        for (int z = 1; z < fpp; ++z) mean += stack[(q * fpp + z) * nx * ny + i] / 3.0f;
        ASSERT_NEAR(back[q * nx * ny + i], mean, 1e-5f) << "device " << device << " particle " << q;
      }
  }

  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  GPS_PARA p = para(1, 1, 0.0f);
  p.device = 4;
  testing::internal::CaptureStdout();
  mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), fpp, -3, 2, 1.0f, dose.data(), drift.data(), ctfw.data(),
                                 p);
  testing::internal::GetCapturedStdout();
  int wx = 0, wy = 0, wz = 0;
  get_mrcf_xyz(wx, wy, wz, "Weights3D.mrcs");
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ((std::vector<int>{wx, wy, wz}), (std::vector<int>{nx / 2 + 1, ny, 2}));

  EXPECT_EXIT_REPORT(mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), 3, 0, 2, 1.0f, dose.data(),
                                                    drift.data(), ctfw.data(), para(0, 1, 0.0f)),
                     "Movie frame number not divided by ! ! Exit now!");
  p.device = 5;
  EXPECT_EXIT_REPORT(mrcsf_dose_drift_ctf_wave_many(in.c_str(), out.c_str(), 4, 0, 2, 1.0f, dose.data(),
                                                    drift.data(), ctfw.data(), p),
                     "device must be 1");
}

}  // namespace
