// System calls that fail, or that end the process, as the kernel itself would
// have it (seccomp(2), Linux). For child processes: a fault stays.

#pragma once

#ifdef __linux__

#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace vrxutil::test {

/// The value of an argument of a call.
struct Argument {
  std::size_t index;
  int value;
};

/// What the kernel does with a call.
struct Fault {
  char const* name;
  std::vector<long> calls;             // the numbers that the C library may use for it
  std::uint32_t action;                // of seccomp(2)
  std::optional<Argument> argument{};  // only calls that have this one
};

inline sock_filter load(std::size_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

inline sock_filter skipUnless(std::uint32_t value, std::uint8_t count) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, count);
}

inline sock_filter answer(std::uint32_t action) { return BPF_STMT(BPF_RET | BPF_K, action); }

/// Where the low half of an argument is.
constexpr std::size_t offsetOf(std::size_t argument) {
  return offsetof(seccomp_data, args) + argument * sizeof(std::uint64_t) +
         (std::endian::native == std::endian::big ? sizeof(std::uint32_t) : 0);
}

/// From now on the calls of `fault` meet its action. False where the host does
/// not allow that.
inline bool inject(Fault const& fault) {
  std::vector<sock_filter> program;
  for (long const call : fault.calls) {
    program.push_back(load(offsetof(seccomp_data, nr)));
    program.push_back(skipUnless(static_cast<std::uint32_t>(call), fault.argument ? 3 : 1));
    if (fault.argument) {
      program.push_back(load(offsetOf(fault.argument->index)));
      program.push_back(skipUnless(static_cast<std::uint32_t>(fault.argument->value), 1));
    }
    program.push_back(answer(fault.action));
  }
  program.push_back(answer(SECCOMP_RET_ALLOW));
  sock_fprog const filter{static_cast<unsigned short>(program.size()), program.data()};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0) == 0;
}

inline constexpr char kNotInjected[] = "the host does not allow system call filters";

constexpr std::uint32_t failsWith(int number) {
  return SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(number);
}

}  // namespace vrxutil::test

#endif
