// The options of the CTF run: table, defaults, parser, derived rules and repairs.
#include "ctf/sorrel_para.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "ctf/sorrel_files.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "txt_file/arrays_strings.h"

const char sorrel_version[] = "v1.0";
const char sorrel_updated_date[] = "2026-11-24";

namespace {

enum class Kind { kFloat, kInt, kBool, kText };

// One keyword: where its value lives and how the log prints it.
struct Option {
  const char* name;
  Kind kind;
  float SORREL_Para::*f;
  int SORREL_Para::*i;
  char (SORREL_Para::*s)[SORREL_NAME_LEN];
  const char* conv;  // conversion of the value in the log head
};

constexpr Option F(const char* n, float SORREL_Para::*f, const char* conv = "%.2f") {
  return {n, Kind::kFloat, f, nullptr, nullptr, conv};
}
constexpr Option I(const char* n, int SORREL_Para::*i) { return {n, Kind::kInt, nullptr, i, nullptr, "%d"}; }
constexpr Option B(const char* n, int SORREL_Para::*i) { return {n, Kind::kBool, nullptr, i, nullptr, "%d"}; }
constexpr Option T(const char* n, char (SORREL_Para::*s)[SORREL_NAME_LEN]) {
  return {n, Kind::kText, nullptr, nullptr, s, "%s"};
}

using S = SORREL_Para;

// The keywords in the order of the parser (and of the valid-options list).
const Option kOptions[] = {
    F("apix", &S::apix, "%.3f"), F("kV", &S::kV), F("cs", &S::cs), F("ac", &S::ac), F("dstep", &S::dstep, "%.3f"),
    F("phase_shift_L", &S::phase_shift_L), F("phase_shift_H", &S::phase_shift_H),
    F("phase_shift_S", &S::phase_shift_S), I("phase_shift_T", &S::phase_shift_T),
    B("only_search_ps", &S::only_search_ps), B("cosearch_refine_ps", &S::cosearch_refine_ps),
    F("bfac", &S::bfac), F("defL", &S::defL), F("defH", &S::defH), F("defS", &S::defS), F("astm", &S::astm),
    F("resL", &S::resL), F("resH", &S::resH), I("boxsize", &S::boxsize), I("convsize", &S::convsize),
    I("convs_out", &S::convs_out), F("overlap", &S::overlap), I("refine_2d_T", &S::refine_2d_T),
    I("defA_seeds", &S::defA_seeds), F("smooth_resL", &S::smooth_resL),
    B("do_validation", &S::do_validation), B("do_basic_rotave", &S::do_basic_rotave), B("do_EPA", &S::do_EPA),
    I("EPA_oversmp", &S::EPA_oversmp), I("EPA_bg_pn", &S::EPA_bg_pn), F("EPA_resL", &S::EPA_resL),
    F("EPA_resH", &S::EPA_resH), F("ncc_frac_max", &S::ncc_frac_max), F("ncc_frac_min", &S::ncc_frac_min),
    B("refine_after_EPA", &S::refine_after_EPA),
    B("do_Hres_ref", &S::do_Hres_ref), F("Href_resL", &S::Href_resL), F("Href_resH", &S::Href_resH),
    F("Href_bfac", &S::Href_bfac), F("Href_PS_err", &S::Href_PS_err), F("Href_U_err", &S::Href_U_err),
    F("Href_V_err", &S::Href_V_err), F("Href_A_err", &S::Href_A_err),
    B("estimate_B", &S::estimate_B), F("B_resL", &S::B_resL), F("B_resH", &S::B_resH),
    F("res_lim_cc", &S::res_lim_cc), F("res_lim_L", &S::res_lim_L),
    B("do_mdef_refine", &S::do_mdef_refine), I("mdef_aveN", &S::mdef_aveN), I("mdef_fit", &S::mdef_fit),
    I("mdef_ave_type", &S::mdef_ave_type),
    B("do_local_refine", &S::do_local_refine), B("refine_local_astm", &S::refine_local_astm),
    B("refine_local_ps", &S::refine_local_ps), F("local_bfac", &S::local_bfac), F("local_resL", &S::local_resL),
    F("local_resH", &S::local_resH), F("local_PS_err", &S::local_PS_err), F("local_U_err", &S::local_U_err),
    F("local_V_err", &S::local_V_err), F("local_A_err", &S::local_A_err), F("local_radius", &S::local_radius),
    I("local_boxsize", &S::local_boxsize), F("local_overlap", &S::local_overlap),
    I("local_boxtype", &S::local_boxtype), I("local_areatype", &S::local_areatype),
    I("local_avetype", &S::local_avetype), I("local_autogrid_X", &S::local_autogrid_X),
    I("local_autogrid_Y", &S::local_autogrid_Y), T("boxsuffix", &S::boxsuffix),
    B("refine_tilt", &S::refine_tilt), F("init_tilt_ang", &S::init_tilt_ang), F("init_tilt_err", &S::init_tilt_err),
    B("refine_input_ctf", &S::refine_input_ctf), F("ps_init", &S::ps_init), F("defU_init", &S::defU_init),
    F("defV_init", &S::defV_init), F("defA_init", &S::defA_init), F("B_init", &S::B_init),
    F("ps_err", &S::ps_err), F("defU_err", &S::defU_err), F("defV_err", &S::defV_err),
    F("defA_err", &S::defA_err), F("B_err", &S::B_err), T("input_ctfstar", &S::input_ctfstar),
    F("ctfout_resL", &S::ctfout_resL), F("ctfout_resH", &S::ctfout_resH), F("ctfout_bfac", &S::ctfout_bfac),
    T("ctfstar", &S::ctfstar), T("logsuffix", &S::logsuffix), B("write_local_ctf", &S::write_local_ctf),
    B("output_time", &S::output_time), B("plot_res_ring", &S::plot_res_ring), B("do_phase_flip", &S::do_phase_flip),
    B("pre_read", &S::pre_read), I("dp_maxN_q", &S::dp_maxN_q), B("dp_silent", &S::dp_silent),
    B("do_unfinished", &S::do_unfinished), B("reload_ctf_files", &S::reload_ctf_files),
    B("skip_check_mrc", &S::skip_check_mrc), B("skip_check_gpu", &S::skip_check_gpu), I("gid", &S::gid),
};
constexpr int kCount = sizeof(kOptions) / sizeof(kOptions[0]);

int find_token(const char* token) {
  for (int k = 0; k < kCount; ++k)
    if (keywd_cmp(token, kOptions[k].name)) return k;
  return -1;
}

int find_exact(const char* keyword) {
  for (int k = 0; k < kCount; ++k)
    if (std::strcmp(kOptions[k].name, keyword) == 0) return k;
  PK_FATAL("no option named '%s' in the option table", keyword);
}

bool given(const SORREL_Para* para, const char* keyword) { return sorrel_option_given(para, keyword) != 0; }

// A NaN or an infinity would pass every range test of the repair table unnoticed (each
// comparison is false) and then poison the search; such a value is refused outright.
float finite_float_or_die(const char* option, const char* token) {
  const double value = std::strtod(token, nullptr);
  if (!std::isfinite(value) || !std::isfinite(static_cast<float>(value)))
    PK_FATAL("the value '%s' of option %s is not a finite number", token, option);
  return static_cast<float>(value);
}

void print_unknown_option(const char* token) {
  std::printf("\033[41m\033[1m\033[5mCRITICAL ERROR: in function %s(), file %s on line %d. Failed to recognize "
              "option: %s! Exit now. Check your input or file names please.\033[m\n\n",
              "sorrel_get_parameters", report_module_path(__FILE__), __LINE__, token);
  sorrel_print_valid_options();
}

// ctfstar: the next argument must exist and must not begin with a dash.
void read_ctfstar(int argc, char** argv, int& i, SORREL_Para* para) {
  if (i + 1 >= argc || argv[i + 1][0] == '-')
    PK_FATAL("Can not get file name for ctfstar! Check input!");
  ++i;
  if (is_str_null(argv[i])) {
    strlcpy(para->ctfstar, "NULL");
  } else {
    if (std::strlen(argv[i]) >= static_cast<size_t>(SORREL_NAME_LEN))
      PK_FATAL("the name given to --ctfstar is longer than %d characters", SORREL_NAME_LEN - 1);
    replace_file_suffix(para->ctfstar, ".star", argv[i], ".star");
  }
}

void store(const Option& o, const char* option_token, const char* value, SORREL_Para* para) {
  switch (o.kind) {
    case Kind::kFloat: para->*o.f = finite_float_or_die(option_token, value); break;
    case Kind::kInt: para->*o.i = static_cast<int>(std::strtol(value, nullptr, 10)); break;
    case Kind::kText:
      if (std::strlen(value) >= static_cast<size_t>(SORREL_NAME_LEN))
        PK_FATAL("the value of option %s is longer than %d characters", option_token, SORREL_NAME_LEN - 1);
      strlcpy(para->*o.s, value);
      break;
    case Kind::kBool: break;
  }
}

// Returns false on an unknown option (already reported).
bool read_command_line(int argc, char** argv, SORREL_Para* para) {
  for (int i = 1; i < argc; ++i) {
    const char* token = argv[i];
    const int k = find_token(token);
    if (k < 0) {
      if (token[0] == '-') {
        print_unknown_option(token);
        return false;
      }
      para->files.emplace_back(token);
      para->init.push_back(CTF_INIT{});
      continue;
    }
    const Option& o = kOptions[k];
    para->given[k] = 1;
    if (o.kind == Kind::kBool) {
      get_bool_keyword(argc, argv, para->*o.i, i);
      continue;
    }
    if (o.s == &SORREL_Para::ctfstar) {
      read_ctfstar(argc, argv, i, para);
      continue;
    }
    if (i + 1 >= argc) PK_FATAL("option %s is the last word of the command line and has no value", token);
    store(o, token, argv[++i], para);
    if (o.s == &SORREL_Para::input_ctfstar && !is_str_null(para->input_ctfstar))
      get_all_initctf_from_ctfstar(para->input_ctfstar, para->files, para->init);
  }
  return true;
}

void warn(const char* fmt, double value) {
  std::printf(fmt, value);
  std::printf("\n");
}
void warn_int(const char* fmt, int value) {
  std::printf(fmt, value);
  std::printf("\n");
}

// Brings an angle into 0..360 by floor.
float mod360(float a) { return a - 360.0f * std::floor(a / 360.0f); }

void check_general(SORREL_Para* p) {
  if (p->apix <= 0.01f || p->apix > 100.0f) {
    warn("Warning: Invalid pixel size %.2f! Exit now.", p->apix);
    p->apix = 1.34f;
  }
  if (p->apix > 10.0f || (p->apix < 0.3f && p->apix > 0.01f))
    warn("Warning: pixel size %.2f too large or small! Program will still run", p->apix);
  if (p->dstep <= 0.1f || p->dstep > 1000.0f) {
    warn("Warning: Invalid detector size %.2f! Exit now.", p->dstep);
    p->dstep = 14.0f;
  }
  if (p->kV < 10.0f || p->kV > 500.0f) {
    warn("Waring: Invalid high tension value kV=%.2f. Exit now.", p->kV);
    p->kV = 300.0f;
  }
  if (p->cs < 0.0f || p->cs >= 100.0f) {
    warn("Waring: too small or large --Cs %.2f!", p->cs);
    p->cs = 2.7f;
  }
  if (p->ac < 0.0f || p->ac > 1.0f) {
    warn("Waring: too small or large --ac %.2f!", p->ac);
    p->ac = 0.1f;
  }
  if (p->bfac <= -500.0f || p->bfac >= 5000.0f) {
    warn("Waring: too small or large --bfac %.2f!", p->bfac);
    p->bfac = 150.0f;
  }
}

void check_defocus(SORREL_Para* p) {
  if (p->defL > p->defH) {
    std::printf("Warning: defL larger than defH, swapping them ...\n");
    std::swap(p->defL, p->defH);
  }
  if (p->defH < p->defL + 10.0f) {
    std::printf("Warning: difference between defH and defL is too smaller, forcing them to be larger than 10.0 "
                "angstrom.\n");
    p->defH = p->defL + 10.0f;
  }
  if (p->defS < 0.0f) {
    std::printf("Warning: defS smaller than 0, forcing it to be positive ...\n");
    p->defS = -p->defS;
  }
  if (p->defS > p->defH - p->defL) {
    std::printf("Warning:  def_step is larger than (defH - defL), forcing it to be (defH - defL)/3 ...\n");
    p->defS = (p->defH - p->defL) / 3.0f;
  }
  // A step of zero would list defocus values without end, a tiny one millions of them, each a
  // simulated curve in device memory: the step is kept to at least 1 angstrom and the list to
  // SORREL_MAX_DEFOCUS_COUNT entries.
  if (!(p->defS >= 1.0f)) {
    const float repaired = std::fmin(500.0f, (p->defH - p->defL) / 3.0f);
    std::printf("Warning: defS %.4f is too small for a search, forcing it to be %.2f angstrom ...\n",
                static_cast<double>(p->defS), static_cast<double>(repaired));
    p->defS = repaired;
  }
  if (sorrel_defocus_count(p) > SORREL_MAX_DEFOCUS_COUNT) {
    const float repaired = (p->defH - p->defL) / static_cast<float>(SORREL_MAX_DEFOCUS_COUNT - 1);
    std::printf("Warning: defS %.2f gives more than %d defocus values, forcing it to be %.2f angstrom ...\n",
                static_cast<double>(p->defS), SORREL_MAX_DEFOCUS_COUNT, static_cast<double>(repaired));
    p->defS = repaired;
  }
  if (p->astm < 0.0f) p->astm = -p->astm;
  if (p->astm >= 10000.0f) {
    warn("Waring: too large --astm %.2f!", p->astm);
    p->astm = 1000.0f;
  }
}

void check_resolution(SORREL_Para* p) {
  const float nyquist = 2.0f * p->apix;
  if (p->resH > p->resL) {
    std::printf("Warning: resL smaller than resH, swapping them ...\n");
    std::swap(p->resL, p->resH);
  }
  if (p->resH < nyquist) {
    warn("Waring: Invalid resH %.2f! Exit now.", p->resH);
    p->resH = nyquist;
  } else if (p->resH > 30.0f) {
    warn("Waring: Invalid resH %.2f! Too big for reliable CTF determination!", p->resH);
    p->resH = std::fmax(4.0f, nyquist);
  } else if (p->resH >= 15.0f) {
    warn("Waring: too large resH %.2f! Program will still run", p->resH);
  }
  if (p->resL < 6.0f) {
    warn("Waring: Invalid resL %.2f! Exit now.", p->resL);
    p->resL = 50.0f;
  } else if (p->resL <= 12.0f) {
    warn("Waring: too small resL %.2f! Program will still run", p->resL);
  }
}

void check_boxes(SORREL_Para* p) {
  if (p->boxsize > 2048) {
    warn_int("Waring: too large  --boxsize %d!", p->boxsize);
    p->boxsize = 1024;
  } else if (p->boxsize < 128) {
    warn_int("Waring: too small  --boxsize %d!", p->boxsize);
    p->boxsize = 1024;
  }
  if (p->overlap > 0.9f) {
    warn("Waring: too large --overlap %.2f!", p->overlap);
    p->overlap = 0.9f;
  } else if (p->overlap < 0.0f) {
    warn("Waring: too small --overlap %.2f!", p->overlap);
    p->overlap = 0.0f;
  }
  if (p->convsize > p->boxsize / 2) {
    warn_int("Waring: too large --convsize %d!", p->convsize);
    p->convsize = p->boxsize / 12;
  }
  if (p->convs_out > p->boxsize / 2) {
    warn_int("Waring: too large --convs_out %d!", p->convs_out);
    p->convs_out = p->boxsize / 5;
  }
  // A smoothing box of 0 or less has no pixels to average.
  if (p->convsize < 1) {
    warn_int("Warning: --convsize %d is below 1, forcing it to be boxsize/12 ...", p->convsize);
    p->convsize = p->boxsize / 12;
  }
  if (p->convs_out < 1) {
    warn_int("Warning: --convs_out %d is below 1, forcing it to be boxsize/7 ...", p->convs_out);
    p->convs_out = p->boxsize / 7;
  }
}

void check_limits(SORREL_Para* p) {
  const float nyquist = 2.0f * p->apix;
  if (p->B_resH < nyquist) p->B_resH = nyquist;
  if (p->res_lim_cc >= 1.0f || p->res_lim_cc <= -1.0f) {
    warn("Waring: invalid --res_lim_cc %f!", p->res_lim_cc);
    p->res_lim_cc = 0.0f;
  }
  if (p->res_lim_L >= 100.0f || p->res_lim_L <= nyquist) {
    warn("Waring: invalid --res_lim_L %f!", p->res_lim_L);
    p->res_lim_L = 20.0f;
  }
}

void check_phase_shift(SORREL_Para* p) {
  if (p->phase_shift_L < 0.0f || p->phase_shift_L > 360.0f) p->phase_shift_L = mod360(p->phase_shift_L);
  if (p->phase_shift_H < 0.0f || p->phase_shift_H > 360.0f) p->phase_shift_H = mod360(p->phase_shift_H);
  if (p->phase_shift_L > p->phase_shift_H) std::swap(p->phase_shift_L, p->phase_shift_H);
  if (p->phase_shift_S >= p->phase_shift_H - p->phase_shift_L)
    warn("Waring: too large  phase shift search step: --phase_shift_S %f!", p->phase_shift_S);
  // The search walks from L to H in steps of S: a step of 0 or less would never arrive, a
  // tiny one would run tens of thousands of 2D refinements.
  if (p->phase_shift_mode && !(p->phase_shift_S >= 0.1f)) {
    warn("Warning: phase shift search step --phase_shift_S %f is below 0.1 degree, forcing it to be 3.0 ...",
         p->phase_shift_S);
    p->phase_shift_S = 3.0f;
  }
  if (p->phase_shift_T < 1 || p->phase_shift_T > 2) {
    warn_int("Waring: invalid --phase_shift_T %d!", p->phase_shift_T);
    p->phase_shift_T = 1;
  }
}

// Guards of options whose bad values the table above lets through but which would hang the
// run, allocate without bound or divide by zero further on.
void check_guards(SORREL_Para* p) {
  if (p->defA_seeds < 1 || p->defA_seeds > SORREL_MAX_DEFA_SEEDS) {
    const int repaired = p->defA_seeds < 1 ? 1 : SORREL_MAX_DEFA_SEEDS;
    std::printf("Warning: --defA_seeds %d is outside 1..%d, forcing it to be %d ...\n", p->defA_seeds,
                SORREL_MAX_DEFA_SEEDS, repaired);
    p->defA_seeds = repaired;
  }
  if (p->EPA_oversmp < 1 || p->EPA_oversmp > SORREL_MAX_EPA_OVERSMP) {
    const int repaired = p->EPA_oversmp < 1 ? 4 : SORREL_MAX_EPA_OVERSMP;
    std::printf("Warning: --EPA_oversmp %d is outside 1..%d, forcing it to be %d ...\n", p->EPA_oversmp,
                SORREL_MAX_EPA_OVERSMP, repaired);
    p->EPA_oversmp = repaired;
  }
  if (p->EPA_bg_pn < 1 || p->EPA_bg_pn > 12) {
    std::printf("Warning: --EPA_bg_pn %d is outside 1..12, forcing it to be 7 ...\n", p->EPA_bg_pn);
    p->EPA_bg_pn = 7;
  }
  if (!(p->ncc_frac_max > 0.0f && p->ncc_frac_max < 1.0f)) {
    warn("Warning: --ncc_frac_max %f must lie between 0 and 1, forcing it to be 0.25 ...", p->ncc_frac_max);
    p->ncc_frac_max = 0.25f;
  }
  if (!(p->ncc_frac_min > 0.0f && p->ncc_frac_min < 1.0f)) {
    warn("Warning: --ncc_frac_min %f must lie between 0 and 1, forcing it to be 0.05 ...", p->ncc_frac_min);
    p->ncc_frac_min = 0.05f;
  }
  if (p->ncc_frac_min > p->ncc_frac_max) {
    std::printf("Warning: ncc_frac_min larger than ncc_frac_max, swapping them ...\n");
    std::swap(p->ncc_frac_min, p->ncc_frac_max);
  }
  if (!(p->local_overlap >= 0.0f && p->local_overlap < 1.0f)) {
    warn("Warning: --local_overlap %f must lie in 0 up to below 1, forcing it to be 0.5 ...", p->local_overlap);
    p->local_overlap = 0.5f;
  }
}

}  // namespace

