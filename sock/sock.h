// The Sock_ family: the platform's socket calls under one vocabulary of status codes. An
// interrupted call is made again, and a call that has nothing to do now is a status, not an error.
// No state, no log, no allocation; any thread may call. The platform's error value stays with
// platform::WSAGetLastError until the thread's next socket call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/socket.h"
#include "sock/result.h"

namespace stewardry {

using Sock = platform::SocketValue;
constexpr Sock kInvalidSock = platform::kInvalidSocket;

// An address to bind or connect: a sockaddr_in or sockaddr_in6 in `storage`.
struct Addr {
  alignas(8) std::uint8_t storage[128];
  std::uint8_t isIPv6;
  std::uint16_t port;          // network byte order, a copy of the port in the storage
  std::uint16_t sockaddrSize;  // bytes of the address in the storage, 16 for IPv4
};

// What an accept tells of its peer; sin_port and sin_addr in network byte order.
using RemoteAddress = platform::SockAddrIn;

// Starts Winsock 2, once a process, before the first socket. 0 or 1.
Result Sock_Start();
void Sock_Stop();

// Any local IPv4 address with `port` in host byte order.
void Addr_InitAny(Addr* address, std::uint16_t port);

// A TCP socket over IPv4, or IPv6 with the flag. 0 or 1.
Result Sock_Create(Sock* sock, bool isIPv6);
// SO_REUSEADDR, SO_KEEPALIVE, TCP_NODELAY on or off. 0 or 1.
Result Sock_ReuseAddr(Sock sock, bool on);
Result Sock_KeepAlive(Sock sock, bool on);
Result Sock_SetNoDelay(Sock sock, bool on);
Result Sock_Bind(Sock sock, const Addr& address);
// With a backlog of 1. 0 or 1.
Result Sock_Listen(Sock sock);
// Create, reuse (where the platform's listeners do), bind and listen. A failure behind the first
// closes the socket and gives the step's status.
Result Sock_CreateListener(Sock* sock, const Addr& address);
// Any local address and the port that the text names.
Result Sock_ListenOnPort(Sock* sock, const char* port);

// RESULT_OK, RESULT_FAILED, or RESULT_WOULD_BLOCK if no connection is pending. Connections that
// ended while they waited are passed over.
Result Sock_Accept(Sock listener, Sock* sock, RemoteAddress* peer);
Result Sock_SetBlocking(Sock sock, bool blocking);

// Reads at most `size` bytes. 0 with *count (0: the peer has closed), 1, or 1003.
Result Sock_Read(Sock sock, void* buffer, std::uint64_t size, std::uint64_t* count);
// Writes at most `size` bytes; *count may be smaller, and the rest is the caller's affair. A hard
// error on more than 4096 bytes is tried again with half of them. 0, 1, or 1003.
Result Sock_Write(Sock sock, const void* buffer, std::uint64_t size, std::uint64_t* count);
// The same with a peer address.
Result Sock_ReadFrom(Sock sock, void* buffer, std::uint64_t size, std::uint64_t* count,
                     void* address, int* addressSize);
Result Sock_WriteTo(Sock sock, const void* buffer, std::uint64_t size, std::uint64_t* count,
                    const void* address, int addressSize);

// One piece of a gathered transfer.
struct SockPiece {
  void* data;
  std::uint64_t size;
};
// Reads or writes the pieces in order until one moves less than its size. *count gets the sum.
// A failure counts only if nothing has moved before it. 0, 1, 1003; the write gives 6 for a socket
// that isn't connected.
Result Sock_ReadV(Sock sock, std::span<const SockPiece> pieces, std::uint64_t* count);
Result Sock_WriteV(Sock sock, std::span<const SockPiece> pieces, std::uint64_t* count);

// Half-closes the sending side (SD_SEND). 0 or 1.
Result Sock_ShutdownSend(Sock sock);
// 0 or 1; every caller ignores it.
Result Sock_Close(Sock sock);

// Looks the host up for IPv4 and takes the first address found, or the second. `port` in host byte
// order. 0 or 1.
Result Addr_Resolve(Addr* address, const char* host, std::uint16_t port, bool second);
// 0, 1, or 1003 when the connect goes on.
Result Sock_Connect(Sock sock, const Addr& address);
Result Sock_CreateAndConnect(Sock* sock, const Addr& address);
// Connects to "host:port", trying the host's second address after the first. 0, 1003, 4 for a text
// without a colon or with a host of 128 characters or more, or the first failure.
Result Sock_ConnectTo(Sock* sock, const char* hostAndPort);
// Connects a non-blocking socket to 127.0.0.1. 0, 1 or 1003.
Result Sock_ConnectLocal(Sock* sock, const char* port);

}  // namespace stewardry
