#include "sim_output.h"

#include <cmath>
#include <cstdio>

#include "cuda_general/report.h"
#include "../common/tool_files.h"
#include "sim_shapes.h"

void write_truth_star(const std::string& path, const SimParams& p, const SimScene& s) {
  std::FILE* fp = open_for_writing(path);
  std::fprintf(fp, "# simulated particles: diameter_px=%.3f apix=%.4f\n", p.diameter_px(), p.apix);
  std::fprintf(fp, "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnAnglePsi #3\n_rlnClassNumber #4\n");
  for (const SimParticle& q : s.particles) std::fprintf(fp, "%-8d%-8d%-10.3f\t%-8d\n", q.x, q.y, q.psi, q.view);
  close_written(fp, path);
}

void write_areas_file(const std::string& path, const SimScene& s) {
  std::FILE* fp = open_for_writing(path);
  write_contamination_areas(fp, s.areas);
  close_written(fp, path);
}

int write_template_stack(const std::string& path, const SimParams& p) {
  const double apix_t = p.template_apix();
  // Even side of one and a half diameters, as templates are usually boxed.
  const int side = 2 * static_cast<int>(std::ceil(0.75 * p.diameter_A / apix_t));
  std::vector<float> stack;
  stack.reserve(static_cast<size_t>(side) * side * p.templates);
  for (int v = 0; v < p.templates; ++v) {
    const std::vector<float> img = render_shape(make_view_lobes(v, p.lobe_width), side, apix_t, p.diameter_A);
    stack.insert(stack.end(), img.begin(), img.end());
  }
  write_mrc_with_pixel_size(path, stack.data(), side, side, p.templates, apix_t);
  return side;
}
