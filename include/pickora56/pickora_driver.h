// The picking driver: the run-wide sizes fixed by the first micrograph, the output names, the
// timers, and the run itself as fixed tables of named steps with their gates.
#pragma once

#include <cstdio>
#include <memory>

#include "boxfile/ptcl_box.h"
#include "mrcfile/mrcfile.h"
#include "pickora56/matching.h"
#include "pickora56/pickora_para.h"
#include "pickora56/read_ahead.h"
#include "process2d_raw/local_stats.h"
#include "txt_file/atomic_file.h"

// Sizes of the whole run; 32-bit signed, integer divisions truncate.
struct Pickora_Sizes {
  int nx, ny, nz;  // of the first readable micrograph
  int work_size;   // side of the even square work image and of every correlation map
  int shrunk_nx, shrunk_ny;  // real area of the work image, each rounded down to even
  int grid_step, grid_nx, grid_ny, grid_cells;  // peak-search cells
};

// work_size, shrunk_nx and shrunk_ny from the micrograph size and the shrink factor. Returns 0.
int pickora_set_work_sizes(int nx, int ny, int shrink, Pickora_Sizes* sizes);
// Cell side of the peak search: trunc((1.4142135 min_dist) / (2 shrink apixM)), in float.
int pickora_grid_step(float min_dist, int shrink, float apixM);
// grid_step, grid_nx, grid_ny and grid_cells; a grid_step of 9 or less ends the run. Returns 0.
int pickora_set_grid_sizes(const Pickora_Para* para, Pickora_Sizes* sizes);
// The matching needs every template inside the work image: ends the run, naming both sizes,
// when tnx or tny exceeds work_size. Returns 0.
int pickora_check_template_fits(int tnx, int tny, int work_size);

// Ends the run, naming the micrograph and the cause, when it is a folder or no regular file,
// is shorter than an MRC head, or (with its head) is shorter than the data the head promises.
void pickora_require_mrc_file(const char* name, const MRC_HEAD* head);
// Ends the run when a box of boxsize pixels can't fit in an nx by ny micrograph. Returns 0.
int pickora_check_box_fits(int boxsize, int nx, int ny, const char* name);

// Ends the run, with the micrograph's sizes and its work sizes, unless the longer work side
// (shrunk_nx or shrunk_ny) is less than twice the shorter one. Returns 0.
int pickora_check_work_aspect(const Pickora_Sizes& sizes, int shrink, const char* name);

// 1 when the file exists and can be read, else 0.
int is_file_pickora_done(const char* name);
// Whether a micrograph counts as finished for --do_unfinished: its final .box file exists.
// The .box file is renamed into place after every other output of the micrograph is
// complete, so it stands for all of them.
bool pickora_mic_finished(const char* mic);
// Clears the 1024-byte out and writes name, less ".mrc" or ".mrcs", plus "_nonunique.box".
// The shrink factor is not part of the name.
void set_name_shrinked_box(char* out, const char* name, int shrink);

// Wall-clock seconds (gettimeofday) in double precision.
double pickora_now();
// ">>>>>>TIME<<<<<<%64s: %fs\n" with the label and the seconds since start.
void pickora_print_time(const char* label, double start);

// What one run holds: the record, the heads, the sizes, the names and streams of the current
// micrograph, the long-lived buffers and the clocks. The driver owns all of it.
struct PickoraRun {
  ~PickoraRun();  // frees whatever is still held, on the way out of an error too
  int argc;
  char** argv;
  Pickora_Para para;
  MRC_HEAD first_head;
  MRC_HEAD head;
  Pickora_Sizes sizes;
  int tnx, tny, tnz;  // template stack; tnz stays 0 until templates are prepared
  int t;              // current template, from 0, in the per-template steps

  // The current micrograph.
  int mic;           // index in para.files
  const char* name;  // para.files[mic]
  char name_box[1024];
  char name_excluded[1024];
  char name_candidates[1024];
  char name_star[1024];
  FILE* fp_mic;
  std::unique_ptr<AtomicFile> candidates;  // the candidate file while the templates add to it
  std::unique_ptr<StagedName> box_staged;  // the final .box, renamed last: the finished mark

  // Long-lived buffers, allocated once from the first head's sizes.
  float* raw;     // host, nx * ny: slice 0 of the current micrograph
  float* work;    // host, work_size^2
  float* d_work;  // device, work_size^2: changed in place by every filter
  float* d_mask;  // device, work_size^2: picking mask
  float* d_ccmax;
  float* d_psi;
  float* d_ccmaxZ;
  unsigned* d_grid;  // device, grid_cells: exclusion grid
  PTCL_BOX* excluded;  // host, grid_cells: boxes of the current exclude file
  int excluded_count;
  int skipped;  // micrographs passed over as damaged or blank
  unsigned* peak_index;  // host, grid_cells each: one peak search
  float* peak_cc;
  float* peak_psi;
  float* templates;     // host, tnx * tny * tnz: as loaded, before normalisation
  float* d_templates;   // device, tnx * tny * tnz: normalised (and inverted) for matching
  float template_area;  // area term of the correlation scaling
  float* ccmax_stack;   // host, tnz * work_size^2: one ccmax map per template (write_ccmax_mic)
  MatchWorkspace match;  // plans and scratch of the matching, kept for the whole run
  ReadAhead read_ahead;  // the next micrograph, read while this one is matched
  LocalMapsWorkspace local_maps;  // scratch and discs of the ice detection, kept for the run

  double t_run;  // start of the run
  double t_step;  // start of the current timed span
  double t_picking;
};

// The whole program: help paths, parameters, preparation, the micrograph loop, closing.
// Returns the exit status of a finished run (0); a failure throws pickora::FatalError, which
// the caller's `main` turns into the exit status.
int pickora_main(int argc, char** argv);
