// A DLL as an intruder would plant it under the name of another: once loaded, it leaves an empty
// file behind, named after its own with ".loaded" at the end. It must not need any DLL that could
// be planted itself.
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
