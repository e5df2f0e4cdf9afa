// Registration with the service manager: the command line's word "install".
#pragma once

namespace stewardry {

// Registers the running executable as an automatically started service with its own process, after
// the TCP/IP stack and the mailbox driver. Prints each step on standard output and ends at the
// first failure; a failure of the description alone keeps the service.
void SvcInstall();

}  // namespace stewardry
