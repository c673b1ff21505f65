// The run parameters: parsing, derived values, the parameter blocks, the first micrograph.
#include "pickora56/pickora_para.h"

#include <strings.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "pickora56/pickora_help.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/atomic_file.h"
#include "txt_file/number_options.h"
#include "txt_file/txt_file.h"

const char* const PICKORA_OPTIONS[PICKORA_NOPTIONS] = {
    "apixM",         "T",                  "diameter",        "ang_step",          "speed",
    "boxsize",       "min_dist",           "cc_cutoff",       "lsigma_cutoff",     "lave_max",
    "lave_min",      "lcutoff_D",          "lp",              "hp",                "dont_invertT",
    "per_lp",        "pre_hp",             "do_pre_filter",   "do_ctf",            "do_local_ctf",
    "kv",            "cs",                 "ac",              "write_ccmax_mic",   "write_pf_mic",
    "write_bg_mic",  "write_bgfree_mic",   "write_lsigma_mic", "write_mic_mask",   "extract_raw",
    "extract_pf",    "write_rejected_box", "write_star",      "exclusive_picking", "excluded_suffix",
    "mask_excluded", "global_excluded_box", "gid"};

namespace {

enum class OptionKind { kFloat, kInt, kString, kFlag };

// One command-line option: where its value goes and how the two parameter blocks print it.
struct OptionSpec {
  const char* name;
  OptionKind kind;
  float Pickora_Para::*f;
  int Pickora_Para::*i;
  char* Pickora_Para::*s;
  const char* conv;        // conversion in the user block
  const char* all_conv;    // conversion in the block of all parameters
  bool echo_token;         // the user block re-reads the token after the option
  bool user_line;          // whether the user block prints a line at all
  const char* user_label;  // a label that breaks the padding rule, or nullptr
};

constexpr OptionSpec float_opt(const char* name, float Pickora_Para::*f, const char* conv, bool echo,
                               const char* all_conv = nullptr, const char* label = nullptr) {
  return {name, OptionKind::kFloat, f, nullptr, nullptr, conv, all_conv ? all_conv : conv, echo, true, label};
}
constexpr OptionSpec int_opt(const char* name, int Pickora_Para::*i, bool echo) {
  return {name, OptionKind::kInt, nullptr, i, nullptr, "%d", "%d", echo, true, nullptr};
}
constexpr OptionSpec string_opt(const char* name, char* Pickora_Para::*s, bool echo, const char* label = nullptr) {
  return {name, OptionKind::kString, nullptr, nullptr, s, "%s", "%s", echo, true, label};
}
constexpr OptionSpec flag_opt(const char* name, int Pickora_Para::*i, bool user_line = true,
                              const char* label = nullptr) {
  return {name, OptionKind::kFlag, nullptr, i, nullptr, "%d", "%d", false, user_line, label};
}

using P = Pickora_Para;
constexpr bool kEcho = true, kRecord = false;

const OptionSpec kOptions[] = {
    string_opt("T", &P::T, kEcho),
    float_opt("apixM", &P::apixM, "%.3f", kEcho),
    float_opt("apixT", &P::apixT, "%.3f", kEcho),
    float_opt("diameter", &P::diameter, "%.2f", kEcho),
    float_opt("ang_step", &P::ang_step, "%.2f", kEcho),
    int_opt("speed", &P::speed, kEcho),
    int_opt("boxsize", &P::boxsize, kEcho),
    float_opt("min_dist", &P::min_dist, "%.2f", kEcho),
    float_opt("cc_cutoff", &P::cc_cutoff, "%.3f", kEcho),
    float_opt("lsigma_cutoff", &P::lsigma_cutoff, "%.3f", kEcho),
    float_opt("lave_max", &P::lave_max, "%.3f", kEcho),
    float_opt("lave_min", &P::lave_min, "%.3f", kEcho),
    float_opt("lsigma_D", &P::lsigma_D, "%.3f", kEcho),
    float_opt("lave_D", &P::lave_D, "%.3f", kEcho),
    float_opt("lp", &P::lp, "%.3f", kRecord, "%.2f"),
    float_opt("hp", &P::hp, "%.3f", kRecord, "%.2f"),
    float_opt("pre_lp", &P::pre_lp, "%.3f", kRecord, "%.2f"),
    float_opt("pre_hp", &P::pre_hp, "%.3f", kRecord, "%.2f"),
    int_opt("T_norm_type", &P::T_norm_type, kRecord),
    float_opt("m_edge_ratio", &P::m_edge_ratio, "%.3f", kRecord, nullptr, "       --m_edge_ratio      "),
    float_opt("kV", &P::kV, "%.2f", kEcho),
    float_opt("cs", &P::cs, "%.2f", kEcho),
    float_opt("ac", &P::ac, "%.2f", kEcho),
    string_opt("excluded_suffix", &P::excluded_suffix, kRecord),
    string_opt("global_excluded_box", &P::global_excluded_box, kRecord, "       --global_excluded_box    "),
    int_opt("gid", &P::gid, kEcho),
    flag_opt("update_T", &P::update_T),
    flag_opt("do_pre_filter", &P::do_pre_filter),
    flag_opt("dont_invertT", &P::dont_invertT),
    flag_opt("detect_ice", &P::detect_ice),
    flag_opt("do_bandpass", &P::do_bandpass),
    flag_opt("mic_znorm", &P::mic_znorm, false),
    flag_opt("mic_wm_norm", &P::mic_wm_norm, false),
    flag_opt("write_normed_T", &P::write_normed_T),
    flag_opt("do_ctf", &P::do_ctf),
    flag_opt("do_local_ctf", &P::do_local_ctf, true, "       --local_ctf          "),
    flag_opt("write_ccmax_z", &P::write_ccmax_z),
    flag_opt("write_ccmax_mic", &P::write_ccmax_mic),
    flag_opt("write_pf_mic", &P::write_pf_mic),
    flag_opt("write_pref_mic", &P::write_pref_mic),
    flag_opt("write_bg_mic", &P::write_bg_mic),
    flag_opt("write_bgfree_mic", &P::write_bgfree_mic),
    flag_opt("write_lsigma_mic", &P::write_lsigma_mic),
    flag_opt("write_mic_mask", &P::write_mic_mask),
    flag_opt("write_rejected_box", &P::write_rejected_box),
    flag_opt("write_star", &P::write_star),
    flag_opt("do_unfinished", &P::do_unfinished),
    flag_opt("exclusive_picking", &P::exclusive_picking),
    flag_opt("mask_excluded", &P::mask_excluded),
    flag_opt("extract_raw", &P::extract_raw),
    flag_opt("extract_pf", &P::extract_pf),
};
constexpr int kNumOptions = sizeof(kOptions) / sizeof(kOptions[0]);

// The sections of the block of all parameters, in print order.
struct Section {
  const char* title;
  const char* const* names;
  int count;
};
const char* const kBasic[] = {"T", "apixM", "diameter", "apixT"};
const char* const kAdditional[] = {"ang_step",    "speed",         "boxsize",     "min_dist",    "cc_cutoff",
                                   "lsigma_cutoff", "lsigma_D",    "lave_min",    "lave_max",    "lave_D",
                                   "dont_invertT", "lp",           "hp",          "do_pre_filter", "pre_lp",
                                   "pre_hp",      "detect_ice",    "T_norm_type", "do_bandpass"};
const char* const kCtf[] = {"do_ctf", "do_local_ctf", "kV", "cs", "ac"};
const char* const kIo[] = {"write_ccmax_mic",    "write_pf_mic",      "write_pref_mic",   "write_bg_mic",
                           "write_bgfree_mic",   "write_lsigma_mic",  "write_mic_mask",   "write_star",
                           "do_unfinished",      "write_rejected_box", "exclusive_picking", "excluded_suffix",
                           "mask_excluded",      "global_excluded_box", "extract_raw",    "extract_pf",
                           "gid"};
#define PK_SECTION(title, names) {title, names, static_cast<int>(sizeof(names) / sizeof(names[0]))}
const Section kSections[] = {PK_SECTION("Basic options:  \n", kBasic),
                             PK_SECTION("Additional options:  \n", kAdditional),
                             PK_SECTION("CTF options: \n", kCtf), PK_SECTION("I/O options:  \n", kIo)};
#undef PK_SECTION

// Which options stood on the command line, by table index.
struct OptionsSeen {
  bool seen[kNumOptions] = {};
};

// The option a command-line token names (one or two dashes, any case), or -1.
int find_option_for_token(const char* token) {
  for (int k = 0; k < kNumOptions; ++k)
    if (keywd_cmp(token, kOptions[k].name)) return k;
  return -1;
}

// The option of an exact table name; the table and the section lists are ours, so a miss is
// a programming error.
const OptionSpec& option_by_name(const char* name) {
  for (const OptionSpec& option : kOptions)
    if (std::strcmp(option.name, name) == 0) return option;
  PK_FATAL("no option named '%s' in the option table", name);
}

bool was_given(const OptionsSeen& seen, const char* name) {
  for (int k = 0; k < kNumOptions; ++k)
    if (std::strcmp(kOptions[k].name, name) == 0) return seen.seen[k];
  return false;
}

float token_to_float(const char* token) { return static_cast<float>(std::strtod(token, nullptr)); }
int token_to_int(const char* token) { return static_cast<int>(std::strtol(token, nullptr, 10)); }

// What each number option can mean. A value outside is refused while parsing, naming the
// option, so that a typo never runs as 0, NaN or a value that picks nothing. Relations between
// options and with the micrograph's size are checked once those are known.
struct OptionRange {
  const char* name;
  double lo;
  bool lo_open;  // lo itself refused
  double hi;
  const char* unit;
};
constexpr double kNoLimit = HUGE_VAL;
const OptionRange kRanges[] = {
    // Together these bound the template resampling ratio to 1e-4 .. 1e4, whose sizes the
    // template loader can still test without overflow.
    {"apixM", 0.01, false, 100.0, " angstrom"},
    {"apixT", 0.01, false, 100.0, " angstrom"},
    {"diameter", 0.0, true, 1e5, " angstrom"},
    {"ang_step", 0.0, true, 360.0, " degrees"},
    {"speed", INT_MIN, false, INT_MAX, ""},  // the speed table says which levels exist
    {"boxsize", 2, false, 65536, " pixels"},
    {"min_dist", 0.0, true, 1e5, " angstrom"},
    {"cc_cutoff", -1.0, false, 1.0, ""},
    {"lsigma_cutoff", 0.0, true, kNoLimit, ""},
    {"lave_max", -kNoLimit, false, kNoLimit, ""},
    {"lave_min", -kNoLimit, false, kNoLimit, ""},
    {"lsigma_D", 0.0, true, 1e5, " angstrom"},
    {"lave_D", 0.0, true, 1e5, " angstrom"},
    {"lp", 0.0, true, 1e5, " angstrom"},
    {"hp", 0.0, true, 1e6, " angstrom"},
    {"pre_lp", 0.0, true, 1e5, " angstrom"},
    {"pre_hp", 0.0, true, 1e6, " angstrom"},
    {"T_norm_type", 0, false, 3, ""},
    {"m_edge_ratio", 0.0, false, 1.0, ""},
    {"kV", -kNoLimit, false, kNoLimit, ""},  // accepted and without effect: any number
    {"cs", -kNoLimit, false, kNoLimit, ""},
    {"ac", -kNoLimit, false, kNoLimit, ""},
    {"gid", 0, false, 4095, ""},
};

const OptionRange& range_of(const OptionSpec& option) {
  for (const OptionRange& r : kRanges)
    if (std::strcmp(r.name, option.name) == 0) return r;
  PK_FATAL("no range for option '%s' in the option table", option.name);
}

// The value of a number option, checked: the option's word as the user typed it names it.
double checked_number(const OptionSpec& option, const char* option_token, const char* value) {
  const OptionRange& r = range_of(option);
  if (option.kind == OptionKind::kInt)
    return parse_int(option_token, value, static_cast<int>(r.lo), static_cast<int>(r.hi));
  return parse_number_in(option_token, value, r.lo, r.lo_open, r.hi, r.unit);
}

[[noreturn]] void unknown_option_exit(const char* token) {
  std::printf("\033[41m\033[1m\033[5mCRITICAL ERROR:\033[min function %s(), file %s on line %d. Failed to "
              "recognize option: \033[41m\033[1m\033[5m%s!\033[m Exit now. Check your input please.\n\n",
              __func__, report_module_path(__FILE__), __LINE__, token);
  pickora_print_valid_options();
  report_exit(0);  // the run asked for nothing it can do: not counted as a failure
}

// Stores the value token of a value option into the record.
void store_value(const OptionSpec& option, const char* option_token, const char* value, Pickora_Para* para) {
  switch (option.kind) {
    case OptionKind::kFloat: para->*option.f = static_cast<float>(checked_number(option, option_token, value)); break;
    case OptionKind::kInt: para->*option.i = static_cast<int>(checked_number(option, option_token, value)); break;
    case OptionKind::kString:
      if (std::strlen(value) >= static_cast<size_t>(PICKORA_NAME_LEN))
        PK_FATAL("the value of option %s is longer than %d characters", option_token, PICKORA_NAME_LEN - 1);
      strlcpy(para->*option.s, value);
      break;
    case OptionKind::kFlag: break;
  }
  if (option.i == &Pickora_Para::speed) pickora_speed2shrink(para->speed, para->shrink);
}

void read_command_line(int argc, char** argv, Pickora_Para* para, OptionsSeen& seen) {
  for (int i = 1; i < argc; ++i) {
    const char* token = argv[i];
    const int k = find_option_for_token(token);
    if (k < 0) {
      if (token[0] == '-') unknown_option_exit(token);
      para->files[para->nfiles++] = argv[i];
      continue;
    }
    const OptionSpec& option = kOptions[k];
    seen.seen[k] = true;
    if (option.kind == OptionKind::kFlag) {
      get_bool_keyword(argc, argv, para->*option.i, i);
      continue;
    }
    if (i + 1 >= argc) PK_FATAL("option %s is the last word of the command line and has no value", token);
    store_value(option, token, argv[++i], para);
  }
}

void print_value(FILE* stream, const OptionSpec& option, const char* conv, const Pickora_Para* para) {
  switch (option.kind) {
    case OptionKind::kFloat: std::fprintf(stream, conv, static_cast<double>(para->*option.f)); break;
    case OptionKind::kInt:
    case OptionKind::kFlag: std::fprintf(stream, conv, para->*option.i); break;
    case OptionKind::kString: std::fprintf(stream, conv, para->*option.s); break;
  }
}

// The value as the user typed it, converted again the way the parser converts it.
void print_token_value(FILE* stream, const OptionSpec& option, const char* token) {
  switch (option.kind) {
    case OptionKind::kFloat: std::fprintf(stream, option.conv, static_cast<double>(token_to_float(token))); break;
    case OptionKind::kInt:
    case OptionKind::kFlag: std::fprintf(stream, option.conv, token_to_int(token)); break;
    case OptionKind::kString: std::fprintf(stream, option.conv, token); break;
  }
}

void print_user_label(FILE* stream, const OptionSpec& option) {
  if (option.user_label != nullptr)
    std::fputs(option.user_label, stream);
  else
    std::fprintf(stream, "       --%-19s", option.name);  // 28 columns in all
}

// One line per option of the command line, in its order, walking the tokens the way the
// parser consumed them so that a value is never taken for an option.
void print_user_block(int argc, char** argv, const Pickora_Para* para, FILE* stream) {
  for (int i = 1; i < argc; ++i) {
    const int k = find_option_for_token(argv[i]);
    if (k < 0) continue;
    const OptionSpec& option = kOptions[k];
    if (option.kind == OptionKind::kFlag) {
      int ignored = 0;
      get_bool_keyword(argc, argv, ignored, i);
    } else if (i + 1 >= argc) {
      continue;  // cannot happen after a successful parse
    }
    if (option.user_line) print_user_label(stream, option);
    if (option.kind != OptionKind::kFlag && option.echo_token) {
      print_token_value(stream, option, argv[i + 1]);
    } else if (option.user_line) {
      print_value(stream, option, option.conv, para);
    }
    if (option.user_line) std::fputc('\n', stream);
    if (option.kind != OptionKind::kFlag) ++i;
  }
}

void print_all_block(const Pickora_Para* para, FILE* stream) {
  for (const Section& section : kSections) {
    std::fputs(section.title, stream);
    for (int n = 0; n < section.count; ++n) {
      const OptionSpec& option = option_by_name(section.names[n]);
      std::fprintf(stream, "       --%-21s", option.name);  // 30 columns in all
      print_value(stream, option, option.all_conv, para);
      std::fputc('\n', stream);
    }
  }
}

void print_rule(FILE* stream, char c, int n) {
  for (int i = 0; i < n; ++i) std::fputc(c, stream);
  std::fputc('\n', stream);
}

bool names_generated_template(const char* T) { return strcasecmp(T, "NULL") == 0 || strcasecmp(T, "NONE") == 0; }

void print_missing_option_warnings(Pickora_Para* para, const OptionsSeen& seen) {
  if (!was_given(seen, "diameter"))
    std::printf("Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.\n");
  if (!was_given(seen, "T"))
    std::printf("Waring: You have not set the parameter '--T',  the automatically generated Gaussian template "
                "will be used. This is fine for 'spherical particles' like virus or ribosome. Do use templates "
                "for non-spherical particles.\n");
  if (!was_given(seen, "apixM"))
    std::printf("Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be "
                "1.34Å by default.\n");
  if (!was_given(seen, "apixT")) {
    std::printf("Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be "
                "the same as micrographs by default.\n");
    para->apixT = para->apixM;
  }
}

// Every output name of every micrograph must fit a 1023-character name, temporary endings
// included (the .box file has two while it is written), or outputs of different micrographs
// would be cut to one name and overwrite each other. Checked before anything is written.
void check_output_name_lengths(const Pickora_Para* para) {
  const char* suffixes[] = {"_particles.mrcs", "_nonunique.box", "_pickora.star", "_rejected.star", "_ccmaxZ.mrc",
                            para->exclusive_picking ? para->excluded_suffix : ""};
  size_t longest = 0;
  const char* longest_suffix = "";
  for (const char* suffix : suffixes)
    if (std::strlen(suffix) > longest) {
      longest = std::strlen(suffix);
      longest_suffix = suffix;
    }
  const long long room = static_cast<long long>(PICKORA_NAME_LEN - 1 - 2 * ATOMIC_FILE_TEMP_SUFFIX_MAX) -
                         static_cast<long long>(longest);
  for (int n = 0; n < para->nfiles; ++n)
    if (static_cast<long long>(std::strlen(para->files[n])) > room)
      PK_FATAL("the micrograph name %.60s... (number %d on the list, %zu characters) is too long: with the suffix "
               "%.40s and a temporary ending its output names would pass %d characters; at most %lld fit",
               para->files[n], n + 1, std::strlen(para->files[n]), longest_suffix, PICKORA_NAME_LEN - 1,
               room > 0 ? room : 0);
}

// Options that are each in range but mean nothing together.
void check_option_relations(Pickora_Para* para) {
  if (!(para->lave_min < para->lave_max))
    PK_FATAL("--lave_min (%g) must be below --lave_max (%g): no local average could pass", para->lave_min,
             para->lave_max);
  if (!(para->lp < para->hp))
    PK_FATAL("--lp (%g angstrom) must be below --hp (%g angstrom): the band-pass would keep nothing", para->lp,
             para->hp);
  const float nyquist = 2.0f * para->apixM * static_cast<float>(para->shrink);
  if (para->lp < nyquist) {
    PK_WARNING("--lp %g angstrom is finer than the work image holds (%g angstrom at --speed %d); %g is used", para->lp,
               nyquist, para->speed, nyquist);
    para->lp = nyquist;
  }
}

char* new_name_buffer(const char* text) {
  char* buffer = static_cast<char*>(std::calloc(PICKORA_NAME_LEN, 1));
  if (buffer == nullptr) PK_FATAL("out of host memory");
  strlcpy(buffer, text);
  return buffer;
}

}  // namespace

