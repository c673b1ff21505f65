#include "ctfsim_output.h"

#include <cstdio>

#include "../common/tool_files.h"

namespace {

void write_labels(std::FILE* fp, const char* const* labels, int count) {
  std::fprintf(fp, "\ndata_\n\nloop_\n");
  for (int i = 0; i < count; ++i) std::fprintf(fp, "%s #%d\n", labels[i], i + 1);
}

}  // namespace

void write_truth_table(const std::string& path, const CtfSimParams& p, const std::vector<CtfSimTruth>& rows) {
  static const char* const kLabels[] = {
      "_rlnMicrographName",     "_rlnDefocusU",          "_rlnDefocusV",           "_rlnDefocusAngle",
      "_rlnVoltage",            "_rlnSphericalAberration", "_rlnAmplitudeContrast", "_rlnPhaseShift",
      "_rlnBfactor",            "_rlnMicrographPixelSize", "_pkDefocusGradientX",  "_pkDefocusGradientY",
      "_pkDefocusDriftPerFrame", "_pkShiftXPerFrame",     "_pkShiftYPerFrame",      "_pkNrOfFrames"};
  std::FILE* fp = open_for_writing(path);
  std::fprintf(fp,
               "# pickora-ctfsim truth: defocus at the image centre in Angstrom (U along the angle, V across),\n"
               "# the angle in degrees from the x axis (columns) toward the y axis (rows), seed %llu\n",
               static_cast<unsigned long long>(p.seed));
  write_labels(fp, kLabels, static_cast<int>(sizeof kLabels / sizeof kLabels[0]));
  for (const CtfSimTruth& t : rows)
    std::fprintf(fp, "%s %.3f %.3f %.4f %.2f %.4f %.4f %.4f %.3f %.5f %.6f %.6f %.4f %.4f %.4f %d\n", t.name.c_str(),
                 t.defU, t.defV, t.defA, p.kv, p.cs, p.ac, t.phase, t.bfac, p.apix, t.grad_x, t.grad_y, p.drift_def,
                 p.drift_x, p.drift_y, p.frames);
  close_written(fp, path);
}

void write_frame_table(const std::string& path, const CtfSimParams& p, const CtfSimTruth& t) {
  static const char* const kLabels[] = {"_rlnMovieFrameNumber", "_rlnDefocusU", "_rlnDefocusV", "_pkShiftX",
                                        "_pkShiftY"};
  std::FILE* fp = open_for_writing(path);
  std::fprintf(fp, "# pickora-ctfsim frames of %s\n", t.name.c_str());
  write_labels(fp, kLabels, 5);
  for (int f = 0; f < p.frames; ++f) {
    const double c = f - (p.frames - 1) / 2.0;
    std::fprintf(fp, "%d %.3f %.3f %.4f %.4f\n", f + 1, t.defU + c * p.drift_def, t.defV + c * p.drift_def,
                 c * p.drift_x + 0.0, c * p.drift_y + 0.0);
  }
  close_written(fp, path);
}
