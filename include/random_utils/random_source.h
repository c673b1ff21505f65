// The toolkit's one source of random numbers. Every random draw of the library goes through
// random_next_u64; the uniform, whole-number and normal forms are built on it.
//
// Seeding. Unless a seed was fixed, the source seeds itself from the clock on its first draw,
// so runs differ from each other. random_source_set_seed fixes the sequence for tests and for
// tools that take a seed: after it, the same calls give the same numbers on every run and
// machine. Operations that want fresh numbers do not reseed per call (a seed from the time in
// seconds would repeat itself within one second); they simply draw.
//
// The generator is a 64-bit counter put through a mixing function (splitmix64): each draw takes
// the next counter value atomically, so concurrent draws never see the same number; the order in
// which threads receive them is theirs, so only single-threaded draws are reproducible.
#pragma once

#include <cstddef>
#include <cstdint>

// The one draw: 64 random bits.
uint64_t random_next_u64();

// Uniform in [0, 1), with 53 random bits; and in [lo, hi).
double random_uniform();
double random_uniform(double lo, double hi);
// A whole number in [0, n), without bias; 0 when n is 0.
uint64_t random_below(uint64_t n);
// Standard normal (Box-Muller on two uniform draws).
double random_normal();

// n values into out: normal of the given mean and sigma, or uniform in [lo, hi).
void random_fill_normal(float* out, std::size_t n, double mean, double sigma);
void random_fill_uniform(float* out, std::size_t n, double lo, double hi);

// Fixes the sequence; the same seed gives the same draws.
void random_source_set_seed(uint64_t seed);
// Seeds from the clock now (what the first draw does when no seed was fixed).
void random_source_seed_from_clock();
