// Reading coordinate files into PTCL_BOX records, and the record utilities.
#include "boxfile/ptcl_box.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cuda_general/report.h"
#include "starfile/starfile.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

namespace {

bool ends_with(const char* name, const char* suffix) {
  if (name == nullptr) return false;
  const size_t n = std::strlen(name), s = std::strlen(suffix);
  return n >= s && std::strcmp(name + n - s, suffix) == 0;
}

// strtol in base 10, clamped to the range of int.
int to_int(const char* token) {
  const long value = std::strtol(token, nullptr, 10);
  return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

float to_float(const char* token) { return static_cast<float>(std::strtod(token, nullptr)); }

// n cut to the limit of the clearing and printing functions, with the warning of `caller`.
int clamp_to_limit(int n, const char* caller) {
  if (n > PTCL_BOX_MAX) {
    report_warning(caller, __FILE__, __LINE__, "Too many particle numbers!!");
    return PTCL_BOX_MAX;
  }
  return n < 0 ? 0 : n;
}

// The STAR branch: rows of the first table, by the column numbers of its head.
int read_star_boxes(FILE* fp, PTCL_BOX* boxes, int max_boxes, const char* name, const char* caller) {
  struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
  };
  std::unique_ptr<StarHead, FreeDeleter> head(star_head_new());
  std::unique_ptr<ParticleInfoIndex, FreeDeleter> index(particle_info_index_new());
  star_read_head(fp, head.get());
  set_info_index_from_star_head(head.get(), index.get());
  const int columns = head->column_count;
  const bool has_x = index->coordinate_x >= 1 && index->coordinate_x <= columns;
  const bool has_y = index->coordinate_y >= 1 && index->coordinate_y <= columns;
  if (!has_x || !has_y) {
    std::fclose(fp);
    report_fatal(caller, __FILE__, __LINE__,
                 "STAR file '%s' has no usable %s column (a table of _rlnCoordinateX and _rlnCoordinateY is "
                 "needed)",
                 name, !has_x ? "_rlnCoordinateX" : "_rlnCoordinateY");
  }
  star_set_pointer(fp, 0);
  char line[PICKORA_LINE_LEN];
  char* tokens[PICKORA_LINE_LEN / 2];
  int count = 0;
  for (int got; count < max_boxes && (got = star_read_row(fp, line, tokens, columns)) >= 0;) {
    if (got != 1) continue;
    PTCL_BOX& b = boxes[count++];
    b.x = to_int(star_row_field(tokens, columns, index->coordinate_x));
    b.y = to_int(star_row_field(tokens, columns, index->coordinate_y));
    b.w = b.h = 0;
    const char* cc = star_row_field(tokens, columns, index->autopick_figure_of_merit);
    const char* cls = star_row_field(tokens, columns, index->class_number);
    const char* psi = star_row_field(tokens, columns, index->angle_psi);
    b.cc = cc != nullptr ? to_float(cc) : 0.0f;
    b.class_number = cls != nullptr ? to_int(cls) : 0;
    b.psi = psi != nullptr ? to_float(psi) : 0.0f;
  }
  return count;
}

// The .box branch: 4 to 7 columns per line.
int read_box_rows(FILE* fp, PTCL_BOX* boxes, int max_boxes, const char* name, const char* caller) {
  char line[PICKORA_LINE_LEN];
  char* tokens[7];
  int count = 0;
  for (int number = 1; count < max_boxes && read_whole_line(line, fp, nullptr); ++number) {
    const int n = strnsplit_inplace_byspace(tokens, line, 7);
    if (n == 0) continue;
    if (n < 4) {
      std::fclose(fp);
      std::printf("The coordinate file %s has %d column%s on line %d; a .box line needs 4 to 7.\n", name, n,
                  n == 1 ? "" : "s", number);
      report_fatal(caller, __FILE__, __LINE__, "unrecognized box format!");
    }
    PTCL_BOX& b = boxes[count++];
    b.x = to_int(tokens[0]);
    b.y = to_int(tokens[1]);
    b.w = to_int(tokens[2]);
    b.h = to_int(tokens[3]);
    b.cc = n >= 5 ? to_float(tokens[4]) : 0.0f;
    b.class_number = n >= 6 ? to_int(tokens[5]) : 0;
    b.psi = n >= 7 ? to_float(tokens[6]) : 0.0f;
  }
  return count;
}

// read_all_ptcl_boxes with the name of the public function that reports.
int read_boxes(PTCL_BOX* boxes, int max_boxes, const char* name, const char* caller) {
  FILE* fp = fopen_read_or_exit(name, caller, __FILE__, __LINE__);
  empty_all_ptcl_boxes(boxes, max_boxes);
  int count = 0;
  switch (get_boxf_suffixf(name)) {
    case 1:
      count = read_star_boxes(fp, boxes, max_boxes, name, caller);
      break;
    case 2:
      count = read_box_rows(fp, boxes, max_boxes, name, caller);
      break;
    default:
      std::printf("The coordinate file %s ends neither in .box nor in .star; it is not read.\n", name);
      report_warning(caller, __FILE__, __LINE__,
                     "unrecognized box file format, only EMAN .box and Relion .star file are supported now.!");
  }
  std::fclose(fp);
  return count;
}

int write_boxes(FILE* fp, const PTCL_BOX* boxes, int n) {
  for (int i = 0; i < n; ++i) {
    const PTCL_BOX& b = boxes[i];
    if (b.w == 0 || b.h == 0) continue;
    std::fprintf(fp, "%-8d%-8d%-8d%-8d%-8.6f        %-8d%-8.6f\n", b.x, b.y, b.w, b.h, b.cc, b.class_number, b.psi);
  }
  return 0;
}

}  // namespace

