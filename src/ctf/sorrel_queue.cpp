// The read-ahead queue and its reader thread.
#include "ctf/sorrel_queue.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "cuda_general/report.h"

namespace {

void say(int silent, const char* text) {
  if (!silent) std::printf("%s", text);
}

}  // namespace

void sorrel_free_packet(mrcf_data_packet& packet) {
  std::free(packet.data);
  packet.data = nullptr;
  packet.count = 0;
  packet.state = 0;
}

SorrelDataQueue::~SorrelDataQueue() {
  for (mrcf_data_packet& packet : packets_) sorrel_free_packet(packet);
}

int SorrelDataQueue::send(mrcf_data_packet& packet) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) {
    say(silent_, "can not SEND data package to the queue; temporarily locked.\n");
    return 0;
  }
  if (packets_.size() >= static_cast<std::size_t>(SORREL_QUEUE_CAPACITY)) {
    say(silent_, "can not send one element to Data_Queq; Queue already full.\n");
    return 0;
  }
  say(silent_, "sending one element to Data_Queq...\n");
  packets_.push_back(std::move(packet));
  packet = mrcf_data_packet{};
  say(silent_, "one element successfully sent to Data_Queq.\n");
  lock.unlock();
  changed_.notify_all();
  return 1;
}

int SorrelDataQueue::get(mrcf_data_packet& out) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) {
    say(silent_, "can not GET data package from the queue. \033[43mLocked...\033[m");
    return 0;
  }
  if (packets_.empty()) {
    say(silent_, "can not GET data package from the queue; queue size zero.\n");
    return 0;
  }
  say(silent_, "getting one element from Data_Queq...\n");
  out = std::move(packets_.front());
  packets_.pop_front();
  say(silent_, "one element got from Data_Queq.\n");
  lock.unlock();
  changed_.notify_all();
  return 1;
}

int SorrelDataQueue::get_until_succeed(mrcf_data_packet& out) {
  for (int tries = 0; tries <= SORREL_QUEUE_MAX_TRIES; ++tries) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (packets_.empty() && all_sent_) {
        say(silent_, "Can not GET any data package from the empty queue while no data is being sent to the queue.\n");
        return 0;
      }
    }
    if (get(out)) return 1;
    say(silent_, "Did not manage to get data this time, will try later.\n");
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::microseconds(100000), [&] { return !packets_.empty() || all_sent_; });
  }
  PK_WARNING("Failed to get data after %d many times tries!", SORREL_QUEUE_MAX_TRIES);
  return 0;
}

int SorrelDataQueue::get_for_name(const std::string& name, mrcf_data_packet& out) {
  while (get_until_succeed(out)) {
    if (out.name == name) return 1;
    sorrel_free_packet(out);  // read ahead for a micrograph that was skipped
  }
  return 0;
}

void SorrelDataQueue::set_all_sent() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    all_sent_ = true;
  }
  changed_.notify_all();
}

bool SorrelDataQueue::wait_for_room(double seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
    return stop_ || packets_.size() < static_cast<std::size_t>(SORREL_QUEUE_CAPACITY);
  });
  return !stop_;
}

void SorrelDataQueue::request_stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
}

bool SorrelDataQueue::stop_requested() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stop_;
}

std::size_t SorrelDataQueue::size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return packets_.size();
}

namespace {

// Reads one input into a packet; a failure is recorded in the packet, never reported by exit.
mrcf_data_packet load_packet(const std::string& name, const MRC_HEAD* expected) {
  mrcf_data_packet packet;
  packet.name = name;
  packet.state = 1;
  const std::size_t count = static_cast<std::size_t>(expected->nx) * expected->ny * expected->nz;
  packet.data = static_cast<float*>(std::malloc(count * sizeof(float)));
  if (packet.data == nullptr) {
    packet.read_result = SORREL_READ_BAD_FILE;
    return packet;
  }
  packet.count = count;
  packet.read_result = sorrel_read_mic(name.c_str(), expected, &packet.head, packet.data);
  if (packet.read_result != SORREL_READ_OK) sorrel_free_packet(packet), packet.state = 1;
  return packet;
}

}  // namespace

void sorrel_read_infs_data_and_send_to_queue(SorrelDataQueue* queue, const std::vector<std::string>* files,
                                             const MRC_HEAD* expected, std::function<bool(int)> wanted, int silent) {
  for (std::size_t i = 0; i < files->size() && !queue->stop_requested(); ++i) {
    if (wanted && !wanted(static_cast<int>(i))) continue;
    mrcf_data_packet packet = load_packet((*files)[i], expected);
    while (!queue->send(packet)) {
      if (!silent) std::printf("sending %zuth element of dp_vec temporarily failed.\033[43mWaiting ...\033[m\n", i);
      if (!queue->wait_for_room(1.0)) break;
    }
    if (packet.state != 0) {  // not taken: the run is stopping
      sorrel_free_packet(packet);
      break;
    }
    if (!silent) std::printf("sending %zuth element of dp_vec succeeded. \033[43mContinue ...\033[m\n", i);
  }
  queue->set_all_sent();
}

void SorrelReader::start(SorrelDataQueue* queue, const std::vector<std::string>* files, const MRC_HEAD* expected,
                         std::function<bool(int)> wanted, int silent) {
  join();
  queue_ = queue;
  thread_ = std::thread(sorrel_read_infs_data_and_send_to_queue, queue, files, expected, std::move(wanted), silent);
}

void SorrelReader::join() {
  if (!thread_.joinable()) return;
  queue_->request_stop();
  thread_.join();
}
