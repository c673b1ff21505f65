// Rotational matching of one template against one work image.
//
// For every angle a = ang_start, ang_start + ang_step, ... (float additions, the end angle
// itself never used) the template is turned by a in real space, placed in the middle of an empty
// image of the work image's size and correlated with the whole image through the FFT. The best
// correlation per pixel goes to the ccmax map and its angle to the psi map. At the end the maps
// are shifted by half the image, so that map pixel (x, y) says how well the template fits with
// its pixel (tnx / 2, tny / 2) on work pixel (x, y), and ccmax is divided by
//   d = sqrt(Sm * St * area / W),
// Sm the masked sum of squares of the image, St the template's sum of squares before rotation,
// W the number of clear cells under the mask.
//
// How the correlation is arranged. The sums above wrap around the work image, as the FFT of the
// image's size has them. But a side with a large prime factor (958 = 2 x 479) transforms two or
// three times slower than a larger side of small factors, so the transforms run on the side that
// matching_transform_side gives: the work image's own when its prime factors are all small,
// else the smallest such side that holds the image and a template beyond it. The image is
// repeated periodically over the transform's area, shifted by the template's place in the
// middle, and the template is placed at the area's corner: every sum then meets exactly the
// pixels it meets on the image's own side, and only the rounding differs.
//
// All pointers are device pointers; images are row-major, pixel (x, y) at y * nx + x. The work
// image is nx by ny with both sides even; the template must fit inside it.
#pragma once

#include <math.h>

#include <cstddef>
#include <vector>

#include "cuda_general/platform.h"
#include "process2d_raw/bilinear.h"

// ---- Kernels (one output element each) ---------------------------------------------------

// Degrees to radians with the single-precision value of pi / 180.
constexpr float kDegreesToRadians = 0.017453292f;

// Bilinear rotation of an nx by ny image about the centre of its pixel grid, given cos and sin
// of the angle. The output at (x, y) shows the source at (x, y) turned by -angle, so the picture
// turns by +angle from the +x axis toward the +y axis. Positions outside the source give 0.0
// (the corners of a square image are lost). On the last column or row the neighbour index stays
// on the pixel itself, so no read leaves the image and a turn by 0 returns the image exactly.
PICKORA_HD inline void cuda_2d_rotate_cs(unsigned x, unsigned y, const float* src, float* out, unsigned nx,
                                         unsigned ny, float c, float s) {
  if (x >= nx || y >= ny) return;
  const float cx = (float)(nx - 1) * 0.5f, cy = (float)(ny - 1) * 0.5f;
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float sx = cx + (dx * c + dy * s);
  const float sy = cy + (dy * c - dx * s);
  out[y * nx + x] = pk_2d_sample(src, nx, ny, sx, sy);
}

// The same with the angle in degrees; cosf and sinf are the accurate functions.
PICKORA_HD inline void cuda_2d_rotate(unsigned x, unsigned y, const float* src, float* out, unsigned nx, unsigned ny,
                                      float degrees) {
  const float a = degrees * kDegreesToRadians;
  cuda_2d_rotate_cs(x, y, src, out, nx, ny, cosf(a), sinf(a));
}

// One pixel (x, y) of the small image to column x0 + x and row y0 + y of the large one.
PICKORA_HD inline void cuda_x2d_cp_small_to_large_at(unsigned x, unsigned y, float* large, const float* small,
                                                     int large_nx, int small_nx, int small_ny, unsigned x0,
                                                     unsigned y0) {
  if (x >= (unsigned)small_nx || y >= (unsigned)small_ny) return;
  large[(y0 + y) * (unsigned)large_nx + x0 + x] = small[y * (unsigned)small_nx + x];
}

// The same at column (large_nx - small_nx) / 2 and row (large_ny - small_ny) / 2: in the middle.
PICKORA_HD inline void cuda_x2d_cp_small_to_large_center(unsigned x, unsigned y, float* large, const float* small,
                                                         int large_nx, int large_ny, int small_nx, int small_ny) {
  cuda_x2d_cp_small_to_large_at(x, y, large, small, large_nx, small_nx, small_ny,
                                (unsigned)((large_nx - small_nx) / 2), (unsigned)((large_ny - small_ny) / 2));
}

