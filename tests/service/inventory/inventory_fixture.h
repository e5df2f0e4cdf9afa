// A host for the inventory: a lab folder whose files name the adapters, wireless interfaces and
// batteries, with both logs open, and a firmware behind the mailbox.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/reports.h"
#include "service/mailbox/records.h"
#include "service/standby/standby_state.h"
#include "tests/fresh_state.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {

inline constexpr char kWmiLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinWMI.log";

// Lines of adapters.txt, and two of their addresses.
inline constexpr char kEthernet[] =
    "eth0 mac=02:00:00:00:00:01 speed=1000000000 index=3 address=192.168.1.5/24 "
    "gateway=192.168.1.1 dns=192.168.1.2\n";
inline constexpr char kWireless[] =
    "wlan0 wireless dynamic mac=02:00:00:00:00:02 speed=54000000 index=4 address=10.0.0.7/8\n";
inline constexpr char kLoopbackOnly[] = "lo loopback address=127.0.0.1/8\n";
inline constexpr std::uint32_t kEthernetAddress = 0x0501A8C0;
inline constexpr std::uint32_t kWirelessAddress = 0x0700000A;

// Control codes of the report's messages.
inline constexpr std::uint32_t kWriteStatus = 0x9C41A410;
inline constexpr std::uint32_t kReadVersion = 0x9C416424;
inline constexpr std::uint32_t kWriteBooted = 0x9C41A428;
inline constexpr std::uint32_t kWriteOs = 0x9C41A42C;
inline constexpr std::uint32_t kWriteIp = 0x9C41A430;
inline constexpr std::uint32_t kWriteNetwork = 0x9C41A438;

// Gives the calling thread names of its own. Returns false if this user may not do so.
inline bool EnterOwnHostNames(const std::string& host, const std::string& domain) {
  return ::unshare(CLONE_NEWUTS) == 0 && ::sethostname(host.data(), host.size()) == 0 &&
         ::setdomainname(domain.data(), domain.size()) == 0;
}

using Lines = std::vector<std::string>;

class InventoryTest : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    Renew(&gReports);
    Renew(&gStandby);
    ASSERT_EQ(WmiLog_Open(kWmiLog, 100 << 20), 0);
  }
  static Lines WmiMessages() { return LabTest::Messages(kWmiLog, "INFO:  ", " $$<"); }
};

// The same with the mailbox open and both logs empty.
class ReportTest : public InventoryTest {
 protected:
  using Codes = std::vector<std::uint32_t>;

  void SetUp() override {
    InventoryTest::SetUp();
    OpenMailbox();
    ServiceLog_Close();
    std::filesystem::remove(platform::NativePath(kServiceLog));
    ASSERT_TRUE(ServiceLog_Start(kServiceLog, 100 << 20));
    gate::Arm();
  }
  Codes Sent() { return firmware_->Codes(); }

  // Returns the n-th message sent.
  template <class Record>
  Record Message(std::size_t n) {
    const std::vector<ReceivedRequest> requests = firmware_->Requests();
    Record record{};
    const std::string input = n < requests.size() ? requests[n].input : "";
    EXPECT_EQ(input.size(), sizeof record) << "message " << n;
    std::memcpy(&record, input.data(), std::min(sizeof record, input.size()));
    return record;
  }
};

}  // namespace stewardry
