#include "harness.h"

#include <unistd.h>

#include <cstdio>

void fuzz_silence_stdout() {
  static bool silenced = false;
  if (silenced) return;
  silenced = true;
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
