// Runs a program N times and reports its median wall time from fork to exit and its peak
// resident memory, as read from the kernel for each child (wait4), not sampled.
//
//   e2e_measure --runs 20 -- build/bin/notification-service payload.json
//   → runs=20 median_ms=12.4 min_ms=11.9 max_ms=15.0 peak_rss_kb=9132
// Any run that exits with another status than 0 stops the measurement (exit 1).

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  int runs = 20;
  int first = 1;
  for (; first < argc; ++first) {
    const std::string arg = argv[first];
    if (arg == "--runs" && first + 1 < argc) {
      runs = std::atoi(argv[++first]);
    } else if (arg == "--") {
      ++first;
      break;
    } else {
      break;
    }
  }
  if (first >= argc || runs < 1) {
    std::fprintf(stderr, "usage: e2e_measure [--runs N] -- PROGRAM [ARGS...]\n");
    return 2;
  }

  std::vector<double> millis;
  std::vector<long> rss;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      execv(argv[first], argv + first);
      _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const auto end = std::chrono::steady_clock::now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "e2e_measure: run %d of %s ended with status %d\n", i + 1, argv[first],
                   WIFEXITED(status) ? WEXITSTATUS(status) : -1);
      return 1;
    }
    millis.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    rss.push_back(usage.ru_maxrss);
  }
  std::vector<double> sorted = millis;
  std::sort(sorted.begin(), sorted.end());
  const double median = sorted.size() % 2
                            ? sorted[sorted.size() / 2]
                            : (sorted[sorted.size() / 2 - 1] + sorted[sorted.size() / 2]) / 2;
  std::printf("runs=%d median_ms=%.1f min_ms=%.1f max_ms=%.1f peak_rss_kb=%ld\n", runs, median,
              sorted.front(), sorted.back(), *std::max_element(rss.begin(), rss.end()));
  return 0;
}
