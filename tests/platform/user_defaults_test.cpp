#include "platform/user_defaults.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/child_process.hpp"
#include "platform/error.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "platform/system_log.hpp"

namespace fs = std::filesystem;
using test_support::ChildProcess;
using test_support::runInChild;

namespace {

class TemporaryFolder {
 public:
  TemporaryFolder() : path_(platform::temporaryDirectory() / ("defaults-" + platform::newUUID())) {
    fs::create_directories(path_);
  }
  ~TemporaryFolder() {
    std::error_code ec;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(path_, ec);
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

std::string bytesOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeBytes(const fs::path& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

/// Names in `folder` other than the store and its lock.
std::vector<std::string> strayFiles(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const auto name = entry.path().filename().string();
    if (name != "defaults.json" && name != "defaults.json.lock") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

unsigned modeOf(const fs::path& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 07777;
}

boost::json::value nestedArrays(std::size_t depth) {
  boost::json::value v = boost::json::array();
  for (std::size_t i = 1; i < depth; ++i) v = boost::json::array{std::move(v)};
  return v;
}

}  // namespace

TEST(UserDefaults, AValueSetInOneProcessIsReadInAnotherAndTheFileIsTheOwnersAlone) {
  TemporaryFolder folder;
  // A folder that does not exist yet is made on the first change.
  const auto file = folder.path() / "config" / "herald" / "defaults.json";
  platform::UserDefaults defaults(file);
  EXPECT_EQ(defaults.string("greeting"), std::nullopt);

  auto child = runInChild([&](const ChildProcess::Write&) {
    platform::UserDefaults(file).set("greeting", "hello from the child");
    return 0;
  });
  ASSERT_EQ(child.exitCode, 0) << child.output;
  EXPECT_EQ(defaults.string("greeting"), "hello from the child");

  defaults.set("record", boost::json::object{{"a", "1"}, {"n", 2}});
  child = runInChild([&](const ChildProcess::Write& write) {
    platform::UserDefaults store(file);
    write(platform::toJSON(store.object("record").value()) + " " +
          store.string("greeting").value());
    return 0;
  });
  EXPECT_EQ(child.output, R"({"a":"1","n":2} hello from the child)");

  EXPECT_EQ(modeOf(file), 0600u);
  EXPECT_EQ(modeOf(fs::path(file) += ".lock"), 0600u);
  EXPECT_EQ(modeOf(file.parent_path()), 0700u);
  EXPECT_TRUE(strayFiles(file.parent_path()).empty());

  defaults.removeObject("greeting");
  defaults.removeObject("never-there");
  EXPECT_EQ(defaults.dictionaryRepresentation(),
            (boost::json::object{{"record", {{"a", "1"}, {"n", 2}}}}));
}

TEST(UserDefaults, TwoProcessesWritingAtOnceLoseNoChange) {
  TemporaryFolder folder;
  const auto file = folder.path() / "defaults.json";
  constexpr int kRounds = 200;
  // Each child alternates a read-modify-write of one shared counter with a key of its own.
  auto writer = [&](int id) {
    return [&, id](const ChildProcess::Write&) {
      platform::UserDefaults store(file);
      for (int i = 0; i < kRounds; ++i) {
        if (i % 2 == 0) {
          store.update([](boost::json::object& o) {
            o["count"] = (o.contains("count") ? o["count"].as_int64() : 0) + 1;
            return true;
          });
        } else {
          store.set("child" + std::to_string(id) + "-" + std::to_string(i), i);
        }
      }
      return 0;
    };
  };
  ChildProcess first(writer(1)), second(writer(2));
  const auto a = first.finish(), b = second.finish();
  ASSERT_EQ(a.exitCode, 0) << a.output;
  ASSERT_EQ(b.exitCode, 0) << b.output;

  const auto store = platform::UserDefaults(file).dictionaryRepresentation();
  EXPECT_EQ(store.at("count").as_int64(), kRounds);
  EXPECT_EQ(store.size(), 1u + kRounds);
  EXPECT_TRUE(strayFiles(folder.path()).empty());
}

TEST(UserDefaults, ThreadsOfOneProcessShareTheStandardStoreWhereverItIsPut) {
  TemporaryFolder folder;
  platform::UserDefaults::setStandardDirectory(folder.path() / "a");
  auto& standard = platform::UserDefaults::standard();
  EXPECT_EQ(standard.file(), folder.path() / "a" / "defaults.json");

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 10; ++i) {
        platform::UserDefaults::standard().update([](boost::json::object& o) {
          o["count"] = (o.contains("count") ? o["count"].as_int64() : 0) + 1;
          return true;
        });
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(standard.object("count"), boost::json::value(40));

  // The same object follows the folder; the store it left stays where it was.
  platform::UserDefaults::setStandardDirectory(folder.path() / "b");
  EXPECT_EQ(&platform::UserDefaults::standard(), &standard);
  EXPECT_EQ(standard.object("count"), std::nullopt);
  standard.set("where", "b");
  EXPECT_EQ(platform::UserDefaults(folder.path() / "b" / "defaults.json").string("where"), "b");
  EXPECT_EQ(platform::UserDefaults(folder.path() / "a" / "defaults.json").object("count"),
            boost::json::value(40));

  platform::UserDefaults::setStandardDirectory(std::nullopt);
}

TEST(UserDefaults, AnUnreadableFileIsMovedAsideOnceAndTheStoreStartsEmpty) {
  TemporaryFolder folder;
  const auto file = folder.path() / "defaults.json";
  const std::string torn = R"({"herald_credentials": {"herald_user_id": "u)";
  writeBytes(file, torn);
  platform::UserDefaults defaults(file);

  platform::CapturedLog log;
  EXPECT_TRUE(defaults.dictionaryRepresentation().empty());
  EXPECT_EQ(defaults.string("herald_credentials"), std::nullopt);  // no second move, no log
  auto aside = strayFiles(folder.path());
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(aside[0].rfind("defaults.json.corrupt-", 0), 0u) << aside[0];
  EXPECT_EQ(aside[0].size(), std::string("defaults.json.corrupt-20261123T101500Z").size())
      << aside[0];
  EXPECT_EQ(bytesOf(folder.path() / aside[0]), torn);

  const auto records = log.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].subsystem, "platform");
  EXPECT_EQ(records[0].category, "UserDefaults");
  EXPECT_EQ(records[0].type, platform::LogType::error);
  EXPECT_NE(records[0].message.find(file.string() + " "), std::string::npos) << records[0].message;
  EXPECT_NE(records[0].message.find((folder.path() / aside[0]).string()), std::string::npos);

