// One window station, WinSta0, and its three desktops are names in a table; a process and its
// threads begin on WinSta0 and Default. The lab's input_desktop.txt holds the name of the desktop
// that has the input (else Default); if no_user.txt exists, no user is attached. Each call reads
// them. A handle is a number, as on Windows small and never used twice.
#include "platform/desktop.h"

#include <pwd.h>
#include <strings.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/thread.h"

namespace platform {

namespace {

constexpr char kStationName[] = "WinSta0";
constexpr char kDefaultDesktop[] = "Default";
constexpr const char* kDesktops[] = {kDefaultDesktop, "Winlogon", "Screen-saver"};
constexpr std::uint8_t kUserSid[12] = {1, 1, 0,  0, 0, 0,
                                       0, 5, 18, 0, 0, 0};  // S-1-5-18, LocalSystem

enum class Kind { kStation, kDesktop };

struct Object {
  Kind kind;
  std::string name;
};

// The handles of this process, and the desktop of each thread.
struct Table {
  std::mutex lock;  // guards all below; held for a few instructions
  std::uintptr_t lastHandle = 0x40;
  std::map<std::uintptr_t, Object> objects;
  std::uintptr_t processStation;
  std::uintptr_t firstDesktop;  // of threads that have set none
  std::map<std::uint32_t, std::uintptr_t> threadDesktops;

  Table()
      : processStation(Add({Kind::kStation, kStationName})),
        firstDesktop(Add({Kind::kDesktop, kDefaultDesktop})) {}

