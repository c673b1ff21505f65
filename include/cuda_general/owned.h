// Host blocks from malloc and streams from fopen that are released however their scope ends:
// a fatal report throws through the functions that hold them, and a caller that catches it
// (main, a test, a fuzzer) must find nothing left behind.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

struct FreeDeleter {
  void operator()(void* p) const noexcept { std::free(p); }
};

// A block of T from malloc/calloc; release() hands it to a caller that frees it itself.
template <class T>
using HostBlock = std::unique_ptr<T, FreeDeleter>;

struct FileCloser {
  void operator()(FILE* f) const noexcept {
    if (f != nullptr) std::fclose(f);
  }
};

// An open stream, closed at the end of its scope unless closed (reset) earlier.
using FileHandle = std::unique_ptr<FILE, FileCloser>;
