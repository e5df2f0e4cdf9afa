// A service log and a firmware behind the mailbox, in a lab folder of their own.
#pragma once

#include <memory>
#include <string>

#include "platform/thread.h"
#include "service/diagnostics/log_file.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/device.h"
#include "service/mailbox/messages.h"
#include "tests/firmware_peer.h"
#include "tests/fresh_state.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {

namespace gate = platform::gate;

inline constexpr char kKeyboardMouseLog[] = STEWARDRY_FIXED_LOG_FOLDER "tavrinKeyboardMouseLog.log";

class MailboxTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    Renew(&gMailboxLink);
    ServiceLog_Start(kServiceLog, 100 << 20);
    firmware_ = std::make_unique<FirmwarePeer>(lab(), "7.1");
  }
  void TearDown() override {
    gate::Disarm();
    CloseOrrinDevice();
    firmware_.reset();
    ServiceLog_Close();
    LabTest::TearDown();
  }
  void OpenMailbox() {
    ASSERT_EQ(OpenOrrinDevice(kRequestMode), 0U);
    gate::Arm();
  }

  // The messages of the service log, one a line, without their heads and tails.
  static std::string Messages() {
    std::string joined;
    for (const std::string& message : ServiceMessages()) joined += message + "\n";
    return joined;
  }
  static bool Logged(const std::string& message) {
    return ("\n" + Messages()).find("\n" + message + "\n") != std::string::npos;
  }
  // Succeeds if `lines` contains lines that begin with those `wanted`, in this order.
  static testing::AssertionResult InOrder(const std::vector<std::string>& lines,
                                          const std::vector<std::string>& wanted) {
    std::size_t found = 0;
    for (const std::string& line : lines)
      found += found < wanted.size() && line.starts_with(wanted[found]);
    if (found == wanted.size()) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "missing: " << wanted[found] << "\nin: " << testing::PrintToString(lines);
  }

  std::unique_ptr<FirmwarePeer> firmware_;
};

// Ends a thread of the service from outside and waits until it has ended.
inline void EndThread(platform::Thread* thread) {
  platform::TerminateThread(*thread, 0);
  EXPECT_EQ(platform::WaitForSingleObject(*thread, 60'000), 0U);
  thread->Reset();
}

}  // namespace stewardry
