// Reader/writer locks: between processes by name, and between the threads of one.
//
// Between processes: InterProcessReadLock and InterProcessWriteLock, on UnixLock, which
// keeps each lock in a System V semaphore set (semop(2)) that every process finds
// through a key file, below /Library/Vornix/oxa/scratch/. The folder must exist. What a
// process held when it ended, however it ended, the kernel gives back. docs/formats.md
// has the protocol, which foreign processes may speak, too; docs/operations.md what
// programs and administrators must know about it.
//
// Between threads: CReadWriteSync, and its holder CReadWriteSyncAuto.
//
// Errors: false, and a record under "IPLock"; only the constructor of UnixLock throws.
// Threads: a UnixLock and a CReadWriteSync may be used from any thread at once; the
// wrappers and the holder belong to one thread at a time.

#pragma once

#include <vrxutil/export.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <pthread.h>

struct sembuf;  // of <sys/sem.h>

namespace vornix_com::oxa::lock {

/// A reader/writer lock. What the results mean is said at UnixLock.
class VRXUTIL_EXPORT ILock {
public:
  ILock() = default;
  virtual ~ILock();

  ILock(ILock const&) = delete;
  ILock& operator=(ILock const&) = delete;

  /// Take the lock unless somebody is in the way.
  ///@{
  virtual bool tryReadLock() = 0;
  virtual bool tryWriteLock() = 0;
  ///@}
  /// Wait for the lock.
  ///@{
  virtual bool readLock(unsigned int timeout) = 0;
  virtual bool writeLock(unsigned int timeout) = 0;
  ///@}
  /// Give the lock back.
  ///@{
  virtual bool readUnlock() = 0;
  virtual bool writeUnlock() = 0;
  ///@}
};

/// What is to be seen of a lock from outside.
struct LockStatus {
  /// Whether it has a semaphore set. Else nobody is attached, the key file is a left one,
  /// and the rest has no meaning.
  bool hasSet = false;

  /// The set, as the kernel numbers it (ipcs -s): another one of the same name has another.
  int semaphoreId = -1;

  unsigned int writers = 0;     ///< 1 while a writer holds the lock
  unsigned int users = 0;       ///< those that hold it, a writer among them
  unsigned int references = 0;  ///< attached objects

  /// The processes that last changed these three, or have waited for them; 0 for none.
  /// They may have ended.
  ///@{
  std::int32_t lastWriterProcess = 0;
  std::int32_t lastUserProcess = 0;
  std::int32_t lastReferenceProcess = 0;
  ///@}

  std::uint32_t owner = 0;             ///< user id
  std::uint32_t creator = 0;           ///< user id
  std::uint32_t mode = 0;              ///< permission bits
  std::int64_t lastOperationTime = 0;  ///< seconds since 1970, 0 for never
};

/// A lock shared by all processes that name it. Readers share it, a writer excludes all
/// others.
///
/// The object counts as attached to the lock's semaphore set as long as it lives; the
/// last one removes set and key file. It does not know what it holds: who takes the lock
/// twice must give it back twice, and a writer that already holds a read lock waits for
/// itself.
///
/// A child that fork() has made does not have what its parent held: there an inherited
/// object fails at everything and its destructor does nothing. Let a child make its own.
///
/// A thread that is cancelled (pthread_cancel) while it is in here goes on until it has
/// left, also where it waits; that is so for the wrappers, too.
class VRXUTIL_EXPORT UnixLock : public ILock {
public:
  /// Attaches to the lock of this name, which is made if there is none. A set that is not
  /// root's, or that nobody may use, is replaced. Throws std::exception, with the reason
  /// logged, when that fails: when the folder is missing, when the name has a component
  /// ".." or a NUL, for lack of rights or room.
  explicit UnixLock(std::string const& name);

  /// Detaches; the last one removes set and key file. Nothing is thrown. When somebody
  /// has set the set's reference count to 0 meanwhile, it waits until one attaches.
  ~UnixLock() override;

  /// Take the lock unless somebody is in the way.
  ///@{
  bool tryReadLock() override;
  bool tryWriteLock() override;
  ///@}

  /// Wait as long as somebody is in the way, whatever `timeout` says. False when a signal
  /// handler has run meanwhile, the process has been stopped and continued, or the set is
  /// gone.
  ///@{
  bool readLock(unsigned int timeout) override;
  bool writeLock(unsigned int timeout) override;
  ///@}

  /// Give the lock back. What nobody holds is waited for, until somebody takes it; that
  /// ends like the waits above.
  ///@{
  bool readUnlock() override;
  bool writeUnlock() override;
  ///@}

  /// Removes the set and the key file of the lock, whoever uses it: what they do then
  /// fails. Does nothing where there is none; nothing is logged.
  static void cleanSemaphore(std::string const& name);

