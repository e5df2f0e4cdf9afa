// The firmware's vocabulary in one table, and the other places where rooms that don't know each
// other are joined. The host composes them, because it alone knows all rooms.
#pragma once

namespace stewardry {

// Hands the command table to the dispatcher and the listen callbacks to the listeners. Before the
// service's threads start.
void ComposeService();

}  // namespace stewardry
