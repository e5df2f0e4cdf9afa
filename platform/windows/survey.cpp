// Every handle is opened with the least rights that answer the question, so that most questions are
// answered for ordinary users too.
#include "platform/survey.h"

#include <algorithm>
#include <memory>
#include <type_traits>

#include "platform/error.h"
#include "platform/windows/runtime/owned_handles.h"
#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <iphlpapi.h>
#include <tlhelp32.h>

namespace platform {

namespace {

constexpr std::int64_t kFileTimeOf1970 = 116'444'736'000'000'000;  // in 100 ns since 1601

struct CloseKey {
  void operator()(HKEY key) const { ::RegCloseKey(key); }
};
using Key = std::unique_ptr<std::remove_pointer_t<HKEY>, CloseKey>;
struct CloseLog {
  void operator()(HANDLE log) const { ::CloseEventLog(log); }
};
using EventLog = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseLog>;

bool FailWith(DWORD error) {
  ::SetLastError(error);
  return false;
}

// Reads the registered command line; empty if it cannot be read.
std::string BinaryPathOf(SC_HANDLE service) {
  alignas(QUERY_SERVICE_CONFIGA) std::byte block[8192];  // the documented maximum
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(block);
  DWORD needed = 0;
  if (!::QueryServiceConfigA(service, config, sizeof block, &needed)) return {};
  return config->lpBinaryPathName != nullptr ? config->lpBinaryPathName : "";
}

std::string TextOfValue(DWORD type, const std::string& bytes) {
  const auto* const data = reinterpret_cast<const std::uint8_t*>(bytes.data());
  if (type == REG_DWORD && bytes.size() == 4)
    return std::to_string(data[0] | data[1] << 8 | data[2] << 16 | std::uint32_t{data[3]} << 24);
  if (type == REG_SZ || type == REG_EXPAND_SZ) return bytes.c_str();
  std::string text;
  if (type == REG_MULTI_SZ) {
    for (std::size_t at = 0; at < bytes.size() && bytes[at] != 0;) {
      const std::string item = bytes.c_str() + at;
      if (!text.empty()) text += ',';
      text += item;
      at += item.size() + 1;
    }
    return text;
  }
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char byte : bytes) {
    text += kDigits[static_cast<std::uint8_t>(byte) >> 4];
    text += kDigits[static_cast<std::uint8_t>(byte) & 15];
  }
  return text;
}

// Adds the values of a key and of the keys below it, whose names come before theirs.
LSTATUS AddValues(HKEY parent, const std::string& path, const std::string& prefix,
                  std::vector<NamedText>* values) {
  constexpr DWORD kLongestName = 16'384;  // of a value, documented
  constexpr DWORD kLongestValue = 65'536;
  HKEY opened = nullptr;
  const LSTATUS result = ::RegOpenKeyExA(parent, path.c_str(), 0, KEY_READ, &opened);
  if (result != ERROR_SUCCESS) return result;
  const Key key(opened);
  std::string name(kLongestName, '\0'), bytes;
  for (DWORD index = 0;; ++index) {
    DWORD nameSize = kLongestName, size = kLongestValue, type = 0;
    bytes.assign(kLongestValue + 2, '\0');
    const LSTATUS found = ::RegEnumValueA(opened, index, name.data(), &nameSize, nullptr, &type,
                                          reinterpret_cast<BYTE*>(bytes.data()), &size);
    if (found == ERROR_MORE_DATA) continue;
    if (found != ERROR_SUCCESS) break;
    bytes.resize(size);
    values->push_back({prefix + name.substr(0, nameSize), TextOfValue(type, bytes)});
  }
  for (DWORD index = 0;; ++index) {
    DWORD nameSize = kLongestName;
    if (::RegEnumKeyExA(opened, index, name.data(), &nameSize, nullptr, nullptr, nullptr,
                        nullptr) != ERROR_SUCCESS)
      break;
    const std::string below = name.substr(0, nameSize);
    (void)AddValues(opened, below, prefix + below + "\\",
                    values);  // one without access is left out
  }
  return ERROR_SUCCESS;
}

std::string NameOfPath(const std::string& path) { return path.substr(path.rfind('\\') + 1); }

}  // namespace

bool ViewService(const char* name, ServiceView* view) {
  *view = {};
  const ManagerHandle manager(::OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) return false;
  const ManagerHandle service(
      ::OpenServiceA(manager.get(), name, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
  if (!service) return false;
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                              reinterpret_cast<BYTE*>(&status), sizeof status, &needed))
    return false;
  view->state = status.dwCurrentState;
  view->processId = status.dwProcessId;
  view->exitCode = status.dwWin32ExitCode;
  view->binaryPath = BinaryPathOf(service.get());
  return true;
}

