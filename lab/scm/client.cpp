#include "lab/scm/client.h"

#include <cstdio>
#include <fstream>
#include <string_view>

#include "lab/local/line_stream.h"
#include "lab/local/local_socket.h"
#include "lab/scm/controls.h"

namespace scm {
namespace {

constexpr std::string_view kExit = "EXIT ";

}  // namespace

std::string SocketPath() { return lab::LabFolder() + "/scm"; }

std::string InstalledProgram() {
  constexpr std::string_view kKey = "binaryPath=";
  std::ifstream file(lab::LabFolder() + "/services/QuillonSvc");
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(kKey)) continue;
    std::string path = line.substr(kKey.size());
    // A path with blanks is registered in quotes.
    if (path.size() > 1 && path.front() == '"' && path.back() == '"') {
      path = path.substr(1, path.size() - 2);
    }
    return path;
  }
  return {};
}

int Ask(const std::string& socketPath, const std::vector<std::string>& words) {
  lab::Descriptor socket = lab::ConnectLocal(socketPath);
  if (!socket) {
    std::printf("error %u: the service has not been started (no manager at %s)\n",
                kErrorServiceNotActive, socketPath.c_str());
    return 1;
  }
  LineStream stream(std::move(socket));
  std::string command;
  for (const std::string& word : words) command += (command.empty() ? "" : " ") + word;
  stream.Send("CLIENT");
  stream.Send(command);
  if (!stream.Flush()) return 1;
  while (true) {
    while (const auto line = stream.Line()) {
      if (line->starts_with(kExit)) return *line == "EXIT 0" ? 0 : 1;
      std::printf("%s\n", line->c_str());
      std::fflush(stdout);  // a pipe sees the result before the stop is over
    }
    if (stream.Read()) continue;
    std::puts("the manager has gone");
    return 1;
  }
}

}  // namespace scm
