// Reading MRC data into floats (and doubles and bytes) from open streams and by path.
//
// Beyond the format's own rules, every reader refuses, before it reads or allocates, a head
// whose sizes are not positive or too large for one slice, and a file that ends before the
// data it is asked for: the run stops with a report that names the file, rather than going on
// with stale memory in the image.
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cuda_general/owned.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"

namespace {

// The name of an open stream, for reports; "(unnamed stream)" when the system can't tell.
const char* stream_name(FILE* stream) {
  static thread_local char name[1024];
  char link[64];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fileno(stream));
  ssize_t len = readlink(link, name, sizeof(name) - 1);
  if (len <= 0) return "(unnamed stream)";
  name[len] = '\0';
  return name;
}

int64_t stream_length(FILE* stream) {
  struct stat st;
  if (fstat(fileno(stream), &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

float convert_sample(const unsigned char* p, int mode) {
  switch (mode) {
    case MRC_MODE_BYTE:
      return static_cast<float>(p[0]);
    case MRC_MODE_SHORT: {
      int16_t v;
      std::memcpy(&v, p, 2);
      return static_cast<float>(v);
    }
    case MRC_MODE_USHORT: {
      uint16_t v;
      std::memcpy(&v, p, 2);
      return static_cast<float>(v);
    }
    default: {
      float v;
      std::memcpy(&v, p, 4);
      return v;
    }
  }
}

// Reads count samples of a readable mode at the stream's position and converts them.
void read_samples(FILE* stream, int mode, float* dst, size_t count) {
  const int bytes = mrc_sample_bytes(mode);
  if (mode == MRC_MODE_FLOAT) {
    if (std::fread(dst, 4, count, stream) < count) std::clearerr(stream);
    return;
  }
  unsigned char chunk[1 << 16];
  const size_t per_chunk = sizeof(chunk) / bytes;
  for (size_t done = 0; done < count;) {
    size_t want = count - done < per_chunk ? count - done : per_chunk;
    size_t got = std::fread(chunk, bytes, want, stream);
    for (size_t i = 0; i < got; ++i) dst[done + i] = convert_sample(chunk + i * bytes, mode);
    if (got < want) {
      std::clearerr(stream);
      return;
    }
    done += want;
  }
}

// Bytes of nx x ny x nz samples of `sample` bytes, or -1 when a size is negative or the
// product does not fit 64 bits: a corrupt head must not wrap around into a small number.
int64_t data_bytes(const MRC_HEAD* head, int64_t sample) {
  if (head->nx < 0 || head->ny < 0 || head->nz < 0) return -1;
  int64_t bytes = 0;
  if (__builtin_mul_overflow(int64_t{head->nx}, int64_t{head->ny}, &bytes) ||
      __builtin_mul_overflow(bytes, int64_t{head->nz}, &bytes) || __builtin_mul_overflow(bytes, sample, &bytes))
    return -1;
  return bytes;
}

// Stops the run when the head's sizes can't describe data that this module can hold.
void require_sane_sizes(FILE* stream, const MRC_HEAD* head, const char* func, int line) {
  const int64_t nx = head->nx, ny = head->ny, nz = head->nz;
  if (nx < 1 || ny < 1 || nz < 1) {
    report_fatal(func, __FILE__, line, "MRC file %s has sizes %d x %d x %d in its head; all must be positive",
                 stream_name(stream), head->nx, head->ny, head->nz);
  }
  // One slice's bytes and the whole count of samples are formed in 32 bits elsewhere.
  const int64_t slice_samples = nx * ny;  // below 2^62: both are 31-bit
  const int64_t samples = data_bytes(head, 1);
  if (slice_samples >= INT_MAX / 4 || samples < 0 || samples >= static_cast<int64_t>(UINT_MAX)) {
    report_fatal(func, __FILE__, line, "MRC file %s has sizes %d x %d x %d in its head, too large to read",
                 stream_name(stream), head->nx, head->ny, head->nz);
  }
}

// Stops the run when the file ends before byte `needed`.
void require_length(FILE* stream, const MRC_HEAD* head, int64_t needed, const char* what, const char* func,
                    int line) {
  const int64_t length = stream_length(stream);
  if (length >= needed) return;
  report_fatal(func, __FILE__, line,
               "MRC file %s is too short for %s: its head says %d x %d x %d samples of mode %d, which needs %lld "
               "bytes, but the file has %lld",
               stream_name(stream), what, head->nx, head->ny, head->nz, head->mode, static_cast<long long>(needed),
               static_cast<long long>(length));
}

// Call after require_sane_sizes, which bounds the product.
void require_all_data(FILE* stream, const MRC_HEAD* head, const char* func, int line) {
  require_length(stream, head, 1024 + data_bytes(head, mrc_sample_bytes(head->mode)), "its data", func, line);
}

void require_float_mode(const MRC_HEAD* head) {
  if (head->mode != MRC_MODE_FLOAT) {
    std::printf("File Mode must be MRC_MODE_FLOAT!Exit now!");
    std::fflush(stdout);
    report_exit(1);
  }
}

void size_check_or_die(FILE* stream, const MRC_HEAD* head, const char* func) {
  if (mrc_check_fsize(stream, head) != 0) report_fatal(func, __FILE__, __LINE__, "File size error!");
}

// Reads a slice of a readable mode, the sizes and the file length already checked.
void read_slice_checked(FILE* stream, const MRC_HEAD* head, int n, char axis, float* dst) {
  const int mode = head->mode;
  const int64_t ss = mrc_sample_bytes(mode);
  const int64_t nx = head->nx, ny = head->ny, nz = head->nz;
  switch (axis) {
    case 'z':
      std::fseek(stream, static_cast<long>(1024 + n * (nx * ny * ss)), SEEK_SET);
      read_samples(stream, mode, dst, static_cast<size_t>(nx * ny));
      break;
    case 'y':
      for (int64_t z = 0; z < nz; ++z) {
        std::fseek(stream, static_cast<long>(1024 + (nx * n + nx * ny * z) * ss), SEEK_SET);
        read_samples(stream, mode, dst + nx * z, static_cast<size_t>(nx));
      }
      break;
    default:  // 'x'
      for (int64_t k = 0; k < ny * nz; ++k) {
        std::fseek(stream, static_cast<long>(1024 + (n + k * nx) * ss), SEEK_SET);
        read_samples(stream, mode, dst + k, 1);
      }
      break;
  }
}

// The slice of any readable mode as floats into dst; false for a mode it can't convert.
bool read_slice_as_float(FILE* stream, const MRC_HEAD* head, int n, char axis, float* dst, const char* func,
                         int line) {
  if (mrc_sample_bytes(head->mode) == 0) return false;
  require_sane_sizes(stream, head, func, line);
  const int64_t limit = axis == 'z' ? head->nz : axis == 'y' ? head->ny : head->nx;
  if (n < 0 || n >= limit) {
    report_fatal(func, __FILE__, line, "MRC file %s has no slice %d along %c: its sizes are %d x %d x %d",
                 stream_name(stream), n, axis, head->nx, head->ny, head->nz);
  }
  const int64_t ss = mrc_sample_bytes(head->mode);
  const int64_t needed = axis == 'z' ? 1024 + (int64_t{n} + 1) * head->nx * head->ny * ss
                                     : 1024 + int64_t{head->nx} * head->ny * head->nz * ss;
  require_length(stream, head, needed, "the slice asked for", func, line);
  read_slice_checked(stream, head, n, axis, dst);
  return true;
}

int64_t slice_elements(const MRC_HEAD* head, char axis) {
  if (axis == 'z') return int64_t{head->nx} * head->ny;
  if (axis == 'y') return int64_t{head->nx} * head->nz;
  return int64_t{head->ny} * head->nz;
}

FILE* open_for_reading(const char* path, const char* func, int line) { return mrc_open_or_die(path, "r", func, line); }

}  // namespace

int mrc_sample_bytes(int mode) {
  switch (mode) {
    case MRC_MODE_BYTE: return 1;
    case MRC_MODE_SHORT:
    case MRC_MODE_USHORT: return 2;
    case MRC_MODE_FLOAT: return 4;
    default: return 0;
  }
}

FILE* mrc_open_or_die(const char* path, const char* mode, const char* func, int line) {
  FILE* f = std::fopen(path, mode);
  if (f != nullptr) return f;
  if (mode[0] == 'w')
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", path);
  else
    std::printf("Cannot open file %s. Permission denied or wrong file name.\n", path);
  report_fatal(func, __FILE__, line, "open file '%s' failed.", path);
}

int mrc_read_slice(FILE* stream, const MRC_HEAD* head, int n, char axis, float* dst) {
  axis = static_cast<char>(std::tolower(static_cast<unsigned char>(axis)));
  if (axis != 'x' && axis != 'y' && axis != 'z') return 0;
  read_slice_as_float(stream, head, n, axis, dst, __func__, __LINE__);
  return 0;
}

int mrc_check_fsize(FILE* stream, const MRC_HEAD* head) {
  int64_t ss = 0;
  switch (static_cast<unsigned>(head->mode)) {
    case 0: ss = 1; break;
    case 1: case 6: ss = 2; break;
    case 2: case 3: ss = 4; break;
    case 4: case 20: case 21: case 22: ss = 8; break;
    default:
      PK_WARNING("File type unknown!!");
      return -1;
  }
  std::fseek(stream, 0, SEEK_END);
  const int64_t length = std::ftell(stream);
  const int64_t expected = data_bytes(head, ss);
  if (expected >= 0 && length - 1024 == expected) return 0;
  std::printf("File size %ld  %d xyz %ld", static_cast<long>(length), static_cast<int>(ss), static_cast<long>(expected));
  PK_WARNING("File size error!!");
  return -1;
}

int mrc_read_all_nocheck(FILE* stream, const MRC_HEAD* head, float* dst) {
  if (mrc_sample_bytes(head->mode) == 0) {
    PK_WARNING("File type unknown!!");
    return 0;
  }
  require_sane_sizes(stream, head, __func__, __LINE__);
  require_all_data(stream, head, __func__, __LINE__);
  std::fseek(stream, 1024, SEEK_SET);
  const size_t count = static_cast<size_t>(int64_t{head->nx} * head->ny * head->nz);
  if (head->mode == MRC_MODE_FLOAT) {
    if (std::fread(dst, 4, count, stream) == 0 && count > 0) {
      PK_WARNING("Reading file failed!\n!");
      return -1;
    }
    return 0;
  }
  read_samples(stream, head->mode, dst, count);
  return 0;
}

int mrc_read_all(FILE* stream, const MRC_HEAD* head, float* dst) {
  size_check_or_die(stream, head, __func__);
  return mrc_read_all_nocheck(stream, head, dst);
}

int mrc_read_slice_double(FILE* stream, const MRC_HEAD* head, int n, char axis, double* dst) {
  size_check_or_die(stream, head, __func__);
  axis = static_cast<char>(std::tolower(static_cast<unsigned char>(axis)));
  if (axis != 'x' && axis != 'y' && axis != 'z') return 0;
  if (head->mode != 0 && head->mode != 1 && head->mode != 2) return 0;
  std::vector<float> tmp(static_cast<size_t>(slice_elements(head, axis)));
  read_slice_as_float(stream, head, n, axis, tmp.data(), __func__, __LINE__);
  for (size_t i = 0; i < tmp.size(); ++i) dst[i] = tmp[i];
  return 0;
}

int mrc_read_slice_byte(FILE* stream, const MRC_HEAD* head, int n, char axis, unsigned char* dst) {
  size_check_or_die(stream, head, __func__);
  axis = static_cast<char>(std::tolower(static_cast<unsigned char>(axis)));
  if (axis != 'x' && axis != 'y' && axis != 'z') return 0;
  if (head->mode != 0 && head->mode != 1 && head->mode != 2) return 0;
  std::vector<float> tmp(static_cast<size_t>(slice_elements(head, axis)));
  read_slice_as_float(stream, head, n, axis, tmp.data(), __func__, __LINE__);
  // The contrast is inverted: amax maps to 0, amin to 255.
  const float range = head->amax - head->amin;
  for (size_t i = 0; i < tmp.size(); ++i)
    dst[i] = static_cast<unsigned char>(static_cast<int>((head->amax - tmp[i]) * 255.0f / range));
  return 0;
}

int mrc_read_sub_area(FILE* stream, const MRC_HEAD* head, float* dst, int x0, int y0, int z0, int sx, int sy,
                      int sz) {
  require_float_mode(head);
  require_sane_sizes(stream, head, __func__, __LINE__);
  if (x0 < 0 || y0 < 0 || z0 < 0 || sx < 0 || sy < 0 || sz < 0 || int64_t{x0} + sx > head->nx ||
      int64_t{y0} + sy > head->ny || int64_t{z0} + sz > head->nz) {
    PK_FATAL("The box at (%d, %d, %d) of %d x %d x %d lies outside the image of %s (%d x %d x %d)", x0, y0, z0, sx,
             sy, sz, stream_name(stream), head->nx, head->ny, head->nz);
  }
  require_all_data(stream, head, __func__, __LINE__);
  const int64_t nx = head->nx, ny = head->ny;
  for (int64_t z = 0; z < sz; ++z)
    for (int64_t y = 0; y < sy; ++y) {
      std::fseek(stream, static_cast<long>(1024 + ((z0 + z) * nx * ny + (y0 + y) * nx + x0) * 4), SEEK_SET);
      read_samples(stream, MRC_MODE_FLOAT, dst + (z * sy + y) * sx, static_cast<size_t>(sx));
    }
  return 0;
}

int mrc_2d_read_sub_area(FILE* stream, const MRC_HEAD* head, float* dst, int x0, int y0, int sx, int sy) {
  return mrc_read_sub_area(stream, head, dst, x0, y0, 0, sx, sy, 1);
}

int mrc_2d_read_grids(FILE* stream, const MRC_HEAD* head, float* dst, int box, int step) {
  require_float_mode(head);
  if (step <= 0 || box <= 0) PK_FATAL("Tiles need a positive box and step, not %d and %d", box, step);
  require_sane_sizes(stream, head, __func__, __LINE__);
  if (head->ny < box || head->nx < box) return 0;
  std::vector<float> section(static_cast<size_t>(int64_t{head->nx} * head->ny));
  mrc_read_slice(stream, head, 0, 'z', section.data());
  const int gx = (head->nx - box) / step + 1, gy = (head->ny - box) / step + 1;
  for (int r = 0; r < gy; ++r)
    for (int c = 0; c < gx; ++c) {
      float* tile = dst + (int64_t{r} * gx + c) * box * box;
      for (int y = 0; y < box; ++y)
        std::memcpy(tile + int64_t{y} * box, section.data() + (int64_t{r} * step + y) * head->nx + int64_t{c} * step,
                    sizeof(float) * box);
    }
  return 0;
}

float* mrcf_get_data_all(const char* path) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  MRC_HEAD head;
  mrc_read_head(f, &head);
  // Check before allocating, so a corrupt head can't ask for a huge block.
  size_check_or_die(f, &head, __func__);
  require_sane_sizes(f, &head, __func__, __LINE__);
  HostBlock<float> data(static_cast<float*>(std::malloc(sizeof(float) * head.nx * head.ny * head.nz)));
  if (data == nullptr) PK_FATAL("Not enough memory to read %s", path);
  mrc_read_all(f, &head, data.get());
  return data.release();
}

float* mrcf_get_data_sliceN(const char* path, int n) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  MRC_HEAD head;
  mrc_read_head(f, &head);
  require_sane_sizes(f, &head, __func__, __LINE__);
  HostBlock<float> data(static_cast<float*>(std::calloc(static_cast<size_t>(head.nx) * head.ny, sizeof(float))));
  if (data == nullptr) PK_FATAL("Not enough memory to read %s", path);
  mrc_read_slice(f, &head, n, 'z', data.get());
  return data.release();
}

