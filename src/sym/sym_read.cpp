// Readers of the two operator file formats (see include/sym/sym.h).
#include <strings.h>

#include <cstdio>
#include <cstdlib>

#include "cuda_general/report.h"
#include "sym/sym.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

namespace {

constexpr int kMaxTokens = PICKORA_LINE_LEN / 2;

bool same_word(const char* token, const char* word) { return strcasecmp(token, word) == 0; }

float token_float(const char* token) { return static_cast<float>(std::strtod(token, nullptr)); }

// One line, split on whitespace; 0 tokens for a blank line, -1 at the end of the file.
struct TextLines {
  FILE* fp;
  char line[PICKORA_LINE_LEN];
  char* tokens[kMaxTokens];
  int next() { return read_whole_line(line, fp, nullptr) ? strnsplit_inplace_byspace(tokens, line, kMaxTokens) : -1; }
};

// Reads the rows of one O-style operator into values, `width` numbers per row. A row of another
// width, or the end of the file before the last row, is a format error: stale numbers are never
// passed on as an operator.
bool read_o_rows(TextLines& text, float* values, int rows, int width) {
  for (int r = 0; r < rows; ++r) {
    if (text.next() != width) return false;
    for (int c = 0; c < width; ++c) values[r * width + c] = token_float(text.tokens[c]);
  }
  return true;
}

bool opens_o_operator(TextLines& text, int count) {
  return count > 0 && same_word(text.tokens[0], ".ncs_symmetry_operators");
}

// Block bookkeeping of the matrix files. Returns true when the line is an operator line to read.
struct BlockFilter {
  bool all;
  const char* name;
  bool inside;
  bool wants(char** tokens, int count) {
    if (count < 1) return false;
    if (same_word(tokens[0], "symmetry_operators")) {
      inside = all || (count >= 2 && same_word(tokens[1], name));
      return false;
    }
    if (same_word(tokens[0], "operators_end")) {
      inside = all;
      return false;
    }
    return inside;
  }
};

BlockFilter block_filter(const char* block) {
  const bool all = block == nullptr || same_word(block, "ALL");
  return BlockFilter{all, block, all};
}

bool accepts_count(const RT_Mat3D*, int count) { return count == 9 || count == 12; }
bool accepts_count(const R_Mat3D*, int count) { return count == 9; }

}  // namespace

int get_syms3d_from_ofile(std::vector<RT_Mat3D>& syms, char const* path) {
  syms.clear();
  TextLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  for (int count = text.next(); count >= 0; count = text.next()) {
    if (!opens_o_operator(text, count)) continue;
    float v[12];
    if (!read_o_rows(text, v, 4, 3)) {
      std::fclose(text.fp);
      PK_FATAL("Unknown symmetry file format");
    }
    RT_Mat3D m;
    m.R11 = v[0], m.R12 = v[1], m.R13 = v[2], m.R21 = v[3], m.R22 = v[4], m.R23 = v[5];
    m.R31 = v[6], m.R32 = v[7], m.R33 = v[8], m.Tx = v[9], m.Ty = v[10], m.Tz = v[11];
    syms.push_back(m);
  }
  std::fclose(text.fp);
  if (syms.empty()) {
    PK_WARNING("No symmetry matrices read!!\n");
    return -1;
  }
  print_rtmat3d_vector(syms);
  return 0;
}

int get_syms2d_from_ofile(std::vector<RT_Mat2D>& syms, char const* path) {
  syms.clear();
  TextLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  for (int count = text.next(); count >= 0; count = text.next()) {
    if (!opens_o_operator(text, count)) continue;
    float v[6];
    if (!read_o_rows(text, v, 3, 2)) {
      std::fclose(text.fp);
      PK_FATAL("Unknown symmetry file format");
    }
    syms.push_back(RT_Mat2D{v[0], v[1], v[2], v[3], v[4], v[5]});
  }
  std::fclose(text.fp);
  // An empty list prints only the closing line; the caller looks at the size.
  print_rtmat2d_vector(syms);
  return 0;
}

template <class Mat>
int get_syms3d_from_mfile(std::vector<Mat>& syms, char const* path, char const* block) {
  TextLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  if (!syms.empty()) {
    PK_WARNING("Vector mvec not empty! Original data are cleared before reading!!\n");
    syms.clear();
  }
  BlockFilter filter = block_filter(block);
  for (int count = text.next(); count >= 0; count = text.next()) {
    if (!filter.wants(text.tokens, count)) continue;
    if (!accepts_count(static_cast<const Mat*>(nullptr), count)) {
      PK_WARNING("Unknown symmetry matrix format! Line skipped!\n");
      continue;
    }
    Mat m;
    m.set(text.tokens, count);
    syms.push_back(m);
  }
  std::fclose(text.fp);
  if (syms.empty()) {
    PK_WARNING("No symmetry matrices read!!\n");
    return -1;
  }
  print_rtmat3d_rows(syms);
  return 0;
}

template int get_syms3d_from_mfile<RT_Mat3D>(std::vector<RT_Mat3D>&, char const*, char const*);
template int get_syms3d_from_mfile<R_Mat3D>(std::vector<R_Mat3D>&, char const*, char const*);

int get_syms2d_from_mfile(std::vector<RT_Mat2D>& syms, char const* path, char const* block) {
  TextLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  if (!syms.empty()) {
    PK_WARNING("  not empty! Original data are cleared before reading!!\n");
    syms.clear();
  }
  BlockFilter filter = block_filter(block);
  for (int count = text.next(); count >= 0; count = text.next()) {
    if (!filter.wants(text.tokens, count)) continue;
    if (count != 6) {
      PK_WARNING("Unknown symmetry matrix format! Line skipped!\n");
      continue;
    }
    float v[6];
    for (int c = 0; c < 6; ++c) v[c] = token_float(text.tokens[c]);
    syms.push_back(RT_Mat2D{v[0], v[1], v[2], v[3], v[4], v[5]});
  }
  std::fclose(text.fp);
  if (syms.empty()) {
    PK_WARNING("No symmetry matrices read!!\n");
    return -1;
  }
  print_rtmat2d_vector(syms);
  return 0;
}
