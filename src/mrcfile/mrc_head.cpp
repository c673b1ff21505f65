// MRC heads, modes, the comparison of two heads, and names derived from micrograph names.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"

namespace {

const char* const kModeNames[23] = {
    "Byte",    "Short",   "Float",   "Complex Short", "Complex Float", "Unknown", "Unsigned Short", "Unknown",
    "Unknown", "Unknown", "Unknown", "Unknown",       "Unknown",       "Unknown", "Unknown",        "Unknown",
    "RGB",     "Unknown", "Unknown", "Unknown",       "Complex Float (Real, Imag)", "Complex Float (Amp, Rad)",
    "Complex Float (Amp, Deg)"};

void repair_stamp(MRC_HEAD* head) {
  if (std::memcmp(head->map, "MAP", 3) != 0) mrc_set_head_stmp(head);
}

void print_two_heads_table(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2) {
  std::printf("      Nx      Ny      Nz      Mode             File:\n");
  std::printf("      %-8d%-8d%-8d%-18s  %s\n", h1->nx, h1->ny, h1->nz, mrc_get_head_mode(h1), first);
  std::printf("      %-8d%-8d%-8d%-18s  %s\n", h2->nx, h2->ny, h2->nz, mrc_get_head_mode(h2), second);
  std::fflush(stdout);
}

bool same_sizes_and_mode(const MRC_HEAD* h1, const MRC_HEAD* h2) {
  return h1->nx == h2->nx && h1->ny == h2->ny && h1->nz == h2->nz && h1->mode == h2->mode;
}

void print_different_heads(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2) {
  std::printf(
      "\033[1m%s\033[m has a different size or format from  \033[1m%s\033[m.\nCheck if all the micrographs are the "
      "same sizes and format? \n ",
      first, second);
  print_two_heads_table(first, second, h1, h2);
}

// Length of the micrograph suffix that ends the name: 4 for ".mrc", 5 for ".mrcs", 0 otherwise.
int suffix_length(const char* name) {
  size_t len = std::strlen(name);
  if (len > 4 && std::strcmp(name + len - 4, ".mrc") == 0) return 4;
  if (len > 5 && std::strcmp(name + len - 5, ".mrcs") == 0) return 5;
  return 0;
}

// Copies the stem of name into a cleared 1024-byte destination; returns the stem length.
size_t copy_stem(char* dst, const char* name) {
  std::memset(dst, 0, 1024);
  size_t stem = std::strlen(name) - static_cast<size_t>(get_micrograph_suffixn(name));
  if (stem > 1023) stem = 1023;
  std::memcpy(dst, name, stem);
  return stem;
}

void append_bounded(char* dst, size_t used, const char* text) {
  size_t room = 1023 - used;
  size_t len = std::strlen(text);
  std::memcpy(dst + used, text, len < room ? len : room);
}

}  // namespace

int mrc_init_head(MRC_HEAD* head) {
  std::memset(head, 0, sizeof(MRC_HEAD));
  head->nx = head->ny = head->nz = 1;
  head->mode = MRC_MODE_FLOAT;
  head->mx = head->my = head->mz = 1;
  head->xlen = head->ylen = head->zlen = 1.0f;
  head->alpha = head->beta = head->gamma = 90.0f;
  head->mapc = 1;
  head->mapr = 2;
  head->maps = 3;
  head->amin = 0.0f;
  head->amax = 255.0f;
  head->amean = 128.0f;
  head->ispg = 1;
  head->cid = 1000;
  std::memcpy(head->map, "MAP ", 4);
  head->machst[0] = 0x44;
  head->machst[1] = 0x41;
  return 0;
}

MRC_HEAD* mrc_new_head() {
  MRC_HEAD* head = static_cast<MRC_HEAD*>(std::malloc(sizeof(MRC_HEAD)));
  if (head == nullptr) PK_FATAL("Not enough memory for an MRC head");
  mrc_init_head(head);
  return head;
}

int mrc_delete_head(MRC_HEAD* head) {
  std::free(head);
  return 0;
}

int mrc_set_head_stmp(MRC_HEAD* head) {
  std::memcpy(head->map, "MAP ", 4);
  std::memcpy(head->machst, "DA\0\0", 4);
  return 0;
}

int mrc_read_head(FILE* stream, MRC_HEAD* head) {
  if (std::ftell(stream) != 0) std::rewind(stream);
  // A file shorter than a head leaves the defaults in the bytes it does not cover.
  mrc_init_head(head);
  if (std::fread(head, 1, sizeof(MRC_HEAD), stream) < sizeof(MRC_HEAD)) std::clearerr(stream);
  repair_stamp(head);
  return 0;
}

int mrcf_read_head(const char* path, MRC_HEAD* head) {
  FILE* f = mrc_open_or_die(path, "r", __func__, __LINE__);
  mrc_read_head(f, head);
  std::fclose(f);
  return 0;
}

