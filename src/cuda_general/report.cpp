// The report forms. Colours: 41 red, 43 yellow background, 1 bold, 5 blink, "\033[m" plain.
#include "cuda_general/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* kRoots[] = {"src/", "applications/", "tests/", "tools/", "bench/"};

void vprint_form(FILE* out, const char* head, const char* func, const char* file, int line, const char* fmt,
                 va_list args, const char* tail) {
  std::fprintf(out, head, func, report_module_path(file), line);
  std::vfprintf(out, fmt, args);
  std::fputs(tail, out);
  std::fflush(out);
}

}  // namespace

void report_exit(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  throw pickora::FatalError(status);
}

int report_run_main(int (*body)(int argc, char** argv), int argc, char** argv) {
  try {
    return body(argc, argv);
  } catch (const pickora::FatalError& e) {
    return e.status();
  }
}

const char* report_module_path(const char* file) {
  // A few rotating slots: each result is printed at once, and a report needs at most two.
  static thread_local char slots[4][256];
  static thread_local int next = 0;
  if (file == nullptr) return "";
  const char* start = nullptr;
  for (const char* root : kRoots)
    for (const char* p = std::strstr(file, root); p != nullptr; p = std::strstr(p + 1, root))
      if ((p == file || p[-1] == '/') && (start == nullptr || p > start)) start = p;
  if (start == nullptr) return file;
  const char* module_end = std::strchr(std::strchr(start, '/') + 1, '/');
  size_t len = module_end != nullptr ? static_cast<size_t>(module_end - start) : std::strlen(start);
  if (len >= sizeof(slots[0])) len = sizeof(slots[0]) - 1;
  char* slot = slots[next];
  next = (next + 1) % 4;
  std::memcpy(slot, start, len);
  slot[len] = '\0';
  return slot;
}

void report_fatal(const char* func, const char* file, int line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vprint_form(stdout, "\033[41mError in function %s(), file %s on line %d: ", func, file, line, fmt, args,
              "! Exit now!\033[m\n");
  va_end(args);
  report_exit(1);
}

void report_warning(const char* func, const char* file, int line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vprint_form(stdout, "\033[43mWarning in function %s(), file %s on line %d:", func, file, line, fmt, args,
              "\n\033[m");
  va_end(args);
}

void report_attention(const char* func, const char* file, int line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vprint_form(stdout, "\033[43m\033[1m\033[5mWarning in function %s(), file %s on line %d: ", func, file, line, fmt,
              args, "\033[m\n\n");
  va_end(args);
}

void report_strong_attention(const char* func, const char* file, int line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vprint_form(stdout, "\033[41m\033[1m\033[5mWarning in function %s(), file %s on line %d: ", func, file, line, fmt,
              args, "\033[m\n\n");
  va_end(args);
}

void report_device_failure(const char* text, const char* file, int line) {
  std::fflush(stdout);
  std::fprintf(stderr, "Error %s at line %d in file %s\n", text, line, report_module_path(file));
  report_exit(1);
}

void report_device_check(cudaError_t result, const char* file, int line) {
  if (result != cudaSuccess) report_device_failure(cudaGetErrorString(result), file, line);
}

void report_cufft_check(cufftResult result, const char* file, int line) {
  if (result != CUFFT_SUCCESS) report_device_failure(cufft_error_text(static_cast<int>(result)), file, line);
}

const char* cufft_error_text(int code) {
  static const char* const kTexts[] = {
      "CUFFT_SUCCESS, cuFFT operation was successful",
      "CUFFT_INVALID_PLAN, cuFFT was passed an invalid plan handle",
      "CUFFT_ALLOC_FAILED, cuFFT failed to allocate GPU or CPU memory",
      "CUFFT_INVALID_TYPE",
      "CUFFT_INVALID_VALUE, An invalid pointer or parameter has been specified",
      "CUFFT_INTERNAL_ERROR, Driver or internal cuFFT library error",
      "CUFFT_EXEC_FAILED, Failed to execute an FFT on the GPU",
      "CUFFT_SETUP_FAILED, The cuFFT library failed to initialize",
      "CUFFT_INVALID_SIZE, User specified an invalid transform size",
      "CUFFT_UNALIGNED_DATA",
      "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call",
      "CUFFT_INVALID_DEVICE, Execution of a plan was on different GPU than plan creation",
      "CUFFT_PARSE_ERROR,  Internal plan database error",
      "CUFFT_NO_WORKSPACE, No workspace has been provided prior to plan execution",
      "CUFFT_NOT_IMPLEMENTED, Function does not implement functionality for parameters given.",
      "CUFFT_LICENSE_ERROR, Used in previous versions.",
  };
  if (code < 0 || code >= static_cast<int>(sizeof(kTexts) / sizeof(kTexts[0]))) return "Unknown error";
  return kTexts[code];
}
