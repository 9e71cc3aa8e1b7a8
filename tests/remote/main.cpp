// The cross-process tests' entry point. With --host PREFIX MODULES the binary is the child
// process hosting fake modules; otherwise it runs the tests. Either way DDS stays on the
// loopback interface (no multicast, 127.0.0.1 as the one peer): the transport's default.

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "remote_fixture.h"

// Cyclone DDS is not built with ThreadSanitizer: its own atomics and lock-free queues are
// invisible to it and show as races inside the library. Compiled in rather than passed in
// TSAN_OPTIONS so that the child processes this binary starts get them too. Races in our own
// code are still reported.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libddsc.so\ncalled_from_lib:libddsc.so\n";
}

int main(int argc, char** argv) {
  // The transport's default network, loopback only, whatever the environment asks for.
  ::unsetenv("KRTRACKER_DDS_CONFIG");
  ::unsetenv("CYCLONEDDS_URI");
  if (argc == 4 && std::strcmp(argv[1], "--host") == 0)
    return remotetest::runHost(argv[2], argv[3]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
