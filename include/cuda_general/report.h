// The report forms of the whole program. Each macro fills in the calling function, the
// module path (src/<module>, derived from the source file) and the line.
//
//   device check       "Error %s at line %d in file %s\n" on stderr, exit status 1
//   fatal              red, on stdout, exit status 1
//   warning            yellow, on stdout, goes on
//   attention          yellow, bold, blinking, on stdout, goes on
//   strong attention   red, bold, blinking, on stdout, goes on
#pragma once

#include <stdexcept>

#include "cuda_general/platform.h"

namespace pickora {

// What a report that ends the run throws, once its text is printed and flushed. Only `main`
// (through report_run_main) and the library's own entry points for callers catch it, and turn
// it into the exit status it carries: library code never ends the process itself, so a caller
// that embeds the library, a test or a fuzzer keeps control and can release what it holds.
class FatalError : public std::runtime_error {
 public:
  explicit FatalError(int status) : std::runtime_error("the run ended on a fatal report"), status_(status) {}
  int status() const noexcept { return status_; }

 private:
  int status_;
};

}  // namespace pickora

// "src/cuda_general" for ".../src/cuda_general/cuda_general.cu"; the text after the last
// "src/", "applications/", "tests/" or "tools/" up to the next slash. Returns a pointer to a
// static buffer per call site's file (thread safe, no allocation).
const char* report_module_path(const char* file);

[[noreturn]] void report_fatal(const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void report_warning(const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void report_attention(const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void report_strong_attention(const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// The device check: prints the runtime's text of a non-zero result and ends the process.
void report_device_check(cudaError_t result, const char* file, int line);
void report_cufft_check(cufftResult result, const char* file, int line);
[[noreturn]] void report_device_failure(const char* text, const char* file, int line);

// Every report that ends the run ends it here: flushes both streams and throws
// pickora::FatalError carrying the exit status (0 where the run asked for nothing it can do).
[[noreturn]] void report_exit(int status);

// A program's `main`: runs body and returns its status, or the status of the fatal report
// that ended it.
int report_run_main(int (*body)(int argc, char** argv), int argc, char** argv);

// The cuFFT result text; codes of 16 and above give "Unknown error".
const char* cufft_error_text(int code);

#define PK_FATAL(...) report_fatal(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_WARNING(...) report_warning(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_ATTENTION(...) report_attention(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_STRONG_ATTENTION(...) report_strong_attention(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_CUDA_CHECK(call) report_device_check((call), __FILE__, __LINE__)
#define PK_CUFFT_CHECK(call) report_cufft_check((call), __FILE__, __LINE__)
