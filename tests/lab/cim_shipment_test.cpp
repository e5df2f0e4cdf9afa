// The object library's example over a real socket. Which messages are refused is the subject of
// tests/cim/message/message_test.cpp.
#include "lab/cim/shipment.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lab/cim/create_request.h"
#include "lab/cim/description.h"
#include "tests/sock/socket_pair.h"

namespace cim_ship {
namespace {

using namespace stewardry;
using namespace stewardry::cim;

class CimShipment : public SocketTest {
 protected:
  CimShipment() { EXPECT_EQ(Sock_SetBlocking(pair_.a, true), RESULT_OK); }
  ~CimShipment() override { Message_Drop(&request_->head); }

  // Returns the bytes of a shipment of the request.
  std::string Shipped() {
    EXPECT_TRUE(Shipment_Send(pair_.b, &request_->head));
    SocketPair::Close(&pair_.b);
    std::string bytes;
    char piece[4096];
    std::uint64_t count = 0;
    while (Sock_Read(pair_.a, piece, sizeof piece, &count) == RESULT_OK && count > 0)
      bytes.append(piece, count);
    return bytes;
  }
  // Returns the description of the received instance, or the fault.
  static std::string ReceiveFrom(Sock sock) {
    Message* message = nullptr;
    const char* fault = Shipment_Receive(sock, &message);
    if (fault != nullptr) return fault;
    const CreateInstanceRequest* request = AsCreateRequest(message);
    std::string text = request == nullptr ? "another message" : Describe(request->instance);
    Message_Drop(message);
    return text;
  }
  // Receives bytes that end with their connection.
  static std::string Receive(const std::string& bytes) {
    SocketPair pair;
    EXPECT_EQ(Sock_SetBlocking(pair.a, true), RESULT_OK);
    pair.Send(bytes);
    SocketPair::Close(&pair.b);
    return ReceiveFrom(pair.a);
  }

  SocketPair pair_;
  CreateInstanceRequest* request_ = MakeCreateRequest(7, u"fan-1\x9B");
};

TEST_F(CimShipment, MessagesArriveAsTheyWereSent) {
  // Of an instance behind a reference only the keys are shipped.
  const std::string unshipped = "      Tag (STRING) = \"stays here\"\n";
  std::string text = Describe(request_->instance);
  ASSERT_NE(text.find("DeviceID (STRING, key) = \"fan-1.\""), std::string::npos);
  text.erase(text.find(unshipped), unshipped.size());
  for (int i = 0; i < 2; ++i) {  // the message stays unchanged for a second shipment
    ASSERT_TRUE(Shipment_Send(pair_.b, &request_->head));
    EXPECT_EQ(ReceiveFrom(pair_.a), text);
  }
}

TEST_F(CimShipment, CutShipmentsAreRefused) {
  const std::string whole = Shipped();
  for (std::size_t size = 0; size < whole.size(); size += 1 + size / 16)
    EXPECT_TRUE(Receive(whole.substr(0, size)).ends_with(" is cut")) << size;
}

// A wrong byte changes its own message or makes it invalid; the connection stays synchronised.
TEST_F(CimShipment, WrongByteLeavesTheNextShipmentWhole) {
  const std::string whole = Shipped(), text = Receive(whole);
  ShipmentHead head;
  std::memcpy(&head, whole.data(), sizeof head);
  SocketPair pair;
  EXPECT_EQ(Sock_SetBlocking(pair.a, true), RESULT_OK);
  int refused = 0;
  for (std::size_t at = sizeof head + head.pageCount * sizeof(BatchPageInfo); at < whole.size();
       ++at) {
    std::string wrong = whole;
    wrong[at] = static_cast<char>(wrong[at] ^ 0x81);
    pair.Send(wrong + whole);
    refused += ReceiveFrom(pair.a) == "the message is invalid";
    ASSERT_EQ(ReceiveFrom(pair.a), text) << at;
  }
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace cim_ship
