// pickora-simulate: synthetic micrographs with known particles, for tests, demos and
// benchmarks of the picker. Independent of the picker's own code, so that it can check it.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cuda_general/report.h"
#include "txt_file/number_options.h"
#include "sim_output.h"
#include "sim_scene.h"

namespace {

void print_usage() {
  std::printf(
      "Usage: pickora-simulate [options]\n"
      "Writes simulated micrographs (MRC mode 2) with particles at known positions and angles,\n"
      "the template stack they were made from, and per micrograph the ground truth.\n"
      "\n"
      "Output, in the folder --out:\n"
      "  PREFIX_0000.mrc          the micrograph: smooth background, contamination, noise of sigma 1,\n"
      "                           particles subtracted (dark, as in cryo images)\n"
      "  PREFIX_0000_truth.star   _rlnCoordinateX/Y (pixels), _rlnAnglePsi (degrees), _rlnClassNumber\n"
      "                           (template number from 0)\n"
      "  PREFIX_0000_areas.txt    contamination areas: lines 'disc CX CY R' or 'polygon N X1 Y1 ...'\n"
      "  templates.mrcs           one bright template per view, at the template pixel size\n"
      "\n"
      "Options (value after a space):\n"
      "  --out DIR            output folder, created if needed (sim)\n"
      "  --prefix NAME        micrograph name prefix (mic)\n"
      "  --n N                number of micrographs (1)\n"
      "  --size N             both sides in pixels (1024); --nx N, --ny N for each side\n"
      "  --apix A             micrograph pixel size in Angstrom (1.5)\n"
      "  --apix_t A           template pixel size in Angstrom (that of the micrographs)\n"
      "  --diameter A         particle diameter in Angstrom (150)\n"
      "  --templates N        number of views, each an asymmetric shape (3)\n"
      "  --particles N        particles per micrograph; 0 fills about a third of the area (0)\n"
      "  --min_dist A         least distance between particle centres in Angstrom (the diameter)\n"
      "  --edge A             least distance of a centre from the image edge in Angstrom (the diameter)\n"
      "  --snr S              particle power over noise power inside the particle disc (0.1)\n"
      "  --lobe_width W       scale of the widths of the shape's lobes; below 1 gives finer detail (1)\n"
      "  --bg S               RMS of the smooth background, in noise sigmas (1)\n"
      "  --contamination 0|1  ice blobs and carbon edge (1)\n"
      "  --ice N              ice blobs, alternately dark and bright (2)\n"
      "  --ice_amp S          ice contrast in noise sigmas (4)\n"
      "  --carbon 0|1         a carbon edge across one side (1)\n"
      "  --carbon_step S      mean step onto the carbon in noise sigmas (1.5)\n"
      "  --carbon_noise F     noise sigma on the carbon relative to the ice (1.8)\n"
      "  --seed N             random seed; the same seed gives the same bytes (1)\n"
      "  --help               this text\n");
}

// Applies one option with its value; false if the name is unknown.
bool apply_option(SimParams& p, const std::string& name, const char* o, const char* v) {
  constexpr int kMaxSide = 65536;
  if (name == "out") p.out_dir = v;
  else if (name == "prefix") p.prefix = v;
  else if (name == "n") p.count = parse_int(o, v, 1, 1000000);
  else if (name == "size") p.nx = p.ny = parse_int(o, v, 16, kMaxSide);
  else if (name == "nx") p.nx = parse_int(o, v, 16, kMaxSide);
  else if (name == "ny") p.ny = parse_int(o, v, 16, kMaxSide);
  else if (name == "apix") p.apix = parse_positive(o, v);
  else if (name == "apix_t") p.apix_t = parse_positive(o, v);
  else if (name == "diameter") p.diameter_A = parse_positive(o, v);
  else if (name == "templates") p.templates = parse_int(o, v, 1, 1000);
  else if (name == "particles") p.particles = parse_int(o, v, 0, 10000000);
  else if (name == "min_dist") p.min_dist_A = parse_positive(o, v);
  else if (name == "edge") p.edge_A = parse_non_negative(o, v);
  else if (name == "snr") p.snr = parse_positive(o, v);
  else if (name == "lobe_width") p.lobe_width = parse_positive(o, v);
  else if (name == "bg") p.bg_rms = parse_non_negative(o, v);
  else if (name == "contamination") p.contamination = parse_int(o, v, 0, 1) != 0;
  else if (name == "ice") p.ice = parse_int(o, v, 0, 1000);
  else if (name == "ice_amp") p.ice_amp = parse_non_negative(o, v);
  else if (name == "carbon") p.carbon = parse_int(o, v, 0, 1) != 0;
  else if (name == "carbon_step") p.carbon_step = parse_number(o, v);
  else if (name == "carbon_noise") p.carbon_noise = parse_non_negative(o, v);
  else if (name == "seed") p.seed = static_cast<uint64_t>(parse_int(o, v, 0, 2147483647));
  else return false;
  return true;
}

SimParams parse_command_line(int argc, char** argv) {
  SimParams p;
  for (int i = 1; i < argc; ++i) {
    const char* o = argv[i];
    std::string name = o;
    if (name == "-h" || name == "--help" || name == "-help") {
      print_usage();
      report_exit(0);  // asked for the usage only: ends the run with success
    }
    if (name.rfind("--", 0) != 0) PK_FATAL("unexpected argument '%s' (see --help)", o);
    name = name.substr(2);
    if (i + 1 >= argc) PK_FATAL("option %s needs a value", o);
    if (!apply_option(p, name, o, argv[++i])) PK_FATAL("unknown option '%s' (see --help)", o);
  }
  if (p.diameter_px() < 4) PK_FATAL("the particle is %.2f pixels wide; it must be at least 4", p.diameter_px());
  if (p.diameter_A / p.template_apix() < 4) PK_FATAL("the template pixel size leaves fewer than 4 pixels across the particle");
  if (p.diameter_px() > std::min(p.nx, p.ny)) PK_FATAL("the particle does not fit into a %d x %d micrograph", p.nx, p.ny);
  return p;
}

std::string micrograph_stem(const SimParams& p, int mic) {
  char number[32];
  std::snprintf(number, sizeof number, "_%04d", mic);
  return p.out_dir + "/" + p.prefix + number;
}

void simulate_one(const SimParams& p, int mic, const ParticleImages& images, std::vector<float>& image) {
  const auto start = std::chrono::steady_clock::now();
  const SimScene scene = plan_scene(p, mic);
  render_micrograph(p, mic, scene, images, image.data());
  const std::string stem = micrograph_stem(p, mic);
  write_mrc_with_pixel_size(stem + ".mrc", image.data(), p.nx, p.ny, 1, p.apix);
  write_truth_star(stem + "_truth.star", p, scene);
  write_areas_file(stem + "_areas.txt", scene);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%s.mrc  %d x %d  particles %zu  contamination areas %zu  %.2f s\n", stem.c_str(), p.nx, p.ny,
              scene.particles.size(), scene.areas.size(), seconds);
  if (p.particles > 0 && static_cast<int>(scene.particles.size()) < scene.wanted)
    PK_WARNING(" only %zu of %d particles fit into %s.mrc; lower --particles or --min_dist", scene.particles.size(),
               scene.wanted, stem.c_str());
}

}  // namespace

static int run_tool(int argc, char** argv) {
  const SimParams p = parse_command_line(argc, argv);
  std::error_code ec;
  std::filesystem::create_directories(p.out_dir, ec);
  if (ec) PK_FATAL("cannot create the folder '%s': %s", p.out_dir.c_str(), ec.message().c_str());
  const std::string stack = p.out_dir + "/templates.mrcs";
  const int side = write_template_stack(stack, p);
  std::printf("%s  %d templates of %d x %d at %.4f A/pixel; particle %.1f pixels in the micrographs\n",
              stack.c_str(), p.templates, side, side, p.template_apix(), p.diameter_px());
  const ParticleImages images = make_particle_images(p);
  std::vector<float> image(static_cast<size_t>(p.nx) * p.ny);
  for (int mic = 0; mic < p.count; ++mic) simulate_one(p, mic, images, image);
  return 0;
}

int main(int argc, char** argv) { return report_run_main(run_tool, argc, argv); }
