#include "platform/linux/hostfacts/netlink.h"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "platform/linux/runtime/descriptor.h"

namespace platform {

namespace {

constexpr std::size_t kDumpPart = 65536;  // more than the kernel puts into one part

// One message of a response: its fixed part and the attributes that follow. All reads are copies
// within its bounds, so neither alignment nor a wrong length matters.
class Message {
 public:
  Message(const char* body, std::size_t size) : body_(body), size_(size) {}

  template <class Fixed>
  bool Read(Fixed* fixed) {
    if (size_ < sizeof *fixed) return false;
    std::memcpy(fixed, body_, sizeof *fixed);
    attributes_ = NLMSG_ALIGN(sizeof *fixed);
    return true;
  }

  // Returns the bytes of an attribute; empty if the message has none of that type.
  std::string Attribute(unsigned short type) const {
    std::size_t at = attributes_;
    while (at + sizeof(rtattr) <= size_) {
      rtattr head;
      std::memcpy(&head, body_ + at, sizeof head);
      if (head.rta_len < sizeof head || head.rta_len > size_ - at) break;
      if (head.rta_type == type)
        return std::string(body_ + at + sizeof head, head.rta_len - sizeof head);
      at += RTA_ALIGN(head.rta_len);
    }
    return {};
  }

  std::uint32_t Number(unsigned short type, std::uint32_t otherwise = 0) const {
    const std::string bytes = Attribute(type);
    if (bytes.size() != sizeof otherwise) return otherwise;
    std::memcpy(&otherwise, bytes.data(), sizeof otherwise);
    return otherwise;
  }

 private:
  const char* body_;
  std::size_t size_;
  std::size_t attributes_ = 0;
};

using MessageReader = std::function<void(Message)>;

bool RequestDump(int socket, std::uint16_t type, unsigned char family) {
  struct {
    nlmsghdr head;
    rtgenmsg body;
  } request{};
  request.head.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.head.nlmsg_type = type;
  request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.rtgen_family = family;
  const ssize_t sent = ::send(socket, &request, request.head.nlmsg_len, 0);
  return sent == static_cast<ssize_t>(request.head.nlmsg_len);
}

// Passes each message of one part of the response to `read`. Returns false for the last part.
bool ReadPart(const std::string& part, std::uint16_t wanted, const MessageReader& read) {
  std::size_t at = 0;
  while (at + sizeof(nlmsghdr) <= part.size()) {
    nlmsghdr head;
    std::memcpy(&head, part.data() + at, sizeof head);
    if (head.nlmsg_len < NLMSG_HDRLEN || head.nlmsg_len > part.size() - at) return false;
    if (head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR) return false;
    if (head.nlmsg_type == wanted)
      read(Message(part.data() + at + NLMSG_HDRLEN, head.nlmsg_len - NLMSG_HDRLEN));
    at += NLMSG_ALIGN(head.nlmsg_len);
  }
  return true;
}

// Requests all objects of a kind (RTM_GETLINK...); the response has messages of the type `wanted`.
void Dump(std::uint16_t type, std::uint16_t wanted, unsigned char family,
          const MessageReader& read) {
  const Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket || !RequestDump(socket.Value(), type, family)) return;
  std::string part;
  do {
    part.resize(kDumpPart);
    ssize_t size;
    do {
      size = ::recv(socket.Value(), part.data(), part.size(), 0);
    } while (size < 0 && errno == EINTR);
    if (size <= 0) return;
    part.resize(static_cast<std::size_t>(size));
  } while (ReadPart(part, wanted, read));
}

// The operational state is more exact than the carrier, but it is unknown for interfaces without
// one (the loopback interface, tunnels).
bool IsUp(unsigned flags, std::uint8_t operState) {
  if ((flags & IFF_UP) == 0) return false;
  if (operState == IF_OPER_UP) return true;
  return operState == IF_OPER_UNKNOWN && (flags & IFF_LOWER_UP) != 0;
}

}  // namespace

std::vector<KernelLink> KernelLinks() {
  std::vector<KernelLink> links;
  Dump(RTM_GETLINK, RTM_NEWLINK, AF_UNSPEC, [&links](Message message) {
    ifinfomsg fixed;
    if (!message.Read(&fixed)) return;
    KernelLink link;
    link.index = static_cast<std::uint32_t>(fixed.ifi_index);
    link.name = message.Attribute(IFLA_IFNAME).c_str();  // without its terminator
    const std::string state = message.Attribute(IFLA_OPERSTATE);
    link.up = IsUp(fixed.ifi_flags, state.empty() ? std::uint8_t{IF_OPER_UNKNOWN}
                                                  : static_cast<std::uint8_t>(state[0]));
    link.loopback = (fixed.ifi_flags & IFF_LOOPBACK) != 0;
    const std::string address = message.Attribute(IFLA_ADDRESS);
    link.hardwareAddress.assign(address.begin(), address.end());
    links.push_back(std::move(link));
  });
  return links;
}

std::vector<KernelAddress> KernelAddresses() {
  std::vector<KernelAddress> addresses;
  Dump(RTM_GETADDR, RTM_NEWADDR, AF_INET, [&addresses](Message message) {
    ifaddrmsg fixed;
    if (!message.Read(&fixed) || fixed.ifa_family != AF_INET) return;
    // On a point-to-point link IFA_ADDRESS is the far end; IFA_LOCAL is always this host.
    const std::uint32_t address = message.Number(IFA_LOCAL, message.Number(IFA_ADDRESS));
    const std::uint32_t flags = message.Number(IFA_FLAGS, fixed.ifa_flags);
    addresses.push_back(
        {fixed.ifa_index, address, fixed.ifa_prefixlen, (flags & IFA_F_PERMANENT) != 0});
  });
  return addresses;
}

std::vector<KernelGateway> KernelDefaultGateways() {
  std::vector<KernelGateway> gateways;
  Dump(RTM_GETROUTE, RTM_NEWROUTE, AF_INET, [&gateways](Message message) {
    rtmsg fixed;
    if (!message.Read(&fixed) || fixed.rtm_family != AF_INET || fixed.rtm_dst_len != 0) return;
    if (message.Number(RTA_TABLE, fixed.rtm_table) != RT_TABLE_MAIN) return;
    const std::uint32_t address = message.Number(RTA_GATEWAY);
    if (address != 0) gateways.push_back({message.Number(RTA_OIF), address});
  });
  return gateways;
}

}  // namespace platform
