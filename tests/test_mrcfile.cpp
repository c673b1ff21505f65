// MRC heads, reading in every mode, writing, names, and refusal of files that lie about
// their sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "mrcfile/mrcfile.h"
#include "support/device_data.h"
#include "support/exit_report.h"
#include "support/temp_dir.h"

namespace {

// Bytes of a file made of a head (defaults with the given sizes and mode) and raw data.
std::vector<unsigned char> mrc_bytes(int nx, int ny, int nz, int mode, const std::vector<unsigned char>& data) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, mode);
  std::vector<unsigned char> bytes(sizeof(head) + data.size());
  std::memcpy(bytes.data(), &head, sizeof(head));
  std::copy(data.begin(), data.end(), bytes.begin() + sizeof(head));
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

std::vector<float> stats(const MRC_HEAD& h) { return {h.amin, h.amax, h.amean}; }

// An open file and its head, closed at the end of the scope.
struct OpenMrc {
  FILE* f;
  MRC_HEAD h;
  explicit OpenMrc(const std::string& path) : f(std::fopen(path.c_str(), "r")) { mrc_read_head(f, &h); }
  ~OpenMrc() { std::fclose(f); }
};

TEST(MrcHead, LayoutDefaultsAndModeNames) {
  const size_t offsets[][2] = {{offsetof(MRC_HEAD, mode), 12},   {offsetof(MRC_HEAD, mapc), 64},
                               {offsetof(MRC_HEAD, amin), 76},   {offsetof(MRC_HEAD, next), 92},
                               {offsetof(MRC_HEAD, cid), 96},    {offsetof(MRC_HEAD, xorigin), 196},
                               {offsetof(MRC_HEAD, map), 208},   {offsetof(MRC_HEAD, labels), 224}};
  for (const auto& o : offsets) EXPECT_EQ(o[0], o[1]);
  MRC_HEAD* h = mrc_new_head();
  EXPECT_EQ(std::vector<double>({double(h->nx), double(h->mode), double(h->mapr), h->amax, h->amean, double(h->cid)}),
            std::vector<double>({1, 2, 2, 255, 128, 1000}));
  EXPECT_EQ(std::memcmp(h->map, "MAP DA\0", 7), 0);  // stamp, then the little-endian machine stamp

  const std::pair<int, const char*> cases[] = {{0, "Byte"},  {1, "Short"},          {2, "Float"},
                                               {6, "Unsigned Short"}, {16, "RGB"},   {5, "Unknown"},
                                               {22, "Complex Float (Amp, Deg)"}, {23, "Unknown"}, {-1, "Unknown"}};
  for (auto& c : cases) {
    h->mode = c.first;
    EXPECT_STREQ(mrc_get_head_mode(h), c.second) << c.first;
  }
  mrc_delete_head(h);
}

TEST(MrcHead, StampIsRepairedOnlyWhenTheThreeLettersAreMissing) {
  TempDir dir;
  auto bytes = mrc_bytes(2, 2, 1, 2, float_bytes({1, 2, 3, 4}));
  const char* cases[][2] = {{"XYZW1234", "MAP DA\0\0"}, {"MAPQ1234", "MAPQ1234"}};
  for (const auto& c : cases) {
    std::memcpy(&bytes[208], c[0], 8);
    write_file_bytes(dir.file("a.mrc"), bytes);
    MRC_HEAD h;
    mrcf_read_head(dir.file("a.mrc").c_str(), &h);
    EXPECT_EQ(std::memcmp(h.map, c[1], 8), 0) << c[0];
    EXPECT_EQ(mrc_check_head(&h), 0);
  }
  MRC_HEAD h;
  mrc_init_head(&h);
  std::memset(h.map, 0, 4);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrc_check_head(&h), -1);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Not a valid mrc file head!"), std::string::npos);
}

