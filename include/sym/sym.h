// Symmetry operators: rotation matrices with an optional translation, in 2D and 3D, read from
// text files into lists, turned into arrays (as they are or inverted) for the averaging code,
// and the standard point groups as constant tables.
//
// Two file formats.
//   O-style: a line whose first token is ".ncs_symmetry_operators" opens one operator, followed
//     by its rows, one per line: 3D  "R11 R12 R13" "R21 R22 R23" "R31 R32 R33" "Tx Ty Tz";
//     2D  "R11 R12" "R21 R22" "Tx Ty". Lines between operators are passed over. A row with
//     another number of tokens, or a file that ends inside an operator, is a format error.
//   Matrix file: one operator per line, the numbers in field order, in named blocks opened by
//     "symmetry_operators NAME" and closed by "operators_end". A null block name or "ALL" (any
//     case) reads every operator line of the file; any other name only its blocks (any case;
//     blocks of the same name add up). A line with the wrong count is skipped with a warning.
//
// An operator maps a point p to R p + T. Its inverse is R^-1 p - R^-1 T, with R^-1 formed from
// the cofactors and the determinant in single precision (no orthogonality assumed; a singular
// matrix gives infinite or NaN entries).
#pragma once

#include <vector>

#include "sym/rt_mat2d.h"

// The identity with zero translation (RT_Mat2D is a plain aggregate without defaults).
inline RT_Mat2D rtmat2d_identity() { return RT_Mat2D{1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f}; }

// A 3D rotation and translation; a fresh record is the identity with zero translation.
struct RT_Mat3D {
  float R11 = 1.0f, R12 = 0.0f, R13 = 0.0f;
  float R21 = 0.0f, R22 = 1.0f, R23 = 0.0f;
  float R31 = 0.0f, R32 = 0.0f, R33 = 1.0f;
  float Tx = 0.0f, Ty = 0.0f, Tz = 0.0f;
  // Fills the record from 12 tokens (rotation by rows, then translation) or 9 (rotation only,
  // translation 0), each by strtod narrowed to float. Any other count prints the error form
  // and leaves the record as it was; returns 0, or -1 then.
  int set(char** tokens, int count);
};

// A 3D rotation alone; a fresh record is the identity.
struct R_Mat3D {
  float R11 = 1.0f, R12 = 0.0f, R13 = 0.0f;
  float R21 = 0.0f, R22 = 1.0f, R23 = 0.0f;
  float R31 = 0.0f, R32 = 0.0f, R33 = 1.0f;
  // From 9 tokens, or the first 9 of 12; otherwise as RT_Mat3D::set.
  int set(char** tokens, int count);
};

// O-style readers. Both clear the list first and print it after the read. The 3D form returns
// -1 with the warning "No symmetry matrices read!!" when the file holds no operator; the 2D form
// then prints only the closing line and returns 0, so a caller must look at the list's size.
int get_syms3d_from_ofile(std::vector<RT_Mat3D>& syms, char const* path);
int get_syms2d_from_ofile(std::vector<RT_Mat2D>& syms, char const* path);

// Matrix-file readers. A list that is not empty on entry is cleared with a warning. Return 0,
// or -1 with the warning "No symmetry matrices read!!".
template <class Mat>
int get_syms3d_from_mfile(std::vector<Mat>& syms, char const* path, char const* block);
int get_syms2d_from_mfile(std::vector<RT_Mat2D>& syms, char const* path, char const* block);

// Inverses.
RT_Mat2D rtmat2d_inverse(const RT_Mat2D& m);
RT_Mat3D rtmat3d_inverse(const RT_Mat3D& m);

// Lists to arrays (the array holds at least syms.size() records), as they are or inverted, and
// inversion in place.
void sym_vector_to_syms(RT_Mat3D* out, const std::vector<RT_Mat3D>& syms);
void sym2d_vector_to_syms(RT_Mat2D* out, const std::vector<RT_Mat2D>& syms);
void sym_vector_to_inverse_syms(RT_Mat3D* out, const std::vector<RT_Mat3D>& syms);
void sym2d_vector_to_inverse_syms(RT_Mat2D* out, const std::vector<RT_Mat2D>& syms);
void sym_vector_inverse_inplace(std::vector<RT_Mat3D>& syms);
void sym2d_vector_inverse_inplace(std::vector<RT_Mat2D>& syms);

// Printing: "%10.6f" per field. 2D: the column line before every operator; 3D: the column line
// once, rows ending in two newlines. Both close with a line of 82 '~'.
void print_rtmat2d_vector(const std::vector<RT_Mat2D>& syms);
void print_rtmat3d_vector(const std::vector<RT_Mat3D>& syms);
void print_rmat3d_vector(const std::vector<R_Mat3D>& syms);
// The 3D rows and the closing line without the column line, as the matrix-file reader prints.
void print_rtmat3d_rows(const std::vector<RT_Mat3D>& syms);
void print_rtmat3d_rows(const std::vector<R_Mat3D>& syms);
// One 2D operator under its column line, as the averaging code prints it per operator.
void print_rtmat2d(const RT_Mat2D& m);

// The standard point groups as rotation matrices, row-major, single precision, each table
// starting with the identity:
//   RMAT_PG_T1  12  tetrahedral, two-folds on x, y, z, three-folds on the body diagonals
//   RMAT_PG_T2  24  tetrahedral with a three-fold on z in slots 0..11; slots 12..23 identity
//   RMAT_PG_O   24  octahedral, four-folds on x, y, z
//   RMAT_PG_I1  60  icosahedral, two-folds on x, y, z, five-folds along (0, a, b) cyclically
//   RMAT_PG_I2  60  icosahedral, two-folds on x, y, z, five-folds along (a, 0, b) cyclically
// with b / a the golden ratio. The tables are generated from these rules when the program
// starts, so no digits are stored.
namespace RMAT_POINT_GROUPS {
using RMat = float[9];
extern const RMat* const RMAT_PG_T1;
extern const RMat* const RMAT_PG_T2;
extern const RMat* const RMAT_PG_O;
extern const RMat* const RMAT_PG_I1;
extern const RMat* const RMAT_PG_I2;
constexpr int kT1Slots = 12, kT2Slots = 24, kOSlots = 24, kI1Slots = 60, kI2Slots = 60;
}  // namespace RMAT_POINT_GROUPS
