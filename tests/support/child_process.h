#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/wait.h"

namespace orvan::test {

// A program that runs beside the test and dies with it.
//
// Threads:   one thread at a time. The kernel ends the program when the *thread* that started it ends, so
//            start servers on the main thread.
// Ownership: the destructor stops the program.
// Errors:    a missing program is a failure with the name of its Debian package, never a skip.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Standard output and error go to `log_path`, standard input is empty. `program` is looked up in PATH
  // and in the sbin folders; `package` is the Debian package that has it.
  ::testing::AssertionResult Start(const std::string& program, const std::vector<std::string>& arguments,
                                   const std::string& log_path, const std::string& package);
  bool Running();
  pid_t pid() const { return pid_; }
  std::string Log() const;  // what it has written so far

  // SIGTERM, and SIGKILL after five seconds. Safe to call again.
  void Stop();

  // Runs a program to its end. A failure tells what it wrote.
  static ::testing::AssertionResult Run(const std::string& program, const std::vector<std::string>& arguments,
                                        const std::string& package, int timeout_ms = 60000);

 private:
  pid_t pid_ = -1;
  int exit_status_ = -1;  // as waitpid() gives it, once the program has ended
  std::string log_path_;
};

}  // namespace orvan::test
