// Numbers given to the companion tools' options: a word that is not a finite number in the
// range ends the run with a message naming the option.
#pragma once

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cuda_general/report.h"

inline double parse_number(const char* option, const char* text) {
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(v)) PK_FATAL("option %s takes a number, not '%s'", option, text);
  return v;
}

inline int parse_int(const char* option, const char* text, int lo, int hi) {
  const double v = parse_number(option, text);
  if (v != std::floor(v) || v < lo || v > hi)
    PK_FATAL("option %s takes a whole number from %d to %d, not '%s'", option, lo, hi, text);
  return static_cast<int>(v);
}

inline double parse_positive(const char* option, const char* text) {
  const double v = parse_number(option, text);
  if (!(v > 0)) PK_FATAL("option %s must be above 0, not '%s'", option, text);
  return v;
}

inline double parse_non_negative(const char* option, const char* text) {
  const double v = parse_number(option, text);
  if (v < 0) PK_FATAL("option %s must be 0 or more, not '%s'", option, text);
  return v;
}

// A range "LO:HI" (LO <= HI), or a single number for a fixed value.
struct NumberRange {
  double lo = 0, hi = 0;
};
inline NumberRange parse_range(const char* option, const char* text) {
  const char* colon = std::strchr(text, ':');
  if (colon == nullptr) {
    const double v = parse_number(option, text);
    return NumberRange{v, v};
  }
  const std::string lo(text, colon);
  const NumberRange r{parse_number(option, lo.c_str()), parse_number(option, colon + 1)};
  if (r.lo > r.hi) PK_FATAL("option %s takes LO:HI with LO not above HI, not '%s'", option, text);
  return r;
}
