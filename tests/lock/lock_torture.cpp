// A torture of the locks between processes: many come, lock, give back and go, at random,
// and each looks whether it is alone when it should be.
//
//   lock_torture cycles COUNT [PROCESSES [SEED]]    lives of objects: they come and go
//   lock_torture steady COUNT [PROCESSES [SEED]]    sections, with objects that stay
//   lock_torture kills COUNT [PROCESSES [SEED]]     as `cycles`, with processes killed at
//                                                   random; after each kill a fresh process
//                                                   must get the write lock
//   lock_torture foreign COUNT [PROCESSES [SEED]]   as `cycles`, where half the processes do
//                                                   not use the library; one object stays
//
// It does so in a world of its own, in which the lock folder is in memory or, where the
// environment variable LOCK_TORTURE_FOLDER names a folder, in that one.
//
// Exit status: 0 without a fault, 1 with one, 2 for wrong arguments, 77 where the host does
// not allow it. All figures are printed. The same seed gives the same choices, though not
// the same order of what the processes do.

#include "tests/lock/lock_support.h"
#include "tests/lock/lock_torture_support.h"

#include <vrxutil/lock.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/vfs.h>

namespace {

namespace fs = std::filesystem;

using namespace std::chrono_literals;
using namespace vrxutil::test;
using vornix_com::oxa::lock::InterProcessReadLock;
using vornix_com::oxa::lock::InterProcessWriteLock;
using vornix_com::oxa::lock::UnixLock;

constexpr unsigned kIgnored = 5;

// Bounds for what never comes, not for what is slow.
constexpr std::chrono::seconds kPatience = 120s;
constexpr std::chrono::milliseconds kPatienceAfterKill = 60s;

std::string nameOf(int lock) { return kLockNames[static_cast<std::size_t>(lock)]; }

// ---- what a process does

/// The operations of an object of ours, and of a process that has none.
auto waysOf(UnixLock& lock, Kind kind) {
  bool const reads = kind == Kind::read;
  return Ways{[&lock, reads] { return reads ? lock.tryReadLock() : lock.tryWriteLock(); },
              [&lock, reads] { return reads ? lock.readLock(kIgnored) : lock.writeLock(kIgnored); },
              [&lock, reads] { return reads ? lock.readUnlock() : lock.writeUnlock(); }};
}

auto waysOf(Peer const& peer, Kind kind) {
  std::string const verb = kind == Kind::read ? "read" : "write";
  return Ways{[&peer, verb] { return peer.ask("try" + verb) == "ok"; },
              [&peer, verb] { return peer.ask(verb) == "ok"; },
              [&peer, verb] { return peer.ask("un" + verb) == "ok"; }};
}

/// One life of a lock: comes, locks a few times or not at all, goes.
void live(Actor& actor, std::string const& name) {
  std::optional<UnixLock> lock;
  bool const hasCome = actor.hasCome([&] {
    try {
      lock.emplace(name);
      return true;
    } catch (std::exception const&) {
      return false;
    }
  });
  if (!hasCome) return;
  for (int sections = actor.choice.below(3); sections > 0; --sections) {
    Kind const kind = actor.choice.kind();
    actor.section(kind, waysOf(*lock, kind));
  }
  actor.at(Step::going);
}

/// The same with a wrapper, which may also leave it to its destructor to give back.
template <class Wrapper>
void liveWrapped(Actor& actor, std::string const& name, Kind kind) {
  std::optional<Wrapper> lock;
  bool const hasCome = actor.hasCome([&] {
    lock.emplace(name);
    return lock->unlock();  // nothing is held: false only where there is no lock
  });
  if (!hasCome) return;
  bool const givesBack = actor.choice.oneIn(2);
  actor.section(kind, Ways{[&] { return lock->tryLock(); }, [&] { return lock->lock(kIgnored); },
                           [&] { return !givesBack || lock->unlock(); }});
  actor.at(Step::going);
}

void liveAnyhow(Actor& actor) {
  int const lock = actor.choice.below(kLockCount);
  std::string const name = nameOf(lock);
  actor.turnTo(lock);
  actor.at(Step::pausing);
  actor.countCycle(/*isFirst=*/!exists(keyFile(name)));
  switch (actor.choice.below(4)) {
    case 0:
      return liveWrapped<InterProcessReadLock>(actor, name, Kind::read);
    case 1:
      return liveWrapped<InterProcessWriteLock>(actor, name, Kind::write);
    default:
      return live(actor, name);
  }
}

void liveOnAndOn(Actor& actor) {
  while (actor.takesTurn()) liveAnyhow(actor);
}

/// One object for each lock, which are used on and on.
void lockOnAndOn(Actor& actor) {
  std::vector<std::unique_ptr<UnixLock>> locks;
  for (char const* name : kLockNames) locks.push_back(std::make_unique<UnixLock>(name));
  while (actor.takesTurn()) {
    int const lock = actor.choice.below(kLockCount);
    Kind const kind = actor.choice.kind();
    actor.turnTo(lock);
    actor.section(kind, waysOf(*locks[static_cast<std::size_t>(lock)], kind));
    actor.at(Step::pausing);
  }
}

/// Has a process without the library do it, and speaks for that one.
void driveForeign(Actor& actor) {
  Peer const peer = foreignProcess();
  while (actor.takesTurn()) {
    int const lock = actor.choice.below(kLockCount);
    actor.turnTo(lock);
    actor.at(Step::pausing);
    actor.countCycle(/*isFirst=*/!exists(keyFile(nameOf(lock))));
    if (!actor.hasCome([&] { return peer.ask("attach " + nameOf(lock)) == "ok"; })) continue;
    for (int sections = actor.choice.below(3); sections > 0; --sections) {
      Kind const kind = actor.choice.kind();
      actor.section(kind, waysOf(peer, kind));
    }
    actor.at(Step::going);
    if (peer.ask("detach") != "ok") actor.refuse();
  }
}

// ---- the processes

/// Waits a moment, or until a child has ended.
void waitForChildren() {
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGCHLD);
  constexpr timespec kMoment{.tv_sec = 0, .tv_nsec = 200'000'000};
  static_cast<void>(::sigtimedwait(&ends, nullptr, &kMoment));
}

