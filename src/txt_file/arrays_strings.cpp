// Splitting, keyword matching, file-name handling and one-block arrays.
#include "txt_file/arrays_strings.h"

#include <strings.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <string>

#include "cuda_general/report.h"

const char* const PICKORA_WHITESPACE = " \t\n\r\v\f";

namespace {

// The private copies of the plain splitters stay valid for the rest of the process. They are
// chained from a global head, so they remain reachable (no leak report) and are never reused.
struct KeptCopy {
  KeptCopy* next;
};
std::mutex g_kept_mutex;
KeptCopy* g_kept_head = nullptr;

char* keep_copy(const char* src) {
  const size_t len = std::strlen(src);
  auto* kept = static_cast<KeptCopy*>(std::malloc(sizeof(KeptCopy) + len + 1));
  if (kept == nullptr) return nullptr;
  char* text = reinterpret_cast<char*>(kept + 1);
  std::memcpy(text, src, len + 1);
  std::lock_guard<std::mutex> lock(g_kept_mutex);
  kept->next = g_kept_head;
  g_kept_head = kept;
  return text;
}

void dest_missing(const char* function) {
  std::printf("Error in function %s()!Memory for 'dest' not allocated.\n", function);
  std::fflush(stdout);
}

bool is_empty(const char* s) { return s == nullptr || s[0] == '\0'; }

// Cuts s in place and stores at most limit tokens (limit < 0: no limit). strtok_r keeps the
// walk's state local, so a split can run inside another strtok walk or on another thread.
int split_in_place(char** dest, char* s, const char* separators, int limit) {
  if (is_empty(s) || is_empty(separators)) return 0;
  int count = 0;
  char* save = nullptr;
  char* from = s;
  while (limit < 0 || count < limit) {
    char* token = strtok_r(from, separators, &save);
    if (token == nullptr) break;
    dest[count++] = token;
    from = nullptr;
  }
  return count;
}

int split_copy(char** dest, const char* src, const char* separators, int limit) {
  if (is_empty(src) || is_empty(separators) || limit == 0) return 0;
  char* copy = keep_copy(src);
  if (copy == nullptr) return 0;
  return split_in_place(dest, copy, separators, limit);
}

// Returns false when the product of the factors exceeds limit or a factor is below 1.
bool checked_product(long long& product, std::initializer_list<long long> factors, long long limit) {
  product = 1;
  for (long long f : factors) {
    if (f < 1) return false;
    if (product > limit / f) return false;
    product *= f;
  }
  return true;
}

}  // namespace

int strsplit(char** dest, const char* src, const char* separators) {
  if (dest == nullptr) {
    dest_missing("strsplit");
    return 0;
  }
  return split_copy(dest, src, separators, -1);
}

int strnsplit(char** dest, const char* src, const char* separators, int n) {
  if (dest == nullptr) {
    dest_missing("strnsplit");
    return 0;
  }
  if (n < 1) return 0;
  return split_copy(dest, src, separators, n);
}

int strsplit_inplace(char** dest, char* src, const char* separators) {
  if (dest == nullptr) {
    dest_missing("strnsplit");
    return 0;
  }
  return split_in_place(dest, src, separators, -1);
}

int strnsplit_inplace(char** dest, char* src, const char* separators, int n) {
  if (dest == nullptr) {
    dest_missing("strnsplit");
    return 0;
  }
  if (n < 1) return 0;
  return split_in_place(dest, src, separators, n);
}

int strsplit_byspace(char** dest, const char* src) {
  if (dest == nullptr) {
    dest_missing("strsplit_byspace");
    return 0;
  }
  return split_copy(dest, src, PICKORA_WHITESPACE, -1);
}

int strnsplit_byspace(char** dest, const char* src, int n) {
  if (dest == nullptr) {
    dest_missing("strnsplit");
    report_exit(1);
  }
  if (n < 1) return 0;
  return split_copy(dest, src, PICKORA_WHITESPACE, n);
}

int strsplit_inplace_byspace(char** dest, char* src) {
  if (dest == nullptr) {
    dest_missing("strnsplit");
    return 0;
  }
  return split_in_place(dest, src, PICKORA_WHITESPACE, -1);
}

