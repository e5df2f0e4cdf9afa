// A service log and a firmware behind the mailbox, in a lab folder of their own.
#pragma once

#include <memory>
#include <string>

#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/device.h"
#include "service/mailbox/messages.h"
#include "tests/firmware_peer.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {

namespace gate = platform::gate;

class MailboxTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    ServiceLog_Start("C:\\ProgramData\\Corvane\\Stewardry\\tavrinLog.log", 100 << 20);
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
    const std::string log = ServiceLogText();
    std::string messages;
    for (std::size_t at = 0; (at = log.find(" M ] ", at)) != std::string::npos;) {
      at += 5;
      messages += log.substr(at, log.find(" <thread=", at) - at) + "\n";
    }
    return messages;
  }
  static bool Logged(const std::string& message) {
    return ("\n" + Messages()).find("\n" + message + "\n") != std::string::npos;
  }
  // Waits, for ten seconds at most, until a condition holds.
  template <class Ready>
  static bool Eventually(Ready ready) {
    for (int i = 0; i < 2000; ++i) {
      if (ready()) return true;
      platform::Sleep(5);
    }
    return false;
  }

  std::unique_ptr<FirmwarePeer> firmware_;
};

// Ends a thread of the service as the service itself would, and waits until it has gone.
inline void EndThread(platform::Thread* thread) {
  platform::TerminateThread(*thread, 0);
  EXPECT_EQ(platform::WaitForSingleObject(*thread, 10'000), 0U);
  thread->Reset();
}

}  // namespace stewardry
