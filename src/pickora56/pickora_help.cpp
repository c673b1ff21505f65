// The usage text, the full help with all tips, and the tip printed after every finished run.
#include "pickora56/pickora_help.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "cuda_general/report.h"

const char pickora_version[] = "v0.56";
const char pickora_updated_date[] = "2017-07-30";

const char* const PICKORA_ALL_TIPS[PICKORA_NTIPS] = {
    "\033[1m Tips\033[m: Better to run it outside the Micrographs/ directory to match typical Relion "
    "style.\n",
    "\033[1m Tips\033[m: About CTF: It is perfectly fine to use raw micrograph(before CTF correction) "
    "for particle picking since 30~50Å is sufficient to auto-pick the particles. \n        Usually for "
    "the micrograph with defocus around 2-5µm, the first 'zero-node' is around 20~30Å; So it is not "
    "useful to do CTF correction in general.\n        However, you can use 'Sorrel' to automatically "
    "determine CTF and flip the phases before picking so that you can use up to 6-8Å resolution for "
    "picking. \n        Fully CTF correction on micrograph or applying full CTF on templates is not "
    "suggested, because these operation is normally targeting for high resolution.\n        Since "
    "particle picking is basically 'low-resolution' operation, much higher resolution will usually "
    "introduce more false picking and template-bias, known as the so-called 'Einstein noise'.\n",
    "\033[1m Tips\033[m: About '--dont_invertT' option: This option is very important! By default, the "
    "program will invert the 'white' templates to 'black' before picking.\n        This is because our "
    "cryoEM micrographs are usually 'black' and 2D averages are 'white'. \n        Specify "
    "'--dont_invertT' to avoid the contrast conversion if your micrographs and templates have the same "
    "contrast(either black or white). \n        NOTE that the auto-generated templates is ALWAYS 'white' "
    "Guassian blob, so for 'black' cryoEM, you should use use default. \n        For 'negative stain' "
    "+'auto-templates', you should specify '--dont_invertT' so that the auto-generated templates and "
    "micrographs are both 'white'.\n",
    "\033[1m Tips\033[m: About '--speed' option: Suggested 2 for >1 MDa complex; 1 for <500 kD complex; "
    "1 or 2 for 500~1000 kD; \n        0 not suggested, because the 'accuracy' is simply fitting noise, "
    "unless for special noise-free micrographs;\n        use 3 for huge virus, but 2 still preferred; "
    "probably do not use 4 at all, not accurate in general.\n",
    "\033[1m Tips\033[m: About '--lsigma_cutoff' option: normally a value >1.2 will be ice, protein "
    "aggregation or contamination, any pixel above that will be considered as non-particle; relative "
    "value to the global sigma, so do not worry about the absolute microgaph pixle values\n",
    "\033[1m Tips\033[m: About '--lp --hp' options: This option is only applied to micrograph; The "
    "templates will be exactly the same as the user provided.\n        It is highly suggested to "
    "low-pass your templates to ~20~50Å by yourself before picking.\n        Use --do_pre_filter and "
    "--pre_lp --pre_hp to get rid of the effect of gradient ice. Usually --pre_hp ~1000-500Å is good. \n "
    "       Do not use too low resolution for --pre_lp; it may affect ice/contamination detection. The "
    "true low-pass will be performed later using --lp.\n",
    "\033[1m Tips\033[m: About \033[1m '--exclusive_picking'\033[m: So in which case is this option "
    "useful? \n        (1) Another cycle of auto-picking after 2D classification:\n            In this "
    "case, usually you are pretty sure that some of the particles are completely rubbish, it will be "
    "much better to exclude them during picking. \n        (2) picking for partial structure:\n          "
    "  Sometimes, you might have two/multiple－domain complex, e.g. dynein,  one is severely dominant and "
    "affect the picking of the other(the rest). \n            If you want to focused on another domain, "
    "it might be quite helpful to exclude 'good' particles from 2D classification.\n        (3) Strong "
    "orientation preference:\n            If your templates were severely biased and mainly picked the "
    "preferred views, then it might be nice to exclude the preferred  views and focused on rare views.\n "
    "       (4) Detector defects:\n            Occasionally people might have a problem of detector "
    "defects, e.g. a black/white stripe, --exclusive_picking will help to get rid of these bad areas\n   "
    "         Apart from \033[1m'--exclusive_picking'\033[m and \033[1m'--excluded_suffix'\033[m, the "
    "\033[1m'--global_excluded_box'\033[m option is helpful to solve these detector issue by providing a "
    "simple box file.\n ",
    "\033[1m Tips\033[m: About '--T_norm_type' option: Please try type 3, if type 2 and 1 does not work "
    "well. \n           This issue usually occurs when the user has created a special volume with very "
    "sharp edge or too high contrast.            By using --T_norm_type, you can then try to use a "
    "bigger --m_edge_ratio to make the edge much smoother, e.g. 0.3-0.5, by default it is 0.1  \n"
    // The last tip also points to the short manual.
    "        A brief manual: README.md in the pickora source tree tells how to build, run and test the "
    "program.\n",
    "",
};

