// The least firmware that answers a mailbox: it finishes every request at once, unless it is set to
// fail or hold it, and keeps what came, in its order. It is the far end of the lab link.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lablink/lab_link.h"
#include "tests/socket_address.h"

namespace stewardry {

struct Asked {
  std::uint32_t code;
  std::string input;
};

class FirmwarePeer {
 public:
  static constexpr std::uint32_t kReadVersion = 0x9C416424;
  static constexpr std::uint32_t kReadStatus = 0x9C416458;

  // Listens as the device interface of the lab folder `lab`; answers the read of the version record
  // with `version`.
  FirmwarePeer(const std::string& lab, std::string version) : path_(lab + "/mailbox/orrin") {
    version.resize(80);
    SetAnswer(kReadVersion, version);
    SetStatus(1);
    listener_ = ListenUnix(path_);
    thread_ = std::thread([this] { Serve(); });
  }
  FirmwarePeer(const FirmwarePeer&) = delete;
  FirmwarePeer& operator=(const FirmwarePeer&) = delete;
  ~FirmwarePeer() {
    ::shutdown(listener_, SHUT_RDWR);  // ends the wait in accept
    Drop(true);
    thread_.join();
    ::close(listener_);
    ::unlink(path_.c_str());
  }

  // The status byte of GetOrrinStatus.
  void SetStatus(std::uint8_t status) {
    SetAnswer(kReadStatus, std::string(1, static_cast<char>(status)));
  }
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
  // The device goes away, `forGood` with those that are opened later.
  void Drop(bool forGood = false) {
    std::lock_guard guard(lock_);
    stopped_ = forGood;
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

  std::vector<Asked> Requests() {
    std::lock_guard guard(lock_);
    return requests_;
  }
  std::vector<std::uint32_t> Codes() {
    std::vector<std::uint32_t> codes;
    for (const Asked& request : Requests()) codes.push_back(request.code);
    return codes;
  }
  // The inputs of all requests of this code, one behind the other.
  std::string Inputs(std::uint32_t code) {
    std::string inputs;
    for (const Asked& request : Requests())
      if (request.code == code) inputs += request.input;
    return inputs;
  }

 private:
  static bool Take(int link, void* data, std::size_t size) {
    return size == 0 || ::recv(link, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }
  void Serve() {
    for (int link; (link = ::accept(listener_, nullptr, nullptr)) >= 0;) {
      SetLink(link);
      while (ServeOne(link)) {
      }
      SetLink(-1);
      ::close(link);
    }
  }
  void SetLink(int link) {
    std::lock_guard guard(lock_);
    link_ = link;
    if (stopped_) ::shutdown(link, SHUT_RDWR);
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
      verdict = verdicts_[request.word];
      if (verdict == 0) record = answers_[request.word];
    }
    if (verdict != kHold) Tell(lablink::kComplete, verdict, record, request.id);
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

  const std::string path_;
  int listener_ = -1;
  std::mutex lock_;
  std::condition_variable changed_;
  bool stopped_ = false;  // guarded by lock_, as all below
  int link_ = -1;
  std::vector<Asked> requests_;
  std::map<std::uint32_t, std::uint32_t> verdicts_;
  std::map<std::uint32_t, std::string> answers_;
  std::map<std::uint32_t, std::size_t> kinds_;
  std::thread thread_;
};

}  // namespace stewardry
