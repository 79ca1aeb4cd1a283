// The tests of Base64 run in this program over code without vector instructions, which
// most hosts do not reach. This makes sure of it.

#include <vrxutil/binary.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace vrxutil::test {
namespace {

void const* objectOf(void const* address) {
  Dl_info info{};
  return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

TEST(Base64PortableTest, CodeUnderTestIsInThisProgram) {
  static char const here = 0;
  void const* const program = objectOf(&here);
  ASSERT_NE(program, nullptr);
  EXPECT_EQ(objectOf(reinterpret_cast<void const*>(&Base64Encode)), program);
  EXPECT_EQ(objectOf(reinterpret_cast<void const*>(&Base64Decode)), program);
}

}  // namespace
}  // namespace vrxutil::test
