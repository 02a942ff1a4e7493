#include "peers/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace Tarn::Bench {

ChildProcess::~ChildProcess() {
  std::string ignored;
  if (pid_ > 0) Wait(ignored);
}

bool ChildProcess::Spawn(const std::vector<std::string>& argv, int in_fd, int out_fd,
                         std::string& error) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (in_fd >= 0) posix_spawn_file_actions_adddup2(&actions, in_fd, STDIN_FILENO);
  if (out_fd >= 0) posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  const int failed = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  name_ = argv[0];
  if (failed != 0) {
    pid_ = -1;
    error = "cannot run " + name_ + ": " + std::strerror(failed);
  }
  return failed == 0;
}

bool ChildProcess::Run(const std::vector<std::string>& argv, const std::string& in_path,
                       const std::string& out_path, std::string& error) {
  const int in = open(in_path.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool ok = in >= 0 && out >= 0;
  if (!ok) error = "cannot open " + (in < 0 ? in_path : out_path);
  ok = ok && Spawn(argv, in, out, error);
  if (in >= 0) close(in);
  if (out >= 0) close(out);
  return ok && Wait(error);
}

bool ChildProcess::Start(const std::vector<std::string>& argv, std::string& error) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    error = "cannot make a pipe";
    return false;
  }
  const bool ok = Spawn(argv, -1, pipe_fds[1], error);
  close(pipe_fds[1]);
  if (!ok) {
    close(pipe_fds[0]);
    return false;
  }
  output_ = fdopen(pipe_fds[0], "r");
  return output_ != nullptr;
}

bool ChildProcess::Wait(std::string& error) {
  if (output_ != nullptr) {
    std::fclose(output_);
    output_ = nullptr;
  }
  int status = 0;
  rusage r{};
  pid_t waited;
  do {
    waited = wait4(pid_, &status, 0, &r);
  } while (waited < 0 && errno == EINTR);
  pid_ = -1;
  usage_.cpu_seconds = static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
                       static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
  usage_.max_rss_kib = static_cast<uint64_t>(r.ru_maxrss);
  const bool ok = waited > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!ok) error = name_ + " failed";
  return ok;
}

}  // namespace Tarn::Bench
