// The smallest environment of a test: a lab folder of its own and an armed gate. The platform reads
// the folder's path once a process, so it is set before anything else runs. Each test finds it
// empty.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "tests/eventually.h"
#include "tests/observe.h"

inline constexpr char kServiceLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinLog.log";

// The process's lab folder; removed when the process ends.
class LabFolderOfProcess {
 public:
  LabFolderOfProcess() {
    char pattern[] = "/tmp/stewardry-test-XXXXXX";
    path_ = mkdtemp(pattern);
    setenv("STEWARDRY_LAB", path_.c_str(), 1);
  }
  ~LabFolderOfProcess() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

inline LabFolderOfProcess gTestLab;

class LabTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& entry : std::filesystem::directory_iterator(lab()))
      if (entry.path().filename().string().rfind("mutex-", 0) != 0)
        std::filesystem::remove_all(entry.path());
    std::filesystem::create_directories(lab() + "/ProgramData/Corvane/Stewardry");
    std::filesystem::create_directories(lab() + "/mailbox");
    platform::gate::Arm();
  }
  void TearDown() override { platform::gate::Disarm(); }

  static const std::string& lab() { return gTestLab.Path(); }

  // Writes a file below the lab folder.
  static void Put(const std::string& name, const std::string& text) {
    std::ofstream(lab() + "/" + name) << text;
  }

  // Returns the text of a file named by its Windows path; empty if there is no such file.
  static std::string FileText(const std::string& windowsPath) {
    return LabText(platform::NativePath(windowsPath.c_str()).substr(lab().size() + 1));
  }
  // Returns the text of a file below the lab folder.
  static std::string LabText(const std::string& name) {
    std::ifstream file(lab() + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static std::string ServiceLogText() { return FileText(kServiceLog); }
  // Returns the messages of a log, each between `before` and `behind`, in order.
  static std::vector<std::string> Messages(const std::string& windowsPath,
                                           const std::string& before, const std::string& behind) {
    const std::string text = FileText(windowsPath);
    std::vector<std::string> messages;
    for (std::size_t at = 0; (at = text.find(before, at)) != std::string::npos;) {
      at += before.size();
      messages.push_back(text.substr(at, text.find(behind, at) - at));
    }
    return messages;
  }
  static std::vector<std::string> ServiceMessages() {
    return Messages(kServiceLog, " M ] ", " <thread=");
  }
  static std::size_t CountOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
      ++count;
    return count;
  }
};
