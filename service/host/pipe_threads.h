// The threads that answer the tray and the software upgrade tool. Their tables of commands stand
// here because the host alone knows all rooms that the answers come from.
#pragma once

#include <cstdint>

namespace stewardry {

// Thread entries, one for each pipe: \\.\pipe\TrayPipe with the commands 1 to 11,
// \\.\pipe\SoftwareUpgradePipe with 6, \\.\pipe\ServiceToTrayUI with 20. The parameter isn't used.
// They serve until the process ends; see ServeQuestions for the one way in which they return.
std::uint32_t TrayPipeThread(void* parameter);
std::uint32_t SoftwareUpgradePipeThread(void* parameter);
std::uint32_t ServiceToTrayUIThread(void* parameter);

}  // namespace stewardry
