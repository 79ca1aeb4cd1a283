// How the host is asked for its model. This program answers itself.

#include <vrxutil/system.h>

#ifndef __APPLE__

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>

namespace vrxutil::test {
namespace {

struct Query {
  std::string name;
  std::size_t room = 0;
  void const* newValue = nullptr;
  std::size_t newSize = 0;
  int count = 0;
};

Query query;
std::string answer;  // copied without a NUL
int answerResult = 0;

/// Whether a host whose model is `bytes` is portable.
bool isPortable(std::string const& bytes, int result = 0) {
  query = Query();
  answer = bytes;
  answerResult = result;
  bool portable = true;
  EXPECT_EQ(CEnclosureType::iIsAPortableComputer(portable), 0);
  return portable;
}

TEST(CEnclosureTypeQueryTest, AsksOnceForTheModel) {
  EXPECT_TRUE(isPortable("Notebook"));
  EXPECT_EQ(query.count, 1);
  EXPECT_EQ(query.name, "hw.model");
  EXPECT_EQ(query.room, 256U);
  EXPECT_EQ(query.newValue, nullptr);
  EXPECT_EQ(query.newSize, 0U);
}

TEST(CEnclosureTypeQueryTest, TextMayFillItsRoomWithoutANul) {
  EXPECT_TRUE(isPortable(std::string(251, 'x') + "bookx"));
  EXPECT_FALSE(isPortable(std::string(252, 'x') + "book"));
  EXPECT_FALSE(isPortable(std::string(256, 'x')));
}

TEST(CEnclosureTypeQueryTest, WhatAFailingQueryLeavesDoesNotCount) {
  EXPECT_FALSE(isPortable("Notebook", -1));
  EXPECT_TRUE(isPortable("Notebook"));
}

}  // namespace
}  // namespace vrxutil::test

// In the place of the runtime layer's function of this name.
extern "C" __attribute__((visibility("default"))) int sysctlbyname(char const* name, void* value,
                                                                   std::size_t* size,
                                                                   void const* newValue,
                                                                   std::size_t newSize) {
  using namespace vrxutil::test;
  query = {name, *size, newValue, newSize, query.count + 1};
  *size = std::min(*size, answer.size());
  std::copy_n(answer.data(), *size, static_cast<char*>(value));
  if (answerResult != 0) errno = ENOMEM;
  return answerResult;
}

#endif