TEST(MrcRead, SlicesAlongEachAxis) {
  TempDir dir;
  const int nx = 3, ny = 2, nz = 4;
  auto data = ramp(nx * ny * nz);
  write_file_bytes(dir.file("v.mrc"), mrc_bytes(nx, ny, nz, 2, float_bytes(data)));
  OpenMrc m(dir.file("v.mrc"));
  std::vector<float> out(12, -99.0f);
  mrc_read_slice(m.f, &m.h, 2, 'Z', out.data());  // either letter case names the axis
  for (int i = 0; i < nx * ny; ++i) EXPECT_EQ(out[i], data[2 * nx * ny + i]);
  mrc_read_slice(m.f, &m.h, 1, 'y', out.data());  // nx columns, nz rows
  for (int z = 0; z < nz; ++z)
    for (int x = 0; x < nx; ++x) EXPECT_EQ(out[z * nx + x], data[z * nx * ny + nx + x]);
  mrc_read_slice(m.f, &m.h, 2, 'x', out.data());  // y fastest, then z
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y) EXPECT_EQ(out[z * ny + y], data[z * nx * ny + y * nx + 2]);
  std::vector<float> untouched(12, -7.0f);
  EXPECT_EQ(mrc_read_slice(m.f, &m.h, 0, 'q', untouched.data()), 0);
  EXPECT_EQ(untouched[0], -7.0f);
}

// Data start at byte 1024 whatever the extended-header size says; bytes past the promised data are
// refused by the whole-file read but not by the slice reader.
TEST(MrcRead, ExtraBytesFailWholeReadButNotSlices) {
  TempDir dir;
  auto ext = mrc_bytes(2, 1, 1, 2, float_bytes({5, 6, 7}));
  const int32_t next = 4;
  std::memcpy(&ext[92], &next, 4);
  auto one_byte = mrc_bytes(2, 1, 1, 2, float_bytes({5, 6}));
  one_byte.push_back(0);
  for (const auto& bytes : {ext, one_byte}) {
    write_file_bytes(dir.file("x.mrc"), bytes);
    float v[2] = {0, 0};
    mrcf_read_slice(dir.file("x.mrc").c_str(), 0, 'z', v);
    EXPECT_EQ(v[0], 5.0f);
    EXPECT_EQ(v[1], 6.0f);
    EXPECT_EXIT_REPORT(mrcf_read_all(dir.file("x.mrc").c_str(), v), "File size error!! Exit now!");
  }
}

TEST(MrcRead, UntrustworthyFilesStopTheRun) {
  TempDir dir;
  const std::string truncated = dir.file("short.mrc");
  write_file_bytes(truncated, mrc_bytes(4, 4, 2, 2, float_bytes(ramp(20))));  // 32 promised
  std::vector<float> v(16);
  mrcf_read_slice(truncated.c_str(), 0, 'z', v.data());  // slice 0 is complete
  EXPECT_EXIT_REPORT(mrcf_read_slice(truncated.c_str(), 1, 'z', v.data()),
                     "short\\.mrc is too short .* 4 x 4 x 2 .* 1152 bytes, but the file has 1104");
  for (int n : {2, -1}) {
    SCOPED_TRACE(n);
    EXPECT_EXIT_REPORT(mrcf_read_slice(truncated.c_str(), n, 'z', v.data()), "");
  }

  const std::string zero = dir.file("zero.mrc");
  write_file_bytes(zero, mrc_bytes(0, 4, 1, 2, {}));
  EXPECT_EXIT_REPORT(mrcf_read_slice(zero.c_str(), 0, 'z', v.data()),
                     "mrc_read_slice\\(\\), file src/mrcfile .*zero\\.mrc has sizes 0 x 4 x 1 .* all must be positive");

  // Sizes whose product would overflow are refused before any allocation.
  const std::string huge = dir.file("huge.mrc");
  write_file_bytes(huge, mrc_bytes(1 << 20, 1 << 20, 1, 2, float_bytes({1, 2})));
  EXPECT_EXIT_REPORT(mrcf_get_data_sliceN(huge.c_str(), 0), "");
  EXPECT_EXIT_REPORT(mrcf_get_data_all(huge.c_str()), "");
  EXPECT_EXIT_REPORT(mrcf_read_head(dir.file("missing.mrc").c_str(), nullptr), "");

  // Modes whose size is unknown or unchecked.
  write_file_bytes(dir.file("c3.mrc"), mrc_bytes(1, 1, 1, 3, {1, 2, 3, 4}));
  std::fill(v.begin(), v.end(), -5.0f);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mrcf_read_all(dir.file("c3.mrc").c_str(), v.data()), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("File type unknown!!"), std::string::npos);
  EXPECT_EQ(v[0], -5.0f);
  write_file_bytes(dir.file("rgb.mrc"), mrc_bytes(1, 1, 1, 16, {1, 2, 3}));
  EXPECT_EXIT_REPORT(mrcf_read_all(dir.file("rgb.mrc").c_str(), v.data()), "");
  // A rgb stack or complex file is silently left unread by the slice reader.
  EXPECT_EQ(mrcf_read_slice(dir.file("rgb.mrc").c_str(), 0, 'z', v.data()), 0);
  EXPECT_EQ(v[0], -5.0f);
}

