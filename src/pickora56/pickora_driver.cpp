// The picking driver. The run is three fixed sequences of named steps: preparation, the road
// of one micrograph (with an inner sequence per template), and closing. Each step carries its
// gate, so a module that brings a step adds one row to its table and nothing else moves.
#include "pickora56/pickora_driver.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "boxfile/box_filter.h"
#include "boxfile/extract_particles.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "image_filter/image_filter.h"
#include "math_utils/device_stats.h"
#include "pickora56/exclusion_mask.h"
#include "pickora56/grid_peaks.h"
#include "pickora56/matching.h"
#include "pickora56/ice_detect.h"
#include "pickora56/read_ahead.h"
#include "pickora56/template_norm.h"
#include "pickora56/templates.h"
#include "process2d_raw/meanshrink.h"
#include "math_utils/host_stats.h"
#include "pickora56/pickora_help.h"
#include "pickora56/pixel_check.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

// ---------------------------------------------------------------------------------------------
// Sizes, names, clocks.

int pickora_set_work_sizes(int nx, int ny, int shrink, Pickora_Sizes* sizes) {
  sizes->nx = nx;
  sizes->ny = ny;
  const int larger = nx > ny ? nx : ny;
  sizes->work_size = 2 * (larger / (2 * shrink));
  sizes->shrunk_nx = (nx / shrink) / 2 * 2;
  sizes->shrunk_ny = (ny / shrink) / 2 * 2;
  return 0;
}

int pickora_grid_step(float min_dist, int shrink, float apixM) {
  const float cell = 1.4142135f * min_dist;  // the diagonal of a cell is min_dist
  const float twice_pixel = (static_cast<float>(shrink) * apixM) * 2.0f;
  return static_cast<int>(cell / twice_pixel);
}

int pickora_set_grid_sizes(const Pickora_Para* para, Pickora_Sizes* sizes) {
  sizes->grid_step = pickora_grid_step(para->min_dist, para->shrink, para->apixM);
  if (sizes->grid_step <= 9) {
    std::printf("--min_dist %g angstrom gives peak-search cells of %d work pixels at --apixM %g and --speed %d; at "
                "least 10 are needed (without --min_dist it is 0.8 times --diameter)\n",
                static_cast<double>(para->min_dist), sizes->grid_step, static_cast<double>(para->apixM), para->speed);
    PK_FATAL("--min_dist too small! ");
  }
  sizes->grid_nx = (sizes->work_size + sizes->grid_step - 1) / sizes->grid_step;
  // The cells of the rim are never picked: with fewer than 3 across nothing could be.
  if (sizes->grid_nx < 3)
    PK_FATAL("--min_dist %g angstrom gives peak-search cells of %d work pixels, so the work image (%d pixels) has "
             "%d across; at least 3 are needed, since the rim cells are never picked: lower --min_dist or --diameter",
             static_cast<double>(para->min_dist), sizes->grid_step, sizes->work_size, sizes->grid_nx);
  sizes->grid_ny = sizes->grid_nx;  // the maps are square
  sizes->grid_cells = sizes->grid_nx * sizes->grid_ny;
  return 0;
}

int pickora_check_template_fits(int tnx, int tny, int work_size) {
  if (tnx > work_size || tny > work_size)
    PK_FATAL("the templates (%d x %d pixels after shrinking) are larger than the work image (%d x %d pixels); "
             "use a smaller --speed or smaller templates",
             tnx, tny, work_size, work_size);
  return 0;
}

void pickora_require_mrc_file(const char* name, const MRC_HEAD* head) {
  struct stat st;
  if (stat(name, &st) != 0) PK_FATAL("the micrograph %s can't be examined (%s)", name, std::strerror(errno));
  if (S_ISDIR(st.st_mode)) PK_FATAL("the micrograph %s is a folder, not an MRC file", name);
  if (!S_ISREG(st.st_mode)) PK_FATAL("the micrograph %s is not a regular file", name);
  const long long bytes = static_cast<long long>(st.st_size);
  if (bytes < static_cast<long long>(sizeof(MRC_HEAD)))
    PK_FATAL("the micrograph %s is %lld bytes long, shorter than the 1024-byte MRC head: not an MRC file", name, bytes);
  if (head == nullptr) return;
  const long long needed = static_cast<long long>(sizeof(MRC_HEAD)) + static_cast<long long>(head->nx) * head->ny *
                                                                          head->nz * mrc_sample_bytes(head->mode);
  if (bytes < needed)
    PK_FATAL("the micrograph %s is %lld bytes long, but its head (%d x %d pixels, %d slices, mode %d) needs %lld: "
             "the file is cut short or its head is damaged",
             name, bytes, head->nx, head->ny, head->nz, head->mode, needed);
}

