// Symmetry averaging and correlation on the host.
#include <cstdio>
#include <vector>

#include "cuda_general/report.h"
#include "math_utils/host_stats.h"
#include "sym/ncs2d.h"
#include "sym/sym.h"

namespace {

void check_nsym(int nsym) {
  if (nsym < 1) PK_FATAL("symmetry averaging needs one operator at least, not %d", nsym);
}

}  // namespace

void cpu_2d_ncs_add_one(float* acc, RT_Mat2D r, unsigned mnx, unsigned mny, float ox, float oy, const float* image,
                        unsigned nx, unsigned ny, float cx, float cy, const float* mask) {
  for (unsigned j = 0; j < mny; ++j)
    for (unsigned i = 0; i < mnx; ++i) cuda_2d_ncs_add_one(i, j, acc, r, mnx, mny, ox, oy, image, nx, ny, cx, cy, mask);
}

void cpu_2d_ncs_average(float* out, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny, float ox, float oy,
                        const float* image, unsigned nx, unsigned ny, float cx, float cy, const float* mask) {
  check_nsym(nsym);
  const unsigned long n = static_cast<unsigned long>(mnx) * mny;
  for (unsigned long p = 0; p < n; ++p) out[p] = 0.0f;
  for (int s = 0; s < nsym; ++s) {
    cpu_2d_ncs_add_one(out, syms[s], mnx, mny, ox, oy, image, nx, ny, cx, cy, mask);
    print_rtmat2d(syms[s]);
  }
  for (unsigned long p = 0; p < n; ++p) out[p] /= static_cast<float>(nsym);
}

void cpu_x2d_cp_small_to_large(float* large, const float* small, unsigned large_nx, unsigned large_ny,
                               unsigned small_nx, unsigned small_ny, unsigned x0, unsigned y0) {
  for (unsigned j = 0; j < small_ny && y0 + j < large_ny; ++j)
    for (unsigned i = 0; i < small_nx && x0 + i < large_nx; ++i)
      large[static_cast<unsigned long>(y0 + j) * large_nx + x0 + i] = small[static_cast<unsigned long>(j) * small_nx + i];
}

void cpu_2d_ncs_average_replace(float* out_image, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny,
                                unsigned ox, unsigned oy, const float* image, unsigned nx, unsigned ny, float cx,
                                float cy, const float* mask) {
  check_nsym(nsym);
  const unsigned long n = static_cast<unsigned long>(nx) * ny;
  for (unsigned long p = 0; p < n; ++p) out_image[p] = image[p];
  std::vector<float> patch(static_cast<size_t>(mnx) * mny);
  cpu_2d_ncs_average(patch.data(), syms, nsym, mnx, mny, static_cast<float>(ox), static_cast<float>(oy), image, nx, ny,
                     cx, cy, mask);
  cpu_x2d_cp_small_to_large(out_image, patch.data(), nx, ny, mnx, mny, ox, oy);
}

void ncs_check_mask(const float* mask, unsigned mnx, unsigned mny) {
  for (unsigned j = 0; j < mny; ++j)
    for (unsigned i = 0; i < mnx; ++i) {
      const float m = mask[static_cast<unsigned long>(j) * mnx + i];
      if (m < -1e-6f || m > 1.000001f || m != m) {
        std::printf("i,j = %d %d  %f\n", static_cast<int>(i), static_cast<int>(j), m);
        PK_FATAL("Mask value must range from 0 to 1.0");
      }
    }
}

void cpu_2d_ncs_get_one(float* out, RT_Mat2D r, unsigned mnx, unsigned mny, float ox, float oy, const float* image,
                        unsigned nx, unsigned ny, float cx, float cy, const float* mask) {
  ncs_check_mask(mask, mnx, mny);
  for (unsigned j = 0; j < mny; ++j)
    for (unsigned i = 0; i < mnx; ++i) cuda_2d_ncs_get_one(i, j, out, r, mnx, mny, ox, oy, image, nx, ny, cx, cy, mask);
}

float ncs_masked_ccc(const float* ref, const float* patch, const float* mask, unsigned mnx, unsigned mny) {
  const unsigned long n = static_cast<unsigned long>(mnx) * mny;
  std::vector<float> a(n), b(n);
  hm_normz_withmask_applymask(a.data(), ref, mask, n, 1.0f, 0.0f);
  hm_normz_withmask_applymask(b.data(), patch, mask, n, 1.0f, 0.0f);
  return hm_ccc_norm(a.data(), b.data(), n);
}

float cpu_2d_ncs_ccc_one(const float* ref, RT_Mat2D r, unsigned mnx, unsigned mny, float ox, float oy,
                         const float* image, unsigned nx, unsigned ny, float cx, float cy, const float* mask) {
  std::vector<float> t(static_cast<size_t>(mnx) * mny);
  cpu_2d_ncs_get_one(t.data(), r, mnx, mny, ox, oy, image, nx, ny, cx, cy, mask);
  return ncs_masked_ccc(ref, t.data(), mask, mnx, mny);
}

void cpu_2d_ncs_cccs(float* results, const float* ref, const RT_Mat2D* syms, int nsym, unsigned mnx, unsigned mny,
                     float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx, float cy,
                     const float* mask) {
  check_nsym(nsym);
  for (int s = 0; s < nsym; ++s) results[s] = cpu_2d_ncs_ccc_one(ref, syms[s], mnx, mny, ox, oy, image, nx, ny, cx, cy, mask);
}

void cpu_2d_ncs_cccs_refine(float* results, const float* ref, const RT_Mat2D* syms, int nsym, unsigned mnx,
                            unsigned mny, float ox, float oy, const float* image, unsigned nx, unsigned ny, float cx,
                            float cy, const float* mask) {
  check_nsym(nsym);
  constexpr int kSteps = 61;  // -15 to +15 pixels in half pixels
  for (int s = 0; s < nsym; ++s) {
    print_rtmat2d(syms[s]);
    std::printf("rot dx dy ccc\n");
    float best = -1e10f, best_dx = 0.0f, best_dy = 0.0f;
    for (int ky = 0; ky < kSteps; ++ky)
      for (int kx = 0; kx < kSteps; ++kx) {
        const float dx = -15.0f + 0.5f * static_cast<float>(kx), dy = -15.0f + 0.5f * static_cast<float>(ky);
        RT_Mat2D r = syms[s];
        r.Tx += dx;
        r.Ty += dy;
        const float c = cpu_2d_ncs_ccc_one(ref, r, mnx, mny, ox, oy, image, nx, ny, cx, cy, mask);
        if (c > best) best = c, best_dx = dx, best_dy = dy;
      }
    std::printf("max %12.3f%12.3f%12.3f%12.6f\n", -0.0, best_dx, best_dy, best);
    results[s] = best;
  }
}