namespace {

// An entry with the program name in it brings its own line ends; any other entry gets one.
enum EntryKind { kLine, kWithName };

struct UsageEntry {
  EntryKind kind;
  const char* text;
};

// The options part of the usage text, after the "Options:" line.
const UsageEntry kUsageOptions[] = {
    {kLine, "Basic options:    default values,    description:  "},
    {kLine, "      --apixM          1.34          Pixel size of the micrograph, in angstrom"},
    {kLine, "      --diameter       400           Particle diameter, in angstrom;"},
    {kLine, "      --T              NONE          Particle picking templates in 2D MRC stack; must provide the "
     "correct pixel size if not the same as micrograph; auto-generated if not provided; "},
    {kLine, "      --apixT          1.34          Pixel size of the templates, in angstrom; will be the same as "
     "--apixM if not set.\n"},
    {kLine, "Additional options(not suggested, only try to optimize in difficult cases), default values and "
     "description:  "},
    {kLine, "      --ang_step       5             Angular step size for picking, invalid for auto-templates"},
    {kLine, "      --speed          2             Speed level {0,1,2,3,4}, the bigger the faster, but less "
     "accurate. "},
    {kLine, "      --boxsize        128           Box size, in pixel, NOT in angstrom; a suggested value will be "
     "automatically calculated by --diameter and --apixM "},
    {kLine, "      --min_dist       300           Minimum distance between particles in angstrom; 0.9~1.1X "
     "diameter; can be 0.3~0.5 for filament-like particle"},
    {kLine, "      --cc_cutoff      0.1           Cross-correlation cutoff, 0.2~0.4 normally; Try to select "
     "several typical micrographs to optimize this value.\n                                     "
     "Alternatively, it will be even faster if you use a small value, e.g. 0.1, first and then use "
     "'box_filter.com' or 'box_filter2rl.com' to filter the box files afterwards."},
    {kLine, "      --lsigma_D       200           Diameter for estimation of local sigma, in angstrom"},
    {kLine, "      --lsigma_cutoff  1.3           Local sigma cutoff (relative value), 1.2~1.5 should be a good "
     "range; normally a value >1.2 will be ice, protein aggregation or contamination"},
    {kLine, "      --lave_D         400           Diameter for estimation of local average, in angstrom, "
     "0.5~2.0X particle diameter suggested; \n                                     However, if you have "
     "'sharp'/'small' ice or any 'dark'/'bright' dots, use a smaller value will be much better to get rid "
     "of these areas."},
    {kLine, "      --lave_max       2.0           Local average cutoff (relative value), any pixel value above "
     "that will be considered as ice/aggregation/carbon etc. "},
    {kLine, "      --lave_min      -1.0           Local average cutoff (relative value), any pixel value below "
     "that will be considered as ice/aggregation/carbon etc.\n                                     For "
     "'black' cryoEM micrograph, set this to very small value e.g. -10.0 will not reject any 'black' dots "
     "in general."},
    {kLine, "      --lp             30            Low-pass filter to increase the contrast of raw micrographs, "
     "suggested range 20~50Å. This low-pass is after ice/aggregation detection."},
    {kLine, "      --hp             1000          High-pass filter to get rid of the global background of raw "
     "micrographs, suggested range 200~2000Å. This high-pass is after ice/aggregation detection."},
    {kLine, "      --do_pre_filter                Specify to get rid of severely gradient background before "
     "ice/aggregation/carbon detection. This is not normally suggested because it might affect ice/carbon "
     "detection."},
    {kLine, "      --pre_lp         8.0           The same as --lp, but before the ice/contamination detection, "
     "might be better in severely gradient ice. \n                                     Does not matter to "
     "use both --lp and --pre_lp, but suggested to use much smaller --pre_lp for better ice/contamination "
     "detection. "},
    {kLine, "      --pre_hp         1000          The same as --hp, but before the ice/contamination detection, "
     "might be better in severely gradient ice. \n                                     Otherwise, do not "
     "use --pre_hp or use a very big value."},
    {kLine, "      --detect_ice     1             Specify 0 to avoid ice/aggregation/carbon detection."},
    {kLine, "      --T_norm_type    1             Specify the type of Template normalization, 1, 2 or 3 allowed."},
    {kLine, "      --m_edge_ratio   0.1           The ratio of the soft edge that gradually falls down to zero."},
    {kLine, "      --do_bandpass    1             Specify 0 to skip the bandpass; By default it will do bandpass "
     "filter."},
    {kLine, "CTF options(not effective in this verion): "},
    {kLine, "      --do_ctf                       Specify this option to do CTF determination and correction for "
     "better picking"},
    {kLine, "      --do_local_ctf                 Specify this option to do local CTF determination and "
     "correction for each picked particle"},
    {kLine, "      --kV             300           High tension in Kilovolt, typically 300, 200 or 120"},
    {kLine, "      --cs             2.7           Spherical aberration, in  millimeter"},
    {kLine, "      --ac             0.1           Amplitude contrast; normal range 0.04~0.1; pure ice 0.04, "
     "carbon 0.1; but doesn't matter too much if using wrong value\n"},
    {kLine, "I/O options:  "},
    {kLine, "      --write_ccmax_mic              Specify to write out cross-correlation files, in MRC stack"},
    {kLine, "      --write_pf_mic                 Specify to write out phase-flipped(pf) micrographs(mic)"},
    {kLine, "      --write_pref_mic               Specify to write out pre-filted(pref) micrographs(mic)"},
    {kLine, "      --write_bg_mic                 Specify to write out estimated background(bg) of the "
     "micrographs(mic)"},
    {kLine, "      --write_bgfree_mic             Specify to write out background subtracted (bgfree) "
     "micrographs(mic)"},
    {kLine, "      --write_lsigma_mic             Specify to write out local sigma (lsigma) micrographs(mic)"},
    {kLine, "      --write_mic_mask               Specify to write out the auto-detected mask (ice, "
     "contamination, aggregation, carbon edge etc.) by --lsigma_cutoff or --lave_max or --lave_max "},
    {kLine, "      --exclusive_picking            Specify to pick the particles by pre-defined coordinates that "
     "will be excluded. \n                                     This is useful, when you have done 2D "
     "classification and provide the rubbish particles that Pickora will automatically exclude"},
    {kLine, "      --excluded_suffix              The suffix of coordinates to be excluded. Relion .star and "
     "EMAN .box file are both accepted, extended .box file format in Pickora preferred.\n                 "
     "                    For example, if --excluded_suffix _rubbish.box is provided for mic0002.mrc, "
     "then Pickora will try to find mic0002_rubbish.box and exclude them during picking."},
    {kLine, "      --mask_excluded                Specify this option to mask out the excluded coordinates so "
     "that it will nerve be taken into account in any step of processing, even not in the normalization "
     "step.\n                                     This is helpful if the artifacts are extremely "
     "different from normal area of the micrographs."},
    {kLine, "      --global_excluded_box    NONE  Provide a coordinate .box/.star file to exclude these special "
     "coordinates completely from all micrographs before any processing.\n                                "
     "     So generally, these area will not involve in normalization, ice/aggregation/carbon detection. "
     "They are completely gone.\n                                     Note, the --excluded_suffix option "
     "is used for individual files."},
    {kLine, "      --do_unfinished                Specify to autopick the unfinished micrographs"},
    {kLine, "      --dont_invertT                 Whether to invert template contrast. VERY IMPORTANT!!! By "
     "default, the program will invert the 'white' templates to 'black' before picking.\n                 "
     "                    specify this option to avoid contrast inversion if the micrographs and "
     "templates have the same contrast"},
    {kLine, "      --extract_raw                  Specify to extract particle from raw micrograph"},
    {kLine, "      --extract_pf                   Specify to extract particle from phase-flipped micrograph; "
     "will write a new stack and will not overwrite raw particle stack"},
    {kLine, "      --gid                   0      GPU id, normally it's 0, use gpu_info to get information of "
     "all available GPUs.\n"},
    {kWithName, "Example:\n         %s --apixM 1.58  --diameter 300   Micrographs/Falcon*.mrc (auto-generated "
     "templates for 'black' cryoEM micrograph)\n"},
    {kWithName, "         %s --apixM 1.08  --diameter 300  -T  templates.mrcs  --apixT 2.16  Micrographs/Falcon*.mrc "
     "(for 'white' templates and 'black' micrograph \n"},
    {kWithName, "         %s --apixM 1.08  --diameter 300  -T  templates.mrcs  --apixT 3.2  --dont_invertT  "
     "Micrographs/Falcon*.mrc (for 'black' templates and 'black' micrograph)\n"},
    {kWithName, "         %s --apixM 1.08  --diameter 300  --boxsize 360   --write_bgfree_mic  --write_lsigma_mic "
     "--extract_raw  --write_ccmax Micrographs/Falcon*.mrc  (suggested for manual diagnosis using the "
     "different types of output micrographs) \n"},
    {kWithName, "         %s   test?.mrc --apixM 1.34 --diameter 400 --min_dist 240 --T templates_lp40_3.2A.mrcs "
     "--write_pref_mic --lsigma_cutoff 1.2 --cc_cutoff 0.18 --lave_D 80 --lave_min -0.8 --lave_max 1.2  "
     "--exclusive_picking --excluded_suffix _rubbish.star --mask_excluded --write_ccmax_mic "
     "--write_pf_mic --write_pref_mic --write_bg_mic --write_bgfree_mic --write_lsigma_mic "
     "--write_mic_mask --extract_raw --do_pre_filter 1 --pre_lp 10  --pre_hp 1000 --lp 40 --boxsize 432 \n"},
    {kLine, "      --help                         Print full help document"},
};

void print_rule(char c, int n) {
  for (int i = 0; i < n; ++i) std::putchar(c);
  std::putchar('\n');
}

void print_usage_head(const char* name) {
  print_rule('*', 99);
  std::printf("Version:       %s %s, updated on %s\n", name, pickora_version, pickora_updated_date);
  std::printf("Manual:        README.md in the pickora source tree (building, running, testing)\n");
  std::printf("Contact:       please report problems and questions on the project's issue tracker\n");
  std::printf("Description:   This is a GPU accelerated program for fully automatic particle picking.\n");
  std::printf("Note:          Still under development, to be released soon ...\n");
  print_rule('*', 99);
  std::printf("Usage:\n");
  std::printf("         %s [options] <micrographs>  \n\n", name);
  std::printf("Options:\n");
}

}  // namespace

void pickora_help(char* name) {
  print_usage_head(name);
  for (const UsageEntry& entry : kUsageOptions) {
    if (entry.kind == kWithName)
      std::printf(entry.text, name);
    else
      std::printf("%s\n", entry.text);
  }
  std::fflush(stdout);
}

void pickora_help_full(char* name) {
  pickora_help(name);
  print_rule('-', 127);
  for (const char* tip : PICKORA_ALL_TIPS) std::printf("%s\n", tip);
  print_rule('-', 127);
  std::fflush(stdout);
}

void pickora_help_exit(char* name, const char* message) {
  (void)message;  // the usage text says it all; the reason is the caller's to document
  pickora_help(name);
  report_exit(1);
}

int pickora_tip_index(long seconds) {
  std::srand(static_cast<unsigned>(seconds));
  return std::rand() % PICKORA_NTIPS;
}

void pickora_put_one_random_tip() {
  const int index = pickora_tip_index(static_cast<long>(std::time(nullptr)));
  print_rule('-', 127);
  std::fputs(PICKORA_ALL_TIPS[index], stdout);
  print_rule('-', 127);
  std::fflush(stdout);
}
