// Host statistics (Part 6.5): the peak list.
#include <vector>

#include "math_utils/host_stats.h"

unsigned long peak_index_masked(const float* a, const int* mask, unsigned long n) {
  unsigned long idx = n;
  for (unsigned long i = 0; i < n; ++i) {
    if (mask[i] == 0) continue;
    if (idx == n || a[i] > a[idx]) idx = i;  // strict: the first of equals stays
  }
  return idx;
}

void peak_make_mask(const float* a, int* mask, unsigned long n, unsigned long index) {
  if (index >= n) return;  // no peak: nothing to clear, and no flank to read
  mask[index] = 0;
  // Right flank: while the values keep falling.
  for (unsigned long i = index + 1; i < n && a[i - 1] > a[i]; ++i) mask[i] = 0;
  // Left flank: while the values keep falling, down to element 0.
  for (unsigned long i = index; i > 0 && a[i] > a[i - 1]; --i) mask[i - 1] = 0;
}

void peak_indices(const float* a, unsigned long n, unsigned long* indices, unsigned long count) {
  std::vector<int> mask(n, 1);
  for (unsigned long c = 0; c < count; ++c) {
    const unsigned long idx = peak_index_masked(a, mask.data(), n);
    indices[c] = idx;
    if (idx < n) peak_make_mask(a, mask.data(), n, idx);
  }
}
