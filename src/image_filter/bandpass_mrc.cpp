// The band-pass filters from one MRC file to another.
#include <cstdlib>

#include "cuda_general/report.h"
#include "image_filter/image_filter.h"
#include "mrcfile/mrcfile.h"

namespace {

// The first N by N floats of `data` through the filter that `type` names; other types leave
// them as they are.
void filter_by_type(float* data, int N, float apix, float res1, float res2, float soft, int type) {
  switch (type) {
    case MRCF_BANDPASS_GAUSS:
      gpu_2d_bandpass_guas_inplace(data, N, apix, res1, res2);
      break;
    case MRCF_BANDPASS_SOFT:
      gpu_2d_bandpass_softR_inplace(data, N, apix, res1, res2, soft);
      break;
    case MRCF_BANDPASS_SHARP:
      gpu_2d_bandpass_sharp_inplace(data, N, apix, res1, res2);
      break;
    case MRCF_BANDPASS_GAUSS_MPAD:
      gpu_2d_bandpass_guas_mpad_inplace(data, N, apix, res1, res2);
      break;
    default:
      break;
  }
}

}  // namespace

int mrcf_2d_bandpass(const char* in_path, const char* out_path, float apix, float res1, float res2, float soft,
                     int type) {
  MRC_HEAD head;
  mrcf_read_head(in_path, &head);
  if (head.nx != head.ny) PK_FATAL("Can not do band-pass on rectangle data. Must be square.");
  float* data = mrcf_get_data_all(in_path);
  filter_by_type(data, head.nx, apix, res1, res2, soft, type);
  // The data were read into floats whatever the input mode, so they are written as floats.
  mrc_set_head_mode(&head, MRC_MODE_FLOAT);
  mrcf_write_head_data(out_path, &head, data);
  std::free(data);
  return 0;
}
