#include "platform/private_folder.h"

#include <string>

#include "platform/handle.h"
#include "platform/windows/runtime/windows_api.h"
// This needs windows.h.
#include <sddl.h>

namespace platform {

namespace {

constexpr char kAccess[] = "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

void CloseFile(RawHandle raw) { ::CloseHandle(raw); }
using File = Owned<struct FileTag, CloseFile>;

void CloseSearch(RawHandle raw) { ::FindClose(raw); }
using Search = Owned<struct SearchTag, CloseSearch>;

void FreeDescriptor(RawHandle raw) { ::LocalFree(raw); }
using Descriptor = Owned<struct DescriptorTag, FreeDescriptor>;

Descriptor PrivateAccess() {
  PSECURITY_DESCRIPTOR raw = nullptr;
  ::ConvertStringSecurityDescriptorToSecurityDescriptorA(kAccess, SDDL_REVISION_1, &raw, nullptr);
  return Descriptor(raw);
}

// Opens a file, a folder or a link itself; does not follow links.
File OpenItself(const char* path, DWORD access, DWORD share) {
  return File(::CreateFileA(path, access, share, nullptr, OPEN_EXISTING,
                            FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

// Room for a record and a security identifier of at most 68 bytes after it.
union Room {
  TOKEN_USER user;
  SECURITY_DESCRIPTOR descriptor;
  BYTE bytes[256];
};

bool IsOwnUser(PSID owner) {
  HANDLE raw = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &raw)) return false;
  const File token(raw);
  Room room;
  DWORD size = 0;
  return ::GetTokenInformation(raw, TokenUser, &room, sizeof room, &size) &&
         ::EqualSid(owner, room.user.User.Sid);
}

bool IsTrusted(const File& file) {
  Room room;
  DWORD size = 0;
  PSID owner = nullptr;
  BOOL isDefault = FALSE;
  if (!::GetKernelObjectSecurity(file.Raw(), OWNER_SECURITY_INFORMATION, &room.descriptor,
                                 sizeof room, &size) ||
      !::GetSecurityDescriptorOwner(&room.descriptor, &owner, &isDefault) || owner == nullptr)
    return false;
  return ::IsWellKnownSid(owner, WinLocalSystemSid) ||
         ::IsWellKnownSid(owner, WinBuiltinAdministratorsSid) || IsOwnUser(owner);
}

// Returns false if it is foreign and could not be deleted, or could not be examined.
bool RemoveIfForeign(const char* path) {
  BY_HANDLE_FILE_INFORMATION facts;
  {
    const File file = OpenItself(path, READ_CONTROL | FILE_READ_ATTRIBUTES,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    if (!file) return ::GetLastError() == ERROR_FILE_NOT_FOUND;
    if (!::GetFileInformationByHandle(file.Raw(), &facts)) return false;
    const bool isLink = (facts.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    const bool isFolder = (facts.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (IsTrusted(file) && !isLink && (isFolder || facts.nNumberOfLinks == 1)) return true;
  }
  return ((facts.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? ::RemoveDirectoryA(path)
                                                                   : ::DeleteFileA(path)) != FALSE;
}

}  // namespace

bool CreatePrivateFolder(const char* path) {
  const Descriptor access = PrivateAccess();
  if (!access) return false;
  SECURITY_ATTRIBUTES attributes{sizeof attributes, access.Raw(), FALSE};
  return ::CreateDirectoryA(path, &attributes) != FALSE;
}

bool ClaimPrivateFolder(const char* path) {
  const Descriptor access = PrivateAccess();
  // Not shared for deletion, so that it can't be renamed meanwhile.
  const File folder = OpenItself(path, READ_CONTROL | WRITE_DAC | FILE_READ_ATTRIBUTES,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE);
  BY_HANDLE_FILE_INFORMATION facts;
  if (!access || !folder || !::GetFileInformationByHandle(folder.Raw(), &facts)) return false;
  constexpr DWORD kKind = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
  if ((facts.dwFileAttributes & kKind) != FILE_ATTRIBUTE_DIRECTORY || !IsTrusted(folder)) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    return false;
  }
  return ::SetKernelObjectSecurity(folder.Raw(),
                                   DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                   access.Raw()) != FALSE;
}

bool RemoveForeignFiles(const char* path) {
  const std::string folder = std::string(path) + "\\";
  WIN32_FIND_DATAA found;
  const Search search(::FindFirstFileA((folder + "*").c_str(), &found));
  if (!search) return false;
  bool isClean = true;
  do {
    const std::string name = found.cFileName;
    if (name != "." && name != "..") isClean = RemoveIfForeign((folder + name).c_str()) && isClean;
  } while (::FindNextFileA(search.Raw(), &found));
  return isClean && ::GetLastError() == ERROR_NO_MORE_FILES;
}

}  // namespace platform