int sorrel_option_count() { return kCount; }
const char* sorrel_option_name(int k) { return kOptions[k].name; }
int sorrel_option_given(const SORREL_Para* para, const char* keyword) {
  const int k = find_exact(keyword);
  return static_cast<size_t>(k) < para->given.size() && para->given[k] ? 1 : 0;
}

int sorrel_defocus_count(const SORREL_Para* p) {
  const float count = (p->defH - p->defL) / p->defS;
  if (!(count < 2.0e9f)) return 2000000000;  // also NaN: the caller's limit catches it
  return static_cast<int>(count);
}

int sorrel_init_parameters(SORREL_Para* p) {
  p->files.clear();
  p->init.clear();
  p->given.assign(kCount, 0);
  p->apix = 1.34f, p->kV = 300.0f, p->cs = 2.7f, p->ac = 0.1f, p->dstep = 14.0f;
  p->phase_shift_L = 0.0f, p->phase_shift_H = 180.0f, p->phase_shift_S = 0.0f, p->phase_shift_T = 1;
  p->only_search_ps = 0, p->cosearch_refine_ps = 0;
  p->bfac = 150.0f, p->defL = 5000.0f, p->defH = 90000.0f, p->defS = 500.0f, p->astm = 1000.0f;
  p->resL = 50.0f, p->resH = 4.0f, p->boxsize = 1024, p->convsize = 85, p->convs_out = 100;
  p->overlap = 0.5f, p->refine_2d_T = 1, p->defA_seeds = 1, p->smooth_resL = 15.0f;
  p->do_validation = 0, p->do_basic_rotave = 0, p->do_EPA = 0, p->EPA_oversmp = 4, p->EPA_bg_pn = 7;
  p->EPA_resL = 30.0f, p->EPA_resH = 2.78f, p->ncc_frac_max = 0.25f, p->ncc_frac_min = 0.05f;
  p->refine_after_EPA = 0;
  p->do_Hres_ref = 0, p->Href_resL = 15.0f, p->Href_resH = 4.0f, p->Href_bfac = 50.0f, p->Href_PS_err = 2.0f;
  p->Href_U_err = 100.0f, p->Href_V_err = 100.0f, p->Href_A_err = 5.0f;
  p->estimate_B = 1, p->B_resL = 10.0f, p->B_resH = 4.0f, p->res_lim_cc = 0.0f, p->res_lim_L = 20.0f;
  p->do_mdef_refine = 0, p->mdef_aveN = 7, p->mdef_fit = 0, p->mdef_ave_type = 0;
  p->do_local_refine = 0, p->refine_local_astm = 0, p->refine_local_ps = 0;
  p->local_bfac = 50.0f, p->local_resL = 15.0f, p->local_resH = 5.0f, p->local_PS_err = 2.0f;
  p->local_U_err = 100.0f, p->local_V_err = 100.0f, p->local_A_err = 5.0f, p->local_radius = 1024.0f;
  p->local_boxsize = 512, p->local_overlap = 0.5f, p->local_boxtype = 1, p->local_areatype = 1;
  p->local_avetype = 0, p->local_autogrid_X = 7, p->local_autogrid_Y = 7;
  strlcpy(p->boxsuffix, "_pickora.star");
  p->refine_tilt = 0, p->init_tilt_ang = 0.0f, p->init_tilt_err = 0.0f;
  p->refine_input_ctf = 0, p->ps_init = 0.0f, p->defU_init = 20000.0f, p->defV_init = 20000.0f;
  p->defA_init = 0.0f, p->B_init = 200.0f, p->ps_err = 10.0f, p->defU_err = 500.0f, p->defV_err = 500.0f;
  p->defA_err = 15.0f, p->B_err = 50.0f;
  strlcpy(p->input_ctfstar, "NULL");
  p->ctfout_resL = 50.0f, p->ctfout_resH = 4.0f, p->ctfout_bfac = 50.0f;
  strlcpy(p->ctfstar, "micrographs_all_sorrel.star");
  strlcpy(p->logsuffix, "_sorrel.log");
  p->write_local_ctf = 0, p->output_time = 0, p->plot_res_ring = 1, p->do_phase_flip = 0;
  p->pre_read = 0, p->dp_maxN_q = 5, p->dp_silent = 1, p->do_unfinished = 0, p->reload_ctf_files = 0;
  p->skip_check_mrc = 0, p->skip_check_gpu = 0, p->gid = 0;
  p->phase_shift_mode = 0;
  return 0;
}

