// An output file that appears whole or not at all.
//
// AtomicFile writes to a temporary name in the folder of the final name ("<final>.tmp-<pid>"),
// so that a kill, a full disk or a fatal report at any point leaves either no final file or
// the previous one, never a truncated one. commit() flushes and closes the stream, checks
// both, and renames the temporary file to the final name; a failure at any of these steps is
// fatal with a message that names the final file. The destructor of an uncommitted file
// closes and removes the temporary file, so an error that unwinds leaves nothing behind.
//
// Readers that test for the final name (resuming with --do_unfinished) therefore see only
// finished files.
#pragma once

#include <cstdio>
#include <string>

class AtomicFile {
 public:
  // Opens "<final_name>.tmp-<pid>" for writing ("w+", so it can be read back) or ends the
  // run, naming final_name.
  explicit AtomicFile(const char* final_name);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  FILE* stream() const { return fp_; }
  const char* final_name() const { return final_.c_str(); }
  const char* temp_name() const { return temp_.c_str(); }

  // Ends the run, naming the final file, when a write on the stream has failed so far.
  void check();
  // fwrite of bytes at data, ending the run on a short write.
  void write(const void* data, size_t bytes);
  // Flush, close and rename, each checked. After commit the stream is gone.
  void commit();
  // Closes and removes the temporary file without touching the final name.
  void discard();

 private:
  [[noreturn]] void fail(const char* what);
  std::string final_;
  std::string temp_;
  FILE* fp_ = nullptr;
};

// A final name whose content another writer produces under a temporary name first: the
// temporary name ("a_pickora.tmp-<pid>.box" for "a_pickora.box", keeping the extension that
// tells readers the format) is handed to that writer, and commit() renames it
// to the final name, checked. An uncommitted temporary file is removed by the destructor. The
// driver holds back a micrograph's .box file this way until everything else of the micrograph
// is written, so that the .box file, the mark of a finished micrograph, comes last.
class StagedName {
 public:
  explicit StagedName(const char* final_name);
  ~StagedName();
  StagedName(const StagedName&) = delete;
  StagedName& operator=(const StagedName&) = delete;

  const char* final_name() const { return final_.c_str(); }
  const char* temp_name() const { return temp_.c_str(); }
  void commit();

 private:
  std::string final_;
  std::string temp_;
};

// The characters AtomicFile adds to a final name for its temporary name, at most: the longest
// output name plus this must fit a 1023-character name.
constexpr int ATOMIC_FILE_TEMP_SUFFIX_MAX = 16;  // ".tmp-" and a process id of up to 11 digits
