// The options of the CTF run: one record with a field per keyword, the defaults, the parser,
// the rules that derive one option from another, and the repair table that turns a bad value
// into a usable one with a warning.
//
// Calling order: sorrel_init_parameters, sorrel_get_parameters (which applies the derived rules
// and calls sorrel_check_parameters). Nothing here ends the process on its own account except
// through the fatal report; a stop that is not a failure (an unknown option, no input file) is
// returned to the caller as a value, so that the command's main decides the exit status.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Start values of one input: valid, then kv, cs, ac, ps, defU, defV, defA, bfac. valid is 0
// when defU or defV is 0 (the search then runs from its default start).
struct CTF_INIT {
  float valid;
  float kv, cs, ac, ps, defU, defV, defA, bfac;
};

constexpr int SORREL_NAME_LEN = 1024;

// Bounds that keep a search finite and its memory small, whatever the command line says.
constexpr int SORREL_MAX_DEFOCUS_COUNT = 4096;  // defocus values of the 1D search
constexpr int SORREL_MAX_DEFA_SEEDS = 180;      // angles scanned per angle step (1 degree apart)
constexpr int SORREL_MAX_EPA_OVERSMP = 32;      // oversampling of the equiphase average

struct SORREL_Para {
  // General.
  float apix, kV, cs, ac, dstep;
  // Phase shift.
  float phase_shift_L, phase_shift_H, phase_shift_S;
  int phase_shift_T, only_search_ps, cosearch_refine_ps;
  // Search.
  float bfac, defL, defH, defS, astm, resL, resH;
  int boxsize, convsize, convs_out;
  float overlap;
  int refine_2d_T, defA_seeds;
  float smooth_resL;
  // Validation, EPA.
  int do_validation, do_basic_rotave, do_EPA, EPA_oversmp, EPA_bg_pn;
  float EPA_resL, EPA_resH, ncc_frac_max, ncc_frac_min;
  int refine_after_EPA;
  // High-resolution refinement.
  int do_Hres_ref;
  float Href_resL, Href_resH, Href_bfac, Href_PS_err, Href_U_err, Href_V_err, Href_A_err;
  // B-factor and resolution limit.
  int estimate_B;
  float B_resL, B_resH, res_lim_cc, res_lim_L;
  // Movies.
  int do_mdef_refine, mdef_aveN, mdef_fit, mdef_ave_type;
  // Local refinement.
  int do_local_refine, refine_local_astm, refine_local_ps;
  float local_bfac, local_resL, local_resH, local_PS_err, local_U_err, local_V_err, local_A_err, local_radius;
  int local_boxsize;
  float local_overlap;
  int local_boxtype, local_areatype, local_avetype, local_autogrid_X, local_autogrid_Y;
  char boxsuffix[SORREL_NAME_LEN];
  // Tilt.
  int refine_tilt;
  float init_tilt_ang, init_tilt_err;
  // Input values.
  int refine_input_ctf;
  float ps_init, defU_init, defV_init, defA_init, B_init, ps_err, defU_err, defV_err, defA_err, B_err;
  char input_ctfstar[SORREL_NAME_LEN];
  // Output.
  float ctfout_resL, ctfout_resH, ctfout_bfac;
  char ctfstar[SORREL_NAME_LEN];
  char logsuffix[SORREL_NAME_LEN];
  int write_local_ctf, output_time, plot_res_ring, do_phase_flip;
  // Queue and control.
  int pre_read, dp_maxN_q, dp_silent, do_unfinished, reload_ctf_files, skip_check_mrc, skip_check_gpu, gid;

  // Derived: phase-shift mode is on (rule 3 of the derived rules, off again by refine_input_ctf).
  int phase_shift_mode;
  // The inputs in command-line order, each with its start values.
  std::vector<std::string> files;
  std::vector<CTF_INIT> init;
  // Which options stood on the command line, by index in the option table.
  std::vector<char> given;
};

// Number of keywords in the option table (the order of the parser).
int sorrel_option_count();
// The keyword of table entry k.
const char* sorrel_option_name(int k);
// 1 if the option named by its exact keyword stood on the command line, else 0. An unknown
// keyword is a programming error and fatal.
int sorrel_option_given(const SORREL_Para* para, const char* keyword);

// The defaults. Returns 0.
int sorrel_init_parameters(SORREL_Para* para);

// What the parse tells its caller.
enum SorrelParse {
  SORREL_PARSE_OK = 0,        // go on with the run
  SORREL_PARSE_STOP_OK = 1,   // an unknown option: the valid list was printed; exit status 0
  SORREL_PARSE_NO_INPUT = 2,  // no input file: the usage text was printed; exit status 1
};

// Reads the command line into the record, applies the derived rules and the checks; with
// check_gpu the device given by gid is selected (unless skip_check_gpu). A value keyword as the
// last argument, a float value that is not a finite number and an unreadable input_ctfstar are
// fatal.
SorrelParse sorrel_get_parameters(int argc, char** argv, SORREL_Para* para, bool check_gpu = true);

// The derived rules, in their order, on a record whose given flags are set. Returns 0.
int sorrel_apply_derived_rules(SORREL_Para* para);
// The repair table and the guards against values that would make a search endless, huge or
// undefined. Prints the warnings to standard output. Returns 0.
int sorrel_check_parameters(SORREL_Para* para);

// The usage text; name is argv[0].
void sorrel_help(const char* name);
// "All valid options:" between two lines of dashes, each keyword written "--%s\t ".
void sorrel_print_valid_options();
// "User input parameters:" with every option given on the command line and its value in force,
// then the input files.
void sorrel_put_parameters(const SORREL_Para* para);
// The parameter report at the top of a micrograph's log.
void sorrel_fput_parameters(FILE* fp, const SORREL_Para* para);
// The block in the layout a RELION import of older CTF logs reads.
void sorrel_fput_parameters_ctffind3_like(FILE* fp, const SORREL_Para* para);

// Number of defocus values of the 1D search: trunc((defH - defL) / defS) in float.
int sorrel_defocus_count(const SORREL_Para* para);

extern const char sorrel_version[];
extern const char sorrel_updated_date[];
