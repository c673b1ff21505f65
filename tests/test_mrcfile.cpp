// MRC heads, reading in every mode, writing, names, and refusal of files that lie about
// their sizes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <unistd.h>
#include <string>
#include <vector>

#include "cuda_general/platform.h"
#include "mrcfile/mrcfile.h"
#include "support/temp_dir.h"

namespace {

// Bytes of a file made of a head (defaults with the given sizes and mode) and raw data.
std::vector<unsigned char> mrc_bytes(int nx, int ny, int nz, int mode, const std::vector<unsigned char>& data) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, mode);
  std::vector<unsigned char> bytes(sizeof(head));
  std::memcpy(bytes.data(), &head, sizeof(head));
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

std::vector<unsigned char> float_bytes(const std::vector<float>& v) {
  std::vector<unsigned char> b(v.size() * 4);
  std::memcpy(b.data(), v.data(), b.size());
  return b;
}

std::vector<float> ramp(size_t n, float scale = 1.0f) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = scale * static_cast<float>(i) - 3.0f;
  return v;
}

TEST(MrcHead, LayoutAndDefaults) {
  EXPECT_EQ(offsetof(MRC_HEAD, mode), 12u);
  EXPECT_EQ(offsetof(MRC_HEAD, xlen), 40u);
  EXPECT_EQ(offsetof(MRC_HEAD, mapc), 64u);
  EXPECT_EQ(offsetof(MRC_HEAD, amin), 76u);
  EXPECT_EQ(offsetof(MRC_HEAD, ispg), 88u);
  EXPECT_EQ(offsetof(MRC_HEAD, next), 92u);
  EXPECT_EQ(offsetof(MRC_HEAD, cid), 96u);
  EXPECT_EQ(offsetof(MRC_HEAD, xorigin), 196u);
  EXPECT_EQ(offsetof(MRC_HEAD, map), 208u);
  EXPECT_EQ(offsetof(MRC_HEAD, machst), 212u);
  EXPECT_EQ(offsetof(MRC_HEAD, nlabl), 220u);
  EXPECT_EQ(offsetof(MRC_HEAD, labels), 224u);
  MRC_HEAD* h = mrc_new_head();
  EXPECT_EQ(h->nx, 1);
  EXPECT_EQ(h->mode, 2);
  EXPECT_EQ(h->mapr, 2);
  EXPECT_EQ(h->amax, 255.0f);
  EXPECT_EQ(h->amean, 128.0f);
  EXPECT_EQ(h->cid, 1000);
  EXPECT_EQ(std::memcmp(h->map, "MAP ", 4), 0);
  EXPECT_EQ(h->machst[0], 0x44);
  EXPECT_EQ(h->machst[1], 0x41);
  EXPECT_EQ(h->machst[2], 0);
  mrc_delete_head(h);
}

TEST(MrcHead, ModeNames) {
  MRC_HEAD h;
  mrc_init_head(&h);
  const std::pair<int, const char*> cases[] = {{0, "Byte"},  {1, "Short"},          {2, "Float"},
                                               {6, "Unsigned Short"}, {16, "RGB"},   {5, "Unknown"},
                                               {22, "Complex Float (Amp, Deg)"}, {23, "Unknown"}, {-1, "Unknown"}};
  for (auto& c : cases) {
    h.mode = c.first;
    EXPECT_STREQ(mrc_get_head_mode(&h), c.second) << c.first;
  }
}

TEST(MrcHead, StampIsRepairedOnlyWhenTheThreeLettersAreMissing) {
  TempDir dir;
  auto bytes = mrc_bytes(2, 2, 1, 2, float_bytes({1, 2, 3, 4}));
  std::memcpy(&bytes[208], "XYZW1234", 8);
  write_file_bytes(dir.file("a.mrc"), bytes);
  MRC_HEAD h;
  mrcf_read_head(dir.file("a.mrc").c_str(), &h);
  EXPECT_EQ(std::memcmp(h.map, "MAP DA\0\0", 8), 0);
  EXPECT_EQ(mrc_check_head(&h), 0);

  std::memcpy(&bytes[208], "MAPQ", 4);
  write_file_bytes(dir.file("b.mrc"), bytes);
  mrcf_read_head(dir.file("b.mrc").c_str(), &h);
  EXPECT_EQ(std::memcmp(h.map, "MAPQ", 4), 0);
}

