#include "trouble.hpp"

#include <charconv>
#include <cmath>
#include <string>

namespace sandbox {
namespace {

template <class Number>
std::optional<Number> number(const std::string& text) {
  Number value{};
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

std::chrono::milliseconds seconds(const Request& request, const char* name) {
  const auto text = request.queryValue(name);
  if (!text) return std::chrono::milliseconds(0);
  const auto value = number<double>(*text);
  // An hour is far beyond any client's time-out; longer waits are typing mistakes.
  if (!value || !std::isfinite(*value) || *value < 0 || *value > 3600)
    throw BadRequest(std::string(name) + " must be a number of seconds from 0 to 3600, not '" +
                     *text + "'");
  return std::chrono::milliseconds(static_cast<long long>(std::llround(*value * 1000)));
}

}  // namespace

Trouble troubleFrom(const Request& request) {
  Trouble trouble;
  trouble.delay = seconds(request, "delay");
  trouble.stall = seconds(request, "stall");
  if (const auto text = request.queryValue("status")) {
    const auto code = number<int>(*text);
    if (!code || *code < 200 || *code > 599)
      throw BadRequest("status must be an HTTP status from 200 to 599, not '" + *text + "'");
    trouble.status = *code;
  }
  if (const auto text = request.queryValue("truncate")) {
    const auto bytes = number<std::size_t>(*text);
    if (!bytes) throw BadRequest("truncate must be a number of bytes, not '" + *text + "'");
    trouble.truncate = *bytes;
  }
  return trouble;
}

}  // namespace sandbox
