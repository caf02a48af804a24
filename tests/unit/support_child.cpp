// A process for the tests of the test support code.
//
//   support_child claim   claims a DDS domain, prints "ID DOVA_DOMAIN_ID=VALUE", then
//                         holds it until killed; status 1 and the reason when none is free
//   support_child hang    prints "hanging", then waits until killed
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "dds_domain.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (std::strcmp(argv[1], "claim") == 0) {
    try {
      const std::string domain = korcommon::testing::claimDdsDomain();
      const char* variable = std::getenv("DOVA_DOMAIN_ID");
      std::printf("%s DOVA_DOMAIN_ID=%s\n", domain.c_str(), variable ? variable : "");
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
    }
  } else if (std::strcmp(argv[1], "hang") == 0) {
    std::printf("hanging\n");
  } else {
    return 2;
  }
  std::fflush(stdout);
  for (;;) pause();
}
