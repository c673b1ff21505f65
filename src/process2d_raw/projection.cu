// Launchers of the line projections and their host-buffer forms.
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "process2d_raw/projection.h"

void hcuda_2d_project_local_rect(float* output, int n1, int n2, const float* image, unsigned nx, unsigned ny, float cx,
                                 float cy, float degrees, int direction) {
  if (n1 <= 0) return;
  const PkProjectionAxes axes = pk_projection_axes(degrees, direction);
  PK_LAUNCH_FLAT(
      static_cast<unsigned long>(n1),
      PICKORA_LAMBDA(unsigned i) { cuda_2d_project_local_rect_axes(i, output, n1, n2, image, nx, ny, cx, cy, axes); });
}

void hcuda_2d_project(float* output, const float* image, unsigned nx, unsigned ny, float cx, float cy, float degrees,
                      int direction) {
  const int n = pk_project_length(nx, ny);
  hcuda_2d_project_local_rect(output, n, n, image, nx, ny, cx, cy, degrees, direction);
}

void hcuda_2d_project_square(float* output, const float* image, unsigned side, float degrees, int direction) {
  const float c = pk_grid_centre(side);
  hcuda_2d_project_local_rect(output, static_cast<int>(side), static_cast<int>(side), image, side, side, c, c, degrees,
                              direction);
}

void hcuda_2d_project_local_rect_many(float* output, int n1, int n2, const float* angles, int count, const float* image,
                                      unsigned nx, unsigned ny, float cx, float cy, int direction) {
  if (n1 <= 0 || count <= 0) return;
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(n1), static_cast<unsigned>(count), PICKORA_LAMBDA(unsigned i, unsigned k) {
        cuda_2d_project_local_rect_many(i, k, output, n1, n2, angles, count, image, nx, ny, cx, cy, direction);
      });
}

void hcuda_2d_project_many(float* output, const float* angles, int count, const float* image, unsigned nx, unsigned ny,
                           float cx, float cy, int direction) {
  const int n = pk_project_length(nx, ny);
  hcuda_2d_project_local_rect_many(output, n, n, angles, count, image, nx, ny, cx, cy, direction);
}

namespace {

float* device_copy(const float* host, unsigned long n) {
  float* d = nullptr;
  safe_cudaMalloc(&d, sizeof(float) * (n > 0 ? n : 1));
  if (n > 0) PK_CUDA_CHECK(memcpy_H2D(d, host, sizeof(float) * n));
  return d;
}

}  // namespace

void gpu_2d_project_local_rect(float* output, int n1, int n2, const float* image, unsigned nx, unsigned ny, float cx,
                               float cy, float degrees, int direction) {
  if (n1 <= 0) return;
  float* d_image = device_copy(image, static_cast<unsigned long>(nx) * ny);
  float* d_out = nullptr;
  safe_cudaMalloc(&d_out, sizeof(float) * n1);
  hcuda_2d_project_local_rect(d_out, n1, n2, d_image, nx, ny, cx, cy, degrees, direction);
  PK_CUDA_CHECK(memcpy_D2H(output, d_out, sizeof(float) * n1));
  safe_cudaFree(d_out);
  safe_cudaFree(d_image);
}

void gpu_2d_project_local_rect_many(float* output, int n1, int n2, const float* angles, int count, const float* image,
                                    unsigned nx, unsigned ny, float cx, float cy, int direction) {
  if (n1 <= 0 || count <= 0) return;
  const unsigned long rows = static_cast<unsigned long>(n1) * count;
  float* d_image = device_copy(image, static_cast<unsigned long>(nx) * ny);
  float* d_angles = device_copy(angles, static_cast<unsigned long>(count));
  float* d_out = nullptr;
  safe_cudaMalloc(&d_out, sizeof(float) * rows);
  hcuda_2d_project_local_rect_many(d_out, n1, n2, d_angles, count, d_image, nx, ny, cx, cy, direction);
  PK_CUDA_CHECK(memcpy_D2H(output, d_out, sizeof(float) * rows));
  safe_cudaFree(d_out);
  safe_cudaFree(d_angles);
  safe_cudaFree(d_image);
}

void gpu_2d_project_many(float* output, const float* angles, int count, const float* image, unsigned nx, unsigned ny,
                         float cx, float cy, int direction) {
  const int n = pk_project_length(nx, ny);
  gpu_2d_project_local_rect_many(output, n, n, angles, count, image, nx, ny, cx, cy, direction);
}
