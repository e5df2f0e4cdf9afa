// TCP sockets and the selector's wait, with Winsock's names and numbers. An int result is 0 or a
// count on success, -1 on failure; WSAGetLastError returns the reason.
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

int WSAStartup();  // version word 2; returns 0 or the error itself
void WSACleanup();
int WSAGetLastError();

SocketValue socket(int family, int type, int protocol);
int setsockopt(SocketValue sock, int level, int option, const void* value, int size);
// `address` is a sockaddr_in or sockaddr_in6 of `size` bytes with Windows' family numbers.
int bind(SocketValue sock, const void* address, int size);
int connect(SocketValue sock, const void* address, int size);
int listen(SocketValue sock, int backlog);
// Accepts an IPv4 peer and stores its address in *peer. Returns kInvalidSocket on failure.
// kWsaEConnReset: a connection that had ended while it was queued was removed from the queue.
SocketValue accept(SocketValue sock, SockAddrIn* peer);
int SetNonBlocking(SocketValue sock, bool nonBlocking);  // ioctlsocket(FIONBIO)
int recv(SocketValue sock, void* buffer, int size);
int send(SocketValue sock, const void* buffer, int size);
int recvfrom(SocketValue sock, void* buffer, int size, void* address, int* addressSize);
int sendto(SocketValue sock, const void* buffer, int size, const void* address, int addressSize);
int shutdown(SocketValue sock, int how);
int closesocket(SocketValue sock);

// Looks up the IPv4 addresses of a host and stores the `index`-th in `address` of `capacity` bytes.
// Returns its length, 0 if there is none or the lookup failed.
int ResolveHost(const char* host, int index, void* address, int capacity);

// Stores the host name, zero-terminated within `size` bytes.
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

// The platform's record of a selected socket, kept by the handler that owns the socket. Requires
// zeroes at the start; used by the selector's thread only, and must not move while selected.
struct SocketSelection {
  std::uint32_t selected;   // network events the socket is selected for
  std::uint32_t signalled;  // what the last wait found, in the platform's own bits
  bool listening;           // readable means a pending connection, not data
  bool connecting;          // the result of a connect has not been reported
};

SocketEvent WSACreateEvent();
WakeEvent CreateWakeEvent();
bool SetEvent(const WakeEvent& event);
bool ResetEvent(const WakeEvent& event);

// Returns whether WSAEventSelect is needed before the next wait. Winsock is level-triggered only if
// it is called before each one.
inline bool MustSelect(const SocketSelection& selection, std::uint32_t events) {
  return kSelectBeforeEachWait || selection.selected != events;
}

// Returns whether WSAEnumNetworkEvents may report events.
inline bool MayHaveEvents(const SocketSelection& selection) {
  return kQueryEachSocket || selection.signalled != 0;
}

// Selects a socket for network events that signal `event`; 0 deselects it.
int WSAEventSelect(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                   std::uint32_t events);

// Stores the network events since the last call in *events (lNetworkEvents).
int WSAEnumNetworkEvents(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                         std::uint32_t* events);

struct SocketWait {
  std::uint32_t result;     // kWaitFailed, or another result of a wait
  std::uint32_t signalled;  // number of ready sockets; all ones if the platform reports none
  bool woken;               // whether the wake event is signalled
  // The ready socket if the platform reports it and there is only one; else null.
  SocketSelection* only = nullptr;
};

// Blocks until one of the two is signalled, for at most `milliseconds`.
SocketWait WaitForMultipleObjectsEx(const SocketEvent& sockets, const WakeEvent& wake,
                                    std::uint32_t milliseconds);

}  // namespace platform