int pickora_init_parameters(int argc, Pickora_Para* para) {
  *para = Pickora_Para{};
  para->files = static_cast<char**>(std::calloc(argc > 0 ? argc : 1, sizeof(char*)));
  if (para->files == nullptr) PK_FATAL("out of host memory");
  para->T = new_name_buffer("NULL");
  para->excluded_suffix = new_name_buffer("NULL");
  para->global_excluded_box = new_name_buffer("NULL");
  para->first_mic = nullptr;
  para->dont_invertT = 0;
  para->apixM = 1.34f;
  para->apixT = 1.34f;
  para->diameter = 400.0f;
  para->min_dist = 300.0f;
  para->boxsize = 128;
  para->shrink = 4;
  para->speed = 2;
  para->ang_step = 5.0f;
  para->update_T = 0;
  para->cc_cutoff = 0.15f;
  para->lp = 40.0f;
  para->hp = 1000.0f;
  para->pre_lp = 8.0f;
  para->pre_hp = 1000.0f;
  para->T_norm_type = 1;
  para->m_edge_ratio = 0.05f;
  para->do_bandpass = 1;
  para->mic_znorm = 1;
  para->mic_wm_norm = 1;
  para->do_ctf = 0;
  para->do_local_ctf = 0;
  para->kV = 300.0f;
  para->cs = 2.7f;
  para->ac = 0.1f;
  para->lave_max = 1.0f;
  para->lave_min = -1.0f;
  para->lsigma_cutoff = 1.3f;
  para->lsigma_D = 100.0f;
  para->lave_D = 400.0f;
  para->detect_ice = 1;
  para->write_rejected_box = 1;
  para->write_star = 1;
  para->gid = 0;
  para->nfiles = 0;
  para->local_soft_edge = 8.0f;
  para->T_radius_scale = 1.3f;
  para->auto_T = 1;
  para->psi_start = 0.0f;
  para->psi_end = 359.0f;
  return 0;
}