int sorrel_apply_derived_rules(SORREL_Para* p) {
  if (!given(p, "convsize")) p->convsize = p->boxsize / 12;
  if (!given(p, "convs_out")) p->convs_out = p->boxsize / 7;
  if (!given(p, "ctfout_resH") || 2.0f * p->apix > p->ctfout_resH) p->ctfout_resH = 2.2f * p->apix + 0.1f;
  p->phase_shift_mode = given(p, "phase_shift_L") || given(p, "phase_shift_H") || given(p, "phase_shift_S") ||
                        given(p, "phase_shift_T");
  if (p->phase_shift_mode) {
    if (!given(p, "phase_shift_S")) p->phase_shift_S = 3.0f;
    if (!given(p, "defL")) p->defL = 2000.0f;
    if (!given(p, "defH")) p->defH = 30000.0f;
    if (!given(p, "defS")) p->defS = 200.0f;
    if (!given(p, "resL")) p->resL = 15.0f;
    if (!given(p, "boxsize")) p->boxsize = 512;
    if (!given(p, "convsize")) p->convsize = p->boxsize / 20;
    p->convs_out = p->boxsize / 10;
  }
  if (p->refine_input_ctf) p->phase_shift_mode = 0;
  if (!given(p, "EPA_resH") || 2.0f * p->apix + 0.1f > p->EPA_resH) p->EPA_resH = 2.0f * p->apix + 0.1f;
  return 0;
}

