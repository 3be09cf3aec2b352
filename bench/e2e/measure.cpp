// Runs one or more programs N times each and reports, per program, the median wall time from
// fork to exit, the median CPU time (user + system, all threads) and the median and largest
// peak resident memory of a run, as read from the kernel for each child (wait4), not sampled.
//
//   e2e_measure --runs 20 -- bin/notification-service p.json -- bin/e2e_floor_fetch URL
//   → notification-service runs=20 median_ms=24.4 min_ms=21.9 max_ms=31.0 cpu_ms=18.2
//     peak_rss_kb=15132 max_peak_rss_kb=15460
//   e2e_floor_fetch runs=20 median_ms=19.1 min_ms=17.0 max_ms=25.3 cpu_ms=16.4 ...
//
// Programs are separated by "--". The runs alternate between the programs (A B A B ...), so
// that a busy moment of the machine falls on all of them alike, and each program runs once
// before the measurement starts (page cache, the server's first connection) without being
// counted. Any run that exits with another status than 0 stops the measurement (exit 1).

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

namespace {

struct Program {
  std::vector<char*> argv;  // null-terminated
  std::vector<double> millis;
  std::vector<double> cpuMillis;
  std::vector<double> peakKB;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double millisOf(const timeval& t) {
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3;
}

// Returns false when the program did not exit with status 0.
bool runOnce(Program& program, bool counted) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execv(program.argv[0], program.argv.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  const auto end = std::chrono::steady_clock::now();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "e2e_measure: %s ended with status %d\n", program.argv[0],
                 WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return false;
  }
  if (counted) {
    program.millis.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    program.cpuMillis.push_back(millisOf(usage.ru_utime) + millisOf(usage.ru_stime));
    program.peakKB.push_back(static_cast<double>(usage.ru_maxrss));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 20;
  int first = 1;
  for (; first < argc; ++first) {
    const std::string arg = argv[first];
    if (arg == "--runs" && first + 1 < argc) {
      runs = std::atoi(argv[++first]);
    } else if (arg == "--") {
      break;
    } else {
      first = argc;  // unknown option: usage
    }
  }
  std::vector<Program> programs;
  for (int i = first; i < argc; ++i) {
    if (std::string(argv[i]) == "--") {
      programs.emplace_back();
    } else {
      programs.back().argv.push_back(argv[i]);
    }
  }
  const bool complete =
      !programs.empty() &&
      std::all_of(programs.begin(), programs.end(), [](const auto& p) { return !p.argv.empty(); });
  if (!complete || runs < 1) {
    std::fprintf(stderr,
                 "usage: e2e_measure [--runs N] -- PROGRAM [ARGS...] [-- PROGRAM [ARGS...]]...\n");
    return 2;
  }
  for (auto& program : programs) program.argv.push_back(nullptr);

  for (auto& program : programs)
    if (!runOnce(program, false)) return 1;
  for (int i = 0; i < runs; ++i)
    for (auto& program : programs)
      if (!runOnce(program, true)) return 1;

  for (const auto& program : programs) {
    std::string name = program.argv[0];
    name = name.substr(name.find_last_of('/') + 1);
    const auto [low, high] = std::minmax_element(program.millis.begin(), program.millis.end());
    std::printf(
        "%s runs=%d median_ms=%.1f min_ms=%.1f max_ms=%.1f cpu_ms=%.1f peak_rss_kb=%.0f "
        "max_peak_rss_kb=%.0f\n",
        name.c_str(), runs, median(program.millis), *low, *high, median(program.cpuMillis),
        median(program.peakKB), *std::max_element(program.peakKB.begin(), program.peakKB.end()));
  }
  return 0;
}
