// Threads that share a table: several may read it, one may change it.

#include <vrxutil/lock.h>

#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

class Counts {
public:
  void add(std::string const& name) {
    CReadWriteSyncAuto hold(lock_);
    hold.WriteLock();
    ++counts_[name];
  }  // given back here, after an exception too

  int of(std::string const& name) {
    CReadWriteSyncAuto hold(lock_);
    hold.ReadLock();
    auto const place = counts_.find(name);
    return place == counts_.end() ? 0 : place->second;
  }

private:
  CReadWriteSync lock_;
  std::map<std::string, int> counts_;
};

}  // namespace

int main() {
  constexpr int kWriters = 4;
  constexpr int kRounds = 1000;
  Counts counts;
  std::vector<std::thread> threads;
  threads.reserve(kWriters);
  for (int i = 0; i < kWriters; ++i) {
    threads.emplace_back([&counts] {
      for (int round = 0; round < kRounds; ++round) counts.add("seen");
    });
  }
  int seen = 0;
  while (seen < kWriters * kRounds) seen = counts.of("seen");  // reads meanwhile
  for (std::thread& thread : threads) thread.join();
  std::printf("seen %d\n", counts.of("seen"));
}
