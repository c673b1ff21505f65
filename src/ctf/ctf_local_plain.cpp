// Local refinement of one micrograph as a plain function, for callers without SORREL_A: the
// tiles around each particle are averaged with equal weights and the micrograph's values are
// refined on that small spectrum.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include "../ctf_core/ctf_buffers.h"
#include "boxfile/ptcl_box.h"
#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel_local.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "process2d_raw/process2d_raw.h"
#include "starfile/starfile.h"

namespace {

void put_both(FILE* log, const char* text) {
  std::fputs(text, stdout);
  if (log != nullptr) std::fputs(text, log);
}

void refuse_box_type(int type) {
  if (type == 2)
    PK_FATAL("LOCAL_REFINE_GIVENBOX unsupported in the current version!! Exit now!");
  if (type == 3)
    PK_FATAL("LOCAL_REFINE_AUTOGRID unsupported in the current version!! Exit now!");
  if (type != 1) PK_FATAL("unrecognized local_boxtype!! Exit now!");
}

// Corners of the tiles about the particle that lie wholly inside the image.
std::vector<int2> tiles_inside(const PTCL_BOX& particle, const CtfLocalOptions& o, int step, int nx, int ny) {
  std::vector<PTCL_BOX> near;
  auto_generate_neighbor_boxes_grown(near, particle, o.radius, o.boxsize, step);
  std::vector<int2> corners;
  std::vector<float> distances;
  ptcl_boxes_inside(near, nx, ny, corners, distances);
  return corners;
}

}  // namespace

int ctf_local_refine(const char* name, const char* suffix, const float* image, int nx, int ny,
                     const CtfLocalOptions& o, FILE* log) {
  refuse_box_type(o.boxtype);
  const int b = o.boxsize;
  if (b < 2 || b > nx || b > ny) PK_FATAL("the local tile of %d pixels does not fit in %d x %d", b, nx, ny);
  if (get_micrograph_suffixn(name) == 0) PK_FATAL("%s: no micrograph suffix to build the output names from", name);
  char boxf[1024], starf[1024];
  mrcf_replace_file_suffix(boxf, name, o.boxsuffix);
  mrcf_set_outname_by_suffix(starf, name, suffix);
  if (access(boxf, R_OK) != 0) PK_FATAL("the box file %s does not exist or is not readable", boxf);
  std::unique_ptr<FILE, int (*)(FILE*)> owned(std::fopen(starf, "w+"), &std::fclose);
  FILE* star = owned.get();
  if (star == nullptr) PK_FATAL("open file '%s' failed.", starf);
  particle_star_write_head(star);
  const std::vector<PTCL_BOX> particles = read_all_ptcl_boxes_grown(boxf);
  const int np = static_cast<int>(particles.size());
  char text[1200];
  std::snprintf(text, sizeof(text), "\nUsing box file %s for local refinement\nTotal particle number for local "
                "refinement: %d\n", boxf, np);
  put_both(log, text);
  put_both(log, "\n       X       Y       Defocus_U   Defocus_V       Angle         CCC\n");
  const int step = static_cast<int>(b * (1.0 - static_cast<double>(o.overlap)));
  const unsigned nh = static_cast<unsigned>(b / 2 + 1), nyh = static_cast<unsigned>(b);
  const unsigned long n2dh = static_cast<unsigned long>(nh) * nyh, tile = static_cast<unsigned long>(b) * b;
  CtfDeviceBlock<float> d_image(static_cast<size_t>(nx) * ny, image), d_spec(n2dh), d_work(n2dh);
  int most = 0;
  for (int i = 0; i < np; ++i) most = std::max(most, static_cast<int>(tiles_inside(particles[i], o, step, nx, ny).size()));
  CtfDeviceBlock<float> d_tiles(tile * std::max(most, 1));
  const float mag = 10000.0f * o.dstep / o.apix;
  for (int i = 0; i < np; ++i) {
    const PTCL_BOX& p = particles[i];
    const int X = ptcl_box_center_x(p), Y = ptcl_box_center_y(p);
    const std::vector<int2> corners = tiles_inside(p, o, step, nx, ny);
    float U = o.defU, V = o.defV, A = o.defA, score = 0.0f;
    const char* tag = "  Local Values0\n";
    if (!corners.empty()) {
      const int n = static_cast<int>(corners.size());
      hcuda_2d_extract_smalls_from_large(d_tiles.get(), b, b, n, d_image.get(), nx, ny, corners.data());
      hcuda_2ds_fft_r2c_amp_ave_log_subbg(d_tiles.get(), d_spec.get(), b, b, n, b / 12);
      if (o.refine_astm)
        hcuda_refctf_2dh_local(d_spec.get(), d_work.get(), U, V, A, score, o.apix, nh, nyh, o.kv, o.cs, o.ac, o.ps,
                               (o.U_err + o.V_err) / 2.0f, o.A_err, o.bfac, o.resL, o.resH, log);
      else
        hcuda_refctf_2dh_only_defave(d_spec.get(), d_work.get(), U, V, score, o.apix, nh, nyh, o.kv, o.cs, o.ac, o.ps,
                                     A, (o.U_err + o.V_err) / 2.0f, o.bfac, o.resL, o.resH, log);
      tag = "  Local Values\n";
    }
    if (!std::isfinite(score)) score = 0.0f;  // a blank neighbourhood has nothing to correlate
    std::snprintf(text, sizeof(text), "%8d%8d%12.2f%12.2f%12.2f%12.6f%s", X, Y, static_cast<double>(U),
                  static_cast<double>(V), static_cast<double>(A), static_cast<double>(score), tag);
    put_both(log, text);
    particle_star_write_oneline(star, name, static_cast<float>(X), static_cast<float>(Y), o.kv, U, V, A, o.cs,
                                o.dstep, score, mag, o.ac, p.cc, o.ps);
  }
  owned.reset();
  d_tiles.release(), d_image.release(), d_spec.release(), d_work.release();
  return np;
}
