#include "platform/main_queue.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

namespace platform {

void WorkItem::perform() {
  if (!cancelled_ && block_) block_();
}

struct MainQueue::State {
  boost::asio::io_context io{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{io.get_executor()};
};

MainQueue::MainQueue() : state_(std::make_unique<State>()) {}
MainQueue::~MainQueue() = default;

MainQueue& MainQueue::shared() {
  // Never destroyed: blocks may still be posted while static objects are torn down.
  static MainQueue* queue = new MainQueue();
  return *queue;
}

boost::asio::any_io_executor MainQueue::executor() { return state_->io.get_executor(); }

void MainQueue::post(std::function<void()> block) {
  boost::asio::post(state_->io, std::move(block));
}

void MainQueue::postAfter(Clock::duration delay, std::shared_ptr<WorkItem> item) {
  auto timer = std::make_shared<boost::asio::steady_timer>(state_->io, delay);
  timer->async_wait([timer, item = std::move(item)](const boost::system::error_code&) {
    item->perform();
  });
}

void MainQueue::postAfter(Clock::duration delay, std::function<void()> block) {
  postAfter(delay, std::make_shared<WorkItem>(std::move(block)));
}

void MainQueue::run() {
  state_->io.restart();
  state_->io.run();
}

std::size_t MainQueue::runFor(Clock::duration limit) {
  state_->io.restart();
  return state_->io.run_for(limit);
}

bool MainQueue::runUntil(const std::function<bool()>& done, Clock::duration limit) {
  const auto deadline = Clock::now() + limit;
  state_->io.restart();
  while (!done()) {
    const auto now = Clock::now();
    if (now >= deadline) return done();
    state_->io.run_one_for(std::min<Clock::duration>(deadline - now, std::chrono::milliseconds(5)));
    if (state_->io.stopped()) state_->io.restart();
  }
  return true;
}

void MainQueue::stop() { state_->io.stop(); }

bool MainQueue::isMainThread() const { return state_->io.get_executor().running_in_this_thread(); }

}  // namespace platform
