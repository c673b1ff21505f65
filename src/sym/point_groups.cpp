// The point-group tables, generated once at start-up from their rules: the signed permutation
// matrices for the tetrahedral and octahedral groups, and the closure of two generators for the
// icosahedral ones. Work is in double precision; the tables are rounded to float at the end.
#include <array>
#include <cmath>
#include <vector>

#include "sym/sym.h"

namespace {

using M3 = std::array<double, 9>;

M3 identity() { return M3{1, 0, 0, 0, 1, 0, 0, 0, 1}; }

M3 multiply(const M3& a, const M3& b) {
  M3 c{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) c[i * 3 + j] += a[i * 3 + k] * b[k * 3 + j];
  return c;
}

M3 transpose(const M3& a) { return M3{a[0], a[3], a[6], a[1], a[4], a[7], a[2], a[5], a[8]}; }

double determinant(const M3& a) {
  return a[0] * (a[4] * a[8] - a[5] * a[7]) - a[1] * (a[3] * a[8] - a[5] * a[6]) + a[2] * (a[3] * a[7] - a[4] * a[6]);
}

bool same(const M3& a, const M3& b) {
  for (int i = 0; i < 9; ++i)
    if (std::fabs(a[i] - b[i]) > 1e-9) return false;
  return true;
}

// Rotation by angle about a unit axis (Rodrigues).
M3 axis_rotation(double x, double y, double z, double angle) {
  const double n = std::sqrt(x * x + y * y + z * z);
  x /= n, y /= n, z /= n;
  const double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
  return M3{t * x * x + c,     t * x * y - s * z, t * x * z + s * y, t * x * y + s * z, t * y * y + c,
            t * y * z - s * x, t * x * z - s * y, t * y * z + s * x, t * z * z + c};
}

// Every rotation that maps the axes onto signed axes; with `even` only the even permutations
// with an even number of sign changes (the tetrahedral subgroup). The identity comes first.
std::vector<M3> signed_permutations(bool even) {
  static const int perms[6][3] = {{0, 1, 2}, {1, 2, 0}, {2, 0, 1}, {0, 2, 1}, {2, 1, 0}, {1, 0, 2}};
  std::vector<M3> out;
  for (int p = 0; p < (even ? 3 : 6); ++p)
    for (int signs = 0; signs < 8; ++signs) {
      M3 m{};
      for (int row = 0; row < 3; ++row) m[row * 3 + perms[p][row]] = (signs >> row) & 1 ? -1.0 : 1.0;
      if (determinant(m) > 0) out.push_back(m);
    }
  return out;
}

// The smallest set closed under multiplication that holds the generators, identity first.
std::vector<M3> closure(const std::vector<M3>& generators) {
  std::vector<M3> group{identity()};
  for (size_t i = 0; i < group.size(); ++i)
    for (const M3& g : generators) {
      const M3 p = multiply(group[i], g);
      bool known = false;
      for (const M3& h : group) known = known || same(h, p);
      if (!known) group.push_back(p);
    }
  return group;
}

// A five-fold about the given axis with a two-fold about z generate the icosahedral group: the
// only proper subgroup holding a five-fold is the dihedral one, whose two-folds are normal to it.
std::vector<M3> icosahedral(double x, double y, double z) {
  return closure({axis_rotation(x, y, z, 2.0 * M_PI / 5.0), axis_rotation(0, 0, 1, M_PI)});
}

const double kGolden = (1.0 + std::sqrt(5.0)) / 2.0;

// The tetrahedral group turned so that its body diagonal (1, 1, 1) lies on z.
std::vector<M3> tetrahedral_threefold_on_z() {
  const double tilt = std::acos(1.0 / std::sqrt(3.0));
  const M3 turn = axis_rotation(1.0, -1.0, 0.0, tilt);  // takes (1, 1, 1) / sqrt 3 to z
  std::vector<M3> out;
  for (const M3& g : signed_permutations(true)) out.push_back(multiply(multiply(turn, g), transpose(turn)));
  out.resize(24, identity());
  return out;
}

// One static table per group, kept apart by a tag.
template <int N, int Tag>
const RMAT_POINT_GROUPS::RMat* make_table(const std::vector<M3>& group) {
  static float table[N][9];
  for (int s = 0; s < N; ++s)
    for (int i = 0; i < 9; ++i) table[s][i] = static_cast<float>(group[s][i]);
  return table;
}

}  // namespace

namespace RMAT_POINT_GROUPS {
const RMat* const RMAT_PG_T1 = make_table<kT1Slots, 1>(signed_permutations(true));
const RMat* const RMAT_PG_T2 = make_table<kT2Slots, 2>(tetrahedral_threefold_on_z());
const RMat* const RMAT_PG_O = make_table<kOSlots, 3>(signed_permutations(false));
const RMat* const RMAT_PG_I1 = make_table<kI1Slots, 4>(icosahedral(0.0, 1.0, kGolden));
const RMat* const RMAT_PG_I2 = make_table<kI2Slots, 5>(icosahedral(1.0, 0.0, kGolden));
}  // namespace RMAT_POINT_GROUPS