  defaults.set("next", "works");
  EXPECT_EQ(defaults.string("next"), "works");

  // Valid JSON that is not an object is as unreadable; found by a change this time, in the
  // same second, it must not take the earlier file's name.
  writeBytes(file, "[1, 2]");
  defaults.set("after", true);
  EXPECT_EQ(defaults.dictionaryRepresentation(), (boost::json::object{{"after", true}}));
  aside = strayFiles(folder.path());
  ASSERT_EQ(aside.size(), 2u);
  std::vector<std::string> contents{bytesOf(folder.path() / aside[0]),
                                    bytesOf(folder.path() / aside[1])};
  std::sort(contents.begin(), contents.end());
  EXPECT_EQ(contents, (std::vector<std::string>{"[1, 2]", torn}));
  EXPECT_EQ(log.records().size(), 2u);
}

TEST(UserDefaults, AValueTooDeepToReadBackIsRefusedBeforeAnythingIsWritten) {
  TemporaryFolder folder;
  platform::UserDefaults defaults(folder.path() / "defaults.json");
  defaults.set("kept", 1);
  const auto before = bytesOf(defaults.file());

  // The store's own object is one level: a value may nest one level less than the parser allows.
  defaults.set("deep", nestedArrays(platform::kMaxJSONDepth - 1));
  EXPECT_TRUE(defaults.object("deep").has_value());
  defaults.removeObject("deep");
  try {
    defaults.set("deep", nestedArrays(platform::kMaxJSONDepth));
    FAIL() << "a value the store could not read back was written";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.domain(), "NSCocoaErrorDomain");
    EXPECT_EQ(e.code(), platform::user_defaults_error::valueNotStorable);
  }
  EXPECT_EQ(bytesOf(defaults.file()), before);
}

TEST(UserDefaults, AFailedWriteThrowsAndLeavesTheOldFileAsItWas) {
  TemporaryFolder folder;
  const auto file = folder.path() / "defaults.json";
  platform::UserDefaults(file).set("old", "value");
  const auto before = bytesOf(file);

  // A folder the writer may not change. Root may change any folder, so the child gives up
  // root first.
  fs::permissions(folder.path(), fs::perms::owner_read | fs::perms::owner_exec |
                                     fs::perms::group_read | fs::perms::group_exec |
                                     fs::perms::others_read | fs::perms::others_exec);
  for (const auto& f : {file, fs::path(file) += ".lock"})
    fs::permissions(f, fs::perms::owner_read | fs::perms::others_read, fs::perm_options::add);
  auto denied = runInChild([&](const ChildProcess::Write& write) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 2;
    platform::UserDefaults store(file);
    write(store.string("old").value_or("?") + "|");
    try {
      store.set("new", "value");
    } catch (const platform::Error& e) {
      write(e.domain() + "|" + std::to_string(e.code()) + "|" + e.localizedDescription());
      return 0;
    }
    return 1;
  });
  ASSERT_EQ(denied.exitCode, 0) << denied.output;
  EXPECT_EQ(denied.output.rfind(
                "value|NSCocoaErrorDomain|513|Could not create " + file.string() + ".tmp-", 0),
            0u)
      << denied.output;
  EXPECT_NE(denied.output.find(": Permission denied"), std::string::npos) << denied.output;
  fs::permissions(folder.path(), fs::perms::owner_all, fs::perm_options::add);
  EXPECT_EQ(bytesOf(file), before);

  // Running out of room halfway through the new file (a file size limit stands in for a
  // full disk): the partial file goes, the old one stays.
  auto full = runInChild([&](const ChildProcess::Write& write) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{64, 64};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    try {
      platform::UserDefaults(file).set("new", boost::json::string(1000, 'x'));
    } catch (const platform::Error& e) {
      write(std::to_string(e.code()) + "|" + e.localizedDescription());
      return 0;
    }
    return 1;
  });
  ASSERT_EQ(full.exitCode, 0) << full.output;
  EXPECT_EQ(full.output.rfind("640|Could not write " + file.string() + ".tmp-", 0), 0u)
      << full.output;
  EXPECT_NE(full.output.find(": File too large"), std::string::npos) << full.output;
  EXPECT_EQ(bytesOf(file), before);
  EXPECT_TRUE(strayFiles(folder.path()).empty());

  // A folder that cannot be made.
  writeBytes(folder.path() / "plain-file", "");
  try {
    platform::UserDefaults(folder.path() / "plain-file" / "sub" / "defaults.json").set("a", 1);
    FAIL() << "wrote below a plain file";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.localizedDescription(), "Could not create the folder " +
                                            (folder.path() / "plain-file" / "sub").string() +
                                            ": Not a directory");
  }
}
