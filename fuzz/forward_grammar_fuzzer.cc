// Hostile command lines for `drover forward`: arbitrary words through the grammar alone. The run
// itself (forward()) is never called: it would resolve the targets' names.
//
// Input: the words after "forward", separated by NUL bytes (a word of argv can't hold one).
//
// Sandbox: the harness works in a fresh directory holding a few files, and every '/' in a word
// becomes '_', so sources open only names in that directory. The process runs as root here, and
// opening some device files has effects; the grammar takes no branch on a '/'.
//
// The uncaught exceptions of std::stoi in parseConnectionString end the real process; here they
// are caught at the call boundary and counted, so that only other failures count as findings.
// So is the tail source's failed seek to the end of its file (a directory, on some file systems),
// which stops the real process on its start-up assertion: such inputs are recognised before
// they run, with the constructor's own calls, and counted.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/forward.h"
#include "support/log.h"

namespace {

std::ostream discard(nullptr);
Log* rootLog;
std::string sandbox;
uint64_t inputs;
uint64_t expectedFatal;

const char* const FILES[] = {"log", "app.log", "empty"};

std::set<int> openDescriptors() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) abort();
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') fds.insert(atoi(entry->d_name));
  }
  closedir(dir);
  return fds;
}

void removeSandbox() {
  for (const char* name : FILES) unlink((sandbox + "/" + name).c_str());
  rmdir((sandbox + "/dir").c_str());
  rmdir(sandbox.c_str());
}

// Whether a word "tail" is followed by a name that opens but cannot seek to its end. Words at a
// value's place count too, so a few inputs are set aside that would not have reached the seek.
bool reachesFailedSeek(const std::vector<std::string>& words) {
  for (size_t i = 1; i + 1 < words.size(); ++i) {
    if (words[i] != "tail") continue;
    const int fd = open(words[i + 1].c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) continue;
    const bool failed = static_cast<int>(lseek(fd, 0, SEEK_END)) == -1;
    close(fd);
    if (failed) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  rootLog = new Log(discard);
  std::cerr.rdbuf(nullptr);  // the usage text; libFuzzer writes through stdio, not std::cerr
  char pattern[] = "/tmp/drover-fuzz-grammar-XXXXXX";
  if (!mkdtemp(pattern) || chdir(pattern) != 0) abort();
  sandbox = pattern;
  for (const char* name : FILES) {
    FILE* file = fopen(name, "w");
    if (!file) abort();
    if (std::string(name) != "empty") fputs("2024-01-02 03:04:05 a line\n", file);
    fclose(file);
  }
  mkdir("dir", 0700);
  atexit([] {
    removeSandbox();
    fprintf(stderr, "forward_grammar: %llu inputs, %llu ended on a named fatal path\n",
            static_cast<unsigned long long>(inputs), static_cast<unsigned long long>(expectedFatal));
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ++inputs;
  std::vector<std::string> words{"forward"};
  std::string word;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      words.push_back(word);
      word.clear();
    } else {
      word.push_back(data[i] == '/' ? '_' : static_cast<char>(data[i]));
    }
  }
  if (size > 0) words.push_back(word);
  if (reachesFailedSeek(words)) {
    ++expectedFatal;
    return 0;
  }

  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  // Sources keep their descriptor to the end of the run; here the run ends with the input.
  const std::set<int> before = openDescriptors();
  {
    ForwardSources sources;
    std::vector<ConnectionString> targets;
    try {
      parseForwardArguments(*rootLog, static_cast<int>(words.size()), argv.data(), sources,
                            targets);
    } catch (const std::invalid_argument&) {
      ++expectedFatal;  // std::stoi: a port that doesn't start with a number
    } catch (const std::out_of_range&) {
      ++expectedFatal;  // std::stoi: a port beyond int
    }
  }
  for (int fd : openDescriptors()) {
    if (!before.count(fd)) close(fd);
  }
  return 0;
}
