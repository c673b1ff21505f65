// Files written by the companion tools: MRC mode 2 with the pixel size in the head, and text
// files whose write errors end the run.
#pragma once

#include <cstdio>
#include <string>

#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"

// nz images of nx by ny; the head's cell says pixel_A Angstrom per pixel. Fatal on failure.
inline void write_mrc_with_pixel_size(const std::string& path, const float* data, int nx, int ny, int nz,
                                      double pixel_A) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, MRC_MODE_FLOAT);
  head.mx = nx;
  head.my = ny;
  head.mz = nz;
  head.xlen = static_cast<float>(nx * pixel_A);
  head.ylen = static_cast<float>(ny * pixel_A);
  head.zlen = static_cast<float>(nz * pixel_A);
  mrcf_write_head_data(path.c_str(), &head, data);
}

inline std::FILE* open_for_writing(const std::string& path) {
  std::FILE* fp = std::fopen(path.c_str(), "w");
  if (fp == nullptr) PK_FATAL("cannot write to '%s'", path.c_str());
  return fp;
}

inline void close_written(std::FILE* fp, const std::string& path) {
  const bool failed = std::ferror(fp) != 0;
  if (std::fclose(fp) != 0 || failed) PK_FATAL("writing '%s' failed (disk full?)", path.c_str());
}
