// Writing mode 2 MRC files from host, managed and device buffers.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cuda_general/report.h"
#include "math_utils/host_stats.h"
#include "mrcfile/mrcfile.h"
#include "txt_file/atomic_file.h"

namespace {

size_t sample_count(const MRC_HEAD* head) {
  // The count is formed in 32 bits, as every writer of this format has done.
  return static_cast<unsigned int>(head->nx) * static_cast<unsigned int>(head->ny) *
         static_cast<unsigned int>(head->nz);
}

void require_float_mode_for_writing(const MRC_HEAD* head) {
  if (head->mode != MRC_MODE_FLOAT)
    PK_FATAL("mrc_write_head_alldata() does not support writing float data to other MRC format.");
}

// A full disk or a vanished folder must not pass silently: nothing downstream could tell.
void require_written(FILE* stream, const char* path, const char* func, int line) {
  if (std::ferror(stream) == 0) return;
  std::printf("Cannot write to file %s. Permission denied or no space left!\n", path);
  report_fatal(func, __FILE__, line, "open file '%s' failed.", path);
}

void write_data(FILE* stream, const MRC_HEAD* head, const float* data) {
  const size_t slice = static_cast<size_t>(head->nx) * head->ny;
  std::fwrite(data, slice * sizeof(float), static_cast<size_t>(head->nz), stream);
}

void close_written(FILE* stream, const char* path, const char* func, int line) {
  require_written(stream, path, func, line);
  if (std::fclose(stream) != 0) {
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", path);
    report_fatal(func, __FILE__, line, "open file '%s' failed.", path);
  }
}

}  // namespace

int mrc_set_head_xyz(MRC_HEAD* head, int nx, int ny, int nz) {
  head->nx = nx;
  head->ny = ny;
  head->nz = nz;
  return 0;
}

int mrc_set_head_mode(MRC_HEAD* head, int mode) {
  head->mode = mode;
  return 0;
}

int mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode) {
  mrc_set_head_xyz(head, nx, ny, nz);
  return mrc_set_head_mode(head, mode);
}

int mrc_set_head_xyz_mmm(MRC_HEAD* head, int nx, int ny, int nz, float a, float b, float mean) {
  mrc_set_head_xyz(head, nx, ny, nz);
  head->amin = a < b ? a : b;
  head->amax = a < b ? b : a;
  head->amean = mean;
  return 0;
}

int mrc_set_head_xyz_mmmm(MRC_HEAD* head, int nx, int ny, int nz, float a, float b, float mean, int mode) {
  mrc_set_head_xyz_mmm(head, nx, ny, nz, a, b, mean);
  return mrc_set_head_mode(head, mode);
}

void mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, unsigned long count) {
  hm_max_min_mean(data, count, head->amax, head->amin, head->amean);
}

int mrc_write_head(FILE* stream, const MRC_HEAD* head) {
  if (std::ftell(stream) != 0) std::rewind(stream);
  if (std::memcmp(head->map, "MAP", 3) != 0) PK_WARNING("MRC format problem! Check file format!\n!");
  std::fwrite(head, sizeof(MRC_HEAD), 1, stream);
  return 0;
}

int mrc_write_head_data(FILE* stream, MRC_HEAD* head, const float* data) {
  mrc_set_head_mmm_from_data(head, data, sample_count(head));
  require_float_mode_for_writing(head);
  mrc_write_head(stream, head);
  write_data(stream, head, data);
  return 0;
}

int mrc_write_head_zdata(FILE* stream, MRC_HEAD* head, const float* managed_data) {
  PK_CUDA_CHECK(cudaDeviceSynchronize());
  return mrc_write_head_data(stream, head, managed_data);
}

int mrc_write_head_ddata(FILE* stream, MRC_HEAD* head, const float* device_data) {
  require_float_mode_for_writing(head);
  std::vector<float> host(sample_count(head));
  PK_CUDA_CHECK(cudaMemcpy(host.data(), device_data, host.size() * sizeof(float), cudaMemcpyDeviceToHost));
  return mrc_write_head_data(stream, head, host.data());
}

int mrc_add_slice(FILE* stream, const MRC_HEAD* head, const float* image) {
  std::fseek(stream, 0, SEEK_END);
  std::fwrite(image, sizeof(float), static_cast<size_t>(head->nx) * head->ny, stream);
  return 0;
}

int mrc_add_sliceN(FILE* stream, const MRC_HEAD* head, const float* image, int n) {
  const int64_t slice = int64_t{head->nx} * head->ny;
  std::fseek(stream, static_cast<long>(1024 + int64_t{n} * slice * 4), SEEK_SET);
  std::fwrite(image, sizeof(float), static_cast<size_t>(slice), stream);
  return 0;
}

int mrc_update_slcX(FILE* stream, int x, const float* data) {
  MRC_HEAD head;
  mrc_read_head(stream, &head);
  if (x < 0 || x >= head.nx) PK_FATAL("Column %d lies outside an image of %d columns", x, head.nx);
  const int64_t nx = head.nx;
  for (int64_t k = 0; k < int64_t{head.ny} * head.nz; ++k) {
    std::fseek(stream, static_cast<long>(1024 + (k * nx + x) * 4), SEEK_SET);
    std::fwrite(data + k, sizeof(float), 1, stream);
  }
  return 0;
}

