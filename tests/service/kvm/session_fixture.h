// KVM between viewers on the real port 22, in a network of the test's own, and a firmware behind
// the mailbox. The test's thread plays the reader thread: it hands the firmware's commands over.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "service/gateway/listeners.h"
#include "service/host/command_table.h"
#include "service/kvm/agent.h"
#include "service/kvm/relay.h"
#include "service/kvm/session.h"
#include "service/kvm/session_threads.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/control_codes.h"
#include "service/mailbox/dispatcher.h"
#include "tests/own_network.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/tcp_client.h"

namespace stewardry {

constexpr std::uint32_t kKvmBytes = ControlCodeFor(Operation::kWriteKVMPacket).code;
constexpr std::uint32_t kAnnounce = ControlCodeFor(Operation::kSendIPCompleteInfomartion).code;
constexpr std::uint32_t kGone = ControlCodeFor(Operation::kSendCloseSocketcmd).code;
constexpr std::uint32_t kStatusByte = ControlCodeFor(Operation::kGetOrrinStatus).code;
constexpr std::uint32_t kRegion = ControlCodeFor(Operation::kInitializeKeyboardMousePointers).code;
constexpr std::uint32_t kRegionBack = ControlCodeFor(Operation::kDeAllocateKVM_KB_MB_Buffers).code;

class KvmTest : public MailboxTest {
 protected:
  void SetUp() override {
    if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
    MailboxTest::SetUp();
    ComposeService();
    firmware_->SetAnswer(kRegion, std::string(16, '\1'));
    OpenMailbox();
    gKvmRebindCount = 1;
    gKvmSocketState = kKvmNoSession;
    gKvmSendIndex = 0;
    gKvmOverallSize = 0;
    ASSERT_TRUE(firmware_->AwaitKind(lablink::kOpen));
    LogInfo("The log's own descriptors are open from here on");
    before_ = Held();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    gate::Disarm();
    EndServers();
    MailboxTest::TearDown();
  }

  // Ends every session and server; what they held must be free again.
  void EndServers() {
    gKvmRebindCount = kRebindBudget;
    FinishKVMSession();
    EXPECT_TRUE(Eventually([&] {
      if (Held().threads == before_.threads) return true;
      TcpClient knock(22, 100);  // a refused knock takes the listener away, which ends its server
      return false;
    })) << "a thread is left";
    EXPECT_TRUE(Eventually([&] { return Held() == before_; }))
        << "held " << ::testing::PrintToString(Held()) << ", before "
        << ::testing::PrintToString(before_);
  }

  // A command of the firmware.
  static void Command(FirmwareCommandCode code, const std::string& payload = "") {
    const std::string frame = payload + static_cast<char>(code) + '\0';
    Processread(static_cast<std::uint32_t>(frame.size()),
                reinterpret_cast<const std::uint8_t*>(frame.data()));
  }
  static void Enable() { Command(ORRIN_TAVRIN_CMD_KVM_ENABLE_STATUS); }
  static void Trust(std::uint32_t address, std::uint32_t port = 5900) {
    std::string payload(8, '\0');
    std::memcpy(payload.data(), &address, 4);
    std::memcpy(payload.data() + 4, &port, 4);
    Command(ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, payload);
  }
  static void CloseByFirmware() { Command(ORRIN_TAVRIN_CMD_VNC_SOC_CLOSE); }
  static void Data(const std::string& bytes) { Command(ORRIN_TAVRIN_CMD_KVM_DATA, bytes); }

  // Waits for a socket of port 22 in a state of TCP, as /proc/net/tcp numbers them.
  static bool PortReaches(const std::string& state) {
    return Eventually([&] {
      std::ifstream table("/proc/net/tcp");
      std::string line;
      while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string number, local, remote, found;
        fields >> number >> local >> remote >> found;
        if (local.size() > 5 && local.substr(local.size() - 5) == ":0016" && found == state)
          return true;
      }
      return false;
    });
  }
  // Waits for a listener; the server binds on its own thread.
  static bool Listening() { return PortReaches("0A"); }
  // Waits until the viewer's close has reached the service's end, behind all of its bytes.
  static bool ViewerHasClosed() { return PortReaches("08"); }
  // Waits until the session of a viewer who has connected is up and its connection served.
  bool Served(std::size_t announcements = 1) {
    return firmware_->Await(kAnnounce, announcements) && Eventually([&] {
             return CountOf(Messages(), "Exiting KVM Callback\n") >= announcements;
           });
  }
  // The messages to the firmware, a letter each: A asks for the region, S status, I announcement,
  // D data, R region given back, C close.
  std::string Sequence() {
    static const std::map<std::uint32_t, char> kLetters = {{kRegion, 'A'},     {kStatusByte, 'S'},
                                                           {kAnnounce, 'I'},   {kKvmBytes, 'D'},
                                                           {kRegionBack, 'R'}, {kGone, 'C'}};
    std::string letters;
    for (const Asked& asked : firmware_->Requests()) {
      const auto found = kLetters.find(asked.code);
      letters += found != kLetters.end() ? found->second : '?';
    }
    return letters;
  }
  std::string DataSent() {
    std::string data;
    for (const Asked& asked : firmware_->Requests())
      if (asked.code == kKvmBytes) data += asked.input;
    return data;
  }
  static std::string TrayStatus() { return gKvmSessionStatus.Load().text; }
  Holdings before_{};
};

}  // namespace stewardry