int pickora_check_box_fits(int boxsize, int nx, int ny, const char* name) {
  if (boxsize >= nx || boxsize >= ny)
    PK_FATAL("the box of %d micrograph pixels (--boxsize, or 1.33 times --diameter over --apixM) is not smaller than "
             "the micrograph %s (%d x %d pixels): no box fits, nothing could be picked",
             boxsize, name, nx, ny);
  return 0;
}

// The mirror that fills the work image up to its square reaches at most once across the short
// side, so the rule holds in work pixels, after shrinking and rounding down to even sides.
int pickora_check_work_aspect(const Pickora_Sizes& sizes, int shrink, const char* name) {
  const int lo = std::min(sizes.shrunk_nx, sizes.shrunk_ny), hi = std::max(sizes.shrunk_nx, sizes.shrunk_ny);
  if (lo < 1 || hi >= 2 * lo)
    PK_FATAL("the micrograph %s (%d x %d pixels) shrinks by %d to %d x %d work pixels (each side divided by %d, then "
             "rounded down to even); the long side must be less than twice the short one in work pixels: crop the "
             "micrographs or choose another --speed",
             name, sizes.nx, sizes.ny, shrink, sizes.shrunk_nx, sizes.shrunk_ny, shrink);
  return 0;
}

int is_file_pickora_done(const char* name) { return access(name, F_OK) == 0 && access(name, R_OK) == 0 ? 1 : 0; }

bool pickora_mic_finished(const char* mic) {
  char box[PICKORA_NAME_LEN];
  mrcf_set_outname_by_suffix(box, mic, "_pickora.box");
  return is_file_pickora_done(box) != 0;
}

void set_name_shrinked_box(char* out, const char* name, int shrink) {
  (void)shrink;
  mrcf_set_outname_by_suffix(out, name, "_nonunique.box");
}

double pickora_now() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

void pickora_print_time(const char* label, double start) {
  std::printf(">>>>>>TIME<<<<<<%64s: %fs\n", label, pickora_now() - start);
  std::fflush(stdout);
}