TEST(MrcRead, IntegerModesConvert) {
  TempDir dir;
  write_file_bytes(dir.file("m0.mrc"), mrc_bytes(2, 1, 1, 0, {200, 7}));
  write_file_bytes(dir.file("m1.mrc"), mrc_bytes(2, 1, 1, 1, {0xFF, 0xFF, 0x10, 0x00}));
  write_file_bytes(dir.file("m6.mrc"), mrc_bytes(2, 1, 1, 6, {0xFF, 0xFF, 0x10, 0x00}));
  float v[2] = {0, 0};
  mrcf_read_slice(dir.file("m0.mrc").c_str(), 0, 'z', v);
  EXPECT_EQ(v[0], 200.0f);
  EXPECT_EQ(v[1], 7.0f);
  mrcf_read_slice(dir.file("m1.mrc").c_str(), 0, 'Z', v);
  EXPECT_EQ(v[0], -1.0f);
  EXPECT_EQ(v[1], 16.0f);
  mrcf_read_all(dir.file("m6.mrc").c_str(), v);
  EXPECT_EQ(v[0], 65535.0f);
}

TEST(MrcRead, SlicesAlongEachAxis) {
  TempDir dir;
  const int nx = 3, ny = 2, nz = 4;
  auto data = ramp(nx * ny * nz);
  write_file_bytes(dir.file("v.mrc"), mrc_bytes(nx, ny, nz, 2, float_bytes(data)));
  FILE* f = std::fopen(dir.file("v.mrc").c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  std::vector<float> out(12, -99.0f);
  mrc_read_slice(f, &h, 2, 'z', out.data());
  for (int i = 0; i < nx * ny; ++i) EXPECT_EQ(out[i], data[2 * nx * ny + i]);
  mrc_read_slice(f, &h, 1, 'y', out.data());  // nx columns, nz rows
  for (int z = 0; z < nz; ++z)
    for (int x = 0; x < nx; ++x) EXPECT_EQ(out[z * nx + x], data[z * nx * ny + nx + x]);
  mrc_read_slice(f, &h, 2, 'x', out.data());  // y fastest, then z
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y) EXPECT_EQ(out[z * ny + y], data[z * nx * ny + y * nx + 2]);
  std::vector<float> untouched(12, -7.0f);
  EXPECT_EQ(mrc_read_slice(f, &h, 0, 'q', untouched.data()), 0);
  EXPECT_EQ(untouched[0], -7.0f);
  std::fclose(f);
}

TEST(MrcRead, ExtendedHeaderIsReadAsData) {
  TempDir dir;
  auto bytes = mrc_bytes(2, 1, 1, 2, float_bytes({5, 6, 7}));  // one float too many
  int32_t next = 4;
  std::memcpy(&bytes[92], &next, 4);
  write_file_bytes(dir.file("e.mrc"), bytes);
  float v[2];
  mrcf_read_slice(dir.file("e.mrc").c_str(), 0, 'z', v);
  EXPECT_EQ(v[0], 5.0f);  // data start at 1024 regardless of next
  EXPECT_EXIT(mrcf_read_all(dir.file("e.mrc").c_str(), v), testing::ExitedWithCode(1), "");
}