int mrcf_get_zdata_all2(float** result, const char* path) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  MRC_HEAD head;
  mrc_read_head(f, &head);
  size_check_or_die(f, &head, __func__);
  require_sane_sizes(f, &head, __func__, __LINE__);
  PK_CUDA_CHECK(cudaMallocManaged(reinterpret_cast<void**>(result),
                                  sizeof(float) * head.nx * head.ny * head.nz, cudaMemAttachGlobal));
  mrc_read_all(f, &head, *result);
  PK_CUDA_CHECK(cudaDeviceSynchronize());
  return 0;
}

float* mrcf_get_zdata_all(const char* path) {
  float* data = nullptr;
  mrcf_get_zdata_all2(&data, path);
  return data;
}

int mrcf_get_head_data(const char* path, MRC_HEAD* head, float* dst) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  mrc_read_head(f, head);
  int result = mrc_read_all(f, head, dst);
  return result;
}

int mrcf_read_all(const char* path, float* dst) {
  MRC_HEAD head;
  return mrcf_get_head_data(path, &head, dst);
}

namespace {

// Fills the head, then reads all data without the size check when the sizes are the expected
// ones (nz of -1: any); -1 without a message otherwise.
int read_head_data_if_sizes(const char* path, MRC_HEAD* head, float* dst, int nx, int ny, int nz, const char* func) {
  FileHandle file(open_for_reading(path, func, __LINE__));
  FILE* f = file.get();
  mrc_read_head(f, head);
  int result = -1;
  if (head->nx == nx && head->ny == ny && (nz < 0 || head->nz == nz)) result = mrc_read_all_nocheck(f, head, dst);
  return result;
}

}  // namespace

