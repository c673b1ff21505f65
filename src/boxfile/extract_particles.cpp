// Particle extraction: the picked boxes out of the raw micrograph, at full resolution, into
// one MRC stack beside it.
#include "boxfile/extract_particles.h"

#include <climits>
#include <cstdlib>
#include <vector>

#include "cuda_general/owned.h"
#include "cuda_general/report.h"
#include "math_utils/host_stats.h"
#include "mrcfile/mrcfile.h"
#include "process2d_raw/process2d_raw.h"
#include "txt_file/arrays_strings.h"

namespace {

// The records of one coordinate file, resized, with the common sides of the stack.
struct ParticleBoxes {
  std::vector<PTCL_BOX> boxes;
  int count = 0;
  int w = 0, h = 0;
};

ParticleBoxes read_particle_boxes(const char* box_name, int box_size) {
  ParticleBoxes p;
  p.boxes.resize(PICKORA_MAX_PARTICLES);
  p.count = read_all_ptcl_boxes(p.boxes.data(), PICKORA_MAX_PARTICLES, box_name);
  if (box_size != 0) resize_ptcl_boxes(p.boxes.data(), p.count, box_size);
  // An empty file leaves the first record cleared: a stack of sides 0.
  p.w = p.boxes[0].w;
  p.h = p.boxes[0].h;
  if (p.w < 0 || p.h < 0)
    PK_FATAL("coordinate file '%s' gives a box of %d x %d pixels; sides can't be negative", box_name, p.w, p.h);
  return p;
}

size_t stack_samples(const ParticleBoxes& p, int nz, const char* mrc_name) {
  const unsigned long long samples = static_cast<unsigned long long>(p.w) * static_cast<unsigned long long>(p.h) *
                                     static_cast<unsigned long long>(p.count) * static_cast<unsigned long long>(nz);
  // The MRC writer counts samples in 32 bits.
  if (samples >= UINT_MAX || static_cast<unsigned long long>(p.count) * nz > INT_MAX)
    PK_FATAL("the particle stack of %s (%d boxes of %d x %d, %d frames) is too large for one file", mrc_name, p.count,
             p.w, p.h, nz);
  return static_cast<size_t>(samples);
}

float* extract_stack(const char* mrc_name, const ParticleBoxes& p, int invert) {
  HostBlock<float> image(mrcf_get_data_all(mrc_name));
  MRC_HEAD head;
  mrcf_read_head(mrc_name, &head);
  const size_t samples = stack_samples(p, head.nz, mrc_name);
  HostBlock<float> owned_out(static_cast<float*>(std::calloc(samples > 0 ? samples : 1, sizeof(float))));
  float* out = owned_out.get();
  if (out == nullptr) PK_FATAL("Not enough memory for the particle stack of %s", mrc_name);
  if (head.nz == 1)
    cpu_2d_extract_ptcls_from_micrograph(out, p.w, p.h, p.count, image.get(), head.nx, head.ny, p.boxes.data());
  else if (head.nz >= 2)
    cpu_2d_extract_ptcls_from_movie(out, p.w, p.h, head.nz, p.count, image.get(), head.nx, head.ny, p.boxes.data());
  else
    PK_FATAL("Micrograph or movie size error!");
  if (invert != 0) hm_invert_inplace(out, static_cast<unsigned long>(samples));
  return owned_out.release();
}

}  // namespace

void cpu_x2d_movie_extract_small_from_large(float* out, int w, int h, int frames, const float* stack, int nx, int ny,
                                            int x0, int y0) {
  const size_t in_frame = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  const size_t out_frame = static_cast<size_t>(w) * static_cast<size_t>(h);
  for (int f = 0; f < frames; ++f)
    cpu_2d_extract_small_from_large(out + f * out_frame, w, h, stack + f * in_frame, nx, ny, x0, y0);
}

void cpu_2d_extract_ptcls_from_micrograph(float* out, int w, int h, int count, const float* image, int nx, int ny,
                                          const PTCL_BOX* boxes) {
  cpu_2d_extract_ptcls_from_movie(out, w, h, 1, count, image, nx, ny, boxes);
}

void cpu_2d_extract_ptcls_from_movie(float* out, int w, int h, int frames, int count, const float* stack, int nx,
                                     int ny, const PTCL_BOX* boxes) {
  const size_t per_particle = static_cast<size_t>(w) * static_cast<size_t>(h) * static_cast<size_t>(frames);
  for (int k = 0; k < count; ++k)
    cpu_x2d_movie_extract_small_from_large(out + k * per_particle, w, h, frames, stack, nx, ny, boxes[k].x,
                                           boxes[k].y);
}

float* mrcf_get_data_ptcls(const char* mrc_name, const char* box_name, int box_size, int invert) {
  return extract_stack(mrc_name, read_particle_boxes(box_name, box_size), invert);
}

int mrcf_2d_extract_ptcls_from_micrograph(const char* mrc_name, const char* box_name, int box_size, int invert) {
  const ParticleBoxes p = read_particle_boxes(box_name, box_size);
  const int64_t nz = mrcf_get_dim_size(mrc_name, "z");
  const HostBlock<float> stack(extract_stack(mrc_name, p, invert));
  char out_name[PICKORA_NAME_LEN];
  mrcf_set_outname_by_suffix(out_name, mrc_name, "_particles.mrcs");
  mrcf_write_xyz_data(out_name, stack.get(), p.w, p.h, p.count * static_cast<int>(nz));
  return 0;
}
