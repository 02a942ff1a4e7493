#pragma once

// Runs the built `tarn` program as a user would and collects what it says.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace tarn::test {

struct ToolRun {
  int status = -1;  // exit status; -1 when it did not exit normally
  std::string out;
  std::string err;
};

class Tool {
 public:
  // Starts `tarn args…` with standard output and error in files of `scratch`
  // and standard input from `input` (a file; empty: /dev/null).
  // `env` holds "NAME=value" settings for the program alone.
  static pid_t Start(const std::vector<std::string>& args, const std::string& scratch,
                     const std::string& input = "", int input_fd = -1,
                     const std::vector<std::string>& env = {}) {
    const std::string out = scratch + "/tool.out";
    const std::string err = scratch + "/tool.err";
    pid_t pid = fork();
    if (pid != 0) return pid;
    for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
    int in = input_fd >= 0 ? input_fd : open(input.empty() ? "/dev/null" : input.c_str(), O_RDONLY);
    dup2(in, 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(TARN_TOOL_PATH));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(TARN_TOOL_PATH, argv.data());
    _exit(127);
  }

  static ToolRun Wait(pid_t pid, const std::string& scratch) {
    int raw = 0;
    waitpid(pid, &raw, 0);
    ToolRun run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = ReadWholeFile(scratch + "/tool.out");
    run.err = ReadWholeFile(scratch + "/tool.err");
    return run;
  }

  static ToolRun Run(const std::vector<std::string>& args, const std::string& scratch,
                     const std::string& input = "") {
    return Wait(Start(args, scratch, input), scratch);
  }
};

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace tarn::test
