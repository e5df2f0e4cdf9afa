// Each power call is a line in the lab's power.txt and never affects this machine.
#include "service/actions/power_actions.h"

#include <gtest/gtest.h>

#include <tuple>

#include "service/actions/actions_state.h"
#include "tests/fresh_state.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

class PowerActions : public MailboxTest {
 protected:
  PowerActions() { Renew(&gActions); }
};

TEST_F(PowerActions, ReplyClearsTheOptionAndMakesItsCall) {
  const std::tuple<std::uint8_t, const char*, const char*> kRows[] = {
      {kPowerShutdown, "Shutdown initiated",
       "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=false reason=0x40000\n"},
      {kPowerReboot, "Reboot initiated",
       "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=true reason=0x40000\n"},
      {kPowerHibernate, "Delaying Hibernate for 2 seconds\nHibernate initiated",
       "SetSuspendState hibernate=true force=true wakeEventsDisabled=false\n"},
      {kPowerSleep, "Delaying Sleep for 2 seconds\nSleep initiated",
       "SetSuspendState hibernate=false force=true wakeEventsDisabled=false\n"}};
  gate::FailEvery("Sleep(2000)", gate::kFinishAtOnce);
  std::string calls;
  for (const auto& [option, line, call] : kRows) {
    gActions->gPowerOption.store(option);
    EXPECT_TRUE(ActOnPowerOption());
    calls += call;
    EXPECT_TRUE(Eventually([&] { return LabText("power.txt") == calls; })) << line;
    EXPECT_EQ(gActions->gPowerOption.load(), kPowerNone);
    EXPECT_TRUE(Logged(line)) << line;
  }
  EXPECT_EQ(ShutDownWithNotice(), 1U);
  EXPECT_EQ(LabText("power.txt").substr(calls.size()),
            "InitiateSystemShutdownExA message=DASH initiated power command timeout=5 force=false "
            "reboot=false reason=0x0\n");
  EXPECT_EQ(CountCalls("Sleep"), 2U);
  EXPECT_EQ(ApplyPowerOption(9), 0U);
}

TEST_F(PowerActions, FailedStepIsLoggedAndClearsTheOptionUnlessItNeverStarted) {
  const std::tuple<std::uint8_t, const char*, const char*> kRows[] = {
      {kPowerReboot, "OpenProcessToken", "Open Process Token Failed 5"},
      {kPowerReboot, "LookupPrivilegeValueA", "LookupPrivilegeValue Failed 5"},
      {kPowerReboot, "AdjustTokenPrivileges", "AdjustTokenPrivileges Failed 5"},
      {kPowerReboot, "InitiateSystemShutdownExA", "Returned error 5"},
      {kPowerHibernate, "CreateThread", "Hibernate power event thread failed"},
      {kPowerSleep, "CreateThread", "Sleep power event thread failed"}};
  for (const auto& [option, call, line] : kRows) {
    gate::FailNext(call, 5);
    gActions->gPowerOption.store(option);
    const bool started = option == kPowerReboot;
    EXPECT_EQ(ActOnPowerOption(), started);
    EXPECT_TRUE(Logged(line)) << line;
    EXPECT_EQ(gActions->gPowerOption.load(), started ? kPowerNone : option);
  }
  EXPECT_EQ(CountOf(Messages(), " Power option failed PowerOption: 0x2"), 4U);
  gate::FailNext("InitiateSystemShutdownExA", 1314);
  RebootNonDash();  // neither reads nor clears the option
  EXPECT_EQ(CountOf(Messages(), "Returned error 1314"), 2U);
  EXPECT_EQ(gActions->gPowerOption.load(), kPowerSleep);
}

}  // namespace
}  // namespace stewardry
