// Symmetry operators: the two file formats, inverses, and the point-group tables as groups.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "support/exit_report.h"
#include "support/temp_file.h"
#include "sym/sym.h"

namespace {

using RMAT_POINT_GROUPS::RMat;

// The slot of the table holding m (to 1e-5), or -1.
int find(const RMat* table, int n, const double* m) {
  for (int s = 0; s < n; ++s) {
    double worst = 0.0;
    for (int i = 0; i < 9; ++i) worst = std::fmax(worst, std::fabs(table[s][i] - m[i]));
    if (worst < 1e-5) return s;
  }
  return -1;
}

// The product a b, or a b^T when `transposed`, in double.
std::array<double, 9> product(const float* a, const float* b, bool transposed) {
  std::array<double, 9> p{};
  for (int i = 0; i < 9; ++i)
    for (int k = 0; k < 3; ++k) p[i] += double(a[i / 3 * 3 + k]) * (transposed ? b[i % 3 * 3 + k] : b[k * 3 + i % 3]);
  return p;
}

// Identity first, orthogonal (a a^T is the identity), determinant 1, no element twice, closed.
void expect_group(const RMat* t, int n) {
  const double id[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  ASSERT_EQ(find(t, 1, id), 0);
  for (int a = 0; a < n; ++a) {
    const float* m = t[a];
    const double det =
        m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) + m[2] * (m[3] * m[7] - m[4] * m[6]);
    EXPECT_NEAR(det, 1.0, 1e-5) << a;
    EXPECT_EQ(find(t, 1, product(m, m, true).data()), 0) << "not orthogonal: " << a;
    EXPECT_EQ(find(t, n, product(m, t[0], false).data()), a) << "repeated element " << a;  // a times the identity
    for (int b = 0; b < n; ++b)
      ASSERT_GE(find(t, n, product(m, t[b], false).data()), 0) << "not closed: " << a << " x " << b;
  }
}

// How many elements leave the axis in place: the order of the rotations about it.
int axis_order(const RMat* t, int n, double x, double y, double z) {
  int fixed = 0;
  for (int s = 0; s < n; ++s) {
    const float* m = t[s];
    fixed += std::fabs(m[0] * x + m[1] * y + m[2] * z - x) + std::fabs(m[3] * x + m[4] * y + m[5] * z - y) +
                 std::fabs(m[6] * x + m[7] * y + m[8] * z - z) <
             1e-5;
  }
  return fixed;
}

TEST(PointGroups, TablesAreGroupsOfTheirOrderAndSetting) {
  using namespace RMAT_POINT_GROUPS;
  const double g = (1.0 + std::sqrt(5.0)) / 2.0;
  for (const RMat* t : {RMAT_PG_T1, RMAT_PG_T2}) expect_group(t, 12);
  expect_group(RMAT_PG_O, 24);
  for (const RMat* t : {RMAT_PG_I1, RMAT_PG_I2}) expect_group(t, 60);
  EXPECT_EQ(axis_order(RMAT_PG_T2 + 12, 12, 0.3, 0.5, 0.7), 12);  // slots 13 to 24: the identity
  EXPECT_EQ(axis_order(RMAT_PG_T1, 12, 1, 0, 0), 2);
  EXPECT_EQ(axis_order(RMAT_PG_T1, 12, -1, 1, 1), 3);
  EXPECT_EQ(axis_order(RMAT_PG_T2, 12, 0, 0, 1), 3);
  EXPECT_EQ(axis_order(RMAT_PG_O, 24, 0, 1, 0), 4);
  for (int axis = 0; axis < 3; ++axis)
    for (const RMat* t : {RMAT_PG_I1, RMAT_PG_I2}) EXPECT_EQ(axis_order(t, 60, axis == 0, axis == 1, axis == 2), 2);
  for (double sy : {1.0, -1.0}) {
    EXPECT_EQ(axis_order(RMAT_PG_I1, 60, 0, sy, g), 5);
    EXPECT_EQ(axis_order(RMAT_PG_I1, 60, sy * g, 0, 1), 5);
    EXPECT_EQ(axis_order(RMAT_PG_I2, 60, sy, 0, g), 5);
    EXPECT_EQ(axis_order(RMAT_PG_I1, 60, sy, 0, g), 1);  // the other setting's axis
  }
}

TEST(OStyleFile, ReadsOperatorsAndRefusesTruncatedOnes) {
  TempFile f2(
      ".NCS_symmetry_operators 1\n 0 -1\n1 0\n 2.5 -3\nother text\n\n.ncs_symmetry_operators 2\n1 0\n0 1\n0 0\n");
  std::vector<RT_Mat2D> s2{rtmat2d_identity()};
  EXPECT_EQ(get_syms2d_from_ofile(s2, f2.path.c_str()), 0);
  ASSERT_EQ(s2.size(), 2u);
  EXPECT_EQ((std::vector<float>{s2[0].R11, s2[0].R12, s2[0].R21, s2[0].R22, s2[0].Tx, s2[0].Ty}),
            (std::vector<float>{0, -1, 1, 0, 2.5f, -3}));
  TempFile f3("x\n.ncs_symmetry_operators\n0 0 1\n1 0 0\n0 1 0\n4 5 6\n");
  std::vector<RT_Mat3D> s3;
  EXPECT_EQ(get_syms3d_from_ofile(s3, f3.path.c_str()), 0);
  ASSERT_EQ(s3.size(), 1u);
  EXPECT_EQ((std::vector<float>{s3[0].R13, s3[0].R21, s3[0].R32, s3[0].Tz}), (std::vector<float>{1, 1, 1, 6}));
  TempFile none("nothing here\n");
  EXPECT_EQ(get_syms3d_from_ofile(s3, none.path.c_str()), -1);
  EXPECT_EQ(get_syms2d_from_ofile(s2, none.path.c_str()), 0);  // the 2D form leaves the check to its caller
  EXPECT_TRUE(s2.empty() && s3.empty());
  TempFile short3(".ncs_symmetry_operators\n1 0 0\n0 1 0\n0 0 1\n");  // the fourth row missing
  EXPECT_EXIT_REPORT(get_syms3d_from_ofile(s3, short3.path.c_str()), "Unknown symmetry file format! Exit now!");
  TempFile wide2(".ncs_symmetry_operators\n1 0\n0 1 7\n0 0\n");
  EXPECT_EXIT_REPORT(get_syms2d_from_ofile(s2, wide2.path.c_str()), "Unknown symmetry file format! Exit now!");
  EXPECT_EXIT_REPORT(get_syms2d_from_ofile(s2, "/nonexistent/ops"),
                     "Cannot open file /nonexistent/ops. Permission denied or wrong file name.\n.*open file "
                     "'/nonexistent/ops' failed.! Exit now!");
}

TEST(MatrixFile, BlocksByNameInAnyCaseAndAll) {
  TempFile f(
      "symmetry_operators C3\n1 0 0 0 1 0 0 0 1\n0 -1 0 1 0 0 0 0 1 1 2 3\noperators_end\n"
      "symmetry_operators D2\n1 0 0 0 -1 0 0 0 -1\n1 2 3\noperators_end\n"
      "SYMMETRY_OPERATORS c3\n-1 0 0 0 -1 0 0 0 1\noperators_end\n");
  std::vector<RT_Mat3D> c3;
  EXPECT_EQ(get_syms3d_from_mfile(c3, f.path.c_str(), "c3"), 0);
  ASSERT_EQ(c3.size(), 3u);  // both C3 blocks add up
  EXPECT_EQ((std::vector<float>{c3[0].Tx, c3[1].R12, c3[1].Tz, c3[2].R11}), (std::vector<float>{0, -1, 3, -1}));
  std::vector<RT_Mat3D> all{RT_Mat3D{}};
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_syms3d_from_mfile(all, f.path.c_str(), "all"), 0);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(all.size(), 4u);  // the 3-number line is skipped with a warning
  EXPECT_NE(printed.find("Vector mvec not empty!"), std::string::npos);
  EXPECT_NE(printed.find("Unknown symmetry matrix format! Line skipped!"), std::string::npos);
  std::vector<R_Mat3D> rot;
  EXPECT_EQ(get_syms3d_from_mfile(rot, f.path.c_str(), nullptr), 0);
  EXPECT_EQ(rot.size(), 3u);  // R_Mat3D takes nine numbers only
  EXPECT_EQ(get_syms3d_from_mfile(rot, f.path.c_str(), "D5"), -1);
  TempFile f2("symmetry_operators P2\n-1 0 0 -1 10 4\nOPERATORS_END\n1 0 0 1 7 7\n");
  std::vector<RT_Mat2D> s2;
  EXPECT_EQ(get_syms2d_from_mfile(s2, f2.path.c_str(), "p2"), 0);
  ASSERT_EQ(s2.size(), 1u);
  EXPECT_EQ(s2[0].Tx, 10.0f);
}