/// The processes that do the work, which their parent watches over.
class Crew {
public:
  Crew(Arena& arena, int count, unsigned seed)
      : choice(seed), arena_(arena), processes_(static_cast<std::size_t>(count), 0), seed_(seed) {
    arena_.processCount = count;
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);  // for waitForChildren()
  }

  ~Crew() {
    for (int i = 0; i < count(); ++i) {
      if (process(i) > 0) kill(i);
    }
  }

  Crew(Crew const&) = delete;
  Crew& operator=(Crew const&) = delete;

  int count() const { return static_cast<int>(processes_.size()); }

  Place& place(int i) { return arena_.places[static_cast<std::size_t>(i)]; }

  /// Starts the process number `i`, which does `work`.
  template <class Work>
  void start(int i, Work work) {
    ++started_;
    pid_t const parent = ::getpid();
    process(i) = ::fork();
    if (process(i) < 0) throw std::runtime_error("no more processes");
    if (process(i) > 0) return;
    // Nobody is left when the parent is killed.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_TIMERSLACK, 1000UL);
    if (::getppid() != parent) ::_exit(EXIT_FAILURE);
    ::_exit(runs(i, work) ? EXIT_SUCCESS : EXIT_FAILURE);
  }

  /// Kills the process number `i` wherever it is, and waits until it has ended.
  void kill(int i) {
    place(i).isDoomed = true;
    ::kill(process(i), SIGKILL);
    waitFor(process(i));
    process(i) = 0;
  }

  /// Until all have ended; false when one has died or gets on no more.
  bool watch() {
    std::vector<unsigned long> moves(processes_.size(), 0);
    SteadyClock::time_point lastMove = SteadyClock::now();
    while (true) {
      if (!reap()) return false;
      if (std::count(processes_.begin(), processes_.end(), 0) == count()) return true;
      if (haveMoved(moves)) lastMove = SteadyClock::now();
      if (SteadyClock::now() - lastMove > kPatience) return tellStandstill();
      waitForChildren();
    }
  }

  Choice choice;

