// Rotational matching: the angle loop over one template, its kernels and the scratch it keeps.
#include "pickora56/matching.h"

#include <cstdio>

#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "cuda_general/report.h"
#include "math_utils/device_stats.h"
#include "process2d_core/process2d_core.h"

// ---- Launchers ---------------------------------------------------------------------------

void hcuda_2d_rotate(const float* src, float* out, unsigned nx, unsigned ny, float degrees) {
  const float a = degrees * kDegreesToRadians;
  const float c = cosf(a), s = sinf(a);
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_2d_rotate_cs(x, y, src, out, nx, ny, c, s); });
}

void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int large_nx, int large_ny, int small_nx,
                                        int small_ny) {
  if (small_nx < 0 || small_ny < 0 || small_nx > large_nx || small_ny > large_ny)
    PK_FATAL("An image of %d x %d does not fit into one of %d x %d", small_nx, small_ny, large_nx, large_ny);
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(small_nx), static_cast<unsigned>(small_ny), PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_x2d_cp_small_to_large_center(x, y, large, small, large_nx, large_ny, small_nx, small_ny);
      });
}

void hcuda_update_ccmax_psi_2d(float* ccmax, const float* correlation, float* psi, float degrees, int nx, int ny) {
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(nx), static_cast<unsigned>(ny), PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_update_ccmax_psi_2d(x, y, ccmax, correlation, psi, degrees, nx, ny);
      });
}

void hcuda_update_ccmax_2d(float* ccmax, const float* correlation, int nx, int ny) {
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(nx), static_cast<unsigned>(ny),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_update_ccmax_2d(x, y, ccmax, correlation, nx, ny); });
}

// ---- Angles ------------------------------------------------------------------------------

long matching_angle_count(float ang_start, float ang_end, float ang_step) {
  long count = 0;
  for (float a = ang_start; ang_end > a; ++count) {
    const float next = a + ang_step;
    if (!(next > a)) return -1;
    a = next;
  }
  return count;
}

// ---- Workspace ---------------------------------------------------------------------------

namespace {

template <class T>
void free_device(T*& p) {
  if (p != nullptr) PK_CUDA_CHECK(cudaFree(p));
  p = nullptr;
}

void release_image_scratch(MatchWorkspace* ws) {
  free_device(ws->padded);
  free_device(ws->correlation);
  free_device(ws->mic_F);
  free_device(ws->T_F);
  if (ws->has_plans) {
    hcuda_2d_fft_destroy(ws->r2c);
    hcuda_2d_fft_destroy(ws->c2r);
  }
  ws->has_plans = false;
  ws->nx = ws->ny = 0;
  ws->placed_nx = ws->placed_ny = 0;
}

// Makes the scratch fit an nx by ny image and a tnx by tny template. The padded image is cleared
// whenever the template size changes: one of the same size writes exactly the same footprint, so
// the zero border left by the last one is still right.
void prepare_workspace(MatchWorkspace* ws, int nx, int ny, int tnx, int tny) {
  const unsigned ux = static_cast<unsigned>(nx), uy = static_cast<unsigned>(ny);
  if (ws->nx != nx || ws->ny != ny) {
    release_image_scratch(ws);
    const std::size_t pixels = static_cast<std::size_t>(ux) * uy;
    const std::size_t spectrum = static_cast<std::size_t>(fft_half_width(ux)) * uy;
    safe_cudaMalloc(&ws->padded, sizeof(float) * pixels);
    safe_cudaMalloc(&ws->correlation, sizeof(float) * pixels);
    safe_cudaMalloc(&ws->mic_F, sizeof(float2) * spectrum);
    safe_cudaMalloc(&ws->T_F, sizeof(float2) * spectrum);
    // One forward plan serves the image and the template: same size, same placement.
    ws->r2c = hcuda_2d_fft_plan(ux, uy, CUFFT_R2C);
    ws->c2r = hcuda_2d_fft_plan(ux, uy, CUFFT_C2R);
    ws->has_plans = true;
    ws->nx = nx;
    ws->ny = ny;
  }
  const unsigned long template_pixels = static_cast<unsigned long>(tnx) * static_cast<unsigned long>(tny);
  if (ws->rotated_capacity < template_pixels) {
    free_device(ws->rotated);
    safe_cudaMalloc(&ws->rotated, sizeof(float) * template_pixels);
    ws->rotated_capacity = template_pixels;
  }
  if (ws->placed_nx != tnx || ws->placed_ny != tny) {
    hcuda_2d_empty(ws->padded, ux, uy);
    ws->placed_nx = tnx;
    ws->placed_ny = tny;
  }
}

void check_matching_sizes(int nx, int ny, int tnx, int tny, float ang_start, float ang_end, float ang_step) {
  if (nx <= 0 || ny <= 0 || nx % 2 != 0 || ny % 2 != 0)
    PK_FATAL("The work image must have positive even sides, not %d x %d", nx, ny);
  if (tnx <= 0 || tny <= 0 || tnx > nx || tny > ny)
    PK_FATAL("A template of %d x %d does not fit into the work image of %d x %d", tnx, tny, nx, ny);
  if (matching_angle_count(ang_start, ang_end, ang_step) < 0)
    PK_FATAL("The angle step %g never takes the angle from %g to %g", ang_step, ang_start, ang_end);
}

// The correlation of mic with the template turned by `degrees`, unscaled sums of products with
// the origin at pixel 0, into ws->correlation. ws->mic_F holds the image's spectrum.
void correlate_at_angle(MatchWorkspace* ws, const float* T, int tnx, int tny, float degrees) {
  const unsigned nx = static_cast<unsigned>(ws->nx), ny = static_cast<unsigned>(ws->ny);
  hcuda_2d_rotate(T, ws->rotated, static_cast<unsigned>(tnx), static_cast<unsigned>(tny), degrees);
  hcuda_x2d_cp_small_to_large_center(ws->padded, ws->rotated, ws->nx, ws->ny, tnx, tny);
  hcuda_2d_fft_exec_r2c(ws->r2c, ws->padded, ws->T_F);
  // The product goes over the template's spectrum in place: each element is read before it is
  // written, and the spectrum is made again at the next angle.
  hcuda_c2d_multconj_norm(ws->mic_F, ws->T_F, ws->T_F, fft_half_width(nx), ny,
                          static_cast<float>(nx) * static_cast<float>(ny));
  hcuda_2d_fft_exec_c2r(ws->c2r, ws->T_F, ws->correlation);
}

// d = sqrt(Sm * St * area / W), multiplied left to right and divided last.
float matching_scale(const float* mic, const float* mask, int nx, int ny, const float* T, int tnx, int tny,
                     float area) {
  const unsigned long pixels = static_cast<unsigned long>(nx) * static_cast<unsigned long>(ny);
  const float Sm = hcuda_fast_sumsqr_withmask(mic, mask, pixels);
  const float St = hcuda_fast_sumsqr(T, static_cast<unsigned long>(tnx) * static_cast<unsigned long>(tny));
  const float W = hcuda_fast_sum(mask, pixels, 1024);
  return sqrtf(Sm * St * area / W);
}

}  // namespace

