// Seeded random numbers for the simulator. Every stream is derived from the run's seed and a
// few integers (micrograph, row, purpose), never from thread order, so the output is the same
// byte for byte whatever the number of threads.
#pragma once

#include <cmath>
#include <cstdint>

inline uint64_t sim_mix64(uint64_t z) {
  z += 0x9e3779b97f4a7c15ULL;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

// A key for a stream: the seed combined with up to three indices.
inline uint64_t sim_stream_key(uint64_t seed, uint64_t a, uint64_t b = 0, uint64_t c = 0) {
  return sim_mix64(sim_mix64(sim_mix64(seed ^ 0x5151ULL) ^ a) ^ (b * 0x2545f4914f6cdd1dULL)) ^ sim_mix64(c + 0x77ULL);
}

class SimRandom {
 public:
  explicit SimRandom(uint64_t key) : state_(key) {}

  uint64_t next() {
    state_ += 0x9e3779b97f4a7c15ULL;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  // Uniform in [0, 1).
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  // A pair of independent standard normal numbers (Box-Muller).
  void normal_pair(double& a, double& b) {
    const double u = 1.0 - uniform();  // in (0, 1], keeps log finite
    const double v = uniform();
    const double r = std::sqrt(-2.0 * std::log(u));
    const double t = 6.283185307179586 * v;
    a = r * std::cos(t);
    b = r * std::sin(t);
  }

 private:
  uint64_t state_;
};