int pickora_derive_values(Pickora_Para* para, bool given_min_dist, bool given_boxsize, bool given_lsigma_D,
                          bool given_lave_D) {
  if (!names_generated_template(para->T)) para->auto_T = 0;
  const double D = para->diameter, a = para->apixM;
  if (!given_min_dist) para->min_dist = static_cast<float>(D * 0.8);
  if (!given_boxsize) {
    const int box = static_cast<int>(D * 1.33 / a);
    para->boxsize = box - box % 2;  // even, rounded toward zero
  }
  if (!given_lsigma_D) para->lsigma_D = static_cast<float>(D * 0.5 + 100.0);
  if (!given_lave_D) para->lave_D = static_cast<float>(D * 0.3 + 200.0);
  // The radii come from diameters, hence twice the pixel size; min_dist is already a distance.
  const float p = (para->apixM + para->apixM) * static_cast<float>(para->shrink);
  para->T_radius = (para->diameter * para->T_radius_scale) / p;
  para->lsigma_radius = para->lsigma_D / p;
  para->lave_radius = para->lave_D / p;
  para->min_dist_px = para->min_dist / (static_cast<float>(para->shrink) * para->apixM);
  return 0;
}

int pickora_get_parameters(int argc, char** argv, Pickora_Para* para) {
  OptionsSeen seen;
  read_command_line(argc, argv, para, seen);
  pickora_derive_values(para, was_given(seen, "min_dist"), was_given(seen, "boxsize"), was_given(seen, "lsigma_D"),
                        was_given(seen, "lave_D"));
  if (para->nfiles == 0) pickora_help_exit(argv[0], "no micrograph on the command line");
  // A step of zero or less would never finish the turn through the in-plane angles.
  if (!(para->ang_step > 0.0f)) PK_FATAL("--ang_step must be above 0 degrees, not %g", para->ang_step);
  check_option_relations(para);
  check_output_name_lengths(para);
  check_and_set_gid(para->gid);
  print_missing_option_warnings(para, seen);
  std::fflush(stdout);
  return 0;
}

