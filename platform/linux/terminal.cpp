#include "platform/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace platform {

bool PrepareTerminal() {
  const char* const kind = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

int TerminalColumns() {
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace platform
