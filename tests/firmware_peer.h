// The least firmware that answers a mailbox: it finishes every request at once, unless told to fail
// or hold it, and keeps what came, in its order. It speaks the lab link from the far end.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/lab_link.h"
#include "tests/socket_address.h"

namespace stewardry {

struct Asked {
  std::uint32_t code;
  std::string input;
};

class FirmwarePeer {
 public:
  // Listens as the device interface `name` of the lab folder `lab`; answers the read of the version
  // record with `version`.
  FirmwarePeer(const std::string& lab, std::string version) : version_(std::move(version)) {
    path_ = lab + "/mailbox/orrin";
    listener_ = ListenUnix(path_);
    stop_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { Serve(); });
  }
  FirmwarePeer(const FirmwarePeer&) = delete;
  FirmwarePeer& operator=(const FirmwarePeer&) = delete;
  ~FirmwarePeer() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(stop_, &one, sizeof one);
    thread_.join();
    ::close(stop_);
    ::close(listener_);
    ::unlink(path_.c_str());
  }

  // The status byte of GetOrrinStatus.
  void SetStatus(std::uint8_t status) { status_.store(status); }
  // Requests of this code finish with `error`, or are never answered for kHold; 0 answers again.
  static constexpr std::uint32_t kHold = 0xFFFFFFFF;
  void SetVerdict(std::uint32_t code, std::uint32_t error) {
    std::lock_guard guard(lock_);
    verdicts_[code] = error;
  }
  // What the requests of this code are answered with.
  void SetAnswer(std::uint32_t code, const std::string& record) {
    std::lock_guard guard(lock_);
    answers_[code] = record;
  }
  // One frame: the payload, the command code, one byte without a meaning.
  void SendFrame(const std::string& payload, std::uint8_t command) {
    SendRaw(payload + static_cast<char>(command) + '\0');
  }
  // A frame of just these bytes.
  void SendRaw(const std::string& frame) { Tell(lablink::kFrame, 0, frame); }
  void FailRead(std::uint32_t error) { Tell(lablink::kFailRead, error, ""); }
  // The device goes away.
  void Drop() {
    std::lock_guard guard(lock_);
    if (link_ >= 0) ::shutdown(link_, SHUT_RDWR);
  }

  // Waits, for a minute at most, until `count` requests of `code` have come.
  bool Await(std::uint32_t code, std::size_t count = 1) {
    return AwaitThat([&] {
      return std::count_if(requests_.begin(), requests_.end(), [&](const Asked& asked) {
               return asked.code == code;
             }) >= static_cast<std::ptrdiff_t>(count);
    });
  }
  // The same for messages of a kind: kOpen, kClose, kRead, kCancel.
  bool AwaitKind(std::uint32_t kind, std::size_t count = 1) {
    return AwaitThat([&] { return kinds_[kind] >= count; });
  }
  std::size_t KindCount(std::uint32_t kind) {
    std::lock_guard guard(lock_);
    return kinds_[kind];
  }

  std::vector<Asked> Requests() {
    std::lock_guard guard(lock_);
    return requests_;
  }
  std::vector<std::uint32_t> Codes() {
    std::vector<std::uint32_t> codes;
    for (const Asked& request : Requests()) codes.push_back(request.code);
    return codes;
  }

 private:
  static constexpr std::uint32_t kReadVersion = 0x9C416424;
  static constexpr std::uint32_t kReadStatus = 0x9C416458;

  bool Readable(int descriptor) {
    pollfd fds[2] = {{descriptor, POLLIN, 0}, {stop_, POLLIN, 0}};
    return ::poll(fds, 2, -1) > 0 && fds[1].revents == 0;
  }
  bool Take(int link, void* data, std::size_t size) {
    char* at = static_cast<char*>(data);
    while (size > 0) {
      if (!Readable(link)) return false;
      const ssize_t n = ::recv(link, at, size, 0);
      if (n <= 0) return false;
      at += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }
  void Serve() {
    while (Readable(listener_)) {
      const int link = ::accept(listener_, nullptr, nullptr);
      {
        std::lock_guard guard(lock_);
        link_ = link;
      }
      while (ServeOne(link)) {
      }
      std::lock_guard guard(lock_);
      link_ = -1;
      ::close(link);
    }
  }
  bool ServeOne(int link) {
    lablink::Head head;
    if (!Take(link, &head, sizeof head) || head.length > lablink::kMaxBody) return false;
    std::string body(head.length, '\0');
    if (!Take(link, body.data(), body.size())) return false;
    if (head.kind == lablink::kRequest) Finish(head, body.substr(4));
    std::lock_guard guard(lock_);
    ++kinds_[head.kind];
    changed_.notify_all();
    return true;
  }
  void Finish(const lablink::Head& request, std::string input) {
    std::uint32_t verdict = 0;
    std::string record;
    {
      std::lock_guard guard(lock_);
      requests_.push_back({request.word, std::move(input)});
      changed_.notify_all();
      auto found = verdicts_.find(request.word);
      if (found != verdicts_.end()) verdict = found->second;
      auto answer = answers_.find(request.word);
      if (verdict == 0 && answer != answers_.end()) record = answer->second;
    }
    if (verdict == kHold) return;
    if (verdict == 0 && request.word == kReadVersion)
      record = version_ + std::string(80 - version_.size(), '\0');
    if (verdict == 0 && request.word == kReadStatus)
      record = std::string(1, static_cast<char>(status_.load()));
    Tell(lablink::kComplete, verdict, record, request.id);
  }
  void Tell(std::uint32_t kind, std::uint32_t word, const std::string& body, std::uint64_t id = 0) {
    const lablink::Head head{lablink::kMagic, kind, id, word,
                             static_cast<std::uint32_t>(body.size())};
    const std::string message =
        std::string(reinterpret_cast<const char*>(&head), sizeof head) + body;
    std::lock_guard guard(lock_);
    for (std::size_t sent = 0; link_ >= 0 && sent < message.size();) {
      const ssize_t n = ::send(link_, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;
      sent += static_cast<std::size_t>(n);
    }
  }
  template <class Ready>
  bool AwaitThat(Ready ready) {
    std::unique_lock lock(lock_);
    return changed_.wait_for(lock, std::chrono::minutes(1), ready);
  }

  const std::string version_;
  std::string path_;
  int listener_ = -1;
  int stop_ = -1;
  std::mutex lock_;
  std::condition_variable changed_;
  int link_ = -1;  // guarded by lock_, as all below
  std::vector<Asked> requests_;
  std::map<std::uint32_t, std::uint32_t> verdicts_;
  std::map<std::uint32_t, std::string> answers_;
  std::map<std::uint32_t, std::size_t> kinds_;
  std::atomic<std::uint8_t> status_{1};
  std::thread thread_;
};

}  // namespace stewardry
