#include "platform/socket.h"

#include <cassert>
#include <cstring>
#include <memory>

#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(sizeof(SocketValue) == sizeof(SOCKET) && kInvalidSocket == INVALID_SOCKET);
static_assert(kAfInet == AF_INET && kAfInet6 == AF_INET6 && kSockStream == SOCK_STREAM &&
              kIpprotoTcp == IPPROTO_TCP && kSolSocket == SOL_SOCKET &&
              kSoReuseAddr == SO_REUSEADDR && kSoKeepAlive == SO_KEEPALIVE &&
              kTcpNoDelay == TCP_NODELAY && kSdSend == SD_SEND);
static_assert(kWsaEIntr == WSAEINTR && kWsaEAcces == WSAEACCES && kWsaEFault == WSAEFAULT &&
              kWsaEInval == WSAEINVAL && kWsaEMFile == WSAEMFILE &&
              kWsaEWouldBlock == WSAEWOULDBLOCK && kWsaENotSock == WSAENOTSOCK &&
              kWsaEAddrInUse == WSAEADDRINUSE && kWsaEAddrNotAvail == WSAEADDRNOTAVAIL &&
              kWsaEConnAborted == WSAECONNABORTED && kWsaEConnReset == WSAECONNRESET &&
              kWsaENoBufs == WSAENOBUFS && kWsaEIsConn == WSAEISCONN &&
              kWsaENotConn == WSAENOTCONN && kWsaETimedOut == WSAETIMEDOUT &&
              kWsaEConnRefused == WSAECONNREFUSED && kWsaEHostUnreach == WSAEHOSTUNREACH);
static_assert(kFdRead == FD_READ && kFdWrite == FD_WRITE && kFdOob == FD_OOB &&
              kFdAccept == FD_ACCEPT && kFdConnect == FD_CONNECT && kFdClose == FD_CLOSE);
static_assert(sizeof(SockAddrIn) == sizeof(sockaddr_in) &&
              offsetof(SockAddrIn, family) == offsetof(sockaddr_in, sin_family) &&
              offsetof(SockAddrIn, port) == offsetof(sockaddr_in, sin_port) &&
              offsetof(SockAddrIn, address) == offsetof(sockaddr_in, sin_addr) &&
              offsetof(SockAddrIn, zero) == offsetof(sockaddr_in, sin_zero));
// The calls below return Winsock's results.
// Both sides are constants. NOLINTNEXTLINE(misc-redundant-expression)
static_assert(SOCKET_ERROR == -1);

namespace {

struct FreeAddresses {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

}  // namespace

int WSAStartup() {
  WSADATA data;
  return ::WSAStartup(2, &data);
}

void WSACleanup() { ::WSACleanup(); }

int WSAGetLastError() { return ::WSAGetLastError(); }

SocketValue socket(int family, int type, int protocol) { return ::socket(family, type, protocol); }

int setsockopt(SocketValue sock, int level, int option, const void* value, int size) {
  return ::setsockopt(sock, level, option, static_cast<const char*>(value), size);
}

int bind(SocketValue sock, const void* address, int size) {
  return ::bind(sock, static_cast<const sockaddr*>(address), size);
}

int connect(SocketValue sock, const void* address, int size) {
  return ::connect(sock, static_cast<const sockaddr*>(address), size);
}

int listen(SocketValue sock, int backlog) { return ::listen(sock, backlog); }

SocketValue accept(SocketValue sock, SockAddrIn* peer) {
  int size = sizeof *peer;
  return ::accept(sock, reinterpret_cast<sockaddr*>(peer), &size);
}

int SetNonBlocking(SocketValue sock, bool nonBlocking) {
  u_long value = nonBlocking ? 1 : 0;
  return ::ioctlsocket(sock, static_cast<long>(FIONBIO), &value);
}

int recv(SocketValue sock, void* buffer, int size) {
  return ::recv(sock, static_cast<char*>(buffer), size, 0);
}

int send(SocketValue sock, const void* buffer, int size) {
  return ::send(sock, static_cast<const char*>(buffer), size, 0);
}

int recvfrom(SocketValue sock, void* buffer, int size, void* address, int* addressSize) {
  return ::recvfrom(sock, static_cast<char*>(buffer), size, 0, static_cast<sockaddr*>(address),
                    addressSize);
}

int sendto(SocketValue sock, const void* buffer, int size, const void* address, int addressSize) {
  return ::sendto(sock, static_cast<const char*>(buffer), size, 0,
                  static_cast<const sockaddr*>(address), addressSize);
}

int shutdown(SocketValue sock, int how) { return ::shutdown(sock, how); }

int closesocket(SocketValue sock) { return ::closesocket(sock); }

int ResolveHost(const char* host, int index, void* address, int capacity) {
  assert(index >= 0 && capacity >= 0);
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* first = nullptr;
  if (::getaddrinfo(host, nullptr, &hints, &first) != 0) return 0;
  const std::unique_ptr<addrinfo, FreeAddresses> list(first);
  const addrinfo* entry = first;
  for (; entry != nullptr && index > 0; --index) entry = entry->ai_next;
  if (entry == nullptr || entry->ai_addrlen > static_cast<std::size_t>(capacity)) return 0;
  std::memcpy(address, entry->ai_addr, entry->ai_addrlen);
  return static_cast<int>(entry->ai_addrlen);
}

int gethostname(char* name, int size) { return ::gethostname(name, size); }

void CloseSocketEvent(RawHandle raw) { ::WSACloseEvent(raw); }

void CloseWakeEvent(RawHandle raw) { ::CloseHandle(raw); }

SocketEvent WSACreateEvent() { return SocketEvent(::WSACreateEvent()); }

WakeEvent CreateWakeEvent() { return WakeEvent(::CreateEventA(nullptr, TRUE, FALSE, nullptr)); }

bool SetEvent(const WakeEvent& event) { return ::SetEvent(event.Raw()) != FALSE; }

bool ResetEvent(const WakeEvent& event) { return ::ResetEvent(event.Raw()) != FALSE; }

int WSAEventSelect(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                   std::uint32_t events) {
  const int result = ::WSAEventSelect(sock, event.Raw(), static_cast<long>(events));
  if (result == 0) selection->selected = events;
  return result;
}

int WSAEnumNetworkEvents(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                         std::uint32_t* events) {
  WSANETWORKEVENTS reported{};
  const int result = ::WSAEnumNetworkEvents(sock, event.Raw(), &reported);
  selection->signalled = 0;
  *events = static_cast<std::uint32_t>(reported.lNetworkEvents);
  return result;
}

SocketWait WaitForMultipleObjectsEx(const SocketEvent& sockets, const WakeEvent& wake,
                                    std::uint32_t milliseconds) {
  const HANDLE handles[] = {sockets.Raw(), wake.Raw()};
  const DWORD result = ::WaitForMultipleObjectsEx(2, handles, FALSE, milliseconds, FALSE);
  // The wait reports only the first of the two that is signalled.
  const bool woken =
      result == WAIT_OBJECT_0 + 1 ||
      (result == WAIT_OBJECT_0 && ::WaitForSingleObject(wake.Raw(), 0) == WAIT_OBJECT_0);
  return {result, ~std::uint32_t{0}, woken};
}

}  // namespace platform
