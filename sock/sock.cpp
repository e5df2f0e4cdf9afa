#include "sock/sock.h"

#include <cassert>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace stewardry {

namespace {

constexpr std::uint64_t kMostUnhalved = 4096;  // a failed write of more bytes is halved
constexpr std::size_t kLongestHost = 127;
constexpr int kBacklog = 1;
constexpr int kMostEndedConnections = 64;  // that one accept skips

Result ToResult(int status) { return status == 0 ? RESULT_OK : RESULT_FAILED; }

// Returns the status of a call that has just failed.
Result FailureResult() {
  return platform::WSAGetLastError() == platform::kWsaEWouldBlock ? RESULT_WOULD_BLOCK
                                                                  : RESULT_FAILED;
}

int Narrow(std::uint64_t size) { return static_cast<int>(size > INT_MAX ? INT_MAX : size); }

// Repeats the call for as long as it is interrupted.
template <class Call>
int Uninterrupted(Call call) {
  int result;
  do {
    result = call();
  } while (result < 0 && platform::WSAGetLastError() == platform::kWsaEIntr);
  return result;
}

template <class Call>
Result ReadWith(std::uint64_t* count, Call call) {
  assert(count != nullptr);
  *count = 0;
  const int n = Uninterrupted(call);
  if (n < 0) return FailureResult();
  *count = static_cast<std::uint64_t>(n);
  return RESULT_OK;
}

template <class Call>
Result WriteWith(std::uint64_t size, std::uint64_t* count, Call call) {
  assert(count != nullptr);
  *count = 0;
  for (;;) {
    const int n = Uninterrupted([&] { return call(Narrow(size)); });
    if (n >= 0) {
      *count = static_cast<std::uint64_t>(n);
      return RESULT_OK;
    }
    if (FailureResult() == RESULT_WOULD_BLOCK) return RESULT_WOULD_BLOCK;
    if (size <= kMostUnhalved) return RESULT_FAILED;
    size >>= 1;
  }
}

template <class Call>
Result WalkPieces(std::span<const SockPiece> pieces, std::uint64_t* count, Call call) {
  assert(count != nullptr);
  *count = 0;
  for (const SockPiece& piece : pieces) {
    const int n = Uninterrupted([&] { return call(piece); });
    if (n < 0) return *count > 0 ? RESULT_OK : FailureResult();
    *count += static_cast<std::uint64_t>(n);
    if (static_cast<std::uint64_t>(n) < piece.size) break;
  }
  return RESULT_OK;
}

Result SetFlag(Sock sock, int level, int option, bool on) {
  const int value = on ? 1 : 0;
  return ToResult(platform::setsockopt(sock, level, option, &value, sizeof value));
}

// Returns the value in network byte order, without a call of Winsock.
std::uint16_t ToNetwork(std::uint16_t value) {
  const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(value >> 8),
                                 static_cast<std::uint8_t>(value & 0xFF)};
  std::uint16_t network;
  std::memcpy(&network, bytes, sizeof network);
  return network;
}

// sin_port and sin6_port both follow the 16-bit family.
void SetPort(Addr* address, std::uint16_t port) {
  address->port = ToNetwork(port);
  static_assert(offsetof(platform::SockAddrIn, port) == 2);
  std::memcpy(address->storage + 2, &address->port, sizeof address->port);
}

std::uint16_t PortOf(const char* text) {
  return static_cast<std::uint16_t>(std::strtoul(text, nullptr, 10));
}

// Closes a socket of which a step has failed; that step decides the result.
void Discard(Sock* sock) {
  if (*sock != kInvalidSock) (void)Sock_Close(*sock);
  *sock = kInvalidSock;
}

}  // namespace

Result Sock_Start() { return ToResult(platform::WSAStartup()); }

void Sock_Stop() { platform::WSACleanup(); }

void Addr_InitAny(Addr* address, std::uint16_t port) {
  *address = Addr{};
  const std::uint16_t family = platform::kAfInet;
  std::memcpy(address->storage, &family, sizeof family);
  address->sockaddrSize = sizeof(platform::SockAddrIn);
  SetPort(address, port);
}

Result Sock_Create(Sock* sock, bool isIPv6) {
  *sock = platform::socket(isIPv6 ? platform::kAfInet6 : platform::kAfInet, platform::kSockStream,
                           platform::kIpprotoTcp);
  return *sock == kInvalidSock ? RESULT_FAILED : RESULT_OK;
}

Result Sock_ReuseAddr(Sock sock, bool on) {
  return SetFlag(sock, platform::kSolSocket, platform::kSoReuseAddr, on);
}

Result Sock_KeepAlive(Sock sock, bool on) {
  return SetFlag(sock, platform::kSolSocket, platform::kSoKeepAlive, on);
}

Result Sock_SetNoDelay(Sock sock, bool on) {
  return SetFlag(sock, platform::kIpprotoTcp, platform::kTcpNoDelay, on);
}

Result Sock_Bind(Sock sock, const Addr& address) {
  assert(address.sockaddrSize <= sizeof address.storage);
  return ToResult(platform::bind(sock, address.storage, address.sockaddrSize));
}

Result Sock_Listen(Sock sock) { return ToResult(platform::listen(sock, kBacklog)); }

Result Sock_CreateListener(Sock* sock, const Addr& address) {
  Result result = Sock_Create(sock, address.isIPv6 != 0);
  if (result != RESULT_OK) return result;
  if (platform::kListenersReuseTheAddress) result = Sock_ReuseAddr(*sock, true);
  if (result == RESULT_OK) result = Sock_Bind(*sock, address);
  if (result == RESULT_OK) result = Sock_Listen(*sock);
  if (result != RESULT_OK) Discard(sock);
  return result;
}

