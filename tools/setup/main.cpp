// stewardry-setup: the steps of an installation that the tables of Windows Installer do not express
// or, as Microsoft's documentation says of failure actions, do not carry out. The package runs it
// with the rights of the system; its exit code decides whether the installation goes on.
//
//   apply PROGRAM REMOTEIP   sets the service's policy, makes the log folder, opens the firewall
//   start                    starts the service
//   remove                   closes the firewall
//   purge                    deletes the log folder
//
// Each may be repeated, and undoes what an earlier one has left.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/private_folder.h"
#include "platform/process.h"
#include "platform/setup_actions.h"
#include "service/diagnostics/deaf_entry.h"
#include "service/diagnostics/log_file.h"
#include "text/letter_case.h"

namespace stewardry::setup {

namespace {

constexpr int kDone = 0, kFailed = 1;

// Of the rights of the local system account, those that the service uses.
constexpr const char* kPrivileges[] = {
    "SeTcbPrivilege",                 // the KVM agent's token gets the console's session
    "SeAssignPrimaryTokenPrivilege",  // the agent starts with that token
    "SeIncreaseQuotaPrivilege",       // the same call asks for it
    "SeShutdownPrivilege",            // power commands
    "SeChangeNotifyPrivilege",        // every path below a folder without access, as for all users
};
constexpr platform::ServicePolicy kPolicy = {
    nullptr,  // set from the command line
    5'000,    // long enough for a port or a device to come back
    86'400,   // a day
    2'000,    // the notice to the firmware takes milliseconds, its silence must not hold a shutdown
    kPrivileges};

struct Rule {
  const char* name;
  int port;
};
constexpr Rule kRules[] = {{"Stewardry DASH", 664}, {"Stewardry KVM", 22}};

int Fail(const char* what) {
  std::fprintf(stderr, "stewardry-setup: %s failed with error %u\n", what, platform::LastError());
  return kFailed;
}

// Whether a list holds nothing but addresses, ranges, subnets and the firewall's names for
// networks, as far as their letters show: a command line is made of it. netsh checks the rest.
bool IsAddressList(std::string_view list) {
  constexpr std::string_view kLetters = "0123456789abcdefABCDEF.:/-,";
  for (std::string_view rest = list; !rest.empty();) {
    const std::size_t end = std::min(rest.find(','), rest.size());
    const std::string_view item = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    const bool isName = EqualIgnoringCase(item, "any") || EqualIgnoringCase(item, "LocalSubnet");
    const bool hasDigit = item.find_first_of("0123456789") != std::string_view::npos;
    if (!isName && (!hasDigit || item.find_first_not_of(kLetters) != std::string_view::npos))
      return false;
  }
  return !list.empty() && !list.ends_with(',');
}

// A missing rule is no failure.
void CloseFirewall() {
  for (const Rule& rule : kRules) {
    const std::string command =
        std::string("netsh.exe advfirewall firewall delete rule name=\"") + rule.name + "\"";
    (void)platform::RunSystemProgram(command.c_str());
  }
}

// netsh is part of every Windows, and takes the lists that an administrator knows. A host whose
// firewall service is disabled has no rules to add: that is reported and no failure.
void OpenFirewall(const char* program, const char* remoteIp) {
  CloseFirewall();  // rules of one name add up
  for (const Rule& rule : kRules) {
    const std::string command =
        std::string("netsh.exe advfirewall firewall add rule name=\"") + rule.name +
        "\" dir=in action=allow protocol=TCP localport=" + std::to_string(rule.port) +
        " remoteip=" + remoteIp + " program=\"" + program + "\" enable=yes";
    if (!platform::RunSystemProgram(command.c_str())) Fail(rule.name);
  }
}

bool MakeLogFolder() {
  char base[platform::kMaxPath];
  if (!platform::GetCommonAppDataFolder(base)) return false;
  for (const char* name : {kCompanyFolder, kLogFolder}) {
    const std::string path = std::string(base) + name;
    if (platform::CreatePrivateFolder(path.c_str())) continue;
    // One that is not ours stays: the service renames it when it starts.
    if (platform::LastError() != platform::kErrorAlreadyExists) return false;
    (void)platform::ClaimPrivateFolder(path.c_str());
  }
  return true;
}

int Apply(const char* program, const char* remoteIp) {
  if (!IsAddressList(remoteIp)) {
    platform::SetLastError(platform::kErrorInvalidParameter);
    return Fail("REMOTEIP");
  }
  platform::ServicePolicy policy = kPolicy;
  policy.program = program;
  if (!platform::SetServicePolicy(kServiceName, policy)) return Fail("the service's policy");
  if (!MakeLogFolder()) return Fail("the log folder");
  OpenFirewall(program, remoteIp);
  return kDone;
}

int Remove() {
  CloseFirewall();
  return kDone;
}

int Start() { return platform::StartRegisteredService(kServiceName) ? kDone : Fail("the start"); }

int Purge() {
  char base[platform::kMaxPath];
  if (!platform::GetCommonAppDataFolder(base)) return Fail("the data folder");
  const std::string logs = std::string(base) + kLogFolder;
  return platform::RemoveFolder(logs.c_str()) ? kDone : Fail("the log folder");
}

}  // namespace

int Run(int count, char** words) {
  const std::string_view word = count > 1 ? words[1] : "";
  if (word == "apply" && count == 4) return Apply(words[2], words[3]);
  if (word == "start" && count == 2) return Start();
  if (word == "remove" && count == 2) return Remove();
  if (word == "purge" && count == 2) return Purge();
  std::fprintf(stderr, "stewardry-setup apply PROGRAM REMOTEIP | start | remove | purge\n");
  return kFailed;
}

}  // namespace stewardry::setup

int main(int count, char** words) { return stewardry::setup::Run(count, words); }
