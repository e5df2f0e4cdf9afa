// Registration with the service manager, run by the word `install` on the command line.
#pragma once

namespace stewardry {

// Registers the running executable as an automatically started service of its own process, after
// the TCP/IP stack and the mailbox driver. Prints what it does on standard output and ends at the
// first failure, with nothing left behind but, if only the description failed, the service.
void SvcInstall();

}  // namespace stewardry
