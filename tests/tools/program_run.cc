// Running the kest2 program: see program_run.h.

#include "tools/program_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "common/temp_dir.h"

extern char** environ;

namespace kest2_test {
namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

bool HaveKest2Program() {
#ifdef KEST2_PROGRAM
  return true;
#else
  return false;
#endif
}

ProgramRun RunKest2(const std::vector<std::string>& arguments) {
#ifdef KEST2_PROGRAM
  const std::string program = KEST2_PROGRAM;
#else
  const std::string program = "kest2";
#endif
  // The output goes to files, so that neither stream can fill a pipe while
  // the other is being read.
  kest2_common::TempDir scratch("kest2_run_");
  const std::string out = scratch.path() + "/out", err = scratch.path() + "/err";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("cannot run " + program);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ProgramRun run;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.out = Slurp(out);
  run.err = Slurp(err);
  return run;
}

}  // namespace kest2_test
