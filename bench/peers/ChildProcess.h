#pragma once

// A command-line tool run as a child process: the compressors and their
// decompressors. Its CPU time and peak memory are read when it is waited
// for.

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/Measure.h"

namespace Tarn::Bench {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs `argv` (found on PATH) with standard input from `in_path` and
  // standard output into `out_path`, and waits for it.
  bool Run(const std::vector<std::string>& argv, const std::string& in_path,
           const std::string& out_path, std::string& error);

  // Starts `argv` with its standard output readable from Output().
  bool Start(const std::vector<std::string>& argv, std::string& error);
  std::FILE* Output() const { return output_; }
  // Closes the output and waits; false unless the child exited with 0.
  bool Wait(std::string& error);

  // What the child used, once waited for.
  const Usage& usage() const { return usage_; }

 private:
  bool Spawn(const std::vector<std::string>& argv, int in_fd, int out_fd, std::string& error);

  pid_t pid_ = -1;
  std::FILE* output_ = nullptr;
  std::string name_;
  Usage usage_;
};

}  // namespace Tarn::Bench
