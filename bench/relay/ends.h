// The relay's two ends: one client, and a far end in two forms, for peers that relay bytes and for
// the service, which relays to a mailbox. Both forms do the same work for the same stream.
#pragma once

#include <cstdint>
#include <string>

namespace relay {

// Runs one measurement against 127.0.0.1:port and prints its numbers as words on one line. `mode`
// is "tput" (N bytes), "rtt" (N rounds of 64 bytes), "chunk" (N rounds of 128 KiB) or "down" (N
// times 64 bytes that ask for 1 MiB, as a viewer asks for a picture); the first tenth of the rounds
// isn't counted. An exit code: 1 when the stream broke, 2 for another mode.
int RunClient(std::uint16_t port, const std::string& mode, std::uint64_t n);

// Serves the stream on a TCP port and a Unix socket, each connection on a thread. Doesn't return
// unless it can't listen.
int RunServer(std::uint16_t port, const std::string& unixPath);

// Serves the stream behind a mailbox: listens on the Unix socket for one mailbox end at a time,
// answers its requests and takes the bytes of WriteDASHPacket and of WriteKVMPacket for a stream
// each. It keeps KVM enabled; with `withInput` it gives each KVM session a region, whose rings stay
// empty. Doesn't return unless it can't listen.
int RunFirmware(const std::string& unixPath, bool withInput);

}  // namespace relay
