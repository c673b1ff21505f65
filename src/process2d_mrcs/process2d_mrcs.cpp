// Stack operators from file to file.
#include "process2d_mrcs/process2d_mrcs.h"

#include <cstdio>
#include <cstdlib>

#include "cuda_general/cuda_general.h"
#include "mrcfile/mrcfile.h"
#include "process2d_core/flip.h"
#include "process2d_raw/box_ops.h"

namespace {

struct Stack {
  float* data = nullptr;  // malloc'ed by the reader
  int nx = 0, ny = 0, nz = 0;
  size_t count() const { return static_cast<size_t>(nx) * ny * nz; }
};

Stack read_stack(const char* path) {
  MRC_HEAD head;
  mrcf_read_head(path, &head);
  Stack s;
  s.nx = head.nx;
  s.ny = head.ny;
  s.nz = head.nz;
  s.data = mrcf_get_data_all(path);
  return s;
}

// Runs op(d_in, d_out, nx, ny, nz) over the whole stack on the device; the result replaces the
// data.
template <class Op>
void on_device(Stack& s, Op op) {
  const size_t bytes = sizeof(float) * (s.count() > 0 ? s.count() : 1);
  float *d_in = nullptr, *d_out = nullptr;
  safe_cudaMalloc(&d_in, bytes);
  safe_cudaMalloc(&d_out, bytes);
  PK_CUDA_CHECK(memcpy_H2D(d_in, s.data, sizeof(float) * s.count()));
  op(d_in, d_out, static_cast<unsigned>(s.nx), static_cast<unsigned>(s.ny), static_cast<unsigned>(s.nz));
  PK_CUDA_CHECK(memcpy_D2H(s.data, d_out, sizeof(float) * s.count()));
  safe_cudaFree(d_in);
  safe_cudaFree(d_out);
}

}  // namespace

int mrcf_cuda_2ds_flip(const char* in_path, const char* out_path, int mode) {
  if (mode < 0 || mode > 7) PK_FATAL("flip_mode must be an integer in {0,1,3,4,5,6,7}");
  std::printf("Begin flipping %s \n", in_path);
  Stack s = read_stack(in_path);
  on_device(s, [mode](const float* in, float* out, unsigned nx, unsigned ny, unsigned nz) {
    hcuda_2ds_flip(out, in, nx, ny, nz, mode);
  });
  if (pk_flip_exchanges_sides(mode))
    mrcf_write_xyz_data(out_path, s.data, s.ny, s.nx, s.nz);
  else
    mrcf_write_xyz_data(out_path, s.data, s.nx, s.ny, s.nz);
  std::free(s.data);
  std::printf("Swapping finished!\n");
  return 0;
}

int mrcf_cuda_2ds_swap_xy(const char* in_path, const char* out_path) {
  std::printf("Begin swapping %s \n", in_path);
  Stack s = read_stack(in_path);
  on_device(s, hcuda_2ds_swap_xy);
  mrcf_write_xyz_data(out_path, s.data, s.ny, s.nx, s.nz);
  std::free(s.data);
  std::printf("Swapping finished!\n");
  return 0;
}

int mrcsf_2ds_rm_hotpixels(const char* in_path, const char* out_path, float factor) {
  Stack s = read_stack(in_path);
  hcuda_2ds_rm_hotpixels_inplace(s.data, static_cast<unsigned>(s.nx), static_cast<unsigned>(s.ny),
                                 static_cast<unsigned>(s.nz), factor);
  mrcf_write_xyz_data(out_path, s.data, s.nx, s.ny, s.nz);
  std::free(s.data);
  return 0;
}
