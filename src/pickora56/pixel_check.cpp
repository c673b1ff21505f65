// Finding the pixels that would make a micrograph or a template silently useless.
#include "pickora56/pixel_check.h"

#include <cmath>

#include "cuda_general/report.h"

PixelCensus pickora_pixel_census(const float* data, size_t count) {
  PixelCensus c;
  c.count = count;
  double sum = 0.0;
  bool first = true;
  for (size_t i = 0; i < count; ++i) {
    const float v = data[i];
    if (!std::isfinite(v)) {
      ++c.nonfinite;
      continue;
    }
    if (std::fabs(v) > PICKORA_LARGEST_USABLE_PIXEL) {
      ++c.huge;
      continue;
    }
    sum += v;
    if (first || v < c.lo) c.lo = v;
    if (first || v > c.hi) c.hi = v;
    first = false;
  }
  if (c.usable() > 0) c.mean = sum / static_cast<double>(c.usable());
  return c;
}

MicrographVerdict pickora_micrograph_verdict(const PixelCensus& census) {
  if (census.usable() == 0 || census.unusable() > census.count / 2) return MicrographVerdict::kSkip;
  if (census.lo == census.hi) return MicrographVerdict::kSkip;
  return census.unusable() > 0 ? MicrographVerdict::kRepair : MicrographVerdict::kUse;
}

void pickora_repair_pixels(float* data, size_t count, const PixelCensus& census) {
  const float mean = static_cast<float>(census.mean);
  for (size_t i = 0; i < count; ++i)
    if (!std::isfinite(data[i]) || std::fabs(data[i]) > PICKORA_LARGEST_USABLE_PIXEL) data[i] = mean;
}

bool pickora_accept_micrograph_pixels(float* data, size_t count, const char* name) {
  const PixelCensus c = pickora_pixel_census(data, count);
  switch (pickora_micrograph_verdict(c)) {
    case MicrographVerdict::kUse: return true;
    case MicrographVerdict::kRepair:
      PK_WARNING("the micrograph %s has %zu pixels that are NaN or infinite and %zu above %g in magnitude, of %zu; "
                 "they are set to the mean %g of the others and the micrograph is picked",
                 name, c.nonfinite, c.huge, static_cast<double>(PICKORA_LARGEST_USABLE_PIXEL), c.count, c.mean);
      pickora_repair_pixels(data, count, c);
      return true;
    case MicrographVerdict::kSkip: break;
  }
  if (c.unusable() > c.count / 2 || c.usable() == 0)
    PK_WARNING("the micrograph %s has %zu pixels that are NaN or infinite and %zu above %g in magnitude, of %zu; "
               "more than half is damaged, so it is skipped and no result is written for it",
               name, c.nonfinite, c.huge, static_cast<double>(PICKORA_LARGEST_USABLE_PIXEL), c.count);
  else
    PK_WARNING("the micrograph %s is blank: every usable pixel is %g, so there is nothing to pick; it is skipped and "
               "no result is written for it",
               name, static_cast<double>(c.lo));
  return false;
}

void pickora_require_usable_templates(const float* stack, int nx, int ny, int nz, const char* name) {
  const size_t slice = static_cast<size_t>(nx) * static_cast<size_t>(ny);
  for (int z = 0; z < nz; ++z) {
    const PixelCensus c = pickora_pixel_census(stack + slice * z, slice);
    if (c.unusable() > 0)
      PK_FATAL("template %d of %s has %zu pixels that are NaN or infinite and %zu above %g in magnitude; "
               "repair or remove that template",
               z + 1, name, c.nonfinite, c.huge, static_cast<double>(PICKORA_LARGEST_USABLE_PIXEL));
    if (c.lo == c.hi)
      PK_FATAL("template %d of %s is constant (every pixel %g): it has no shape to match; repair or remove that "
               "template",
               z + 1, name, static_cast<double>(c.lo));
  }
}
