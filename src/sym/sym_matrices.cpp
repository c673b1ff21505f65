// Operator records: filling from tokens, inverses, list-to-array copies and printing.
#include <cstdio>
#include <cstdlib>

#include "cuda_general/report.h"
#include "sym/sym.h"

namespace {

float token_float(const char* token) { return static_cast<float>(std::strtod(token, nullptr)); }

// The red error form without the exit: a bad count leaves the record unchanged and the caller
// decides.
void report_bad_count(const char* func, int line, char** tokens, int count) {
  std::printf(
      "\033[41mError in function %s(), file %s on line %d:RT_Mat3D requires at 9 or 12 elements! 3x3 matrix for "
      "rotation and 3x4 matrix for rotation + translation  %s!\n\033[m",
      func, report_module_path(__FILE__), line, count > 0 && tokens != nullptr ? tokens[0] : "");
}

template <class Mat>
void set_rotation(Mat& m, char** t) {
  m.R11 = token_float(t[0]), m.R12 = token_float(t[1]), m.R13 = token_float(t[2]);
  m.R21 = token_float(t[3]), m.R22 = token_float(t[4]), m.R23 = token_float(t[5]);
  m.R31 = token_float(t[6]), m.R32 = token_float(t[7]), m.R33 = token_float(t[8]);
}

const char kRule[] =
    "~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~";
static_assert(sizeof(kRule) == 83, "the closing line has 82 characters");

const char kHead2D[] = "   R11       R12       R21       R22        Tx        Ty";
const char kHead3D[] =
    "   R11       R12       R13       R21       R22       R23       R31       R32       R33        Tx        Ty        "
    "Tz";

}  // namespace

int RT_Mat3D::set(char** tokens, int count) {
  if (tokens == nullptr || (count != 9 && count != 12)) {
    report_bad_count(__func__, __LINE__, tokens, count);
    return -1;
  }
  set_rotation(*this, tokens);
  Tx = count == 12 ? token_float(tokens[9]) : 0.0f;
  Ty = count == 12 ? token_float(tokens[10]) : 0.0f;
  Tz = count == 12 ? token_float(tokens[11]) : 0.0f;
  return 0;
}

int R_Mat3D::set(char** tokens, int count) {
  if (tokens == nullptr || (count != 9 && count != 12)) {
    report_bad_count(__func__, __LINE__, tokens, count);
    return -1;
  }
  set_rotation(*this, tokens);
  return 0;
}

RT_Mat2D rtmat2d_inverse(const RT_Mat2D& m) {
  const float d = m.R11 * m.R22 - m.R12 * m.R21;
  RT_Mat2D r;
  r.R11 = m.R22 / d;
  r.R12 = -m.R12 / d;
  r.R21 = -m.R21 / d;
  r.R22 = m.R11 / d;
  r.Tx = -(r.R11 * m.Tx + r.R12 * m.Ty);
  r.Ty = -(r.R21 * m.Tx + r.R22 * m.Ty);
  return r;
}

RT_Mat3D rtmat3d_inverse(const RT_Mat3D& m) {
  const float c11 = m.R22 * m.R33 - m.R23 * m.R32, c12 = m.R23 * m.R31 - m.R21 * m.R33,
              c13 = m.R21 * m.R32 - m.R22 * m.R31;
  const float d = m.R11 * c11 + m.R12 * c12 + m.R13 * c13;
  RT_Mat3D r;
  // The inverse is the transposed cofactor matrix over the determinant.
  r.R11 = c11 / d;
  r.R21 = c12 / d;
  r.R31 = c13 / d;
  r.R12 = (m.R13 * m.R32 - m.R12 * m.R33) / d;
  r.R22 = (m.R11 * m.R33 - m.R13 * m.R31) / d;
  r.R32 = (m.R12 * m.R31 - m.R11 * m.R32) / d;
  r.R13 = (m.R12 * m.R23 - m.R13 * m.R22) / d;
  r.R23 = (m.R13 * m.R21 - m.R11 * m.R23) / d;
  r.R33 = (m.R11 * m.R22 - m.R12 * m.R21) / d;
  r.Tx = -(r.R11 * m.Tx + r.R12 * m.Ty + r.R13 * m.Tz);
  r.Ty = -(r.R21 * m.Tx + r.R22 * m.Ty + r.R23 * m.Tz);
  r.Tz = -(r.R31 * m.Tx + r.R32 * m.Ty + r.R33 * m.Tz);
  return r;
}

void sym_vector_to_syms(RT_Mat3D* out, const std::vector<RT_Mat3D>& syms) {
  for (size_t i = 0; i < syms.size(); ++i) out[i] = syms[i];
}
void sym2d_vector_to_syms(RT_Mat2D* out, const std::vector<RT_Mat2D>& syms) {
  for (size_t i = 0; i < syms.size(); ++i) out[i] = syms[i];
}
void sym_vector_to_inverse_syms(RT_Mat3D* out, const std::vector<RT_Mat3D>& syms) {
  for (size_t i = 0; i < syms.size(); ++i) out[i] = rtmat3d_inverse(syms[i]);
}
void sym2d_vector_to_inverse_syms(RT_Mat2D* out, const std::vector<RT_Mat2D>& syms) {
  for (size_t i = 0; i < syms.size(); ++i) out[i] = rtmat2d_inverse(syms[i]);
}
void sym_vector_inverse_inplace(std::vector<RT_Mat3D>& syms) {
  for (RT_Mat3D& m : syms) m = rtmat3d_inverse(m);
}
void sym2d_vector_inverse_inplace(std::vector<RT_Mat2D>& syms) {
  for (RT_Mat2D& m : syms) m = rtmat2d_inverse(m);
}

void print_rtmat2d(const RT_Mat2D& m) {
  std::printf("%s\n", kHead2D);
  std::printf("%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f\n", m.R11, m.R12, m.R21, m.R22, m.Tx, m.Ty);
}

void print_rtmat2d_vector(const std::vector<RT_Mat2D>& syms) {
  for (const RT_Mat2D& m : syms) print_rtmat2d(m);
  std::printf("%s\n", kRule);
}

void print_rtmat3d_vector(const std::vector<RT_Mat3D>& syms) {
  std::printf("%s\n", kHead3D);
  print_rtmat3d_rows(syms);
}

void print_rtmat3d_rows(const std::vector<RT_Mat3D>& syms) {
  for (const RT_Mat3D& m : syms)
    std::printf("%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f\n\n", m.R11, m.R12, m.R13,
                m.R21, m.R22, m.R23, m.R31, m.R32, m.R33, m.Tx, m.Ty, m.Tz);
  std::printf("%s\n", kRule);
}

void print_rtmat3d_rows(const std::vector<R_Mat3D>& syms) { print_rmat3d_vector(syms); }

void print_rmat3d_vector(const std::vector<R_Mat3D>& syms) {
  for (const R_Mat3D& m : syms)
    std::printf("%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f%10.6f\n\n", m.R11, m.R12, m.R13, m.R21, m.R22, m.R23,
                m.R31, m.R32, m.R33);
  std::printf("%s\n", kRule);
}
