// The run parameters of pickora: one plain record filled from the command line, the values
// derived from it, the two parameter blocks every run prints, and the choice of the first
// readable micrograph.
//
// Calling order: pickora_init_parameters, pickora_get_parameters, pickora_fput_parameters,
// then check_access_openf_1st (through pickora_open_first_mic in the driver).
#pragma once

#include <cstdio>

struct Pickora_Para {
  char** files;  // micrograph names in command-line order; entries point at argv strings
  char* T;       // template stack, 1024-byte buffer; NULL/NONE means a generated template
  int dont_invertT;
  float apixM;  // micrograph pixel size, angstrom
  float apixT;  // template pixel size, angstrom
  float diameter;  // angstrom
  float min_dist;  // angstrom
  int boxsize;     // raw micrograph pixels
  int shrink;      // raw to work pixels, from speed
  int speed;
  float ang_step;  // degrees
  int update_T;
  float cc_cutoff;
  float lp;  // angstrom
  float hp;  // angstrom
  float pre_lp;
  float pre_hp;
  int T_norm_type;
  float m_edge_ratio;
  int do_bandpass;
  int mic_znorm;
  int mic_wm_norm;
  int do_ctf;
  int do_local_ctf;
  float kV;
  float cs;
  float ac;
  float lave_max;
  float lave_min;
  float lsigma_cutoff;
  float lsigma_D;  // angstrom
  float lave_D;    // angstrom
  int write_normed_T;
  int write_ccmax_mic;
  int write_ccmax_z;
  int do_pre_filter;
  int detect_ice;
  int write_pref_mic;
  int write_pf_mic;
  int write_bg_mic;
  int write_bgfree_mic;
  int write_lsigma_mic;
  int write_mic_mask;
  int do_unfinished;
  char* excluded_suffix;  // 1024-byte buffer
  int exclusive_picking;
  int mask_excluded;
  char* global_excluded_box;  // 1024-byte buffer
  int write_rejected_box;
  int write_star;
  int extract_raw;
  int extract_pf;
  int gid;
  int nfiles;
  float local_soft_edge;  // work pixels
  float T_radius_scale;
  int auto_T;
  float psi_start;  // degrees
  float psi_end;    // degrees, not itself reached
  float T_radius;       // work pixels
  float min_dist_px;    // work pixels
  float lsigma_radius;  // work pixels
  float lave_radius;    // work pixels
  char* first_mic;      // set by the driver; 1024-byte buffer of its own once set
};

// The keywords printed by pickora_print_valid_options; a reference for the user, not the
// parser's table.
constexpr int PICKORA_NOPTIONS = 38;
extern const char* const PICKORA_OPTIONS[PICKORA_NOPTIONS];

// Allocates files (room for argc entries) and the three 1024-byte strings, stores the
// initial values. Returns 0.
int pickora_init_parameters(int argc, Pickora_Para* para);
// Reads the command line, derives the dependent values, selects the GPU and prints the
// warnings for missing basic options. Returns 0 or ends the process.
int pickora_get_parameters(int argc, char** argv, Pickora_Para* para);
// Prints the user block, the block of all parameters in force and the file list. Returns 0.
int pickora_fput_parameters(int argc, char** argv, Pickora_Para* para, FILE* stream);
// Releases what pickora_init_parameters and the driver allocated. Returns 0.
int pickora_free_parameters(Pickora_Para* para);

// The derivation step of pickora_get_parameters on its own: min_dist, boxsize, lsigma_D and
// lave_D (each only when its option is absent, as the given_* arguments tell), auto_T and
// the four lengths in work pixels. Returns 0.
int pickora_derive_values(Pickora_Para* para, bool given_min_dist, bool given_boxsize, bool given_lsigma_D,
                          bool given_lave_D);

// speed 0..4 gives shrink 1, 2, 4, 6, 8; any other speed ends the run.
int pickora_speed2shrink(int& speed, int& shrink);
int pickora_print_valid_options();

// Walks the names in order, warns about missing or unreadable ones, opens the first readable
// one for reading into fp and copies its name into first (1024 bytes). Returns 0; ends the
// run when no name is readable or the name does not fit 1023 characters.
int check_access_openf_1st(char** files, int n, char* first, FILE*& fp);
// The driver's use of it: gives first_mic a 1024-byte buffer of its own, fills it through
// check_access_openf_1st and makes entry 0 of files point at it. Returns 0.
int pickora_open_first_mic(Pickora_Para* para, FILE*& fp);
