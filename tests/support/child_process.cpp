#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QString>
#include <QTemporaryDir>
#include <QtGlobal>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace orvan::test {
namespace {

constexpr int kTermMs = 5000;

// Where `program` is, or nothing. Debian keeps servers in folders that are not in everybody's PATH.
std::string FindProgram(const std::string& program) {
  if (program.find('/') != std::string::npos)
    return access(program.c_str(), X_OK) == 0 ? program : std::string();
  std::istringstream folders(qgetenv("PATH").toStdString() + ":/usr/local/sbin:/usr/sbin:/sbin:/usr/bin");
  for (std::string candidate; std::getline(folders, candidate, ':');) {
    candidate.append("/").append(program);
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

std::string ReadAll(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// In the child, between fork and exec: only what is safe while other threads of the parent may have held
// any lock.
[[noreturn]] void BecomeProgram(const char* program, char** arguments, const char* log_path, pid_t parent) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(126);  // it was gone before we asked to be told
  const int input = open("/dev/null", O_RDONLY);
  const int output = open(log_path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
  if (input < 0 || output < 0) _exit(126);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execv(program, arguments);
  _exit(127);
}

}  // namespace

ChildProcess::~ChildProcess() { Stop(); }

::testing::AssertionResult ChildProcess::Start(const std::string& program,
                                               const std::vector<std::string>& arguments,
                                               const std::string& log_path, const std::string& package) {
  Stop();
  const std::string found = FindProgram(program);
  if (found.empty()) {
    return ::testing::AssertionFailure() << program << " is not installed; it is in the Debian package "
                                         << package << ", which this test needs";
  }
  log_path_ = log_path;
  exit_status_ = -1;
  std::vector<char*> argv = {const_cast<char*>(found.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) BecomeProgram(found.c_str(), argv.data(), log_path_.c_str(), parent);
  if (pid_ < 0)
    return ::testing::AssertionFailure()
           << "cannot start " << program << ": " << qPrintable(qt_error_string(errno));
  setpgid(pid_, pid_);  // on both sides, so that the group is there whoever comes first
  return ::testing::AssertionSuccess();
}

bool ChildProcess::Running() {
  if (pid_ < 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == 0) return true;
  exit_status_ = status;
  pid_ = -1;
  return false;
}

std::string ChildProcess::Log() const { return ReadAll(log_path_); }

void ChildProcess::Stop() {
  if (!Running()) return;
  const pid_t group = -pid_;
  kill(pid_, SIGTERM);
  if (!SpinUntil([this] { return !Running(); }, kTermMs)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &exit_status_, 0);
    pid_ = -1;
  }
  // A server's own children: a few outlive it when it had to be killed.
  kill(group, SIGKILL);
}

::testing::AssertionResult ChildProcess::Run(const std::string& program,
                                             const std::vector<std::string>& arguments,
                                             const std::string& package, int timeout_ms) {
  const QTemporaryDir folder;
  ChildProcess process;
  const auto started =
      process.Start(program, arguments, folder.filePath(QStringLiteral("log")).toStdString(), package);
  if (!started) return started;
  if (!SpinUntil([&process] { return !process.Running(); }, timeout_ms)) {
    return ::testing::AssertionFailure() << program << " has not ended after " << timeout_ms << " ms";
  }
  if (process.exit_status_ != 0) {
    return ::testing::AssertionFailure()
           << program << " failed (wait status " << process.exit_status_ << "): " << process.Log();
  }
  return ::testing::AssertionSuccess();
}

}  // namespace orvan::test
