#include "timed_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

extern char** environ;

namespace palimbo::bench {

TimedRun RunTimed(const std::vector<std::string>& Argv, const std::string& OutputPath,
                  const std::string& ErrorPath) {
  TimedRun run;
  char reportPath[] = "/tmp/palimbo-bench-run-XXXXXX";
  const int reportFd = mkstemp(reportPath);
  if (reportFd < 0) return run;
  close(reportFd);

  // The launcher does the measuring, from a process small enough not to lend the program its
  // own peak memory.
  std::vector<std::string> launch = {PALIMBO_BENCH_LAUNCH, reportPath};
  launch.insert(launch.end(), Argv.begin(), Argv.end());
  std::vector<char*> args;
  for (const std::string& a : launch) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, OutputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  if (ErrorPath.empty()) {
    posix_spawn_file_actions_adddup2(&files, 1, 2);
  } else {
    posix_spawn_file_actions_addopen(&files, 2, ErrorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
  }
  pid_t pid = 0;
  const int failed = posix_spawn(&pid, args[0], &files, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  if (failed == 0) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::FILE* report = std::fopen(reportPath, "r");
    long long start = 0, end = 0, cpu = 0, peak = 0;
    int exitStatus = -1;
    if (report != nullptr && std::fscanf(report, "%lld %lld %lld %lld %d", &start, &end, &cpu,
                                         &peak, &exitStatus) == 5) {
      run.Started = exitStatus != 127;
      run.ExitStatus = exitStatus;
      run.StartMicros = start;
      run.EndMicros = end;
      run.WallSeconds = static_cast<double>(end - start) / 1e6;
      run.CpuSeconds = static_cast<double>(cpu) / 1e6;
      run.PeakKiB = peak;
    }
    if (report != nullptr) std::fclose(report);
  }
  std::remove(reportPath);
  return run;
}

double Median(std::vector<double> Values) {
  if (Values.empty()) return 0;
  std::sort(Values.begin(), Values.end());
  const size_t mid = Values.size() / 2;
  return Values.size() % 2 == 1 ? Values[mid] : (Values[mid - 1] + Values[mid]) / 2;
}

}  // namespace palimbo::bench
