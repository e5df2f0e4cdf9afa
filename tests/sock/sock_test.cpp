// The socket layer on real sockets.
#include "sock/sock.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/sock/socket_pair.h"

namespace stewardry {
namespace {

class SockLayer : public SocketTest {};

TEST_F(SockLayer, AReadTellsNothingYetDataAndCloseApart) {
  SocketPair pair;
  char buffer[16];
  std::uint64_t count = 99;
  EXPECT_EQ(Sock_Read(pair.a, buffer, sizeof buffer, &count), RESULT_WOULD_BLOCK);
  EXPECT_EQ(count, 0U);
  pair.Send("hello");
  Result result;
  do {
    result = Sock_Read(pair.a, buffer, sizeof buffer, &count);
  } while (result == RESULT_WOULD_BLOCK);
  EXPECT_EQ(std::string(buffer, count), "hello");
  SocketPair::Close(&pair.b);
  do {
    result = Sock_Read(pair.a, buffer, sizeof buffer, &count);
  } while (result == RESULT_WOULD_BLOCK);
  EXPECT_EQ(result, RESULT_OK);
  EXPECT_EQ(count, 0U);
}

TEST_F(SockLayer, AFullSendBufferIsAStatusAndNoError) {
  SocketPair pair;
  const std::vector<char> block(1 << 20);
  Result result = RESULT_OK;
  std::uint64_t count = 0;
  for (int i = 0; i < 1000 && result == RESULT_OK; ++i)
    result = Sock_Write(pair.a, block.data(), block.size(), &count);
  EXPECT_EQ(result, RESULT_WOULD_BLOCK);
  EXPECT_EQ(count, 0U);
}

TEST_F(SockLayer, AnAcceptWithNobodyWaitingWouldBlock) {
  TestListener listener;
  ASSERT_EQ(Sock_SetBlocking(listener.sock, false), RESULT_OK);
  Sock sock;
  RemoteAddress peer;
  EXPECT_EQ(Sock_Accept(listener.sock, &sock, &peer), RESULT_WOULD_BLOCK);
  EXPECT_EQ(Sock_Accept(kInvalidSock, &sock, &peer), RESULT_FAILED);
}

TEST_F(SockLayer, GatheredTransfersWalkThePiecesAndStopAtAShortOne) {
  SocketPair pair;
  char hello[] = "hel", lo[] = "lo";
  const SockPiece out[] = {{hello, 3}, {lo, 2}};
  std::uint64_t count = 0;
  ASSERT_EQ(Sock_WriteV(pair.b, out, &count), RESULT_OK);
  EXPECT_EQ(count, 5U);
  char first[4], second[8], third[8];
  const SockPiece in[] = {{first, 4}, {second, 8}, {third, 8}};
  Result result;
  do {
    result = Sock_ReadV(pair.a, in, &count);
  } while (result == RESULT_WOULD_BLOCK);
  EXPECT_EQ(result, RESULT_OK);
  EXPECT_EQ(count, 5U);
  EXPECT_EQ(std::string(first, 4) + second[0], "hello");
  EXPECT_EQ(Sock_ReadV(pair.a, in, &count), RESULT_WOULD_BLOCK);
}

TEST_F(SockLayer, AGatheredWriteOnASocketThatIsNotConnectedIsNotFound) {
  Sock sock;
  ASSERT_EQ(Sock_Create(&sock, false), RESULT_OK);
  char byte = 0;
  const SockPiece piece[] = {{&byte, 1}};
  std::uint64_t count = 1;
  const Result result = Sock_WriteV(sock, piece, &count);
  const int error = platform::WSAGetLastError();
  (void)Sock_Close(sock);
  constexpr int kConnectionReset = 10054;
  if (error == kConnectionReset) GTEST_SKIP() << "Wine tells a send before any connect as a reset";
  EXPECT_EQ(result, RESULT_NOT_FOUND);
  EXPECT_EQ(count, 0U);
}

TEST_F(SockLayer, ConnectTextsAreReadWithTheirBounds) {
  Sock sock;
  const std::string tooLong(128, 'h');
  EXPECT_EQ(Sock_ConnectTo(&sock, "127.0.0.1"), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Sock_ConnectTo(&sock, ""), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Sock_ConnectTo(&sock, (tooLong + ":1").c_str()), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Sock_ConnectTo(&sock, "127.0.0.1:1"), RESULT_FAILED);  // nobody listens there
  EXPECT_EQ(sock, kInvalidSock);
}

TEST_F(SockLayer, TheLocalConnectAndTheTextPortMeetEachOther) {
  std::uint16_t port;
  {
    TestListener free;
    port = free.port;
  }
  Sock listener;
  ASSERT_EQ(Sock_ListenOnPort(&listener, std::to_string(port).c_str()), RESULT_OK);
  Sock sock;
  const Result result = Sock_ConnectLocal(&sock, std::to_string(port).c_str());
  EXPECT_TRUE(result == RESULT_OK || result == RESULT_WOULD_BLOCK) << result;
  Sock accepted;
  RemoteAddress peer;
  ASSERT_EQ(Sock_Accept(listener, &accepted, &peer), RESULT_OK);
  EXPECT_EQ(Sock_SetNoDelay(accepted, true), RESULT_OK);
  for (const Sock each : {listener, sock, accepted}) (void)Sock_Close(each);
}

TEST_F(SockLayer, AnAddressRecordIsWrittenWhole) {
  Addr address;
  std::memset(&address, 0xEE, sizeof address);
  Addr_InitAny(&address, 664);
  const std::uint8_t expected[8] = {2, 0, 0x02, 0x98, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(address.storage, expected, sizeof expected), 0);
  EXPECT_EQ(address.sockaddrSize, 16);
  EXPECT_EQ(address.isIPv6, 0);
  for (std::size_t i = 8; i < sizeof address.storage; ++i) EXPECT_EQ(address.storage[i], 0);
  ASSERT_EQ(Addr_Resolve(&address, "127.0.0.1", 22, false), RESULT_OK);
  const std::uint8_t loopback[8] = {2, 0, 0, 22, 127, 0, 0, 1};
  EXPECT_EQ(std::memcmp(address.storage, loopback, sizeof loopback), 0);
  EXPECT_EQ(Addr_Resolve(&address, "127.0.0.1", 22, true), RESULT_FAILED);  // it has no second
}

}  // namespace
}  // namespace stewardry
