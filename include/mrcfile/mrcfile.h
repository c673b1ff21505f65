// MRC images: the 1024-byte head, reading heads, slices and whole files into floats, the
// comparison of two heads, output names derived from a micrograph name, and writing mode 2
// files from host, managed or device buffers.
//
// Files are taken in the machine's byte order, and the data always start at byte 1024.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct MRC_HEAD {
  int32_t nx, ny, nz;  // columns (fastest), rows, sections (slowest)
  int32_t mode;
  int32_t nxstart, nystart, nzstart;
  int32_t mx, my, mz;
  float xlen, ylen, zlen;
  float alpha, beta, gamma;
  int32_t mapc, mapr, maps;
  float amin, amax, amean;
  int16_t ispg, nsymbt;
  int32_t next;
  int16_t cid;
  char reserved[30];
  char extra[68];
  float xorigin, yorigin, zorigin;
  char map[4];
  unsigned char machst[4];
  float rms;
  int32_t nlabl;
  char labels[10][80];
};
static_assert(sizeof(MRC_HEAD) == 1024, "an MRC head is exactly 1024 bytes");

constexpr int MRC_MODE_BYTE = 0;
constexpr int MRC_MODE_SHORT = 1;
constexpr int MRC_MODE_FLOAT = 2;
constexpr int MRC_MODE_USHORT = 6;

// Heads.
MRC_HEAD* mrc_new_head();
int mrc_init_head(MRC_HEAD* head);
int mrc_delete_head(MRC_HEAD* head);
int mrc_read_head(FILE* stream, MRC_HEAD* head);
int mrcf_read_head(const char* path, MRC_HEAD* head);
MRC_HEAD* mrcf_get_head(const char* path);
int mrc_check_head(const MRC_HEAD* head);
int mrcf_check_head(const char* path);
const char* mrc_get_head_mode(const MRC_HEAD* head);
const char* mrcf_get_head_mode(const char* path);
int get_mrc_head_xy(int& nx, int& ny, const MRC_HEAD* head);
int get_mrc_head_xyz(int& nx, int& ny, int& nz, const MRC_HEAD* head);
int get_mrcf_xy(int& nx, int& ny, const char* path);
int get_mrcf_xyz(int& nx, int& ny, int& nz, const char* path);
int64_t mrcf_get_dim_size(const char* path, const char* keyword);
int mrc_check_even_size(const MRC_HEAD* head);
int is_mrc_square(const MRC_HEAD* head);
int is_mrc_cube(const MRC_HEAD* head);
int check_mrc_head_sizes_two(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2);
int check_mrc_head_sizes_two_warning(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2);
int sorrel_check_mrc_head_sizes_two(const char* first, const char* second, const MRC_HEAD* h1, const MRC_HEAD* h2);

// Bytes of one sample of a readable mode (0, 1, 2, 6); 0 for the others.
int mrc_sample_bytes(int mode);

// Data from an open stream, into a destination that the caller has sized.
int mrc_read_slice(FILE* stream, const MRC_HEAD* head, int n, char axis, float* dst);
int mrc_read_slice_double(FILE* stream, const MRC_HEAD* head, int n, char axis, double* dst);
int mrc_read_slice_byte(FILE* stream, const MRC_HEAD* head, int n, char axis, unsigned char* dst);
int mrc_check_fsize(FILE* stream, const MRC_HEAD* head);
int mrc_read_all(FILE* stream, const MRC_HEAD* head, float* dst);
int mrc_read_all_nocheck(FILE* stream, const MRC_HEAD* head, float* dst);
int mrc_read_sub_area(FILE* stream, const MRC_HEAD* head, float* dst, int x0, int y0, int z0, int sx, int sy, int sz);
int mrc_2d_read_sub_area(FILE* stream, const MRC_HEAD* head, float* dst, int x0, int y0, int sx, int sy);
int mrc_2d_read_grids(FILE* stream, const MRC_HEAD* head, float* dst, int box, int step);

