// Runs the tests in namespaces of their own, as root or as an ordinary user; where neither may make them, the
// tests are skipped and say so.
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "tests/network/uplinks.h"

namespace {

// Also prepares what the tests need to write: names of namespaces, and the kernel's wake locks.
constexpr char k_enter[] =
    "mount -t tmpfs none /run && mkdir -p /run/power && mount --bind /run/power /sys/power && "
    "touch /sys/power/wake_lock /sys/power/wake_unlock && exec \"$@\"";

void EnterNamespaces(char** argv) {
  std::vector<const char*> words{"unshare", "--net", "--mount"};
  if (::geteuid() != 0) words.insert(words.end(), {"--user", "--map-root-user"});
  words.insert(words.end(), {"sh", "-c", k_enter, "sh"});
  const size_t program_at = words.size();
  words.insert(words.end(), {"true", nullptr});
  const pid_t trial = ::fork();
  if (trial == 0) {
    ::execvp(words[0], const_cast<char**>(words.data()));
    ::_exit(1);
  }
  int status = 1;
  if (::waitpid(trial, &status, 0) != trial || status != 0) return;
  words.resize(program_at);
  for (; *argv != nullptr; ++argv) words.push_back(*argv);
  words.push_back(nullptr);
  ::setenv(zeb::test::k_isolated, "1", 1);
  ::execvp(words[0], const_cast<char**>(words.data()));
}

}  // namespace

int main(int argc, char** argv) {
  bool lists = false;
  for (int i = 1; i < argc; ++i) lists |= std::string_view(argv[i]) == "--gtest_list_tests";
  if (!lists && std::getenv(zeb::test::k_isolated) == nullptr) EnterNamespaces(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
