// The one checked reading of numbers given on a command line.
#include "txt_file/number_options.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cuda_general/report.h"

double parse_number(const char* option, const char* text) {
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(v)) PK_FATAL("option %s takes a number, not '%s'", option, text);
  return v;
}

int parse_int(const char* option, const char* text, int lo, int hi) {
  const double v = parse_number(option, text);
  if (v != std::floor(v) || v < lo || v > hi)
    PK_FATAL("option %s takes a whole number from %d to %d, not '%s'", option, lo, hi, text);
  return static_cast<int>(v);
}

double parse_positive(const char* option, const char* text) {
  const double v = parse_number(option, text);
  if (!(v > 0)) PK_FATAL("option %s must be above 0, not '%s'", option, text);
  return v;
}

double parse_non_negative(const char* option, const char* text) {
  const double v = parse_number(option, text);
  if (v < 0) PK_FATAL("option %s must be 0 or more, not '%s'", option, text);
  return v;
}

double parse_number_in(const char* option, const char* text, double lo, bool lo_open, double hi, const char* unit) {
  const double v = parse_number(option, text);
  if (lo_open ? !(v > lo) : !(v >= lo)) {
    if (hi == HUGE_VAL)
      PK_FATAL("option %s must be %s %g%s, not '%s'", option, lo_open ? "above" : "at least", lo, unit, text);
    PK_FATAL("option %s must be %s %g and at most %g%s, not '%s'", option, lo_open ? "above" : "at least", lo, hi,
             unit, text);
  }
  if (v > hi) PK_FATAL("option %s must be at most %g%s, not '%s'", option, hi, unit, text);
  return v;
}

NumberRange parse_range(const char* option, const char* text) {
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