// Data by path; the get_ forms hand a new buffer to the caller (free, or cudaFree for zdata).
float* mrcf_get_data_all(const char* path);
float* mrcf_get_data_sliceN(const char* path, int n);
float* mrcf_get_zdata_all(const char* path);
int mrcf_get_zdata_all2(float** result, const char* path);
int mrcf_read_all(const char* path, float* dst);
int mrcf_get_head_data(const char* path, MRC_HEAD* head, float* dst);
int mrcf_read_head_data_nocheck(const char* path, MRC_HEAD* head, float* dst);
int mrcf_read_data_check_xy(const char* path, float* dst, int nx, int ny);
int mrcf_read_data_check_xyz(const char* path, float* dst, int nx, int ny, int nz);
int mrcf_read_head_data_check_xy(const char* path, MRC_HEAD* head, float* dst, int nx, int ny);
int mrcf_read_head_data_check_xyz(const char* path, MRC_HEAD* head, float* dst, int nx, int ny, int nz);
int mrcf_read_slice(const char* path, int n, char axis, float* dst);
int mrcf_read_slice_check_xy_cid(const char* path, int n, char axis, float* dst, int nx, int ny, int16_t cid);
int mrcf_read_sub_area(const char* path, float* dst, int x0, int y0, int z0, int sx, int sy, int sz);

// Names and files. Destinations are 1024-byte buffers.
long get_file_size(FILE* stream);
int get_micrograph_suffixn(const char* name);
int mrcf_set_outname_by_suffix(char* dst, const char* name, const char* suffix);
int mrcf_replace_file_suffix(char* dst, const char* name, const char* suffix);
int mrcf_set_outname_by_insertion(char* dst, const char* name, const char* insertion);

// Setting fields of a head.
int mrc_set_head_xyz(MRC_HEAD* head, int nx, int ny, int nz);
int mrc_set_head_mode(MRC_HEAD* head, int mode);
int mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode);
int mrc_set_head_xyz_mmm(MRC_HEAD* head, int nx, int ny, int nz, float a, float b, float mean);
int mrc_set_head_xyz_mmmm(MRC_HEAD* head, int nx, int ny, int nz, float a, float b, float mean, int mode);
void mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, unsigned long count);
int mrc_set_head_stmp(MRC_HEAD* head);

// Writing to an open stream.
int mrc_write_head(FILE* stream, const MRC_HEAD* head);
int mrc_write_head_data(FILE* stream, MRC_HEAD* head, const float* data);
int mrc_write_head_zdata(FILE* stream, MRC_HEAD* head, const float* managed_data);
int mrc_write_head_ddata(FILE* stream, MRC_HEAD* head, const float* device_data);
int mrc_add_slice(FILE* stream, const MRC_HEAD* head, const float* image);
int mrc_add_sliceN(FILE* stream, const MRC_HEAD* head, const float* image, int n);
int mrc_update_slcX(FILE* stream, int x, const float* data);

// Writing by path.
int mrcf_write_head_data(const char* path, MRC_HEAD* head, const float* data);
int mrcf_write_head_ddata(const char* path, MRC_HEAD* head, const float* device_data);
int mrcf_write_xyz_data(const char* path, const float* data, int nx, int ny, int nz);
int mrcf_write_xyz_zdata(const char* path, const float* managed_data, int nx, int ny, int nz);
int mrcf_write_xyz_ddata(const char* path, const float* device_data, int nx, int ny, int nz);
int mrcf_add_xyz_data(const char* path, const float* data, int nx, int ny, int n);
int mrc_new_file(const char* path, const MRC_HEAD* head);
int mrc_replace_head(const char* path, const MRC_HEAD* head);
int mrcf_update_head(const char* path);
int mrcf_io_init(const char* in_path, const char* out_path, FILE*& in, FILE*& out, MRC_HEAD*& in_head,
                 MRC_HEAD*& out_head);
int mrcf_io_open_io_read_write_head(const char* in_path, const char* out_path, FILE*& in, FILE*& out,
                                    MRC_HEAD* in_head, MRC_HEAD* out_head);

// Opening with the module's fatal reports: "r" and "r+" report a missing or unreadable file,
// "w+" an uncreatable one; both end the run with status 1.
FILE* mrc_open_or_die(const char* path, const char* mode, const char* func, int line);
