// The power actions: never of this machine, each a line in the lab's power.txt.
#include "service/actions/power_actions.h"

#include <gtest/gtest.h>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

class PowerActions : public MailboxTest {};

constexpr char kReboot[] =
    "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=true reason=0x40000\n";

TEST_F(PowerActions, OptionIsClearedAndMakesItsCall) {
  const struct {
    std::uint8_t option;
    const char* line;
    const char* call;
  } kRows[] = {
      {kPowerShutdown, "Shutdown initiated",
       "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=false reason=0x40000\n"},
      {kPowerReboot, "Reboot initiated", kReboot},
      {kPowerHibernate, "Delaying Hibernate for 2 seconds\nHibernate initiated",
       "SetSuspendState hibernate=true force=true wakeEventsDisabled=false\n"},
      {kPowerSleep, "Delaying Sleep for 2 seconds\nSleep initiated",
       "SetSuspendState hibernate=false force=true wakeEventsDisabled=false\n"}};
  gate::FailEvery("Sleep(2000)", gate::kFinishAtOnce);
  std::string calls;
  for (const auto& row : kRows) {
    gPowerOption.store(row.option);
    EXPECT_TRUE(ActOnPowerOption());
    calls += row.call;
    EXPECT_TRUE(Eventually([&] { return LabText("power.txt") == calls; })) << row.line;
    EXPECT_EQ(gPowerOption.load(), kPowerNone);
    EXPECT_TRUE(Logged(row.line)) << row.line;
  }
  EXPECT_EQ(CountCalls("Sleep"), 2U);
  EXPECT_EQ(ApplyPowerOption(9), 0U);
  EXPECT_EQ(LabText("power.txt"), calls);
}

TEST_F(PowerActions, FailedStepIsLoggedAndClearsTheOption) {
  const std::pair<const char*, const char*> kRows[] = {
      {"OpenProcessToken", "Open Process Token Failed 5"},
      {"LookupPrivilegeValueA", "LookupPrivilegeValue Failed 5"},
      {"AdjustTokenPrivileges", "AdjustTokenPrivileges Failed 5"},
      {"InitiateSystemShutdownExA", "Returned error 5"}};
  for (const auto& [call, line] : kRows) {
    gate::FailNext(call, 5);
    gPowerOption.store(kPowerReboot);
    EXPECT_TRUE(ActOnPowerOption());
    EXPECT_TRUE(Logged(line)) << line;
    EXPECT_EQ(gPowerOption.load(), kPowerNone);
  }
  EXPECT_EQ(CountOf(Messages(), " Power option failed PowerOption: 0x2"), 4U);
  EXPECT_EQ(LabText("power.txt"), "");
}

TEST_F(PowerActions, NonDashRebootLogsItsErrorTwiceAndLeavesTheOption) {
  gPowerOption.store(kPowerShutdown);
  gate::FailNext("InitiateSystemShutdownExA", 1314);
  RebootNonDash();
  EXPECT_EQ(CountOf(Messages(), "Returned error 1314"), 2U);
  RebootNonDash();
  EXPECT_EQ(LabText("power.txt"), kReboot);
  EXPECT_EQ(gPowerOption.load(), kPowerShutdown);
}

TEST_F(PowerActions, DelayThatCannotStartLeavesTheOptionPending) {
  for (const std::uint8_t option : {kPowerHibernate, kPowerSleep}) {
    gate::FailNext("CreateThread", 8);
    gPowerOption.store(option);
    EXPECT_FALSE(ActOnPowerOption());
    EXPECT_EQ(gPowerOption.load(), option);
  }
  EXPECT_TRUE(Logged("Hibernate power event thread failed"));
  EXPECT_TRUE(Logged("Sleep power event thread failed"));
}

}  // namespace
}  // namespace stewardry
