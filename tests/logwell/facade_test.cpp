#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "logwell/logwell.hpp"
#include "support.hpp"

using logwell::Level;
using logwell::Logwell;
using logwell_test::Recorder;

namespace {

class Facade : public ::testing::Test {
 protected:
  void TearDown() override {
    Logwell::flush(5);
    Logwell::removeAllDestinations();
  }
};

}  // namespace

TEST_F(Facade, DestinationsAreASetOfObjects) {
  auto a = std::make_shared<Recorder>();
  auto b = std::make_shared<Recorder>();
  EXPECT_TRUE(Logwell::addDestination(a));
  EXPECT_FALSE(Logwell::addDestination(a));
  EXPECT_FALSE(Logwell::addDestination(nullptr));
  EXPECT_TRUE(Logwell::addDestination(b));
  EXPECT_EQ(Logwell::countDestinations(), 2u);
  EXPECT_TRUE(Logwell::removeDestination(a));
  EXPECT_FALSE(Logwell::removeDestination(a));
  EXPECT_EQ(Logwell::destinations(), std::vector<std::shared_ptr<logwell::BaseDestination>>{b});
  EXPECT_EQ(Logwell::version, "2.1.1");
  EXPECT_EQ(Logwell::build, 2110);
}

TEST_F(Facade, EachDestinationGetsEveryEntryOnceInOrderAndTheMessageIsMadeOnce) {
  std::vector recorders{std::make_shared<Recorder>(), std::make_shared<Recorder>(),
                       std::make_shared<Recorder>()};
  for (auto& r : recorders) Logwell::addDestination(r);
  recorders[1]->setAsynchronously(false);
  recorders[2]->minLevel = Level::error;

  int evaluations = 0;
  Logwell::info([&] {
    ++evaluations;
    return std::string("lazy");
  });
  EXPECT_EQ(evaluations, 1);
  for (auto& r : recorders) r->minLevel = Level::fault;
  Logwell::info([&] {
    ++evaluations;
    return "never made";
  });
  EXPECT_EQ(evaluations, 1);
  recorders[0]->minLevel = recorders[1]->minLevel = Level::verbose;
  recorders[2]->minLevel = Level::error;

  for (int i = 0; i < 300; ++i) Logwell::custom(i % 2 ? Level::error : Level::debug, i);
  ASSERT_TRUE(Logwell::flush(10));

  std::vector<std::string> all{"lazy"}, errors;
  for (int i = 0; i < 300; ++i) {
    all.push_back(std::to_string(i));
    if (i % 2) errors.push_back(std::to_string(i));
  }
  EXPECT_EQ(recorders[0]->log->lines, all);
  EXPECT_EQ(recorders[1]->log->lines, all);
  EXPECT_EQ(recorders[2]->log->lines, errors);
}

TEST_F(Facade, EntriesCarryThePlaceAndAStrippedFunction) {
  auto r = std::make_shared<Recorder>();
  Logwell::addDestination(r);
  Logwell::custom(Level::warning, "a", "/x/File.swift", "viewDidLoad(animated:)", 7, {{"k", "v"}});
  Logwell::custom(Level::warning, "b", "f", "plain", 8);
  Logwell::warning("c");
  const int line = __LINE__ - 1;
  ASSERT_TRUE(Logwell::flush(5));
  const auto& e = r->log->entries;
  ASSERT_EQ(e.size(), 3u);
  EXPECT_EQ(e[0].file + " " + e[0].function + " " + e[0].line, "/x/File.swift viewDidLoad() 7");
  EXPECT_EQ(e[1].function, "plain");
  EXPECT_EQ(e[2].file, __FILE__);
  EXPECT_EQ(e[2].line, std::to_string(line));
  EXPECT_TRUE(e[2].function.ends_with("TestBody()")) << e[2].function;
  EXPECT_EQ(e[2].function.find(' '), std::string::npos) << e[2].function;
}

TEST_F(Facade, ThreadNames) {
  EXPECT_EQ(Logwell::threadName(), "");
  std::string other;
  std::thread([&] { other = Logwell::threadName(); }).join();
  EXPECT_TRUE(other.starts_with("Thread ")) << other;

  auto r = std::make_shared<Recorder>();
  std::promise<std::string> onQueue;
  r->execute(false, [&] { onQueue.set_value(Logwell::threadName()); });
  auto name = onQueue.get_future().get();
  EXPECT_EQ(name, r->queueLabel());
  EXPECT_TRUE(name.starts_with("logwell-queue-")) << name;
  // The main thread stays the main thread while it holds a queue.
  EXPECT_EQ(r->executeSynchronously([] { return Logwell::threadName(); }), "");
  EXPECT_THROW(r->executeSynchronously([]() -> int { throw std::runtime_error("x"); }),
               std::runtime_error);
}

TEST_F(Facade, FlushTimesOutOnABusyDestinationAndRemovalKeepsQueuedEntries) {
  std::promise<void> open;
  auto log = std::make_shared<Recorder::Log>();
  {
    auto blocked = std::make_shared<Recorder>(log);
    blocked->gate = open.get_future().share();
    Logwell::addDestination(blocked);
    Logwell::info("first");
    Logwell::info("second");
    EXPECT_FALSE(Logwell::flush(0));
    Logwell::removeDestination(blocked);
  }
  Logwell::info("after removal");
  open.set_value();
  ASSERT_TRUE(logwell_test::eventually([&] { return log->size() == 2; }));
  EXPECT_EQ(log->lines, (std::vector<std::string>{"first", "second"}));
  EXPECT_TRUE(Logwell::flush(5));
}

TEST_F(Facade, DestinationsCanChangeWhileOtherThreadsLog) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int t = 0; t < 3; ++t)
    loggers.emplace_back([&] {
      for (int i = 0; i < 20000 && !stop; ++i) Logwell::debug("x");
    });
  auto log = std::make_shared<Recorder::Log>();
  for (int i = 0; i < 200; ++i) {
    auto r = std::make_shared<Recorder>(log);
    Logwell::addDestination(r);
    if (i % 3 == 0) Logwell::removeAllDestinations();
  }
  stop = true;
  for (auto& t : loggers) t.join();
  EXPECT_TRUE(Logwell::flush(10));
  std::lock_guard lock(log->mutex);
  for (const auto& e : log->entries) ASSERT_EQ(e.message, "x");
}