TEST(MrcRead, SizeCheckByMode) {
  TempDir dir;
  write_file_bytes(dir.file("c3.mrc"), mrc_bytes(1, 1, 1, 3, {1, 2, 3, 4}));
  float v[2] = {-5.0f, -5.0f};
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrcf_read_all(dir.file("c3.mrc").c_str(), v), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("File type unknown!!"), std::string::npos);
  EXPECT_EQ(v[0], -5.0f);

  write_file_bytes(dir.file("rgb.mrc"), mrc_bytes(1, 1, 1, 16, {1, 2, 3}));
  FILE* f = std::fopen(dir.file("rgb.mrc").c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrc_check_fsize(f, &h), -1);
  testing::internal::GetCapturedStdout();
  std::fclose(f);
  EXPECT_EXIT(mrcf_read_all(dir.file("rgb.mrc").c_str(), v), testing::ExitedWithCode(1), "");

  // A rgb stack or complex file is silently left unread by the slice reader.
  EXPECT_EQ(mrcf_read_slice(dir.file("rgb.mrc").c_str(), 0, 'z', v), 0);
  EXPECT_EQ(v[0], -5.0f);
}

TEST(MrcRead, OneByteTooLongFailsWholeReadButNotSlices) {
  TempDir dir;
  auto bytes = mrc_bytes(2, 1, 1, 2, float_bytes({1.5f, 2.5f}));
  bytes.push_back(0);
  write_file_bytes(dir.file("long.mrc"), bytes);
  float v[2] = {0, 0};
  mrcf_read_slice(dir.file("long.mrc").c_str(), 0, 'z', v);
  EXPECT_EQ(v[1], 2.5f);
  EXPECT_EXIT(
      {
        dup2(2, 1);  // death tests match what reaches stderr
        mrcf_read_all(dir.file("long.mrc").c_str(), v);
      },
      testing::ExitedWithCode(1), "File size error!! Exit now!");
}

