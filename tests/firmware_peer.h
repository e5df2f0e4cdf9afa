// A minimal firmware that answers a mailbox: it completes every request at once, unless it is set
// to fail or hold it, and records what it receives, in order. It is the far end of the lab link.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "lablink/messages.h"
#include "tests/socket_address.h"

namespace stewardry {

struct ReceivedRequest {
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

  // Sets the status byte of GetOrrinStatus.
  void SetStatus(std::uint8_t status) {
    SetAnswer(kReadStatus, std::string(1, static_cast<char>(status)));
  }
  // Makes requests of this code fail with `error`, or never be answered for kHold; 0 answers again.
  static constexpr std::uint32_t kHold = 0xFFFFFFFF;
  void SetVerdict(std::uint32_t code, std::uint32_t error) {
    std::lock_guard guard(lock_);
    verdicts_[code] = error;
  }
  // Sets the record that answers the requests of this code.
  void SetAnswer(std::uint32_t code, const std::string& record) {
    std::lock_guard guard(lock_);
    answers_[code] = record;
  }
  // Sends one frame: the payload, the command code, one byte without a meaning.
  void SendFrame(const std::string& payload, std::uint8_t command) {
    SendRaw(payload + static_cast<char>(command) + '\0');
  }
  // Sends a frame of just these bytes.
  void SendRaw(const std::string& frame) { SendMessage(lablink::kFrame, 0, frame); }
  // Ends the link; with `forGood` also every later one.
  void Drop(bool forGood = false) {
    std::lock_guard guard(lock_);
    stopped_ = forGood;
    if (link_ >= 0) ::shutdown(link_, SHUT_RDWR);
  }

  // Blocks, for a minute at most, until `count` requests of `code` have been received.
  bool Await(std::uint32_t code, std::size_t count = 1) {
    return AwaitThat([&] {
      return std::count_if(requests_.begin(), requests_.end(), [&](const ReceivedRequest& request) {
               return request.code == code;
             }) >= static_cast<std::ptrdiff_t>(count);
    });
  }
  // The same for messages of a kind: kOpen, kClose, kRead, kCancel.
  bool AwaitKind(std::uint32_t kind, std::size_t count = 1) {
    return AwaitThat([&] { return kinds_[kind] >= count; });
  }

  std::vector<ReceivedRequest> Requests() {
    std::lock_guard guard(lock_);
    return requests_;
  }
  std::vector<std::uint32_t> Codes() {
    std::vector<std::uint32_t> codes;
    for (const ReceivedRequest& request : Requests()) codes.push_back(request.code);
    return codes;
  }
  // Returns the inputs of all requests of this code, concatenated.
  std::string Inputs(std::uint32_t code) {
    std::string inputs;
    for (const ReceivedRequest& request : Requests())
      if (request.code == code) inputs += request.input;
    return inputs;
  }

 private:
  void Serve() {
    for (int link; (link = ::accept(listener_, nullptr, nullptr)) >= 0;) {
      SetLink(link);
      while (ServeOne(link)) {
      }
      SetLink(-1);
      reader_.Clear();
      ::close(link);
    }
  }
  void SetLink(int link) {
    std::lock_guard guard(lock_);
    link_ = link;
    if (stopped_) ::shutdown(link, SHUT_RDWR);
  }
  bool ServeOne(int link) {
    lablink::Message message;
    lablink::Parsed result;
    while ((result = reader_.Next(&message)) == lablink::Parsed::kNeedMore) {
      const std::span<std::uint8_t> room = reader_.Room();
      const ssize_t n = ::recv(link, room.data(), room.size(), 0);
      if (n <= 0) return false;
      reader_.Filled(static_cast<std::size_t>(n));
    }
    if (result == lablink::Parsed::kMalformed) return false;
    if (message.head.kind == lablink::kRequest && message.body.size() >= 4)
      Finish(message.head, {message.body.begin() + 4, message.body.end()});
    std::lock_guard guard(lock_);
    ++kinds_[message.head.kind];
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
    if (verdict != kHold) SendMessage(lablink::kComplete, verdict, record, request.id);
  }
  void SendMessage(std::uint32_t kind, std::uint32_t word, const std::string& body,
                   std::uint64_t id = 0) {
    std::string message;
    lablink::AppendMessage(&message, kind, id, word, body);
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
  lablink::MessageReader reader_;  // the serving thread's
  std::mutex lock_;
  std::condition_variable changed_;
  bool stopped_ = false;  // guarded by lock_, as all below
  int link_ = -1;
  std::vector<ReceivedRequest> requests_;
  std::map<std::uint32_t, std::uint32_t> verdicts_;
  std::map<std::uint32_t, std::string> answers_;
  std::map<std::uint32_t, std::size_t> kinds_;
  std::thread thread_;
};

}  // namespace stewardry
