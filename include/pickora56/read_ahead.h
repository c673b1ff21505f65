// Reading the next micrograph while the current one is matched.
//
// The read-ahead only brings a file's bytes into the operating system's page cache from a
// thread of its own; the driver then reads the file exactly as it always does. So what is
// printed, in which order, what is written and how a bad or missing file fails are those of
// the ordinary read: a file that cannot be read ahead is simply not read ahead.
#pragma once

#include <atomic>
#include <thread>

// Whether read-ahead is on: PICKORA_READ_AHEAD=0 turns it off, anything else leaves it on.
bool read_ahead_enabled();

class ReadAhead {
 public:
  ReadAhead() = default;
  ~ReadAhead() { finish(); }
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // Starts reading `path` in the background, after stopping a read that is still running.
  void start(const char* path);
  // Stops the current read, if any, and waits for its thread.
  void finish();

 private:
  std::thread worker_;
  std::atomic<bool> stop_{false};
};
