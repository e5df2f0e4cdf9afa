// TCP sockets and the readiness wait of the selector, under Winsock's names and numbers.
// Results are Winsock's: 0 or a count on success, -1 on failure with WSAGetLastError.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/handle.h"
#include "platform_traits.h"

namespace platform {

using SocketValue = std::uint64_t;
constexpr SocketValue kInvalidSocket = ~SocketValue{0};  // INVALID_SOCKET

enum : int {
  kAfInet = 2,          // AF_INET
  kAfInet6 = 23,        // AF_INET6, Windows' number
  kSockStream = 1,      // SOCK_STREAM
  kIpprotoTcp = 6,      // IPPROTO_TCP
  kSolSocket = 0xFFFF,  // SOL_SOCKET, Windows' number
  kSoReuseAddr = 4,     // SO_REUSEADDR, Windows' number
  kSoKeepAlive = 8,     // SO_KEEPALIVE, Windows' number
  kTcpNoDelay = 1,      // TCP_NODELAY
  kSdSend = 1,          // SD_SEND
};

enum : int {
  kWsaEIntr = 10004,
  kWsaEAcces = 10013,
  kWsaEFault = 10014,
  kWsaEInval = 10022,
  kWsaEMFile = 10024,
  kWsaEWouldBlock = 10035,
  kWsaENotSock = 10038,
  kWsaEAddrInUse = 10048,
  kWsaEAddrNotAvail = 10049,
  kWsaEConnAborted = 10053,
  kWsaEConnReset = 10054,
  kWsaENoBufs = 10055,
  kWsaEIsConn = 10056,
  kWsaENotConn = 10057,
  kWsaETimedOut = 10060,
  kWsaEConnRefused = 10061,
  kWsaEHostUnreach = 10065,
};

// sockaddr_in; port and address in network byte order, family kAfInet.
struct SockAddrIn {
  std::uint16_t family;
  std::uint16_t port;
  std::uint32_t address;
  std::uint8_t zero[8];
};
static_assert(sizeof(SockAddrIn) == 16);

int WSAStartup();  // version word 2; 0 on success
void WSACleanup();
int WSAGetLastError();

SocketValue socket(int family, int type, int protocol);
int setsockopt(SocketValue sock, int level, int option, const void* value, int size);
// `address` is a sockaddr_in or sockaddr_in6 with Windows' family numbers, `size` its length.
int bind(SocketValue sock, const void* address, int size);
int connect(SocketValue sock, const void* address, int size);
int listen(SocketValue sock, int backlog);
// accept of an IPv4 peer; *peer gets its address. kInvalidSocket on failure; kWsaEConnReset means
// of a connection that ended while it waited, and has taken that one out of the queue.
SocketValue accept(SocketValue sock, SockAddrIn* peer);
int SetNonBlocking(SocketValue sock, bool nonBlocking);  // ioctlsocket(FIONBIO)
int recv(SocketValue sock, void* buffer, int size);
int send(SocketValue sock, const void* buffer, int size);
int recvfrom(SocketValue sock, void* buffer, int size, void* address, int* addressSize);
int sendto(SocketValue sock, const void* buffer, int size, const void* address, int addressSize);
int shutdown(SocketValue sock, int how);
int closesocket(SocketValue sock);

// getaddrinfo(host, null, {AF_INET, SOCK_STREAM}): copies the `index`-th address found into
// `address` of `capacity` bytes. Gives its length, 0 when there is none or the lookup failed.
int ResolveHost(const char* host, int index, void* address, int capacity);

// gethostname, terminated within `size`. 0 on success.
int gethostname(char* name, int size);

// Network events, Winsock's FD_ numbers.
enum : std::uint32_t {
  kFdRead = 0x01,
  kFdWrite = 0x02,
  kFdOob = 0x04,
  kFdAccept = 0x08,
  kFdConnect = 0x10,
  kFdClose = 0x20,
};

void CloseSocketEvent(RawHandle raw);
// The one event that all sockets of a selector signal.
using SocketEvent = Owned<struct SocketEventTag, CloseSocketEvent>;

void CloseWakeEvent(RawHandle raw);
// The manual-reset event by which other threads wake a selector's wait.
using WakeEvent = Owned<struct WakeEventTag, CloseWakeEvent>;

// What the platform keeps for each selected socket, in the handler that owns the socket. Zero it
// at the start; only the selector's thread touches it, and it stays in place while selected.
struct SocketSelection {
  std::uint32_t selected;   // network events the socket is selected for
  std::uint32_t signalled;  // what the last wait saw, in the platform's own terms; 0 for nothing
  bool listening;           // a listener's news is a knock, not data
  bool connecting;          // the end of a connect is still to be reported
};

SocketEvent WSACreateEvent();
// CreateEventA, manual reset, not signalled.
WakeEvent CreateWakeEvent();
bool SetEvent(const WakeEvent& event);  // any thread
bool ResetEvent(const WakeEvent& event);

// True when a WSAEventSelect for `events` would change something. Winsock must select anew before
// each wait, which is what makes its readiness level-triggered; epoll's selection stands.
inline bool MustSelect(const SocketSelection& selection, std::uint32_t events) {
  return kSelectBeforeEachWait || selection.selected != events;
}

// True when WSAEnumNetworkEvents could have something to tell.
inline bool MayHaveNews(const SocketSelection& selection) {
  return kAskEachSocket || selection.signalled != 0;
}

// WSAEventSelect(sock, event, events); `events` 0 takes the socket out. 0 or -1.
int WSAEventSelect(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                   std::uint32_t events);

// WSAEnumNetworkEvents: *events gets lNetworkEvents; they count as told. 0 or -1.
int WSAEnumNetworkEvents(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                         std::uint32_t* events);

struct SocketWait {
  std::uint32_t result;     // kWaitFailed, or any other for "go on"
  std::uint32_t signalled;  // sockets with news, where the platform tells; else all ones
  bool woken;               // the wake event is signalled
  // The one socket with news, where the platform tells and there is just one; else null.
  SocketSelection* only = nullptr;
};

// WaitForMultipleObjectsEx on the two, any of them, not alertable.
SocketWait WaitForMultipleObjectsEx(const SocketEvent& sockets, const WakeEvent& wake,
                                    std::uint32_t milliseconds);

}  // namespace platform
