// Mutexes are robust pthread mutexes: a named one lives in a file of the lab folder that every
// process maps, an unnamed one in a mapping of this process. When a holder dies, the next wait
// returns kWaitAbandoned.
#include "platform/mutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <map>
#include <memory>
#include <string>

#include "platform/event.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/wait.h"
#include "platform/thread.h"

namespace platform {

namespace {

struct SharedMutex {
  pthread_mutex_t mutex;
  std::uint32_t initialised;  // 1 once the mutex is; under the file's lock
};

// Owns one mapping of a mutex.
struct Mapping {
  SharedMutex* shared = nullptr;
  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (shared != nullptr) ::munmap(shared, sizeof *shared);
  }
};

using MappingPointer = std::shared_ptr<Mapping>;

void Initialise(SharedMutex* shared) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&shared->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  shared->initialised = 1;
}

MappingPointer Map(int descriptor, int flags) {
  auto mapping = std::make_shared<Mapping>();
  void* at = ::mmap(nullptr, sizeof(SharedMutex), PROT_READ | PROT_WRITE, flags, descriptor, 0);
  if (at == MAP_FAILED) return nullptr;
  mapping->shared = static_cast<SharedMutex*>(at);
  if (mapping->shared->initialised == 0) Initialise(mapping->shared);
  return mapping;
}

// The file's lock ensures that only one process initialises the mutex.
MappingPointer MapNamed(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  // A folder of that name is an object of another kind.
  if (!file && errno == EISDIR) return Fail(kErrorInvalidHandle, nullptr);
  if (!file) return FailFromErrno(nullptr);
  ::flock(file.Value(), LOCK_EX);  // until the file is closed
  MappingPointer mapping;
  if (::ftruncate(file.Value(), sizeof(SharedMutex)) == 0) mapping = Map(file.Value(), MAP_SHARED);
  if (!mapping) SetLastErrorFromErrno(errno);
  return mapping;
}

// One mapping for each name in the process, so that all its threads lock at one address.
MappingPointer FindNamed(const std::string& name) {
  static ProcessLifetime<std::map<std::string, std::weak_ptr<Mapping>>> known;
  std::lock_guard guard(WaitLock());
  MappingPointer mapping = (*known)[name].lock();
  if (!mapping) (*known)[name] = mapping = MapNamed(LabPath("mutex-" + name));
  return mapping;
}

pthread_mutex_t* MutexOf(const Mutex& mutex) {
  assert(mutex);
  return &(*static_cast<MappingPointer*>(mutex.Raw()))->shared->mutex;
}

// Tries until the deadline, so that a waiting thread can be ended between two tries. The mutexes
// are held while a line of text is written: yielding a few times is usually enough.
int LockUntil(pthread_mutex_t* mutex, Deadline deadline) {
  constexpr int kYields = 200;
  int status = ::pthread_mutex_trylock(mutex);
  for (int tries = 0; status == EBUSY; ++tries) {
    if (deadline != Deadline::max() && std::chrono::steady_clock::now() >= deadline) break;
    Sleep(tries < kYields ? 0 : 1);
    status = ::pthread_mutex_trylock(mutex);
  }
  return status;
}

std::uint32_t ResultOf(pthread_mutex_t* mutex, int status) {
  if (status == 0) return kWaitObject0;
  if (status == EOWNERDEAD) {
    ::pthread_mutex_consistent(mutex);
    return kWaitAbandoned;
  }
  return kWaitFailed;
}

}  // namespace

void CloseMutex(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<MappingPointer*>(raw);
}

Mutex CreateMutexA(const char* name) {
  if (gate::Fails("CreateMutexA", "%s", name != nullptr ? name : "")) return Mutex();
  MappingPointer mapping = name != nullptr ? FindNamed(name) : Map(-1, MAP_SHARED | MAP_ANONYMOUS);
  if (!mapping) return Mutex();
  return Mutex(new MappingPointer(std::move(mapping)));
}

std::uint32_t WaitForSingleObject(const Mutex& mutex, std::uint32_t milliseconds) {
  if (gate::Fails("WaitForSingleObject")) return kWaitFailed;
  if (!mutex) return Fail(kErrorInvalidHandle, kWaitFailed);
  pthread_mutex_t* lock = MutexOf(mutex);
  const int status = LockUntil(lock, DeadlineAfter(milliseconds));
  if (status == EBUSY) return kWaitTimeout;
  return ResultOf(lock, status);
}

bool ReleaseMutex(const Mutex& mutex) {
  gate::Note("ReleaseMutex");
  if (!mutex) return Fail(kErrorInvalidHandle);
  return ::pthread_mutex_unlock(MutexOf(mutex)) == 0;
}

}  // namespace platform
