// Rotational matching: the angle loop over one template, its kernels and the scratch it keeps.
#include "pickora56/matching.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

void hcuda_x2d_cp_small_to_large_at(float* large, const float* small, int large_nx, int large_ny, int small_nx,
                                    int small_ny, int x0, int y0) {
  if (small_nx < 0 || small_ny < 0 || x0 < 0 || y0 < 0 || small_nx > large_nx - x0 || small_ny > large_ny - y0)
    PK_FATAL("An image of %d x %d does not fit into one of %d x %d", small_nx, small_ny, large_nx, large_ny);
  const unsigned ux0 = static_cast<unsigned>(x0), uy0 = static_cast<unsigned>(y0);
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(small_nx), static_cast<unsigned>(small_ny), PICKORA_LAMBDA(unsigned x, unsigned y) {
        cuda_x2d_cp_small_to_large_at(x, y, large, small, large_nx, small_nx, small_ny, ux0, uy0);
      });
}

void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int large_nx, int large_ny, int small_nx,
                                        int small_ny) {
  hcuda_x2d_cp_small_to_large_at(large, small, large_nx, large_ny, small_nx, small_ny, (large_nx - small_nx) / 2,
                                 (large_ny - small_ny) / 2);
}

void hcuda_2d_periodic_extend(float* out, const float* in, unsigned out_nx, unsigned out_ny, unsigned nx, unsigned ny,
                              unsigned x0, unsigned y0) {
  PK_LAUNCH_IMAGE(out_nx, out_ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2d_periodic_extend(x, y, out, in, out_nx, out_ny, nx, ny, x0, y0);
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

void hcuda_update_ccmax_psi_2d_batch(float* ccmax, const AngleBatch& batch, float* psi, int nx, int ny) {
  const AngleBatch b = batch;  // by value into the kernel
  PK_LAUNCH_IMAGE(
      static_cast<unsigned>(nx), static_cast<unsigned>(ny),
      PICKORA_LAMBDA(unsigned x, unsigned y) { cuda_update_ccmax_psi_2d_batch(x, y, ccmax, b, psi, nx, ny); });
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

namespace {

bool small_factors_only(int n) {
  for (int p : {2, 3, 5, 7})
    while (n % p == 0) n /= p;
  return n == 1;
}

}  // namespace

int matching_transform_side(int n, int t) {
  if (small_factors_only(n)) return n;
  int side = n + t - 1;
  while (side % 2 != 0 || !small_factors_only(side)) ++side;
  return side;
}

// ---- Workspace ---------------------------------------------------------------------------

std::size_t matching_spectra_budget() {
  constexpr unsigned long long kDefaultMib = 4096;
  const char* text = std::getenv("PICKORA_SPECTRA_MIB");
  if (text == nullptr || *text == '\0') return static_cast<std::size_t>(kDefaultMib << 20);
  char* end = nullptr;
  errno = 0;
  const unsigned long long mib = std::strtoull(text, &end, 10);
  if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || mib > (SIZE_MAX >> 20))
    PK_FATAL("PICKORA_SPECTRA_MIB must be a whole number of mebibytes, not \"%s\"", text);
  return static_cast<std::size_t>(mib << 20);
}

namespace {

std::size_t spectrum_values(const MatchWorkspace* ws) {
  return static_cast<std::size_t>(fft_half_width(static_cast<unsigned>(ws->nx))) * static_cast<std::size_t>(ws->ny);
}

void release_kept_spectra(MatchWorkspace* ws) {
  for (TemplateSpectra& k : ws->kept) safe_cudaFree(k.spectra);
  ws->kept.clear();
  ws->kept_bytes = 0;
}

void release_image_scratch(MatchWorkspace* ws) {
  release_kept_spectra(ws);
  safe_cudaFree(ws->padded);
  safe_cudaFree(ws->extended);
  safe_cudaFree(ws->mic_F);
  safe_cudaFree(ws->T_F);
  safe_cudaFree(ws->cc_F);
  if (ws->has_plans) {
    hcuda_2d_fft_destroy(ws->r2c);
    hcuda_2d_fft_destroy(ws->c2r);
    hcuda_2d_fft_destroy(ws->c2r_batch);
  }
  ws->has_plans = false;
  ws->nx = ws->ny = 0;
  ws->placed_nx = ws->placed_ny = 0;
}

// Makes the scratch fit the transforms of an nx by ny image and a tnx by tny template. The padded
// image is cleared whenever the template size changes: one of the same size writes exactly the
// same footprint, so the zero border left by the last one is still right.
void prepare_workspace(MatchWorkspace* ws, int nx, int ny, int tnx, int tny) {
  const int fx = matching_transform_side(nx, tnx), fy = matching_transform_side(ny, tny);
  const unsigned ux = static_cast<unsigned>(fx), uy = static_cast<unsigned>(fy);
  if (ws->nx != fx || ws->ny != fy) {
    release_image_scratch(ws);
    const std::size_t pixels = static_cast<std::size_t>(ux) * uy;
    const std::size_t spectrum = static_cast<std::size_t>(fft_half_width(ux)) * uy;
    safe_cudaMalloc(&ws->padded, sizeof(float) * pixels);
    safe_cudaMalloc(&ws->extended, sizeof(float) * pixels);
    safe_cudaMalloc(&ws->mic_F, sizeof(float2) * spectrum);
    safe_cudaMalloc(&ws->T_F, sizeof(float2) * spectrum);
    safe_cudaMalloc(&ws->cc_F, sizeof(float2) * spectrum * kAngleBatch);
    // One forward plan serves the image and the template: same size, same placement.
    ws->r2c = hcuda_2d_fft_plan(ux, uy, CUFFT_R2C);
    ws->c2r = hcuda_2d_fft_plan(ux, uy, CUFFT_C2R);
    ws->c2r_batch = hcuda_2d_fft_plan_batch(ux, uy, CUFFT_C2R, kAngleBatch);
    ws->has_plans = true;
    ws->nx = fx;
    ws->ny = fy;
  }
  const unsigned long template_pixels = static_cast<unsigned long>(tnx) * static_cast<unsigned long>(tny);
  if (ws->rotated_capacity < template_pixels) {
    safe_cudaFree(ws->rotated);
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

// The spectrum of the correlation of the extended image with the template turned by `degrees`
// (unscaled sums of products with the origin at pixel 0, once transformed back), into
// `product`. ws->mic_F holds the extended image's spectrum. When `keep` is not null the
// template's spectrum is made there, to be kept for later micrographs (both places are aligned
// alike, so the transform is the same); else in ws->T_F.
void product_at_angle(MatchWorkspace* ws, const float* T, int tnx, int tny, float degrees, float2* keep,
                      float2* product) {
  const unsigned nx = static_cast<unsigned>(ws->nx), ny = static_cast<unsigned>(ws->ny);
  hcuda_2d_rotate(T, ws->rotated, static_cast<unsigned>(tnx), static_cast<unsigned>(tny), degrees);
  hcuda_x2d_cp_small_to_large_at(ws->padded, ws->rotated, ws->nx, ws->ny, tnx, tny, 0, 0);
  float2* spectrum = keep != nullptr ? keep : ws->T_F;
  hcuda_2d_fft_exec_r2c(ws->r2c, ws->padded, spectrum);
  hcuda_c2d_multconj_norm(ws->mic_F, spectrum, product, fft_half_width(nx), ny,
                          static_cast<float>(nx) * static_cast<float>(ny));
}

// The correlation map that the product at ws->cc_F[j] turns into, in place: rows of
// 2 * (nx / 2 + 1) floats, the first nx of them the map's.
float* correlation_map(MatchWorkspace* ws, int j) {
  return reinterpret_cast<float*>(ws->cc_F + static_cast<std::size_t>(j) * spectrum_values(ws));
}

// The correlation maps of the batch's `count` products, in place: a full batch in one execution,
// which the host runs on all its cores side by side; the last, short batch of a loop one at a
// time. In place, the maps are written where the products are still in cache, and no second
// set of big arrays is touched.
void inverse_batch(MatchWorkspace* ws, int count) {
  if (count == kAngleBatch) {
    hcuda_2d_fft_exec_c2r(ws->c2r_batch, ws->cc_F, correlation_map(ws, 0));
    return;
  }
  for (int j = 0; j < count; ++j) {
    float2* product = ws->cc_F + static_cast<std::size_t>(j) * spectrum_values(ws);
    hcuda_2d_fft_exec_c2r(ws->c2r, product, correlation_map(ws, j));
  }
}

// The products of the image's spectrum with `count` consecutive kept spectra into ws->cc_F, in
// one pass over the image's spectrum: the same products, element for element, as one at a time.
void multconj_kept(MatchWorkspace* ws, const float2* kept, int count) {
  const unsigned nxh = fft_half_width(static_cast<unsigned>(ws->nx)), ny = static_cast<unsigned>(ws->ny);
  const float norm = static_cast<float>(ws->nx) * static_cast<float>(ws->ny);
  const std::size_t stride = spectrum_values(ws);
  const float2* mic_F = ws->mic_F;
  float2* out = ws->cc_F;
  PK_LAUNCH_IMAGE(nxh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    for (int j = 0; j < count; ++j)
      cuda_c2d_multconj_norm(x, y, mic_F, kept + j * stride, out + j * stride, nxh, ny, norm);
  });
}

bool same_loop(const TemplateSpectra& k, const std::vector<float>& pixels, int tnx, int tny, float ang_start,
               float ang_end, float ang_step) {
  // Bitwise, so that a template of NaNs still finds its own spectra and -0.0 is not 0.0.
  return k.tnx == tnx && k.tny == tny && std::memcmp(&k.ang_start, &ang_start, sizeof(float)) == 0 &&
         std::memcmp(&k.ang_end, &ang_end, sizeof(float)) == 0 &&
         std::memcmp(&k.ang_step, &ang_step, sizeof(float)) == 0 &&
         std::memcmp(k.pixels.data(), pixels.data(), pixels.size() * sizeof(float)) == 0;
}

// The kept spectra of this template and angle loop: complete ones to read, new ones to fill in
// this call, or null when they are not kept (over the budget, or no memory for them).
TemplateSpectra* kept_spectra_for(MatchWorkspace* ws, const float* T, int tnx, int tny, float ang_start,
                                  float ang_end, float ang_step) {
  if (!ws->has_budget) {
    ws->budget_bytes = matching_spectra_budget();
    ws->has_budget = true;
  }
  if (ws->budget_bytes == 0) return nullptr;
  std::vector<float> pixels(static_cast<std::size_t>(tnx) * static_cast<std::size_t>(tny));
  PK_CUDA_CHECK(memcpy_D2H(pixels.data(), T, pixels.size() * sizeof(float)));
  for (TemplateSpectra& k : ws->kept)
    if (k.complete && same_loop(k, pixels, tnx, tny, ang_start, ang_end, ang_step)) return &k;

  if (!ws->make_kept) return nullptr;
  const long angles = matching_angle_count(ang_start, ang_end, ang_step);
  const std::size_t one = spectrum_values(ws) * sizeof(float2);
  if (angles <= 0 || static_cast<std::size_t>(angles) > (ws->budget_bytes - ws->kept_bytes) / one) return nullptr;
  const std::size_t bytes = one * static_cast<std::size_t>(angles);
  float2* block = nullptr;
  if (cudaMalloc(&block, bytes) != cudaSuccess) {
    (void)cudaGetLastError();  // no room after all: this template is transformed at every angle
    return nullptr;
  }
  TemplateSpectra k;
  k.pixels = std::move(pixels);
  k.tnx = tnx;
  k.tny = tny;
  k.ang_start = ang_start;
  k.ang_end = ang_end;
  k.ang_step = ang_step;
  k.spectra = block;
  ws->kept.push_back(std::move(k));
  ws->kept_bytes += bytes;
  return &ws->kept.back();
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
  ws->has_budget = false;
  safe_cudaFree(ws->rotated);
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

  TemplateSpectra* kept = kept_spectra_for(ws, T, tnx, tny, ang_start, ang_end, ang_step);
  const bool read_kept = kept != nullptr && kept->complete;
  const std::size_t spectrum = spectrum_values(ws);

  // The image repeated from the pixel that the template's corner meets at shift 0, when the
  // template sits in the middle of the image: the corner of the transform's area.
  hcuda_2d_periodic_extend(ws->extended, mic, static_cast<unsigned>(ws->nx), static_cast<unsigned>(ws->ny), ux, uy,
                           static_cast<unsigned>((nx - tnx) / 2), static_cast<unsigned>((ny - tny) / 2));
  hcuda_2d_fft_exec_r2c(ws->r2c, ws->extended, ws->mic_F);
  // With the map at minus infinity the first angle writes every pixel of both maps.
  hcuda_2d_memset(ccmax, -INFINITY, ux, uy);
  std::size_t k = 0;  // index of the batch's first angle
  float a = ang_start;
  while (ang_end > a) {
    AngleBatch batch{};
    batch.pitch = 2 * fft_half_width(static_cast<unsigned>(ws->nx));
    int count = 0;
    for (; count < kAngleBatch && ang_end > a; a = a + ang_step, ++count) {
      batch.correlation[count] = correlation_map(ws, count);
      batch.degrees[count] = a;
    }
    for (int j = count; j < kAngleBatch; ++j) {
      batch.correlation[j] = batch.correlation[count - 1];
      batch.degrees[j] = batch.degrees[count - 1];
    }
    if (read_kept) multconj_kept(ws, kept->spectra + k * spectrum, count);
    for (int j = 0; j < count; ++j) {
      std::printf(".");
      std::fflush(stdout);
      float2* keep = kept != nullptr ? kept->spectra + (k + j) * spectrum : nullptr;
      if (!read_kept) product_at_angle(ws, T, tnx, tny, batch.degrees[j], keep, ws->cc_F + j * spectrum);
    }
    inverse_batch(ws, count);
    hcuda_update_ccmax_psi_2d_batch(ccmax, batch, with_psi ? psi : nullptr, nx, ny);
    k += static_cast<std::size_t>(count);
  }
  if (kept != nullptr) kept->complete = true;
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
