// pickora-image: the image toolkit's file operations from the command line. One executable,
// one subcommand per operation; each subcommand only gathers its options and calls the file
// operation of the library, which does all the work and all the reporting.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "txt_file/number_options.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "pre_shiny6/pre_shiny6.h"
#include "process2d_mrc/process2d_mrc.h"
#include "process2d_mrcs/process2d_mrcs.h"
#include "sym/ncs2d.h"
#include "txt_file/arrays_strings.h"

namespace {

using Options = std::map<std::string, std::string>;

struct OptionSpec {
  const char* name;
  const char* fallback;  // nullptr: required
  const char* help;
};

struct Subcommand {
  const char* name;
  const char* summary;
  std::vector<OptionSpec> options;
  int (*run)(const Options&);
};

const std::string& get(const Options& o, const char* name) { return o.at(name); }
const char* text(const Options& o, const char* name) { return get(o, name).c_str(); }
float number(const Options& o, const char* name) {
  return static_cast<float>(parse_number(("--" + std::string(name)).c_str(), text(o, name)));
}
int whole(const Options& o, const char* name, int lo, int hi) {
  return parse_int(("--" + std::string(name)).c_str(), text(o, name), lo, hi);
}

int run_rotate(const Options& o) { return mrcf_cuda_2d_rotate(text(o, "in"), text(o, "out"), number(o, "angle")); }

int run_flip(const Options& o) { return mrcf_cuda_2ds_flip(text(o, "in"), text(o, "out"), whole(o, "mode", 0, 7)); }

int run_hotpixels(const Options& o) {
  return mrcsf_2ds_rm_hotpixels(text(o, "in"), text(o, "out"),
                                static_cast<float>(parse_positive("--factor", text(o, "factor"))));
}

int run_dose(const Options& o) {
  int nx = 0, ny = 0, nz = 0;
  get_mrcf_xyz(nx, ny, nz, text(o, "in"));
  int frames = whole(o, "frames", 0, 1 << 20);
  if (frames == 0) frames = nz;
  std::vector<float> dose(frames);
  std::vector<float2> drift(dose.size());
  std::string log = get(o, "log");
  if (get_dose_smoothed_drift_from_txt(dose.data(), drift.data(), frames, &log[0]) != 0)
    PK_FATAL("the log %s does not give dose and drift for each of the %d frames", log.c_str(), frames);
  const int kv = whole(o, "kv", 0, 1000);
  for (float& d : dose) d = eq_dose(d, kv);
  std::vector<float> ctfw(static_cast<size_t>(nx / 2 + 1), 1.0f);
  if (!is_str_null(text(o, "ctfw")) && get_ctfw_from_txt(ctfw.data(), nx / 2 + 1, text(o, "ctfw")) != 0)
    PK_FATAL("the table %s does not give the %d entries of a %d-pixel image", text(o, "ctfw"), nx / 2 + 1, nx);
  GPS_PARA p{};
  p.Ne_a = number(o, "ne_a"), p.Ne_b = number(o, "ne_b"), p.Da = number(o, "da"), p.Db = number(o, "db");
  p.k = number(o, "k");
  p.mw_skeme = whole(o, "scheme", 0, 3), p.wnorm_type = whole(o, "wnorm", 1, 2), p.device = whole(o, "device", 1, 4);
  return mrcsf_dose_drift_ctf_wave_many(text(o, "in"), text(o, "out"), frames, whole(o, "first", -(1 << 20), 1 << 20),
                                        whole(o, "last", -(1 << 20), 1 << 20), number(o, "apix"), dose.data(),
                                        drift.data(), ctfw.data(), p);
}

int run_ncs_average(const Options& o) {
  return mrcf_2d_ncs_average(text(o, "out"), number(o, "ox"), number(o, "oy"), text(o, "image"), text(o, "mask"),
                             text(o, "syms"), whole(o, "direction", -1, 1), whole(o, "gpu", 0, 999));
}

int run_ncs_cccs(const Options& o) {
  return mrcf_2d_ncs_cccs(text(o, "ref"), number(o, "ox"), number(o, "oy"), text(o, "image"), text(o, "mask"),
                          text(o, "syms"), whole(o, "direction", -1, 1), whole(o, "gpu", 0, 999));
}

const OptionSpec kIn{"in", nullptr, "input MRC file"};
const OptionSpec kOut{"out", nullptr, "output MRC file (mode 2)"};
const OptionSpec kPatch[] = {
    {"image", nullptr, "image holding the copies (first slice)"},
    {"mask", nullptr, "mask of the patch, values 0 to 1; its size is the patch's"},
    {"syms", nullptr, "O-style operator file (.ncs_symmetry_operators blocks)"},
    {"ox", nullptr, "x of the patch's pixel (0, 0) in the image"},
    {"oy", nullptr, "y of the patch's pixel (0, 0) in the image"},
    {"direction", "1", "1: operators as given; -1: their inverses"},
    {"gpu", "0", "device id; 999 works on the host"},
};

std::vector<Subcommand> subcommands() {
  std::vector<OptionSpec> average(kPatch, kPatch + 7), cccs(kPatch, kPatch + 7);
  average.insert(average.begin(), kOut);
  cccs.insert(cccs.begin(), OptionSpec{"ref", nullptr, "reference patch, the mask's size"});
  return {
      {"rotate", "turn the first slice about its grid centre (bilinear, 0 outside)",
       {kIn, kOut, {"angle", nullptr, "degrees, from +x toward +y"}}, run_rotate},
      {"flip", "mirror or transpose every slice",
       {kIn, kOut, {"mode", nullptr, "0 copy, 1 mirror x, 2 mirror y, 3 both, 4 transpose, 5 and 6 quarter turns, "
                                     "7 copy with the sides exchanged"}},
       run_flip},
      {"hotpixels", "replace pixels further than factor x sigma from the slice mean by their neighbours",
       {kIn, kOut, {"factor", "6", "threshold in standard deviations"}}, run_hotpixels},
      {"dose", "dose- and drift-weighted average of the frames of every particle (or of a whole movie)",
       {kIn,
        kOut,
        {"log", nullptr, "text file: frame dose dftX dftY per line, frames from 0"},
        {"apix", nullptr, "pixel size in angstrom"},
        {"frames", "0", "frames per particle; 0: all sections of the input (one movie)"},
        {"first", "0", "first frame of the range"},
        {"last", "1048576", "last frame of the range (beyond the particle: its last frame)"},
        {"scheme", "3", "0 none, 1 dose, 2 drift, 3 dose and drift"},
        {"wnorm", "1", "1: k + sum |w|; 2: k + sqrt(sum w^2)"},
        {"k", "0", "constant added to the normaliser"},
        {"ne_a", "0.7398", "scale of the dose term, exp(-dose ne_a s^ne_b)"},
        {"ne_b", "1.31489", "exponent of the frequency in the dose term"},
        {"da", "1", "scale of the drift term"},
        {"db", "0", "floor of the drift direction factor, 0 to 1"},
        {"kv", "200", "voltage; doses are brought to 200 kV (100, 120, 300, 400 known)"},
        {"ctfw", "NONE", "text file of the radial table: index anything value per line"},
        {"device", "2", "1 host average, 2 device average, 3 plain mean, 4 weight maps to Weights3D.mrcs"}},
       run_dose},
      {"ncs-average", "average a masked patch over the symmetry copies in the image", average, run_ncs_average},
      {"ncs-cccs", "correlate a reference with each symmetry copy (host: best of a +-15 pixel shift search)", cccs,
       run_ncs_cccs},
  };
}

void print_overview(const std::vector<Subcommand>& all) {
  std::printf("Usage: pickora-image SUBCOMMAND [options]\n       pickora-image SUBCOMMAND --help\n\nSubcommands:\n");
  for (const Subcommand& c : all) std::printf("  %-12s %s\n", c.name, c.summary);
}

void print_help(const Subcommand& c) {
  std::printf("Usage: pickora-image %s [options]\n%s.\n\n", c.name, c.summary);
  for (const OptionSpec& s : c.options) {
    std::printf("  --%-10s %s", s.name, s.help);
    if (s.fallback != nullptr) std::printf(" (%s)", s.fallback);
    else std::printf(" (required)");
    std::printf("\n");
  }
  std::printf("  --%-10s this text\n", "help");
}

Options parse(const Subcommand& c, int argc, char** argv) {
  Options o;
  for (const OptionSpec& s : c.options)
    if (s.fallback != nullptr) o[s.name] = s.fallback;
  for (int i = 2; i < argc; ++i) {
    const OptionSpec* match = nullptr;
    for (const OptionSpec& s : c.options)
      if (keywd_cmp(argv[i], s.name)) match = &s;
    if (match == nullptr) PK_FATAL("unknown option '%s' of pickora-image %s (see --help)", argv[i], c.name);
    if (i + 1 >= argc) PK_FATAL("option %s needs a value", argv[i]);
    o[match->name] = argv[++i];
  }
  for (const OptionSpec& s : c.options)
    if (o.count(s.name) == 0) PK_FATAL("pickora-image %s needs --%s (see --help)", c.name, s.name);
  return o;
}

int run_command_line(int argc, char** argv) {
  const std::vector<Subcommand> all = subcommands();
  if (argc < 2 || is_keywd_help(argv[1])) {
    print_overview(all);
    return 0;
  }
  for (const Subcommand& c : all) {
    if (std::string(argv[1]) != c.name) continue;
    for (int i = 2; i < argc; ++i)
      if (is_keywd_help(argv[i])) {
        print_help(c);
        return 0;
      }
    return c.run(parse(c, argc, argv));
  }
  PK_FATAL("unknown subcommand '%s' (see pickora-image --help)", argv[1]);
}

}  // namespace

int main(int argc, char** argv) { return report_run_main(run_command_line, argc, argv); }