TEST(MrcRead, SubAreaAndGrids) {
  TempDir dir;
  const int nx = 6, ny = 5;
  auto data = ramp(nx * ny);
  write_file_bytes(dir.file("g.mrc"), mrc_bytes(nx, ny, 1, 2, float_bytes(data)));
  std::vector<float> box(6);  // 3 x 2 from (1, 2)
  mrcf_read_sub_area(dir.file("g.mrc").c_str(), box.data(), 1, 2, 0, 3, 2, 1);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) EXPECT_EQ(box[y * 3 + x], data[(2 + y) * nx + 1 + x]);
  // box 3, step 2: gx = (6-3)/2+1 = 2, gy = (5-3)/2+1 = 2
  std::vector<float> tiles(4 * 9, -1.0f);
  OpenMrc m(dir.file("g.mrc"));
  mrc_2d_read_grids(m.f, &m.h, tiles.data(), 3, 2);
  EXPECT_EQ(tiles[3 * 9 + 0], data[2 * nx + 2]);  // tile (1,1) corner at (2,2)
  EXPECT_EQ(tiles[1 * 9 + 4], data[1 * nx + 3]);  // tile (c=1,r=0), pixel (1,1)
  auto bytes = mrc_bytes(nx, ny, 1, 2, float_bytes(data));
  bytes.resize(bytes.size() - 4);
  write_file_bytes(dir.file("cut.mrc"), bytes);
  EXPECT_EXIT_REPORT(mrcf_read_sub_area(dir.file("cut.mrc").c_str(), box.data(), 0, 0, 0, 1, 1, 1), "is too short");
  write_file_bytes(dir.file("s.mrc"), mrc_bytes(2, 2, 1, 1, {0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EXIT_REPORT(mrcf_read_sub_area(dir.file("s.mrc").c_str(), box.data(), 0, 0, 0, 1, 1, 1), "");
}

TEST(MrcRead, ByteAndDoubleSlices) {
  TempDir dir;
  const float data[3] = {0.0f, 5.0f, 10.0f};
  mrcf_write_xyz_data(dir.file("b.mrc").c_str(), data, 3, 1, 1);  // amin 0, amax 10
  OpenMrc m(dir.file("b.mrc"));
  std::vector<unsigned char> b(3);
  double d[3];
  mrc_read_slice_byte(m.f, &m.h, 0, 'z', b.data());
  EXPECT_EQ(b, (std::vector<unsigned char>{255, 127, 0}));  // contrast inverted
  mrc_read_slice_double(m.f, &m.h, 0, 'z', d);
  EXPECT_EQ(d[1], 5.0);
  // Along y and x of a 3 x 2 x 4 volume, as the float reader gives them; an unknown axis reads nothing.
  mrcf_write_xyz_data(dir.file("v.mrc").c_str(), ramp(24).data(), 3, 2, 4);
  OpenMrc v(dir.file("v.mrc"));
  for (char axis : {'y', 'x'}) {
    std::vector<float> f(12, -1.0f);
    std::vector<double> dd(12, -1.0);
    mrc_read_slice(v.f, &v.h, 1, axis, f.data());
    mrc_read_slice_double(v.f, &v.h, 1, axis, dd.data());
    EXPECT_EQ(std::vector<double>(f.begin(), f.end()), dd) << axis;
  }
  d[0] = -3.0;
  for (char axis : {'q', '~'}) EXPECT_EQ(mrc_read_slice_double(v.f, &v.h, 0, axis, d), 0);
  EXPECT_EQ(d[0], -3.0);
  // The byte reader takes modes 0, 1 and 2 only.
  write_file_bytes(dir.file("u6.mrc"), mrc_bytes(2, 1, 1, 6, {1, 0, 2, 0}));
  OpenMrc u(dir.file("u6.mrc"));
  EXPECT_EQ(mrc_read_slice_byte(u.f, &u.h, 0, 'z', b.data()), 0);
  EXPECT_EQ(b, (std::vector<unsigned char>{255, 127, 0}));
}

TEST(MrcNames, Suffixes) {
  char out[1024];
  const char* cases[][3] = {{"dir/mic_001.mrcs", "_pickora.box", "dir/mic_001_pickora.box"},
                            {"mic.mrc", "_bg.mrc", "mic_bg.mrc"},
                            {"mic.MRC", "_bg.mrc", "mic.MRC_bg.mrc"}};  // upper case is no suffix
  testing::internal::CaptureStdout();
  for (const auto& c : cases) {
    mrcf_set_outname_by_suffix(out, c[0], c[1]);
    EXPECT_STREQ(out, c[2]);
  }
  const std::string warned = testing::internal::GetCapturedStdout();
  const std::string warning = "Warning in function get_micrograph_suffixn(), file src/mrcfile on line";
  EXPECT_NE(warned.find(warning), std::string::npos);
  EXPECT_EQ(warned.find(warning), warned.rfind(warning));  // only the upper-case name warns
  EXPECT_NE(warned.find(":Micrograph suffix must be .mrc or .mrcs!\n\033[m"), std::string::npos);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_micrograph_suffixn("a.m"), 0);
  EXPECT_EQ(get_micrograph_suffixn(".mrc"), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(get_micrograph_suffixn("x.mrcs"), 5);
  EXPECT_EQ(mrcf_set_outname_by_insertion(out, "a/b.mrcs", "_ctf"), 0);
  EXPECT_STREQ(out, "a/b_ctf.mrcs");
  EXPECT_EQ(mrcf_replace_file_suffix(out, "a/b.mrcs", ".star"), 0);
  EXPECT_STREQ(out, "a/b.star");
  mrcf_set_outname_by_suffix(out, (std::string(1100, 'n') + ".mrc").c_str(), "_x.box");
  EXPECT_EQ(std::strlen(out), 1023u);  // bounded, terminated
}

// The path readers that check the sizes first: the data when they match, -1 and nothing read
// otherwise. A 3 x 2 x 2 file, so that every swap of two sizes shows.
TEST(MrcRead, CheckedReadersAndDimensionKeywords) {
  TempDir dir;
  const std::string path = dir.file("c.mrc");
  const std::vector<float> data = ramp(12);
  mrcf_write_xyz_data(path.c_str(), data.data(), 3, 2, 2);
  const struct {
    const char* what;
    int (*read)(const char*, float*);
    bool reads;
  } cases[] = {
      {"xy", [](const char* p, float* d) { return mrcf_read_data_check_xy(p, d, 3, 2); }, true},
      {"yx", [](const char* p, float* d) { return mrcf_read_data_check_xy(p, d, 2, 3); }, false},
      {"x, more rows", [](const char* p, float* d) { return mrcf_read_data_check_xy(p, d, 3, 3); }, false},
      {"xyz", [](const char* p, float* d) { return mrcf_read_data_check_xyz(p, d, 3, 2, 2); }, true},
      {"xyz, nz 1", [](const char* p, float* d) { return mrcf_read_data_check_xyz(p, d, 3, 2, 1); }, false},
      {"xyz, nz -1", [](const char* p, float* d) { return mrcf_read_data_check_xyz(p, d, 3, 2, -1); }, false},
      {"nocheck", [](const char* p, float* d) { MRC_HEAD h; return mrcf_read_head_data_nocheck(p, &h, d); }, true},
      {"slice, cid", [](const char* p, float* d) { return mrcf_read_slice_check_xy_cid(p, 1, 'z', d, 3, 2, 1000); },
       true},
      {"slice, other cid", [](const char* p, float* d) { return mrcf_read_slice_check_xy_cid(p, 1, 'z', d, 3, 2, 7); },
       false},
      {"slice, ny for nx", [](const char* p, float* d) { return mrcf_read_slice_check_xy_cid(p, 1, 'z', d, 2, 2, 1000); },
       false},
  };
  for (const auto& c : cases) {
    std::vector<float> got(12, -9.0f);
    EXPECT_EQ(c.read(path.c_str(), got.data()), c.reads ? 0 : -1) << c.what;
    const bool slice = std::string(c.what).rfind("slice", 0) == 0;
    std::vector<float> want(12, -9.0f);
    if (c.reads) std::copy(data.begin() + (slice ? 6 : 0), slice ? data.begin() + 12 : data.end(), want.begin());
    EXPECT_EQ(got, want) << c.what;
  }
  const std::pair<const char*, int64_t> sizes[] = {{"x", 3},  {"Y", 2},  {"z", 2},  {"xy", 6},  {"yx", 6},  {"xz", 6},
                                                   {"zx", 6}, {"yz", 4}, {"zy", 4}, {"xyz", 12}, {"w", -1}};
  testing::internal::CaptureStdout();
  for (const auto& [word, size] : sizes) EXPECT_EQ(mrcf_get_dim_size(path.c_str(), word), size) << word;
  EXPECT_NE(testing::internal::GetCapturedStdout().find("unrecognized dimension keywords w !"), std::string::npos);
}

TEST(MrcHead, SizeQueriesAndComparison) {
  MRC_HEAD a, b;
  mrc_init_head(&a);
  mrc_set_head_xyz(&a, 4096, 4095, 1);
  EXPECT_EQ(std::vector<int>({mrc_check_even_size(&a), is_mrc_square(&a)}), std::vector<int>({-1, 0}));
  mrc_set_head_xyz(&a, 8, 8, 8);
  EXPECT_EQ(std::vector<int>({mrc_check_even_size(&a), is_mrc_square(&a), is_mrc_cube(&a)}),
            std::vector<int>({0, 1, 1}));
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
  EXPECT_EXIT_REPORT(check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b), "");
  EXPECT_EXIT_REPORT(sorrel_check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b),
                     "Micrograph .*a\\.mrc.* has a different size .*combine the particles.*Float +a\\.mrc\n"
                     " +8 +8 +8 +Short +b\\.mrc");
}

