#include "harness.h"

#include <unistd.h>

#include <cstdio>

#include "cuda_general/report.h"

namespace {

void throw_run_ended(int status) { throw FuzzRunEnded{status}; }

}  // namespace

void fuzz_install_exit_handler() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  report_set_exit_handler(throw_run_ended);
  // The reports are the program's output, not the fuzzer's: keep the terminal quiet.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("freopen");
}

std::string fuzz_write_input(const uint8_t* data, size_t size, const char* suffix) {
  const std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string name = dir + "/pickora_fuzz_" + std::to_string(getpid()) + suffix;
  FILE* f = std::fopen(name.c_str(), "wb");
  if (f != nullptr) {
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  return name;
}
