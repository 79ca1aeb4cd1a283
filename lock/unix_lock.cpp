// The numbers, operations and their order are what processes agree on that may not be of
// this library: docs/formats.md has them.

#include "lock/fork_generation.h"
#include "lock/lock_folder.h"
#include "platform/common/cancellation.h"
#include "platform/common/error_text.h"

#include <vrxutil/lock.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>

#include <array>
#include <cerrno>
#include <exception>
#include <string_view>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vornix_com::oxa::lock {

namespace {

using vrxutil::detail::CancellationDisabled;
using vrxutil::detail::ErrorText;
using vrxutil::detail::kLockFolder;
using vrxutil::detail::LockFolderHold;

constexpr wchar_t kGroup[] = L"IPLock";
constexpr char kFallbackFolder[] = "/tmp/";
constexpr int kProject = 3737;
constexpr int kMode = 0600;

enum SemaphoreNumber : unsigned short { writer = 0, users = 1, references = 2 };

constexpr int kSemaphoreCount = 3;

constexpr short kWait = SEM_UNDO;
constexpr short kDoNotWait = SEM_UNDO | IPC_NOWAIT;
static_assert(kWait == 4096 && kDoNotWait == 6144);
static_assert((IPC_CREAT | IPC_EXCL | kMode) == 1920 && (IPC_CREAT | kMode) == 896);

// Each is one call, done as a whole or not at all.
constexpr sembuf kTryReadLock[] = {{writer, 0, kDoNotWait}, {users, +1, kDoNotWait}};
constexpr sembuf kTryWriteLock[] = {{writer, 0, kDoNotWait},
                                    {users, 0, kDoNotWait},
                                    {writer, +1, kDoNotWait},
                                    {users, +1, kDoNotWait}};
constexpr sembuf kReadLock[] = {{writer, 0, kWait}, {users, +1, kWait}};
constexpr sembuf kWriteLock[] = {
    {writer, 0, kWait}, {users, 0, kWait}, {writer, +1, kWait}, {users, +1, kWait}};
constexpr sembuf kReadUnlock[] = {{users, -1, kWait}};
constexpr sembuf kWriteUnlock[] = {{writer, -1, kWait}, {users, -1, kWait}};
constexpr sembuf kAttach[] = {{references, +1, kWait}};
constexpr sembuf kDetach[] = {{references, -1, kWait}};

constexpr wchar_t kReadLocked[] = L"readLock - providing read lock";
constexpr wchar_t kReadLockFailed[] = L"readLock - Timeout occured , failed to acquire the lock";
constexpr wchar_t kWriteLocked[] = L"writeLock - providing write lock";
constexpr wchar_t kWriteLockFailed[] = L"writeLock - Timeout occured , failed to acquire the lock";
constexpr wchar_t kReadUnlocked[] = L"readUnLock - unlocking the read lock successful";
constexpr wchar_t kWriteUnlocked[] = L"writeUnLock - unlocking the write lock successful";
constexpr wchar_t kUnlockFailed[] = L"writeUnLock - decreasing the semaphore value failed";

/// The argument of semctl, which its callers define (semctl(2)).
union SemctlArgument {
  int value;
  semid_ds* status;
  unsigned short* values;
};

/// What has happened to the lock has happened, even if it cannot be logged.
void report(void (*log)(wchar_t const*, wchar_t const*), wchar_t const* message) noexcept {
  CancellationDisabled const undisturbed;
  try {
    log(kGroup, message);
  } catch (...) {
  }
}

/// Logs both outcomes of an operation that done or refused leaves nothing else to tell.
bool reported(bool done, wchar_t const* success, wchar_t const* failure,
              void (*logFailure)(wchar_t const*, wchar_t const*) = logError) noexcept {
  report(done ? logDetail : logFailure, done ? success : failure);
  return done;
}

[[noreturn]] void fail(AString const& message) {
  logError(kGroup, message);
  throw std::exception();
}

/// A name that would leave the folder, or that ends before it seems to, is none.
bool isLockName(std::string_view name) {
  if (name.find('\0') != std::string_view::npos) return false;
  while (true) {
    std::size_t const slash = name.find('/');
    if (name.substr(0, slash) == "..") return false;
    if (slash == std::string_view::npos) return true;
    name.remove_prefix(slash + 1);
  }
}

/// Whether root made the set, and it is not closed to everybody. One that does not tell
/// counts as neither.
bool isTrusted(int id) {
  semid_ds status{};
  if (::semctl(id, 0, IPC_STAT, SemctlArgument{.status = &status}) != 0) status = {};
  ipc_perm const& permissions = status.sem_perm;
  return permissions.uid == 0 && permissions.cuid == 0 && (permissions.mode & kMode) != 0;
}

int createSet(key_t key) { return ::semget(key, kSemaphoreCount, IPC_CREAT | IPC_EXCL | kMode); }

bool removeSet(int id) { return ::semctl(id, 0, IPC_RMID) != -1; }

/// The set that is there already, or a new one in the place of one that is not root's.
int joinSet(key_t key) {
  int const id = ::semget(key, kSemaphoreCount, IPC_CREAT | kMode);
  if (id == -1 || isTrusted(id)) return id;
  logError(kGroup, L"A non-root instance of this semaphore encountered so deleting it");
  return removeSet(id) ? createSet(key) : id;
}

/// Whether a call on a set has failed since there is none of this number any more.
bool isGone() { return errno == EIDRM || errno == EINVAL; }

/// Whether an error number of stat(2) says that there is no such file.
bool isAbsence(int errorNumber) {
  return errorNumber == ENOENT || errorNumber == ENOTDIR || errorNumber == ENAMETOOLONG;
}

/// Logs why a lock cannot be looked at.
bool refuse(std::string const& name, char const* reason) {
  logError(kGroup, AString(L"Failed to look at the lock ") << name.c_str() << L": " << reason);
  return false;
}

/// The values and processes of a set; false with errno set.
bool readSemaphores(int id, LockStatus& status) {
  std::array<unsigned short, kSemaphoreCount> values{};
  if (::semctl(id, 0, GETALL, SemctlArgument{.values = values.data()}) == -1) return false;
  std::array<int, kSemaphoreCount> processes{};
  for (int number = 0; number < kSemaphoreCount; ++number) {
    int& process = processes[static_cast<std::size_t>(number)];
    process = ::semctl(id, number, GETPID);
    if (process == -1) return false;
  }
  status.writers = values[writer];
  status.users = values[users];
  status.references = values[references];
  status.lastWriterProcess = processes[writer];
  status.lastUserProcess = processes[users];
  status.lastReferenceProcess = processes[references];
  return true;
}

/// Fills in what a set tells; false after an error that is logged.
bool readSet(std::string const& name, int id, LockStatus& status) {
  semid_ds set{};
  bool isRead = ::semctl(id, 0, IPC_STAT, SemctlArgument{.status = &set}) != -1;
  if (isRead && set.sem_nsems != kSemaphoreCount) return refuse(name, "its set is no lock's");
  isRead = isRead && readSemaphores(id, status);
  if (!isRead && !isGone()) return refuse(name, ErrorText(errno).c_str());
  status.hasSet = isRead;
  status.semaphoreId = id;
  status.owner = set.sem_perm.uid;
  status.creator = set.sem_perm.cuid;
  status.mode = set.sem_perm.mode & 0777U;
  status.lastOperationTime = set.sem_otime;
  return true;
}

}  // namespace

