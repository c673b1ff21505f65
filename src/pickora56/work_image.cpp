// Sizes of the even square work image, and square clips of a micrograph.
#include "pickora56/work_image.h"

#include <cstdlib>

#include "cuda_general/report.h"
#include "process2d_raw/process2d_raw.h"

namespace {

int read_square(FILE* stream, const MRC_HEAD* head, float* out, int size, int2 origin, const char* func) {
  if (size > head->nx || size > head->ny)
    report_fatal(func, __FILE__, __LINE__, "Can not read micrograph. File Size issue!\n");
  if (head->nx < 1 || head->ny < 1)
    report_fatal(func, __FILE__, __LINE__, "the micrograph's head has sizes %d x %d; both must be positive", head->nx,
                 head->ny);
  float* slice = static_cast<float*>(std::malloc(sizeof(float) * static_cast<size_t>(head->nx) * head->ny));
  if (slice == nullptr)
    report_fatal(func, __FILE__, __LINE__, "Not enough memory for a slice of %d x %d pixels", head->nx, head->ny);
  mrc_read_slice(stream, head, 0, 'z', slice);
  cpu_2d_extract_small_from_large(out, size, size, slice, head->nx, head->ny, origin.x, origin.y);
  std::free(slice);
  return 0;
}

}  // namespace

int get_max_extended_square_even_size(int nx, int ny, int s) {
  if (s < 1) return 0;
  const int sx = (nx / (2 * s)) * 2, sy = (ny / (2 * s)) * 2;
  return sx > sy ? sx : sy;
}

int get_max_square_even_size(int nx, int ny) {
  const int ex = nx % 2 != 0 ? nx - 1 : nx;
  const int ey = ny % 2 != 0 ? ny - 1 : ny;
  return ex < ey ? ex : ey;
}

int2 get_max_square_clip_origin(int nx, int ny) {
  if (nx > ny) return make_int2((nx - ny) / 2, 0);
  return make_int2(0, (ny - nx) / 2);
}

int mrc_read_square_even(FILE* stream, const MRC_HEAD* head, float* out, int size, int2 origin) {
  return read_square(stream, head, out, size, origin, __func__);
}

int mrc_read_square_even_extend(FILE* stream, const MRC_HEAD* head, float* out, int size, int2 origin) {
  return read_square(stream, head, out, size, origin, __func__);
}
