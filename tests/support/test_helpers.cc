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
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

ProcessResult runProcess(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) {
  const TempDir files;
  ChildProcess child(argv, files.file("out"), files.file("err"));
  if (!child.wait(timeout)) {
    child.signal(SIGKILL);
    child.wait(std::chrono::seconds(10));
  }
  return {child.exitCode(), child.exitSignal(), readFile(files.file("out")),
          readFile(files.file("err"))};
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& outPath,
                           const std::string& errPath, const std::string& cwd) {
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
    // The child dies with the test, so that a test that crashes or is ended at its time-out
    // leaves no agent or endpoint running behind it. `parent` is taken before the fork: if the
    // test is gone already, the signal would never come.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
    close(execDone[0]);
    if (dup2(open("/dev/null", O_RDONLY), 0) < 0 ||
        dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1) < 0 ||
        dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2) < 0)
      _exit(127);
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
  int status = 0;
  if (reaped || !waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, limit)) {
    return reaped;
  }
  reaped = true;
  if (WIFEXITED(status)) code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) terminatingSignal = WTERMSIG(status);
  return true;
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
  const std::string text = readFile("/proc/" + std::to_string(child) + "/stat");
  // utime and stime are the 12th and 13th fields after the command name, which may hold blanks.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string field[13] = {};
  for (std::string& next : field) fields >> next;
  if (field[12].empty()) return 0;  // gone already: nothing left to read
  return static_cast<double>(std::stoull(field[11]) + std::stoull(field[12])) /
         static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    usleep(10000);
  }
  return true;
}
