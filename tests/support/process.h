#pragma once

// A child process with its stdout on a pipe, for tests that run the real programs.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace palimbo::testing {

class Process {
 public:
  /// Starts `Args[0]` with the arguments behind it; stderr goes to `StderrFile`.
  Process(const std::vector<std::string>& Args, const std::string& StderrFile) {
    int out[2];
    if (pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      const int err = open(StderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (err >= 0) dup2(err, STDERR_FILENO);
      close(out[0]);
      std::vector<char*> argv;
      for (const auto& a : Args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(out[1]);
    out_ = out[0];
  }
  ~Process() {
    if (pid_ > 0 && !waited_) {
      kill(pid_, SIGKILL);
      Wait();
    }
    if (out_ >= 0) close(out_);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Reads stdout until a line ending in `Text` has come, or the time is up. Returns whether
  /// it came; everything read is kept in `Output`.
  bool WaitForLine(const std::string& Text, int TimeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    for (;;) {
      for (size_t at = 0; (at = Output.find(Text + "\n", at)) != std::string::npos; ++at) {
        if (at == 0 || Output[at - 1] == '\n' || Output[at - 1] == '\t') return true;
      }
      if (!ReadSome(MsLeft(until))) return false;
    }
  }

  /// Reads stdout until `Text` stands anywhere in it, or the time is up. Returns whether it came.
  bool WaitForText(const std::string& Text, int TimeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    while (Output.find(Text) == std::string::npos) {
      if (!ReadSome(MsLeft(until))) return false;
    }
    return true;
  }

  /// The first line of stdout, waiting for it at most `TimeoutMs`.
  std::string FirstLine(int TimeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    while (Output.find('\n') == std::string::npos && ReadSome(MsLeft(until))) {
    }
    return Output.substr(0, Output.find('\n'));
  }

  /// The lines of stdout once the first has come, such as the device paths of `simulate
  /// --count N`, which prints them all and then flushes once.
  std::vector<std::string> Lines(int TimeoutMs) {
    FirstLine(TimeoutMs);
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = Output.find('\n', at)) != std::string::npos; at = end + 1) {
      lines.push_back(Output.substr(at, end - at));
    }
    return lines;
  }

  void Signal(int Number) { kill(pid_, Number); }

  /// Reads the rest of stdout and returns the exit status (128 + signal when killed).
  int Wait() {
    while (ReadSome(60000)) {
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string Output;

 private:
  static int MsLeft(std::chrono::steady_clock::time_point Until) {
    const auto left = Until - std::chrono::steady_clock::now();
    return static_cast<int>(
        std::max<int64_t>(0, std::chrono::duration_cast<std::chrono::milliseconds>(left).count()));
  }
  bool ReadSome(int TimeoutMs) {
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, TimeoutMs) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0) return false;
    Output.append(buffer, static_cast<size_t>(n));
    return true;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  bool waited_ = false;
};

}  // namespace palimbo::testing