  std::uintptr_t Add(Object object) {
    lastHandle += 4;
    objects.emplace(lastHandle, std::move(object));
    return lastHandle;
  }
  bool Holds(std::uintptr_t handle, Kind kind) const {
    const auto found = objects.find(handle);
    return found != objects.end() && found->second.kind == kind;
  }
  bool IsInUse(std::uintptr_t handle) const {
    return handle == processStation || handle == firstDesktop ||
           std::any_of(threadDesktops.begin(), threadDesktops.end(),
                       [handle](const auto& row) { return row.second == handle; });
  }
};

Table& TheTable() {
  static ProcessLifetime<Table> table;
  return *table;
}

// Removes a thread's row when it exits: the kernel may reuse its number.
struct RowOfThread {
  ~RowOfThread() {
    Table& table = TheTable();
    const std::lock_guard guard(table.lock);
    table.threadDesktops.erase(GetCurrentThreadId());
  }
};

std::uintptr_t Number(UserObject object) { return reinterpret_cast<std::uintptr_t>(object); }
UserObject Handle(std::uintptr_t number) { return reinterpret_cast<UserObject>(number); }

// Like Windows' names, they are compared without case.
bool SameName(const std::string& a, const char* b) { return ::strcasecmp(a.c_str(), b) == 0; }

UserObject Open(Kind kind, const std::string& name) {
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  return Handle(table.Add({kind, name}));
}

DesktopHandle OpenKnownDesktop(const char* name) {
  for (const char* known : kDesktops)
    if (SameName(known, name)) return Open(Kind::kDesktop, known);
  return Fail(kErrorFileNotFound, nullptr);
}

bool Close(Kind kind, UserObject object) {
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  if (!table.Holds(Number(object), kind)) return Fail(kErrorInvalidHandle);
  if (table.IsInUse(Number(object))) return Fail(kErrorBusy);
  table.objects.erase(Number(object));
  return true;
}

// Returns the bytes of the information with that index.
std::string InformationOf(const Object& object, int index) {
  if (index == kUoiName) return object.name + '\0';
  if (std::ifstream(LabPath("no_user.txt"))) return {};
  return {reinterpret_cast<const char*>(kUserSid), sizeof kUserSid};
}

}  // namespace

// Returns the kernel's release as the version of an NT.
bool GetVersionExA(WindowsVersion* version) {
  if (gate::Fails("GetVersionExA")) return false;
  utsname system{};
  ::uname(&system);
  *version = {kPlatformWinNt, 0, 0};
  std::sscanf(system.release, "%u.%u", &version->major, &version->minor);
  return true;
}

WindowStationHandle GetProcessWindowStation() {
  if (gate::Fails("GetProcessWindowStation")) return nullptr;
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  return Handle(table.processStation);
}

DesktopHandle GetThreadDesktop(std::uint32_t threadId) {
  if (gate::Fails("GetThreadDesktop")) return nullptr;
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  const auto chosen = table.threadDesktops.find(threadId);
  return Handle(chosen != table.threadDesktops.end() ? chosen->second : table.firstDesktop);
}

WindowStationHandle OpenWindowStationA(const char* name, std::uint32_t access) {
  if (gate::Fails("OpenWindowStationA", "%s,0x%x", name, access)) return nullptr;
  if (!SameName(kStationName, name)) return Fail(kErrorFileNotFound, nullptr);
  return Open(Kind::kStation, kStationName);
}

bool SetProcessWindowStation(WindowStationHandle station) {
  if (gate::Fails("SetProcessWindowStation")) return false;
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  if (!table.Holds(Number(station), Kind::kStation)) return Fail(kErrorInvalidHandle);
  table.processStation = Number(station);
  return true;
}

bool CloseWindowStation(WindowStationHandle station) {
  return !gate::Fails("CloseWindowStation") && Close(Kind::kStation, station);
}

DesktopHandle OpenInputDesktop(std::uint32_t access) {
  if (gate::Fails("OpenInputDesktop", "0x%x", access)) return nullptr;
  std::string name = kDefaultDesktop;
  std::ifstream(LabPath("input_desktop.txt")) >> name;
  return OpenKnownDesktop(name.c_str());
}

DesktopHandle OpenDesktopA(const char* name, std::uint32_t access) {
  if (gate::Fails("OpenDesktopA", "%s,0x%x", name, access)) return nullptr;
  return OpenKnownDesktop(name);
}

bool SetThreadDesktop(DesktopHandle desktop) {
  if (gate::Fails("SetThreadDesktop")) return false;
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  if (!table.Holds(Number(desktop), Kind::kDesktop)) return Fail(kErrorInvalidHandle);
  thread_local const RowOfThread row;
  table.threadDesktops[GetCurrentThreadId()] = Number(desktop);
  return true;
}

bool CloseDesktop(DesktopHandle desktop) {
  return !gate::Fails("CloseDesktop") && Close(Kind::kDesktop, desktop);
}

bool GetUserObjectInformationA(UserObject object, int index, void* buffer, std::uint32_t size,
                               std::uint32_t* needed) {
  *needed = 0;
  if (gate::Fails("GetUserObjectInformationA", "%d", index)) return false;
  Table& table = TheTable();
  const std::lock_guard guard(table.lock);
  const auto found = table.objects.find(Number(object));
  if (found == table.objects.end()) return Fail(kErrorInvalidHandle);
  const std::string bytes = InformationOf(found->second, index);
  *needed = static_cast<std::uint32_t>(bytes.size());
  if (size < bytes.size()) return Fail(kErrorInsufficientBuffer);
  if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
  return true;
}

bool GetUserNameA(char* name, std::uint32_t* size) {
  if (gate::Fails("GetUserNameA")) return false;
  passwd entry{};
  char texts[1024];
  passwd* user = nullptr;
  ::getpwuid_r(::geteuid(), &entry, texts, sizeof texts, &user);  // null without a row
  const std::string text = user != nullptr ? user->pw_name : std::to_string(::geteuid());
  const auto needed = static_cast<std::uint32_t>(text.size() + 1);
  const bool fits = needed <= *size;
  *size = needed;
  if (!fits) return Fail(kErrorInsufficientBuffer);
  std::memcpy(name, text.c_str(), needed);
  return true;
}

}  // namespace platform
