// The least firmware that answers a mailbox: it finishes every request at once and keeps what came,
// in its order. It speaks the lab link from the far end.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/lab_link.h"

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
    std::filesystem::create_directories(lab + "/mailbox");
    path_ = lab + "/mailbox/orrin";
    ::unlink(path_.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_, 1);
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
      while (ServeOne(link)) {
      }
      ::close(link);
    }
  }
  bool ServeOne(int link) {
    lablink::Head head;
    if (!Take(link, &head, sizeof head) || head.length > lablink::kMaxBody) return false;
    std::string body(head.length, '\0');
    if (!Take(link, body.data(), body.size())) return false;
    if (head.kind == lablink::kRequest) Finish(link, head, body.substr(4));
    return true;
  }
  void Finish(int link, const lablink::Head& request, std::string input) {
    {
      std::lock_guard guard(lock_);
      requests_.push_back({request.word, std::move(input)});
    }
    std::string record;
    if (request.word == kReadVersion) record = version_ + std::string(80 - version_.size(), '\0');
    const lablink::Head head{lablink::kMagic, lablink::kComplete, request.id, 0,
                             static_cast<std::uint32_t>(record.size())};
    const std::string message =
        std::string(reinterpret_cast<const char*>(&head), sizeof head) + record;
    ::send(link, message.data(), message.size(), MSG_NOSIGNAL);
  }

  const std::string version_;
  std::string path_;
  int listener_ = -1;
  int stop_ = -1;
  std::mutex lock_;
  std::vector<Asked> requests_;  // guarded by lock_
  std::thread thread_;
};

}  // namespace stewardry
