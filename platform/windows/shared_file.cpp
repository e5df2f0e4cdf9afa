#include "platform/shared_file.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

namespace {

constexpr std::int64_t kFileTimeOf1970 = 116'444'736'000'000'000;  // in 100 ns since 1601

std::int64_t Joined(DWORD high, DWORD low) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(high) << 32 | low);
}

}  // namespace

void CloseSharedFile(RawHandle raw) { ::CloseHandle(raw); }

SharedFile OpenSharedFile(const char* path) {
  return SharedFile(::CreateFileA(path, GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool GetSharedFileState(const SharedFile& file, SharedFileState* state) {
  BY_HANDLE_FILE_INFORMATION seen;
  if (!::GetFileInformationByHandle(file.Raw(), &seen)) return false;
  const std::int64_t written =
      Joined(seen.ftLastWriteTime.dwHighDateTime, seen.ftLastWriteTime.dwLowDateTime);
  *state = {seen.dwVolumeSerialNumber,
            static_cast<std::uint64_t>(Joined(seen.nFileIndexHigh, seen.nFileIndexLow)),
            Joined(seen.nFileSizeHigh, seen.nFileSizeLow),
            (written - kFileTimeOf1970) / 10'000'000};
  return true;
}

bool ReadAt(const SharedFile& file, std::int64_t offset, void* buffer, std::size_t size,
            std::size_t* read) {
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD got = 0;
  const bool ok = ::ReadFile(file.Raw(), buffer, static_cast<DWORD>(size), &got, &at) != FALSE;
  *read = got;
  return ok || ::GetLastError() == ERROR_HANDLE_EOF;
}

bool ListFolder(const char* path, std::vector<std::string>* names) {
  names->clear();
  WIN32_FIND_DATAA found;
  const HANDLE search = ::FindFirstFileA((std::string(path) + "\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return false;
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) names->push_back(found.cFileName);
  } while (::FindNextFileA(search, &found));
  const DWORD error = ::GetLastError();
  ::FindClose(search);
  ::SetLastError(error);
  return error == ERROR_NO_MORE_FILES;
}

bool GetFreeBytes(const char* folder, std::uint64_t* bytes) {
  ULARGE_INTEGER available{};
  if (!::GetDiskFreeSpaceExA(folder, &available, nullptr, nullptr)) return false;
  *bytes = available.QuadPart;
  return true;
}

}  // namespace platform