int pickora_fput_parameters(int argc, char** argv, Pickora_Para* para, FILE* stream) {
  print_rule(stream, '*', 99);
  std::fputs("User input parameters:\n", stream);
  print_user_block(argc, argv, para, stream);
  std::fputs("\nAll parameters to be used:\n", stream);
  print_all_block(para, stream);
  std::fprintf(stream, "\n\nAll %d files to be used:\n", para->nfiles);
  for (int n = 0; n < para->nfiles; ++n) std::fprintf(stream, "        %s\n", para->files[n]);
  std::fflush(stream);
  return 0;
}

int pickora_free_parameters(Pickora_Para* para) {
  std::free(para->files);
  std::free(para->T);
  std::free(para->excluded_suffix);
  std::free(para->global_excluded_box);
  std::free(para->first_mic);
  *para = Pickora_Para{};
  return 0;
}

int pickora_speed2shrink(int& speed, int& shrink) {
  static const int kShrinkOfSpeed[] = {1, 2, 4, 6, 8};
  if (speed < 0 || speed > 4) PK_FATAL("speed level must belong to {0,1,2,3,4}");
  shrink = kShrinkOfSpeed[speed];
  return 0;
}

int pickora_print_valid_options() {
  print_rule(stdout, '-', 130);
  std::printf("All valid options:\n");
  for (const char* keyword : PICKORA_OPTIONS) std::printf("--%s\t ", keyword);
  std::printf("\n");
  print_rule(stdout, '-', 128);
  std::fflush(stdout);
  return 0;
}

