// A plug-in of the tests. It must not have inline variables or templates with static
// data: the loader never unloads a library with those.

#define PLUG_IN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// Counts its own end, which is that of the library.
class UnloadingCounter {
public:
  ~UnloadingCounter() {
    if (count_ != nullptr) ++*count_;
  }

  void countIn(int* count) { count_ = count; }

private:
  int* count_ = nullptr;
};

UnloadingCounter unloadingCounter;

}  // namespace

PLUG_IN_EXPORT char const* plugInVersion();
PLUG_IN_EXPORT void plugInCountUnloading(int* count);
PLUG_IN_EXPORT int plugInAnswer;

int plugInAnswer = 42;

char const* plugInVersion() { return PLUG_IN_VERSION; }

void plugInCountUnloading(int* count) { unloadingCounter.countIn(count); }
