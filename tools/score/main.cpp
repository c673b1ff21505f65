// pickora-score: compares picks with the truth of simulated micrographs and prints precision,
// recall, F1, picks inside contamination and the share of correct in-plane angles.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cuda_general/report.h"
#include "txt_file/number_options.h"
#include "score_io.h"
#include "score_match.h"

namespace {

struct ScoreOptions {
  double radius_px = 0;  // 0: half the diameter named in each truth file
  double psi_tolerance_deg = 10;
  std::string dir;
  std::string picks_suffix = "_pickora.star";
  std::vector<std::string> files;  // PICKS TRUTH pairs
};

void print_usage() {
  std::printf(
      "Usage: pickora-score [options] PICKS TRUTH [PICKS TRUTH ...]\n"
      "       pickora-score [options] --dir FOLDER\n"
      "Matches picks (.star or .box, as the picker writes them) one-to-one with the truth of\n"
      "pickora-simulate, nearest pairs first, and prints per micrograph and in total: precision,\n"
      "recall, F1, the picks inside contamination areas and, where the picks carry psi, the share\n"
      "of matched picks whose psi lies within the tolerance of the truth. The last line holds\n"
      "the totals as key=value pairs.\n"
      "\n"
      "  --dir FOLDER         every STEM_truth.star of the folder with STEM + the picks suffix\n"
      "  --picks_suffix S     suffix of the picks files with --dir (_pickora.star)\n"
      "  --radius PX          match radius in pixels (half the diameter in the truth file)\n"
      "  --psi_tol DEG        psi tolerance in degrees (10)\n"
      "  --help               this text\n"
      "Contamination areas come from STEM_areas.txt beside each STEM_truth.star.\n");
}

ScoreOptions parse_command_line(int argc, char** argv) {
  ScoreOptions o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "-h" || a == "--help" || a == "-help") {
      print_usage();
      report_exit(0);  // asked for the usage only: ends the run with success
    }
    if (a.rfind("--", 0) != 0) {
      o.files.push_back(a);
      continue;
    }
    if (i + 1 >= argc) PK_FATAL("option %s needs a value", argv[i]);
    const char* v = argv[++i];
    if (a == "--dir") o.dir = v;
    else if (a == "--picks_suffix") o.picks_suffix = v;
    else if (a == "--radius") o.radius_px = parse_non_negative(argv[i - 1], v);
    else if (a == "--psi_tol") o.psi_tolerance_deg = parse_non_negative(argv[i - 1], v);
    else PK_FATAL("unknown option '%s' (see --help)", a.c_str());
  }
  if (o.files.size() % 2 != 0) PK_FATAL("files come in pairs, PICKS TRUTH; %zu given", o.files.size());
  if (o.files.empty() && o.dir.empty()) PK_FATAL("nothing to score: give PICKS TRUTH pairs or --dir (see --help)");
  return o;
}

std::vector<ScoreFileSet> collect_file_sets(const ScoreOptions& o) {
  std::vector<ScoreFileSet> sets;
  if (!o.dir.empty()) sets = file_sets_from_folder(o.dir, o.picks_suffix);
  for (size_t i = 0; i + 1 < o.files.size(); i += 2)
    sets.push_back(ScoreFileSet{o.files[i + 1], o.files[i], o.files[i + 1], areas_for_truth(o.files[i + 1])});
  if (sets.empty()) PK_FATAL("no truth files found in '%s'", o.dir.c_str());
  return sets;
}

double radius_for(const ScoreOptions& o, const ScoreFileSet& s) {
  if (o.radius_px > 0) return o.radius_px;
  const double d = truth_diameter_px(s.truth);
  if (d <= 0) PK_FATAL("%s names no particle diameter; give --radius", s.truth.c_str());
  return 0.5 * d;
}

void print_counts(const char* name, const ScoreCounts& c) {
  std::printf("%-32s %6ld %6ld %6ld %6ld %6ld  %6.4f %6.4f %6.4f %7ld", name, c.truth, c.picks, c.tp, c.fp, c.fn,
              precision_of(c), recall_of(c), f1_of(c), c.in_contamination);
  if (c.psi_checked > 0) std::printf("  %6.4f\n", double(c.psi_ok) / c.psi_checked);
  else std::printf("  %6s\n", "-");
}

ScoreCounts score_one(const ScoreOptions& o, const ScoreFileSet& s) {
  bool truth_psi = false, picks_psi = false;
  const std::vector<ScorePoint> truth = read_coordinate_file(s.truth, &truth_psi);
  std::vector<ScorePoint> picks;
  if (!s.picks.empty()) picks = read_coordinate_file(s.picks, &picks_psi);
  std::vector<ContaminationArea> areas;
  if (!s.areas.empty()) read_contamination_areas(s.areas.c_str(), areas);
  return score_picks(picks, truth, areas, radius_for(o, s), truth_psi && picks_psi, o.psi_tolerance_deg);
}

}  // namespace

static int run_tool(int argc, char** argv) {
  const ScoreOptions o = parse_command_line(argc, argv);
  const std::vector<ScoreFileSet> sets = collect_file_sets(o);
  std::printf("%-32s %6s %6s %6s %6s %6s  %6s %6s %6s %7s  %6s\n", "micrograph", "truth", "picks", "tp", "fp", "fn",
              "prec", "recall", "f1", "in_cont", "psi_ok");
  ScoreCounts total;
  for (const ScoreFileSet& s : sets) {
    const ScoreCounts c = score_one(o, s);
    print_counts(s.name.c_str(), c);
    add_counts(total, c);
  }
  print_counts("total", total);
  std::printf("score: micrographs=%zu truth=%ld picks=%ld tp=%ld fp=%ld fn=%ld precision=%.4f recall=%.4f f1=%.4f "
              "in_contamination=%ld psi_checked=%ld psi_ok=%ld",
              sets.size(), total.truth, total.picks, total.tp, total.fp, total.fn, precision_of(total),
              recall_of(total), f1_of(total), total.in_contamination, total.psi_checked, total.psi_ok);
  if (total.psi_checked > 0) std::printf(" psi_fraction=%.4f\n", double(total.psi_ok) / total.psi_checked);
  else std::printf(" psi_fraction=na\n");
  return 0;
}

int main(int argc, char** argv) { return report_run_main(run_tool, argc, argv); }
