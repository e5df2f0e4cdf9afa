// KVM between viewers on the real port 22, in a network of the test's own, and a firmware behind
// the mailbox. The test's thread plays the reader thread: it hands over the firmware's commands.
#pragma once

#include <cstring>
#include <regex>
#include <string>

#include "service/gateway/gateway_state.h"
#include "service/host/command_table.h"
#include "service/kvm/agent.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/relay.h"
#include "service/kvm/session.h"
#include "service/mailbox/control_codes.h"
#include "service/mailbox/dispatcher.h"
#include "tests/fresh_state.h"
#include "tests/own_network.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/tcp_client.h"

namespace stewardry {

constexpr std::uint32_t kKvmBytes = ControlCodeFor(Operation::kWriteKVMPacket).code;
constexpr std::uint32_t kAnnounce = ControlCodeFor(Operation::kSendIPCompleteInfomartion).code;
constexpr std::uint32_t kClosed = ControlCodeFor(Operation::kSendCloseSocketcmd).code;
constexpr std::uint32_t kStatusByte = ControlCodeFor(Operation::kGetOrrinStatus).code;
constexpr std::uint32_t kRegion = ControlCodeFor(Operation::kInitializeKeyboardMousePointers).code;
constexpr std::uint32_t kRegionBack = ControlCodeFor(Operation::kDeAllocateKVM_KB_MB_Buffers).code;

class KvmTest : public MailboxTest {
 protected:
  void SetUp() override {
    if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
    Renew(&gKvm);
    Renew(&gGateway);
    MailboxTest::SetUp();
    ComposeService();
    firmware_->SetAnswer(kRegion, std::string(16, '\1'));
    OpenMailbox();
    ASSERT_TRUE(firmware_->AwaitKind(lablink::kOpen));
    LogInfo("The log's own descriptors are open from here on");
    before_ = Held();
  }
  // Ends every session and server, and checks that they hold nothing.
  void TearDown() override {
    if (IsSkipped()) return;
    gate::Disarm();
    gGateway->gKvmRebindCount = kRebindBudget;
    FinishKVMSession();
    EXPECT_TRUE(Eventually([&] {
      gKvm->gKvmEnabled = 0;
      if (Held().threads == before_.threads) return true;
      TcpClient refused(22);  // removes the listener, which ends its server
      return false;
    })) << "a thread is left";
    ExpectHeld(before_);
    MailboxTest::TearDown();
  }
  static void ExpectHeld(const Holdings& expected) {
    (void)Eventually([&] { return Held() == expected; });
    EXPECT_EQ(Held(), expected);
  }

  // A command of the firmware.
  static void Command(FirmwareCommandCode code, const std::string& payload = "") {
    const std::string frame = payload + static_cast<char>(code) + '\0';
    Processread(static_cast<std::uint32_t>(frame.size()),
                reinterpret_cast<const std::uint8_t*>(frame.data()));
  }
  static void Enable() { Command(ORRIN_TAVRIN_CMD_KVM_ENABLE_STATUS); }
  static void Trust(std::uint32_t address) {
    std::string payload(8, '\1');
    std::memcpy(payload.data(), &address, sizeof address);
    Command(ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, payload);
  }
  static void EnableForAnyPeer() {
    Enable();
    Trust(0);
  }
  static void CloseByFirmware() { Command(ORRIN_TAVRIN_CMD_VNC_SOC_CLOSE); }
  static void Data(const std::string& bytes) { Command(ORRIN_TAVRIN_CMD_KVM_DATA, bytes); }

  // Whether a socket of port 22 is in a state of TCP, as /proc/net/tcp numbers them.
  static bool PortIs(const std::string& state) {
    std::ifstream table("/proc/net/tcp");
    const std::string text{std::istreambuf_iterator<char>(table), {}};
    return std::regex_search(text, std::regex(":0016 \\S+ " + state + " "));
  }
  // Waits for a listener; the server binds on its own thread.
  static bool Listening() {
    return Eventually([] { return PortIs("0A"); });
  }
  // Waits until the viewer has been announced and its accept is over: the server waits again.
  bool Served(std::size_t announcements = 1) {
    return firmware_->Await(kAnnounce, announcements) && Eventually([] {
             return CallsOf({"accept", "WaitForMultipleObjectsEx"}).back()[0] == 'W';
           });
  }
  // Enables KVM for any peer, and connects a viewer that is served.
  std::unique_ptr<TcpClient> NewViewer(std::size_t announcements = 1) {
    EnableForAnyPeer();
    EXPECT_TRUE(Listening());
    auto viewer = std::make_unique<TcpClient>(22);
    EXPECT_TRUE(Served(announcements));
    return viewer;
  }
  // Ends a held request of this code without an answer.
  void EndHeldRequest(std::uint32_t code) {
    firmware_->SetVerdict(code, 0);
    platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr);
  }

  // The messages to the firmware, a letter each: A region requested, S status, I announcement,
  // D data, R region given back, C close.
  std::string Sequence() {
    constexpr std::uint32_t kCodes[] = {kRegion,   kStatusByte, kAnnounce,
                                        kKvmBytes, kRegionBack, kClosed};
    std::string letters;
    for (const std::uint32_t code : firmware_->Codes())
      letters += "ASIDRC?"[std::find(std::begin(kCodes), std::end(kCodes), code) - kCodes];
    return letters;
  }
  static std::string TrayStatus() { return gKvm->gKvmSessionStatus.Load().text; }
  Holdings before_{};
};

}  // namespace stewardry