namespace {

void print_rule(char c, int n) {
  for (int i = 0; i < n; ++i) std::putchar(c);
  std::putchar('\n');
}

template <class T>
T* host_alloc(size_t count, const PickoraRun& run) {
  T* p = static_cast<T*>(std::calloc(count > 0 ? count : 1, sizeof(T)));
  if (p == nullptr)
    PK_FATAL("out of host memory for %zu bytes, for the buffers of micrographs of %d x %d pixels like %s",
             count * sizeof(T), run.sizes.nx, run.sizes.ny, run.para.first_mic);
  return p;
}

size_t work_pixels(const PickoraRun& run) {
  return static_cast<size_t>(run.sizes.work_size) * static_cast<size_t>(run.sizes.work_size);
}

// ---------------------------------------------------------------------------------------------
// The step tables.

enum class StepOutcome { kNext, kSkipMicrograph };

using StepGate = bool (*)(const PickoraRun&);
using StepAction = StepOutcome (*)(PickoraRun&);

struct PickoraStep {
  int number;        // place in the road, for the reader and for messages
  const char* what;  // short name
  StepGate gate;     // nullptr: always
  StepAction run;
};

// A gate that is one flag of the record.
template <int Pickora_Para::*Flag>
bool flag_gate(const PickoraRun& run) {
  return run.para.*Flag != 0;
}

// A build made with -DPICKORA_STEP_TIMES=1 (bench/run.sh makes one) prints the wall time of
// every step on standard error, one line "pickora-step TABLE MIC STEP SECONDS WHAT", so that
// the benchmark can split the time lines finer. Standard output and the results stay as they are.
#ifndef PICKORA_STEP_TIMES
#define PICKORA_STEP_TIMES 0
#endif

StepOutcome run_step(const char* table, const PickoraStep& step, PickoraRun& run) {
  if (!PICKORA_STEP_TIMES) return step.run(run);
  const double start = pickora_now();
  const StepOutcome outcome = step.run(run);
  std::fprintf(stderr, "pickora-step %s %d %d %.6f %s\n", table, run.mic, step.number, pickora_now() - start,
               step.what);
  return outcome;
}

// Runs the steps of a table in order; stops early when a step skips the micrograph.
StepOutcome run_steps(const char* table, const PickoraStep* steps, int count, PickoraRun& run) {
  for (int k = 0; k < count; ++k) {
    const PickoraStep& step = steps[k];
    if (step.gate != nullptr && !step.gate(run)) continue;
    if (run_step(table, step, run) == StepOutcome::kSkipMicrograph) return StepOutcome::kSkipMicrograph;
  }
  return StepOutcome::kNext;
}

// --- Preparation -----------------------------------------------------------------------------

StepOutcome prep_select_device(PickoraRun& run) {
  PK_CUDA_CHECK(cudaSetDevice(run.para.gid));
  return StepOutcome::kNext;
}

StepOutcome prep_read_first_head(PickoraRun& run) {
  FILE* fp = nullptr;
  pickora_open_first_mic(&run.para, fp);
  mrc_read_head(fp, &run.first_head);
  std::fclose(fp);
  return StepOutcome::kNext;
}

StepOutcome prep_work_sizes(PickoraRun& run) {
  const MRC_HEAD& h = run.first_head;
  pickora_require_mrc_file(run.para.first_mic, nullptr);
  if (h.nx < 1 || h.ny < 1 || h.nz < 1)
    PK_FATAL("the micrograph %s has no usable size (nx %d, ny %d, nz %d)", run.para.first_mic, h.nx, h.ny, h.nz);
  // Every micrograph must share this head's mode, so one test covers the run: a mode the
  // reader can't turn into pixels would otherwise be picked as an empty image.
  if (mrc_sample_bytes(h.mode) == 0)
    PK_FATAL("the micrograph %s is in MRC mode %d (%s), which can't be read as pixels; modes 0, 1, 2 and 6 can",
             run.para.first_mic, h.mode, mrc_get_head_mode(&h));
  pickora_require_mrc_file(run.para.first_mic, &h);
  pickora_set_work_sizes(h.nx, h.ny, run.para.shrink, &run.sizes);
  run.sizes.nz = h.nz;
  pickora_check_box_fits(run.para.boxsize, h.nx, h.ny, run.para.first_mic);
  pickora_check_work_aspect(run.sizes, run.para.shrink, run.para.first_mic);
  if (run.sizes.work_size < 2)
    PK_FATAL("the micrograph %s (%d x %d pixels) is too small for a shrink factor of %d", run.para.first_mic, h.nx,
             h.ny, run.para.shrink);
  return StepOutcome::kNext;
}

// A generated template is round: one angle says everything.
StepOutcome prep_one_angle_for_generated_template(PickoraRun& run) {
  run.para.ang_step = 360.0f;
  return StepOutcome::kNext;
}

bool gate_auto_T(const PickoraRun& run) { return run.para.auto_T != 0; }

// The size the templates will have, from the stack's head alone, checked before the
// resampling allocates and computes it: a pixel-size ratio far from 1 could otherwise make a
// stack of gigabytes that the fit test then refuses.
void check_template_size_before_loading(const PickoraRun& run) {
  const Pickora_Para& p = run.para;
  MRC_HEAD head;
  mrcf_read_head(p.T, &head);
  const double ratio = static_cast<double>(p.apixT) / static_cast<double>(p.apixM);
  const double side = static_cast<double>(std::max(head.nx, head.ny)) * ratio / p.shrink;
  if (side > run.sizes.work_size)
    PK_FATAL("the templates of %s (%d x %d pixels at --apixT %g) would be about %.0f pixels wide after resampling to "
             "--apixM %g and shrinking by %d, larger than the work image (%d pixels); check --apixT and --apixM",
             p.T, head.nx, head.ny, static_cast<double>(p.apixT), side, static_cast<double>(p.apixM), p.shrink,
             run.sizes.work_size);
}

StepOutcome prep_load_templates(PickoraRun& run) {
  const Pickora_Para& p = run.para;
  if (!p.auto_T) check_template_size_before_loading(run);
  run.templates = get_or_create_template_data(run.tnx, run.tny, run.tnz, p.T, p.T_radius, p.apixT, p.apixM, p.shrink,
                                              p.m_edge_ratio);
  if (!p.auto_T) pickora_require_usable_templates(run.templates, run.tnx, run.tny, run.tnz, p.T);
  pickora_check_template_fits(run.tnx, run.tny, run.sizes.work_size);
  return StepOutcome::kNext;
}

size_t template_values(const PickoraRun& run) {
  return static_cast<size_t>(run.tnx) * static_cast<size_t>(run.tny) * static_cast<size_t>(run.tnz);
}

StepOutcome prep_normalise_templates(PickoraRun& run) {
  const Pickora_Para& p = run.para;
  safe_cudaMalloc(&run.d_templates, template_values(run) * sizeof(float));
  normalize_template_data(run.d_templates, run.templates, run.tnx, run.tny, run.tnz, p.T_norm_type, p.T_radius,
                          p.m_edge_ratio);
  run.template_area = pickora_template_area_term(p.T_norm_type, p.T_radius, p.m_edge_ratio);
  return StepOutcome::kNext;
}

StepOutcome prep_write_normed_templates(PickoraRun& run) {
  pickora_write_normed_templates(run.d_templates, run.tnx, run.tny, run.tnz);
  return StepOutcome::kNext;
}

bool gate_invert_templates(const PickoraRun& run) { return run.para.dont_invertT == 0; }

StepOutcome prep_invert_templates(PickoraRun& run) {
  pickora_invert_templates(run.d_templates, run.tnx, run.tny, run.tnz);
  return StepOutcome::kNext;
}

StepOutcome prep_allocate_image_buffers(PickoraRun& run) {
  const size_t raw = static_cast<size_t>(run.sizes.nx) * static_cast<size_t>(run.sizes.ny);
  const size_t work = work_pixels(run);
  run.raw = host_alloc<float>(raw, run);
  run.work = host_alloc<float>(work, run);
  safe_cudaMalloc(&run.d_work, work * sizeof(float));
  safe_cudaMalloc(&run.d_mask, work * sizeof(float));
  safe_cudaMalloc(&run.d_ccmax, work * sizeof(float));
  safe_cudaMalloc(&run.d_psi, work * sizeof(float));
  safe_cudaMalloc(&run.d_ccmaxZ, work * sizeof(float));
  run.ccmax_stack = host_alloc<float>(work * static_cast<size_t>(run.tnz), run);
  // Read now, so that a mistyped budget ends the run before any work rather than after it.
  run.match.budget_bytes = matching_spectra_budget();
  run.match.has_budget = true;
  return StepOutcome::kNext;
}

StepOutcome prep_grid(PickoraRun& run) {
  pickora_set_grid_sizes(&run.para, &run.sizes);
  const size_t cells = static_cast<size_t>(run.sizes.grid_cells);
  safe_cudaMalloc(&run.d_grid, cells * sizeof(unsigned));
  run.peak_index = host_alloc<unsigned>(cells, run);
  run.peak_cc = host_alloc<float>(cells, run);
  run.peak_psi = host_alloc<float>(cells, run);
  run.excluded = new PTCL_BOX[cells];
  return StepOutcome::kNext;
}

StepOutcome prep_print_time(PickoraRun& run) {
  pickora_print_time("PREPARATION", run.t_run);
  return StepOutcome::kNext;
}

const PickoraStep kPreparation[] = {
    {4, "select the device", nullptr, prep_select_device},
    {5, "first readable micrograph and its head", nullptr, prep_read_first_head},
    {6, "work_size, shrunk_nx, shrunk_ny", nullptr, prep_work_sizes},
    {7, "one angle for a generated template", gate_auto_T, prep_one_angle_for_generated_template},
    {8, "template stack", nullptr, prep_load_templates},
    {9, "image buffers", nullptr, prep_allocate_image_buffers},
    {10, "grid_step, grid cells and their buffers", nullptr, prep_grid},
    {11, "normalised templates on the device, area term", nullptr, prep_normalise_templates},
    {12, "pickora_normed_templates.mrcs", flag_gate<&Pickora_Para::write_normed_T>, prep_write_normed_templates},
    {13, "contrast inversion of the templates", gate_invert_templates, prep_invert_templates},
    {14, "PREPARATION time", nullptr, prep_print_time},
};

// --- One micrograph --------------------------------------------------------------------------

StepOutcome mic_start(PickoraRun& run) {
  run.t_step = pickora_now();
  std::putchar('\n');
  print_rule('-', 129);
  return StepOutcome::kNext;
}

StepOutcome mic_make_names(PickoraRun& run) {
  mrcf_set_outname_by_suffix(run.name_box, run.name, "_pickora.box");
  if (run.para.exclusive_picking)
    mrcf_set_outname_by_suffix(run.name_excluded, run.name, run.para.excluded_suffix);
  else
    strlcpy(run.name_excluded, "NULL");
  set_name_shrinked_box(run.name_candidates, run.name, run.para.shrink);
  mrcf_set_outname_by_suffix(run.name_star, run.name, "_pickora.star");
  return StepOutcome::kNext;
}

StepOutcome mic_skip_if_done(PickoraRun& run) {
  if (!pickora_mic_finished(run.name)) return StepOutcome::kNext;
  std::printf("Micrograph %s has already been processed. Automatically skipped.\n", run.name);
  return StepOutcome::kSkipMicrograph;
}

StepOutcome mic_open_candidates(PickoraRun& run) {
  // The micrograph is picked anew: an older .box would mark a half-done rerun as finished.
  if (std::remove(run.name_box) != 0 && errno != ENOENT)
    PK_FATAL("the older result %s can't be removed (%s)", run.name_box, std::strerror(errno));
  run.candidates.reset(new AtomicFile(run.name_candidates));  // replaces an older one when complete
  return StepOutcome::kNext;
}

StepOutcome mic_open_and_read_head(PickoraRun& run) {
  run.fp_mic = PK_FOPEN_READ_OR_EXIT(run.name);
  mrc_read_head(run.fp_mic, &run.head);
  return StepOutcome::kNext;
}

StepOutcome mic_check_head(PickoraRun& run) {
  pickora_require_mrc_file(run.name, nullptr);
  check_mrc_head_sizes_two(run.para.first_mic, run.name, &run.first_head, &run.head);
  pickora_require_mrc_file(run.name, &run.head);
  return StepOutcome::kNext;
}

StepOutcome mic_read_slice(PickoraRun& run) {
  std::printf("Reading File %s ...\n", run.name);
  mrc_read_slice(run.fp_mic, &run.head, 0, 'z', run.raw);
  return StepOutcome::kNext;
}

// A damaged or blank micrograph is said so and, where it can't be repaired, passed over: no
// result is written for it, and the run goes on with the next one.
StepOutcome mic_check_pixels(PickoraRun& run) {
  const size_t raw = static_cast<size_t>(run.sizes.nx) * static_cast<size_t>(run.sizes.ny);
  if (pickora_accept_micrograph_pixels(run.raw, raw, run.name)) return StepOutcome::kNext;
  std::fclose(run.fp_mic);
  run.fp_mic = nullptr;
  run.candidates.reset();
  ++run.skipped;
  return StepOutcome::kSkipMicrograph;
}

StepOutcome mic_read_excluded(PickoraRun& run) {
  run.excluded_count = 0;
  if (is_str_null(run.name_excluded)) return StepOutcome::kNext;
  if (check_file_access(run.name_excluded, "FR") != 0) {
    strlcpy(run.name_excluded, "NULL");
    return StepOutcome::kNext;
  }
  run.excluded_count = read_all_ptcl_boxes(run.excluded, run.sizes.grid_cells, run.name_excluded);
  std::printf("%8d particles in file %s excluded from auto-picking \n", run.excluded_count, run.name_excluded);
  return StepOutcome::kNext;
}

StepOutcome mic_reading_time(PickoraRun& run) {
  pickora_print_time("READING", run.t_step);
  run.t_step = pickora_now();
  std::printf("Normalizing the micrograph %s ...\n", run.name);
  return StepOutcome::kNext;
}

StepOutcome mic_shrink(PickoraRun& run) {
  cpu_2d_meanshrink_extended_even_square(run.work, run.raw, run.sizes.nx, run.sizes.ny, run.para.shrink);
  return StepOutcome::kNext;
}

StepOutcome mic_host_znorm(PickoraRun& run) {
  hm_normz_inplace(run.work, work_pixels(run), 1.0f, 0.0f);
  return StepOutcome::kNext;
}

StepOutcome mic_copy_work_to_device(PickoraRun& run) {
  PK_CUDA_CHECK(memcpy_H2D(run.d_work, run.work, work_pixels(run) * sizeof(float)));
  return StepOutcome::kNext;
}

// The diagnostic images are one work_size square slice, written from the device.
void write_work_map(const PickoraRun& run, const float* d_map, const char* suffix) {
  char name[1024];
  mrcf_set_outname_by_suffix(name, run.name, suffix);
  mrcf_write_xyz_ddata(name, d_map, run.sizes.work_size, run.sizes.work_size, 1);
}

float work_pixel_size(const PickoraRun& run) { return static_cast<float>(run.para.shrink) * run.para.apixM; }

// The pre-filter's low-pass sits at the work image's Nyquist limit.
StepOutcome mic_pre_filter(PickoraRun& run) {
  const float s = static_cast<float>(run.para.shrink);
  hcuda_2d_bandpass_softR_mpad_inplace(run.d_work, run.sizes.work_size, run.para.apixM * s,
                                       s * (2.0f * run.para.apixM), run.para.pre_hp, 8.0f);
  return StepOutcome::kNext;
}

StepOutcome mic_write_pref(PickoraRun& run) {
  write_work_map(run, run.d_work, "_pref.mrc");
  return StepOutcome::kNext;
}

StepOutcome mic_device_znorm(PickoraRun& run) {
  hcuda_znorm_inplace(run.d_work, work_pixels(run), 1.0f, 0.0f);
  return StepOutcome::kNext;
}

StepOutcome mic_detect_ice(PickoraRun& run) {
  hcuda_2d_ice_detect(&run.local_maps, run.d_work, run.sizes.work_size, run.sizes.work_size, make_int2(0, 0),
                      run.d_grid, run.name, &run.para);
  return StepOutcome::kNext;
}

StepOutcome mic_add_exclusions(PickoraRun& run) {
  pickora_add_exclusions_to_grid(run.d_grid, run.sizes.work_size, run.sizes.work_size, run.sizes.grid_step,
                                 run.excluded, run.excluded_count, &run.para);
  return StepOutcome::kNext;
}

StepOutcome mic_bandpass(PickoraRun& run) {
  hcuda_2d_bandpass_guas_mpad_inplace(run.d_work, run.sizes.work_size, work_pixel_size(run), run.para.lp,
                                      run.para.hp);
  return StepOutcome::kNext;
}

StepOutcome mic_make_mask(PickoraRun& run) {
  hcuda_2d_generate_mask_by_coords(run.d_mask, run.d_work, run.sizes.work_size, run.sizes.work_size,
                                   run.sizes.grid_step, run.d_grid, 0);
  return StepOutcome::kNext;
}

StepOutcome mic_write_mask(PickoraRun& run) {
  write_work_map(run, run.d_mask, "_mask.mrc");
  return StepOutcome::kNext;
}

StepOutcome mic_masked_norm(PickoraRun& run) {
  hcuda_norm_withmask_inplace(run.d_work, run.d_mask, work_pixels(run), 1.0f, 0.0f);
  return StepOutcome::kNext;
}

StepOutcome mic_write_bgfree(PickoraRun& run) {
  write_work_map(run, run.d_work, "_bgfree.mrc");
  return StepOutcome::kNext;
}

bool gate_exclusions(const PickoraRun& run) {
  return (run.para.mask_excluded && run.excluded_count > 0) || !is_str_null(run.para.global_excluded_box);
}

StepOutcome mic_clear_grid(PickoraRun& run) {
  hcuda_empty(run.d_grid, static_cast<size_t>(run.sizes.grid_cells) * sizeof(unsigned));
  return StepOutcome::kNext;
}

StepOutcome mic_normalization_time(PickoraRun& run) {
  pickora_print_time("NORMALIZATION", run.t_step);
  run.t_picking = pickora_now();
  hcuda_memset_f32(run.d_ccmaxZ, -INFINITY, work_pixels(run));
  return StepOutcome::kNext;
}

// Steps 1 to 26: from the names to the image that enters matching.
const PickoraStep kMicrograph[] = {
    {1, "clock and rule", nullptr, mic_start},
    {2, "output names", nullptr, mic_make_names},
    {3, "skip a finished micrograph", flag_gate<&Pickora_Para::do_unfinished>, mic_skip_if_done},
    {4, "open the candidate file", nullptr, mic_open_candidates},
    {5, "open the micrograph, read its head", nullptr, mic_open_and_read_head},
    {6, "compare with the first head", nullptr, mic_check_head},
    {7, "read slice 0", nullptr, mic_read_slice},
    {7, "damaged or blank pixels", nullptr, mic_check_pixels},
    {8, "exclude file", nullptr, mic_read_excluded},
    {9, "READING time", nullptr, mic_reading_time},
    {10, "shrink to the even square work image", nullptr, mic_shrink},
    {11, "normalise on the host", flag_gate<&Pickora_Para::mic_znorm>, mic_host_znorm},
    {12, "work image to the device", nullptr, mic_copy_work_to_device},
    {13, "pre-filter", flag_gate<&Pickora_Para::do_pre_filter>, mic_pre_filter},
    {14, "_pref.mrc", flag_gate<&Pickora_Para::write_pref_mic>, mic_write_pref},
    {15, "normalise on the device", flag_gate<&Pickora_Para::mic_znorm>, mic_device_znorm},
    {16, "clear the exclusion grid", nullptr, mic_clear_grid},
    {17, "ice and contamination", flag_gate<&Pickora_Para::detect_ice>, mic_detect_ice},
    {18, "excluded coordinates, per micrograph and global", gate_exclusions, mic_add_exclusions},
    {20, "band-pass", flag_gate<&Pickora_Para::do_bandpass>, mic_bandpass},
    {21, "normalise again", flag_gate<&Pickora_Para::mic_znorm>, mic_device_znorm},
    {22, "picking mask", nullptr, mic_make_mask},
    {23, "_mask.mrc", flag_gate<&Pickora_Para::write_mic_mask>, mic_write_mask},
    {24, "normalise under the mask", flag_gate<&Pickora_Para::mic_wm_norm>, mic_masked_norm},
    {25, "_bgfree.mrc", flag_gate<&Pickora_Para::write_bgfree_mic>, mic_write_bgfree},
    {26, "NORMALIZATION time, ccmaxZ cleared", nullptr, mic_normalization_time},
};

// --- One template ----------------------------------------------------------------------------

StepOutcome tmpl_match(PickoraRun& run) {
  std::printf("Template %03d\n", run.t + 1);
  const size_t slice = static_cast<size_t>(run.tnx) * static_cast<size_t>(run.tny);
  pickora_ccmax_psi_by_one_template(&run.match, run.d_work, run.d_mask, run.d_ccmax, run.d_psi, 1, run.sizes.work_size,
                                    run.sizes.work_size, run.d_templates + slice * run.t, run.tnx, run.tny,
                                    run.template_area, run.para.psi_start, run.para.psi_end, run.para.ang_step);
  return StepOutcome::kNext;
}

StepOutcome tmpl_find_peaks(PickoraRun& run) {
  gpu_find_filter_ccmax_psi_grids_exclusive(run.d_ccmax, run.d_psi, run.peak_index, run.peak_cc, run.peak_psi,
                                            run.para.cc_cutoff, run.sizes.work_size, run.sizes.work_size,
                                            run.sizes.grid_step, run.d_grid,
                                            static_cast<unsigned>(run.sizes.grid_cells));
  return StepOutcome::kNext;
}

StepOutcome tmpl_write_candidates(PickoraRun& run) {
  output_pickora_coord_one_temp(run.candidates->stream(), run.peak_index, run.peak_cc, run.peak_psi, run.t,
                                run.sizes.grid_cells, run.sizes.work_size, run.sizes.work_size,
                                run.para.boxsize / run.para.shrink);
  return StepOutcome::kNext;
}

StepOutcome tmpl_raise_ccmaxZ(PickoraRun& run) {
  hcuda_update_ccmax_2d(run.d_ccmaxZ, run.d_ccmax, run.sizes.work_size, run.sizes.work_size);
  return StepOutcome::kNext;
}

StepOutcome tmpl_keep_ccmax(PickoraRun& run) {
  PK_CUDA_CHECK(memcpy_D2H(run.ccmax_stack + work_pixels(run) * run.t, run.d_ccmax, work_pixels(run) * sizeof(float)));
  return StepOutcome::kNext;
}

const PickoraStep kPerTemplate[] = {
    {27, "rotational matching", nullptr, tmpl_match},
    {28, "grid peak search", nullptr, tmpl_find_peaks},
    {29, "candidates of this template", nullptr, tmpl_write_candidates},
    {30, "ccmaxZ", flag_gate<&Pickora_Para::write_ccmax_z>, tmpl_raise_ccmaxZ},
    {31, "ccmax map into the correlation stack", flag_gate<&Pickora_Para::write_ccmax_mic>, tmpl_keep_ccmax},
};

StepOutcome mic_close_micrograph(PickoraRun& run) {
  std::fclose(run.fp_mic);
  run.fp_mic = nullptr;
  return StepOutcome::kNext;
}

StepOutcome mic_close_candidates(PickoraRun& run) {
  run.candidates->commit();  // box_filter reads it back by name
  run.candidates.reset();
  return StepOutcome::kNext;
}

void filter_candidates(const PickoraRun& run, const char* output, int mode) {
  box_filter(run.sizes.shrunk_nx, run.sizes.shrunk_ny, run.para.min_dist_px, run.para.cc_cutoff,
             static_cast<float>(run.para.shrink), run.para.boxsize, run.para.boxsize, make_int2(0, 0),
             run.name_candidates, run.name_excluded, output, mode);
}

// The .box file is written under its temporary name; the extraction reads it there, and it
// takes its final name last (mic_commit_box).
StepOutcome mic_box_filter(PickoraRun& run) {
  run.box_staged.reset(new StagedName(run.name_box));
  filter_candidates(run, run.box_staged->temp_name(), BOX_FILTER_BOX);
  return StepOutcome::kNext;
}

StepOutcome mic_commit_box(PickoraRun& run) {
  run.box_staged->commit();
  run.box_staged.reset();
  return StepOutcome::kNext;
}

StepOutcome mic_star_filter(PickoraRun& run) {
  filter_candidates(run, run.name_star, BOX_FILTER_STAR);
  return StepOutcome::kNext;
}

StepOutcome mic_extract(PickoraRun& run) {
  mrcf_2d_extract_ptcls_from_micrograph(run.name, run.box_staged->temp_name(), run.para.boxsize, 0);
  return StepOutcome::kNext;
}

StepOutcome mic_finished(PickoraRun& run) {
  std::printf("File %s finished.\n", run.name);
  pickora_print_time("PICKING", run.t_picking);
  return StepOutcome::kNext;
}

StepOutcome mic_write_ccmaxZ(PickoraRun& run) {
  write_work_map(run, run.d_ccmaxZ, "_ccmaxZ.mrc");
  return StepOutcome::kNext;
}

StepOutcome mic_write_ccmax_stack(PickoraRun& run) {
  char name[1024];
  mrcf_set_outname_by_suffix(name, run.name, "_ccmax.mrc");
  mrcf_write_xyz_data(name, run.ccmax_stack, run.sizes.work_size, run.sizes.work_size, run.tnz);
  return StepOutcome::kNext;
}

// Steps 32 to 39, after the last template.
const PickoraStep kAfterTemplates[] = {
    {32, "_ccmaxZ.mrc", flag_gate<&Pickora_Para::write_ccmax_z>, mic_write_ccmaxZ},
    {33, "_ccmax.mrc", flag_gate<&Pickora_Para::write_ccmax_mic>, mic_write_ccmax_stack},
    {34, "close the micrograph", nullptr, mic_close_micrograph},
    {35, "close the candidate file", nullptr, mic_close_candidates},
    {36, "box filter into the final .box file", nullptr, mic_box_filter},
    {37, "box filter into the final .star file", flag_gate<&Pickora_Para::write_star>, mic_star_filter},
    {38, "particle stack", flag_gate<&Pickora_Para::extract_raw>, mic_extract},
    {38, "the final .box file takes its name: the micrograph is finished", nullptr, mic_commit_box},
    {39, "finished line and PICKING time", nullptr, mic_finished},
};

template <size_t N>
constexpr int count_of(const PickoraStep (&)[N]) {
  return static_cast<int>(N);
}

// Brings the next micrograph that will be picked into memory while this one is matched.
void read_ahead_next(PickoraRun& run) {
  if (!read_ahead_enabled()) return;
  for (int next = run.mic + 1; next < run.para.nfiles; ++next) {
    if (run.para.do_unfinished != 0 && pickora_mic_finished(run.para.files[next])) continue;  // the skip step's test
    run.read_ahead.start(run.para.files[next]);
    return;
  }
}

void process_micrograph(PickoraRun& run, int mic) {
  run.mic = mic;
  run.name = run.para.files[mic];
  run.read_ahead.finish();  // whatever it has not read yet, the reading step reads
  run.candidates.reset();   // an unfinished micrograph before leaves nothing behind
  run.box_staged.reset();
  if (run_steps("micrograph", kMicrograph, count_of(kMicrograph), run) == StepOutcome::kSkipMicrograph) return;
  read_ahead_next(run);
  // Template spectra pay only when a later micrograph reads them.
  run.match.make_kept = mic + 1 < run.para.nfiles;
  for (run.t = 0; run.t < run.tnz; ++run.t) run_steps("template", kPerTemplate, count_of(kPerTemplate), run);
  run_steps("after", kAfterTemplates, count_of(kAfterTemplates), run);
}

// --- Closing ---------------------------------------------------------------------------------

// Frees every buffer of the run and leaves its pointer null, so that it can run twice: once at
// the end of a finished run and again from the record's destructor, which is all that runs
// when an error unwinds out of the run.
template <class T>
void free_host(T*& p) {
  std::free(p);
  p = nullptr;
}

void release_buffers(PickoraRun& run) {
  run.read_ahead.finish();
  run.candidates.reset();
  run.box_staged.reset();
  if (run.fp_mic != nullptr) std::fclose(run.fp_mic);
  run.fp_mic = nullptr;
  free_host(run.raw);
  free_host(run.work);
  free_host(run.peak_index);
  free_host(run.peak_cc);
  free_host(run.peak_psi);
  delete[] run.excluded;
  run.excluded = nullptr;
  destroy_template_data(run.templates);
  run.templates = nullptr;
  match_workspace_release(&run.match);
  local_maps_workspace_release(&run.local_maps);
  free_host(run.ccmax_stack);
  for (float** d : {&run.d_work, &run.d_mask, &run.d_ccmax, &run.d_psi, &run.d_ccmaxZ, &run.d_templates})
    safe_cudaFree(*d);
  safe_cudaFree(run.d_grid);
}

void print_closing(const PickoraRun& run) {
  print_rule('#', 129);
  std::printf("All %d files finished successfully:\n", run.para.nfiles);
  if (run.skipped > 0)
    PK_WARNING("%d of the %d micrographs were skipped as damaged or blank (see the warnings above) and have no "
               "results",
               run.skipped, run.para.nfiles);
  pickora_print_time("TOTAL", run.t_run);
  print_rule('#', 129);
  std::putchar('\n');
  std::fflush(stdout);
  pickora_put_one_random_tip();
}

}  // namespace

PickoraRun::~PickoraRun() {
  try {
    release_buffers(*this);
  } catch (const pickora::FatalError&) {  // already unwinding from a report: the first one stands
  }
  pickora_free_parameters(&para);
}

int pickora_main(int argc, char** argv) {
  const double t_run = pickora_now();
  if (argc < 2) {
    pickora_help(argv[0]);
    return 0;
  }
  if (is_keywd_help(argv[1])) {
    pickora_help_full(argv[0]);
    return 0;
  }
  // Large (the name buffers and two heads); owned here so that an error that unwinds removes
  // the unfinished outputs of the current micrograph.
  std::unique_ptr<PickoraRun> run(new PickoraRun{});
  run->t_run = t_run;
  run->argc = argc;
  run->argv = argv;
  pickora_init_parameters(argc, &run->para);
  pickora_get_parameters(argc, argv, &run->para);
  pickora_fput_parameters(argc, argv, &run->para, stdout);

  run_steps("preparation", kPreparation, count_of(kPreparation), *run);
  for (int mic = 0; mic < run->para.nfiles; ++mic) process_micrograph(*run, mic);

  release_buffers(*run);
  print_closing(*run);
  return 0;
}