private:
  pid_t& process(int i) { return processes_[static_cast<std::size_t>(i)]; }

  template <class Work>
  bool runs(int i, Work work) {
    try {
      ComplaintCounter const complaints(arena_);
      Actor actor(arena_, i, seed_ + started_);
      work(actor);
      return true;
    } catch (std::exception const& exception) {
      std::fprintf(stderr, "process %d: %s\n", i, exception.what());
      return false;
    }
  }

  bool reap() {
    for (int i = 0; i < count(); ++i) {
      int status = 0;
      if (process(i) == 0 || ::waitpid(process(i), &status, WNOHANG) != process(i)) continue;
      process(i) = 0;
      if (status == 0) continue;
      std::printf("FAULT: process %d has died, status %d\n", i, status);
      return false;
    }
    return true;
  }

  /// Whether each that still runs has got on.
  bool haveMoved(std::vector<unsigned long>& moves) {
    std::vector<unsigned long> now;
    bool haveAll = true;
    for (int i = 0; i < count(); ++i) {
      now.push_back(place(i).moves);
      haveAll = haveAll && (process(i) == 0 || now.back() != moves[now.size() - 1]);
    }
    if (haveAll) moves = now;
    return haveAll;
  }

  bool tellStandstill() {
    for (int i = 0; i < count(); ++i) {
      if (process(i) == 0) continue;
      std::printf("FAULT: standstill: process %d is %s, %s: %s\n", i,
                  kStepNames[static_cast<std::size_t>(place(i).step.load())],
                  nameOf(place(i).lock).c_str(),
                  ::testing::PrintToString(valuesOf(nameOf(place(i).lock))).c_str());
    }
    return false;
  }

  Arena& arena_;
  std::vector<pid_t> processes_;
  unsigned seed_;
  unsigned started_ = 0;
};

// ---- the ways to torture; each gives whether it came to its end

struct Torture {
  Arena& arena;
  Crew& crew;
  long count;
};

bool runAll(Torture const& torture, void (*work)(Actor&)) {
  torture.arena.wanted = torture.count;
  for (int i = 0; i < torture.crew.count(); ++i) torture.crew.start(i, work);
  return torture.crew.watch();
}

bool runCycles(Torture const& torture) { return runAll(torture, liveOnAndOn); }

bool runSteady(Torture const& torture) { return runAll(torture, lockOnAndOn); }

bool runForeign(Torture const& torture) {
  // What remains to be guarded against among processes that do not hold the folder.
  std::vector<std::unique_ptr<UnixLock>> staying;
  for (char const* name : kLockNames) staying.push_back(std::make_unique<UnixLock>(name));
  torture.arena.wanted = torture.count;
  for (int i = 0; i < torture.crew.count(); ++i) {
    torture.crew.start(i, i % 2 == 0 ? driveForeign : liveOnAndOn);
  }
  return torture.crew.watch();
}

