// `herald inbox watch`: the live inbox as an application has it. One listener with every
// callback, each call written as one JSON line on standard output; commands read from
// standard input, one a line, change the inbox as the application's screen would. Ends with
// SIGINT or SIGTERM (exit 0), not with the end of the input.

#include <boost/asio/signal_set.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "commands.hpp"
#include "herald/herald.hpp"
#include "live_inbox.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"

namespace cli {
namespace {

using boost::asio::awaitable;
namespace json = boost::json;

constexpr auto kCommandDrainLimit = std::chrono::seconds(5);

// Every line of the watch goes out from the main queue, one write each: the listener's
// callbacks run there, and a command's outcome is posted after the callbacks its change
// posted, so that its line follows what it did.
void emit(json::object line) {
  writeLine(stdout, platform::toJSON(line));
}

void emitLater(json::object line) {
  platform::MainQueue::shared().post([line = std::move(line)]() mutable { emit(std::move(line)); });
}

std::string feedName(herald::InboxMessageFeed feed) {
  return feed == herald::InboxMessageFeed::feed ? "feed" : "archived";
}

// A whole list: its size and paging, and the ids in order (the messages themselves would
// make lines too long to read; `onMessage…` lines carry whole messages).
json::object setLine(std::string_view callback, const herald::InboxMessageSet& set,
                     std::optional<std::string> feed = std::nullopt) {
  json::array ids;
  for (const auto& message : set.messages) ids.emplace_back(message->messageId);
  json::object line{{"callback", callback}};
  if (feed) line["feed"] = *feed;
  line["count"] = set.messages.size();
  line["totalCount"] = set.totalCount;
  line["canPaginate"] = set.canPaginate;
  line["cursor"] = set.paginationCursor ? json::value(*set.paginationCursor) : json::value(nullptr);
  line["ids"] = std::move(ids);
  return line;
}

// `line` with the failure's message under `messageKey`, then its type and code.
json::object errorLine(json::object line, std::string_view messageKey, const Failure& failure) {
  line[messageKey] = failure.message;
  line["type"] = failure.type ? json::value(*failure.type) : json::value(nullptr);
  line["code"] = failure.code ? json::value(*failure.code) : json::value(nullptr);
  return line;
}

herald::HeraldInboxListener::Callbacks printingCallbacks() {
  using herald::InboxMessageFeed;
  using herald::InboxMessagePtr;
  const auto messageLine = [](std::string_view callback) {
    return [callback](InboxMessageFeed feed, std::int64_t index, const InboxMessagePtr& message) {
      emit({{"callback", callback},
            {"feed", feedName(feed)},
            {"index", index},
            {"message", message->toJSON()}});
    };
  };
  return {
      .onLoading = [] { emit({{"callback", "onLoading"}}); },
      .onError =
          [](const herald::HeraldError& error) {
            emit(errorLine({{"callback", "onError"}}, "message",
                           Failure::from(std::make_exception_ptr(error))));
          },
      .onUnreadCountChanged =
          [](std::int64_t count) { emit({{"callback", "onUnreadCountChanged"}, {"count", count}}); },
      .onFeedChanged = [](const herald::InboxMessageSet& set) { emit(setLine("onFeedChanged", set)); },
      .onArchiveChanged =
          [](const herald::InboxMessageSet& set) { emit(setLine("onArchiveChanged", set)); },
      .onPageAdded =
          [](InboxMessageFeed feed, const herald::InboxMessageSet& page) {
            emit(setLine("onPageAdded", page, feedName(feed)));
          },
      .onMessageChanged = messageLine("onMessageChanged"),
      .onMessageAdded = messageLine("onMessageAdded"),
      .onMessageRemoved = messageLine("onMessageRemoved"),
      .onConnectionChanged =
          [](herald::InboxConnectionState state, double retryIn) {
            json::object line{{"callback", "onConnectionChanged"},
                              {"state", herald::toString(state)}};
            if (state == herald::InboxConnectionState::reconnecting)
              line["retryIn"] = std::round(retryIn * 10) / 10;
            emit(std::move(line));
          },
  };
}

// ---- commands from standard input -----------------------------------------------------------

struct InputCommand {
  std::string name;
  std::vector<std::string> arguments;
};

InputCommand parseCommand(const std::string& line) {
  std::istringstream words(line);
  InputCommand command;
  words >> command.name;
  for (std::string word; words >> word;) command.arguments.push_back(word);
  return command;
}

constexpr const char* kCommandList =
    "read ID, unread ID, open ID, click ID, archive ID, read-all, next feed, next archived, "
    "refresh, background, foreground";

// One command to its end; what it gave, as the line to write. Never throws.
awaitable<json::object> runCommand(std::string line) {
  json::object result{{"command", line}};
  try {
    auto command = parseCommand(line);
    auto& herald = herald::Herald::shared();
    const auto arguments = [&](std::size_t count, const char* what) {
      if (command.arguments.size() != count)
        throw UsageError(command.name + (count ? " takes " + std::string(what)
                                               : std::string(" takes no argument")));
    };
    static const std::vector<std::pair<std::string, MessageChange>> changes{
        {"read", MessageChange::read},     {"unread", MessageChange::unread},
        {"open", MessageChange::open},     {"click", MessageChange::click},
        {"archive", MessageChange::archive}};
    const auto change = std::find_if(changes.begin(), changes.end(),
                                     [&](const auto& entry) { return entry.first == command.name; });
    if (change != changes.end()) {
      arguments(1, "one message id");
      co_await changeMessage(change->second, command.arguments.front());
    } else if (command.name == "read-all") {
      arguments(0, "");
      co_await herald.readAllInboxMessages();
    } else if (command.name == "next") {
      arguments(1, "feed or archived");
      const auto& which = command.arguments.front();
      if (which != "feed" && which != "archived")
        throw UsageError("next takes feed or archived, not '" + which + "'");
      const auto page = co_await herald.fetchNextInboxPage(
          which == "feed" ? herald::InboxMessageFeed::feed : herald::InboxMessageFeed::archived);
      result["count"] = page.size();
    } else if (command.name == "refresh") {
      arguments(0, "");
      co_await herald.refreshInbox();
    } else if (command.name == "background") {
      // What the application's entered-background notification runs through the proxy,
      // awaited here so that "ok" means it is done.
      arguments(0, "");
      co_await herald.didEnterBackground();
    } else if (command.name == "foreground") {
      arguments(0, "");
      co_await herald.didEnterForeground();
    } else {
      throw UsageError("unknown command '" + command.name + "' (" + kCommandList + ")");
    }
    result["ok"] = true;
  } catch (const UsageError& error) {
    result = errorLine(std::move(result), "error", Failure::usageError(error.what()));
  } catch (...) {
    result = errorLine(std::move(result), "error", inboxFailure(std::current_exception()));
  }
  co_return result;
}

// Reads standard input on a thread of its own (a read may block for as long as nobody
// types) and runs its commands one after another, in the order given.
class CommandReader : public std::enable_shared_from_this<CommandReader> {
 public:
  void start() {
    std::thread([self = shared_from_this()] { self->readAll(); }).detach();
  }

