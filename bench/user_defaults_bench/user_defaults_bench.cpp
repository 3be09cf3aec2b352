// What storing the signed-in user's credentials costs, on the real disk (a folder beside the
// program, or $HERALD_BENCH_DIR):
//   write  UserDefaults::set of a credentials record: the lock, the read and parse of the
//          file as it is, the JSON text, then a new file written, flushed and renamed over the
//          old one, and the folder flushed;
//   floor  the same bytes written to a new file, flushed, renamed over the old one and the
//          folder flushed: no lock, no JSON, no read. What any crash-safe write must pay.
// The ratio to the floor is printed last ("ratio write: 1.10" means 10% over the floor), in
// real time and in CPU time. Flushes dominate the real time and vary with the disk and its
// other users; the CPU time shows our own work.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/ratio_reporter.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "platform/user_defaults.hpp"

namespace fs = std::filesystem;

namespace {

fs::path& benchFolder() {
  static fs::path folder;
  return folder;
}

// A sign-in with every field set and an access token of a usual length.
boost::json::object credentials() {
  return {{"herald_user_id", "user-8d0c1f52"},
          {"herald_access_token", "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9." + std::string(220, 'x') +
                                      "." + std::string(43, 'y')},
          {"herald_client_key", "ck_live_0123456789abcdef"},
          {"herald_tenant_id", "tenant-photo"}};
}

void BM_Write(benchmark::State& state) {
  const auto file = benchFolder() / "write" / "defaults.json";
  platform::UserDefaults defaults(file);
  const auto record = credentials();
  defaults.set("herald_credentials", record);  // the folder, lock and file exist from here on
  for (auto _ : state) defaults.set("herald_credentials", record);
}

void BM_Floor(benchmark::State& state) {
  const auto folder = benchFolder() / "floor";
  fs::create_directories(folder);
  const auto file = folder / "defaults.json";
  const auto temporary = folder / "defaults.json.tmp";
  const std::string bytes =
      platform::toJSON(boost::json::object{{"herald_credentials", credentials()}},
                       platform::JSONStyle::pretty) +
      "\n";
  for (auto _ : state) {
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        ::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temporary.c_str(), file.c_str()) != 0) {
      state.SkipWithError("the floor's write failed");
      break;
    }
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::fsync(dir);
    ::close(dir);
  }
}

BENCHMARK(BM_Write)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Floor)->Unit(benchmark::kMicrosecond)->UseRealTime();


}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Beside the program rather than in $TMPDIR, which may be memory where a flush costs nothing.
  const char* chosen = std::getenv("HERALD_BENCH_DIR");
  const fs::path base =
      chosen && *chosen ? fs::path(chosen) : fs::absolute(fs::path(argv[0])).parent_path();
  benchFolder() = base / ("user_defaults_bench-" + platform::newUUID());
  std::printf("files in %s\n", benchFolder().c_str());
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_Floor", {{"BM_Write", "write"}});
  benchmark::Shutdown();
  std::error_code ec;
  fs::remove_all(benchFolder(), ec);
  return 0;
}
