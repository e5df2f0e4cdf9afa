// The power actions: never of this machine, each a line in the lab's power.txt.
#include "service/actions/power_actions.h"

#include <gtest/gtest.h>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

class PowerActions : public MailboxTest {
 protected:
  void TearDown() override {
    gPowerOption.store(kPowerNone);
    MailboxTest::TearDown();
  }
};

constexpr char kReboot[] =
    "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=true reason=0x40000\n";

TEST_F(PowerActions, EachOptionMakesItsCallWithItsLine) {
  struct Row {
    std::uint8_t option;
    const char* line;
    const char* call;
  };
  constexpr Row kRows[] = {
      {kPowerShutdown, "Shutdown initiated",
       "InitiateSystemShutdownExA message=none timeout=0 force=true reboot=false reason=0x40000\n"},
      {kPowerReboot, "Reboot initiated", kReboot},
      {kPowerHibernate, "Hibernate initiated",
       "SetSuspendState hibernate=true force=true wakeEventsDisabled=false\n"},
      {kPowerSleep, "Sleep initiated",
       "SetSuspendState hibernate=false force=true wakeEventsDisabled=false\n"},
  };
  std::string calls;
  for (const Row& row : kRows) {
    EXPECT_NE(ApplyPowerOption(row.option), 0U);
    EXPECT_TRUE(Logged(row.line));
    EXPECT_EQ(LabText("power.txt"), calls += row.call);
  }
  EXPECT_EQ(ApplyPowerOption(9), 0U);
  EXPECT_EQ(LabText("power.txt"), calls);
}

TEST_F(PowerActions, AFailedStepIsSaidAndTheTokenIsClosed) {
  struct Row {
    const char* call;
    const char* line;
  };
  constexpr Row kRows[] = {
      {"OpenProcessToken", "Open Process Token Failed 5"},
      {"LookupPrivilegeValueA", "LookupPrivilegeValue Failed 5"},
      {"AdjustTokenPrivileges", "AdjustTokenPrivileges Failed 5"},
      {"InitiateSystemShutdownExA", "Returned error 5"},
  };
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, 5);
    gPowerOption.store(kPowerReboot);
    EXPECT_TRUE(ActOnPowerOption());
    EXPECT_TRUE(Logged(row.line)) << row.line;
    EXPECT_EQ(gPowerOption.load(), kPowerNone);  // cleared, no retry
  }
  EXPECT_EQ(CountOf(Messages(), " Power option failed PowerOption: 0x2"), 4U);
  EXPECT_EQ(LabText("power.txt"), "");
}

TEST_F(PowerActions, AFailedNonDashRebootSaysTheErrorTwiceAndLeavesTheOptionAlone) {
  gPowerOption.store(kPowerShutdown);
  gate::FailNext("InitiateSystemShutdownExA", 1314);
  RebootNonDash();
  EXPECT_EQ(CountOf(Messages(), "Returned error 1314"), 2U);
  RebootNonDash();
  EXPECT_EQ(LabText("power.txt"), kReboot);
  EXPECT_EQ(gPowerOption.load(), kPowerShutdown);
}

TEST_F(PowerActions, ADelayThatCannotStartLeavesTheOptionPending) {
  for (const std::uint8_t option : {kPowerHibernate, kPowerSleep}) {
    gate::FailNext("CreateThread", 8);
    gPowerOption.store(option);
    EXPECT_FALSE(ActOnPowerOption());
    EXPECT_EQ(gPowerOption.load(), option);
  }
  EXPECT_TRUE(Logged("Hibernate power event thread failed"));
  EXPECT_TRUE(Logged("Sleep power event thread failed"));
}

TEST_F(PowerActions, ADelayedActionClearsTheOptionOnlyWhenItActs) {
  gPowerOption.store(kPowerHibernate);
  ASSERT_TRUE(ActOnPowerOption());
  ASSERT_TRUE(Eventually([&] { return Logged("Delaying Hibernate for 2 seconds"); }));
  EXPECT_EQ(gPowerOption.load(), kPowerHibernate);
  EXPECT_EQ(LabText("power.txt"), "");
  ASSERT_TRUE(Eventually([&] { return !LabText("power.txt").empty(); }));
  EXPECT_EQ(gPowerOption.load(), kPowerNone);
}

}  // namespace
}  // namespace stewardry
