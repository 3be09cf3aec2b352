#pragma once
// The account's brands, in memory: set with PUT /_sandbox/brands/<id>, read through the
// GraphQL route of /client/q.

#include <boost/json/object.hpp>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

class Brands {
 public:
  /// Keeps `brand` ({"settings": {...}}, already checked) under `brandId`, replacing any.
  void put(const std::string& brandId, boost::json::object brand) {
    std::lock_guard lock(mutex_);
    brands_[brandId] = std::move(brand);
  }
  /// The brand as stored; none for an id never put.
  std::optional<boost::json::object> find(std::string_view brandId) const {
    std::lock_guard lock(mutex_);
    const auto found = brands_.find(brandId);
    if (found == brands_.end()) return std::nullopt;
    return found->second;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, boost::json::object, std::less<>> brands_;
};

}  // namespace sandbox
