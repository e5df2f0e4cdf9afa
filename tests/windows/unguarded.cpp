// A program without the service's guard, to see that a planted DLL is loaded where nothing stands
// against it: wlanapi.dll is in its import table, and every DLL that its arguments name is loaded
// by that name.
#include <winsock2.h>
// These need winsock2.h.
#include <windows.h>
#include <wlanapi.h>

int main(int argc, char** argv) {
  if (argc == 0) ::WlanFreeMemory(nullptr);  // never; it is there to be imported
  for (int i = 1; i < argc; ++i)
    (void)::LoadLibraryA(argv[i]);  // what came of it shows on the disk
}
