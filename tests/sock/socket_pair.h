// A connected pair of loopback sockets, created with the layer under test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/process.h"
#include "platform/thread.h"
#include "sock/sock.h"

namespace stewardry {

// Prepares the process and Winsock once.
class SocketTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    platform::PrepareProcess();
    ASSERT_EQ(Sock_Start(), RESULT_OK);
  }
  static void TearDownTestSuite() { Sock_Stop(); }
};

// Binds the socket to a free port and returns that. The range starts at a port of the process's
// own; ports in use are skipped, since addresses are not reused.
inline std::uint16_t BindFreePort(Sock sock) {
  const auto base = static_cast<std::uint16_t>(20000 + platform::GetCurrentProcessId() % 20000);
  for (std::uint16_t port = base; port < base + 200; ++port) {
    Addr address;
    Addr_InitAny(&address, port);
    if (Sock_Bind(sock, address) == RESULT_OK) return port;
  }
  ADD_FAILURE() << "no free port";
  return 0;
}

struct SocketPair {
  Sock a = kInvalidSock;  // the accepted end, non-blocking
  Sock b = kInvalidSock;  // the connecting end, blocking

  SocketPair() {
    Sock listener;
    EXPECT_EQ(Sock_Create(&listener, false), RESULT_OK);
    const std::string port = std::to_string(BindFreePort(listener));
    EXPECT_EQ(Sock_Listen(listener), RESULT_OK);
    EXPECT_NE(Sock_ConnectLocal(&b, port.c_str()), RESULT_FAILED);
    RemoteAddress peer;
    EXPECT_EQ(Sock_Accept(listener, &a, &peer), RESULT_OK);
    (void)Sock_Close(listener);
    EXPECT_EQ(Sock_SetBlocking(a, false), RESULT_OK);
    EXPECT_EQ(Sock_SetBlocking(b, true), RESULT_OK);
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    Close(&a);
    Close(&b);
  }
  static void Close(Sock* sock) {
    if (*sock != kInvalidSock) (void)Sock_Close(*sock);
    *sock = kInvalidSock;
  }
  // From the connecting end to the accepted one.
  void Send(const std::string& text) {
    std::uint64_t count = 0;
    EXPECT_EQ(Sock_Write(b, text.data(), text.size(), &count), RESULT_OK);
    EXPECT_EQ(count, text.size());
  }
};

}  // namespace stewardry