int sorrel_check_parameters(SORREL_Para* p) {
  check_general(p);
  check_defocus(p);
  check_resolution(p);
  check_boxes(p);
  check_limits(p);
  check_phase_shift(p);
  if (p->mdef_fit == 1 && p->mdef_ave_type == 0)
    std::printf("Linear fitting for movie CTF is only allowed for coherent averaging (--mdef_ave_type 1).\n");
  check_guards(p);
  std::fflush(stdout);
  return 0;
}

SorrelParse sorrel_get_parameters(int argc, char** argv, SORREL_Para* para, bool check_gpu) {
  if (para->given.size() != static_cast<size_t>(kCount)) para->given.assign(kCount, 0);
  if (!read_command_line(argc, argv, para)) return SORREL_PARSE_STOP_OK;
  sorrel_apply_derived_rules(para);
  if (para->files.empty()) {
    std::printf("Error: No files to be processed.\n");
    sorrel_help(argc > 0 ? argv[0] : "sorrel");
    return SORREL_PARSE_NO_INPUT;
  }
  sorrel_check_parameters(para);
  if (check_gpu && !para->skip_check_gpu && check_and_set_gid(para->gid) != 0)
    PK_FATAL("Error: Failed to find any proper GPU device!\n");
  return SORREL_PARSE_OK;
}

