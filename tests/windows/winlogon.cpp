// A process with the name winlogon.exe, which Wine lacks. The agent is started with its token.
#include <windows.h>

int main() { Sleep(INFINITE); }