// Pixel (x, y) of an out_nx by out_ny image that repeats the nx by ny image `in` periodically,
// starting at its pixel (x0, y0): in at ((x + x0) mod nx, (y + y0) mod ny).
PICKORA_HD inline void cuda_2d_periodic_extend(unsigned x, unsigned y, float* out, const float* in, unsigned out_nx,
                                               unsigned out_ny, unsigned nx, unsigned ny, unsigned x0, unsigned y0) {
  if (x >= out_nx || y >= out_ny) return;
  out[y * out_nx + x] = in[((y + y0) % ny) * nx + (x + x0) % nx];
}

// Running maximum: only a strictly larger correlation replaces the stored one, so on a tie the
// earlier angle stays and a NaN correlation changes nothing.
PICKORA_HD inline void cuda_update_ccmax_psi_2d(unsigned x, unsigned y, float* ccmax, const float* correlation,
                                                float* psi, float degrees, int nx, int ny) {
  if (x >= (unsigned)nx || y >= (unsigned)ny) return;
  const unsigned i = y * (unsigned)nx + x;
  const float value = correlation[i];
  if (ccmax[i] < value) {
    ccmax[i] = value;
    psi[i] = degrees;
  }
}
PICKORA_HD inline void cuda_update_ccmax_2d(unsigned x, unsigned y, float* ccmax, const float* correlation, int nx,
                                            int ny) {
  if (x >= (unsigned)nx || y >= (unsigned)ny) return;
  const unsigned i = y * (unsigned)nx + x;
  const float value = correlation[i];
  if (ccmax[i] < value) ccmax[i] = value;
}

// Consecutive angles whose correlations are made before the maps take them in, so that one pass
// over ccmax and psi serves several angles. A batch always has kAngleBatch entries: a short one
// repeats its last angle, which can never win against itself. The correlation maps may have
// longer rows than ccmax (an in-place inverse transform pads them): pitch floats per row.
constexpr int kAngleBatch = 4;
struct AngleBatch {
  const float* correlation[kAngleBatch];
  float degrees[kAngleBatch];
  unsigned pitch;
};

// The batch's angles in their order, one after the other, exactly as single updates would take
// them: a later angle wins only with a strictly larger value, and NaN never wins.
PICKORA_HD inline void cuda_update_ccmax_psi_2d_batch(unsigned x, unsigned y, float* ccmax, AngleBatch batch,
                                                      float* psi, int nx, int ny) {
  if (x >= (unsigned)nx || y >= (unsigned)ny) return;
  const unsigned i = y * (unsigned)nx + x, in = y * batch.pitch + x;
  const float old = ccmax[i];
  float best = old, angle = 0.0f;
  // Selects rather than branches, and every pixel written back (with its old values where no
  // angle won): that is what lets the host compiler run pixels side by side in vector registers.
  for (int j = 0; j < kAngleBatch; ++j) {
    const float value = batch.correlation[j][in];
    const bool larger = best < value;
    best = larger ? value : best;
    angle = larger ? batch.degrees[j] : angle;
  }
  ccmax[i] = best;
  if (psi != nullptr) psi[i] = old < best ? angle : psi[i];
}

// ---- Launchers (32 x 32 blocks, wait, device check) ---------------------------------------

// cos and sin are taken once per call on the host, so both backends turn by the same values.
void hcuda_2d_rotate(const float* src, float* out, unsigned nx, unsigned ny, float degrees);
// One thread per pixel of the small image. The small image must fit into the large one.
void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int large_nx, int large_ny, int small_nx,
                                        int small_ny);
// The same with the small image's corner at (x0, y0); it must fit there.
void hcuda_x2d_cp_small_to_large_at(float* large, const float* small, int large_nx, int large_ny, int small_nx,
                                    int small_ny, int x0, int y0);
void hcuda_2d_periodic_extend(float* out, const float* in, unsigned out_nx, unsigned out_ny, unsigned nx, unsigned ny,
                              unsigned x0, unsigned y0);
void hcuda_update_ccmax_psi_2d(float* ccmax, const float* correlation, float* psi, float degrees, int nx, int ny);
void hcuda_update_ccmax_2d(float* ccmax, const float* correlation, int nx, int ny);
// psi may be null: then only ccmax is updated.
void hcuda_update_ccmax_psi_2d_batch(float* ccmax, const AngleBatch& batch, float* psi, int nx, int ny);

// ---- The angle loop -----------------------------------------------------------------------

// Number of angles a = start, start + step, ... (float additions) strictly below end; -1 when the
// loop would never end (a step that is not positive, or one too small to move a).
long matching_angle_count(float ang_start, float ang_end, float ang_step);

