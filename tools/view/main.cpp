// pickora-view: a PNG picture of a micrograph with the picker's results on it: picks circled,
// rejected cells shaded, contamination areas outlined, and a correlation map beside it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "../common/contamination_areas.h"
#include "txt_file/number_options.h"
#include "boxfile/ptcl_box.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "txt_file/txt_file.h"
#include "view_picture.h"
#include "view_png.h"

namespace {

constexpr Rgb kPickColour{40, 255, 40};
constexpr Rgb kContaminatedPickColour{255, 60, 255};
constexpr Rgb kRejectedColour{255, 30, 30};
constexpr double kRejectedAlpha = 0.35;
constexpr Rgb kAreaColour{0, 180, 255};
constexpr Rgb kGapColour{255, 255, 255};
constexpr double kLowPercentile = 0.01, kHighPercentile = 0.99;
constexpr double kMapHighPercentile = 0.999;  // score maps: only the peaks saturate

struct ViewOptions {
  std::string micrograph, out, picks, rejected, areas, ccmap;
  double diameter_A = 0, apix = 0, radius_px = 0;
  int max_size = 1024;
};

void print_usage() {
  std::printf(
      "Usage: pickora-view [options] MICROGRAPH.mrc\n"
      "Draws the micrograph (its first section) as a PNG picture: block means down to --max_size,\n"
      "contrast stretched from the 1st to the 99th percentile, row 0 at the top. On it:\n"
      "  picks (--picks)            green circles of the particle diameter, magenta inside\n"
      "                             a contamination area\n"
      "  rejected cells (--rejected) shaded red\n"
      "  contamination (--areas)    outlined in blue\n"
      "and a correlation map (--ccmap) beside it, scaled to the same height, black to white\n"
      "through blue, red and yellow.\n"
      "\n"
      "  --out FILE.png      the picture (STEM.png beside the micrograph)\n"
      "  --picks FILE        picks, a _pickora.star or .box file (micrograph pixels)\n"
      "  --rejected FILE     rejected cells, a _rejected.box file\n"
      "  --areas FILE        contamination areas of pickora-simulate (_areas.txt)\n"
      "  --ccmap FILE        a map to show beside the micrograph, e.g. _ccmaxZ.mrc\n"
      "  --diameter A        particle diameter in Angstrom, for the circles\n"
      "  --apix A            micrograph pixel size in Angstrom (from the MRC head)\n"
      "  --radius_px R       circle radius in micrograph pixels, instead of --diameter\n"
      "  --max_size N        longest side of the micrograph panel in pixels (1024)\n"
      "  --help              this text\n");
}

ViewOptions parse_command_line(int argc, char** argv) {
  ViewOptions o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "-h" || a == "--help" || a == "-help") {
      print_usage();
      report_exit(0);  // asked for the usage only: ends the run with success
    }
    if (a.rfind("--", 0) != 0) {
      if (!o.micrograph.empty()) PK_FATAL("one micrograph at a time: '%s' and '%s'", o.micrograph.c_str(), argv[i]);
      o.micrograph = a;
      continue;
    }
    if (i + 1 >= argc) PK_FATAL("option %s needs a value", argv[i]);
    const char* v = argv[++i];
    if (a == "--out") o.out = v;
    else if (a == "--picks") o.picks = v;
    else if (a == "--rejected") o.rejected = v;
    else if (a == "--areas") o.areas = v;
    else if (a == "--ccmap") o.ccmap = v;
    else if (a == "--diameter") o.diameter_A = parse_positive(argv[i - 1], v);
    else if (a == "--apix") o.apix = parse_positive(argv[i - 1], v);
    else if (a == "--radius_px") o.radius_px = parse_positive(argv[i - 1], v);
    else if (a == "--max_size") o.max_size = static_cast<int>(std::fmin(parse_positive(argv[i - 1], v), 1 << 16));
    else PK_FATAL("unknown option '%s' (see --help)", a.c_str());
  }
  if (o.micrograph.empty()) PK_FATAL("no micrograph given (see --help)");
  if (o.max_size < 16) PK_FATAL("--max_size must be at least 16");
  if (o.out.empty()) {
    char name[1024];
    mrcf_set_outname_by_suffix(name, o.micrograph.c_str(), ".png");
    o.out = name;
  }
  return o;
}

// The first section of an MRC file and its pixel size from the head (0 if the head has none).
struct Micrograph {
  int nx = 0, ny = 0;
  double apix = 0;
  std::unique_ptr<float, decltype(&std::free)> data{nullptr, &std::free};
};

Micrograph read_first_section(const std::string& path) {
  Micrograph m;
  MRC_HEAD head;
  mrcf_read_head(path.c_str(), &head);
  int nz = 0;
  get_mrc_head_xyz(m.nx, m.ny, nz, &head);
  if (m.nx <= 0 || m.ny <= 0 || nz <= 0) PK_FATAL("'%s' holds no image (%d x %d x %d)", path.c_str(), m.nx, m.ny, nz);
  if (head.mx > 0 && head.xlen > 0) m.apix = static_cast<double>(head.xlen) / head.mx;
  m.data.reset(mrcf_get_data_sliceN(path.c_str(), 0));
  return m;
}

std::vector<PTCL_BOX> read_boxes(const std::string& path) {
  std::FILE* fp = PK_FOPEN_READ_OR_EXIT(path.c_str());
  int lines = 1;
  for (int c; (c = std::fgetc(fp)) != EOF;)
    if (c == '\n') ++lines;
  std::fclose(fp);
  std::vector<PTCL_BOX> boxes(static_cast<size_t>(lines));
  boxes.resize(static_cast<size_t>(read_all_ptcl_boxes(boxes.data(), lines, path.c_str())));
  return boxes;
}

