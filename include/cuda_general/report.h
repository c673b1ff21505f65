// The report forms of the whole program. Each macro fills in the calling function, the
// module path (src/<module>, derived from the source file) and the line.
//
//   device check       "Error %s at line %d in file %s\n" on stderr, exit status 1
//   fatal              red, on stdout, exit status 1
//   warning            yellow, on stdout, goes on
//   attention          yellow, bold, blinking, on stdout, goes on
//   strong attention   red, bold, blinking, on stdout, goes on
#pragma once

#include "cuda_general/platform.h"

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

// Every report that ends the run ends it here. A harness (the fuzzers) may install a handler
// that is called first, with the exit status, and does not return (it throws or jumps).
[[noreturn]] void report_exit(int status);
void report_set_exit_handler(void (*handler)(int status));

// The cuFFT result text; codes of 16 and above give "Unknown error".
const char* cufft_error_text(int code);

#define PK_FATAL(...) report_fatal(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_WARNING(...) report_warning(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_ATTENTION(...) report_attention(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_STRONG_ATTENTION(...) report_strong_attention(__func__, __FILE__, __LINE__, __VA_ARGS__)
#define PK_CUDA_CHECK(call) report_device_check((call), __FILE__, __LINE__)
#define PK_CUFFT_CHECK(call) report_cufft_check((call), __FILE__, __LINE__)
