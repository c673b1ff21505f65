// Text lines and line searches.
#include "txt_file/txt_file.h"

#include <cstdlib>
#include <cstring>

#include "cuda_general/report.h"
#include "txt_file/arrays_strings.h"

int empty_txt_line(char* line) {
  std::memset(line, 0, PICKORA_LINE_LEN);
  return 0;
}

int read_one_line(char* line, FILE* fp) {
  next_text_line(line, fp);
  return 0;
}

int empty_txt_lline(char* line) {
  std::memset(line, 0, PICKORA_LLINE_LEN);
  return 0;
}

int read_one_lline(char* line, FILE* fp) {
  empty_txt_lline(line);
  if (std::fgets(line, PICKORA_LLINE_LEN, fp) == nullptr) empty_txt_lline(line);
  return 0;
}

int next_text_line(char* line, FILE* fp) {
  empty_txt_line(line);
  if (std::fgets(line, PICKORA_LINE_LEN, fp) != nullptr) return 1;
  empty_txt_line(line);  // a read error may leave a partial buffer behind
  return 0;
}

int read_whole_line(char* line, FILE* fp, bool* cut) {
  if (cut != nullptr) *cut = false;
  if (!next_text_line(line, fp)) return 0;
  if (line[PICKORA_LINE_LEN - 2] == '\0' || line[PICKORA_LINE_LEN - 2] == '\n') return 1;
  int c = std::fgetc(fp);
  if (c == EOF || c == '\n') return 1;  // exactly 1023 characters
  if (cut != nullptr) *cut = true;
  while (c != EOF && c != '\n') c = std::fgetc(fp);
  return 1;
}

namespace {

// Splits one line into at most n numbers. A 1024-byte line holds at most 512 tokens, so a
// larger n can't be met.
int line_to_f32(float* out, unsigned int n, FILE* fp, bool strict) {
  constexpr unsigned int kMaxTokens = PICKORA_LINE_LEN / 2;
  char line[PICKORA_LINE_LEN];
  char* tokens[kMaxTokens];
  read_one_line(line, fp);
  const int limit = static_cast<int>(n < kMaxTokens ? n : kMaxTokens);
  const int count = strnsplit_inplace_byspace(tokens, line, limit);
  if (strict && static_cast<unsigned int>(count) != n) {
    PK_WARNING("Number of line columns must be at least the data points!");
    return -1;
  }
  for (int i = 0; i < count; ++i) out[i] = static_cast<float>(std::strtod(tokens[i], nullptr));
  return 0;
}

// Looks at up to max_lines lines (negative: no limit) from the start of the stream. Returns
// the 0-based number of the first line that contains needle and its offset, or -1.
long find_line(FILE* fp, const char* needle, long long max_lines, long& offset) {
  offset = -1;
  if (fp == nullptr || needle == nullptr) return -1;
  if (std::ftell(fp) != 0) std::rewind(fp);
  char line[PICKORA_LINE_LEN];
  for (long number = 0; max_lines < 0 || number < max_lines; ++number) {
    const long start = std::ftell(fp);
    if (!next_text_line(line, fp)) return -1;
    if (std::strstr(line, needle) != nullptr) {
      std::fseek(fp, start, SEEK_SET);
      offset = start;
      return number;
    }
  }
  return -1;
}

}  // namespace

int read_one_line_to_f32(float* out, unsigned int n, FILE* fp) { return line_to_f32(out, n, fp, false); }

int read_one_line_to_f32_strict(float* out, unsigned int n, FILE* fp) { return line_to_f32(out, n, fp, true); }

long FILE_find_str_line(FILE* fp, const char* needle) {
  long offset;
  find_line(fp, needle, -1, offset);
  return offset;
}

long FILE_Nfind_str_line(FILE* fp, const char* needle, int n) {
  long offset;
  if (n < 0) return -1;
  find_line(fp, needle, static_cast<long long>(n) + 1, offset);
  return offset;
}

int f_Nfind_str_line(const char* name, const char* needle, int n) {
  FILE* fp = PK_FOPEN_READ_OR_EXIT(name);
  long offset;
  const long number = n < 0 ? -1 : find_line(fp, needle, static_cast<long long>(n) + 1, offset);
  std::fclose(fp);
  return number < 0 ? -1 : static_cast<int>(number + 1);
}

FILE* fopen_read_or_exit(const char* name, const char* func, const char* file, int line) {
  FILE* fp = name != nullptr ? std::fopen(name, "r") : nullptr;
  if (fp != nullptr) return fp;
  std::printf("Cannot open file %s. Permission denied or wrong file name.\n", name != nullptr ? name : "(null)");
  report_fatal(func, file, line, "open file '%s' failed.", name != nullptr ? name : "(null)");
}
