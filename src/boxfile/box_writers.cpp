// Heads of the coordinate STAR files the picker writes.
#include <cstdio>

#include "boxfile/box_filter.h"

namespace {

int write_star_head(FILE* fp, bool with_angle_class_merit) {
  std::rewind(fp);
  std::fputs("\ndata_\n", fp);
  std::fputs("\nloop_\n", fp);
  std::fputs("_rlnCoordinateX #1\n", fp);
  std::fputs("_rlnCoordinateY #2\n", fp);
  if (with_angle_class_merit) {
    std::fputs("_rlnAnglePsi #3\n", fp);
    std::fputs("_rlnClassNumber #4\n", fp);
    std::fputs("_rlnAutopickFigureOfMerit #5\n", fp);
  }
  return 0;
}

}  // namespace

int output_starbox_head(FILE* fp) { return write_star_head(fp, true); }

int output_starbox_head_XYonly(FILE* fp) { return write_star_head(fp, false); }
