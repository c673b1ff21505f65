// CTF determination over micrographs: the class that carries one run, from the command line to
// the result files.
//
// Per micrograph: the tiled power spectrum (sorrel_generate_ctf_d_data), a 1D defocus search on
// its rotational average (sorrel_1D_search_t2), 2D refinement of defocus U, V, the angle and
// optionally the phase shift (three strategies, the `1S2R` sequences), the end step that folds
// the angles and normalises the score, the equiphase average with the resolution limit and the
// B-factor, and the files ("_sorrel.log", ".ctf", ".pow", ".epa", one row of the summary table).
//
// Every random draw of the searches comes from the toolkit's one random source.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "boxfile/ptcl_box.h"
#include "ctf/sorrel_para.h"
#include "ctf/sorrel_queue.h"
#include "mrcfile/mrcfile.h"

// Phase shift (degrees), defocus U and V (Angstrom), angle (degrees).
struct PUVA {
  float ps, U, V, A;
};
// The same with the score: phase shift, U, V, angle, CCC.
struct PUVAC {
  float ps, U, V, A, C;
};

// One step of a one-parameter search: best point, offset to the other point, tolerance, score.
struct RF_MSPX_1D {
  float x, dx, tol, best;
};

// Working record of strategy 1: pairs (x, other) of the mean defocus, the half difference, the
// angle and the phase shift; the best score; U and V at the top of the cycle, for reports.
struct CTF_2DR_Para {
  float UVave[2], UVdif[2], A[2], PS[2];
  float best;
  float U, V;
};

// The members one strategy-1 refinement works on: its start and errors, the point it moves, its
// result (U, V, angle, phase shift, score) and the spectrum it scores against, with a work array
// of the same nh by ny size. The micrograph's own refinement and the local one of each particle
// run the same code on two such sets.
struct SorrelFitSet {
  PUVA* init;
  PUVA* err;
  PUVA* current;
  float* result;
  const float* spectrum;
  float* work;
  unsigned nh, ny;
};

class SORREL_A;
using SorrelScore = float (SORREL_A::*)(float);

class SORREL_A {
 public:
  SORREL_A() = default;
  ~SORREL_A();
  SORREL_A(const SORREL_A&) = delete;
  SORREL_A& operator=(const SORREL_A&) = delete;

  // The whole run; returns the exit status (0 done, also after an unknown option; 1 otherwise).
  int sorrel_run_all(int argc, char** argv);
  // The run itself, without the guard of sorrel_run_all.
  int sorrel_run(int argc, char** argv);

  // ---- run control ----
  // Parameters, the first head, allocation, reports, the summary file. Returns 0 to go on, or
  // the exit status + 1 of a run that stops here.
  int sorrel_preparation(int argc, char** argv);
  // Index of the first readable micrograph, -1 when there is none; fills the first head.
  int sorrel_check_access_openf_1st();
  void sorrel_allocate_ctf_data();
  void sorrel_free_ctf_data();
  int sorrel_open_sumlog();
  // 0 when the micrograph is ready; -1 to skip it.
  int sorrel_prep_one_mic(int index);
  void sorrel_write_powf();
  void sorrel_write_star_oneline();
  void sorrel_write_ctfout();
  // 1 when the log of the current micrograph says it is done.
  int sorrel_is_done(int index);
  void sorrel_reset_for_micrograph();

