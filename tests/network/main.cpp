// Runs the tests in namespaces of their own, as root or as an ordinary user; where neither may make them, the
// tests are skipped and say so.
#include <unistd.h>

#include <cstring>
#include <vector>

#include "tests/network/uplinks.h"

namespace {

// Also prepares what the tests need to write: names of namespaces, and the kernel's wake locks.
constexpr char k_enter[] =
    R"( sh -c 'mount -t tmpfs none /run && mkdir -p /run/power && mount --bind /run/power /sys/power &&
touch /sys/power/wake_lock /sys/power/wake_unlock && exec "$@"' sh )";

void EnterNamespaces(char** argv) {
  const std::string rights = ::geteuid() != 0 ? " --user --map-root-user" : "";
  const std::string enter = "exec unshare --net --mount" + rights + k_enter;
  if (std::system((enter + "true 2>/dev/null").c_str()) != 0) return;
  const std::string program = enter + "\"$@\"";
  std::vector<const char*> words{"sh", "-c", program.c_str(), "sh"};
  for (; *argv != nullptr; ++argv) words.push_back(*argv);
  words.push_back(nullptr);
  ::setenv(zeb::test::k_isolated, "1", 1);
  ::execvp(words[0], const_cast<char**>(words.data()));
}

}  // namespace

int main(int argc, char** argv) {
  const bool lists = argc > 1 && std::strcmp(argv[1], "--gtest_list_tests") == 0;
  if (!lists && std::getenv(zeb::test::k_isolated) == nullptr) EnterNamespaces(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