ILock::~ILock() = default;

UnixLock::UnixLock(std::string const& name) : forkGeneration_(vrxutil::detail::forkGeneration()) {
  vrxutil::detail::countForks();
  LockFolderHold const hold;
  if (!createSemFile(name)) {
    fail(AString(L"Failed to create the file  ") << keyFilePath_.c_str());
  }
  openSet();
  if (operate(kAttach, std::size(kAttach))) return;
  ErrorText const reason(errno);
  fail(AString(L"Failed to increase the refrence count due to ") << reason.c_str());
}

bool UnixLock::createSemFile(std::string const& name) {
  keyFilePath_ = kLockFolder + name;
  if (!isLockName(name)) return false;
  char const* const path = keyFilePath_.c_str();
  struct stat status;
  if (::stat(path, &status) == 0) return true;
  vrxutil::detail::Descriptor const file(::open(path, O_RDWR | O_CREAT | O_CLOEXEC, kMode));
  return file.get() >= 0;
}

void UnixLock::openSet() {
  key_t const key = ::ftok(keyFilePath_.c_str(), kProject);
  if (key == -1) {
    ErrorText const reason(errno);
    fail(AString(L"Failed to get the semaphore id due to ") << reason.c_str());
  }
  int id = createSet(key);
  if (id == -1 && errno == EEXIST) id = joinSet(key);
  if (id == -1) {
    ErrorText const reason(errno);
    fail(AString(L"Failed to create the semaphore due to ")
         << reason.c_str() << L" first parameter is " << static_cast<long>(key));
  }
  semaphoreId_ = id;
}