MRC_HEAD* mrcf_get_head(const char* path) {
  FILE* f = mrc_open_or_die(path, "r", __func__, __LINE__);
  MRC_HEAD* head = mrc_new_head();
  mrc_read_head(f, head);
  std::fclose(f);
  return head;
}

int mrc_check_head(const MRC_HEAD* head) {
  if (head != nullptr && std::memcmp(head->map, "MAP", 3) == 0) return 0;
  std::printf("Warning: in function 'mrc_check_head()'! Not a valid mrc file head!\n");
  return -1;
}

int mrcf_check_head(const char* path) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  return 0;
}

const char* mrc_get_head_mode(const MRC_HEAD* head) {
  unsigned mode = static_cast<unsigned>(head->mode);
  return mode < 23 ? kModeNames[mode] : "Unknown";
}

const char* mrcf_get_head_mode(const char* path) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  return mrc_get_head_mode(&head);
}

int get_mrc_head_xy(int& nx, int& ny, const MRC_HEAD* head) {
  nx = head->nx;
  ny = head->ny;
  return 0;
}

int get_mrc_head_xyz(int& nx, int& ny, int& nz, const MRC_HEAD* head) {
  nx = head->nx;
  ny = head->ny;
  nz = head->nz;
  return 0;
}

int get_mrcf_xy(int& nx, int& ny, const char* path) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  return get_mrc_head_xy(nx, ny, &head);
}

int get_mrcf_xyz(int& nx, int& ny, int& nz, const char* path) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  return get_mrc_head_xyz(nx, ny, nz, &head);
}

int64_t mrcf_get_dim_size(const char* path, const char* keyword) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  const int64_t x = head.nx, y = head.ny, z = head.nz;
  struct Entry {
    const char* word;
    int64_t size;
  };
  const Entry table[] = {{"x", x},      {"y", y},      {"z", z},      {"xy", x * y},     {"yx", x * y},
                         {"xz", x * z}, {"zx", x * z}, {"yz", y * z}, {"zy", y * z}, {"xyz", x * y * z}};
  for (const Entry& e : table)
    if (strcasecmp(keyword, e.word) == 0) return e.size;
  std::printf("Error in function %s(), file %s on line %d: unrecognized dimension keywords %s !\n", __func__,
              report_module_path(__FILE__), __LINE__, keyword);
  std::printf("valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive");
  std::fflush(stdout);
  return -1;
}

int mrc_check_even_size(const MRC_HEAD* head) { return head->nx % 2 == 0 && head->ny % 2 == 0 ? 0 : -1; }
int is_mrc_square(const MRC_HEAD* head) { return head->nx == head->ny ? 1 : 0; }
int is_mrc_cube(const MRC_HEAD* head) { return head->nx == head->ny && head->ny == head->nz ? 1 : 0; }

int check_mrc_head_sizes_two(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2) {
  if (same_sizes_and_mode(h1, h2)) return 0;
  print_different_heads(first, second, h1, h2);
  report_exit(1);
}

int check_mrc_head_sizes_two_warning(const char* first, const char* second, const MRC_HEAD* h1,
                                     const MRC_HEAD* h2) {
  if (same_sizes_and_mode(h1, h2)) return 0;
  print_different_heads(first, second, h1, h2);
  return -1;
}

int sorrel_check_mrc_head_sizes_two(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2) {
  if (same_sizes_and_mode(h1, h2)) return 0;
  std::printf(
      "Micrograph \033[1m%s\033[m has a different size or format from  \033[1m%s\033[m.\nCheck if all the "
      "micrographs are the same sizes and format? \n Currently the concept of Sorrel/Pickora is to process an "
      "entire dataset with the same sizes and formats, which strongly disagrees with the idea to mix different "
      "sizes, formats, types of micrographs.\nIf you really have to process these mixture of datasets, it's "
      "suggested to split them, pre-process and then combine the particles.\nThat will eliminate the potential "
      "conflicts, not only Sorrel or Pickora but also other programs.\n",
      first, second);
  print_two_heads_table(first, second, h1, h2);
  report_exit(1);
}

int get_micrograph_suffixn(const char* name) {
  int n = suffix_length(name);
  if (n == 0) {
    // The warning names this function whichever builder asked.
    report_warning("get_micrograph_suffixn", __FILE__, __LINE__, "Micrograph suffix must be .mrc or .mrcs!");
  }
  return n;
}

int mrcf_set_outname_by_suffix(char* dst, const char* name, const char* suffix) {
  append_bounded(dst, copy_stem(dst, name), suffix);
  return 0;
}

int mrcf_replace_file_suffix(char* dst, const char* name, const char* suffix) {
  return mrcf_set_outname_by_suffix(dst, name, suffix);
}

int mrcf_set_outname_by_insertion(char* dst, const char* name, const char* insertion) {
  const int old = suffix_length(name);
  size_t used = copy_stem(dst, name);
  append_bounded(dst, used, insertion);
  append_bounded(dst, std::strlen(dst), name + std::strlen(name) - old);
  return 0;
}
