// The process's entry, and what it reports where it cannot start.
#include "service/host/start_up.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <thread>
#include <tuple>

#include "service/diagnostics/side_log.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

namespace fs = std::filesystem;

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

class StartUp : public MailboxTest {};

TEST_F(StartUp, ServiceThatCannotStartReportsStoppedWithTheError) {
  for (const auto& [call, error] : {std::pair("CreateEventA", 8U), std::pair("CreateThread", 9U)}) {
    gate::Arm();
    gate::FailNext(call, error);
    SvcInit(0, nullptr);
    EXPECT_EQ(
        CallsOf({"SetServiceStatus"}),
        std::vector<std::string>{"SetServiceStatus(16 1 0 " + std::to_string(error) + " 0 1 0)"});
  }
}

TEST_F(StartUp, ServiceWithoutAControlHandlerLogsTheErrorAndReportsNoState) {
  const int listener = ListenUnix(lab() + "/scm");
  // Ends the connection, and so the dispatcher, once the service has given up.
  std::thread manager([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    static constexpr char kLine[] = "RegisterServiceCtrlHandlerEx: failed with error 5: ";
    EXPECT_TRUE(Eventually([] { return CountOf(FileText(kSideLog), kLine) == 1; }));
    ::close(peer);
  });
  gate::FailNext("RegisterServiceCtrlHandlerExA", 5);
  char name[] = "quillonsvc";
  char* words[] = {name, nullptr};
  EXPECT_EQ(RunProcess(1, words), 0);
  manager.join();
  ::close(listener);
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), "[RegisterServiceCtrlHandler failed with 5]"), 1U);
  EXPECT_EQ(CountCalls("SetServiceStatus"), 0U);
}

// What a user of the machine has made at the logs' place before the service came.
TEST_F(StartUp, LogFolderOfAnotherIsPutAsideAndWhatIsForeignInItGoes) {
  const fs::path data = lab() + "/ProgramData", company = data / "Corvane",
                 logs = company / "Stewardry", trap = lab() + "/trap", file = trap / "file";
  const auto link = [&](const fs::path& path) { fs::create_symlink(trap, path); };
  const auto plain = [](const fs::path& path) { std::ofstream(path) << "text"; };
  const auto own = [](const fs::path& path) { fs::create_directory(path); };
  const auto foreign = [](const fs::path& path) {
    fs::create_directory(path);
    if (::chown(path.c_str(), 65534, 65534) != 0) fs::rename(path, path.string() + ".away");
  };
  fs::create_directory(trap);
  plain(file);
  using Row = std::tuple<fs::path, std::function<void(const fs::path&)>, std::ptrdiff_t>;
  for (const auto& [place, make, names] :
       {Row{logs, own, 1}, Row{logs, link, 2}, Row{logs, plain, 2}, Row{logs, foreign, 2},
        Row{company, own, 1}, Row{company, link, 2}, Row{company, foreign, 2}}) {
    fs::remove_all(data);
    fs::create_directories(place.parent_path());
    make(place);
    EXPECT_TRUE(InitServiceLog());
    EXPECT_EQ(std::distance(fs::directory_iterator(place.parent_path()), {}), names) << place;
    for (const fs::path& folder : {company, logs})
      EXPECT_EQ(fs::symlink_status(folder).permissions(), fs::perms::owner_all) << folder;
  }
  fs::create_symlink(file, logs / "tavrinKeyboardMouseLog.log");
  fs::create_hard_link(file, logs / "tavrinWMI.log");
  EXPECT_TRUE(InitServiceLog());
  EXPECT_EQ(std::distance(fs::directory_iterator(logs), {}), 1) << "the service's own log";
  // A folder that can't be put aside gets nothing.
  fs::rename(logs, company / "old");
  link(logs);
  gate::FailNext("rename", 5);
  EXPECT_FALSE(InitServiceLog());
  SideLog(kSideLogKeyboardMouse, "no line");
  EXPECT_EQ(std::distance(fs::directory_iterator(trap), {}), 1);
  EXPECT_TRUE(InitServiceLog());
}

}  // namespace
}  // namespace stewardry
