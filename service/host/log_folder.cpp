// The folder of the logs.
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

constexpr std::uint32_t kPatienceMs = 10'000;  // twice in a start, of which Windows awaits 30 s

using Path = char[platform::kMaxPath + 64];

// A moment in 100-nanosecond units is a name that nobody can have taken beforehand.
bool PutAside(const char* path) {
  Path aside;
  FormatTo(aside, sizeof aside, "%s.aside-%I64x", path, platform::GetSystemTimeAsFileTime());
  return platform::RenameFile(path, aside);
}

bool TakeOver(const char* path) {
  return platform::ClaimPrivateFolder(path) && platform::RemoveForeignFiles(path);
}

// `takeOver` decides whether a folder that is there will do.
bool MakePrivate(const char* path, bool (*takeOver)(const char*)) {
  if (platform::CreatePrivateFolder(path)) return true;
  if (platform::LastError() != platform::kErrorAlreadyExists) return false;
  return takeOver(path) || (PutAside(path) && platform::CreatePrivateFolder(path));
}

bool MakeBelow(const char* base, const char* name, bool (*takeOver)(const char*),
               CheckedFormat<std::uint32_t> failureLine) {
  Path path;
  FormatTo(path, sizeof path, "%s%s", base, name);
  if (MakePrivate(path, takeOver)) return true;
  LogInfo(failureLine, platform::LastError());
  return false;
}

// Whoever may write to the upper folder may put another one in the place of the lower, so both must
// be private, and without the upper one the lower isn't made. Other programs of the company may
// have files in the upper one, which stay.
std::uint32_t MakeFolders(void*) {
  char base[platform::kMaxPath];
  if (!platform::GetCommonAppDataFolder(base)) return 0;
  if (!MakeBelow(base, kCompanyFolder, platform::ClaimPrivateFolder,
                 "Error %u creating Corvane Folder.\n") ||
      !MakeBelow(base, kLogFolder, TakeOver, "Error %u creating Tavrin Log Folder.\n"))
    return 0;
  Path path;
  FormatTo(path, sizeof path, "%s%s\\", base, kLogFolder);
  gLogFolderIsSafe.store(EqualIgnoringCase(path, STEWARDRY_FIXED_LOG_FOLDER),
                         std::memory_order_relaxed);
  return 1;
}

}  // namespace

// On a thread of its own, which is left behind if somebody's hold on a file stops it: that must
// cost the logs and not the service.
bool MakeLogFolder() {
  gLogFolderIsSafe.store(false, std::memory_order_relaxed);
  const platform::Thread thread = platform::CreateThread(MakeFolders, nullptr);
  std::uint32_t isMade = 0;
  return thread && platform::WaitForSingleObject(thread, kPatienceMs) == platform::kWaitObject0 &&
         platform::GetExitCodeThread(thread, &isMade) && isMade == 1;
}

}  // namespace stewardry