int mrcf_read_head_data_nocheck(const char* path, MRC_HEAD* head, float* dst) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  mrc_read_head(f, head);
  int result = mrc_read_all_nocheck(f, head, dst);
  return result;
}

int mrcf_read_head_data_check_xyz(const char* path, MRC_HEAD* head, float* dst, int nx, int ny, int nz) {
  return read_head_data_if_sizes(path, head, dst, nx, ny, nz < 0 ? 0 : nz, __func__);
}

int mrcf_read_head_data_check_xy(const char* path, MRC_HEAD* head, float* dst, int nx, int ny) {
  return read_head_data_if_sizes(path, head, dst, nx, ny, -1, __func__);
}

int mrcf_read_data_check_xy(const char* path, float* dst, int nx, int ny) {
  MRC_HEAD head;
  return mrcf_read_head_data_check_xy(path, &head, dst, nx, ny);
}

int mrcf_read_data_check_xyz(const char* path, float* dst, int nx, int ny, int nz) {
  MRC_HEAD head;
  return mrcf_read_head_data_check_xyz(path, &head, dst, nx, ny, nz);
}

int mrcf_read_slice(const char* path, int n, char axis, float* dst) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  MRC_HEAD head;
  mrc_read_head(f, &head);
  mrc_read_slice(f, &head, n, axis, dst);
  return 0;
}

int mrcf_read_slice_check_xy_cid(const char* path, int n, char axis, float* dst, int nx, int ny, int16_t cid) {
  FileHandle file(open_for_reading(path, __func__, __LINE__));
  FILE* f = file.get();
  MRC_HEAD head;
  mrc_read_head(f, &head);
  int result = -1;
  if (head.nx == nx && head.ny == ny && head.cid == cid) result = mrc_read_slice(f, &head, n, axis, dst);
  return result;
}

int mrcf_read_sub_area(const char* path, float* dst, int x0, int y0, int z0, int sx, int sy, int sz) {
  FileHandle file(std::fopen(path, "r"));
  FILE* f = file.get();
  if (f == nullptr) {
    std::printf("Cannot open file %s strike any key exit!\n", path);
    std::fflush(stdout);
    report_exit(1);
  }
  MRC_HEAD head;
  mrc_read_head(f, &head);
  mrc_read_sub_area(f, &head, dst, x0, y0, z0, sx, sy, sz);
  return 0;
}

long get_file_size(FILE* stream) {
  std::fseek(stream, 0, SEEK_END);
  return std::ftell(stream);
}
