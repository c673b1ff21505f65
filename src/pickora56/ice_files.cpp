// The rejected-cell files of the contamination scan.
#include <cstdio>

#include "cuda_general/report.h"
#include "pickora56/ice_detect.h"
#include "txt_file/atomic_file.h"

namespace {

// Coordinate-only STAR head.
void write_xy_star_head(FILE* f) {
  std::fputs("\ndata_\n", f);
  std::fputs("\nloop_\n", f);
  std::fputs("_rlnCoordinateX #1\n", f);
  std::fputs("_rlnCoordinateY #2\n", f);
}

// A recorded pixel near the rim would give a box reaching out of the square; such cells stay
// in the grid but are not listed.
bool away_from_rim(int x, int y, int nx, int ny, int half) {
  return x < nx - half && y < ny - half && x > half && y > half;
}

}  // namespace

int output_ice_coord(const char* path, const unsigned int* grid, const float* cell_ave, const float* cell_sigma,
                     int nx, int ny, int2 origin, int ice_step, int shrink, int mode) {
  AtomicFile out(path);
  FILE* f = out.stream();
  if (mode == 1) write_xy_star_head(f);
  const int half = ice_step / 2;
  const int cells = ice_cells_across(nx, ice_step) * ice_cells_across(ny, ice_step);
  const unsigned width = static_cast<unsigned>(nx);
  for (int c = 0; c < cells; ++c) {
    if (grid[c] == 0) continue;
    const int x = static_cast<int>(grid[c] % width), y = static_cast<int>(grid[c] / width);
    if (!away_from_rim(x, y, nx, ny, half)) continue;
    if (mode == 1)
      std::fprintf(f, "%-8d%-8d\n", x * shrink + origin.x, y * shrink + origin.y);
    else
      std::fprintf(f, "%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n", (x - half) * shrink + origin.x,
                   (y - half) * shrink + origin.y, ice_step * shrink, ice_step * shrink, cell_ave[c], cell_sigma[c]);
  }
  out.commit();
  return 0;
}

double pickora_warn_rejected_share(const char* mic_name, const unsigned int* grid, unsigned long cells) {
  unsigned long rejected = 0;
  for (unsigned long c = 0; c < cells; ++c) rejected += grid[c] != 0 ? 1 : 0;
  const double share = cells > 0 ? static_cast<double>(rejected) / static_cast<double>(cells) : 0.0;
  if (share > PICKORA_UNUSUAL_REJECTED_SHARE)
    PK_WARNING("%lu of the %lu cells (%.0f%%) of the micrograph %s were rejected as ice or contamination, far more "
               "than usual. The bounds are relative to the whole micrograph, so a crowded micrograph or one with a "
               "blank part (a beam edge) loses cells it should keep: look at its _rejected.box with pickora-view and "
               "try --detect_ice 0 or wider --lsigma_cutoff, --lave_min, --lave_max",
               rejected, cells, 100.0 * share, mic_name);
  return share;
}