int check_access_openf_1st(char** files, int n, char* first, FILE*& fp) {
  for (int k = 0; k < n; ++k) {
    const char* name = files[k];
    if (access(name, F_OK) != 0) {
      PK_STRONG_ATTENTION("the micrograph %s does NOT exsit! Automatically ignored!", name);
      continue;
    }
    if (access(name, R_OK) != 0) {
      PK_STRONG_ATTENTION("the micrograph %s are NOT readable! Automatically ignored!", name);
      continue;
    }
    if (std::strlen(name) >= static_cast<size_t>(PICKORA_NAME_LEN))
      PK_FATAL("the micrograph name %.80s... is longer than %d characters", name, PICKORA_NAME_LEN - 1);
    std::printf("Opening %s for initial test and preperation .......\n", name);
    fp = PK_FOPEN_READ_OR_EXIT(name);
    strlcpy(first, name);
    return 0;
  }
  PK_FATAL("none of the %d micrographs on the command line exists and can be read", n);
}

int pickora_open_first_mic(Pickora_Para* para, FILE*& fp) {
  // Entry 0 takes the first readable name; it gets a buffer of its own, since that name may be
  // longer than the argument string entry 0 pointed at.
  std::free(para->first_mic);
  para->first_mic = static_cast<char*>(std::calloc(PICKORA_NAME_LEN, 1));
  if (para->first_mic == nullptr) PK_FATAL("out of host memory");
  check_access_openf_1st(para->files, para->nfiles, para->first_mic, fp);
  para->files[0] = para->first_mic;
  return 0;
}