int strnsplit_inplace_byspace(char** dest, char* src, int n) {
  if (dest == nullptr) {
    dest_missing("strnsplit");
    return 0;
  }
  if (n < 1) return 0;
  return split_in_place(dest, src, PICKORA_WHITESPACE, n);
}

int strlcpy(char* dst, const char* src) {
  const auto at = reinterpret_cast<std::uintptr_t>(src), start = reinterpret_cast<std::uintptr_t>(dst);
  if (src != nullptr && at >= start && at < start + PICKORA_NAME_LEN) {
    const std::string aside(src);  // src lies inside dst: keep it before clearing
    return strlcpy(dst, aside.c_str());
  }
  std::memset(dst, 0, PICKORA_NAME_LEN);
  if (src == nullptr) return 0;
  const size_t len = std::strlen(src);
  std::memcpy(dst, src, len < PICKORA_NAME_LEN ? len : PICKORA_NAME_LEN - 1);
  return len > INT_MAX ? INT_MAX : static_cast<int>(len);
}

int keywd_cmp(const char* arg, const char* keyword) {
  if (arg == nullptr || keyword == nullptr || arg[0] != '-') return 0;
  if (strcasecmp(arg + 1, keyword) == 0) return 1;
  return arg[1] == '-' && strcasecmp(arg + 2, keyword) == 0 ? 1 : 0;
}

int is_keywd_help(const char* arg) { return keywd_cmp(arg, "h") || keywd_cmp(arg, "help") ? 1 : 0; }

int is_str_null(const char* s) {
  if (s == nullptr || s[0] == '\0' || s[0] == '\n') return 1;
  return strcasecmp(s, "NULL") == 0 || strcasecmp(s, "NONE") == 0 ? 1 : 0;
}

int is_float_number(const char* s) {
  if (s == nullptr) return 0;
  if (*s == '+' || *s == '-') ++s;
  int dots = 0;
  for (; *s != '\0'; ++s) {
    if (*s == '.') {
      if (++dots > 1) return 0;
    } else if (*s < '0' || *s > '9') {
      return 0;
    }
  }
  return 1;
}

int get_file_suffixn(const char* name, const char* suffix) {
  if (name == nullptr || suffix == nullptr) return 0;
  const size_t n = std::strlen(name), s = std::strlen(suffix);
  if (n <= s || std::strcmp(name + (n - s), suffix) != 0) return 0;
  return static_cast<int>(s);
}

int replace_file_suffix(char* dst, const char* new_suffix, const char* name, const char* old_suffix) {
  // Built aside first, so that dst may be name itself.
  std::string out;
  if (name != nullptr) out.assign(name, std::strlen(name) - get_file_suffixn(name, old_suffix));
  if (new_suffix != nullptr) out += new_suffix;
  strlcpy(dst, out.c_str());
  return 0;
}

void** malloc2d(int rows, int cols, int elem_size) {
  long long data = 0;
  const long long pointers = static_cast<long long>(rows) * static_cast<long long>(sizeof(void*));
  void** array = nullptr;
  if (checked_product(data, {rows, cols, elem_size}, INT_MAX) && pointers > 0 && data <= INT_MAX - pointers)
    array = static_cast<void**>(std::malloc(static_cast<size_t>(pointers + data)));
  if (array == nullptr) {
    std::printf("Function 'malloc()' error in 'malloc2d()' ! Not enough memory!\n");
    std::fflush(stdout);
    return nullptr;
  }
  char* start = reinterpret_cast<char*>(array + rows);
  const size_t row_bytes = static_cast<size_t>(cols) * static_cast<size_t>(elem_size);
  for (int i = 0; i < rows; ++i) array[i] = start + static_cast<size_t>(i) * row_bytes;
  return array;
}

char** strmalloc2d(int rows, int cols) { return reinterpret_cast<char**>(malloc2d(rows, cols, 1)); }

