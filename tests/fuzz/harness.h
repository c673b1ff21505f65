// Shared pieces of the fuzz harnesses: a run-ending report throws pickora::FatalError, which
// the harness catches, and the input is handed over as a real file, as the program meets it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "cuda_general/report.h"

// Silences standard output once: the reports are the program's output, not the fuzzer's.
void fuzz_silence_stdout();

// Writes the input to a per-process scratch file with the given suffix and returns its name.
std::string fuzz_write_input(const uint8_t* data, size_t size, const char* suffix);

// An open stream that is closed even when a report ends the "run" by an exception.
using FuzzFile = std::unique_ptr<FILE, int (*)(FILE*)>;
inline FuzzFile fuzz_open(const std::string& path) { return FuzzFile(std::fopen(path.c_str(), "r"), std::fclose); }

// Runs body, turning a run-ending report into a normal return; stdout is silenced.
template <class F>
void fuzz_run(F body) {
  fuzz_silence_stdout();
  try {
    body();
  } catch (const pickora::FatalError&) {
  }
}
