// Local CTF refinement: after the micrograph's own search, a defocus for every particle position
// (or every point of a grid), from the tiles about the position averaged with weights that fall
// with distance, by strategy 1 started from the micrograph's result. Results go to the log, to
// "_local.star" and, when asked, to the stack "_local.ctf".
#include "ctf/sorrel_local.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "ctf/sorrel.h"
#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "math_utils/host_stats.h"
#include "process2d_core/half_fourier_2dh.h"
#include "process2d_raw/process2d_raw.h"
#include "starfile/starfile.h"

namespace {

// The smallest local tile: the spectrum's smoothing box is a twelfth of it.
constexpr int kMinLocalBox = 64;
// The most device memory the tiles of one particle may take. Beyond it a run would thrash or
// fail to allocate half way; a clear stop at the start is kinder.
constexpr double kMaxStackBytes = 4.0 * 1024.0 * 1024.0 * 1024.0;

bool all_finite(const std::vector<float>& a) {
  for (float v : a)
    if (!std::isfinite(v)) return false;
  return true;
}

// Both sides of the report: standard output and the micrograph's log.
void say(FILE* log, const char* text) {
  std::fputs(text, stdout);
  if (log != nullptr) std::fputs(text, log);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Free pieces
// ---------------------------------------------------------------------------------------------

std::vector<PTCL_BOX> read_all_ptcl_boxes_grown(const char* name) {
  std::vector<PTCL_BOX> boxes;
  for (int room = 1024;; room = room > PTCL_BOX_MAX / 2 ? PTCL_BOX_MAX : room * 2) {
    boxes.assign(static_cast<size_t>(room), PTCL_BOX{});
    const int count = read_all_ptcl_boxes(boxes.data(), room, name);
    if (count < room || room == PTCL_BOX_MAX) {
      boxes.resize(static_cast<size_t>(count));
      return boxes;
    }
  }
}

int auto_generate_neighbor_boxes_grown(std::vector<PTCL_BOX>& out, const PTCL_BOX& center, float radius, int box_size,
                                       int step) {
  size_t room = std::max<size_t>(out.capacity(), 64);
  for (;;) {
    out.resize(room);
    const int count =
        auto_generate_neighbor_boxes_circular(out.data(), static_cast<int>(room), center, radius, box_size, step);
    if (static_cast<size_t>(count) < room) {
      out.resize(static_cast<size_t>(count));
      return count;
    }
    room *= 2;
  }
}

int ptcl_boxes_inside(const std::vector<PTCL_BOX>& boxes, int nx, int ny, std::vector<int2>& corners,
                      std::vector<float>& distances) {
  corners.clear();
  distances.clear();
  for (const PTCL_BOX& b : boxes) {
    const long long x0 = b.x, y0 = b.y;
    if (x0 < 0 || y0 < 0 || x0 + b.w > nx || y0 + b.h > ny) continue;
    corners.push_back(make_int2(b.x, b.y));
    distances.push_back(b.distance);
  }
  return static_cast<int>(corners.size());
}

int hcuda_2d_read_ptcls_to_2ds_from_boxes(float* d_stack, const std::vector<PTCL_BOX>& boxes, float* d_distances,
                                          int box_size, const float* d_image, int nx, int ny,
                                          std::vector<int2>& corners, std::vector<float>& distances) {
  const int n = ptcl_boxes_inside(boxes, nx, ny, corners, distances);
  if (n == 0) return 0;
  hcuda_2d_extract_smalls_from_large(d_stack, box_size, box_size, n, d_image, nx, ny, corners.data());
  PK_CUDA_CHECK(memcpy_H2D(d_distances, distances.data(), static_cast<size_t>(n) * sizeof(float)));
  return n;
}

// ---------------------------------------------------------------------------------------------
// Sizes and buffers
// ---------------------------------------------------------------------------------------------

void SORREL_A::sorrel_allocate_ctf_data_local() {
  // A type that can't run stops the run before any micrograph is searched.
  if (para.local_boxtype == 2) PK_FATAL("LOCAL_REFINE_GIVENBOX unsupported in the current version!");
  if (para.local_boxtype != 1 && para.local_boxtype != 3) PK_FATAL("unrecognized local_boxtype!");
  const int side = std::min(nx, ny) - std::min(nx, ny) % 2;
  local_box = para.local_boxsize - para.local_boxsize % 2;
  if (local_box > side) {
    std::printf("Warning: --local_boxsize %d is larger than the micrographs (%d x %d), forcing it to be %d ...\n",
                para.local_boxsize, nx, ny, side);
    local_box = side;
  }
  if (local_box < kMinLocalBox)
    PK_FATAL("--local_boxsize %d leaves local tiles of %d pixels; they must have %d pixels or more",
             para.local_boxsize, local_box, kMinLocalBox);
  if (!(para.local_radius >= 0.0f)) PK_FATAL("--local_radius %f must be 0 or more", para.local_radius);
  local_radius = std::min(para.local_radius, static_cast<float>(side));
  local_step = static_cast<int>(local_box * (1.0 - static_cast<double>(para.local_overlap)));
  if (local_step < 1)
    PK_FATAL("--local_overlap %f leaves a tile step of 0 pixels for tiles of %d pixels; use a smaller overlap",
             para.local_overlap, local_box);
  local_nh = local_box / 2 + 1;
  local_n2dh = static_cast<unsigned long>(local_nh) * local_box;
  h_local_sub.assign(local_n2dh, 0.0f), h_local_sim.assign(local_n2dh, 0.0f);
  h_local_out.assign(static_cast<size_t>(local_box) * local_box, 0.0f);
  for (float** d : {&d_local_sub, &d_local_work, &d_local_sim}) safe_cudaMalloc(d, local_n2dh * sizeof(float));
  local_capacity = 0;
}

void SORREL_A::sorrel_free_ctf_data_local() {
  for (float** d : {&d_local_stack, &d_local_dist, &d_local_w, &d_local_sub, &d_local_work, &d_local_sim})
    safe_cudaFree(*d);
  local_capacity = 0;
  if (local_star != nullptr) std::fclose(local_star), local_star = nullptr;
  if (local_ctf != nullptr) std::fclose(local_ctf), local_ctf = nullptr;
}

// Room on the device for the tiles of the particle with the most of them.
static void ensure_tile_room(SORREL_A& s, int tiles) {
  if (tiles <= s.local_capacity) return;
  const double plane = static_cast<double>(s.local_box) * s.local_box;
  const double per_tile = (plane + (s.para.local_avetype == 2 ? s.local_n2dh : 1)) * sizeof(float);
  if (per_tile * tiles > kMaxStackBytes)
    PK_FATAL("%d local tiles of %d pixels per position need %.1f GiB; lower --local_radius or --local_overlap", tiles,
             s.local_box, per_tile * tiles / (1024.0 * 1024.0 * 1024.0));
  for (float** d : {&s.d_local_stack, &s.d_local_dist, &s.d_local_w}) safe_cudaFree(*d);
  safe_cudaMalloc(&s.d_local_stack, static_cast<size_t>(plane) * tiles * sizeof(float));
  safe_cudaMalloc(&s.d_local_dist, static_cast<size_t>(tiles) * sizeof(float));
  const size_t weights = s.para.local_avetype == 2 ? s.local_n2dh * static_cast<size_t>(tiles) : tiles;
  safe_cudaMalloc(&s.d_local_w, weights * sizeof(float));
  s.local_capacity = tiles;
}

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

int SORREL_A::sorrel_get_local_boxf() {
  char buffer[SORREL_NAME_LEN];
  if (para.local_boxtype == 3) {
    mrcf_set_outname_by_suffix(buffer, name.c_str(), "_autogrid.star");
    name_boxf = buffer;
    auto_grid_starboxf_2d_from_center_nxm(buffer, nx, ny, local_box, para.local_autogrid_X, para.local_autogrid_Y);
    return 0;
  }
  mrcf_replace_file_suffix(buffer, name.c_str(), para.boxsuffix);
  name_boxf = buffer;
  return sorrel_check_boxf();
}

int SORREL_A::sorrel_check_boxf() {
  if (access(name_boxf.c_str(), F_OK) != 0) {
    PK_STRONG_ATTENTION("the box file %s does NOT exist! Local refinement automatically ignored!Maybe you want to "
                        "check the option '--boxsuffix'  as well. \n",
                        name_boxf.c_str());
    PK_FATAL("unrecognized local_boxtype!");
  }
  if (access(name_boxf.c_str(), R_OK) != 0) {
    PK_STRONG_ATTENTION("the box file %s are NOT readable! Local refinement automatically ignored! Maybe you want to "
                        "check the option '--boxsuffix' as well. \n",
                        name_boxf.c_str());
    PK_FATAL("unrecognized local_boxtype!");
  }
  return 0;
}

void SORREL_A::sorrel_open_output_local_head() {
  char buffer[SORREL_NAME_LEN];
  mrcf_set_outname_by_suffix(buffer, name.c_str(), "_local.star");
  name_local_star = buffer;
  mrcf_set_outname_by_suffix(buffer, name.c_str(), "_local.ctf");
  name_local_ctf = buffer;
  local_star = std::fopen(name_local_star.c_str(), "w+");
  if (local_star == nullptr) {
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", name_local_star.c_str());
    PK_FATAL("open file '%s' failed.", name_local_star.c_str());
  }
  std::printf("\nWriting out star file %s for local refinement\n", name_local_star.c_str());
  if (log != nullptr) std::fprintf(log, "\nWriting out star file %s for local refinement\n", name_local_star.c_str());
  particle_star_write_head(local_star);
  std::fflush(local_star);
  // The stack is created with its first image, so that a micrograph without positions leaves no
  // empty image behind; one from an earlier run would no longer match the STAR file.
  if (para.write_local_ctf) std::remove(name_local_ctf.c_str());
}

void SORREL_A::sorrel_output_init_local_info() {
  char text[SORREL_NAME_LEN + 64];
  std::snprintf(text, sizeof(text), "\nUsing box file %s for local refinement\n", name_boxf.c_str());
  say(log, text);
  std::snprintf(text, sizeof(text), "Total particle number for local refinement: %d\n",
                static_cast<int>(particles.size()));
  say(log, text);
  say(log, "\n       X       Y    Defocus_U   Defocus_V      Angle    Phase_shift   CCC\n");
}

void SORREL_A::sorrel_output_local_values_one_line(const PTCL_BOX& particle) {
  const int x = ptcl_box_center_x(particle), y = ptcl_box_center_y(particle);
  const double U = local_result[0], V = local_result[1], A = local_result[2], P = local_result[3],
               C = local_result[4];
  char text[160];
  if (para.phase_shift_mode)
    std::snprintf(text, sizeof(text), "%8d%8d%12.2f%12.2f%12.2f%12.2f%12.6f  Local Values\n", x, y, U, V, A, P, C);
  else
    std::snprintf(text, sizeof(text), "%8d%8d%12.2f%12.2f%12.2f%12.6f  Local Values\n", x, y, U, V, A, C);
  say(log, text);
  const float magnification = static_cast<float>(10000.0 * static_cast<double>(para.dstep) / para.apix);
  particle_star_write_oneline(local_star, name.c_str(), static_cast<float>(x), static_cast<float>(y), para.kV,
                              local_result[0], local_result[1], local_result[2], para.cs, para.dstep, local_result[4],
                              magnification, para.ac, particle.cc, local_result[3]);
  std::fflush(local_star);
}

void SORREL_A::sorrel_write_local_ctf_file(int index) {
  const float pi = static_cast<float>(kCtfPi), resH = para.local_resH;
  hcuda_ctf_pow_simulate_2dh(d_local_sim, para.apix, local_nh, local_box, para.kV, para.cs, para.ac, local_result[3],
                             local_result[0], local_result[1], local_result[2], para.ctfout_bfac, para.ctfout_resL,
                             resH);
  PK_CUDA_CHECK(memcpy_D2H(h_local_sim.data(), d_local_sim, local_n2dh * sizeof(float)));
  hm_normz_inplace(h_local_sim.data(), local_n2dh, std::sqrt(para.apix / resH),
                   2.0f * std::sqrt(resH * pi / (4.0f * para.apix)) / pi);
  // A position without a spectrum of its own shows the model beside an empty half; a constant
  // can't be normalised.
  float lo = 0.0f, hi = 0.0f, mean = 0.0f;
  hm_max_min_mean(h_local_sub.data(), local_n2dh, hi, lo, mean);
  if (hi > lo) hm_normz_inplace(h_local_sub.data(), local_n2dh, 1.0f, 0.63661975f);
  cpu_2dh_ctf_sim_raw_combine(h_local_out.data(), h_local_sim.data(), h_local_sub.data(), local_box);
  const size_t plane = static_cast<size_t>(local_box) * local_box;
  if (index == 0) {
    local_ctf = std::fopen(name_local_ctf.c_str(), "w+");
    if (local_ctf == nullptr) {
      std::printf("Cannot write to file %s. Permission denied or no space left!\n", name_local_ctf.c_str());
      PK_FATAL("open file '%s' failed.", name_local_ctf.c_str());
    }
    mrc_init_head(&local_head);
    hm_max_min_mean(h_local_out.data(), plane, hi, lo, mean);
    mrc_set_head_xyz_mmm(&local_head, local_box, local_box, static_cast<int>(particles.size()), lo, hi, mean);
    mrc_write_head(local_ctf, &local_head);
  }
  if (local_ctf != nullptr) std::fwrite(h_local_out.data(), sizeof(float), plane, local_ctf);
}

// ---------------------------------------------------------------------------------------------
// The pass
// ---------------------------------------------------------------------------------------------

int SORREL_A::sorrel_local_spectrum(const PTCL_BOX& particle) {
  auto_generate_neighbor_boxes_grown(neighbours, particle, local_radius, local_box, local_step);
  ensure_tile_room(*this, static_cast<int>(neighbours.size()));
  const int n = hcuda_2d_read_ptcls_to_2ds_from_boxes(d_local_stack, neighbours, d_local_dist, local_box, d_image, nx,
                                                      ny, tile_corners, tile_distances);
  if (n == 0) return 0;
  const unsigned b = static_cast<unsigned>(local_box), count = static_cast<unsigned>(n);
  const int smooth = local_box / 12;
  int type = para.local_avetype;
  if (type != 0 && type != 1 && type != 2) {
    PK_WARNING("Unknown local CTF average type! Will use equally average instead!\n");
    type = 0;
  }
  // A radius of 0 leaves the tile at the position alone, and a weight of d^2 / (2 r^2) would be
  // 0 / 0: one tile needs no weights.
  if (!(local_radius > 0.0f)) type = 0;
  if (type == 0) {
    hcuda_2ds_fft_r2c_amp_ave_log_subbg(d_local_stack, d_local_sub, b, b, count, smooth);
  } else {
    if (type == 1)
      hcuda_2ds_fft_amp_local_w1d_gen(d_local_w, count, d_local_dist, local_radius);
    else
      hcuda_2ds_fft_amp_local_w2ds_gen(d_local_w, static_cast<unsigned>(local_nh), b, count, d_local_dist,
                                       local_radius, para.apix, para.local_resH);
    hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_local_stack, d_local_sub, b, b, count, smooth, d_local_w, type);
  }
  PK_CUDA_CHECK(memcpy_D2H(h_local_sub.data(), d_local_sub, local_n2dh * sizeof(float)));
  return n;
}

void SORREL_A::sorrel_set_init_2DR_Para_local(CTF_2DR_Para& r) {
  local_err = PUVA{para.local_PS_err, para.local_U_err, para.local_V_err, para.local_A_err};
  sorrel_set_init_2DR_Para(r);
}

void SORREL_A::sorrel_local_refine_one(const PTCL_BOX& particle) {
  const int n = sorrel_local_spectrum(particle);
  // Weights that all vanish (a radius of 0 with far tiles) or a flat tile give a spectrum that
  // is not finite: such a position keeps the micrograph's values, as one without tiles does.
  const bool usable = n > 0 && all_finite(h_local_sub);
  if (usable) {
    ref_UVave = 1, ref_UVdif = ref_A = ref_PS = 0;
    if (para.refine_local_astm) ref_UVdif = ref_A = 1;
    if (para.refine_local_ps) ref_PS = 1;
    sorrel_hcuda_refctf_2dh();
    if (std::isfinite(local_result[0] + local_result[1] + local_result[2] + local_result[3] + local_result[4])) return;
  }
  PK_WARNING("No usable local spectrum about (%d, %d) (%d tiles inside the image); it keeps the micrograph's values.",
             ptcl_box_center_x(particle), ptcl_box_center_y(particle), n);
  std::fill(h_local_sub.begin(), h_local_sub.end(), 0.0f);
  local_result[0] = refined[0], local_result[1] = refined[1], local_result[2] = refined[2];
  local_result[3] = refined[3], local_result[4] = 0.0f;
}

void SORREL_A::sorrel_local_refine() {
  local_pass = 1;
  local_init = PUVA{refined[3], refined[0], refined[1], refined[2]};
  sorrel_get_local_boxf();
  sorrel_open_output_local_head();
  particles = read_all_ptcl_boxes_grown(name_boxf.c_str());
  sorrel_output_init_local_info();
  if (particles.empty())
    PK_WARNING("No positions in %s; %s holds no local values for this micrograph.", name_boxf.c_str(),
               name_local_star.c_str());
  for (size_t k = 0; k < particles.size(); ++k) {
    sorrel_local_refine_one(particles[k]);
    sorrel_output_local_values_one_line(particles[k]);
    if (para.write_local_ctf) sorrel_write_local_ctf_file(static_cast<int>(k));
  }
  if (local_star != nullptr) std::fclose(local_star), local_star = nullptr;
  if (local_ctf != nullptr) std::fclose(local_ctf), local_ctf = nullptr;
  local_pass = 0;
}
