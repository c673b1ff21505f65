// Page-cache warming for the next micrograph; see the header.
#include "pickora56/read_ahead.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

bool read_ahead_enabled() {
  const char* v = std::getenv("PICKORA_READ_AHEAD");
  return v == nullptr || std::strcmp(v, "0") != 0;
}

namespace {

// Reads the whole file in large pieces and drops them; stops early when asked to.
void warm(const std::string& path, const std::atomic<bool>* stop) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::vector<char> piece(4 << 20);
  while (!stop->load(std::memory_order_relaxed)) {
    const ssize_t got = read(fd, piece.data(), piece.size());
    if (got <= 0) break;  // the end, or an error the driver will meet and report itself
  }
  close(fd);
}

}  // namespace

void ReadAhead::start(const char* path) {
  finish();
  if (path == nullptr) return;
  stop_.store(false);
  worker_ = std::thread(warm, std::string(path), &stop_);
}

void ReadAhead::finish() {
  if (!worker_.joinable()) return;
  stop_.store(true);
  worker_.join();
}
