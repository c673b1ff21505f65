// pickora-ctfsim: micrographs and movies whose contrast transfer function is known, for tests
// and benchmarks of the defocus search. The CTF is applied by the toolkit's own model; the
// specimen, background and noise are drawn from the toolkit's random source with a fixed seed.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "txt_file/number_options.h"
#include "../common/tool_files.h"
#include "ctfsim_output.h"
#include "ctfsim_params.h"
#include "ctfsim_render.h"
#include "cuda_general/report.h"
#include "random_utils/random_source.h"

namespace {

void print_usage() {
  std::printf(
      "Usage: pickora-ctfsim [options]\n"
      "Writes micrographs (or movies) of a random specimen seen through a known CTF, with a smooth\n"
      "background and white noise, and the truth beside them.\n"
      "\n"
      "Output, in the folder --out:\n"
      "  PREFIX_0000.mrc           a micrograph (MRC mode 2, pixel size in the head); with --frames\n"
      "                            above 1 a movie PREFIX_0000.mrcs of that many frames\n"
      "  PREFIX_0000_frames.star   movies only: each frame's defocus and specimen shift\n"
      "  PREFIX_truth.star         one row per image: _rlnMicrographName, _rlnDefocusU, _rlnDefocusV,\n"
      "                            _rlnDefocusAngle, _rlnVoltage, _rlnSphericalAberration,\n"
      "                            _rlnAmplitudeContrast, _rlnPhaseShift, _rlnBfactor,\n"
      "                            _rlnMicrographPixelSize, _pkDefocusGradientX/Y (A per pixel),\n"
      "                            _pkDefocusDriftPerFrame, _pkShiftX/YPerFrame, _pkNrOfFrames\n"
      "\n"
      "Ranges are LO:HI (drawn uniformly per image) or one number (fixed).\n"
      "Options (value after a space):\n"
      "  --out DIR             output folder, created if needed (ctfsim)\n"
      "  --prefix NAME         file name prefix (mic)\n"
      "  --n N                 number of images (1)\n"
      "  --size N              both sides in pixels, even (2048); --nx N, --ny N for each side\n"
      "  --apix A              pixel size in Angstrom (1.0)\n"
      "  --kv KV               voltage in kV (300)\n"
      "  --cs MM               spherical aberration in mm (2.7)\n"
      "  --ac F                amplitude contrast, -1 .. 1 (0.1)\n"
      "  --defocus RANGE       mean defocus (U + V) / 2 at the image centre, Angstrom (15000)\n"
      "  --astig RANGE         astigmatism U - V, Angstrom (0)\n"
      "  --angle RANGE         astigmatism angle in degrees, from x toward y (0)\n"
      "  --bfac RANGE          B-factor of the envelope, square Angstrom (100)\n"
      "  --phase RANGE         additional phase shift, degrees (0)\n"
      "  --grad_x G, --grad_y G  defocus gradient in Angstrom per pixel along x and y (0)\n"
      "  --grad_max G          a gradient of random size 0 .. G and random direction per image (0: off)\n"
      "  --grad_levels L       defocus levels that approximate the gradient (8)\n"
      "  --frames F            frames of a movie (1: a micrograph)\n"
      "  --drift_def D         defocus change per frame, Angstrom (0)\n"
      "  --drift_x P, --drift_y P  specimen movement per frame, pixels (0)\n"
      "  --snr S               signal power over noise power per pixel, of the summed frames (0.2)\n"
      "  --bg S                RMS of the smooth background in noise sigmas (1)\n"
      "  --seed N              random seed; the same seed gives the same bytes (1)\n"
      "  --help                this text\n");
}

int parse_even_side(const char* o, const char* v) {
  const int side = parse_int(o, v, 16, 65536);
  if (side % 2 != 0) PK_FATAL("option %s takes an even number of pixels, not %d", o, side);
  return side;
}

bool apply_option(CtfSimParams& p, const std::string& name, const char* o, const char* v) {
  if (name == "out") p.out_dir = v;
  else if (name == "prefix") p.prefix = v;
  else if (name == "n") p.count = parse_int(o, v, 1, 1000000);
  else if (name == "size") p.nx = p.ny = parse_even_side(o, v);
  else if (name == "nx") p.nx = parse_even_side(o, v);
  else if (name == "ny") p.ny = parse_even_side(o, v);
  else if (name == "apix") p.apix = parse_positive(o, v);
  else if (name == "kv") p.kv = parse_positive(o, v);
  else if (name == "cs") p.cs = parse_non_negative(o, v);
  else if (name == "ac") p.ac = parse_number(o, v);
  else if (name == "defocus") p.defocus = parse_range(o, v);
  else if (name == "astig") p.astig = parse_range(o, v);
  else if (name == "angle") p.angle = parse_range(o, v);
  else if (name == "bfac") p.bfac = parse_range(o, v);
  else if (name == "phase") p.phase = parse_range(o, v);
  else if (name == "grad_x") p.grad_x = parse_number(o, v);
  else if (name == "grad_y") p.grad_y = parse_number(o, v);
  else if (name == "grad_max") p.grad_max = parse_non_negative(o, v);
  else if (name == "grad_levels") p.grad_levels = parse_int(o, v, 1, 1000);
  else if (name == "frames") p.frames = parse_int(o, v, 1, 10000);
  else if (name == "drift_def") p.drift_def = parse_number(o, v);
  else if (name == "drift_x") p.drift_x = parse_number(o, v);
  else if (name == "drift_y") p.drift_y = parse_number(o, v);
  else if (name == "snr") p.snr = parse_positive(o, v);
  else if (name == "bg") p.bg = parse_non_negative(o, v);
  else if (name == "seed") p.seed = static_cast<uint64_t>(parse_int(o, v, 0, 2147483647));
  else return false;
  return true;
}

CtfSimParams parse_command_line(int argc, char** argv) {
  CtfSimParams p;
  for (int i = 1; i < argc; ++i) {
    const char* o = argv[i];
    std::string name = o;
    if (name == "-h" || name == "--help" || name == "-help") {
      print_usage();
      std::exit(0);
    }
    if (name.rfind("--", 0) != 0) PK_FATAL("unexpected argument '%s' (see --help)", o);
    name = name.substr(2);
    if (i + 1 >= argc) PK_FATAL("option %s needs a value", o);
    if (!apply_option(p, name, o, argv[++i])) PK_FATAL("unknown option '%s' (see --help)", o);
  }
  if (!(p.ac >= -1 && p.ac <= 1)) PK_FATAL("option --ac takes a value within -1 .. 1, not %g", p.ac);
  return p;
}

std::string image_name(const CtfSimParams& p, int index) {
  char number[32];
  std::snprintf(number, sizeof number, "_%04d", index);
  return p.out_dir + "/" + p.prefix + number + (p.frames > 1 ? ".mrcs" : ".mrc");
}

// Each image has a stream of its own, so image k is the same whatever --n says.
void seed_image(const CtfSimParams& p, int index) {
  random_source_set_seed(p.seed * 0x9e3779b97f4a7c15ULL + static_cast<uint64_t>(index) + 1);
}

int run_tool(int argc, char** argv) {
  const CtfSimParams p = parse_command_line(argc, argv);
  std::error_code ec;
  std::filesystem::create_directories(p.out_dir, ec);
  if (ec) PK_FATAL("cannot create the folder '%s': %s", p.out_dir.c_str(), ec.message().c_str());
  std::vector<CtfSimTruth> rows;
  for (int k = 0; k < p.count; ++k) {
    const auto start = std::chrono::steady_clock::now();
    seed_image(p, k);
    const CtfSimTruth t = draw_truth(p, image_name(p, k));
    const std::vector<float> pixels = render_images(p, t);
    write_mrc_with_pixel_size(t.name, pixels.data(), p.nx, p.ny, p.frames, p.apix);
    if (p.frames > 1) {
      std::string frames = t.name.substr(0, t.name.size() - 5) + "_frames.star";
      write_frame_table(frames, p, t);
    }
    rows.push_back(t);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%s  %d x %d x %d  U %.1f  V %.1f  angle %.2f  B %.1f  phase %.2f  %.2f s\n", t.name.c_str(), p.nx,
                p.ny, p.frames, t.defU, t.defV, t.defA, t.bfac, t.phase, seconds);
  }
  write_truth_table(p.out_dir + "/" + p.prefix + "_truth.star", p, rows);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return report_run_main(run_tool, argc, argv); }
