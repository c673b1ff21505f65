#include "support/temp_file.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

TempFile::TempFile(const std::string& bytes, const std::string& suffix) {
  char stem[] = "/tmp/pickora_testXXXXXX";
  const int fd = mkstemp(stem);
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  close(fd);
  std::remove(stem);
  path = std::string(stem) + suffix;
  FILE* fp = std::fopen(path.c_str(), "wb");
  if (fp == nullptr) throw std::runtime_error("cannot create " + path);
  std::fwrite(bytes.data(), 1, bytes.size(), fp);
  std::fclose(fp);
}

TempFile::~TempFile() { std::remove(path.c_str()); }

std::string read_file_bytes(const std::string& path) {
  std::string bytes;
  FILE* fp = std::fopen(path.c_str(), "rb");
  if (fp == nullptr) return bytes;
  char chunk[4096];
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, fp)) > 0;) bytes.append(chunk, n);
  std::fclose(fp);
  return bytes;
}