TEST(MrcWrite, HeadFieldSetters) {
  MRC_HEAD h;
  mrc_init_head(&h);
  mrc_set_head_xyz_mmm(&h, 2, 3, 4, 9.0f, -1.0f, 2.0f);
  EXPECT_EQ(stats(h), (std::vector<float>{-1.0f, 9.0f, 2.0f}));
  std::memset(h.map, 0, 8);
  TempDir dir;
  FILE* f = std::fopen(dir.file("h.mrc").c_str(), "w+");
  testing::internal::CaptureStdout();
  mrc_write_head(f, &h);
  EXPECT_NE(testing::internal::GetCapturedStdout().find(":MRC format problem! Check file format!\n!\n\033[m"),
            std::string::npos);
  std::fclose(f);
  auto bytes = read_binary_file(dir.file("h.mrc"));
  ASSERT_EQ(bytes.size(), 1024u);
  EXPECT_EQ(std::memcmp(bytes.data(), &h, 1024), 0);  // written unchanged
}

TEST(MrcWrite, UpdateHeadRecomputesStatistics) {
  TempDir dir;
  const std::string path = dir.file("u.mrc");
  MRC_HEAD h;
  const struct {
    int mode, ny, nz;
    std::vector<unsigned char> bytes;
    std::vector<float> stats;
  } cases[] = {{1, 1, 2, {0xFE, 0xFF, 2, 0, 4, 0, 8, 0}, {-2.0f, 8.0f, 3.0f}},  // -2, 2 | 4, 8: two sections
               {0, 2, 1, {1, 2, 3, 4}, {1.0f, 4.0f, 2.5f}},
               {6, 2, 1, {0xFE, 0xFF, 2, 0, 4, 0, 8, 0}, {0.0f, 0.0f, 0.0f}}};  // no statistics for mode 6
  for (const auto& c : cases) {
    write_file_bytes(path, mrc_bytes(2, c.ny, c.nz, c.mode, c.bytes));
    testing::internal::CaptureStdout();
    mrcf_update_head(path.c_str());
    const std::string said = testing::internal::GetCapturedStdout();
    mrcf_read_head(path.c_str(), &h);
    EXPECT_EQ(stats(h), c.stats) << c.mode;
    EXPECT_EQ(read_binary_file(path).size(), 1024u + c.bytes.size()) << c.mode;
    EXPECT_EQ(said, std::string(c.mode == 6 ? "" : "updating head!") + "updating head finished!") << c.mode;
  }
  EXPECT_EXIT_REPORT(mrcf_update_head(dir.file("gone.mrc").c_str()), "Cannot open file");

  // One column of every row and section replaced in place; columns outside are refused.
  mrcf_write_xyz_data(path.c_str(), ramp(12).data(), 3, 2, 2);
  const std::vector<float> column = {40, 41, 42, 43};
  FILE* f = std::fopen(path.c_str(), "r+");
  mrc_update_slcX(f, 2, column.data());
  for (int x : {-1, 3, 4}) EXPECT_EXIT_REPORT(mrc_update_slcX(f, x, column.data()), "outside an image of 3 columns");
  std::fclose(f);
  std::vector<float> want = ramp(12), back(12);
  for (int k = 0; k < 4; ++k) want[k * 3 + 2] = column[k];
  mrcf_read_all(path.c_str(), back.data());
  EXPECT_EQ(back, want);
}

