// The tables that join rooms which don't include each other: the firmware's commands with their
// handlers, the ports with their callbacks.
#pragma once

namespace stewardry {

// Passes the command table to the dispatcher and the listen callbacks to the listeners. Requires
// that the service's threads have not started.
void ComposeService();

}  // namespace stewardry