Result Sock_ListenOnPort(Sock* sock, const char* port) {
  Addr address;
  Addr_InitAny(&address, PortOf(port));
  return Sock_CreateListener(sock, address);
}

Result Sock_Accept(Sock listener, Sock* sock, RemoteAddress* peer) {
  for (int ended = 0; ended < kMostEndedConnections; ++ended) {
    *sock = platform::accept(listener, peer);
    if (*sock != kInvalidSock) return RESULT_OK;
    if (platform::WSAGetLastError() != platform::kWsaEConnReset) return FailureResult();
  }
  return RESULT_WOULD_BLOCK;
}

Result Sock_SetBlocking(Sock sock, bool blocking) {
  return ToResult(platform::SetNonBlocking(sock, !blocking));
}

Result Sock_Read(Sock sock, void* buffer, std::uint64_t size, std::uint64_t* count) {
  return ReadWith(count, [&] { return platform::recv(sock, buffer, Narrow(size)); });
}

Result Sock_Write(Sock sock, const void* buffer, std::uint64_t size, std::uint64_t* count) {
  return WriteWith(size, count, [&](int part) { return platform::send(sock, buffer, part); });
}

Result Sock_ReadFrom(Sock sock, void* buffer, std::uint64_t size, std::uint64_t* count,
                     void* address, int* addressSize) {
  return ReadWith(
      count, [&] { return platform::recvfrom(sock, buffer, Narrow(size), address, addressSize); });
}

Result Sock_WriteTo(Sock sock, const void* buffer, std::uint64_t size, std::uint64_t* count,
                    const void* address, int addressSize) {
  return WriteWith(size, count, [&](int part) {
    return platform::sendto(sock, buffer, part, address, addressSize);
  });
}

Result Sock_ReadV(Sock sock, std::span<const SockPiece> pieces, std::uint64_t* count) {
  return WalkPieces(pieces, count, [&](const SockPiece& piece) {
    return platform::recv(sock, piece.data, Narrow(piece.size));
  });
}

Result Sock_WriteV(Sock sock, std::span<const SockPiece> pieces, std::uint64_t* count) {
  const Result result = WalkPieces(pieces, count, [&](const SockPiece& piece) {
    return platform::send(sock, piece.data, Narrow(piece.size));
  });
  const bool unconnected =
      result == RESULT_FAILED && platform::WSAGetLastError() == platform::kWsaENotConn;
  return unconnected ? RESULT_NOT_FOUND : result;
}

Result Sock_ShutdownSend(Sock sock) {
  return ToResult(platform::shutdown(sock, platform::kSdSend));
}

Result Sock_Close(Sock sock) { return ToResult(platform::closesocket(sock)); }

Result Addr_Resolve(Addr* address, const char* host, std::uint16_t port, bool second) {
  *address = Addr{};
  const int size =
      platform::ResolveHost(host, second ? 1 : 0, address->storage, sizeof address->storage);
  if (size <= 0) return RESULT_FAILED;
  assert(static_cast<std::size_t>(size) <= sizeof address->storage);
  std::uint16_t family;
  std::memcpy(&family, address->storage, sizeof family);
  address->isIPv6 = family == platform::kAfInet ? 0 : 1;
  address->sockaddrSize = static_cast<std::uint16_t>(size);
  SetPort(address, port);
  return RESULT_OK;
}

Result Sock_Connect(Sock sock, const Addr& address) {
  assert(address.sockaddrSize <= sizeof address.storage);
  if (platform::connect(sock, address.storage, address.sockaddrSize) == 0) return RESULT_OK;
  return FailureResult();
}

Result Sock_CreateAndConnect(Sock* sock, const Addr& address) {
  const Result result = Sock_Create(sock, address.isIPv6 != 0);
  return result != RESULT_OK ? result : Sock_Connect(*sock, address);
}

namespace {

// Connects to one of the host's addresses; closes a socket that cannot be connected.
Result ConnectToAddress(Sock* sock, const Addr& address) {
  const Result result = Sock_CreateAndConnect(sock, address);
  if (result == RESULT_OK || result == RESULT_WOULD_BLOCK) return result;
  Discard(sock);
  return result;
}

}  // namespace

Result Sock_ConnectTo(Sock* sock, const char* hostAndPort) {
  *sock = kInvalidSock;
  const char* colon = std::strchr(hostAndPort, ':');
  if (colon == nullptr) return RESULT_INVALID_PARAMETER;
  const std::string host(hostAndPort, colon);
  if (host.size() > kLongestHost) return RESULT_INVALID_PARAMETER;
  const std::uint16_t port = PortOf(colon + 1);

  Addr address;
  const Result found = Addr_Resolve(&address, host.c_str(), port, false);
  if (found != RESULT_OK) return found;
  const Result first = ConnectToAddress(sock, address);
  if (first == RESULT_OK || first == RESULT_WOULD_BLOCK) return first;
  if (Addr_Resolve(&address, host.c_str(), port, true) != RESULT_OK) return first;
  const Result second = ConnectToAddress(sock, address);
  return second == RESULT_OK || second == RESULT_WOULD_BLOCK ? second : first;
}

Result Sock_ConnectLocal(Sock* sock, const char* port) {
  *sock = kInvalidSock;
  Addr address;
  if (Addr_Resolve(&address, "127.0.0.1", PortOf(port), false) != RESULT_OK) return RESULT_FAILED;
  if (Sock_Create(sock, false) != RESULT_OK) return RESULT_FAILED;
  Result result = Sock_SetBlocking(*sock, false);
  if (result == RESULT_OK) result = Sock_Connect(*sock, address);
  if (result == RESULT_OK || result == RESULT_WOULD_BLOCK) return result;
  Discard(sock);
  return RESULT_FAILED;
}

}  // namespace stewardry
