// The threads that answer the tray and the software upgrade tool. The command tables are in the
// host because the answers come from several rooms.
#pragma once

#include <cstdint>

namespace stewardry {

// Thread entries, one for each pipe: \\.\pipe\TrayPipe with the commands 1 to 11,
// \\.\pipe\SoftwareUpgradePipe with 6, \\.\pipe\ServiceToTrayUI with 20. The parameter isn't used.
// They serve until the process ends, unless ServeQuestions fails.
std::uint32_t TrayPipeThread(void* parameter);
std::uint32_t SoftwareUpgradePipeThread(void* parameter);
std::uint32_t ServiceToTrayUIThread(void* parameter);

}  // namespace stewardry
