// Host twins of the line projections: the kernel's element in a plain loop.
#include "process2d_raw/projection.h"

void cpu_2d_project_local_rect(float* output, int n1, int n2, const float* image, unsigned nx, unsigned ny, float cx,
                               float cy, float degrees, int direction) {
  const PkProjectionAxes axes = pk_projection_axes(degrees, direction);
  for (int i = 0; i < n1; ++i)
    cuda_2d_project_local_rect_axes(static_cast<unsigned>(i), output, n1, n2, image, nx, ny, cx, cy, axes);
}

void cpu_2d_project(float* output, const float* image, unsigned nx, unsigned ny, float cx, float cy, float degrees,
                    int direction) {
  const int n = pk_project_length(nx, ny);
  cpu_2d_project_local_rect(output, n, n, image, nx, ny, cx, cy, degrees, direction);
}

void cpu_2d_project_square(float* output, const float* image, unsigned side, float degrees) {
  const float c = pk_grid_centre(side);
  cpu_2d_project_local_rect(output, static_cast<int>(side), static_cast<int>(side), image, side, side, c, c, degrees,
                            1);
}