// Micrograph pixels to panel coordinates, a pixel's centre to the centre of the block it fell in.
struct PanelScale {
  double s;
  double at(double mic) const { return (mic + 0.5) * s; }
};

Picture micrograph_panel(const Micrograph& m, int factor) {
  const FloatImage small = block_means(m.data.get(), m.nx, m.ny, factor);
  return grey_picture(small, finite_percentile(small.v, kLowPercentile), finite_percentile(small.v, kHighPercentile));
}

double line_width(const Picture& p) { return std::fmax(1.0, std::round(std::fmax(p.width, p.height) / 400.0)); }

// The first panel pixel whose centre lies at or after coordinate a, held to 0 .. hi.
int first_centre_from(double a, int hi) { return static_cast<int>(std::clamp(std::ceil(a - 0.5), 0.0, double(hi))); }

// Shades every panel pixel whose centre lies in one of the boxes; overlapping boxes tint once.
int shade_rejected(Picture& p, const std::string& path, PanelScale sc) {
  if (get_boxf_suffixf(path.c_str()) != 2) PK_FATAL("rejected cells come from a .box file, not '%s'", path.c_str());
  const std::vector<PTCL_BOX> boxes = read_boxes(path);
  std::vector<bool> mask(static_cast<size_t>(p.width) * p.height, false);
  for (const PTCL_BOX& b : boxes) {
    const int x0 = first_centre_from(b.x * sc.s, p.width);
    const int x1 = first_centre_from((b.x + double(b.w)) * sc.s, p.width);
    const int y0 = first_centre_from(b.y * sc.s, p.height);
    const int y1 = first_centre_from((b.y + double(b.h)) * sc.s, p.height);
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) mask[static_cast<size_t>(y) * p.width + x] = true;
  }
  tint(p, mask, kRejectedColour, kRejectedAlpha);
  return static_cast<int>(boxes.size());
}

void outline_areas(Picture& p, const std::vector<ContaminationArea>& areas, PanelScale sc) {
  const double w = line_width(p);
  for (const ContaminationArea& a : areas) {
    if (a.is_disc) {
      draw_ring(p, sc.at(a.cx), sc.at(a.cy), a.r * sc.s, w, kAreaColour);
      continue;
    }
    for (size_t i = 0, j = a.xs.size() - 1; i < a.xs.size(); j = i++)
      draw_segment(p, sc.at(a.xs[j]), sc.at(a.ys[j]), sc.at(a.xs[i]), sc.at(a.ys[i]), w, kAreaColour);
  }
}

double pick_radius_px(const ViewOptions& o, const Micrograph& m) {
  if (o.radius_px > 0) return o.radius_px;
  const double apix = o.apix > 0 ? o.apix : m.apix;
  if (o.diameter_A <= 0) PK_FATAL("give --diameter (in Angstrom) or --radius_px to draw the picks");
  if (apix <= 0) PK_FATAL("'%s' names no pixel size in its head; give --apix", o.micrograph.c_str());
  return 0.5 * o.diameter_A / apix;
}

int circle_picks(Picture& p, const std::string& path, PanelScale sc, double radius_px,
                 const std::vector<ContaminationArea>& areas) {
  const std::vector<PTCL_BOX> boxes = read_boxes(path);
  const double w = line_width(p);
  for (const PTCL_BOX& b : boxes) {
    const int x = ptcl_box_center_x(b), y = ptcl_box_center_y(b);
    const Rgb c = any_area_contains(areas, x, y) ? kContaminatedPickColour : kPickColour;
    draw_ring(p, sc.at(x), sc.at(y), radius_px * sc.s, w, c);
  }
  return static_cast<int>(boxes.size());
}

// The map in colour at the panel's height; a map larger than that is first reduced by block means.
Picture map_panel(const std::string& path, int height) {
  const Micrograph map = read_first_section(path);
  const FloatImage small = block_means(map.data.get(), map.nx, map.ny, reduction_factor(map.nx, map.ny, height));
  const Picture p = heat_picture(small, finite_percentile(small.v, kLowPercentile),
                                 finite_percentile(small.v, kMapHighPercentile));
  return scale_to_height(p, height);
}

}  // namespace

static int run_tool(int argc, char** argv) {
  const ViewOptions o = parse_command_line(argc, argv);
  const Micrograph m = read_first_section(o.micrograph);
  const int factor = reduction_factor(m.nx, m.ny, o.max_size);
  const PanelScale sc{1.0 / factor};
  const double radius_px = o.picks.empty() ? 0 : pick_radius_px(o, m);
  Picture picture = micrograph_panel(m, factor);
  std::string drawn;
  if (!o.rejected.empty()) drawn += ", " + std::to_string(shade_rejected(picture, o.rejected, sc)) + " rejected cells";
  std::vector<ContaminationArea> areas;
  if (!o.areas.empty()) {
    read_contamination_areas(o.areas.c_str(), areas);
    outline_areas(picture, areas, sc);
    drawn += ", " + std::to_string(areas.size()) + " contamination areas";
  }
  if (!o.picks.empty()) drawn += ", " + std::to_string(circle_picks(picture, o.picks, sc, radius_px, areas)) + " picks";
  if (!o.ccmap.empty()) {
    const int gap = std::max(4, picture.width / 100);
    picture = side_by_side(picture, map_panel(o.ccmap, picture.height), gap, kGapColour);
  }
  write_png(o.out.c_str(), picture);
  std::printf("%s: %d x %d, reduced by %d%s -> %s (%d x %d)\n", o.micrograph.c_str(), m.nx, m.ny, factor,
              drawn.c_str(), o.out.c_str(), picture.width, picture.height);
  return 0;
}

int main(int argc, char** argv) { return report_run_main(run_tool, argc, argv); }