// The transform side for an image side n and a template side t <= n: n itself when its prime
// factors are all 2, 3, 5 or 7, else the smallest even number of such factors that is at least
// n + t - 1 (the image and a template beyond it, so that no sum wraps).
int matching_transform_side(int n, int t);

// The spectra of one template at every angle of one angle loop, made on the first call that
// meets the template and read by every later call with the same template, sizes and angles.
struct TemplateSpectra {
  std::vector<float> pixels;  // a host copy of the template they were made from
  int tnx = 0, tny = 0;
  float ang_start = 0.0f, ang_end = 0.0f, ang_step = 0.0f;
  bool complete = false;      // false while the first call is still filling them
  float2* spectra = nullptr;  // one (nx / 2 + 1) by ny spectrum per angle, in loop order
};

// Scratch for matching at one work-image size, kept across templates and micrographs so that the
// plans and buffers are made once. Zero-initialise it (MatchWorkspace ws{}), pass it to the
// matching calls, and release it with match_workspace_release. A call at another size rebuilds
// it; a template of another size clears the padded image again.
//
// It also keeps the template spectra of every angle, which saves the rotation and the forward
// transform of the template at every angle of every later micrograph. They take
// angles x (nx / 2 + 1) x ny x 8 bytes per template; templates are kept while their total stays
// within the budget (see matching_spectra_budget), and one that does not fit is transformed
// at every angle as before. The results are the same bytes either way. A caller that knows no
// later call will come (the last micrograph of a run) sets make_kept to false, so that no
// memory is filled for nothing.
struct MatchWorkspace {
  int nx = 0, ny = 0;                  // the transform sides of the scratch; 0 before the first call
  int placed_nx = 0, placed_ny = 0;    // template size whose footprint the padded image holds
  float* padded = nullptr;             // nx by ny, the template at the corner, zero elsewhere
  float* extended = nullptr;           // nx by ny, the work image repeated periodically
  float* rotated = nullptr;            // rotated template, rotated_capacity floats
  unsigned long rotated_capacity = 0;
  float2* mic_F = nullptr;             // (nx / 2 + 1) by ny spectra
  float2* T_F = nullptr;               // the template's spectrum when it is not kept
  float2* cc_F = nullptr;              // kAngleBatch products of the image's and the template's
                                       // spectra, turned in place into correlation maps
  cufftHandle r2c = 0, c2r = 0;
  cufftHandle c2r_batch = 0;           // kAngleBatch inverse transforms in one execution
  bool has_plans = false;
  std::vector<TemplateSpectra> kept;   // template spectra, at this size
  std::size_t kept_bytes = 0;
  std::size_t budget_bytes = 0;
  bool has_budget = false;             // budget_bytes read from the environment
  bool make_kept = true;               // false: read kept spectra but make no new ones
};

// Bytes of template spectra a workspace may keep: PICKORA_SPECTRA_MIB mebibytes when that is set
// (0 keeps none), else 4096 MiB. A value that is not a whole number ends the run with a fatal
// report.
std::size_t matching_spectra_budget();
void match_workspace_release(MatchWorkspace* ws);

// Fills ccmax (and psi when do_psi is not 0 and psi is not null) for one template T of tnx by
// tny against the work image mic; see the top of this file. Prints one "." per angle and a line
// end. Returns 0. A non-positive or vanishing angle step, odd or empty image sides and a
// template larger than the image end the run with a fatal report. The forms without a workspace
// make and free their scratch per call.
int pickora_ccmax_psi_by_one_template(MatchWorkspace* ws, float* mic, float* mask, float* ccmax, float* psi,
                                      int do_psi, int nx, int ny, float* T, int tnx, int tny, float area,
                                      float ang_start, float ang_end, float ang_step);
int pickora_ccmax_psi_by_one_template(float* mic, float* mask, float* ccmax, float* psi, int do_psi, int nx, int ny,
                                      float* T, int tnx, int tny, float area, float ang_start, float ang_end,
                                      float ang_step);
int pickora_ccmax_by_one_template(MatchWorkspace* ws, float* mic, float* mask, float* ccmax, int nx, int ny, float* T,
                                  int tnx, int tny, float area, float ang_start, float ang_end, float ang_step);
int pickora_ccmax_by_one_template(float* mic, float* mask, float* ccmax, int nx, int ny, float* T, int tnx, int tny,
                                  float area, float ang_start, float ang_end, float ang_step);