UnixLock::~UnixLock() {
  if (isInherited()) return;
  LockFolderHold const hold;
  int const id = semaphoreId_;
  if (!operate(kDetach, std::size(kDetach))) {
    try {
      logError(kGroup, AString(L"Failed to decrease the refrence count ") << keyFilePath_.c_str());
    } catch (...) {  // what cannot be logged is not worth the process
    }
    return;
  }
  if (::semctl(id, references, GETVAL) != 0) return;
  if (removeSet(id)) {
    static_cast<void>(::unlink(keyFilePath_.c_str()));  // the next lock of the name has it again
    return;
  }
  report(logDetail, L"Failed to delete the semaphore on 0 refrence count");
}

bool UnixLock::tryReadLock() {
  return reported(operate(kTryReadLock, std::size(kTryReadLock)), kReadLocked, kReadLockFailed);
}

bool UnixLock::tryWriteLock() {
  return reported(operate(kTryWriteLock, std::size(kTryWriteLock)), kWriteLocked, kWriteLockFailed);
}

bool UnixLock::readLock(unsigned int /*timeout*/) {
  return reported(operate(kReadLock, std::size(kReadLock)), kReadLocked, kReadLockFailed, logInfo);
}

bool UnixLock::writeLock(unsigned int /*timeout*/) {
  return reported(operate(kWriteLock, std::size(kWriteLock)), kWriteLocked, kWriteLockFailed);
}

bool UnixLock::readUnlock() {
  return reported(operate(kReadUnlock, std::size(kReadUnlock)), kReadUnlocked, kUnlockFailed);
}

bool UnixLock::writeUnlock() {
  return reported(operate(kWriteUnlock, std::size(kWriteUnlock)), kWriteUnlocked, kUnlockFailed);
}

/// Does nothing in a child that has inherited the object. Gives errno.
bool UnixLock::operate(sembuf const* operations, unsigned long count) noexcept {
  if (isInherited()) return false;
  int id = semaphoreId_.load(std::memory_order_relaxed);
  // The parameter lacks a const; the call reads.
  if (::semop(id, const_cast<sembuf*>(operations), count) == 0) return true;
  bool const isGone = errno == EIDRM || errno == EINVAL;
  // Numbers come round: the next set that has this one is a stranger's.
  if (isGone) semaphoreId_.compare_exchange_strong(id, -1);
  return false;
}

bool UnixLock::isInherited() const noexcept {
  return forkGeneration_ != vrxutil::detail::forkGeneration();
}

void UnixLock::cleanSemaphore(std::string const& name) {
  if (!isLockName(name)) return;
  LockFolderHold const hold;
  struct stat status;
  std::string const path =
      (::stat(kLockFolder, &status) == 0 ? kLockFolder : kFallbackFolder) + name;
  key_t const key = ::ftok(path.c_str(), kProject);
  if (key == -1) return;
  int const id = ::semget(key, kSemaphoreCount, kMode);
  if (id == -1 || !removeSet(id)) return;
  static_cast<void>(::unlink(path.c_str()));
}

bool UnixLock::getStatus(std::string const& name, LockStatus& status) {
  if (!isLockName(name)) return false;
  struct stat file;
  std::string const path = kLockFolder + name;
  key_t const key = ::stat(path.c_str(), &file) == 0 ? ::ftok(path.c_str(), kProject) : -1;
  if (key == -1) return isAbsence(errno) ? false : refuse(name, ErrorText(errno).c_str());
  if (!S_ISREG(file.st_mode)) return false;
  int const id = ::semget(key, 0, 0);
  if (id == -1 && errno != ENOENT) return refuse(name, ErrorText(errno).c_str());
  LockStatus found;
  if (id != -1 && !readSet(name, id, found)) return false;
  status = found;
  return true;
}

char const* UnixLock::getKeyFolder() noexcept { return kLockFolder; }

}  // namespace vornix_com::oxa::lock