void*** malloc3d(int n0, int n1, int n2, int elem_size) {
  long long rows = 0, data = 0;
  void*** array = nullptr;
  if (checked_product(rows, {n0, n1}, INT_MAX) && checked_product(data, {rows, n2, elem_size}, INT_MAX)) {
    const long long pointers = (n0 + rows) * static_cast<long long>(sizeof(void*));
    if (data <= INT_MAX - pointers) array = static_cast<void***>(std::malloc(static_cast<size_t>(pointers + data)));
  }
  if (array == nullptr) {
    std::printf("\nFunction 'malloc()' error in 'malloc3d()' ! Not enough memory!\n");
    std::fflush(stdout);
    return nullptr;
  }
  void** row_pointers = reinterpret_cast<void**>(array + n0);
  char* start = reinterpret_cast<char*>(row_pointers + rows);
  const size_t row_bytes = static_cast<size_t>(n2) * static_cast<size_t>(elem_size);
  for (int i = 0; i < n0; ++i) array[i] = row_pointers + static_cast<size_t>(i) * static_cast<size_t>(n1);
  for (long long r = 0; r < rows; ++r) row_pointers[r] = start + static_cast<size_t>(r) * row_bytes;
  return array;
}

void free2d(void* array) { std::free(array); }
void free3d(void* array) { std::free(array); }

namespace {

bool sizes_ok(std::initializer_list<int> sizes) {
  for (int s : sizes)
    if (s < 0) return false;
  return true;
}

}  // namespace

int empty2d_array(void* array, int rows, int cols, int elem_size) {
  if (array == nullptr || !sizes_ok({rows, cols, elem_size})) return -1;
  char** row = static_cast<char**>(array);
  const size_t row_bytes = static_cast<size_t>(cols) * static_cast<size_t>(elem_size);
  for (int i = 0; i < rows; ++i) std::memset(row[i], 0, row_bytes);
  return 0;
}

int memcpy_1d_to_2d(void* dst2d, const void* src1d, int rows, int cols, int elem_size) {
  if (dst2d == nullptr || src1d == nullptr || !sizes_ok({rows, cols, elem_size})) return -1;
  char** row = static_cast<char**>(dst2d);
  const char* src = static_cast<const char*>(src1d);
  const size_t row_bytes = static_cast<size_t>(cols) * static_cast<size_t>(elem_size);
  for (int i = 0; i < rows; ++i) std::memcpy(row[i], src + static_cast<size_t>(i) * row_bytes, row_bytes);
  return 0;
}

int memcpy_2d_to_1d(void* dst1d, const void* src2d, int rows, int cols, int elem_size) {
  if (dst1d == nullptr || src2d == nullptr || !sizes_ok({rows, cols, elem_size})) return -1;
  char* const* row = static_cast<char* const*>(src2d);
  char* dst = static_cast<char*>(dst1d);
  const size_t row_bytes = static_cast<size_t>(cols) * static_cast<size_t>(elem_size);
  for (int i = 0; i < rows; ++i) std::memcpy(dst + static_cast<size_t>(i) * row_bytes, row[i], row_bytes);
  return 0;
}

int memcpy_1d_to_3d(void* dst3d, const void* src1d, int n0, int n1, int n2, int elem_size) {
  if (dst3d == nullptr || src1d == nullptr || !sizes_ok({n0, n1, n2, elem_size})) return -1;
  char*** plane = static_cast<char***>(dst3d);
  const char* src = static_cast<const char*>(src1d);
  const size_t row_bytes = static_cast<size_t>(n2) * static_cast<size_t>(elem_size);
  for (int i = 0; i < n0; ++i)
    for (int j = 0; j < n1; ++j, src += row_bytes) std::memcpy(plane[i][j], src, row_bytes);
  return 0;
}

int memcpy_3d_to_1d(void* dst1d, const void* src3d, int n0, int n1, int n2, int elem_size) {
  if (dst1d == nullptr || src3d == nullptr || !sizes_ok({n0, n1, n2, elem_size})) return -1;
  char* const* const* plane = static_cast<char* const* const*>(src3d);
  char* dst = static_cast<char*>(dst1d);
  const size_t row_bytes = static_cast<size_t>(n2) * static_cast<size_t>(elem_size);
  for (int i = 0; i < n0; ++i)
    for (int j = 0; j < n1; ++j, dst += row_bytes) std::memcpy(dst, plane[i][j], row_bytes);
  return 0;
}
