// Changes of the host's interfaces: a thread receives the kernel's rtnetlink messages for links and
// IPv4 addresses. A test or a person injects a change as a datagram on the socket `addresses` in
// the lab folder: "add", "delete" or "change".
#include "platform/address_change.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

// The kernel's messages for a change, and Windows' type of it.
struct Change {
  std::uint16_t message;
  std::uint32_t type;
};
constexpr Change kChanges[] = {
    {RTM_NEWADDR, kMibAddInstance},
    {RTM_DELADDR, kMibDeleteInstance},
    {RTM_NEWLINK, kMibParameterNotification},
    {RTM_DELLINK, kMibDeleteInstance},
};

struct Word {
  std::string_view text;
  std::uint32_t type;
};
constexpr Word kWords[] = {
    {"add", kMibAddInstance},
    {"delete", kMibDeleteInstance},
    {"change", kMibParameterNotification},
};

bool BindToKernel(int socket) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
  return ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// One registration. Its destructor blocks until no callback runs any more.
class Watch {
 public:
  Watch(IpChangeCallback callback, void* context) : callback_(callback), context_(context) {
    assert(callback != nullptr);
  }
  ~Watch() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(stop_.Value(), &one, sizeof one);
    if (thread_.joinable()) thread_.join();
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Returns false, with errno set, on failure.
  bool Start() {
    if (!BindToKernel(kernel_.Value()) || !BindLabSocket(lab_.Value(), "addresses") || !stop_)
      return false;
    try {
      thread_ = std::thread([this] { Run(); });
      return true;
    } catch (const std::system_error&) {
      errno = ENOMEM;
      return false;
    }
  }

 private:
  void Run() {
    pollfd fds[] = {
        {stop_.Value(), POLLIN, 0}, {kernel_.Value(), POLLIN, 0}, {lab_.Value(), POLLIN, 0}};
    while (::poll(fds, std::size(fds), -1) >= 0 || errno == EINTR) {
      if (fds[0].revents != 0) return;
      if (fds[1].revents != 0) ReceiveMessages();
      if (fds[2].revents != 0) ReceiveWord();
    }
  }

  // One datagram holds one or several messages. Their heads are copied within its bounds.
  void ReceiveMessages() {
    char part[8192];
    const ssize_t size = ::recv(kernel_.Value(), part, sizeof part, MSG_DONTWAIT);
    std::string_view rest(part, size > 0 ? static_cast<std::size_t>(size) : 0);
    nlmsghdr head;
    while (rest.size() >= sizeof head) {
      std::memcpy(&head, rest.data(), sizeof head);
      if (head.nlmsg_len < sizeof head) return;
      for (const Change& change : kChanges)
        if (change.message == head.nlmsg_type) callback_(context_, nullptr, change.type);
      rest.remove_prefix(std::min<std::size_t>(NLMSG_ALIGN(head.nlmsg_len), rest.size()));
    }
  }

  void ReceiveWord() {
    char text[16];
    const ssize_t size = ::recv(lab_.Value(), text, sizeof text, MSG_DONTWAIT);
    const std::string_view received(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    for (const Word& word : kWords)
      if (word.text == received) callback_(context_, nullptr, word.type);
  }

  const IpChangeCallback callback_;
  void* const context_;
  const Descriptor kernel_{::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
  const Descriptor lab_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  const Descriptor stop_{::eventfd(0, EFD_CLOEXEC)};
  std::thread thread_;
};

}  // namespace

std::uint32_t NotifyIpInterfaceChange(IpChangeCallback callback, void* context, RawHandle* handle) {
  if (const std::uint32_t error = gate::Enter("NotifyIpInterfaceChange")) return error;
  auto watch = std::make_unique<Watch>(callback, context);
  if (!watch->Start()) {
    SetLastErrorFromErrno(errno);
    return LastError();
  }
  *handle = watch.release();
  return kErrorSuccess;
}

std::uint32_t CancelMibChangeNotify2(RawHandle handle) {
  if (const std::uint32_t error = gate::Enter("CancelMibChangeNotify2")) return error;
  if (handle == nullptr) return kErrorInvalidParameter;
  std::unique_ptr<Watch>(static_cast<Watch*>(handle)).reset();
  return kErrorSuccess;
}

}  // namespace platform