void sorrel_print_valid_options() {
  std::printf("-------------------------------------------------------------------------------------------------\n");
  std::printf("All valid options:\n");
  for (const Option& o : kOptions) std::printf("--%s\t ", o.name);
  std::printf("\n-------------------------------------------------------------------------------------------------\n");
  std::fflush(stdout);
}

namespace {

void print_value(FILE* fp, const Option& o, const SORREL_Para* p) {
  switch (o.kind) {
    case Kind::kFloat: std::fprintf(fp, o.conv, static_cast<double>(p->*o.f)); break;
    case Kind::kInt:
    case Kind::kBool: std::fprintf(fp, "%d", p->*o.i); break;
    case Kind::kText: std::fprintf(fp, "%s", p->*o.s); break;
  }
}

// Groups of the log head, as ranges of the option table.
struct Group {
  const char* title;
  const char* first;
  const char* last;
};
const Group kGroups[] = {
    {"General options:\n", "apix", "dstep"},
    {nullptr, "phase_shift_L", "cosearch_refine_ps"},  // the phase-shift title carries ON / OFF
    {"Advanced options:\n", "bfac", "smooth_resL"},
    {"Validation and EPA options:\n", "do_validation", "refine_after_EPA"},
    {"High resolution refinement options:\n", "do_Hres_ref", "Href_A_err"},
    {"B-factor and resolution limit options:\n", "estimate_B", "res_lim_L"},
    {"Movie options:\n", "do_mdef_refine", "mdef_ave_type"},
    {"Local refinement options:\n", "do_local_refine", "boxsuffix"},
    {"Tilt options:\n", "refine_tilt", "init_tilt_err"},
    {"Input CTF options:\n", "refine_input_ctf", "input_ctfstar"},
    {"Output options:\n", "ctfout_resL", "do_phase_flip"},
    {"Queue and control options:\n", "pre_read", "gid"},
};

// The log writes the voltage keyword in lower case, as the RELION-style block does.
const char* log_keyword(const Option& o) { return std::strcmp(o.name, "kV") == 0 ? "kv" : o.name; }

}  // namespace

