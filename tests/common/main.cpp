// Entry of every test executable: runs a child role when asked to, the tests otherwise.
#include <gtest/gtest.h>

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstring>

#include "KlTest.h"

int main(int argc, char** argv) {
  // Started by the test script before the tests: brings up Wine's desktop process
  // away from any test's pipes (it inherits the standard handles of whoever starts it).
  if (argc >= 2 && std::strcmp(argv[1], "--kl-desktop") == 0) {
    return GetDesktopWindow() != nullptr ? 0 : 1;
  }
  if (argc >= 3 && std::strcmp(argv[1], "--kl-child") == 0) {
    auto& roles = kltest::ChildRoles();
    auto it = roles.find(argv[2]);
    if (it == roles.end()) return 99;
    // Roles print exact bytes for the parent to compare.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
    std::vector<std::string> args(argv + 3, argv + argc);
    return it->second(args);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
