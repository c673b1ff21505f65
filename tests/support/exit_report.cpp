#include "support/exit_report.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace pickora_test {

namespace {

// dup2 that retries when a signal interrupts it.
void redirect(int from, int to) {
  while (dup2(from, to) < 0)
    if (errno != EINTR) throw std::runtime_error("cannot redirect a standard stream for a capture");
}

}  // namespace

StreamCapture::StreamCapture() {
  std::fflush(nullptr);
  memory_fd_ = memfd_create("pickora_test_capture", 0);
  if (memory_fd_ < 0) {  // a sandbox that forbids memfd: an unnamed file in the temporary folder
    if (FILE* file = std::tmpfile()) {
      memory_fd_ = dup(fileno(file));
      std::fclose(file);
    }
  }
  saved_out_ = dup(STDOUT_FILENO);
  saved_err_ = dup(STDERR_FILENO);
  if (memory_fd_ < 0 || saved_out_ < 0 || saved_err_ < 0) throw std::runtime_error("cannot start a stream capture");
  redirect(memory_fd_, STDOUT_FILENO);
  redirect(memory_fd_, STDERR_FILENO);
}

std::string StreamCapture::finish() {
  if (memory_fd_ < 0) return "";
  std::fflush(nullptr);
  redirect(saved_out_, STDOUT_FILENO);
  redirect(saved_err_, STDERR_FILENO);
  std::string text;
  char chunk[4096];
  for (off_t at = 0;;) {
    const ssize_t n = pread(memory_fd_, chunk, sizeof chunk, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
    at += n;
  }
  close(memory_fd_);
  close(saved_out_);
  close(saved_err_);
  memory_fd_ = saved_out_ = saved_err_ = -1;
  return text;
}

StreamCapture::~StreamCapture() {
  try {
    finish();
  } catch (...) {
    // The streams stay where they are; nothing better can be done while unwinding.
  }
}

}  // namespace pickora_test
