// Outputs written under a temporary name and renamed when complete.
#include "txt_file/atomic_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cuda_general/report.h"

namespace {

std::string temp_name_for(const char* final_name) {
  return std::string(final_name) + ".tmp-" + std::to_string(static_cast<long>(getpid()));
}

}  // namespace

AtomicFile::AtomicFile(const char* final_name) : final_(final_name), temp_(temp_name_for(final_name)) {
  fp_ = std::fopen(temp_.c_str(), "w+");
  if (fp_ == nullptr) {
    const int err = errno;
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", final_.c_str());
    PK_FATAL("open file '%s' failed (%s).", final_.c_str(), std::strerror(err));
  }
}

AtomicFile::~AtomicFile() { discard(); }

void AtomicFile::discard() {
  if (fp_ != nullptr) std::fclose(fp_);
  if (!temp_.empty()) {
    std::remove(temp_.c_str());
  }
  fp_ = nullptr;
  temp_.clear();
}

void AtomicFile::fail(const char* what) {
  const int err = errno;
  std::printf("Cannot write to file %s. Permission denied or no space left!\n", final_.c_str());
  discard();
  PK_FATAL("%s file '%s' failed (%s); nothing was left under that name.", what, final_.c_str(),
           err != 0 ? std::strerror(err) : "write error");
}

void AtomicFile::check() {
  if (fp_ == nullptr || std::ferror(fp_) != 0) fail("writing");
}

void AtomicFile::commit() {
  check();
  errno = 0;
  if (std::fflush(fp_) != 0) fail("writing");
  FILE* fp = fp_;
  fp_ = nullptr;  // fclose releases the stream whatever it returns
  if (std::fclose(fp) != 0) fail("closing");
  if (std::rename(temp_.c_str(), final_.c_str()) != 0) fail("renaming the finished");
  temp_.clear();
}

void AtomicFile::write(const void* data, size_t bytes) {
  if (bytes == 0) return;
  if (fp_ == nullptr || std::fwrite(data, 1, bytes, fp_) != bytes) fail("writing");
}

// The staged name keeps the final extension ("a_pickora.tmp-12.box"), since readers such as the
// coordinate reader tell a file's format by it.
std::string staged_name_for(const char* final_name) {
  const std::string name(final_name);
  const size_t slash = name.rfind('/');
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return temp_name_for(final_name);
  return name.substr(0, dot) + ".tmp-" + std::to_string(static_cast<long>(getpid())) + name.substr(dot);
}

StagedName::StagedName(const char* final_name) : final_(final_name), temp_(staged_name_for(final_name)) {}

StagedName::~StagedName() {
  if (temp_.empty()) return;
  std::remove(temp_.c_str());
}

void StagedName::commit() {
  if (std::rename(temp_.c_str(), final_.c_str()) != 0) {
    const int err = errno;
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", final_.c_str());
    std::remove(temp_.c_str());
    temp_.clear();
    PK_FATAL("renaming the finished file '%s' failed (%s); nothing was left under that name.", final_.c_str(),
             std::strerror(err));
  }
  temp_.clear();
}
