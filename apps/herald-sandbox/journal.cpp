#include "journal.hpp"

namespace sandbox {

void Journal::record(const Request& request) {
  boost::json::array headers;
  for (const auto& [name, value] : request.headers)
    headers.push_back(boost::json::array{name, value});
  boost::json::object entry{{"method", request.method},
                            {"path", request.target},
                            {"headers", std::move(headers)},
                            {"body", request.body}};
  std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
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
  entries_.clear();
  return n;
}

}  // namespace sandbox
