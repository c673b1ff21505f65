// The local statistics from file to file.
#include <cstdlib>

#include "mrcfile/mrcfile.h"
#include "process2d_raw/local_stats.h"

namespace {

using HostLocalOp = void (*)(float*, const float*, unsigned, unsigned, float, float);

int mrcf_2d_local_map(HostLocalOp op, const char* in_path, const char* out_path, float radius, float soft) {
  MRC_HEAD head;
  mrcf_read_head(in_path, &head);
  float* image = mrcf_get_data_sliceN(in_path, 0);
  const unsigned nx = static_cast<unsigned>(head.nx), ny = static_cast<unsigned>(head.ny);
  op(image, image, nx, ny, radius, soft);
  mrcf_write_xyz_data(out_path, image, head.nx, head.ny, 1);
  std::free(image);
  return 0;
}

}  // namespace

int mrcf_2d_lave(const char* in_path, const char* out_path, float radius, float soft) {
  return mrcf_2d_local_map(gpu_2d_local_ave_softR_mpad, in_path, out_path, radius, soft);
}

int mrcf_2d_lsigma(const char* in_path, const char* out_path, float radius, float soft) {
  return mrcf_2d_local_map(gpu_2d_local_sigma_softR, in_path, out_path, radius, soft);
}
