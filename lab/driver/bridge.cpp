// tavrin_bridge: connects the mailbox driver's lab device to a firmware that listens on 127.0.0.1.
// Each read and each write of the device is one message of the lab link, so the bridge only divides
// the socket's stream into messages.
#include <winsock2.h>
#include <ws2tcpip.h>
// This needs winsock2.h before it.
#include <windows.h>
#include <winioctl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <type_traits>
#include <vector>

#include "lab/driver/lab_control.h"
#include "lablink/messages.h"

namespace {

struct CloseObject {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Object = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseObject>;

// Used by both directions and never closed, because the process ends with either of them.
struct Bridge {
  HANDLE lab = INVALID_HANDLE_VALUE;
  SOCKET firmware = INVALID_SOCKET;
};

[[noreturn]] void Leave(const char* why, unsigned long error) {
  std::printf("ended: %s (%lu)\n", why, error);
  std::fflush(stdout);
  ExitProcess(1);  // nothing could wake the other direction from its wait
}

// Reads or writes one message. Overlapped, because both directions use the device at once.
DWORD Transfer(HANDLE lab, bool isRead, void* bytes, DWORD size, HANDLE event) {
  OVERLAPPED request{};
  request.hEvent = event;
  const BOOL started = isRead ? ReadFile(lab, bytes, size, nullptr, &request)
                              : WriteFile(lab, bytes, size, nullptr, &request);
  DWORD moved = 0;
  if ((!started && GetLastError() != ERROR_IO_PENDING) ||
      !GetOverlappedResult(lab, &request, &moved, TRUE))
    Leave(isRead ? "the driver ended the reads" : "the driver refused a message", GetLastError());
  return moved;
}

Object MakeEvent() {
  Object event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  if (!event) Leave("no event", GetLastError());
  return event;
}

DWORD WINAPI DriverToFirmware(void* parameter) {
  const Bridge& bridge = *static_cast<const Bridge*>(parameter);
  const Object event = MakeEvent();
  std::vector<char> message(lablink::kMaxMessage);
  for (;;) {
    const DWORD size =
        Transfer(bridge.lab, true, message.data(), static_cast<DWORD>(message.size()), event.get());
    lablink::Head head;
    if (!lablink::IsOneMessage(message.data(), size, &head))
      Leave("the driver sent an invalid message", size);
    for (DWORD sent = 0; sent < size;) {
      const int n = send(bridge.firmware, message.data() + sent, static_cast<int>(size - sent), 0);
      if (n <= 0)
        Leave("the firmware closed the link", static_cast<unsigned long>(WSAGetLastError()));
      sent += static_cast<DWORD>(n);
    }
  }
}

[[noreturn]] void FirmwareToDriver(const Bridge& bridge) {
  const Object event = MakeEvent();
  lablink::MessageReader reader;
  for (;;) {
    const std::span<std::uint8_t> room = reader.Room();
    const int n = recv(bridge.firmware, reinterpret_cast<char*>(room.data()),
                       static_cast<int>(room.size()), 0);
    if (n <= 0)
      Leave("the firmware closed the link", static_cast<unsigned long>(WSAGetLastError()));
    reader.Filled(static_cast<std::size_t>(n));
    lablink::Message message;
    lablink::Parsed result;
    while ((result = reader.Next(&message)) == lablink::Parsed::kMessage)
      Transfer(bridge.lab, false, const_cast<std::uint8_t*>(message.bytes.data()),
               static_cast<DWORD>(message.bytes.size()), event.get());
    if (result == lablink::Parsed::kMalformed)
      Leave("the firmware sent an invalid message", static_cast<unsigned long>(reader.Torn()));
  }
}

SOCKET ConnectToFirmware(unsigned long port) {
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) Leave("no sockets", 0);
  const SOCKET firmware = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<u_short>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(firmware, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    Leave("no firmware on that port", static_cast<unsigned long>(WSAGetLastError()));
  const BOOL noDelay = TRUE;  // a request is one small message whose answer is awaited
  setsockopt(firmware, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay),
             sizeof noDelay);
  return firmware;
}

}  // namespace

int main(int count, char** words) {
  const unsigned long port = count == 2 ? std::strtoul(words[1], nullptr, 10) : 0;
  if (port == 0 || port > 65535) {
    std::printf("usage: tavrin_bridge PORT\n");
    return 2;
  }
  Bridge bridge;
  bridge.firmware = ConnectToFirmware(port);
  bridge.lab = CreateFileA(TAVRIN_LAB_PATH, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
  if (bridge.lab == INVALID_HANDLE_VALUE) Leave("the driver is not there", GetLastError());
  const Object thread(CreateThread(nullptr, 0, DriverToFirmware, &bridge, 0, nullptr));
  if (!thread) Leave("no thread", GetLastError());
  std::printf("joined\n");
  std::fflush(stdout);
  FirmwareToDriver(bridge);
}
