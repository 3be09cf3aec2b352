// A child signs users in and out through the facade as fast as it can while this process kills
// it with SIGKILL at random moments. After every kill the store must hold a whole credentials
// record or none: a file that parses, no file moved aside as corrupt, fields all from one
// sign-in.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "herald/herald.hpp"
#include "herald/user_manager.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "platform/user_defaults.hpp"

namespace fs = std::filesystem;

namespace {

// Every field of one sign-in carries the same tag, so that a record stitched together from
// two sign-ins shows.
struct SignIn {
  std::string userId, accessToken;
  std::optional<std::string> clientKey, tenantId;

  static SignIn number(const std::string& tag, long i) {
    SignIn s{"user-" + tag, "jwt-" + tag, std::nullopt, std::nullopt};
    if (i % 2) s.clientKey = "key-" + tag;
    if (i % 3 == 0) s.tenantId = "tenant-" + tag;
    return s;
  }
};

void send(int fd, const std::string& text) {
  if (::write(fd, text.data(), text.size()) < 0) ::_exit(3);
}

// Never returns: it runs until it is killed, or exits after telling the parent what went wrong.
[[noreturn]] void signInAndOutUntilKilled(const fs::path& file, int round, int reportFd) {
  try {
    platform::UserDefaults defaults(file);
    herald::UserManager users(defaults);
    auto facade = herald::Herald::create(users);
    send(reportFd, "r");
    for (long i = 0;; ++i) {
      const auto s = SignIn::number(std::to_string(round) + "-" + std::to_string(i), i);
      platform::blockOn(facade->signIn(s.userId, s.tenantId, s.accessToken, s.clientKey));
      // The facade never throws; a write it could not make shows as a missing user.
      if (users.userId() != s.userId) {
        send(reportFd, "sign-in of " + s.userId + " was not stored");
        ::_exit(1);
      }
      platform::blockOn(facade->signOut());
      if (users.userId()) {
        send(reportFd, "sign-out after " + s.userId + " left a user");
        ::_exit(1);
      }
    }
  } catch (const std::exception& e) {
    send(reportFd, e.what());
  }
  ::_exit(1);
}

std::string bytesOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream out;
  out << in.rdbuf();
  return out.str();
}

/// What the store holds after a kill: "" when all is well, else what is wrong.
std::string checkStore(const fs::path& folder, bool& signedIn, bool& tempLeft) {
  signedIn = tempLeft = false;
  int temporaries = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const auto name = entry.path().filename().string();
    if (name == "defaults.json" || name == "defaults.json.lock") continue;
    if (name.rfind("defaults.json.tmp-", 0) == 0) {
      ++temporaries;
      continue;
    }
    return "unexpected file " + name;
  }
  // Each writer clears the temporary files of writers that died before it.
  if (temporaries > 1) return std::to_string(temporaries) + " temporary files";
  tempLeft = temporaries == 1;

  const auto file = folder / "defaults.json";
  if (!fs::exists(file)) return "";
  const auto bytes = bytesOf(file);
  const auto parsed = platform::tryParseJSON(bytes);
  if (!parsed || !parsed->is_object()) return "the store does not parse: " + bytes;
  const auto& store = parsed->get_object();
  const auto* record = store.if_contains("herald_credentials");
  if (!record) return store.empty() ? "" : "unexpected keys: " + bytes;
  if (!record->is_object()) return "the record is not an object: " + bytes;

  const auto& fields = record->get_object();
  auto text = [&](const char* key) -> std::optional<std::string> {
    const auto* v = fields.if_contains(key);
    if (!v || !v->is_string()) return std::nullopt;
    return std::string(v->get_string());
  };
  const auto user = text("herald_user_id");
  if (!user || user->rfind("user-", 0) != 0) return "no user id: " + bytes;
  const auto tag = user->substr(5);
  const auto i = std::stol(tag.substr(tag.find('-') + 1));
  const auto expected = SignIn::number(tag, i);
  std::size_t count = 2 + (expected.clientKey ? 1 : 0) + (expected.tenantId ? 1 : 0);
  if (fields.size() != count || text("herald_access_token") != expected.accessToken ||
      text("herald_client_key") != expected.clientKey ||
      text("herald_tenant_id") != expected.tenantId)
    return "not one sign-in's record: " + bytes;
  signedIn = true;
  return "";
}

int fromEnvironment(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::atoi(value) : fallback;
}

}  // namespace

TEST(CredentialsCrash, AKilledSignInOrSignOutLeavesAWholeRecordOrNone) {
  const auto folder = platform::temporaryDirectory() / ("crash-" + platform::newUUID());
  fs::create_directories(folder);
  const auto file = folder / "defaults.json";
  const int kills = fromEnvironment("HERALD_CRASH_KILLS", 1000);
  const auto seed =
      static_cast<unsigned>(fromEnvironment("HERALD_CRASH_SEED", std::random_device{}()));
  std::mt19937 random(seed);
  // Up to a few sign-in and sign-out cycles, each two writes with their flushes.
  std::uniform_int_distribution<int> delayMicroseconds(0, 4000);

  int survived = 0, midWrite = 0, signedIn = 0;
  for (int round = 0; round < kills; ++round) {
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(pipeFds[0]);
      signInAndOutUntilKilled(file, round, pipeFds[1]);
    }
    ::close(pipeFds[1]);

    // Wait (bounded) until the child is in its loop, then let it run for a random while.
    pollfd ready{pipeFds[0], POLLIN, 0};
    const bool started = ::poll(&ready, 1, 10'000) == 1;
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicroseconds(random)));
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::string report;
    char buffer[512];
    for (ssize_t n; (n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;) report.append(buffer, n);
    ::close(pipeFds[0]);

    ASSERT_TRUE(started) << "round " << round << ": the child never started";
    ASSERT_TRUE(WIFSIGNALED(status)) << "round " << round << ": the child failed: " << report;
    ASSERT_EQ(report, "r") << "round " << round;
    bool in = false, temp = false;
    const auto problem = checkStore(folder, in, temp);
    ASSERT_EQ(problem, "") << "after kill " << round + 1 << " (seed " << seed << ")";
    ++survived;
    midWrite += temp;
    signedIn += in;
  }
  std::printf(
      "kills survived: %d (seed %u); a write was in flight at %d of them, a user signed in at %d\n",
      survived, seed, midWrite, signedIn);
  RecordProperty("kills_survived", survived);

  // What was left is an ordinary store: the next process reads it as it is.
  EXPECT_NO_THROW(platform::UserDefaults(file).dictionaryRepresentation());
  fs::remove_all(folder);
}