TEST(Inverses, ComposeToIdentityForGeneralMatrices) {
  const RT_Mat2D m2{1.5f, -0.5f, 0.25f, 2.0f, 3.0f, -7.0f};
  std::vector<RT_Mat2D> list{m2};
  RT_Mat2D i2;
  sym2d_vector_to_inverse_syms(&i2, list);
  // The inverse of (4, -2), mapped forward again.
  const float qx = i2.R11 * 4.0f - i2.R12 * 2.0f + i2.Tx, qy = i2.R21 * 4.0f - i2.R22 * 2.0f + i2.Ty;
  EXPECT_NEAR(m2.R11 * qx + m2.R12 * qy + m2.Tx, 4.0f, 1e-5);
  EXPECT_NEAR(m2.R21 * qx + m2.R22 * qy + m2.Ty, -2.0f, 1e-5);
  sym2d_vector_inverse_inplace(list);
  EXPECT_EQ(list[0].Ty, i2.Ty);

  std::vector<std::string> words = {"2", "1", "0", "-1", "3", "1", "0.5", "0", "1", "1", "-2", "4"};
  char* tokens[12];
  for (int i = 0; i < 12; ++i) tokens[i] = &words[i][0];
  RT_Mat3D m3;
  EXPECT_EQ(m3.set(tokens, 10), -1);  // refused, record unchanged
  EXPECT_EQ(m3.R11, 1.0f);
  EXPECT_EQ(m3.set(tokens, 12), 0);
  const RT_Mat3D i3 = rtmat3d_inverse(m3);
  const float *f = &m3.R11, *r = &i3.R11, p[3] = {1.0f, -3.0f, 2.0f};
  float q[3];
  for (int k = 0; k < 3; ++k) q[k] = r[3 * k] * p[0] + r[3 * k + 1] * p[1] + r[3 * k + 2] * p[2] + r[9 + k];
  for (int k = 0; k < 3; ++k)
    EXPECT_NEAR(f[3 * k] * q[0] + f[3 * k + 1] * q[1] + f[3 * k + 2] * q[2] + f[9 + k], p[k], 1e-5) << k;
}

}  // namespace
