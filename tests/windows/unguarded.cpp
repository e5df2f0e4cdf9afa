// A program without the service's guard against planted DLLs: it imports wlanapi.dll and loads each
// DLL that its arguments name.
#include <winsock2.h>
// These need winsock2.h.
#include <windows.h>
#include <wlanapi.h>

int main(int argc, char** argv) {
  if (argc == 0) ::WlanFreeMemory(nullptr);                      // never called; makes the import
  for (int i = 1; i < argc; ++i) (void)::LoadLibraryA(argv[i]);  // a planted DLL creates its file
}
