// A lab folder of a benchmark's own. It must be chosen before anything asks for it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace bench {

class LabFolder {
 public:
  LabFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "stewardry-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
    ::setenv("STEWARDRY_LAB", path_.c_str(), 1);
  }
  LabFolder(const LabFolder&) = delete;
  LabFolder& operator=(const LabFolder&) = delete;
  ~LabFolder() {
    std::error_code ignored;  // what can't be removed stays in the temporary folder
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace bench
