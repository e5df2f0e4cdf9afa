// A DLL to plant under another's name. Once loaded, it creates an empty file with its own name and
// ".loaded". It must not import a DLL that could be planted itself.
#include <windows.h>

#include <cstring>

extern "C" BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, void*) {
  char path[MAX_PATH + 8] = "";
  if (reason != DLL_PROCESS_ATTACH || ::GetModuleFileNameA(self, path, MAX_PATH) == 0) return TRUE;
  std::strcat(path, ".loaded");
  const HANDLE mark = ::CreateFileA(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (mark != INVALID_HANDLE_VALUE) ::CloseHandle(mark);
  return TRUE;
}
