// Standard output as a terminal. The calls may come from one thread, before others write to it.
#pragma once

namespace platform {

// Makes standard output take UTF-8 and, if it is a terminal, escape sequences (Windows: the code
// page of the console and virtual terminal processing). Returns whether it is a terminal that shows
// colours.
bool PrepareTerminal();

// Returns the width of the terminal in columns, 0 if standard output is none.
int TerminalColumns();

}  // namespace platform