void sorrel_put_parameters(const SORREL_Para* p) {
  std::printf("User input parameters:\n");
  for (int k = 0; k < kCount; ++k) {
    if (!p->given[k]) continue;
    std::printf("        --%-19s", kOptions[k].name);
    print_value(stdout, kOptions[k], p);
    std::printf("\n");
  }
  std::printf("Files to be processed (%zu):\n", p->files.size());
  for (const std::string& name : p->files) std::printf("        %s\n", name.c_str());
  std::fflush(stdout);
}

void sorrel_fput_parameters(FILE* fp, const SORREL_Para* p) {
  std::fprintf(fp, "\nSORREL , %s %s\n", sorrel_version, sorrel_updated_date);
  std::fprintf(fp, "All parameters to be used:\n");
  for (const Group& g : kGroups) {
    if (g.title != nullptr)
      std::fputs(g.title, fp);
    else
      std::fprintf(fp, "Phase shift options:  %s", p->phase_shift_mode ? "ON\n" : "OFF\n");
    for (int k = find_exact(g.first); k <= find_exact(g.last); ++k) {
      std::fprintf(fp, "        --%-19s", log_keyword(kOptions[k]));
      print_value(fp, kOptions[k], p);
      std::fprintf(fp, "\n");
    }
  }
}

