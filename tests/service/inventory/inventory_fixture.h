// The smallest host that the inventory can look at: a lab folder whose files say what adapters and
// wireless interfaces there are, and both logs open in it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/linux/gate.h"
#include "platform/linux/lab_folder.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/link_watch.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {

inline constexpr char kWmiLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinWMI.log";
inline constexpr std::uint32_t kNoRotation = 100 * 1024 * 1024;

// An Ethernet adapter, as adapters.txt tells it.
inline constexpr char kEthernet[] =
    "eth0 mac=02:00:00:00:00:01 speed=1000000000 index=3 address=192.168.1.5/24 "
    "gateway=192.168.1.1 dns=192.168.1.2\n";
inline constexpr char kWireless[] =
    "wlan0 wireless dynamic mac=02:00:00:00:00:02 speed=54000000 index=4 address=10.0.0.7/8\n";
inline constexpr char kLoopbackOnly[] = "lo loopback address=127.0.0.1/8\n";

class InventoryTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    RemoveFiles();
    std::filesystem::create_directories(
        platform::NativePath("C:\\ProgramData\\Corvane\\Stewardry"));
    StartServiceLog();
    ASSERT_EQ(WmiLog_Open(kWmiLog, kNoRotation), 0);
    gIPInfo.Store({});
    gWlanHandle.store(nullptr);
    platform::gate::Arm();  // a trace without what this has done
  }
  void TearDown() override {
    ServiceLog_Close();
    RemoveFiles();
    LabTest::TearDown();
  }

  void Put(const std::string& name, const std::string& text) {
    std::ofstream(platform::LabPath(name)) << text;
  }

  void StartServiceLog() {
    ServiceLog_Close();
    std::filesystem::remove(platform::NativePath(kServiceLog));
    ASSERT_TRUE(ServiceLog_Start(kServiceLog, kNoRotation));
  }

  // The messages of the WMI log, in their order.
  std::vector<std::string> WmiMessages() { return Messages(kWmiLog, "INFO:  ", " $$<"); }

  // Whether `wanted` stand in `lines` in this order, other lines between them or not.
  static testing::AssertionResult InOrder(const std::vector<std::string>& lines,
                                          const std::vector<std::string>& wanted) {
    std::size_t found = 0;
    for (const std::string& line : lines)
      if (found < wanted.size() && line == wanted[found]) ++found;
    if (found == wanted.size()) return testing::AssertionSuccess();
    auto failure = testing::AssertionFailure() << "missing: " << wanted[found] << "\nin:";
    for (const std::string& line : lines) failure << "\n  " << line;
    return failure;
  }

 private:
  void RemoveFiles() {
    for (const char* name : {"adapters.txt", "wlan.txt", "wlan_profiles.txt", "connected.txt",
                             "chassis.txt", "batteries.txt"})
      std::filesystem::remove(platform::LabPath(name));
    for (const char* path : {kServiceLog, kWmiLog, kChangeLogPath})
      std::filesystem::remove(platform::NativePath(path));
  }
};

}  // namespace stewardry
