// Temporary files for tests of the readers.
#pragma once

#include <string>

// A file under /tmp holding the given bytes, with the given suffix; removed at the end of the
// scope.
struct TempFile {
  std::string path;
  explicit TempFile(const std::string& bytes, const std::string& suffix = ".txt");
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
};

// The whole content of a file.
std::string read_file_bytes(const std::string& path);
