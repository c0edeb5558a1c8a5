// Entry of every test executable: runs a child role when asked to, the tests otherwise.
#include <gtest/gtest.h>

#include <cstring>

#include "KlTest.h"

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--kl-child") == 0) {
    auto& roles = kltest::ChildRoles();
    auto it = roles.find(argv[2]);
    if (it == roles.end()) return 99;
    std::vector<std::string> args(argv + 3, argv + argc);
    return it->second(args);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
