#include "support/run_command.h"

#include <sys/wait.h>

#include <cstdio>

int run_command(const std::string& command, std::string& output) {
  output.clear();
  std::FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return -1;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) output.append(buf, n);
  const int status = pclose(p);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
