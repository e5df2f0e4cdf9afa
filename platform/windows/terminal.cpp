#include "platform/terminal.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

bool PrepareTerminal() {
  ::SetConsoleOutputCP(CP_UTF8);
  const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  return ::GetConsoleMode(output, &mode) &&
         ::SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

int TerminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (!::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &info)) return 0;
  return info.srWindow.Right - info.srWindow.Left + 1;
}

}  // namespace platform
