// Template normalisation on the host, the copy to the device, the area term, and inversion.
#include "pickora56/template_norm.h"

#include <cstdlib>
#include <cstring>

#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "math_utils/array_kernels.h"
#include "math_utils/host_stats.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/templates.h"

namespace {

constexpr double kPi = 3.141592653589793;

// Zeroes the pixels outside radius r of the slice's centre, then subtracts from every pixel
// the sum of those inside over the count of all pixels.
void zero_outside_circle_submean(float* image, int nx, int ny, float r) {
  const float cx = static_cast<float>(nx - 1) * 0.5f;
  const float cy = static_cast<float>(ny - 1) * 0.5f;
  const float r2 = r * r;
  double sum = 0.0;
  for (int y = 0; y < ny; ++y) {
    const float dy = static_cast<float>(y) - cy;
    float* row = image + static_cast<size_t>(y) * nx;
    for (int x = 0; x < nx; ++x) {
      const float dx = static_cast<float>(x) - cx;
      const float d = dx * dx + dy * dy;
      if (d > r2)
        row[x] = 0.0f;
      else
        sum += static_cast<double>(row[x]);
    }
  }
  const size_t n = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  const float mean = static_cast<float>(sum / static_cast<double>(n));
  for (size_t i = 0; i < n; ++i) image[i] = image[i] - mean;
}

// False for a type this program does not know; the slice is then left as it is.
bool normalize_slice(float* slice, int tnx, int tny, int T_norm_type, float r, float m) {
  const unsigned long n = static_cast<unsigned long>(tnx) * static_cast<unsigned long>(tny);
  switch (T_norm_type) {
    case 1: hm_submean_inplace(slice, n); break;
    case 2: zero_outside_circle_submean(slice, tnx, tny, r); break;
    case 3: {
      const float cx = (static_cast<float>(tnx) - 1.0f) * 0.5f;
      const float cy = (static_cast<float>(tny) - 1.0f) * 0.5f;
      cpu_2d_znorm_withRmask_applymask_inplace(slice, static_cast<unsigned>(tnx), static_cast<unsigned>(tny), cx, cy,
                                               (1.0f - m) * r, r * m);
      break;
    }
    default: return false;
  }
  return true;
}

}  // namespace

void cpu_2d_znorm_withRmask_applymask_inplace(float* image, unsigned nx, unsigned ny, float cx, float cy, float R,
                                              float soft) {
  const size_t n = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  float* mask = static_cast<float*>(std::malloc(sizeof(float) * (n > 0 ? n : 1)));
  if (mask == nullptr) PK_FATAL("Not enough memory for a mask of %u x %u pixels", nx, ny);
  cpu_2d_generate_rmask_soft(mask, nx, ny, cx, cy, R, soft);
  hm_normz_withmask_applymask_inplace(image, mask, n, 1.0f, 0.0f);
  std::free(mask);
}

float cpu_2d_rmask_soft_sum(float R, float soft) {
  const int n = static_cast<int>(R + soft) + 1;
  if (n < 1) return 0.0f;
  const float c = (static_cast<float>(n) - 1.0f) * 0.5f;
  double sum = 0.0;
  for (int y = 0; y < n; ++y) {
    const float dy = static_cast<float>(y) - c;
    for (int x = 0; x < n; ++x)
      sum += static_cast<double>(cpu_rmask_soft_value(static_cast<float>(x) - c, dy, R, soft));
  }
  return static_cast<float>(sum);
}

float pickora_template_area_term(int T_norm_type, float r, float m) {
  if (T_norm_type == 3) return cpu_2d_rmask_soft_sum((1.0f - m) * r, m * r);
  return static_cast<float>(kPi * static_cast<double>(r) * static_cast<double>(r));
}

int normalize_template_data(float* d_out, const float* h_in, int tnx, int tny, int tnz, int T_norm_type, float r,
                            float m) {
  const size_t slice = static_cast<size_t>(tnx) * static_cast<size_t>(tny);
  if (T_norm_type == 0) {
    PK_CUDA_CHECK(memcpy_H2D(d_out, h_in, sizeof(float) * slice * static_cast<size_t>(tnz)));
    return 0;
  }
  float* scratch = static_cast<float*>(std::malloc(sizeof(float) * (slice > 0 ? slice : 1)));
  if (scratch == nullptr) PK_FATAL("Not enough memory for a template of %d x %d pixels", tnx, tny);
  for (int z = 0; z < tnz; ++z) {
    std::memcpy(scratch, h_in + z * slice, sizeof(float) * slice);
    if (!normalize_slice(scratch, tnx, tny, T_norm_type, r, m)) PK_WARNING("Invalid T_norm_type!");
    PK_CUDA_CHECK(memcpy_H2D(d_out + z * slice, scratch, sizeof(float) * slice));
  }
  std::free(scratch);
  return 0;
}

int pickora_write_normed_templates(const float* d_templates, int tnx, int tny, int tnz) {
  return mrcf_write_xyz_ddata(kNormedTemplatesFile, d_templates, tnx, tny, tnz);
}

void pickora_invert_templates(float* d_templates, int tnx, int tny, int tnz) {
  hcuda_invert_inplace(
      d_templates, static_cast<unsigned long>(tnx) * static_cast<unsigned long>(tny) * static_cast<unsigned long>(tnz));
}