TEST(MrcRead, UntrustworthyFilesStopTheRunWithTheirName) {
  TempDir dir;
  const std::string truncated = dir.file("truncated.mrc");
  write_file_bytes(truncated, mrc_bytes(4, 4, 2, 2, float_bytes(ramp(20))));  // 32 promised
  std::vector<float> v(16);
  mrcf_read_slice(truncated.c_str(), 0, 'z', v.data());  // slice 0 is complete
  EXPECT_EXIT(mrcf_read_slice(truncated.c_str(), 1, 'z', v.data()), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(mrcf_read_slice(truncated.c_str(), 2, 'z', v.data()), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(mrcf_read_slice(truncated.c_str(), -1, 'z', v.data()), testing::ExitedWithCode(1), "");

  const std::string zero = dir.file("zero.mrc");
  write_file_bytes(zero, mrc_bytes(0, 4, 1, 2, {}));
  EXPECT_EXIT(mrcf_read_slice(zero.c_str(), 0, 'z', v.data()), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(mrcf_get_data_sliceN(zero.c_str(), 0), testing::ExitedWithCode(1), "");

  // Sizes whose product would overflow are refused before any allocation.
  const std::string huge = dir.file("huge.mrc");
  write_file_bytes(huge, mrc_bytes(1 << 20, 1 << 20, 1, 2, float_bytes({1, 2})));
  EXPECT_EXIT(mrcf_get_data_sliceN(huge.c_str(), 0), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(mrcf_get_data_all(huge.c_str()), testing::ExitedWithCode(1), "");

  // The message names the file.
  testing::internal::CaptureStdout();
  EXPECT_EXIT(
      {
        std::printf("%s", "");
        mrcf_read_slice(truncated.c_str(), 1, 'z', v.data());
      },
      testing::ExitedWithCode(1), "");
  testing::internal::GetCapturedStdout();
  EXPECT_EXIT(mrcf_read_head(dir.file("missing.mrc").c_str(), nullptr), testing::ExitedWithCode(1), "");
}

TEST(MrcRead, ReportOfATruncatedFileNamesFileAndSizes) {
  TempDir dir;
  const std::string truncated = dir.file("short.mrc");
  write_file_bytes(truncated, mrc_bytes(4, 4, 2, 2, float_bytes(ramp(20))));
  std::vector<float> v(16);
  // Death tests can only match stderr, so send the report there for this one check.
  EXPECT_EXIT(
      {
        dup2(2, 1);
        mrcf_read_slice(truncated.c_str(), 1, 'z', v.data());
      },
      testing::ExitedWithCode(1), "short\\.mrc is too short .* 4 x 4 x 2 .* 1152 bytes, but the file has 1104");
}

TEST(MrcRead, SubAreaAndGrids) {
  TempDir dir;
  const int nx = 6, ny = 5;
  auto data = ramp(nx * ny);
  write_file_bytes(dir.file("g.mrc"), mrc_bytes(nx, ny, 1, 2, float_bytes(data)));
  std::vector<float> box(6);
  mrcf_read_sub_area(dir.file("g.mrc").c_str(), box.data(), 1, 2, 0, 3, 2, 1);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) EXPECT_EQ(box[y * 3 + x], data[(2 + y) * nx + 1 + x]);
  FILE* f = std::fopen(dir.file("g.mrc").c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  // box 3, step 2: gx = (6-3)/2+1 = 2, gy = (5-3)/2+1 = 2
  std::vector<float> tiles(4 * 9, -1.0f);
  mrc_2d_read_grids(f, &h, tiles.data(), 3, 2);
  EXPECT_EQ(tiles[3 * 9 + 0], data[2 * nx + 2]);  // tile (1,1) corner at (2,2)
  EXPECT_EQ(tiles[1 * 9 + 4], data[1 * nx + 3]);  // tile (c=1,r=0), pixel (1,1)
  std::fclose(f);
  write_file_bytes(dir.file("s.mrc"), mrc_bytes(2, 2, 1, 1, {0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EXIT(mrcf_read_sub_area(dir.file("s.mrc").c_str(), box.data(), 0, 0, 0, 1, 1, 1), testing::ExitedWithCode(1),
              "");
}

TEST(MrcRead, ByteAndDoubleSlices) {
  TempDir dir;
  auto bytes = mrc_bytes(3, 1, 1, 2, float_bytes({0.0f, 5.0f, 10.0f}));
  MRC_HEAD h;
  std::memcpy(&h, bytes.data(), sizeof(h));
  h.amin = 0.0f;
  h.amax = 10.0f;
  std::memcpy(bytes.data(), &h, sizeof(h));
  write_file_bytes(dir.file("b.mrc"), bytes);
  FILE* f = std::fopen(dir.file("b.mrc").c_str(), "r");
  mrc_read_head(f, &h);
  unsigned char b[3];
  double d[3];
  mrc_read_slice_byte(f, &h, 0, 'z', b);
  EXPECT_EQ(b[0], 255);  // contrast inverted
  EXPECT_EQ(b[1], 127);
  EXPECT_EQ(b[2], 0);
  mrc_read_slice_double(f, &h, 0, 'z', d);
  EXPECT_EQ(d[1], 5.0);
  std::fclose(f);
}

TEST(MrcNames, Suffixes) {
  char out[1024];
  mrcf_set_outname_by_suffix(out, "dir/mic_001.mrcs", "_pickora.box");
  EXPECT_STREQ(out, "dir/mic_001_pickora.box");
  mrcf_set_outname_by_suffix(out, "mic.mrc", "_bg.mrc");
  EXPECT_STREQ(out, "mic_bg.mrc");
  testing::internal::CaptureStdout();
  mrcf_set_outname_by_suffix(out, "mic.MRC", "_bg.mrc");  // upper case is no suffix
  std::string warned = testing::internal::GetCapturedStdout();
  EXPECT_STREQ(out, "mic.MRC_bg.mrc");
  EXPECT_NE(warned.find("Warning in function get_micrograph_suffixn(), file src/mrcfile on line"), std::string::npos);
  EXPECT_NE(warned.find(":Micrograph suffix must be .mrc or .mrcs!\n\033[m"), std::string::npos);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_micrograph_suffixn("a.m"), 0);
  EXPECT_EQ(get_micrograph_suffixn(".mrc"), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(get_micrograph_suffixn("x.mrcs"), 5);
  mrcf_set_outname_by_insertion(out, "a/b.mrcs", "_ctf");
  EXPECT_STREQ(out, "a/b_ctf.mrcs");
  std::string long_name(1100, 'n');
  long_name += ".mrc";
  mrcf_set_outname_by_suffix(out, long_name.c_str(), "_x.box");
  EXPECT_EQ(std::strlen(out), 1023u);  // bounded, terminated
}

TEST(MrcHead, SizeQueriesAndComparison) {
  MRC_HEAD a, b;
  mrc_init_head(&a);
  mrc_set_head_xyz(&a, 4096, 4095, 1);
  EXPECT_EQ(mrc_check_even_size(&a), -1);
  EXPECT_EQ(is_mrc_square(&a), 0);
  mrc_set_head_xyz(&a, 8, 8, 8);
  EXPECT_EQ(mrc_check_even_size(&a), 0);
  EXPECT_EQ(is_mrc_cube(&a), 1);
  b = a;
  EXPECT_EQ(check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b), 0);
  b.mode = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(check_mrc_head_sizes_two_warning("a.mrc", "b.mrc", &a, &b), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[1ma.mrc\033[m has a different size or format from  \033[1mb.mrc\033[m.\nCheck if all the "
            "micrographs are the same sizes and format? \n       Nx      Ny      Nz      Mode             File:\n"
            "      8       8       8       Float               a.mrc\n"
            "      8       8       8       Short               b.mrc\n");
  EXPECT_EXIT(check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b), testing::ExitedWithCode(1), "");
}

TEST(MrcWrite, RoundTripStatisticsAndExactSize) {
  TempDir dir;
  const std::string path = dir.file("w.mrc");
  write_file_text(path, std::string(5000, 'x'));  // an existing file is replaced
  auto data = ramp(5 * 3 * 2, 0.5f);
  mrcf_write_xyz_data(path.c_str(), data.data(), 5, 3, 2);
  EXPECT_EQ(read_file_bytes(path).size(), 1024u + 30u * 4u);
  MRC_HEAD h;
  std::vector<float> back(30);
  mrcf_get_head_data(path.c_str(), &h, back.data());
  EXPECT_EQ(back, data);
  EXPECT_EQ(h.nx, 5);
  EXPECT_EQ(h.nz, 2);
  EXPECT_EQ(h.amin, -3.0f);
  EXPECT_EQ(h.amax, 11.5f);
  EXPECT_FLOAT_EQ(h.amean, 4.25f);
  EXPECT_EQ(h.cid, 1000);
  EXPECT_EQ(std::memcmp(h.map, "MAP ", 4), 0);

  float one = 2.75f;
  mrcf_write_xyz_data(path.c_str(), &one, 1, 1, 1);
  mrcf_read_head(path.c_str(), &h);
  EXPECT_EQ(h.amin, one);
  EXPECT_EQ(h.amax, one);
  EXPECT_EQ(h.amean, one);
}

TEST(MrcWrite, DeviceDataIsWrittenUnchanged) {
  TempDir dir;
  auto data = ramp(64);
  float* d = nullptr;
  ASSERT_EQ(cudaMalloc(reinterpret_cast<void**>(&d), data.size() * 4), cudaSuccess);
  ASSERT_EQ(cudaMemcpy(d, data.data(), data.size() * 4, cudaMemcpyHostToDevice), cudaSuccess);
  mrcf_write_xyz_ddata(dir.file("d.mrc").c_str(), d, 8, 8, 1);
  float* back = mrcf_get_data_all(dir.file("d.mrc").c_str());
  EXPECT_EQ(std::memcmp(back, data.data(), data.size() * 4), 0);
  std::free(back);
  cudaFree(d);
}

TEST(MrcWrite, HeadFieldSetters) {
  MRC_HEAD h;
  mrc_init_head(&h);
  mrc_set_head_xyz_mmm(&h, 2, 3, 4, 9.0f, -1.0f, 2.0f);
  EXPECT_EQ(h.amin, -1.0f);
  EXPECT_EQ(h.amax, 9.0f);
  EXPECT_EQ(h.amean, 2.0f);
  std::memset(h.map, 0, 8);
  TempDir dir;
  FILE* f = std::fopen(dir.file("h.mrc").c_str(), "w+");
  testing::internal::CaptureStdout();
  mrc_write_head(f, &h);
  EXPECT_NE(testing::internal::GetCapturedStdout().find(":MRC format problem! Check file format!\n!\n\033[m"),
            std::string::npos);
  std::fclose(f);
  auto bytes = read_file_bytes(dir.file("h.mrc"));
  ASSERT_EQ(bytes.size(), 1024u);
  EXPECT_EQ(std::memcmp(bytes.data(), &h, 1024), 0);  // written unchanged
}

TEST(MrcWrite, AppendingImages) {
  TempDir dir;
  const std::string path = dir.file("stack.mrcs");
  auto first = ramp(6);
  mrcf_write_xyz_data(path.c_str(), first.data(), 3, 2, 1);
  MRC_HEAD before;
  mrcf_read_head(path.c_str(), &before);
  auto more = ramp(12, 10.0f);
  mrcf_add_xyz_data(path.c_str(), more.data(), 3, 2, 2);
  FILE* f = std::fopen(path.c_str(), "r");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(h.nz, 3);
  EXPECT_EQ(mrc_check_fsize(f, &h), 0);
  EXPECT_EQ(h.amax, before.amax);  // statistics are those of the first images
  std::vector<float> slice(6);
  mrc_read_slice(f, &h, 2, 'z', slice.data());
  EXPECT_EQ(slice[0], more[6]);
  std::fclose(f);
  const auto bytes = read_file_bytes(path);
  EXPECT_EXIT(mrcf_add_xyz_data(path.c_str(), more.data(), 2, 3, 1), testing::ExitedWithCode(1), "");
  EXPECT_EQ(read_file_bytes(path), bytes);  // the file stays as it was
}

TEST(MrcWrite, UnwritableFolderIsFatal) {
  float v = 1.0f;
  EXPECT_EXIT(mrcf_write_xyz_data("/nonexistent-folder/x.mrc", &v, 1, 1, 1), testing::ExitedWithCode(1), "");
}

TEST(MrcWrite, UpdateHeadRecomputesStatistics) {
  TempDir dir;
  const std::string path = dir.file("u.mrc");
  write_file_bytes(path, mrc_bytes(2, 2, 1, 1, {0xFE, 0xFF, 2, 0, 4, 0, 8, 0}));  // -2, 2, 4, 8
  testing::internal::CaptureStdout();
  mrcf_update_head(path.c_str());
  testing::internal::GetCapturedStdout();
  MRC_HEAD h;
  mrcf_read_head(path.c_str(), &h);
  EXPECT_EQ(h.amin, -2.0f);
  EXPECT_EQ(h.amax, 8.0f);
  EXPECT_EQ(h.amean, 3.0f);
  EXPECT_EQ(read_file_bytes(path).size(), 1024u + 8u);
}

// An independent reader and writer of the format checks ours both ways.
TEST(MrcInterop, PythonMrcfileAgrees) {
  TempDir dir;
  auto data = ramp(7 * 5 * 3, 0.25f);
  mrcf_write_xyz_data(dir.file("ours.mrc").c_str(), data.data(), 7, 5, 3);
  const std::string script = std::string(PICKORA_SOURCE_DIR) + "/tests/python/mrc_interop.py";
  const std::string cmd = "/usr/bin/python3 " + script + " " + dir.path();
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  // The script wrote a pattern in modes 0, 1, 2 and 6, each with the floats we must read.
  for (int mode : {0, 1, 2, 6}) {
    const std::string name = dir.file("m" + std::to_string(mode));
    MRC_HEAD h;
    std::vector<float> back(7 * 5 * 3);
    mrcf_get_head_data((name + ".mrc").c_str(), &h, back.data());
    EXPECT_EQ(h.mode, mode);
    ASSERT_EQ(h.nx, 7);
    ASSERT_EQ(h.ny, 5);
    ASSERT_EQ(h.nz, 3);
    const auto expected = read_file_bytes(name + ".f32");
    ASSERT_EQ(expected.size(), back.size() * 4);
    EXPECT_EQ(std::memcmp(expected.data(), back.data(), expected.size()), 0) << "mode " << mode;
  }
}

}  // namespace
