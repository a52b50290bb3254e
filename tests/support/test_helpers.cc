#include "tests/support/test_helpers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
  char pattern[] = "/tmp/drover-test-XXXXXX";
  if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
  root = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void appendFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::app) << content;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

namespace {

// In a child between fork and exec: it dies with the test, so that a test that crashes or is
// ended at its time-out leaves no agent or endpoint running behind it. `parent` is the test's
// pid, taken before the fork: if the test is gone already, the signal would never come.
void dieWithParent(pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
                         const std::string& cwd, const std::string& input) {
  const TempDir files;
  writeFile(files.file("in"), input);
  ChildProcess child(argv, files.file("out"), files.file("err"), cwd, files.file("in"));
  ProcessResult result;
  result.timedOut = !child.wait(timeout);
  if (result.timedOut) {
    child.signal(SIGKILL);
    child.wait(std::chrono::seconds(10));
  }
  result.exitCode = child.exitCode();
  result.signal = child.exitSignal();
  result.out = readFile(files.file("out"));
  result.err = readFile(files.file("err"));
  return result;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& outPath,
                           const std::string& errPath, const std::string& cwd,
                           const std::string& inPath) {
  // An EventLoop ignores SIGCHLD for the whole process, which would let the kernel reap the
  // child before waitpid sees its status.
  ::signal(SIGCHLD, SIG_DFL);
  // Closed by the exec: until then /proc still shows this process's image in the child, and a
  // peak taken that early would be ours, not the program's.
  int execDone[2];
  if (pipe2(execDone, O_CLOEXEC) != 0) return;
  const pid_t parent = getpid();
  child = fork();
  if (child == 0) {
    dieWithParent(parent);
    close(execDone[0]);
    const int in = open(inPath.c_str(), O_RDONLY);
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
    std::vector<char*> args;
    for (const std::string& word : argv) args.push_back(const_cast<char*>(word.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(execDone[1]);
  char ignored;
  while (read(execDone[0], &ignored, 1) < 0 && errno == EINTR) {
  }
  close(execDone[0]);
}

ChildProcess::~ChildProcess() {
  if (child > 0 && !reaped) {
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
  }
}

void ChildProcess::signal(int number) const {
  kill(child, number);
}

bool ChildProcess::wait(std::chrono::milliseconds limit) {
  if (reaped) return true;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) {
      reaped = true;
      if (WIFEXITED(status)) code = WEXITSTATUS(status);
      if (WIFSIGNALED(status)) terminatingSignal = WTERMSIG(status);
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    usleep(10000);
  }
}

long ChildProcess::memoryKib(const std::string& field) const {
  std::ifstream status("/proc/" + std::to_string(child) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
  }
  return 0;
}

double ChildProcess::cpuSeconds() const {
  std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // utime and stime are the 12th and 13th fields after the command name, which may hold blanks.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string field;
  unsigned long long ticks = 0;
  for (int i = 0; i < 13 && fields >> field; ++i) {
    if (i >= 11) ticks += std::stoull(field);
  }
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    usleep(10000);
  }
  return true;
}
