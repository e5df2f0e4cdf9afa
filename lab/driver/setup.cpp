// tavrin_setup: installs and removes the mailbox driver of a test machine, shows its state, and
// makes it misbehave. Requires an administrator.
#include <windows.h>
// These need windows.h.
#include <newdev.h>
#include <setupapi.h>
#include <winioctl.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "lab/driver/lab_control.h"

namespace {

constexpr char kHardwareId[] = "ROOT\\TAVRIN";
constexpr char kDeviceName[] = "TAVRIN";
constexpr char kServiceName[] = "Tavrin-MailBoxDrv";
constexpr char kInf[] = "tavrin_mailbox.inf";
constexpr char kBinary[] = "tavrin_mailbox.sys";
// GUID_DEVCLASS_SYSTEM, the class that the INF names.
constexpr GUID kSystemClass = {
    0x4D36E97D, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

enum Exit { kDone = 0, kFailed = 1, kUsage = 2 };

int Fail(const char* what) {
  std::printf("%s failed with error %lu\n", what, GetLastError());
  return kFailed;
}

struct CloseSet {
  void operator()(void* set) const { SetupDiDestroyDeviceInfoList(set); }
};
using DeviceSet = std::unique_ptr<void, CloseSet>;

DeviceSet Own(HDEVINFO set) { return DeviceSet(set == INVALID_HANDLE_VALUE ? nullptr : set); }

struct CloseObject {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Object = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseObject>;

struct CloseService {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using Service = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseService>;

bool HasHardwareId(HDEVINFO set, SP_DEVINFO_DATA* device) {
  char ids[512] = {};
  return SetupDiGetDeviceRegistryPropertyA(set, device, SPDRP_HARDWAREID, nullptr,
                                           reinterpret_cast<BYTE*>(ids), sizeof ids - 2, nullptr) &&
         _stricmp(ids, kHardwareId) == 0;
}

// Finds the mailbox among the root-enumerated devices, absent ones included.
bool FindDevice(DeviceSet* set, SP_DEVINFO_DATA* device) {
  *set = Own(SetupDiGetClassDevsA(nullptr, "ROOT", nullptr, DIGCF_ALLCLASSES));
  if (!*set) return false;
  for (DWORD i = 0;; ++i) {
    *device = {};
    device->cbSize = sizeof *device;
    if (!SetupDiEnumDeviceInfo(set->get(), i, device)) return false;
    if (HasHardwareId(set->get(), device)) return true;
  }
}

// Creates the device node ROOT\TAVRIN\0000.
int RegisterDevice() {
  const DeviceSet set = Own(SetupDiCreateDeviceInfoList(&kSystemClass, nullptr));
  if (!set) return Fail("SetupDiCreateDeviceInfoList");
  SP_DEVINFO_DATA device{};
  device.cbSize = sizeof device;
  if (!SetupDiCreateDeviceInfoA(set.get(), kDeviceName, &kSystemClass, nullptr, nullptr,
                                DICD_GENERATE_ID, &device))
    return Fail("SetupDiCreateDeviceInfo");
  std::array<BYTE, sizeof kHardwareId + 1> ids{};  // a list of texts ends with an empty text
  std::memcpy(ids.data(), kHardwareId, sizeof kHardwareId);
  if (!SetupDiSetDeviceRegistryPropertyA(set.get(), &device, SPDRP_HARDWAREID, ids.data(),
                                         static_cast<DWORD>(ids.size())))
    return Fail("SetupDiSetDeviceRegistryProperty");
  if (!SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set.get(), &device))
    return Fail("DIF_REGISTERDEVICE");
  return kDone;
}

std::string FolderOfThisProgram() {
  char path[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, path, sizeof path - 1);
  const std::string text = path;
  return text.substr(0, text.find_last_of('\\'));
}

int Install(const std::string& folder) {
  DeviceSet set;
  SP_DEVINFO_DATA device;
  if (FindDevice(&set, &device)) {
    std::printf("already installed\n");
    return kDone;
  }
  const std::string inf = folder + "\\" + kInf;
  char full[MAX_PATH] = {};
  if (GetFullPathNameA(inf.c_str(), sizeof full, full, nullptr) == 0 ||
      GetFileAttributesA(full) == INVALID_FILE_ATTRIBUTES)
    return Fail(inf.c_str());
  if (const int result = RegisterDevice(); result != kDone) return result;
  BOOL reboot = FALSE;
  if (!UpdateDriverForPlugAndPlayDevicesA(nullptr, kHardwareId, full, INSTALLFLAG_FORCE, &reboot))
    return Fail("UpdateDriverForPlugAndPlayDevices");
  std::printf("installed%s\n", reboot ? "; Windows must be restarted" : "");
  return kDone;
}

// Removes what an uninstalled device leaves behind: the service entry and the driver's file.
void RemoveService() {
  const Service manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  const Service service(manager ? OpenServiceA(manager.get(), kServiceName, SERVICE_ALL_ACCESS)
                                : nullptr);
  if (!service) return;
  SERVICE_STATUS status;
  (void)ControlService(service.get(), SERVICE_CONTROL_STOP, &status);  // stopped with the device
  (void)DeleteService(service.get());
  char system[MAX_PATH] = {};
  GetSystemDirectoryA(system, sizeof system);
  (void)DeleteFileA((std::string(system) + "\\drivers\\" + kBinary).c_str());
}

int Remove() {
  DeviceSet set;
  SP_DEVINFO_DATA device;
  if (!FindDevice(&set, &device)) {
    std::printf("not installed\n");
    return kFailed;
  }
  if (!SetupDiCallClassInstaller(DIF_REMOVE, set.get(), &device)) return Fail("DIF_REMOVE");
  RemoveService();
  std::printf("removed\n");
  return kDone;
}

Object OpenLab() {
  const HANDLE raw = CreateFileA(TAVRIN_LAB_PATH, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
  return Object(raw == INVALID_HANDLE_VALUE ? nullptr : raw);
}

constexpr const char* kModeNames[] = {"none", "at-once", "fail", "gone"};

int Status() {
  const Object lab = OpenLab();
  if (!lab) return Fail("opening " TAVRIN_LAB_PATH);
  TavrinStatus status{};
  DWORD bytes = 0;
  if (!DeviceIoControl(lab.get(), IOCTL_TAVRIN_STATUS, nullptr, 0, &status, sizeof status, &bytes,
                       nullptr))
    return Fail("IOCTL_TAVRIN_STATUS");
  std::printf("misbehave %s, handles %lu, reads %lu, requests %lu, bridge %s\n",
              status.mode <= kTavrinGone ? kModeNames[status.mode] : "?", status.handles,
              status.reads, status.requests, status.hasBridge ? "yes" : "no");
  return kDone;
}

int Misbehave(const TavrinMisbehaviour& wanted) {
  const Object lab = OpenLab();
  if (!lab) return Fail("opening " TAVRIN_LAB_PATH);
  DWORD bytes = 0;
  TavrinMisbehaviour record = wanted;
  if (!DeviceIoControl(lab.get(), IOCTL_TAVRIN_MISBEHAVE, &record, sizeof record, nullptr, 0,
                       &bytes, nullptr))
    return Fail("IOCTL_TAVRIN_MISBEHAVE");
  std::printf("misbehave %s\n", kModeNames[wanted.mode]);
  return kDone;
}

int Usage() {
  std::printf(
      "usage: tavrin_setup install [FOLDER] | remove | status\n"
      "       tavrin_setup misbehave none | at-once | fail ERROR | gone | back\n");
  return kUsage;
}

int MisbehaveAs(int count, char** words) {
  if (count < 1) return Usage();
  const std::string word = words[0];
  if (word == "back" && count == 1) return Misbehave({kTavrinBehave, 0});
  for (unsigned long mode = 0; mode < std::size(kModeNames); ++mode) {
    if (word != kModeNames[mode]) continue;
    if (count != (mode == kTavrinFail ? 2 : 1)) return Usage();
    return Misbehave({mode, mode == kTavrinFail ? std::strtoul(words[1], nullptr, 10) : 0});
  }
  return Usage();
}

}  // namespace

int main(int count, char** words) {
  const std::string command = count > 1 ? words[1] : "";
  if (command == "install" && count <= 3)
    return Install(count == 3 ? words[2] : FolderOfThisProgram());
  if (command == "remove" && count == 2) return Remove();
  if (command == "status" && count == 2) return Status();
  if (command == "misbehave") return MisbehaveAs(count - 2, words + 2);
  return Usage();
}
