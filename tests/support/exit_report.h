// Checks of the reports that end a run. The report is printed (on standard output, or on
// standard error for the device check) and then pickora::FatalError carries the exit status
// up to `main`; the check runs the statement in process, captures both streams, and matches
// the regular expression against what was printed.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "cuda_general/report.h"

namespace pickora_test {

// Runs body; returns the exit status it ended with (-1: it returned normally) and stores
// what it printed on standard output, then on standard error.
template <class Body>
int run_to_fatal(Body body, std::string& printed) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  int status = -1;
  try {
    body();
  } catch (const pickora::FatalError& e) {
    status = e.status();
  }
  printed = testing::internal::GetCapturedStdout();
  printed += testing::internal::GetCapturedStderr();
  return status;
}

// The outcome of one statement, for the check macros below.
struct FatalCheck {
  template <class Body>
  explicit FatalCheck(Body body) : status(run_to_fatal(body, printed)) {}
  bool ended_as(int expected, const std::string& regex) const {
    return status == expected && testing::internal::RE::PartialMatch(printed, testing::internal::RE(regex.c_str()));
  }
  std::string printed;
  int status;
  bool done = false;
};

}  // namespace pickora_test

// The statement ends the run with the given status after printing text that contains a match
// of regex (an empty regex matches anything). Like any check, it takes a message with <<.
#define EXPECT_EXIT_REPORT_STATUS(statement, expected_status, regex)                                     \
  for (pickora_test::FatalCheck pk_check_([&]() { statement; }); !pk_check_.done; pk_check_.done = true) \
  EXPECT_TRUE(pk_check_.ended_as((expected_status), (regex)))                                            \
      << #statement << " ended with status " << pk_check_.status << " (-1: it returned), printing:\n"    \
      << pk_check_.printed << "\nexpected status " << (expected_status) << " and a match of " << (regex) << "\n"

#define EXPECT_EXIT_REPORT(statement, regex) EXPECT_EXIT_REPORT_STATUS(statement, 1, regex)
