#include <gtest/gtest.h>

#include "private_opt.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Failure is not fatal: tests that need /opt skip themselves and say why.
  korcommon::testing::enterPrivateOpt();
  return RUN_ALL_TESTS();
}