void sorrel_fput_parameters_ctffind3_like(FILE* fp, const SORREL_Para* p) {
  std::fprintf(fp, "********************************  parameter format for RELION: "
                   "*********************************************\n\n");
  std::fprintf(fp, " CS[mm], HT[kV], AmpCnst, XMAG, DStep[um]\n");
  std::fprintf(fp, "  %.1f    %.1f    %.2f  %.1f   %.3f\n\n", static_cast<double>(p->cs), static_cast<double>(p->kV),
               static_cast<double>(p->ac), 10000.0 * p->dstep / p->apix, static_cast<double>(p->dstep));
  std::fprintf(fp, " Positive defocus values for underfocus\n");
  std::fprintf(fp, " Box, ResMin[A], ResMax[A], dFMin[A], dFMax[A], FStep[A], dAst[A]\n");
  std::fprintf(fp, " %d       %.1f        %.1f   10000.0   70000.0  500.0    0.0\n", p->boxsize,
               static_cast<double>(p->resL), static_cast<double>(p->resH));
  std::fprintf(fp, "********************************* end of parameter format for RELION: "
                   "*************************************\n\n");
}

namespace {

// The usage text: one line per entry, with the keyword, its default in force and what it does.
const char* const kUsage[] = {
    "Basic options:    default values,    description:  ",
    "      --apix           1.34          Pixel size of the micrographs, in angstrom",
    "      --kV             300           High tension in kilovolt, typically 300, 200 or 120",
    "      --cs             2.7           Spherical aberration, in millimeter",
    "      --ac             0.1           Amplitude contrast; normal range 0.04~0.1",
    "      --dstep          14.0          Detector pixel size in micrometer, only for the magnification in the "
    "STAR file\n",
    "Search options:  ",
    "      --defL           5000          Lowest defocus of the search, in angstrom (2000 in phase-shift mode)",
    "      --defH           90000         Highest defocus of the search, in angstrom, not itself tried (30000 in "
    "phase-shift mode)",
    "      --defS           500           Defocus step of the 1D search, in angstrom (200 in phase-shift mode); "
    "at least 1, at most 4096 values",
    "      --astm           1000          Expected astigmatism, in angstrom",
    "      --resL           50            Lowest resolution used for the fit, in angstrom (15 in phase-shift mode)",
    "      --resH           4             Highest resolution used for the fit, in angstrom; at least 2 x apix",
    "      --bfac           150           B-factor of the model during the search",
    "      --boxsize        1024          Tile size of the power spectrum, in pixels (512 in phase-shift mode); "
    "shrinks to the image's smaller side",
    "      --overlap        0.5           Overlap of the tiles, 0 to 0.9",
    "      --convsize       boxsize/12    Box of the background subtraction (boxsize/20 in phase-shift mode)",
    "      --convs_out      boxsize/7     Box of the background subtraction for the output image",
    "      --refine_2d_T    1             Refinement strategy: 1 one parameter at a time, 2 or 3 simplex",
    "      --defA_seeds     1             Trial angles of strategy 1 over 180 degrees, for its start and each "
    "angle step (1: a random start angle only; 6 is more robust)",
    "      --do_Hres_ref                  Refine again at high resolution (--Href_resL 15, --Href_resH 4, "
    "--Href_bfac 50)\n",
    "Phase plate options (any of them switches the phase-shift search on):  ",
    "      --phase_shift_L  0             Lowest phase shift of the search, in degrees",
    "      --phase_shift_H  180           Highest phase shift of the search, in degrees",
    "      --phase_shift_S  3.0           Step of the phase-shift search, in degrees (at least 0.1)",
    "      --phase_shift_T  1             1: keep the best score; 2: keep the best resolution limit",
    "      --only_search_ps               Report the best values of the search without refining them\n",
    "Evaluation options:  ",
    "      --EPA_resL       30            Low limit of the equiphase average, in angstrom",
    "      --EPA_resH       2 x apix+0.1  High limit of the equiphase average, in angstrom",
    "      --EPA_oversmp    4             Oversampling of the equiphase average (1 to 32)",
    "      --res_lim_cc     0.0           Correlation below which the resolution limit is reached",
    "      --res_lim_L      20            Resolution limit reported when the fit is good everywhere",
    "      --estimate_B     1             Estimate the B-factor from the CTF peaks (--B_resL 10, --B_resH 4)",
    "      --do_EPA                       Also write the equiphase average as an image (.epa)\n",
    "Input and output options:  ",
    "      --ctfstar        micrographs_all_sorrel.star   Summary STAR file, written anew by every run; NULL for "
    "none",
    "      --logsuffix      _sorrel.log   Suffix of the log of each micrograph",
    "      --input_ctfstar  NULL          A CTF STAR file whose micrographs are added, with their values as start",
    "      --refine_input_ctf             Refine from the given start values (--defU_init, --defV_init, "
    "--defA_init, --ps_init)",
    "      --ctfout_resL    50            Low limit of the output image (.ctf)",
    "      --ctfout_resH    2.2 x apix+0.1 High limit of the output image (.ctf)",
    "      --plot_res_ring  1             Draw the resolution limit as a ring in the output image",
    "      --do_phase_flip                Write the phase-flipped micrograph (_pf.mrc)",
    "      --do_unfinished                Skip the micrographs whose log says they are done",
    "      --pre_read                     Read the next micrographs in a second thread (queue of 5)",
    "      --gid            0             GPU id\n",
};

}  // namespace

void sorrel_help(const char* name) {
  for (int i = 0; i < 99; ++i) std::putchar('*');
  std::printf("\nVersion:       %s %s, updated on %s\n", name, sorrel_version, sorrel_updated_date);
  std::printf("Manual:        docs/user-guide.md in the pickora source tree, section 'sorrel'\n");
  std::printf("Description:   CTF determination of micrographs: defocus, astigmatism, phase shift, resolution "
              "limit and B-factor.\n");
  for (int i = 0; i < 99; ++i) std::putchar('*');
  std::printf("\nUsage:\n         %s [options] <micrographs>  \n\nOptions:\n", name);
  for (const char* line : kUsage) std::printf("%s\n", line);
  std::printf("Example:\n         %s --apix 1.06 --kV 300 --cs 2.7 --ac 0.1 Micrographs/*.mrc\n", name);
  std::printf("         %s --apix 1.06 --phase_shift_L 0 --phase_shift_H 180 --phase_shift_S 5 Micrographs/*.mrc "
              "(phase plate)\n",
              name);
  std::printf("         %s --apix 1.06 --do_unfinished --pre_read Micrographs/*.mrc (resume a run)\n\n", name);
  std::fflush(stdout);
}
