#include <cmath>

#include "ctf_core/ctf_core.h"
#include "cuda_general/report.h"

// The formula divides by the pixel size and takes asin(ac) and sqrt(1 - ac^2): outside these
// ranges every element would be NaN or infinite, so the run stops at the call instead.
void ctf_require_usable(const char* func, float pixel_size, float ac) {
  if (!(pixel_size > 0.0f) || !std::isfinite(pixel_size))
    report_fatal(func, __FILE__, __LINE__, "the pixel size is %g Angstrom; it must be above 0", pixel_size);
  if (!(ac >= -1.0f && ac <= 1.0f))
    report_fatal(func, __FILE__, __LINE__, "the amplitude contrast is %g; it must lie within -1 .. 1", ac);
}

void ctf_require_usable(const char* func, float pixel_size, const CTF_INFO& info) {
  ctf_require_usable(func, pixel_size, info.ac);
}

// The filters take frequencies as x / (nx - 1) columns of the half spectrum and the centre
// swaps move whole rows only for an even number of them.
void ctf_require_even_sides(const char* func, unsigned nx, unsigned ny) {
  if (nx == 0 || ny == 0 || nx % 2 != 0 || ny % 2 != 0)
    report_fatal(func, __FILE__, __LINE__, "the image is %u x %u pixels; the CTF filters need even sides", nx, ny);
}
