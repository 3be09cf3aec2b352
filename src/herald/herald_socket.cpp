#include "herald/herald_socket.hpp"

#include <atomic>
#include <boost/json/serialize.hpp>
#include <chrono>

#include "herald/herald.hpp"
#include "herald/herald_client.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"
#include "platform/text.hpp"

namespace herald {

namespace {

bool isQuietClose(const platform::Error& error) {
  return error.domain() == platform::posix_error::domain &&
         error.code() == platform::posix_error::socketNotConnected;
}

}  // namespace

// A repeating timer on the main queue. It is armed from the main queue and can be invalidated
// from any thread, before or after it was armed; ticks are scheduled from the start time so
// that they do not drift.
class HeraldSocket::PingTimer : public std::enable_shared_from_this<PingTimer> {
 public:
  using Clock = platform::MainQueue::Clock;

  PingTimer(Clock::duration interval, std::function<void()> tick)
      : interval_(interval), tick_(std::move(tick)) {}

  void start() {
    platform::MainQueue::shared().post([self = shared_from_this()] {
      self->start_ = Clock::now();
      self->scheduleNext();
    });
  }

  void invalidate() {
    valid_ = false;
    std::lock_guard lock(mutex_);
    if (pending_) pending_->cancel();
  }

 private:
  // On the main queue.
  void scheduleNext() {
    if (!valid_) return;
    ++ticks_;
    const auto due = start_ + interval_ * ticks_;
    auto item = std::make_shared<platform::WorkItem>([self = shared_from_this()] {
      if (!self->valid_) return;
      self->tick_();
      self->scheduleNext();
    });
    {
      std::lock_guard lock(mutex_);
      pending_ = item;
    }
    platform::MainQueue::shared().postAfter(std::max(Clock::duration::zero(), due - Clock::now()),
                                            item);
  }

  const Clock::duration interval_;
  const std::function<void()> tick_;
  std::atomic<bool> valid_{true};
  Clock::time_point start_;  // main queue only
  long ticks_ = 0;           // main queue only
  std::mutex mutex_;
  std::shared_ptr<platform::WorkItem> pending_;
};

HeraldSocket::HeraldSocket(std::string url, platform::WebSocketConfiguration configuration)
    : url(std::move(url)), configuration_(std::move(configuration)) {}

std::shared_ptr<HeraldSocket> HeraldSocket::create(std::string url,
                                                   platform::WebSocketConfiguration configuration) {
  std::shared_ptr<HeraldSocket> socket(new HeraldSocket(std::move(url), std::move(configuration)));
  attach(socket);
  return socket;
}

void HeraldSocket::attach(const std::shared_ptr<HeraldSocket>& socket) {
  socket->urlSession_ = std::make_unique<platform::WebSocketSession>(
      socket->configuration_, std::weak_ptr<platform::WebSocketDelegate>(socket));
}

HeraldSocket::~HeraldSocket() { disconnect(); }

std::shared_ptr<platform::WebSocketTask> HeraldSocket::webSocketTask() const {
  std::lock_guard lock(mutex_);
  return webSocketTask_;
}

bool HeraldSocket::hasPingTimer() const {
  std::lock_guard lock(mutex_);
  return pingTimer_ != nullptr;
}

boost::asio::awaitable<void> HeraldSocket::connect() {
  disconnect();
  auto task = urlSession_->webSocketTask(url);  // throws badURL
  {
    std::lock_guard lock(mutex_);
    webSocketTask_ = task;
  }
  task->resume();
  armReceive(task);
  co_return;
}

void HeraldSocket::disconnect() {
  std::shared_ptr<PingTimer> timer;
  std::shared_ptr<platform::WebSocketTask> task;
  {
    std::lock_guard lock(mutex_);
    timer = std::exchange(pingTimer_, nullptr);
    task = std::exchange(webSocketTask_, nullptr);
  }
  if (timer) timer->invalidate();
  if (task) task->cancel(platform::WebSocketCloseCode::normalClosure, std::nullopt);
}

boost::asio::awaitable<void> HeraldSocket::send(const boost::json::object& message) {
  auto task = webSocketTask();
  if (!task) co_return;
  co_await task->send(boost::json::serialize(message));
}

void HeraldSocket::keepAlive(double interval) {
  const auto period = std::chrono::duration_cast<PingTimer::Clock::duration>(
      std::chrono::duration<double>(interval > 0 ? interval : 0));
  std::weak_ptr<HeraldSocket> weak = weak_from_this();
  auto timer = std::make_shared<PingTimer>(period, [weak] {
    auto self = weak.lock();
    if (!self) return;
    platform::spawnDetached([self]() -> boost::asio::awaitable<void> {
      // Built outside the co_await: g++ 12 cannot keep an initializer list alive across one.
      boost::json::object message;
      message["action"] = "keepAlive";
      try {
        co_await self->send(message);
      } catch (const std::exception& e) {
        self->report(std::string("WebSocket keep-alive not sent: ") + e.what());
      }
    });
  });
  std::shared_ptr<PingTimer> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(pingTimer_, timer);
  }
  if (previous) previous->invalidate();
  timer->start();
}

void HeraldSocket::armReceive(const std::shared_ptr<platform::WebSocketTask>& task) {
  // Both held weakly: the completion waits inside the task, and a strong reference there
  // would keep the task alive by itself.
  std::weak_ptr<HeraldSocket> weak = weak_from_this();
  std::weak_ptr<platform::WebSocketTask> weakTask = task;
  task->receive([weak, weakTask](std::optional<platform::WebSocketMessage> message,
                                 std::optional<platform::Error> error) {
    if (auto self = weak.lock())
      self->received(weakTask.lock(), std::move(message), std::move(error));
  });
}

void HeraldSocket::received(const std::shared_ptr<platform::WebSocketTask>& task,
                            std::optional<platform::WebSocketMessage> message,
                            std::optional<platform::Error> error) {
  if (error) {
    if (isQuietClose(*error)) {
      // Still the current connection, so nobody here closed it; without a close code the
      // peer sent no close frame either (a close frame reaches `onClose` right after this).
      if (task && webSocketTask() == task &&
          task->closeCode() == platform::WebSocketCloseCode::invalid)
        onEnd();
      platform::spawnDetached([]() -> boost::asio::awaitable<void> {
        auto client = co_await Herald::shared().client();
        if (client && client->options.showLogs) client->log("WebSocket closed");
      });
    } else {
      onError(*error);
    }
    return;
  }
  if (message) {
    if (message->kind == platform::WebSocketMessage::Kind::string ||
        platform::isValidUTF8(message->payload)) {
      onMessageReceived(std::move(message->payload));
    } else {
      report("WebSocket binary frame of " + std::to_string(message->payload.size()) +
             " bytes is not UTF-8 text; dropped");
    }
  }
  // Only the connection that is still current keeps receiving: after a reconnect the old
  // one's last frame must not arm a second receive on the new one.
  if (task && webSocketTask() == task) armReceive(task);
}

void HeraldSocket::didOpen(platform::WebSocketTask&, const std::optional<std::string>&) {
  onOpen();
}

void HeraldSocket::didClose(platform::WebSocketTask&, platform::WebSocketCloseCode code,
                            const std::optional<std::string>& reason) {
  onClose(code, reason);
}

void HeraldSocket::report(std::string_view) const {}

}  // namespace herald