bool ViewServiceRegistration(const char* name, std::vector<NamedText>* values) {
  values->clear();
  const LSTATUS result = AddValues(
      HKEY_LOCAL_MACHINE, std::string("SYSTEM\\CurrentControlSet\\Services\\") + name, "", values);
  if (result == ERROR_SUCCESS) return true;
  return FailWith(result == ERROR_FILE_NOT_FOUND ? kErrorServiceDoesNotExist
                                                 : static_cast<DWORD>(result));
}

bool ViewSockets(const std::vector<std::uint16_t>& localPorts, std::vector<SocketView>* sockets) {
  sockets->clear();
  std::vector<std::byte> block;
  ULONG size = 65'536;
  DWORD result;
  do {  // the table may grow between two calls
    block.resize(size);
    result = ::GetExtendedTcpTable(block.data(), &size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0);
  } while (result == ERROR_INSUFFICIENT_BUFFER && size > block.size());
  if (result != NO_ERROR) return FailWith(result);
  const auto* const table = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID*>(block.data());
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const MIB_TCPROW_OWNER_PID& row = table->table[i];
    const bool isListening = row.dwState == MIB_TCP_STATE_LISTEN;
    const auto port = ::ntohs(static_cast<std::uint16_t>(row.dwLocalPort));
    if (std::find(localPorts.begin(), localPorts.end(), port) == localPorts.end()) continue;
    if (!isListening && row.dwState != MIB_TCP_STATE_ESTAB) continue;
    sockets->push_back({isListening, row.dwLocalAddr, port, row.dwRemoteAddr,
                        ::ntohs(static_cast<std::uint16_t>(row.dwRemotePort)), row.dwOwningPid});
  }
  return true;
}

bool ViewProcess(std::uint32_t processId, ProcessView* view) {
  const Object process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  if (!process) return false;
  char path[MAX_PATH * 4] = "";
  DWORD size = sizeof path;
  if (!::QueryFullProcessImageNameA(process.get(), 0, path, &size)) return false;
  FILETIME created{}, exited{}, kernel{}, user{};
  *view = {processId, NameOfPath(path), 0};
  if (::GetProcessTimes(process.get(), &created, &exited, &kernel, &user)) {
    const std::int64_t ticks = static_cast<std::int64_t>(
        static_cast<std::uint64_t>(created.dwHighDateTime) << 32 | created.dwLowDateTime);
    view->started = (ticks - kFileTimeOf1970) / 10'000'000;
  }
  return true;
}

bool FindProcesses(const char* name, std::vector<ProcessView>* processes) {
  processes->clear();
  const Object snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (snapshot.get() == INVALID_HANDLE_VALUE) return false;
  const std::string wanted = std::string(name) + ".exe";
  PROCESSENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL found = ::Process32First(snapshot.get(), &entry); found;
       found = ::Process32Next(snapshot.get(), &entry)) {
    if (::lstrcmpiA(entry.szExeFile, wanted.c_str()) != 0) continue;
    ProcessView view{entry.th32ProcessID, entry.szExeFile, 0};
    (void)ViewProcess(entry.th32ProcessID, &view);  // without the right its start stays unknown
    processes->push_back(view);
  }
  return true;
}

bool ViewEvents(const char* source, std::size_t most, std::vector<EventView>* events) {
  constexpr DWORD kMostBytes = 0x7FFFF;  // of one read, documented
  constexpr int kMostReads = 64;         // the newest 32 MiB of the log
  events->clear();
  const EventLog log(::OpenEventLogA(nullptr, "Application"));
  if (!log) return false;
  std::vector<std::byte> block(kMostBytes);
  for (int reads = 0; reads < kMostReads; ++reads) {
    DWORD read = 0, needed = 0;
    if (!::ReadEventLogA(log.get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0,
                         block.data(), kMostBytes, &read, &needed))
      return ::GetLastError() == ERROR_HANDLE_EOF;
    for (DWORD at = 0; at + sizeof(EVENTLOGRECORD) <= read;) {
      const auto* const record = reinterpret_cast<const EVENTLOGRECORD*>(&block[at]);
      if (record->Length < sizeof(EVENTLOGRECORD) || record->Length > read - at) break;
      const char* const end = reinterpret_cast<const char*>(record) + record->Length;
      const char* text = reinterpret_cast<const char*>(record + 1);
      const std::string from(text, std::find(text, end, '\0'));
      if (from == source) {
        EventView event{record->TimeGenerated, record->EventType, record->EventID, {}};
        text =
            reinterpret_cast<const char*>(record) + std::min(record->StringOffset, record->Length);
        for (WORD i = 0; i < record->NumStrings && text < end; ++i) {
          event.strings.emplace_back(text, std::find(text, end, '\0'));
          text += event.strings.back().size() + 1;
        }
        events->push_back(std::move(event));
        if (events->size() == most) return true;
      }
      at += record->Length;
    }
  }
  return true;
}

}  // namespace platform