  /// Looks at a lock without attaching to it or changing anything. The values are those
  /// of one moment but for the processes. False when there is no lock of this name, which
  /// is not logged, and when it cannot be looked at (no right to, no set of a lock), which
  /// is; `status` stays as it is then.
  static bool getStatus(std::string const& name, LockStatus& status);

  /// The folder of the key files, with a "/" at its end: a file FOLDER/NAME in it, or
  /// below, is the key file of the lock NAME.
  static char const* getKeyFolder() noexcept;

private:
  friend class InterProcessReadLock;
  friend class InterProcessWriteLock;

  bool createSemFile(std::string const& name);
  void openSet();
  bool operate(sembuf const* operations, unsigned long count) noexcept;
  bool isInherited() const noexcept;

  std::atomic<int> semaphoreId_{-1};
  std::string keyFilePath_;
  unsigned forkGeneration_;
};

/// A shared hold of a named lock; it is given back at the latest with the object.
///
/// Nothing is thrown. When the lock cannot be had at all, which has been logged, every
/// operation is false.
class VRXUTIL_EXPORT InterProcessReadLock {
public:
  /// Attaches to the lock of this name; holds nothing yet.
  explicit InterProcessReadLock(std::string const& name) noexcept;

  /// unlock(), then detaches.
  ~InterProcessReadLock();

  InterProcessReadLock(InterProcessReadLock const&) = delete;
  InterProcessReadLock& operator=(InterProcessReadLock const&) = delete;

  /// Whether the lock is held now. Taking it again counts with the other processes, but
  /// not here: it is given back once.
  bool tryLock();

  /// The same, and waits as long as it takes, whatever `timeout` says.
  bool lock(unsigned int timeout);

  /// True also when nothing was held.
  bool unlock();

  /// UnixLock::cleanSemaphore().
  static void cleanSemaphore(std::string const& name);

private:
  std::unique_ptr<ILock> lock_;
  bool held_ = false;
};

/// An exclusive hold of a named lock; the rest is as for InterProcessReadLock.
class VRXUTIL_EXPORT InterProcessWriteLock {
public:
  /// Attaches to the lock of this name; holds nothing yet.
  explicit InterProcessWriteLock(std::string const& name) noexcept;

  /// unlock(), then detaches.
  ~InterProcessWriteLock();

  InterProcessWriteLock(InterProcessWriteLock const&) = delete;
  InterProcessWriteLock& operator=(InterProcessWriteLock const&) = delete;

  /// As its namesake of InterProcessReadLock.
  ///@{
  bool tryLock();
  bool lock(unsigned int timeout);
  bool unlock();
  static void cleanSemaphore(std::string const& name);
  ///@}

private:
  std::unique_ptr<ILock> lock_;
  bool held_ = false;
};

}  // namespace vornix_com::oxa::lock

/// A reader/writer lock for the threads of a process. Writers that wait keep new readers
/// out, so that writers without end may starve readers; a writer hands over to the next
/// writer before any reader.
///
/// It is not recursive: a thread that holds it and asks for more may wait for itself.
/// Giving back what is not held spoils the lock. Nothing is logged or thrown. A thread
/// that is cancelled (pthread_cancel) while it waits goes on until it has the lock.
class VRXUTIL_EXPORT CReadWriteSync {
public:
  CReadWriteSync();

  /// Nobody may hold the lock or wait for it.
  ~CReadWriteSync();

  CReadWriteSync(CReadWriteSync const&) = delete;
  CReadWriteSync& operator=(CReadWriteSync const&) = delete;

  /// Waits while a writer holds the lock or waits for it.
  void ReadLock();
  /// Gives a reader's hold back.
  void ReadUnlock();
  /// Waits while anybody holds the lock.
  void WriteLock();
  /// Gives the writer's hold back.
  void WriteUnlock();

private:
  friend struct CReadWriteSyncState;  // for tests

  int readers = 0;
  int writers = 0;
  int waitingReaders = 0;
  int waitingWriters = 0;
  pthread_cond_t readCondition;
  pthread_cond_t writeCondition;
  pthread_mutex_t mutex;
};

/// A hold of a CReadWriteSync, given back at the latest with the object. It remembers one
/// hold: unlock before locking again.
class VRXUTIL_EXPORT CReadWriteSyncAuto {
public:
  /// Holds nothing yet. `lock` must outlive the object.
  explicit CReadWriteSyncAuto(CReadWriteSync& lock) : sync(lock) {}

  ~CReadWriteSyncAuto() { Unlock(); }

  CReadWriteSyncAuto(CReadWriteSyncAuto const&) = delete;
  CReadWriteSyncAuto& operator=(CReadWriteSyncAuto const&) = delete;

  /// Waits as its namesake of CReadWriteSync does.
  ///@{
  void ReadLock();
  void WriteLock();
  ///@}

  /// Does nothing when nothing is held.
  void Unlock();

private:
  CReadWriteSync& sync;
  std::int32_t locked = 0;
  std::int32_t isWriter = 0;
};
