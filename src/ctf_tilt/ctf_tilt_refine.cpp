// The tile stage of a tilted micrograph: the tiles of a grid about the centre, each with the CTF
// the tilt gives its centre, and the base defocus refined on their spectra.
#include <algorithm>
#include <cmath>
#include <vector>

#include "../ctf_core/ctf_buffers.h"
#include "boxfile/ptcl_box.h"
#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel.h"
#include "ctf_tilt/ctf_tilt.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/report.h"
#include "process2d_core/process2d_core.h"
#include "process2d_raw/local_stats.h"

namespace {

constexpr float kResL = 50.0f, kResHMin = 4.0f, kBfac = 150.0f, kDefocusErr = 500.0f;
constexpr int kMinBox = 16;

// The grid's tiles, after the refusals of everything that would make it empty or meaningless.
struct TiltGrid {
  std::vector<int2> corners, centres;
};

TiltGrid tilt_grid(const char* func, const CTF_INFO& base, int nx, int ny, float apix, float tilt, int box,
                   float overlap) {
  ctf_require_usable(func, apix, base);
  if (!(overlap < 1.0f))
    PK_FATAL("%s: tile overlap %g must be below 1, or the tiles would not move", func, overlap);
  if (box < kMinBox || box % 2 != 0)
    PK_FATAL("%s: tile box %d must be even and at least %d pixels", func, box, kMinBox);
  if (box > nx || box > ny) PK_FATAL("%s: tile box %d is larger than the image of %d x %d", func, box, nx, ny);
  const int step = static_cast<int>(box * (1.0 - static_cast<double>(overlap)));
  if (step < 1) PK_FATAL("%s: tile overlap %g leaves a step of 0 pixels for box %d", func, overlap, box);
  if (!std::isfinite(base.defU) || !std::isfinite(base.defV) || !std::isfinite(base.defA))
    PK_FATAL("%s: the base defocus (%g, %g, %g) is not a number", func, base.defU, base.defV, base.defA);
  // The geometry refuses an edge-on tilt; asking at the centre does so before any tile is cut.
  CTF_INFO probe;
  get_tilt_local_def_one(probe, nx / 2, ny / 2, base, nx, ny, apix, 0.0f, tilt);
  TiltGrid g;
  for (const uint2& c : auto_gridbox_2d_from_center(nx, ny, box, step, step)) {
    g.corners.push_back(make_int2(static_cast<int>(c.x), static_cast<int>(c.y)));
    g.centres.push_back(make_int2(static_cast<int>(c.x) + box / 2, static_cast<int>(c.y) + box / 2));
  }
  if (g.corners.empty())
    PK_FATAL("%s: no tile of %d pixels with step %d on the image of %d x %d", func, box, step, nx, ny);
  return g;
}

bool all_finite(const std::vector<float>& a) {
  return std::all_of(a.begin(), a.end(), [](float v) { return std::isfinite(v); });
}

}  // namespace

void hcuda_2d_ctf_tilt_las_subbg(float* out, float* moduli, int box, int count, float bg_radius) {
  if (count < 1 || box < 2 || box % 2 != 0)
    PK_FATAL("%s: %d tiles of box %d: at least one tile of an even box is needed", __func__, count, box);
  const unsigned b = static_cast<unsigned>(box), nh = fft_half_width(b);
  hcuda_2ds_logf_inplace(moduli, nh, b, static_cast<unsigned>(count));
  hcuda_2ds_ave(out, moduli, nh, b, static_cast<unsigned>(count));
  CtfDeviceBlock<float> full(static_cast<size_t>(b) * b);
  hcuda_2d_fftA_half2full(full.get(), out, b, b);
  // The rings' background varies slowly; mirrored edges keep the spectrum's border from
  // borrowing the opposite side's values.
  hcuda_2d_subbg_mpad_inplace(full.get(), b, b, bg_radius, 0.0f);
  hcuda_2d_fftA_full2half(out, full.get(), b, b);
  full.release();
}