void match_workspace_release(MatchWorkspace* ws) {
  release_image_scratch(ws);
  free_device(ws->rotated);
  ws->rotated_capacity = 0;
}

// ---- The matching calls ------------------------------------------------------------------

int pickora_ccmax_psi_by_one_template(MatchWorkspace* ws, float* mic, float* mask, float* ccmax, float* psi,
                                      int do_psi, int nx, int ny, float* T, int tnx, int tny, float area,
                                      float ang_start, float ang_end, float ang_step) {
  check_matching_sizes(nx, ny, tnx, tny, ang_start, ang_end, ang_step);
  prepare_workspace(ws, nx, ny, tnx, tny);
  const bool with_psi = do_psi != 0 && psi != nullptr;
  const unsigned ux = static_cast<unsigned>(nx), uy = static_cast<unsigned>(ny);

  hcuda_2d_fft_exec_r2c(ws->r2c, mic, ws->mic_F);
  // With the map at minus infinity the first angle writes every pixel of both maps.
  hcuda_2d_memset(ccmax, -INFINITY, ux, uy);
  for (float a = ang_start; ang_end > a; a = a + ang_step) {
    std::printf(".");
    std::fflush(stdout);
    correlate_at_angle(ws, T, tnx, tny, a);
    if (with_psi)
      hcuda_update_ccmax_psi_2d(ccmax, ws->correlation, psi, a, nx, ny);
    else
      hcuda_update_ccmax_2d(ccmax, ws->correlation, nx, ny);
  }
  std::printf("\n");
  std::fflush(stdout);

  const float d = matching_scale(mic, mask, nx, ny, T, tnx, tny, area);
  // The half-image shift brings shift 0 to the centre; ccmax is divided by d on the way.
  hcuda_2d_swap_norm_ccf_inplace(ccmax, ux, uy, d);
  if (with_psi) hcuda_2d_swap_ccf_inplace(psi, ux, uy);
  return 0;
}

int pickora_ccmax_psi_by_one_template(float* mic, float* mask, float* ccmax, float* psi, int do_psi, int nx, int ny,
                                      float* T, int tnx, int tny, float area, float ang_start, float ang_end,
                                      float ang_step) {
  MatchWorkspace ws{};
  pickora_ccmax_psi_by_one_template(&ws, mic, mask, ccmax, psi, do_psi, nx, ny, T, tnx, tny, area, ang_start,
                                    ang_end, ang_step);
  match_workspace_release(&ws);
  return 0;
}

int pickora_ccmax_by_one_template(MatchWorkspace* ws, float* mic, float* mask, float* ccmax, int nx, int ny, float* T,
                                  int tnx, int tny, float area, float ang_start, float ang_end, float ang_step) {
  return pickora_ccmax_psi_by_one_template(ws, mic, mask, ccmax, nullptr, 0, nx, ny, T, tnx, tny, area, ang_start,
                                           ang_end, ang_step);
}

int pickora_ccmax_by_one_template(float* mic, float* mask, float* ccmax, int nx, int ny, float* T, int tnx, int tny,
                                  float area, float ang_start, float ang_end, float ang_step) {
  return pickora_ccmax_psi_by_one_template(mic, mask, ccmax, nullptr, 0, nx, ny, T, tnx, tny, area, ang_start,
                                           ang_end, ang_step);
}
