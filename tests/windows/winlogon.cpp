// A process of this name and nothing more: Wine has no winlogon.exe of its own, and the agent is
// started with that one's token.
#include <windows.h>

int main() { Sleep(INFINITE); }