int read_all_ptcl_boxes(PTCL_BOX* boxes, int max_boxes, const char* name) {
  return read_boxes(boxes, max_boxes, name, __func__);
}

int get_boxf_suffixf(const char* name) {
  if (ends_with(name, ".star")) return 1;
  if (ends_with(name, ".box")) return 2;
  return 0;
}

int get_ptcl_number_from_boxf(const char* name) {
  FILE* fp = name != nullptr ? std::fopen(name, "r") : nullptr;
  if (fp == nullptr) {
    std::printf("Cannot open file %s!\n", name != nullptr ? name : "(null)");
    PK_FATAL("open file failed.");
  }
  char line[PICKORA_LINE_LEN];
  char* tokens[7];
  int count = 0;
  while (read_whole_line(line, fp, nullptr))
    if (strnsplit_inplace_byspace(tokens, line, 7) >= 7) ++count;
  std::fclose(fp);
  return count;
}

int empty_all_ptcl_boxes(PTCL_BOX* boxes, int n) {
  n = clamp_to_limit(n, __func__);
  if (boxes != nullptr && n > 0) std::memset(static_cast<void*>(boxes), 0, static_cast<size_t>(n) * sizeof(PTCL_BOX));
  return 0;
}

int empty_all_ptcl_distances(float* distances) {
  if (distances != nullptr) std::memset(distances, 0, static_cast<size_t>(PTCL_BOX_MAX) * sizeof(float));
  return 0;
}

PTCL_BOX one_new_ptcl_box() {
  PTCL_BOX b;
  b.w = b.h = 0;
  return b;
}

int resize_ptcl_boxes(PTCL_BOX* boxes, int n, int new_size) {
  for (int i = 0; i < n; ++i) {
    PTCL_BOX& b = boxes[i];
    b.x = ptcl_box_center_x(b) - new_size / 2;
    b.y = ptcl_box_center_y(b) - new_size / 2;
    b.w = b.h = new_size;
  }
  return 0;
}

int ptcl_boxes_to_int2(int2* out, const PTCL_BOX* boxes, int n, int box) {
  for (int i = 0; i < n; ++i) {
    const PTCL_BOX& b = boxes[i];
    out[i] = box == 0 ? make_int2(ptcl_box_center_x(b), ptcl_box_center_y(b)) : make_int2(b.x + box / 2, b.y + box / 2);
  }
  return 0;
}

int ptcl_boxes_to_float2(float2* out, const PTCL_BOX* boxes, int n, int box) {
  for (int i = 0; i < n; ++i) {
    const PTCL_BOX& b = boxes[i];
    const int x = box == 0 ? ptcl_box_center_x(b) : b.x + box / 2;
    const int y = box == 0 ? ptcl_box_center_y(b) : b.y + box / 2;
    out[i] = make_float2(static_cast<float>(x), static_cast<float>(y));
  }
  return 0;
}

int print_n_ptcl_boxes(const PTCL_BOX* boxes, int n) { return write_boxes(stdout, boxes, clamp_to_limit(n, __func__)); }

int print_all_ptcl_boxes(const PTCL_BOX* boxes) { return write_boxes(stdout, boxes, PTCL_BOX_MAX); }

int fprint_all_ptcl_boxes(const char* name, const PTCL_BOX* boxes) {
  FILE* fp = name != nullptr ? std::fopen(name, "w+") : nullptr;
  if (fp == nullptr) {
    std::printf("Cannot open file %s. strike any key exit!\n", name != nullptr ? name : "(null)");
    PK_FATAL("open file failed.");
  }
  write_boxes(fp, boxes, PTCL_BOX_MAX);
  std::fclose(fp);
  return 0;
}

int read_all_box_vecxyi(std::vector<int2>& centres, const char* name) {
  centres.clear();
  std::vector<PTCL_BOX> boxes(PTCL_BOX_VEC_MAX);
  const int count = read_boxes(boxes.data(), PTCL_BOX_VEC_MAX, name, __func__);
  centres.resize(count);
  ptcl_boxes_to_int2(centres.data(), boxes.data(), count, 0);
  return count;
}

int boxf_read_all_xysi(int2* out, int n, const char* name) {
  std::vector<int2> centres;
  const int count = read_all_box_vecxyi(centres, name);
  const int copied = n == 0 || n > count ? count : (n < 0 ? 0 : n);
  if (copied > 0) std::memcpy(out, centres.data(), static_cast<size_t>(copied) * sizeof(int2));
  return count;
}
