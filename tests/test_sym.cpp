// Symmetry operators: the two file formats, inverses, and the point-group tables as groups.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "support/exit_report.h"
#include "support/temp_file.h"
#include "sym/sym.h"

namespace {

using RMAT_POINT_GROUPS::RMat;

void mult(const float* a, const float* b, double* c) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      c[i * 3 + j] = 0.0;
      for (int k = 0; k < 3; ++k) c[i * 3 + j] += double(a[i * 3 + k]) * b[k * 3 + j];
    }
}

int find(const RMat* table, int n, const double* m) {
  for (int s = 0; s < n; ++s) {
    double worst = 0.0;
    for (int i = 0; i < 9; ++i) worst = std::fmax(worst, std::fabs(table[s][i] - m[i]));
    if (worst < 1e-5) return s;
  }
  return -1;
}

// Closure, orthogonality, determinant 1, identity first, no element twice, and how many
// elements leave a given axis in place with a rotation of a given order.
void expect_group(const RMat* table, int n, const char* name) {
  SCOPED_TRACE(name);
  const double id[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  EXPECT_EQ(find(table, 1, id), 0);
  for (int a = 0; a < n; ++a) {
    const float* m = table[a];
    double mt[9];
    float t[9] = {m[0], m[3], m[6], m[1], m[4], m[7], m[2], m[5], m[8]};
    mult(m, t, mt);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(mt[i], id[i], 1e-6) << "not orthogonal: " << a;
    const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                       m[2] * (m[3] * m[7] - m[4] * m[6]);
    EXPECT_NEAR(det, 1.0, 1e-5) << a;
    double self[9];
    for (int i = 0; i < 9; ++i) self[i] = m[i];
    EXPECT_EQ(find(table, n, self), a) << "repeated element " << a;
    for (int b = 0; b < n; ++b) {
      double p[9];
      mult(table[a], table[b], p);
      ASSERT_GE(find(table, n, p), 0) << "not closed: " << a << " x " << b;
    }
  }
}

// The order of the largest rotation about the axis found in the table.
int axis_order(const RMat* table, int n, double x, double y, double z) {
  const double len = std::sqrt(x * x + y * y + z * z);
  int fixed = 0;
  for (int s = 0; s < n; ++s) {
    const float* m = table[s];
    const double rx = m[0] * x + m[1] * y + m[2] * z, ry = m[3] * x + m[4] * y + m[5] * z,
                 rz = m[6] * x + m[7] * y + m[8] * z;
    if (std::fabs(rx - x) + std::fabs(ry - y) + std::fabs(rz - z) < 1e-5 * len) ++fixed;
  }
  return fixed;
}

TEST(PointGroups, TablesAreGroupsOfTheirOrderAndSetting) {
  using namespace RMAT_POINT_GROUPS;
  const double g = (1.0 + std::sqrt(5.0)) / 2.0;
  expect_group(RMAT_PG_T1, 12, "T1");
  expect_group(RMAT_PG_O, 24, "O");
  expect_group(RMAT_PG_I1, 60, "I1");
  expect_group(RMAT_PG_I2, 60, "I2");
  expect_group(RMAT_PG_T2, 12, "T2 first 12");
  const double id[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  for (int s = 12; s < 24; ++s) EXPECT_EQ(find(RMAT_PG_T2 + s, 1, id), 0) << s;

  EXPECT_EQ(axis_order(RMAT_PG_T1, 12, 1, 0, 0), 2);
  EXPECT_EQ(axis_order(RMAT_PG_T1, 12, 1, 1, 1), 3);
  EXPECT_EQ(axis_order(RMAT_PG_T1, 12, -1, 1, 1), 3);
  EXPECT_EQ(axis_order(RMAT_PG_T2, 12, 0, 0, 1), 3);
  EXPECT_EQ(axis_order(RMAT_PG_O, 24, 0, 1, 0), 4);
  EXPECT_EQ(axis_order(RMAT_PG_O, 24, 1, 1, 1), 3);
  for (const RMat* t : {RMAT_PG_I1, RMAT_PG_I2})
    for (int axis = 0; axis < 3; ++axis) EXPECT_EQ(axis_order(t, 60, axis == 0, axis == 1, axis == 2), 2);
  for (double sy : {1.0, -1.0}) {
    EXPECT_EQ(axis_order(RMAT_PG_I1, 60, 0, sy, g), 5);
    EXPECT_EQ(axis_order(RMAT_PG_I1, 60, sy * g, 0, 1), 5);  // cyclic permutation (b, 0, a)
    EXPECT_EQ(axis_order(RMAT_PG_I2, 60, sy, 0, g), 5);
    EXPECT_EQ(axis_order(RMAT_PG_I2, 60, 0, sy * g, 1), 5);
    EXPECT_EQ(axis_order(RMAT_PG_I1, 60, sy, 0, g), 1);  // the other setting's axis is not one here
  }
}

const char kOFile2D[] =
    "comment line\n"
    ".NCS_symmetry_operators 1\n 0 -1\n1 0\n 2.5 -3\n"
    "other text between\n\n"
    ".ncs_symmetry_operators 2\n1 0\n0 1\n0 0\n";

TEST(OStyleFile, ReadsOperatorsAndSkipsOtherLines) {
  TempFile f2(kOFile2D);
  std::vector<RT_Mat2D> s2{rtmat2d_identity()};
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_syms2d_from_ofile(s2, f2.path.c_str()), 0);
  const std::string printed = testing::internal::GetCapturedStdout();
  ASSERT_EQ(s2.size(), 2u);
  EXPECT_EQ(s2[0].R12, -1.0f);
  EXPECT_EQ(s2[0].R21, 1.0f);
  EXPECT_EQ(s2[0].Tx, 2.5f);
  EXPECT_EQ(s2[0].Ty, -3.0f);
  EXPECT_NE(printed.find("  0.000000 -1.000000  1.000000  0.000000  2.500000 -3.000000\n"), std::string::npos);

  TempFile f3(".ncs_symmetry_operators\n0 0 1\n1 0 0\n0 1 0\n4 5 6\n");
  std::vector<RT_Mat3D> s3;
  EXPECT_EQ(get_syms3d_from_ofile(s3, f3.path.c_str()), 0);
  ASSERT_EQ(s3.size(), 1u);
  EXPECT_EQ(s3[0].R13, 1.0f);
  EXPECT_EQ(s3[0].R32, 1.0f);
  EXPECT_EQ(s3[0].Tz, 6.0f);

  TempFile none("nothing here\n");
  EXPECT_EQ(get_syms3d_from_ofile(s3, none.path.c_str()), -1);
  EXPECT_TRUE(s3.empty());
  EXPECT_EQ(get_syms2d_from_ofile(s2, none.path.c_str()), 0);  // the 2D form leaves the check to its caller
  EXPECT_TRUE(s2.empty());
}

TEST(OStyleFile, MissingRowOrWrongWidthIsTheFormatError) {
  // A fourth row missing at the end of the file: never the numbers of a previous operator.
  TempFile short3(".ncs_symmetry_operators\n1 0 0\n0 1 0\n0 0 1\n");
  std::vector<RT_Mat3D> s3;
  EXPECT_EXIT_REPORT(get_syms3d_from_ofile(s3, short3.path.c_str()), "Unknown symmetry file format! Exit now!");
  TempFile wide2(".ncs_symmetry_operators\n1 0\n0 1 7\n0 0\n");
  std::vector<RT_Mat2D> s2;
  EXPECT_EXIT_REPORT(get_syms2d_from_ofile(s2, wide2.path.c_str()), "Unknown symmetry file format! Exit now!");
  EXPECT_EXIT_REPORT(get_syms2d_from_ofile(s2, "/nonexistent/ops"),
                     "Cannot open file /nonexistent/ops. Permission denied or wrong file name.\n.*open file "
                     "'/nonexistent/ops' failed.! Exit now!");
}

const char kMFile[] =
    "symmetry_operators C3\n"
    "1 0 0 0 1 0 0 0 1\n"
    "0 -1 0 1 0 0 0 0 1 1 2 3\n"
    "operators_end\n"
    "symmetry_operators D2\n"
    "1 0 0 0 -1 0 0 0 -1\n"
    "1 2 3\n"
    "operators_end\n"
    "SYMMETRY_OPERATORS c3\n"
    "-1 0 0 0 -1 0 0 0 1\n"
    "operators_end\n";

TEST(MatrixFile, BlocksByNameInAnyCaseAndAll) {
  TempFile f(kMFile);
  std::vector<RT_Mat3D> c3;
  EXPECT_EQ(get_syms3d_from_mfile(c3, f.path.c_str(), "c3"), 0);
  ASSERT_EQ(c3.size(), 3u);  // both C3 blocks add up
  EXPECT_EQ(c3[0].Tx, 0.0f);  // nine numbers: no translation
  EXPECT_EQ(c3[1].R12, -1.0f);
  EXPECT_EQ(c3[1].Tz, 3.0f);
  EXPECT_EQ(c3[2].R11, -1.0f);

  std::vector<RT_Mat3D> all{RT_Mat3D{}};
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_syms3d_from_mfile(all, f.path.c_str(), "all"), 0);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(all.size(), 4u);  // the 3-number line is skipped
  EXPECT_NE(printed.find("Vector mvec not empty!"), std::string::npos);
  EXPECT_NE(printed.find("Unknown symmetry matrix format! Line skipped!"), std::string::npos);
  EXPECT_EQ(printed.find("R11"), std::string::npos);  // rows alone

  std::vector<R_Mat3D> rot;
  EXPECT_EQ(get_syms3d_from_mfile(rot, f.path.c_str(), nullptr), 0);
  EXPECT_EQ(rot.size(), 3u);  // R_Mat3D takes nine numbers only
  EXPECT_EQ(get_syms3d_from_mfile(rot, f.path.c_str(), "D5"), -1);
  EXPECT_TRUE(rot.empty());

  TempFile f2("symmetry_operators P2\n-1 0 0 -1 10 4\nOPERATORS_END\n1 0 0 1 7 7\n");
  std::vector<RT_Mat2D> s2;
  EXPECT_EQ(get_syms2d_from_mfile(s2, f2.path.c_str(), "p2"), 0);
  ASSERT_EQ(s2.size(), 1u);
  EXPECT_EQ(s2[0].Tx, 10.0f);
}

