// The program of the relay's ends: a client, a far end for bytes, a far end behind a mailbox.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/relay/ends.h"

namespace {

// The port of "PORT" or "127.0.0.1:PORT"; 0 for another host or no number.
std::uint16_t PortOf(const std::string& text) {
  const std::string host = "127.0.0.1:";
  const std::string port = text.rfind(host, 0) == 0 ? text.substr(host.size()) : text;
  return static_cast<std::uint16_t>(std::strtoul(port.c_str(), nullptr, 10));
}

int Usage() {
  std::fputs(
      "relay_ends client 127.0.0.1:PORT tput|rtt|chunk|down N\n"
      "relay_ends server PORT UNIXPATH\n"
      "relay_ends firmware UNIXPATH [noinput]\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  const std::string role = argc > 1 ? argv[1] : "";
  if (role == "client" && argc == 5)
    return relay::RunClient(PortOf(argv[2]), argv[3], std::strtoull(argv[4], nullptr, 10));
  if (role == "server" && argc == 4) return relay::RunServer(PortOf(argv[2]), argv[3]);
  if (role == "firmware" && (argc == 3 || (argc == 4 && std::strcmp(argv[3], "noinput") == 0)))
    return relay::RunFirmware(argv[2], argc == 3);
  return Usage();
}