/// What was seen of kills.
class Kills {
public:
  explicit Kills(Torture const& torture) : torture_(torture) {
    if (::pipe2(news_.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  }

  /// Kills one at random, in whose place a fresh one takes the write lock; false when that
  /// does not get it.
  bool killOne() {
    Crew& crew = torture_.crew;
    int const victim = crew.choice.below(crew.count());
    ::usleep(static_cast<useconds_t>(crew.choice.below(3000)));
    if (crew.choice.oneIn(2)) aimAt(crew.place(victim));
    crew.kill(victim);
    ++steps_[static_cast<std::size_t>(crew.place(victim).step.load())];
    crew.place(victim).clear();
    SteadyClock::time_point const death = SteadyClock::now();
    int const lock = crew.place(victim).lock;
    crew.start(victim, [this, lock](Actor& actor) {
      takeOver(actor, lock);
      liveOnAndOn(actor);
    });
    pollfd news{.fd = news_[0], .events = POLLIN, .revents = 0};
    if (::poll(&news, 1, static_cast<int>(kPatienceAfterKill.count())) != 1) return false;
    char byte = 0;
    if (::read(news_[0], &byte, 1) != 1) return false;
    Nanoseconds const wait = SteadyClock::now() - death;
    longest_ = std::max(longest_, wait);
    if (wait > 1s) ++late_;
    return true;
  }

  void print() const {
    std::printf("kills while");
    for (std::size_t i = 0; i < steps_.size(); ++i)
      std::printf(" %s %ld,", kStepNames[i], steps_[i]);
    std::printf(" until the next one has the lock at most %.3f s, %ld over a second\n",
                std::chrono::duration<double>(longest_).count(), late_);
  }

private:
  /// Looks for a moment in a step of life that is too short to be hit otherwise.
  void aimAt(Place const& place) {
    auto const step =
        static_cast<Step>(torture_.crew.choice.below(static_cast<int>(kStepNames.size())));
    constexpr int kMostLooks = 100'000;
    for (int looks = 0; looks < kMostLooks && place.step != step; ++looks) {
    }
  }

  /// What a fresh process does about the lock of a dead one.
  void takeOver(Actor& actor, int lock) const {
    actor.turnTo(lock);
    actor.countCycle(/*isFirst=*/!exists(keyFile(nameOf(lock))));
    std::optional<UnixLock> fresh;
    if (!actor.hasCome([&] { return fresh.emplace(nameOf(lock)), true; })) return;
    actor.section(Kind::write,
                  Ways{[] { return false; },
                       [&] { return fresh->writeLock(kIgnored) && ::write(news_[1], "!", 1) == 1; },
                       [&] { return fresh->writeUnlock(); }});
    actor.at(Step::going);
  }

  Torture const& torture_;
  std::array<int, 2> news_{};
  std::array<long, kStepNames.size()> steps_{};
  Nanoseconds longest_{0};
  long late_ = 0;
};

/// Removes what those that were killed have left, as the next life of a lock does.
void liveOnce(Crew& crew) {
  crew.start(0, [](Actor& actor) {
    for (int lock = 0; lock < kLockCount; ++lock) {
      actor.turnTo(lock);
      live(actor, nameOf(lock));
    }
  });
}

bool runKills(Torture const& torture) {
  Crew& crew = torture.crew;
  torture.arena.mayTear = true;
  torture.arena.wanted = std::numeric_limits<long>::max();
  for (int i = 0; i < crew.count(); ++i) crew.start(i, liveOnAndOn);
  Kills kills(torture);
  for (long i = 0; i < torture.count; ++i) {
    if (kills.killOne()) continue;
    std::printf("FAULT: nobody gets the lock after kill %ld\n", i + 1);
    return false;
  }
  kills.print();
  torture.arena.isOver = true;
  if (!crew.watch()) return false;
  liveOnce(crew);
  return crew.watch();
}

// ---- the world, and the outcome

/// The folder of the key files for as long as the program runs: a new one in that which
/// the user has named, if any.
class LockFolder {
public:
  LockFolder() {
    char const* const parent = std::getenv("LOCK_TORTURE_FOLDER");
    if (parent == nullptr) return;
    path_ = fs::path(parent) / "lock_torture.XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder " + path_);
    if (::mount(path_.c_str(), kLockFolder, nullptr, MS_BIND, nullptr) != 0) {
      throw std::runtime_error("cannot mount " + path_);
    }
  }

  ~LockFolder() {
    if (path_.empty()) return;
    ::umount2(kLockFolder, MNT_DETACH);
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

  LockFolder(LockFolder const&) = delete;
  LockFolder& operator=(LockFolder const&) = delete;

  static std::string fileSystem() {
    constexpr long kTmpfs = 0x01021994;
    constexpr long kExt4 = 0xEF53;

    struct statfs status {};

    if (::statfs(kLockFolder, &status) != 0) return "?";
    if (status.f_type == kTmpfs) return "tmpfs";
    return status.f_type == kExt4 ? "ext4" : "file system " + std::to_string(status.f_type);
  }

private:
  std::string path_;
};

long keyFileCount() {
  fs::directory_iterator const files(kLockFolder);
  return std::distance(begin(files), end(files));
}

/// Prints all figures; whether they are as they should be.
bool report(Arena const& arena, Nanoseconds time) {
  auto const seconds = [](auto span) { return std::chrono::duration<double>(span).count(); };
  Figures const& figures = arena.figures;
  long lost = 0;
  for (Guarded const& guarded : arena.guarded) lost += guarded.lost();
  long const sets = setCount();
  long const keyFiles = keyFileCount();
  std::printf("cycles %ld (first to come %ld), sections %ld (write %ld), tries in vain %ld\n",
              figures.cycles.load(), figures.firsts.load(), figures.reads + figures.writes,
              figures.writes.load(), figures.busy.load());
  std::printf("longest: coming %.3f s, blocking lock %.3f s; in all %.1f s\n",
              seconds(Nanoseconds(figures.longestComing)),
              seconds(Nanoseconds(figures.longestLock)), seconds(time));
  std::printf(
      "overlaps %ld, torn %ld, lost %ld, refused %ld, complaints %ld, left: sets %ld, key files "
      "%ld\n",
      figures.overlaps.load(), figures.torn.load(), lost, figures.refused.load(),
      figures.complaints.load(), sets, keyFiles);
  if (figures.complaints != 0) std::printf("first complaint: %s\n", arena.firstComplaint.data());
  return figures.overlaps + figures.torn + lost + figures.refused + figures.complaints + sets +
             keyFiles ==
         0;
}

struct Mode {
  std::string_view name;
  bool (*run)(Torture const&);
};

constexpr Mode kModes[] = {
    {"cycles", runCycles}, {"steady", runSteady}, {"kills", runKills}, {"foreign", runForeign}};

/// A number from `least` to `most`; none for anything else.
std::optional<long> parse(char const* text, long least, long most) {
  char* end = nullptr;
  errno = 0;
  long const number = std::strtol(text, &end, 10);
  bool const isNumber = end != text && *end == '\0' && errno == 0;
  return isNumber && number >= least && number <= most ? std::optional(number) : std::nullopt;
}

int usage() {
  std::fputs("usage: lock_torture cycles|steady|kills|foreign COUNT [PROCESSES [SEED]]\n", stderr);
  return 2;
}

int torture(Mode const& mode, long count, int processes, unsigned seed) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (!enterWorld()) {
    std::printf("skipped: %s\n", kNoWorld);
    return kNotAllowed;
  }
  LockFolder const folder;
  Arena& arena = makeArena();
  ComplaintCounter const complaints(arena);
  std::printf("%s %ld: %d processes, seed %u, on %s\n", std::string(mode.name).c_str(), count,
              processes, seed, LockFolder::fileSystem().c_str());
  SteadyClock::time_point const start = SteadyClock::now();
  bool cameToEnd = false;
  {
    Crew crew(arena, processes, seed);
    cameToEnd = mode.run({arena, crew, count});
  }
  bool const isRight = report(arena, SteadyClock::now() - start);
  return cameToEnd && isRight ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) return usage();
  Mode const* const mode = std::find_if(std::begin(kModes), std::end(kModes),
                                        [&](Mode const& known) { return known.name == argv[1]; });
  std::optional<long> const count = parse(argv[2], 1, std::numeric_limits<long>::max() / 2);
  std::optional<long> const processes = argc > 3 ? parse(argv[3], 1, kMaxProcesses) : 4;
  std::optional<long> const seed =
      argc > 4 ? parse(argv[4], 0, std::numeric_limits<unsigned>::max()) : std::random_device()();
  if (mode == std::end(kModes) || !count || !processes || !seed) return usage();
  try {
    return torture(*mode, *count, static_cast<int>(*processes), static_cast<unsigned>(*seed));
  } catch (std::exception const& exception) {
    std::fprintf(stderr, "lock_torture: %s\n", exception.what());
    return EXIT_FAILURE;
  }
}