// Whole files by path appear complete or not at all: a kill or a full disk leaves no partial
// image under the final name, and a failed write ends the run naming the file.
int mrcf_write_head_data(const char* path, MRC_HEAD* head, const float* data) {
  AtomicFile out(path);
  mrc_write_head_data(out.stream(), head, data);
  out.commit();
  return 0;
}

int mrcf_write_head_ddata(const char* path, MRC_HEAD* head, const float* device_data) {
  AtomicFile out(path);
  mrc_write_head_ddata(out.stream(), head, device_data);
  out.commit();
  return 0;
}

int mrcf_write_xyz_data(const char* path, const float* data, int nx, int ny, int nz) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, MRC_MODE_FLOAT);
  return mrcf_write_head_data(path, &head, data);
}

int mrcf_write_xyz_zdata(const char* path, const float* managed_data, int nx, int ny, int nz) {
  PK_CUDA_CHECK(cudaDeviceSynchronize());
  return mrcf_write_xyz_data(path, managed_data, nx, ny, nz);
}

int mrcf_write_xyz_ddata(const char* path, const float* device_data, int nx, int ny, int nz) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, MRC_MODE_FLOAT);
  return mrcf_write_head_ddata(path, &head, device_data);
}

int mrcf_add_xyz_data(const char* path, const float* data, int nx, int ny, int n) {
  FILE* f = mrc_open_or_die(path, "r+", __func__, __LINE__);
  MRC_HEAD head;
  mrc_read_head(f, &head);
  if (head.nx != nx || head.ny != ny) {
    std::fclose(f);
    PK_FATAL("file size incompatible!");
  }
  head.nz += n;
  head.mode = MRC_MODE_FLOAT;
  mrc_write_head(f, &head);
  std::fseek(f, 0, SEEK_END);
  std::fwrite(data, static_cast<size_t>(nx) * ny * sizeof(float), static_cast<size_t>(n), f);
  close_written(f, path, __func__, __LINE__);
  return 0;
}

int mrc_new_file(const char* path, const MRC_HEAD* head) {
  FILE* f = std::fopen(path, "w+");
  if (f == nullptr) {
    std::printf("\nCannot open file strike any key exit!");
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", path);
    PK_FATAL("open file '%s' failed.", path);
  }
  mrc_write_head(f, head);
  close_written(f, path, __func__, __LINE__);
  return 0;
}

int mrc_replace_head(const char* path, const MRC_HEAD* head) {
  FILE* f = mrc_open_or_die(path, "r+", __func__, __LINE__);
  mrc_write_head(f, head);
  close_written(f, path, __func__, __LINE__);
  return 0;
}

int mrcf_update_head(const char* path) {
  FILE* f = std::fopen(path, "r+");
  if (f == nullptr) {
    std::printf("Cannot open file strike any key exit!");
    std::fflush(stdout);
    report_exit(1);
  }
  MRC_HEAD head;
  mrc_read_head(f, &head);
  double lo = 0.0, hi = 0.0, total = 0.0;
  const int mode = head.mode;
  if (mode == MRC_MODE_BYTE || mode == MRC_MODE_SHORT || mode == MRC_MODE_FLOAT) {
    const size_t slice = static_cast<size_t>(head.nx) * head.ny;
    float* section = static_cast<float*>(std::malloc(slice * sizeof(float)));
    if (section == nullptr) {
      std::printf("Function 'malloc' erro, while updating head!");
      std::fflush(stdout);
      report_exit(1);
    }
    std::printf("updating head!");
    lo = 1e300;
    hi = -1e300;
    for (int z = 0; z < head.nz; ++z) {
      mrc_read_slice(f, &head, z, 'z', section);
      double sum = 0.0;
      for (size_t i = 0; i < slice; ++i) {
        const double v = section[i];
        if (v < lo) lo = v;
        if (v > hi) hi = v;
        sum += v;
      }
      total += sum;
    }
    std::free(section);
    total /= static_cast<double>(slice) * head.nz;
  }
  head.amin = static_cast<float>(lo);
  head.amax = static_cast<float>(hi);
  head.amean = static_cast<float>(total);
  std::fclose(f);
  mrc_replace_head(path, &head);
  std::printf("updating head finished!");
  std::fflush(stdout);
  return 0;
}

int mrcf_io_init(const char* in_path, const char* out_path, FILE*& in, FILE*& out, MRC_HEAD*& in_head,
                 MRC_HEAD*& out_head) {
  in = std::fopen(in_path, "r");
  out = std::fopen(out_path, "w+");
  in_head = mrc_new_head();
  out_head = mrc_new_head();
  if (in == nullptr || out == nullptr || in_head == nullptr || out_head == nullptr) return -1;
  mrc_read_head(in, in_head);
  std::memcpy(out_head, in_head, sizeof(MRC_HEAD));
  out_head->mode = MRC_MODE_FLOAT;
  return 0;
}

int mrcf_io_open_io_read_write_head(const char* in_path, const char* out_path, FILE*& in, FILE*& out,
                                    MRC_HEAD* in_head, MRC_HEAD* out_head) {
  in = std::fopen(in_path, "r");
  out = std::fopen(out_path, "w+");
  if (in == nullptr || out == nullptr || in_head == nullptr || out_head == nullptr) return -1;
  mrc_read_head(in, in_head);
  std::memcpy(out_head, in_head, sizeof(MRC_HEAD));
  out_head->mode = MRC_MODE_FLOAT;
  mrc_write_head(out, out_head);
  return 0;
}