float hcuda_2d_ctf_tilt_refine_cctf_autogrid(CTF_INFO& out, const CTF_INFO& base_in, const float* d_image, int nx,
                                             int ny, float apix, float axis, float tilt, int box, float overlap) {
  const CTF_INFO base = base_in;  // out may be the base itself
  const TiltGrid g = tilt_grid(__func__, base, nx, ny, apix, tilt, box, overlap);
  const int n = static_cast<int>(g.corners.size());
  const unsigned b = static_cast<unsigned>(box), nh = fft_half_width(b);
  const unsigned long plane = static_cast<unsigned long>(nh) * b;

  CtfDeviceBlock<float> spectra(plane * n), average(plane), background(plane), work(plane);
  hcuda_2d_boxes_fft_r2c_mod(spectra.get(), g.corners.data(), n, box, d_image, static_cast<unsigned>(nx),
                             static_cast<unsigned>(ny));
  hcuda_2d_ctf_tilt_las_subbg(average.get(), spectra.get(), box, n, box / 20.0f);
  // One modulus of 0 gives a logarithm of -inf, which the background's convolution spreads over
  // the whole average: checking the average checks every tile.
  std::vector<float> host(plane);
  average.copy_to_host(host.data());
  if (!all_finite(host))
    PK_FATAL("%s: the tile spectra are not finite (a blank or constant image has no logarithm)", __func__);
  // The background of the average (mean less its subtracted form) comes off every tile, so each
  // tile keeps its own rings over the shared smooth floor.
  hcuda_2ds_ave(background.get(), spectra.get(), nh, b, static_cast<unsigned>(n));
  hcuda_x2d_sub_inplace(background.get(), average.get(), nh, b);
  for (int i = 0; i < n; ++i) hcuda_x2d_sub_inplace(spectra.get() + plane * i, background.get(), nh, b);

  const float resH = std::max(kResHMin, 2.5f * apix);
  const float half = (base.defU - base.defV) / 2.0f;
  std::vector<CTF_INFO> tiles(n);
  // The tiles' CTFs for a base mean defocus x, the half difference kept.
  const auto place = [&](float x) {
    CTF_INFO at = base;
    at.defU = x + half, at.defV = x - half;
    get_tilt_local_defs(tiles.data(), g.centres.data(), n, at, nx, ny, apix, axis, tilt);
  };
  const auto score = [&](float x) {
    place(x);
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
      const CTF_INFO& t = tiles[i];
      sum += ctf_tcf_swr_2dh(work.get(), spectra.get() + plane * i, apix, nh, b, t.ps, t.kv, t.cs, t.ac, t.defU,
                             t.defV, t.defA, kBfac, kResL, resH);
    }
    return static_cast<float>(sum);
  };
  float mean = (base.defU + base.defV) / 2.0f, best = 0.0f;
  if (!ctf_search_one_parameter(mean, best, kDefocusErr, score))
    PK_WARNING("%s: the defocus search ran out of passes; the last point stands", __func__);

  // Normalised as the other refinements report it: by the models' and spectra's square sums.
  place(mean);
  double models = 0.0, data = 0.0;
  for (int i = 0; i < n; ++i) {
    CTF_INFO t = tiles[i];
    t.bfac = kBfac;
    hcuda_ctf_sim_2dh(work.get(), nh, b, apix, t, RESO{kResL, resH}, 'A');
    models += ctf_band_square_sum(work.get(), work.get(), apix, nh, b, kResL, resH);
    data += ctf_band_square_sum(work.get(), spectra.get() + plane * i, apix, nh, b, kResL, resH);
  }
  spectra.release(), average.release(), background.release(), work.release();
  out = base;
  out.defU = mean + half, out.defV = mean - half;
  if (!(models > 0.0 && data > 0.0)) return 0.0f;
  return static_cast<float>(best / std::sqrt(models) / std::sqrt(data));
}

float gpu_2d_ctf_tilt_refine_cctf_autogrid(CTF_INFO& out, const CTF_INFO& base, const float* h_image, int nx, int ny,
                                           float apix, float axis, float tilt, int box, float overlap) {
  tilt_grid(__func__, base, nx, ny, apix, tilt, box, overlap);  // refusals before the copy
  CtfDeviceBlock<float> image(static_cast<size_t>(nx) * ny, h_image);
  const float ccc =
      hcuda_2d_ctf_tilt_refine_cctf_autogrid(out, base, image.get(), nx, ny, apix, axis, tilt, box, overlap);
  image.release();
  return ccc;
}
