// A test that hangs must not hang the whole run silently: after
// KEST2_TEST_TIMEOUT seconds (default 300) a test is declared hung, its name
// and every thread's stack (gdb, when installed) are printed, and the process
// aborts so the run goes on with a failure that says where it stopped.
//
// An alarm rather than a thread keeps the process single-threaded for the
// death tests' fork().
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

char g_testName[512];
char g_pid[32];

void WriteText(const char* text) {
  ssize_t ignored = write(STDERR_FILENO, text, strlen(text));
  (void)ignored;
}

void OnHung(int) {
  WriteText("\n*** test watchdog: ");
  WriteText(g_testName);
  WriteText(" is still running; stacks of every thread follow ***\n");
  pid_t child = fork();
  if (child == 0) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execlp("gdb", "gdb", "-p", g_pid, "-batch", "-nx", "-ex",
           "thread apply all bt", static_cast<char*>(nullptr));
    WriteText("(gdb is not installed: no stacks)\n");
    _exit(127);
  }
  if (child > 0) {
    int status;
    while (waitpid(child, &status, 0) < 0) {
    }
  }
  signal(SIGABRT, SIG_DFL);
  abort();
}

unsigned TimeoutSeconds() {
  const char* text = getenv("KEST2_TEST_TIMEOUT");
  long seconds = text != nullptr ? strtol(text, nullptr, 10) : 300;
  return seconds > 0 ? static_cast<unsigned>(seconds) : 0;
}

class Watchdog : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& info) override {
    snprintf(g_testName, sizeof(g_testName), "%s.%s", info.test_suite_name(),
             info.name());
    alarm(TimeoutSeconds());
  }
  void OnTestEnd(const testing::TestInfo&) override { alarm(0); }
};

struct Installer {
  Installer() {
    snprintf(g_pid, sizeof(g_pid), "%d", static_cast<int>(getpid()));
    // Lets gdb, our own child, attach where the kernel restricts ptrace.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    signal(SIGALRM, OnHung);
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
  }
} g_installer;

}  // namespace
