// Symmetry operators of the image toolkit's averaging: the operator file and the inverses.
#include <gtest/gtest.h>

#include <vector>

#include "support/exit_report.h"
#include "support/temp_file.h"
#include "sym/sym.h"

namespace {

TEST(OStyleFile, ReadsOperatorsAndRefusesMalformedOnes) {
  TempFile f2(
      ".NCS_symmetry_operators 1\n 0 -1\n1 0\n 2.5 -3\nother text\n\n.ncs_symmetry_operators 2\n1 0\n0 1\n0 0\n");
  std::vector<RT_Mat2D> s2{rtmat2d_identity()};
  EXPECT_EQ(get_syms2d_from_ofile(s2, f2.path.c_str()), 0);
  ASSERT_EQ(s2.size(), 2u);
  EXPECT_EQ((std::vector<float>{s2[0].R11, s2[0].R12, s2[0].R21, s2[0].R22, s2[0].Tx, s2[0].Ty}),
            (std::vector<float>{0, -1, 1, 0, 2.5f, -3}));
  TempFile none("nothing here\n");
  EXPECT_EQ(get_syms2d_from_ofile(s2, none.path.c_str()), 0);  // the 2D form leaves the check to its caller
  EXPECT_TRUE(s2.empty());
  TempFile wide2(".ncs_symmetry_operators\n1 0\n0 1 7\n0 0\n");
  EXPECT_EXIT_REPORT(get_syms2d_from_ofile(s2, wide2.path.c_str()), "Unknown symmetry file format! Exit now!");
  EXPECT_EXIT_REPORT(get_syms2d_from_ofile(s2, "/nonexistent/ops"),
                     "Cannot open file /nonexistent/ops. Permission denied or wrong file name.\n.*open file "
                     "'/nonexistent/ops' failed.! Exit now!");
}

TEST(Inverses, ComposeToIdentityForAGeneralMatrix) {
  const RT_Mat2D m2{1.5f, -0.5f, 0.25f, 2.0f, 3.0f, -7.0f};
  std::vector<RT_Mat2D> list{m2};
  RT_Mat2D i2;
  sym2d_vector_to_inverse_syms(&i2, list);
  // The inverse of (4, -2), mapped forward again.
  const float qx = i2.R11 * 4.0f - i2.R12 * 2.0f + i2.Tx, qy = i2.R21 * 4.0f - i2.R22 * 2.0f + i2.Ty;
  EXPECT_NEAR(m2.R11 * qx + m2.R12 * qy + m2.Tx, 4.0f, 1e-5);
  EXPECT_NEAR(m2.R21 * qx + m2.R22 * qy + m2.Ty, -2.0f, 1e-5);
}

}  // namespace
