#include "tests/support/test_helpers.h"

#include <fcntl.h>
#include <poll.h>
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

void drainInto(int fd, std::string& sink, bool& open) {
  char chunk[65536];
  const ssize_t got = read(fd, chunk, sizeof chunk);
  if (got > 0) {
    sink.append(chunk, static_cast<size_t>(got));
  } else if (got == 0 || errno != EINTR) {
    open = false;
  }
}

}  // namespace

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
  // An EventLoop ignores SIGCHLD for the whole process, which would let the kernel reap the
  // child before waitpid sees its status.
  signal(SIGCHLD, SIG_DFL);
  int outPipe[2], errPipe[2], inPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) || pipe2(errPipe, O_CLOEXEC) || pipe2(inPipe, O_CLOEXEC)) {
    throw std::runtime_error("pipe failed");
  }
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    dieWithParent(parent);
    dup2(inPipe[0], 0);
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
    std::vector<char*> args;
    for (const std::string& word : argv) args.push_back(const_cast<char*>(word.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  close(inPipe[0]);
  if (!input.empty()) {
    // Small inputs only: larger ones would need the poll loop to write too.
    (void)!write(inPipe[1], input.data(), input.size());
  }
  close(inPipe[1]);

  ProcessResult result;
  bool outOpen = true, errOpen = true;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (outOpen || errOpen) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      result.timedOut = true;
      kill(child, SIGKILL);
      break;
    }
    pollfd fds[2] = {{outOpen ? outPipe[0] : -1, POLLIN, 0}, {errOpen ? errPipe[0] : -1, POLLIN, 0}};
    if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    if (fds[0].revents) drainInto(outPipe[0], result.out, outOpen);
    if (fds[1].revents) drainInto(errPipe[0], result.err, errOpen);
  }
  close(outPipe[0]);
  close(errPipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  while (start < text.size()) {
    const auto end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& outPath,
                           const std::string& errPath, const std::string& cwd) {
  ::signal(SIGCHLD, SIG_DFL);  // see runProcess
  // Closed by the exec: until then /proc still shows this process's image in the child, and a
  // peak taken that early would be ours, not the program's.
  int execDone[2];
  if (pipe2(execDone, O_CLOEXEC) != 0) return;
  const pid_t parent = getpid();
  child = fork();
  if (child == 0) {
    dieWithParent(parent);
    close(execDone[0]);
    const int in = open("/dev/null", O_RDONLY);
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

void ChildProcess::signal(int number) const { kill(child, number); }

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
