// Image operators from file to file.
#include "process2d_mrc/process2d_mrc.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "mrcfile/mrcfile.h"
#include "process2d_core/flip.h"
#include "process2d_raw/projection.h"
#include "process2d_raw/resample.h"

namespace {

struct Image {
  std::vector<float> data;
  unsigned nx = 0, ny = 0;
};

// The rotation commands' own open failure: the old prompt line, then the fatal report (a
// command line tool must not wait for a key that nobody will press).
FILE* open_or_prompt_fatal(const char* path, const char* mode, const char* func, int line) {
  FILE* f = std::fopen(path, mode);
  if (f != nullptr) return f;
  std::printf("Cannot open file strike any key exit!\n");
  report_fatal(func, __FILE__, line, "open file '%s' failed.", path);
}

Image read_first_slice_prompting(const char* path, const char* func, int line) {
  FILE* f = open_or_prompt_fatal(path, "r", func, line);
  MRC_HEAD head;
  mrc_read_head(f, &head);
  Image image;
  image.nx = static_cast<unsigned>(head.nx);
  image.ny = static_cast<unsigned>(head.ny);
  image.data.resize(static_cast<size_t>(image.nx) * image.ny);
  mrc_read_slice(f, &head, 0, 'z', image.data.data());
  std::fclose(f);
  return image;
}

void write_prompting(const char* path, const Image& image, const char* func, int line) {
  FILE* f = open_or_prompt_fatal(path, "w+", func, line);
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, static_cast<int>(image.nx), static_cast<int>(image.ny), 1, MRC_MODE_FLOAT);
  mrc_write_head_data(f, &head, image.data.data());
  std::fclose(f);
}

Image read_first_slice(const char* path) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  Image image;
  image.nx = static_cast<unsigned>(head.nx);
  image.ny = static_cast<unsigned>(head.ny);
  float* data = mrcf_get_data_sliceN(path, 0);
  image.data.assign(data, data + static_cast<size_t>(image.nx) * image.ny);
  std::free(data);
  return image;
}

// Runs op(d_in, d_out) on device copies of the image; the result replaces the image's data.
template <class Op>
void on_device(Image& image, Op op) {
  const size_t bytes = sizeof(float) * (image.data.empty() ? 1 : image.data.size());
  float *d_in = nullptr, *d_out = nullptr;
  safe_cudaMalloc(&d_in, bytes);
  safe_cudaMalloc(&d_out, bytes);
  PK_CUDA_CHECK(memcpy_H2D(d_in, image.data.data(), sizeof(float) * image.data.size()));
  op(d_in, d_out);
  PK_CUDA_CHECK(memcpy_D2H(image.data.data(), d_out, sizeof(float) * image.data.size()));
  safe_cudaFree(d_in);
  safe_cudaFree(d_out);
}

}  // namespace

int mrcf_cuda_2d_rotate(const char* in_path, const char* out_path, float degrees) {
  std::printf("Begin Rotation %f:\n", degrees);
  Image image = read_first_slice_prompting(in_path, __func__, __LINE__);
  const unsigned nx = image.nx, ny = image.ny;
  on_device(image, [&](const float* in, float* out) {
    hcuda_2d_rotate_anycenter(in, out, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), degrees);
  });
  write_prompting(out_path, image, __func__, __LINE__);
  std::printf("Rotation finished!\n");
  return 0;
}

int mrcf_cuda_2d_translate_rotate(const char* in_path, const char* out_path, float tx, float ty, float degrees) {
  std::printf("Begin translating (%f, %f) and rotating %f:\n", tx, ty, degrees);
  Image image = read_first_slice_prompting(in_path, __func__, __LINE__);
  const unsigned nx = image.nx, ny = image.ny;
  on_device(image, [&](const float* in, float* out) { hcuda_2d_translate_rotate(in, out, nx, ny, tx, ty, degrees); });
  write_prompting(out_path, image, __func__, __LINE__);
  std::printf("Translation and rotation finished!\n");
  return 0;
}

int mrcf_cuda_2d_transform(const char* in_path, const char* out_path, RT_Mat2D m, int direction) {
  std::printf("Begin  transform :\n");
  std::printf("Transform Matrix (R11, R12, R21, R22, Tx, Ty):\n");
  std::printf("                 (%8.3f%8.3f%8.3f%8.3f%8.3f%8.3f)\n", m.R11, m.R12, m.R21, m.R22, m.Tx, m.Ty);
  Image image = read_first_slice(in_path);
  const unsigned nx = image.nx, ny = image.ny;
  on_device(image, [&](const float* in, float* out) {
    hcuda_2d_transform(in, out, nx, ny, pk_grid_centre(nx), pk_grid_centre(ny), m, direction);
  });
  mrcf_write_xyz_data(out_path, image.data.data(), static_cast<int>(nx), static_cast<int>(ny), 1);
  std::printf("transforming finished!\n");
  return 0;
}

int mrcf_cuda_2d_swap_xy(const char* in_path, const char* out_path) {
  std::printf("Begin swapping %s \n", in_path);
  Image image = read_first_slice(in_path);
  const unsigned nx = image.nx, ny = image.ny;
  on_device(image, [&](const float* in, float* out) { hcuda_2d_swap_xy(in, out, nx, ny); });
  mrcf_write_xyz_data(out_path, image.data.data(), static_cast<int>(ny), static_cast<int>(nx), 1);
  std::printf("Swapping finished!\n");
  return 0;
}

int mrcf_2d_project_local_rect(const char* out_path, const char* in_path, int n1, int n2, float degrees, float cx,
                               float cy, int direction, int gid) {
  if (n1 < 1) PK_FATAL("A projection needs at least one output value, not %d", n1);
  const Image image = read_first_slice(in_path);
  std::vector<float> row(static_cast<size_t>(n1));
  if (gid == 999) {
    cpu_2d_project_local_rect(row.data(), n1, n2, image.data.data(), image.nx, image.ny, cx, cy, degrees, direction);
  } else {
    if (check_gid(gid) != 0) PK_FATAL("Unknown device or expansion mode.\n");
    gpu_2d_project_local_rect(row.data(), n1, n2, image.data.data(), image.nx, image.ny, cx, cy, degrees, direction);
  }
  mrcf_write_xyz_data(out_path, row.data(), n1, 1, 1);
  return 0;
}
