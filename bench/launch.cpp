// Runs a program and writes, once it has ended, how the system accounted for it: start and end
// on the monotonic clock, CPU time, peak memory and exit status.
//
// It is small on purpose: a child starts with the memory high-water mark of the process it was
// forked from, so a large measuring program would report its own peak for a small one.
// Usage: palimbo_bench_launch REPORT PROGRAM [ARG ...]
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

long long MonotonicMicros() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

long long Micros(const timeval& Time) {
  return static_cast<long long>(Time.tv_sec) * 1'000'000 + Time.tv_usec;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const long long start = MonotonicMicros();
  const pid_t pid = fork();
  if (pid == 0) {
    execvp(argv[2], argv + 2);
    _exit(127);
  }
  if (pid < 0) return 1;
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  const long long end = MonotonicMicros();
  std::FILE* report = std::fopen(argv[1], "w");
  if (report == nullptr) return 1;
  std::fprintf(report, "%lld %lld %lld %ld %d\n", start, end,
               Micros(usage.ru_utime) + Micros(usage.ru_stime), usage.ru_maxrss,
               WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  return std::fclose(report) == 0 ? 0 : 1;
}
