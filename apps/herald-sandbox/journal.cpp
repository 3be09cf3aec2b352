#include "journal.hpp"

namespace sandbox {

Journal::EntryId Journal::record(const Request& request, Clock::time_point received) {
  boost::json::array headers;
  for (const auto& [name, value] : request.headers)
    headers.push_back(boost::json::array{name, value});
  boost::json::object entry{{"method", request.method},
                            {"path", request.target},
                            {"headers", std::move(headers)},
                            {"body", request.body},
                            {"received", sinceStart(received)}};
  std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
  return firstId_ + entries_.size() - 1;
}

void Journal::answered(EntryId entry, int status, Clock::time_point at) {
  const auto answered = sinceStart(at);
  std::lock_guard lock(mutex_);
  if (entry < firstId_ || entry - firstId_ >= entries_.size()) return;
  auto& object = entries_[entry - firstId_].as_object();
  object["answered"] = answered;
  object["status"] = status;
}

void Journal::record(boost::json::object entry) {
  std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
}

boost::json::array Journal::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

std::size_t Journal::clear() {
  std::lock_guard lock(mutex_);
  const auto n = entries_.size();
  firstId_ += n;
  entries_.clear();
  return n;
}

double Journal::sinceStart(Clock::time_point at) const {
  return std::chrono::duration<double, std::milli>(at - start_).count();
}

}  // namespace sandbox
