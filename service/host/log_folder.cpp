#include "service/host/log_folder.h"

#include <cstdint>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/private_folder.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "service/diagnostics/log_file.h"
#include "service/diagnostics/service_log.h"
#include "text/letter_case.h"

namespace stewardry {

namespace {

constexpr std::uint32_t kPatienceMs = 10'000;  // runs twice in a start; Windows allows 30 s for it

using Path = char[platform::kMaxPath + 64];

// The time in 100-nanosecond units: no other user can know the name in advance.
bool RenameAside(const char* path) {
  Path aside;
  FormatTo(aside, sizeof aside, "%s.aside-%I64x", path, platform::GetSystemTimeAsFileTime());
  return platform::RenameFile(path, aside);
}

bool TakeOver(const char* path) {
  return platform::ClaimPrivateFolder(path) && platform::RemoveForeignFiles(path);
}

// Creates the folder, or uses an existing one that `takeOver` accepts.
bool MakePrivate(const char* path, bool (*takeOver)(const char*)) {
  if (platform::CreatePrivateFolder(path)) return true;
  if (platform::LastError() != platform::kErrorAlreadyExists) return false;
  return takeOver(path) || (RenameAside(path) && platform::CreatePrivateFolder(path));
}

bool MakeBelow(const char* base, const char* name, bool (*takeOver)(const char*),
               CheckedFormat<std::uint32_t> failureLine) {
  Path path;
  FormatTo(path, sizeof path, "%s%s", base, name);
  if (MakePrivate(path, takeOver)) return true;
  LogInfo(failureLine, platform::LastError());
  return false;
}

// A user with write access to the upper folder could replace the lower one, so both must be
// private, and without the upper one the lower isn't created. Files of the company's other programs
// in the upper one stay.
std::uint32_t MakeFolders(void*) {
  char base[platform::kMaxPath];
  if (!platform::GetCommonAppDataFolder(base)) return 0;
  if (!MakeBelow(base, kCompanyFolder, platform::ClaimPrivateFolder,
                 "Error %u creating Corvane Folder.\n") ||
      !MakeBelow(base, kLogFolder, TakeOver, "Error %u creating Tavrin Log Folder.\n"))
    return 0;
  Path path;
  FormatTo(path, sizeof path, "%s%s\\", base, kLogFolder);
  gLogs->gLogFolderIsSafe.store(EqualIgnoringCase(path, STEWARDRY_FIXED_LOG_FOLDER),
                                std::memory_order_relaxed);
  return 1;
}

}  // namespace

// On a thread of its own, which keeps running after the wait: a program that holds a file open must
// cost the logs and not the service.
bool MakeLogFolder() {
  gLogs->gLogFolderIsSafe.store(false, std::memory_order_relaxed);
  const platform::Thread thread = platform::CreateThread(MakeFolders, nullptr);
  std::uint32_t isMade = 0;
  return thread && platform::WaitForSingleObject(thread, kPatienceMs) == platform::kWaitObject0 &&
         platform::GetExitCodeThread(thread, &isMade) && isMade == 1;
}

}  // namespace stewardry
