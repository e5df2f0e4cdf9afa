// The smallest host that the inventory can look at: a lab folder whose files say what adapters and
// wireless interfaces there are, and both logs open in it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/gate.h"
#include "platform/linux/lab_folder.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/link_watch.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {

inline constexpr char kServiceLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinLog.log";
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
  // Those of the service log.
  std::vector<std::string> ServiceMessages() { return Messages(kServiceLog, " M ] ", " <thread="); }

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

  static std::size_t CountCalls(const std::string& call) {
    std::size_t count = 0;
    for (const std::string& entry : platform::gate::Trace())
      if (entry.compare(0, call.size() + 1, call + "(") == 0) ++count;
    return count;
  }

  // Waits until `done`, however long the machine takes; gives up where only a fault takes as long.
  static bool Eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 6000; ++i) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

 private:
  std::vector<std::string> Messages(const char* path, const std::string& before,
                                    const std::string& behind) {
    const std::string text = FileText(path);
    std::vector<std::string> messages;
    for (std::size_t at = 0; (at = text.find(before, at)) != std::string::npos;) {
      at += before.size();
      const std::size_t end = text.find(behind, at);
      messages.push_back(text.substr(at, end - at));
      at = std::min(end, text.size());
    }
    return messages;
  }

  void RemoveFiles() {
    for (const char* name : {"adapters.txt", "wlan.txt", "wlan_profiles.txt", "connected.txt",
                             "chassis.txt", "batteries.txt"})
      std::filesystem::remove(platform::LabPath(name));
    for (const char* path : {kServiceLog, kWmiLog, kChangeLogPath})
      std::filesystem::remove(platform::NativePath(path));
  }
};

}  // namespace stewardry
