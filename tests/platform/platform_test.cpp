#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "platform/error.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification.hpp"
#include "platform/paths.hpp"
#include "platform/system_log.hpp"

using namespace std::chrono_literals;

TEST(JSON, WritesNumbersAsPeopleDoAndPrettyPrintsWithTwoSpaces) {
  auto v = platform::parseJSON(R"({"a": 3.25, "b": [1, true, null], "c": {}})");
  EXPECT_EQ(platform::toJSON(v), R"({"a":3.25,"b":[1,true,null],"c":{}})");
  EXPECT_EQ(platform::toJSON(v, platform::JSONStyle::pretty),
            "{\n  \"a\" : 3.25,\n  \"b\" : [\n    1,\n    true,\n    null\n  ],\n  \"c\" : {}\n}");
}

TEST(JSON, SyntaxErrorsSayWhere) {
  try {
    platform::parseJSON("{\n  \"a\": 1,\n  oops\n}");
    FAIL();
  } catch (const platform::JSONSyntaxError& e) {
    EXPECT_EQ(e.line(), 3u);
    EXPECT_EQ(e.column(), 3u);
  }
  EXPECT_THROW(platform::parseJSON("{} {}"), platform::JSONSyntaxError);
  EXPECT_THROW(platform::parseJSON(""), platform::JSONSyntaxError);
  EXPECT_FALSE(platform::tryParseJSON("{\"a\": }"));
}

TEST(JSON, NestingIsAllowedUpToTheStatedDepth) {
  auto nested = [](std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += i % 2 ? "[" : "{\"k\":";
    for (std::size_t i = depth; i-- > 0;) text += i % 2 ? "]" : "}";
    return text;
  };
  const auto deepest = nested(platform::kMaxJSONDepth);
  EXPECT_EQ(platform::toJSON(platform::parseJSON(deepest)), deepest);
  try {
    platform::parseJSON(nested(platform::kMaxJSONDepth + 1));
    FAIL();
  } catch (const platform::JSONSyntaxError& e) {
    EXPECT_EQ(e.reason(), "nested deeper than 512 levels");
  }
}

TEST(MainQueue, RunsPostedWorkInOrderAndSkipsCancelledItems) {
  auto& main = platform::MainQueue::shared();
  std::vector<int> order;
  auto cancelled = std::make_shared<platform::WorkItem>([&] { order.push_back(99); });
  main.postAfter(20ms, [&] { order.push_back(3); });
  main.postAfter(10ms, cancelled);
  main.post([&] {
    EXPECT_TRUE(main.isMainThread());
    order.push_back(1);
  });
  main.post([&] { order.push_back(2); });
  cancelled->cancel();
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(main.runUntil([&] { return order.size() == 3; }, 2s));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(main.isMainThread());
}

TEST(Attachment, AcceptsKnownTypesWithinLimitsAndRefusesTheRest) {
  const auto dir = std::filesystem::temp_directory_path() / platform::newUUID();
  std::filesystem::create_directories(dir);
  auto write = [&](const std::string& name, const std::string& bytes) {
    std::ofstream(dir / name, std::ios::binary) << bytes;
    return platform::fileURL(dir / name);
  };
  auto jpeg = platform::NotificationAttachment::make("a", write("p.jpg", "\xFF\xD8\xFF\xE0rest"));
  EXPECT_EQ(jpeg.type, "public.jpeg");
  EXPECT_EQ(platform::NotificationAttachment::make("b", write("v.MP4", "video")).type,
            "public.mpeg-4");

  auto codeOf = [](const std::string& url) {
    try {
      platform::NotificationAttachment::make("x", url);
    } catch (const platform::Error& e) {
      return e.code();
    }
    return 0L;
  };
  EXPECT_EQ(codeOf(write("doc.pdf", "%PDF")), platform::attachment_error::unrecognizedFileType);
  EXPECT_EQ(codeOf(write("page.jpg", "<html>")), platform::attachment_error::invalidContents);
  EXPECT_EQ(codeOf(write("empty.png", "")), platform::attachment_error::invalidFileSize);
  EXPECT_EQ(codeOf(platform::fileURL(dir / "missing.jpg")),
            platform::attachment_error::fileNotFound);
  EXPECT_EQ(codeOf("http://example.invalid/a.jpg"), platform::attachment_error::invalidURL);
  std::filesystem::remove_all(dir);
}

TEST(Paths, DigestsExtensionsAndUUIDs) {
  EXPECT_EQ(platform::sha256Hex("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(platform::pathExtension("https://h/a/b.jpeg?x=1.png#f"), "jpeg");
  EXPECT_EQ(platform::pathExtension("https://h/a/b"), "");
  const auto id = platform::newUUID();
  EXPECT_EQ(id.size(), 36u);
  EXPECT_NE(id, platform::newUUID());
  EXPECT_EQ(platform::pathFromFileURL(platform::fileURL("/tmp/a b.jpg")),
            std::filesystem::path("/tmp/a b.jpg"));
}

TEST(SystemLog, CapturedSinkSeesSubsystemCategoryAndLevel) {
  platform::CapturedLog captured;
  platform::SystemLog("com.example", "cat").fault("boom");
  auto records = captured.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].subsystem, "com.example");
  EXPECT_EQ(records[0].type, platform::LogType::fault);
  EXPECT_EQ(captured.messages("cat"), std::vector<std::string>{"boom"});
}

TEST(Executor, IdleObserverRunsOnceTheLastTaskEnds) {
  ASSERT_TRUE(platform::waitForIdle(std::chrono::seconds(5)));  // nothing left from before
  std::atomic<int> calls{0};
  std::atomic<std::size_t> runningWhenCalled{99};
  std::promise<void> called;
  platform::setIdleObserver([&] {
    runningWhenCalled = platform::runningTasks();
    if (++calls == 1) called.set_value();
  });
  std::promise<void> gate;
  auto opened = gate.get_future().share();
  // The first task holds a pool thread until the gate opens; the second ends at once.
  platform::spawnDetached([opened]() -> boost::asio::awaitable<void> {
    opened.wait();
    co_return;
  });
  platform::spawnDetached([]() -> boost::asio::awaitable<void> { co_return; });
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (platform::runningTasks() > 1 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(platform::runningTasks(), 1u);
  EXPECT_EQ(calls, 0);

  gate.set_value();
  ASSERT_EQ(called.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(runningWhenCalled, 0u);
  platform::setIdleObserver(nullptr);
  EXPECT_EQ(calls, 1);
}
