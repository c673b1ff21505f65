// A scratch folder per test, removed with everything in it when the test ends.
#pragma once

#include <string>
#include <vector>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole-file helpers for tests that look at bytes.
std::vector<unsigned char> read_file_bytes(const std::string& path);
void write_file_bytes(const std::string& path, const std::vector<unsigned char>& bytes);
std::string read_file_text(const std::string& path);
void write_file_text(const std::string& path, const std::string& text);
