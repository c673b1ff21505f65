// Outputs written under a temporary name and renamed when complete.
#include "txt_file/atomic_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "cuda_general/report.h"

namespace {

std::string temp_name_for(const char* final_name) {
  return std::string(final_name) + ".tmp-" + std::to_string(static_cast<long>(getpid()));
}

// The temporary files alive now. A fatal report that ends the process with exit() runs no
// destructor, so an exit hook removes what is left; when the report unwinds instead, the
// destructors have emptied this list first. Only the one host thread writes outputs.
std::set<std::string>& live_temp_files() {
  static std::set<std::string>* live = new std::set<std::string>();  // outlives every destructor
  return *live;
}

void remove_live_temp_files() {
  for (const std::string& name : live_temp_files()) std::remove(name.c_str());
}

void track(const std::string& name) {
  static const bool hooked = std::atexit(remove_live_temp_files) == 0;
  (void)hooked;
  live_temp_files().insert(name);
}

void untrack(const std::string& name) { live_temp_files().erase(name); }

}  // namespace

AtomicFile::AtomicFile(const char* final_name) : final_(final_name), temp_(temp_name_for(final_name)) {
  fp_ = std::fopen(temp_.c_str(), "w+");
  if (fp_ != nullptr) track(temp_);
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
    untrack(temp_);
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
  untrack(temp_);
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

StagedName::StagedName(const char* final_name) : final_(final_name), temp_(staged_name_for(final_name)) {
  track(temp_);
}

StagedName::~StagedName() {
  if (temp_.empty()) return;
  std::remove(temp_.c_str());
  untrack(temp_);
}

void StagedName::commit() {
  if (std::rename(temp_.c_str(), final_.c_str()) != 0) {
    const int err = errno;
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", final_.c_str());
    std::remove(temp_.c_str());
    untrack(temp_);
    temp_.clear();
    PK_FATAL("renaming the finished file '%s' failed (%s); nothing was left under that name.", final_.c_str(),
             std::strerror(err));
  }
  untrack(temp_);
  temp_.clear();
}
