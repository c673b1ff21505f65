// The machine's memory bandwidth as the picker's big passes see it: OpenMP loops over arrays far
// larger than the caches, on all threads (OMP_NUM_THREADS), with the arithmetic of a conjugate
// product and of a running maximum. Bytes count what the loop reads and writes; stores to lines
// not yet cached also read them first, which no count here includes.
//
//   membw [--mib M]     # M MiB per array (default 256); prints one line per loop, best of 7
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

template <class Loop>
double best_seconds(Loop loop) {
  double best = 1e30;
  for (int r = 0; r < 7; ++r) {
    const auto t0 = std::chrono::steady_clock::now();
    loop();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  return best;
}

void report(const char* name, double bytes, double seconds) {
  std::printf("membw loop=%s threads=%d GB_per_s=%.2f ms=%.3f\n", name, omp_get_max_threads(), bytes / seconds / 1e9,
              seconds * 1e3);
}

}  // namespace

int main(int argc, char** argv) {
  long mib = 256;
  if (argc == 3 && std::strcmp(argv[1], "--mib") == 0) mib = std::atol(argv[2]);
  if (mib <= 0 || argc == 2 || argc > 3) {
    std::fprintf(stderr, "usage: membw [--mib M]\n");
    return 2;
  }
  const long n = mib * (1L << 20) / static_cast<long>(sizeof(float));
  std::vector<float> a(n, 1.0f), b(n, 2.0f), c(n, 0.5f);
  float* pa = a.data();
  float* pb = b.data();
  float* pc = c.data();
  const double f = sizeof(float);

  report("copy", 2 * f * n, best_seconds([&] {
#pragma omp parallel for schedule(static)
           for (long i = 0; i < n; ++i) pc[i] = pa[i];
         }));
  // (re, im) pairs: out = x * conj(y), as the correlation's products are made.
  report("conjugate_product", 3 * f * n, best_seconds([&] {
#pragma omp parallel for schedule(static)
           for (long i = 0; i < n; i += 2) {
             const float xr = pa[i], xi = pa[i + 1], yr = pb[i], yi = pb[i + 1];
             pc[i] = xr * yr + xi * yi;
             pc[i + 1] = xi * yr - xr * yi;
           }
         }));
  // A running maximum: read the map and one correlation, write the map back.
  report("running_maximum", 3 * f * n, best_seconds([&] {
#pragma omp parallel for schedule(static)
           for (long i = 0; i < n; ++i) pa[i] = std::max(pa[i], pb[i]);
         }));
  std::printf("membw check=%g\n", static_cast<double>(pa[n / 3] + pc[n / 5]));
  return 0;
}
