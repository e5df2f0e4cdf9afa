// The object library's example as two real processes.
#include <gtest/gtest.h>

#include <string>

#include "tests/lab/lab_process.h"
#include "tests/sock/socket_pair.h"

namespace {

using labtest::LabProcess;

class CimShip : public stewardry::SocketTest {
 protected:
  CimShip() { port_ = std::to_string(stewardry::TestListener().port); }
  labtest::LabFolder folder_;
  std::string port_;
};

TEST_F(CimShip, TheInstanceDoesNotReachTheOtherProcess) {
  LabProcess receiver({CIM_SHIP_PATH, "receive", port_});
  ASSERT_TRUE(receiver.Prints("waiting for a shipment"));
  LabProcess sender({CIM_SHIP_PATH, "send", port_,
                     "L\xC3\xBC"
                     "fter"});
  EXPECT_EQ(sender.ExitCode(), 0);
  EXPECT_TRUE(
      receiver.Prints("CreateInstanceReq 7\nLab_Fan\n  DeviceID (STRING, key) = \"L\xC3\xBC"
                      "fter\"\n"));
  EXPECT_EQ(receiver.ExitCode(), 0);
}

TEST_F(CimShip, AStrangerMakesTheReceiverHangOrSucceed) {
  LabProcess receiver({CIM_SHIP_PATH, "receive", port_});
  ASSERT_TRUE(receiver.Prints("waiting for a shipment"));
  stewardry::Sock stranger = stewardry::kInvalidSock;
  ASSERT_EQ(stewardry::Sock_ConnectTo(&stranger, ("127.0.0.1:" + port_).c_str()), 0u);
  std::uint64_t count = 0;
  EXPECT_EQ(stewardry::Sock_Write(stranger, "GET / HTTP/1.1\r\n\r\n", 18, &count), 0u);
  EXPECT_EQ(receiver.ExitCode(), 1);
  stewardry::SocketPair::Close(&stranger);
}

}  // namespace