  // ---- spectrum and search ----
  int sorrel_generate_ctf_d_data();
  // With --reload_ctf_files: the spectra rebuilt from the ".pow" file an earlier run wrote beside
  // its ".ctf" file (log sum as written, background by the box mean of convsize); the ".ctf"
  // file is kept as it is. Returns 0, or -1 when the file can't be read at this box size.
  int sorrel_reload_pre_ctf_files();
  bool reloaded = false;  // this micrograph's spectra came from an earlier run's files
  // The steps after a fresh or a reloaded spectrum: smoothing, host copies, the ".pow" file.
  int sorrel_finish_spectra(bool fresh);
  void sorrel_1D_search_t2(float phase_shift);
  void sorrel_set_init_defUVA_for_2D_refine(float phase_shift);
  void sorrel_set_init_2DR_Para(CTF_2DR_Para& r);
  void sorrel_set_bres();
  void sorrel_hcuda_refctf_2dh();
  void sorrel_hcuda_refctf_A_2dh_t3(CTF_2DR_Para& r);
  void sorrel_hcuda_refctf_UVave_2dh_t3(CTF_2DR_Para& r);
  void sorrel_hcuda_refctf_UVdif_2dh_t3(CTF_2DR_Para& r);
  void sorrel_hcuda_refctf_PS_2dh_t3(CTF_2DR_Para& r);
  void sorrel_set_first_vertices(float phase_shift);
  void sorrel_set_later_vertices(PUVA from);
  void sorrel_hcuda_refctf_st2_2dh();
  void sorrel_hcuda_refctf_st3_2dh();
  void sorrel_refine_by_strategy(bool first_vertices, float phase_shift);
  void sorrel_hcuda_refctf_end_2dh();
  void sorrel_hcuda_refctf_output_FinalValues();
  void sorrel_1S2R_st1_noPS();
  void sorrel_1S2R_st1_PS();

  // The set strategy 1 works on: the micrograph's members, or the local ones while local_pass.
  SorrelFitSet fit_set();
  // Whether the steps of strategy 1 write their lines to the log (not in the high-resolution or
  // the local pass).
  bool step_log() const { return echo_log && !hres_pass && !local_pass && log != nullptr; }

  // ---- local refinement (sorrel_local.cpp) ----
  void sorrel_allocate_ctf_data_local();
  void sorrel_free_ctf_data_local();
  void sorrel_local_refine();
  // 0 with the particle file named and readable (or written, for a grid); fatal otherwise.
  int sorrel_get_local_boxf();
  int sorrel_check_boxf();
  void sorrel_open_output_local_head();
  void sorrel_output_init_local_info();
  void sorrel_set_init_2DR_Para_local(CTF_2DR_Para& r);
  // Averages the tiles about particle k into the local spectrum; returns the tile count.
  int sorrel_local_spectrum(const PTCL_BOX& particle);
  void sorrel_local_refine_one(const PTCL_BOX& particle);
  void sorrel_output_local_values_one_line(const PTCL_BOX& particle);
  void sorrel_write_local_ctf_file(int index);

  // Scores at `current` with one parameter replaced.
  float sorrel_tcf_swr_2dh_P(float x);
  float sorrel_tcf_swr_2dh_UVave(float x);
  float sorrel_tcf_swr_2dh_UVdif(float x);
  float sorrel_tcf_swr_2dh_A(float x);
  float score(float ps, float U, float V, float A);
  float score_puva(const PUVA& p) { return score(p.ps, p.U, p.V, p.A); }
  // The best of defA_seeds angles over 180 degrees at the U, V and phase shift of start.
  float sorrel_best_start_angle(const PUVA& start);

  // ---- EPA, resolution limit, B-factor ----
  void sorrel_epa_1d_ccf_B_estimation();
  // The shorter evaluation of the phase-shift search: the resolution limit of the current result.
  float sorrel_epa_1d_ccf_limit();
  void sorrel_refine_after_EPA();
  // |CTFsim| and the average of the subtracted spectrum (with_log: also the phase curve and the
  // average of the log sum) at the mean defocus d, to the host.
  void sorrel_epa_curves(float d, float resL, float resH, bool with_log);
  float sorrel_mean_defocus() const;
  float sorrel_bfac_estimation_from_epa_1d3();

  // ---- the random source ----
  float random_unit();

  // ---- state ----
  SORREL_Para para{};
  MRC_HEAD head0{}, head{}, head1{};  // first micrograph, current one, a single section
  int nx = 0, ny = 0, nz = 0;
  int box = 0, nh = 0, step = 0, ndef = 0, epa_n = 0;
  unsigned long n2dh = 0;  // nh * box

  // The current micrograph.
  int mic = -1;
  std::string name, name_log, name_ctf, name_pow, name_epa;
  FILE* log = nullptr;
  FILE* sumlog = nullptr;
  double t_start = 0.0;

