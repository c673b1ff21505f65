// The read-ahead of the CTF run: a second thread reads micrographs into a first-in first-out
// queue of capacity 5 while the main thread works on the current one.
//
// The queue is guarded by a real mutex (a try-lock keeps the "temporarily locked" answers of
// the plain-word design) and a condition variable paces both sides instead of blind sleeps.
// The reader never ends the process: a file it can't read travels to the main thread as a
// packet that carries the failure, and the main thread decides. The reader thread is always
// joined, also when the run stops early (the destructor asks it to stop and waits).
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ctf/sorrel_files.h"
#include "mrcfile/mrcfile.h"

// One queue element. state: 0 empty, 1 loaded (read_result tells whether the data are good).
struct mrcf_data_packet {
  float* data = nullptr;  // count floats, owned by the packet's holder; null after a failed read
  std::size_t count = 0;
  std::string name;
  MRC_HEAD head{};
  int state = 0;
  SorrelRead read_result = SORREL_READ_OK;
};

constexpr int SORREL_QUEUE_CAPACITY = 5;
constexpr int SORREL_QUEUE_MAX_TRIES = 1000;  // tries of the get loop, 0.1 s apart at most

class SorrelDataQueue {
 public:
  explicit SorrelDataQueue(int silent = 1) : silent_(silent) {}
  ~SorrelDataQueue();
  SorrelDataQueue(const SorrelDataQueue&) = delete;
  SorrelDataQueue& operator=(const SorrelDataQueue&) = delete;

  // 1 when the packet was appended (the queue takes over its data), 0 when the queue was
  // locked by the other side or full.
  int send(mrcf_data_packet& packet);
  // 1 with the front packet moved to out, 0 when locked or empty.
  int get(mrcf_data_packet& out);
  // Tries until a packet comes, waiting up to 0.1 s between tries; 0 when the queue is empty
  // and everything has been sent, or after SORREL_QUEUE_MAX_TRIES failed tries.
  int get_until_succeed(mrcf_data_packet& out);
  // The packet of `name`: earlier packets (of micrographs the main thread skipped) are freed
  // and dropped on the way. 0 when none comes.
  int get_for_name(const std::string& name, mrcf_data_packet& out);

  void set_all_sent();
  // Waits up to `seconds` for room in the queue; false when asked to stop.
  bool wait_for_room(double seconds);
  void request_stop();
  bool stop_requested();
  std::size_t size();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<mrcf_data_packet> packets_;
  bool all_sent_ = false;
  bool stop_ = false;
  int silent_;
};

// Reads the inputs in order into packets and offers them to the queue; `wanted` (if set) says
// which inputs to read at all, `expected` is the head every image must match. Sets all_sent at
// the end. Runs on the reader thread.
void sorrel_read_infs_data_and_send_to_queue(SorrelDataQueue* queue, const std::vector<std::string>* files,
                                             const MRC_HEAD* expected, std::function<bool(int)> wanted, int silent);

// The reader thread with its lifetime: started by start(), joined by join() or the destructor.
class SorrelReader {
 public:
  SorrelReader() = default;
  ~SorrelReader() { join(); }
  SorrelReader(const SorrelReader&) = delete;
  SorrelReader& operator=(const SorrelReader&) = delete;
  void start(SorrelDataQueue* queue, const std::vector<std::string>* files, const MRC_HEAD* expected,
             std::function<bool(int)> wanted, int silent);
  // Asks the reader to stop after its current file and waits for it.
  void join();

 private:
  SorrelDataQueue* queue_ = nullptr;
  std::thread thread_;
};

// Frees a packet's data and leaves it empty.
void sorrel_free_packet(mrcf_data_packet& packet);