  // Takes no more commands and waits (bounded) for the one running, which uses what the
  // process is about to take down. The reading thread itself may stay blocked in a read.
  void stop() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    idle_.wait_for(lock, kCommandDrainLimit, [this] { return !busy_; });
  }

 private:
  void readAll() {
    std::string line;
    while (std::getline(std::cin, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.find_first_not_of(" \t") == std::string::npos) continue;
      {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        busy_ = true;
      }
      auto result = platform::blockOn(runCommand(oneLine(line)));
      emitLater(std::move(result));
      std::lock_guard lock(mutex_);
      busy_ = false;
      idle_.notify_all();
    }
    // The end of the input is not the end of the watch: a person may pipe commands in and
    // then watch what else happens.
  }

  std::mutex mutex_;
  std::condition_variable idle_;
  bool stopping_ = false;
  bool busy_ = false;
};

}  // namespace

int watchLiveInbox(const WatchRequest&, Context& context) {
  // Until the main queue runs: a signal during the sign-in or the first load ends at once.
  std::optional<EndOnSignal> endOnSignal(std::in_place);
  const auto session = platform::blockOn(resumeSession(context));
  if (!session.client) return session.status;
  auto& herald = herald::Herald::shared();
  auto& main = platform::MainQueue::shared();

  // Adding the listener loads the inbox and connects its socket; what that gives is posted
  // to the main queue, which runs below.
  const auto listener = platform::blockOn(herald.addInboxListener(printingCallbacks()));
  // The main queue's loop takes the signals over from here.
  boost::asio::signal_set signals(main.executor(), SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (error) return;
    main.stop();
  });
  endOnSignal.reset();
  if (!context.report.json())
    writeLine(stderr, "herald: watching the inbox of " + session.client->options.userId +
                          "; commands on standard input (" + kCommandList + "); Ctrl-C ends");

  // Shared with the reading thread, which may outlive this function.
  const auto reader = std::make_shared<CommandReader>();
  reader->start();
  main.run();

  signals.cancel();
  reader->stop();
  platform::blockOn(herald.removeInboxListener(listener));
  // Closes the socket with its handshake; the state goes with the process.
  platform::blockOn(herald.didEnterBackground());
  return ExitStatus::success;
}

}  // namespace cli
