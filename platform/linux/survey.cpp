// The lab's service manager answers over its socket (lab/scm), everything else stands in files of
// the lab folder and under /proc. Sockets are those of the caller's network namespace.
#include "platform/survey.h"

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/service_manager.h"
#include "text/letter_case.h"

namespace platform {

namespace {

using stewardry::EqualIgnoringCase;

std::vector<std::string> LinesOf(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
  while (const dirent* entry = dir ? ::readdir(dir.get()) : nullptr)
    names.emplace_back(entry->d_name);
  return names;
}

std::uint32_t NumberOf(std::string_view text) {
  std::uint32_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

struct StateName {
  std::string_view name;
  std::uint32_t state;
};
constexpr StateName kStateNames[] = {{"SERVICE_STOPPED", kServiceStopped},
                                     {"SERVICE_START_PENDING", kServiceStartPending},
                                     {"SERVICE_STOP_PENDING", kServiceStopPending},
                                     {"SERVICE_RUNNING", kServiceRunning}};

// The manager's answer to "status"; empty if none runs.
std::string AskManager() {
  const Descriptor manager(ConnectLabSocket(LabPath("scm")));
  if (!manager) return {};
  constexpr std::string_view kQuestion = "CLIENT\nstatus\n";
  if (::send(manager.Value(), kQuestion.data(), kQuestion.size(), MSG_NOSIGNAL) < 0) return {};
  std::string answer;
  char part[512];
  while (answer.find("\nEXIT ") == std::string::npos) {
    const ssize_t n = ::recv(manager.Value(), part, sizeof part, 0);
    if (n <= 0) break;
    answer.append(part, static_cast<std::size_t>(n));
  }
  return answer;
}

// The owners of sockets, by inode. Those of other users are seen by root only.
std::map<std::string, std::uint32_t> SocketOwners() {
  std::map<std::string, std::uint32_t> owners;
  for (const std::string& name : NamesIn("/proc")) {
    const std::uint32_t process = NumberOf(name);
    if (process == 0) continue;
    const std::string folder = "/proc/" + name + "/fd/";
    for (const std::string& file : NamesIn(folder)) {
      char target[64];
      const ssize_t n = ::readlink((folder + file).c_str(), target, sizeof target);
      const std::string_view link(target, n > 0 ? static_cast<std::size_t>(n) : 0);
      if (link.starts_with("socket:[")) owners.emplace(link.substr(8, link.size() - 9), process);
    }
  }
  return owners;
}

}  // namespace

bool ViewService(const char* name, ServiceView* view) {
  if (gate::Fails("QueryServiceStatusEx", "%s", name)) return false;
  *view = {};
  view->state = kServiceStopped;
  const std::vector<std::string> registered = LinesOf(LabPath("services/") + name);
  if (registered.empty()) return Fail(kErrorServiceDoesNotExist);
  constexpr std::string_view kPath = "binaryPath=";
  for (const std::string& line : registered) {
    if (line.starts_with(kPath)) view->binaryPath = line.substr(kPath.size());
  }
  const std::string answer = AskManager();
  if (!answer.starts_with(std::string(name) + ", process ")) return true;
  view->processId = NumberOf(std::string_view(answer).substr(std::strlen(name) + 10));
  for (const StateName& known : kStateNames) {
    if (answer.find("status: " + std::string(known.name) + ",") != std::string::npos)
      view->state = known.state;
  }
  return true;
}

bool ViewServiceRegistration(const char* name, std::vector<NamedText>* values) {
  if (gate::Fails("RegEnumValueA", "%s", name)) return false;
  values->clear();
  for (const std::string& line : LinesOf(LabPath("services/") + name)) {
    const std::size_t equals = std::min(line.find('='), line.size());
    values->push_back({line.substr(0, equals), line.substr(std::min(equals + 1, line.size()))});
  }
  return !values->empty() || Fail(kErrorServiceDoesNotExist);
}

bool ViewSockets(const std::vector<std::uint16_t>& localPorts, std::vector<SocketView>* sockets) {
  if (gate::Fails("GetExtendedTcpTable")) return false;
  sockets->clear();
  const std::vector<std::string> lines = LinesOf("/proc/net/tcp");
  if (lines.empty()) return Fail(kErrorAccessDenied);
  constexpr unsigned kListen = 10, kEstablished = 1;  // TCP_LISTEN, TCP_ESTABLISHED
  std::map<std::string, std::uint32_t> owners;
  for (const std::string& line : lines) {
    unsigned local = 0, localPort = 0, remote = 0, remotePort = 0, state = 0;
    char inode[24] = "";
    if (std::sscanf(line.c_str(), "%*d: %8x:%4x %8x:%4x %2x %*s %*s %*s %*s %*s %23s", &local,
                    &localPort, &remote, &remotePort, &state, inode) != 6 ||
        (state != kListen && state != kEstablished))
      continue;
    const auto port = static_cast<std::uint16_t>(localPort);
    if (std::find(localPorts.begin(), localPorts.end(), port) == localPorts.end()) continue;
    if (owners.empty()) owners = SocketOwners();
    const auto owner = owners.find(inode);
    sockets->push_back({state == kListen, local, port, remote,
                        static_cast<std::uint16_t>(remotePort),
                        owner != owners.end() ? owner->second : 0});
  }
  return true;
}

bool ViewProcess(std::uint32_t processId, ProcessView* view) {
  if (gate::Fails("QueryFullProcessImageNameA", "%u", processId)) return false;
  const std::string folder = "/proc/" + std::to_string(processId);
  const std::vector<std::string> stat = LinesOf(folder + "/stat");
  if (stat.empty()) return Fail(kErrorNotFound);
  // "id (name) state ...": the name may contain blanks and brackets; field 22 is the start in
  // ticks.
  const std::size_t open = stat[0].find('('), close = stat[0].rfind(')');
  if (open == std::string::npos || close == std::string::npos) return Fail(kErrorNotFound);
  *view = {processId, stat[0].substr(open + 1, close - open - 1), 0};
  std::istringstream fields(stat[0].substr(close + 1));
  std::string field;
  for (int i = 3; i <= 22; ++i) fields >> field;
  for (const std::string& line : LinesOf("/proc/stat")) {
    constexpr std::string_view kBoot = "btime ";
    if (!line.starts_with(kBoot)) continue;
    const long ticks = ::sysconf(_SC_CLK_TCK);
    view->started = std::stoll(line.substr(kBoot.size())) + std::atoll(field.c_str()) / ticks;
  }
  return true;
}

namespace {

// Whether a process belongs to the caller's lab: several labs may run on one machine.
bool IsOfThisLab(std::uint32_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/environ");
  for (std::string variable; std::getline(file, variable, '\0');) {
    constexpr std::string_view kLab = "STEWARDRY_LAB=";
    if (variable.starts_with(kLab)) return variable.substr(kLab.size()) == LabFolder();
  }
  return std::getenv("STEWARDRY_LAB") == nullptr;
}

}  // namespace

bool FindProcesses(const char* name, std::vector<ProcessView>* processes) {
  if (gate::Fails("Process32First", "%s", name)) return false;
  processes->clear();
  for (const std::string& entry : NamesIn("/proc")) {
    ProcessView view;
    const std::uint32_t process = NumberOf(entry);
    if (process != 0 && ViewProcess(process, &view) && EqualIgnoringCase(view.name, name) &&
        IsOfThisLab(process))
      processes->push_back(view);
  }
  return true;
}

bool ViewEvents(const char* source, std::size_t most, std::vector<EventView>* events) {
  if (gate::Fails("ReadEventLogA", "%s", source)) return false;
  events->clear();
  std::vector<std::string> lines = LinesOf(LabPath("eventlog.txt"));
  std::reverse(lines.begin(), lines.end());
  for (const std::string& line : lines) {
    if (events->size() == most) break;
    unsigned type = 0, id = 0;
    const std::string head = std::string(source) + " type=";
    if (!line.starts_with(head) ||
        std::sscanf(line.c_str() + head.size(), "%u id=0x%x", &type, &id) != 2)
      continue;
    EventView& event = events->emplace_back();
    event.type = static_cast<std::uint16_t>(type);
    event.id = id;
    for (std::size_t at = line.find(" ["); at != std::string::npos; at = line.find(" [", at + 2))
      event.strings.push_back(line.substr(at + 2, line.find(']', at) - at - 2));
  }
  return true;
}

}  // namespace platform
