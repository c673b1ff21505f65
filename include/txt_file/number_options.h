// Numbers given to options, of the picker and of the companion tools: a word that is not a
// finite number in the range ends the run with a message naming the option. "nan", "inf",
// "abc", "12abc" and "" are not numbers.
#pragma once

double parse_number(const char* option, const char* text);
int parse_int(const char* option, const char* text, int lo, int hi);
double parse_positive(const char* option, const char* text);
double parse_non_negative(const char* option, const char* text);
// A number from lo to hi; lo itself is refused when lo_open ("above lo"). unit is printed after
// the bounds, e.g. " angstrom" or "". hi may be HUGE_VAL for no upper bound.
double parse_number_in(const char* option, const char* text, double lo, bool lo_open, double hi, const char* unit);

// A range "LO:HI" (LO <= HI), or a single number for a fixed value.
struct NumberRange {
  double lo = 0, hi = 0;
};
NumberRange parse_range(const char* option, const char* text);
