// Tests run in the locale of the environment, as a daemon that calls setlocale
// does; the suite is run in more than one.

#include <gtest/gtest.h>

#include <clocale>

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