TEST(Records, SetRejectsOtherCountsAndKeepsTheRecord) {
  char a[] = "2", *tokens[12];
  for (char*& t : tokens) t = a;
  RT_Mat3D m;
  testing::internal::CaptureStdout();
  EXPECT_EQ(m.set(tokens, 10), -1);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("RT_Mat3D requires at 9 or 12 elements!"), std::string::npos);
  EXPECT_EQ(m.R11, 1.0f);
  EXPECT_EQ(m.R12, 0.0f);
  EXPECT_EQ(m.set(tokens, 12), 0);
  EXPECT_EQ(m.Tz, 2.0f);
}

TEST(Inverses, ComposeToIdentityForGeneralMatrices) {
  const RT_Mat2D m2{1.5f, -0.5f, 0.25f, 2.0f, 3.0f, -7.0f};
  const RT_Mat2D i2 = rtmat2d_inverse(m2);
  // m2 after its inverse, applied to points.
  for (float px : {0.0f, 4.0f})
    for (float py : {-2.0f, 5.0f}) {
      const float qx = i2.R11 * px + i2.R12 * py + i2.Tx, qy = i2.R21 * px + i2.R22 * py + i2.Ty;
      EXPECT_NEAR(m2.R11 * qx + m2.R12 * qy + m2.Tx, px, 1e-5);
      EXPECT_NEAR(m2.R21 * qx + m2.R22 * qy + m2.Ty, py, 1e-5);
    }
  RT_Mat3D m3;
  const float v[12] = {2, 1, 0, -1, 3, 1, 0.5f, 0, 1, 1, -2, 4};
  float* f = &m3.R11;
  for (int i = 0; i < 12; ++i) f[i] = v[i];
  const RT_Mat3D i3 = rtmat3d_inverse(m3);
  const float p[3] = {1.0f, -3.0f, 2.0f};
  const float* r = &i3.R11;
  float q[3];
  for (int k = 0; k < 3; ++k) q[k] = r[3 * k] * p[0] + r[3 * k + 1] * p[1] + r[3 * k + 2] * p[2] + r[9 + k];
  for (int k = 0; k < 3; ++k)
    EXPECT_NEAR(f[3 * k] * q[0] + f[3 * k + 1] * q[1] + f[3 * k + 2] * q[2] + f[9 + k], p[k], 1e-5) << k;

  std::vector<RT_Mat2D> list{m2, rtmat2d_identity()};
  RT_Mat2D arr[2];
  sym2d_vector_to_inverse_syms(arr, list);
  sym2d_vector_inverse_inplace(list);
  EXPECT_EQ(arr[0].Tx, list[0].Tx);
  EXPECT_EQ(arr[0].R12, i2.R12);
  EXPECT_EQ(list[1].R11, 1.0f);
}

}  // namespace
