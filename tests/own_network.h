// A network namespace for the test process, so that the service's real ports are free and invisible
// to other processes. Call before any other thread exists.
#pragma once

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

// Enters a new namespace with its loopback interface up. Returns false if this user may not create
// one.
inline bool EnterOwnNetwork() {
  if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  const int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  const bool up = ::ioctl(sock, SIOCSIFFLAGS, &request) == 0;
  ::close(sock);
  return up;
}