// Every other way in and out of a file agrees with the plain writer and reader: the device
// writers, slices placed by number and the head copied through the pair openers give the same
// bytes, and the size, managed and sub-area readers give what was written. 5 x 3 x 2, so that a
// swap of any two sizes shows.
TEST(MrcRoundTrip, EveryWriterAndReaderAgrees) {
  TempDir dir;
  const int nx = 5, ny = 3, nz = 2, n = nx * ny * nz;
  const std::vector<float> data = ramp(n, 0.5f);
  const std::string ref = dir.file("ref.mrc"), out = dir.file("out.mrc");
  write_file_text(ref, std::string(5000, 'x'));  // an existing file is replaced
  mrcf_write_xyz_data(ref.c_str(), data.data(), nx, ny, nz);
  const std::vector<unsigned char> want = read_binary_file(ref);
  EXPECT_EQ(want.size(), 1024u + n * 4u);
  float* device = to_device(data);
  DeviceFrees frees(device);
  MRC_HEAD head;
  auto fresh_head = [&] {
    mrc_init_head(&head);
    mrc_set_head_xyz_mmmm(&head, nx, ny, nz, 0.0f, 0.0f, 0.0f, MRC_MODE_FLOAT);
    return &head;
  };
  const struct {
    const char* what;
    std::function<void()> write;
  } writers[] = {
      {"device by path, sizes", [&] { mrcf_write_xyz_ddata(out.c_str(), device, nx, ny, nz); }},
      {"device by path", [&] { EXPECT_EQ(mrcf_write_head_ddata(out.c_str(), fresh_head(), device), 0); }},
      {"slices placed by number", [&] {
         fresh_head();
         mrc_set_head_mmm_from_data(&head, data.data(), n);
         mrc_new_file(out.c_str(), &head);
         FILE* f = std::fopen(out.c_str(), "r+");
         for (int z = nz - 1; z >= 0; --z) mrc_add_sliceN(f, &head, data.data() + z * nx * ny, z);
         std::fclose(f);
       }},
      {"head copied through io", [&] {
         FILE *in = nullptr, *o = nullptr;
         MRC_HEAD in_head, out_head;
         ASSERT_EQ(mrcf_io_open_io_read_write_head(ref.c_str(), out.c_str(), in, o, &in_head, &out_head), 0);
         std::fwrite(data.data(), sizeof(float), n, o);
         std::fclose(in);
         std::fclose(o);
       }},
  };
  for (const auto& w : writers) {
    w.write();
    EXPECT_EQ(read_binary_file(out), want) << w.what;
  }
  const float one = 2.75f;  // one value is its own minimum, maximum and mean
  mrcf_write_xyz_data(out.c_str(), &one, 1, 1, 1);
  mrcf_read_head(out.c_str(), &head);
  EXPECT_EQ(stats(head), (std::vector<float>{one, one, one}));
  EXPECT_EXIT_REPORT(mrcf_write_xyz_data("/nonexistent-folder/x.mrc", &one, 1, 1, 1), "");

  // The pair openers: the output head is the input's; a missing input or an uncreatable output
  // gives -1 (the file that did open is still handed back).
  const std::string gone = dir.file("gone.mrc"), unwritable = dir.file("no-such-folder/out.mrc");
  auto close_both = [](FILE*& a, FILE*& b) {
    for (FILE** f : {&a, &b})
      if (*f != nullptr) std::fclose(*f), *f = nullptr;
  };
  for (const auto& [from, to, result] : {std::make_tuple(ref, out, 0), std::make_tuple(gone, out, -1),
                                         std::make_tuple(ref, unwritable, -1)}) {
    FILE *in = nullptr, *o = nullptr;
    MRC_HEAD *in_head = nullptr, *out_head = nullptr;
    EXPECT_EQ(mrcf_io_init(from.c_str(), to.c_str(), in, o, in_head, out_head), result) << from << " " << to;
    if (result == 0) {
      EXPECT_EQ(std::memcmp(in_head, out_head, sizeof(MRC_HEAD)), 0);
      EXPECT_EQ(std::vector<int>({in_head->nx, in_head->ny, in_head->nz}), std::vector<int>({nx, ny, nz}));
    }
    mrc_delete_head(in_head);
    mrc_delete_head(out_head);
    close_both(in, o);
    EXPECT_EQ(mrcf_io_open_io_read_write_head(from.c_str(), to.c_str(), in, o, &head, &head), result) << from;
    close_both(in, o);
  }

  int x = 0, y = 0, z = 0;
  EXPECT_EQ(get_mrcf_xyz(x, y, z, ref.c_str()) + mrcf_read_head(ref.c_str(), &head), 0);
  EXPECT_EQ(std::vector<int>({x, y, z}), std::vector<int>({nx, ny, nz}));
  x = y = 0;
  EXPECT_EQ(get_mrcf_xy(x, y, ref.c_str()), 0);
  EXPECT_EQ(std::vector<int>({x, y}), std::vector<int>({nx, ny}));
  float* managed = mrcf_get_zdata_all(ref.c_str());
  EXPECT_EQ(std::vector<float>(managed, managed + n), data);
  cudaFree(managed);

  OpenMrc m(ref);
  std::vector<float> area(6, -9.0f);
  mrc_read_sub_area(m.f, &m.h, area.data(), 2, 1, 1, 3, 2, 1);
  for (int j = 0; j < 2; ++j)
    for (int i = 0; i < 3; ++i) EXPECT_EQ(area[j * 3 + i], data[nx * ny + (1 + j) * nx + 2 + i]);
  for (auto box : {std::vector<int>{3, 1, 0, 3, 2, 1}, {2, 2, 0, 3, 2, 1}, {0, 0, 1, 1, 1, 2}, {-1, 0, 0, 1, 1, 1}, {0, 0, 0, 1, 1, -1}})
    EXPECT_THROW(mrc_read_sub_area(m.f, &m.h, area.data(), box[0], box[1], box[2], box[3], box[4], box[5]),
                 pickora::FatalError);
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
    ASSERT_EQ((std::vector<int>{h.nx, h.ny, h.nz}), (std::vector<int>{7, 5, 3}));
    const auto expected = read_binary_file(name + ".f32");
    ASSERT_EQ(expected.size(), back.size() * 4);
    EXPECT_EQ(std::memcmp(expected.data(), back.data(), expected.size()), 0) << "mode " << mode;
  }
}

}  // namespace
