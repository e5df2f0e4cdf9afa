// The Sock_ family: the platform's socket calls under one set of status codes. An interrupted call
// is repeated, and a call that has nothing to do now is a status, not an error. The family has no
// state, writes no log and may be called by any thread, also by two threads on one socket. Where a
// contract names no results, they are RESULT_OK and RESULT_FAILED. The platform's error value stays
// with platform::WSAGetLastError until the thread's next socket call.
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
  std::uint8_t isIPv6;         // 0 or 1
  std::uint16_t port;          // network byte order, a copy of the port in the storage
  std::uint16_t sockaddrSize;  // bytes of the address in the storage, 16 for IPv4
};

// The peer of an accepted connection; sin_port and sin_addr in network byte order.
using RemoteAddress = platform::SockAddrIn;

// Starts Winsock 2. Must precede the first socket, once a process.
Result Sock_Start();
// Ends Winsock.
void Sock_Stop();

// Fills *address with any local IPv4 address and `port`, which is in host byte order.
void Addr_InitAny(Addr* address, std::uint16_t port);

// Creates a blocking TCP socket over IPv4 or IPv6. The caller owns *sock, which is kInvalidSock on
// failure.
Result Sock_Create(Sock* sock, bool isIPv6);

// Set SO_REUSEADDR, SO_KEEPALIVE and TCP_NODELAY.
Result Sock_ReuseAddr(Sock sock, bool on);
Result Sock_KeepAlive(Sock sock, bool on);
Result Sock_SetNoDelay(Sock sock, bool on);

// Binds the socket to the address.
Result Sock_Bind(Sock sock, const Addr& address);

// Listens with a backlog of 1.
Result Sock_Listen(Sock sock);

// Creates a socket, sets SO_REUSEADDR where platform::kListenersReuseTheAddress, binds and listens.
// The caller owns *sock, which is kInvalidSock on failure.
Result Sock_CreateListener(Sock* sock, const Addr& address);

// Creates a listener on any local IPv4 address and the decimal port `port`, as Sock_CreateListener.
Result Sock_ListenOnPort(Sock* sock, const char* port);

// Accepts one pending connection and skips those that ended while they were pending. Returns
// RESULT_OK, RESULT_FAILED, or RESULT_WOULD_BLOCK if none is pending. The caller owns *sock, which
// is kInvalidSock unless the result is RESULT_OK.
Result Sock_Accept(Sock listener, Sock* sock, RemoteAddress* peer);

// Decides whether calls on the socket block or return RESULT_WOULD_BLOCK.
Result Sock_SetBlocking(Sock sock, bool blocking);

// Reads at most `size` bytes and stores their number in *count, 0 unless the result is RESULT_OK.
// Returns RESULT_OK, also with *count 0 once the peer has closed, RESULT_FAILED, or
// RESULT_WOULD_BLOCK if there is nothing to read.
Result Sock_Read(Sock sock, void* buffer, std::uint64_t size, std::uint64_t* count);

// Writes at most `size` bytes and stores their number in *count, 0 unless the result is RESULT_OK.
// It may be smaller than `size`: the caller decides about the rest. A failed write of more than
// 4096 bytes is repeated with half of them. Returns RESULT_OK, RESULT_FAILED, or RESULT_WOULD_BLOCK
// if the send buffer is full.
Result Sock_Write(Sock sock, const void* buffer, std::uint64_t size, std::uint64_t* count);

// Read and write as Sock_Read and Sock_Write do, with the peer's socket address. *addressSize is
// the capacity of `address` in bytes and becomes the size of the peer's address.
Result Sock_ReadFrom(Sock sock, void* buffer, std::uint64_t size, std::uint64_t* count,
                     void* address, int* addressSize);
Result Sock_WriteTo(Sock sock, const void* buffer, std::uint64_t size, std::uint64_t* count,
                    const void* address, int addressSize);

// One piece of a gathered transfer; `size` in bytes.
struct SockPiece {
  void* data;
  std::uint64_t size;
};

// Read or write the pieces in order, one call each, until a call moves less than its piece or
// fails. *count is the sum of the bytes moved; a failure after some bytes is RESULT_OK. Return
// RESULT_OK, RESULT_FAILED or RESULT_WOULD_BLOCK; the write RESULT_NOT_FOUND if the socket is not
// connected.
Result Sock_ReadV(Sock sock, std::span<const SockPiece> pieces, std::uint64_t* count);
Result Sock_WriteV(Sock sock, std::span<const SockPiece> pieces, std::uint64_t* count);

// Closes the sending half of the connection (SD_SEND).
Result Sock_ShutdownSend(Sock sock);

// Closes the socket. A failure needs no reaction: the socket is closed or was invalid.
Result Sock_Close(Sock sock);

// Resolves the host for IPv4 into *address, with the first address found, or the second. `port` is
// in host byte order. Blocks for as long as the platform's resolver does.
Result Addr_Resolve(Addr* address, const char* host, std::uint16_t port, bool second);

// Connects the socket. Returns RESULT_OK, RESULT_FAILED, or RESULT_WOULD_BLOCK while the connect of
// a non-blocking socket goes on.
Result Sock_Connect(Sock sock, const Addr& address);

// Creates a socket and connects it, with the results of Sock_Connect. The caller owns *sock unless
// it is kInvalidSock, also after a failed connect.
Result Sock_CreateAndConnect(Sock* sock, const Addr& address);

// Connects a new socket to "host:port", first to the host's first address, then to its second.
// Returns RESULT_OK, RESULT_WOULD_BLOCK, RESULT_INVALID_PARAMETER for a text without a colon or
// with a host of 128 characters or more, or the status of the first failure. The caller owns *sock,
// which is kInvalidSock on failure.
Result Sock_ConnectTo(Sock* sock, const char* hostAndPort);

// Connects a new non-blocking socket to 127.0.0.1 and the decimal port `port`. Returns RESULT_OK,
// RESULT_FAILED or RESULT_WOULD_BLOCK. The caller owns *sock, which is kInvalidSock on failure.
Result Sock_ConnectLocal(Sock* sock, const char* port);

}  // namespace stewardry
