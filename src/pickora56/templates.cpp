// Reading, resampling and shrinking a template stack, and generating the soft blob.
#include "pickora56/templates.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "cuda_general/owned.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "process2d_raw/meanshrink.h"
#include "txt_file/arrays_strings.h"

namespace {

// Stops the run unless nx by ny by nz is a stack this program can hold: positive sides and a
// sample count that fits the 32-bit products used downstream.
void require_stack_sizes(const char* what, const char* name, long long nx, long long ny, long long nz) {
  if (nx < 1 || ny < 1 || nz < 1)
    PK_FATAL("%s %s has sizes %lld x %lld x %lld; all must be positive", what, name, nx, ny, nz);
  if (nx * ny > INT_MAX / 4 || nx * ny * nz >= static_cast<long long>(UINT_MAX))
    PK_FATAL("%s %s has sizes %lld x %lld x %lld, too large to hold", what, name, nx, ny, nz);
}

float* new_stack(const char* name, int nx, int ny, int nz) {
  const size_t count = static_cast<size_t>(nx) * static_cast<size_t>(ny) * static_cast<size_t>(nz);
  float* data = static_cast<float*>(std::malloc(sizeof(float) * count));
  if (data == nullptr) PK_FATAL("Not enough memory for the templates of %s (%d x %d x %d)", name, nx, ny, nz);
  return data;
}

// trunc(float side * ratio), kept inside the int range before the conversion.
long long scaled_side(int side, float ratio) {
  const float v = static_cast<float>(side) * ratio;
  if (!(v < static_cast<float>(INT_MAX))) return LLONG_MAX;
  return static_cast<long long>(static_cast<int>(v));
}

}  // namespace

float cpu_rmask_soft_value(float dx, float dy, float R, float soft) {
  const double d2 = static_cast<double>(dx) * dx + static_cast<double>(dy) * dy;
  const double outer = static_cast<double>(R + soft);
  if (d2 > outer * outer) return 0.0f;
  if (d2 > static_cast<double>(R) * R) {
    const float t = sqrtf(static_cast<float>(d2)) - R;
    const float w = soft / 3.0f;
    return expf(-t * t / ((w + w) * w));
  }
  return 1.0f;
}

void cpu_2d_generate_rmask_soft(float* out, unsigned nx, unsigned ny, float cx, float cy, float R, float soft) {
  for (unsigned y = 0; y < ny; ++y) {
    const float dy = static_cast<float>(y) - cy;
    float* row = out + static_cast<size_t>(y) * nx;
    for (unsigned x = 0; x < nx; ++x) row[x] = cpu_rmask_soft_value(static_cast<float>(x) - cx, dy, R, soft);
  }
}

float* create_template_data(int& nx, int& ny, int& nz, float radius, float edge_ratio) {
  if (!(radius >= 1.0f) || !(radius < 16384.0f))
    PK_FATAL("a particle radius of %f work pixels gives no usable generated template (its side is 4 x trunc(radius))",
             radius);
  const int side = 4 * static_cast<int>(radius);
  nx = side;
  ny = side;
  nz = 1;
  float* data = new_stack("the generated template", side, side, 1);
  const float c = (static_cast<float>(side) - 1.0f) * 0.5f;
  cpu_2d_generate_rmask_soft(data, static_cast<unsigned>(side), static_cast<unsigned>(side), c, c, radius * edge_ratio,
                             (1.0f - edge_ratio) * radius);
  return data;
}

float* get_template_data(int& nx, int& ny, int& nz, const char* path) {
  FileHandle f(mrc_open_or_die(path, "r", __func__, __LINE__));
  MRC_HEAD head_storage;
  MRC_HEAD* head = &head_storage;
  mrc_read_head(f.get(), head);
  require_stack_sizes("the template stack", path, head->nx, head->ny, head->nz);
  if (mrc_sample_bytes(head->mode) == 0)
    PK_FATAL("the template stack %s has MRC mode %d; only modes 0, 1, 2 and 6 can be read", path, head->mode);
  nx = head->nx;
  ny = head->ny;
  nz = head->nz;
  HostBlock<float> data(new_stack(path, nx, ny, nz));
  const size_t slice = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  for (int z = 0; z < nz; ++z) mrc_read_slice(f.get(), head, z, 'z', data.get() + z * slice);
  return data.release();
}

void destroy_template_data(float* data) { std::free(data); }

float* get_or_create_template_data(int& tnx, int& tny, int& tnz, const char* name, float radius, float apix_template,
                                   float apix_micrograph, int shrink, float edge_ratio) {
  if (is_str_null(name)) return create_template_data(tnx, tny, tnz, radius, edge_ratio);
  if (shrink < 1) PK_FATAL("shrink factor %d for the templates of %s; it must be 1 or more", shrink, name);

  int nx = 0, ny = 0, nz = 0;
  HostBlock<float> data(get_template_data(nx, ny, nz, name));

  const float ratio = apix_template / apix_micrograph;
  if (!(ratio > 0.0f) || std::isinf(ratio))
    PK_FATAL("template pixel size %f over micrograph pixel size %f gives no resampling ratio for %s", apix_template,
             apix_micrograph, name);
  if (ratio != 1.0f) {
    const long long nx1 = scaled_side(nx, ratio), ny1 = scaled_side(ny, ratio);
    require_stack_sizes("resampled by the pixel-size ratio, the template stack", name, nx1, ny1, nz);
    HostBlock<float> scaled(new_stack(name, static_cast<int>(nx1), static_cast<int>(ny1), nz));
    gpu_2ds_scale(scaled.get(), data.get(), nx, ny, nz, ratio);
    data = std::move(scaled);
    nx = static_cast<int>(nx1);
    ny = static_cast<int>(ny1);
  }
  if (shrink != 1) {
    require_stack_sizes("shrunk by the speed factor, the template stack", name, nx / shrink, ny / shrink, nz);
    HostBlock<float> shrunk(new_stack(name, nx / shrink, ny / shrink, nz));
    cpu_2ds_meanshrink(shrunk.get(), data.get(), nx, ny, nz, shrink);
    data = std::move(shrunk);
    nx /= shrink;
    ny /= shrink;
  }
  tnx = nx;
  tny = ny;
  tnz = nz;
  return data.release();
}
