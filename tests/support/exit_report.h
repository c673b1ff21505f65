// Checks of the reports that end a run. The report is printed (on standard output, or on
// standard error for the device check) and then pickora::FatalError carries the exit status
// up to `main`; the check runs the statement in process, captures both streams, and matches
// the regular expression against what was printed.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <typeinfo>

#include "cuda_general/report.h"

namespace pickora_test {

// Sends standard output and standard error, in the order they are written, into a file that
// lives in memory: the capture needs no temporary file, so a full or unwritable /tmp cannot
// empty it.
class StreamCapture {
 public:
  StreamCapture();
  ~StreamCapture();
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;
  // Puts both streams back and returns what was written meanwhile.
  std::string finish();

 private:
  int memory_fd_ = -1;
  int saved_out_ = -1;
  int saved_err_ = -1;
};

// Runs body; returns the exit status it ended with (-1: it returned normally; -2: it threw
// something other than the fatal report, whose text is appended) and stores what it printed.
template <class Body>
int run_to_fatal(Body body, std::string& printed) {
  StreamCapture capture;
  int status = -1;
  std::string other;
  try {
    body();
  } catch (const pickora::FatalError& e) {
    status = e.status();
  } catch (const std::exception& e) {
    status = -2;
    other = std::string("\n[threw ") + typeid(e).name() + ": " + e.what() + "]";
  }
  printed = capture.finish() + other;
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
      << #statement << " ended with status " << pk_check_.status                                         \
      << " (-1: it returned; -2: it threw another error), printing:\n"                                   \
      << pk_check_.printed << "\nexpected status " << (expected_status) << " and a match of " << (regex) << "\n"

#define EXPECT_EXIT_REPORT(statement, regex) EXPECT_EXIT_REPORT_STATUS(statement, 1, regex)