  // Host arrays.
  std::vector<float> h_image, h_amp, h_log, h_sub, h_sub2, h_full, h_sim, h_out;
  std::vector<float> h_defocus, h_curve, h_scores;
  std::vector<float> h_epa_sub, h_epa_log, h_ctfsim, h_phase;
  // Device arrays.
  float *d_image = nullptr, *d_amp = nullptr, *d_log = nullptr, *d_sub = nullptr, *d_sub2 = nullptr;
  float *d_work = nullptr, *d_sim = nullptr, *d_full = nullptr;
  float *d_defocus = nullptr, *d_sims1d = nullptr, *d_curve = nullptr, *d_scores = nullptr;
  float *d_epa = nullptr, *d_ctfsim = nullptr;

  // Search state.
  float best_defocus = 0.0f;
  double search_seconds = 0.0;  // time in the 1D searches of this micrograph, for the TIME report
  float refined[5] = {0, 0, 0, 0, 0};  // U, V, angle, phase shift, CCC
  void sorrel_set_refined_PUVAC(const PUVAC& r) {
    refined[0] = r.U, refined[1] = r.V, refined[2] = r.A, refined[3] = r.ps, refined[4] = r.C;
  }
  PUVA ref_err{}, ref_init{}, current{};
  float defocus_err = 0.0f;
  PUVA vertices[5]{};
  float vertex_score[5]{};
  float score_bfac = 0.0f, score_resL = 0.0f, score_resH = 0.0f;
  float tol_angle = 0.5f, tol_defocus = 2.0f, tol_phase = 0.2f;
  int seed_angles = 0;
  int ref_UVave = 1, ref_UVdif = 1, ref_A = 1, ref_PS = 0, hres_pass = 0, local_pass = 0;
  int done_UVave = 0, done_UVdif = 0, done_A = 0, done_PS = 0;
  int warn = 1, echo_stdout = 1, echo_log = 1;
  float res_limit = 0.0f, b_factor = 0.0f;

  // Local refinement: the members strategy 1 uses while local_pass, the local sizes, the
  // particles of the current micrograph and their outputs.
  float local_result[5] = {0, 0, 0, 0, 0};  // U, V, angle, phase shift, score
  PUVA local_err{}, local_current{}, local_init{};
  int local_box = 0, local_nh = 0, local_step = 0, local_capacity = 0;
  unsigned long local_n2dh = 0;
  float local_radius = 0.0f;
  std::string name_boxf, name_local_star, name_local_ctf;
  std::vector<PTCL_BOX> particles, neighbours;
  std::vector<int2> tile_corners;
  std::vector<float> tile_distances, h_local_sub, h_local_sim, h_local_out;
  float *d_local_stack = nullptr, *d_local_dist = nullptr, *d_local_w = nullptr;
  float *d_local_sub = nullptr, *d_local_work = nullptr, *d_local_sim = nullptr;
  FILE* local_star = nullptr;
  FILE* local_ctf = nullptr;
  MRC_HEAD local_head{};

  // Read-ahead.
  SorrelDataQueue* queue = nullptr;
  SorrelReader reader;
};

// Seconds of the wall clock.
double sorrel_now();
// ">>>>>>TIME<<<<<<%64s: %fs\n" with the label and the seconds since start.
void sorrel_print_time(const char* label, double start);

// One step of the one-parameter search on the member score f; jitter is always 0.3.
void mspx_refine_lmm(SORREL_A* object, SorrelScore f, RF_MSPX_1D& step, float jitter);

// The end step's folds: the phase shift into -10 .. 170; the angle into -90 .. 90, and a
// negative result + 90 with U and V exchanged.
float sorrel_fold_phase_shift(float ps);
void sorrel_fold_angle(float& U, float& V, float& A);

// out[j] = sum over i of rows[j n + i] curve[i], in float, in order of i; one thread per row.
void hcuda_dot_manydata_with_one(const float* rows, const float* curve, unsigned n, float* out, unsigned count);
// The score: the product of model and spectrum summed over the half array.
float ctf_tcf_swr_2dh(float* work, const float* spectrum, float pixel_size, unsigned nh, unsigned ny, float ps,
                      float kv, float cs, float ac, float defU, float defV, float defA, float bfac, float resL,
                      float resH);
// The full image of the ".ctf" file from the simulated half (mirrored, left) and the data.
void cpu_2dh_ctf_sim_raw_combine(float* out, const float* sim, const float* data, int box);
