// File commands of the symmetry averaging: operators from an O-style file, image and mask (and a
// reference) from MRC files.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "mrcfile/mrcfile.h"
#include "sym/ncs2d.h"
#include "sym/sym.h"

namespace {

struct FreeDeleter {
  void operator()(float* p) const { std::free(p); }
};

// The first slice of an MRC file and its sides.
struct Slice {
  std::unique_ptr<float, FreeDeleter> data;
  int nx = 0, ny = 0;
  explicit Slice(const char* path) {
    int nz = 0;
    get_mrcf_xyz(nx, ny, nz, path);
    data.reset(mrcf_get_data_all(path));
  }
};

// The operators as the direction asks; nothing usable is refused before any file is read.
std::vector<RT_Mat2D> read_operators(const char* sym_path, int direction) {
  if (direction != 1 && direction != -1)
    PK_FATAL("direction must be 1 (operators as given) or -1 (their inverses), not %d", direction);
  std::vector<RT_Mat2D> list;
  get_syms2d_from_ofile(list, sym_path);
  if (list.empty()) PK_FATAL("no symmetry operator in %s", sym_path);
  std::vector<RT_Mat2D> syms(list.size());
  if (direction == 1)
    sym2d_vector_to_syms(syms.data(), list);
  else
    sym2d_vector_to_inverse_syms(syms.data(), list);
  return syms;
}

void check_mask_fits(const Slice& mask, const Slice& image, const char* mask_path) {
  if (mask.nx > image.nx || mask.ny > image.ny)
    PK_FATAL("the mask %s (%d x %d) is larger than the image (%d x %d)", mask_path, mask.nx, mask.ny, image.nx,
             image.ny);
}

void check_device(int gid) {
  if (check_gid(gid) != 0) PK_FATAL("Unknown device or expansion mode.\n");
}

float grid_centre(int n) { return static_cast<float>((n - 1) / 2.0); }

}  // namespace

int mrcf_2d_ncs_average(const char* out_path, float ox, float oy, const char* image_path, const char* mask_path,
                        const char* sym_path, int direction, int gid) {
  const std::vector<RT_Mat2D> syms = read_operators(sym_path, direction);
  const Slice image(image_path), mask(mask_path);
  check_mask_fits(mask, image, mask_path);
  const float cx = grid_centre(image.nx), cy = grid_centre(image.ny);
  const unsigned mnx = mask.nx, mny = mask.ny;
  std::vector<float> patch(static_cast<size_t>(mnx) * mny);
  const int nsym = static_cast<int>(syms.size());
  if (gid == 999) {
    cpu_2d_ncs_average(patch.data(), syms.data(), nsym, mnx, mny, ox, oy, image.data.get(), image.nx, image.ny, cx, cy,
                       mask.data.get());
  } else {
    check_device(gid);
    gpu_2d_ncs_average(patch.data(), syms.data(), nsym, mnx, mny, ox, oy, image.data.get(), image.nx, image.ny, cx, cy,
                       mask.data.get());
  }
  mrcf_write_xyz_data(out_path, patch.data(), mask.nx, mask.ny, 1);
  return 0;
}

int mrcf_2d_ncs_cccs(const char* ref_path, float ox, float oy, const char* image_path, const char* mask_path,
                     const char* sym_path, int direction, int gid) {
  const std::vector<RT_Mat2D> syms = read_operators(sym_path, direction);
  const Slice image(image_path), mask(mask_path), ref(ref_path);
  check_mask_fits(mask, image, mask_path);
  if (ref.nx != mask.nx || ref.ny != mask.ny)
    PK_FATAL("the reference %s (%d x %d) must have the mask's size (%d x %d)", ref_path, ref.nx, ref.ny, mask.nx,
             mask.ny);
  const float cx = grid_centre(image.nx), cy = grid_centre(image.ny);
  const int nsym = static_cast<int>(syms.size());
  std::vector<float> ccc(syms.size());
  if (gid == 999) {
    cpu_2d_ncs_cccs_refine(ccc.data(), ref.data.get(), syms.data(), nsym, mask.nx, mask.ny, ox, oy, image.data.get(),
                           image.nx, image.ny, cx, cy, mask.data.get());
  } else {
    check_device(gid);
    gpu_2d_ncs_cccs(ccc.data(), ref.data.get(), syms.data(), nsym, mask.nx, mask.ny, ox, oy, image.data.get(),
                    image.nx, image.ny, cx, cy, mask.data.get());
  }
  for (int s = 0; s < nsym; ++s) {
    print_rtmat2d(syms[s]);
    std::printf("ccc = %f \n", ccc[s]);
  }
  return 0;
}
