#include "random_utils/random_source.h"

#include <atomic>
#include <chrono>
#include <cmath>

namespace {

constexpr uint64_t kGolden = 0x9e3779b97f4a7c15ULL;

std::atomic<uint64_t> g_counter{0};
std::atomic<bool> g_seeded{false};

uint64_t mix64(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

uint64_t clock_seed() {
  const auto now = std::chrono::high_resolution_clock::now().time_since_epoch().count();
  return mix64(static_cast<uint64_t>(now) ^ 0x2545f4914f6cdd1dULL);
}

}  // namespace

void random_source_set_seed(uint64_t seed) {
  g_counter.store(mix64(seed + kGolden));
  g_seeded.store(true);
}

void random_source_seed_from_clock() { random_source_set_seed(clock_seed()); }

uint64_t random_next_u64() {
  if (!g_seeded.load(std::memory_order_acquire)) {
    bool expected = false;
    if (g_seeded.compare_exchange_strong(expected, true)) g_counter.store(mix64(clock_seed() + kGolden));
  }
  return mix64(g_counter.fetch_add(kGolden) + kGolden);
}

double random_uniform() { return static_cast<double>(random_next_u64() >> 11) * 0x1.0p-53; }

double random_uniform(double lo, double hi) { return lo + (hi - lo) * random_uniform(); }

uint64_t random_below(uint64_t n) {
  if (n == 0) return 0;
  // Rejects the top partial block of 2^64 so that every residue is equally likely.
  const uint64_t limit = UINT64_MAX - UINT64_MAX % n;
  uint64_t r = random_next_u64();
  while (r >= limit) r = random_next_u64();
  return r % n;
}

double random_normal() {
  const double u = 1.0 - random_uniform();  // (0, 1]: the logarithm stays finite
  const double v = random_uniform();
  return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * v);
}

void random_fill_normal(float* out, std::size_t n, double mean, double sigma) {
  for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<float>(mean + sigma * random_normal());
}

void random_fill_uniform(float* out, std::size_t n, double lo, double hi) {
  for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<float>(random_uniform(lo, hi));
}
