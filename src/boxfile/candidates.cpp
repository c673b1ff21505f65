// The candidate file: one row per surviving grid cell of every template, in work pixels.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "boxfile/box_filter.h"
#include "cuda_general/report.h"

namespace {

// What may trail a number within its field: the line's end, or a carriage return.
bool only_line_end(const char* rest) {
  for (; *rest != '\0'; ++rest)
    if (std::strchr(" \t\r\n\v\f", *rest) == nullptr) return false;
  return true;
}

bool parse_int_field(const char* token, int* out) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(token, &end, 10);
  if (end == token || !only_line_end(end) || errno == ERANGE || value < INT_MIN || value > INT_MAX) return false;
  *out = static_cast<int>(value);
  return true;
}

bool parse_float_field(const char* token, float* out) {
  char* end = nullptr;
  const double value = std::strtod(token, &end);
  if (end == token || !only_line_end(end)) return false;
  *out = static_cast<float>(value);
  return true;
}

}  // namespace

int output_pickora_coord_one_temp(FILE* fp, const unsigned int* grid_index, const float* grid_cc,
                                  const float* grid_psi, int template_number, int cells, int nx, int ny, int box) {
  if (fp == nullptr || nx < 1) PK_FATAL("no open candidate file or an image width of %d", nx);
  const int half = box / 2;
  const unsigned int stride = static_cast<unsigned int>(nx);
  for (int c = 0; c < cells; ++c) {
    if (grid_index[c] == 0) continue;
    const int x = static_cast<int>(grid_index[c] % stride);
    const int y = static_cast<int>(grid_index[c] / stride);
    // The whole box inside the work image, one pixel to spare on the low side.
    if (x < nx - half && y < ny - half && x > half && y > half)
      std::fprintf(fp, PICKORA_CANDIDATE_ROW_FORMAT, x - half, y - half, box, box, grid_cc[c], template_number,
                   grid_psi[c]);
  }
  if (std::ferror(fp) != 0) PK_FATAL("writing to the candidate file failed. Permission denied or no space left");
  return 0;
}

int parse_pickora_candidate_line(char* line, PickoraCandidate* out) {
  char* save = nullptr;
  char* fields[7];
  fields[0] = strtok_r(line, " \t\n", &save);
  if (fields[0] == nullptr || only_line_end(fields[0])) return 0;  // blank, or a lone '\r'
  for (int k = 1; k < 7; ++k) {
    fields[k] = strtok_r(nullptr, " \t", &save);
    // A field of line-end characters only is the end of a short line, not a value.
    if (fields[k] == nullptr || only_line_end(fields[k])) return -1;
  }
  PickoraCandidate c;
  const bool ok = parse_int_field(fields[0], &c.x0) && parse_int_field(fields[1], &c.y0) &&
                  parse_int_field(fields[2], &c.bx) && parse_int_field(fields[3], &c.by) &&
                  parse_float_field(fields[4], &c.cc) && parse_int_field(fields[5], &c.template_number) &&
                  parse_float_field(fields[6], &c.psi);
  if (!ok) return -1;
  *out = c;
  return 1;
}
