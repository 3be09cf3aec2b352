#include "trouble.hpp"

#include <charconv>
#include <cmath>
#include <set>
#include <string>
#include <string_view>

#include "platform/json.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;

// An hour is far beyond any client's time-out; longer waits are typing mistakes.
constexpr double kMaxSeconds = 3600;
constexpr int kMinStatus = 200, kMaxStatus = 599;

template <class Number>
std::optional<Number> number(const std::string& text) {
  Number value{};
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

std::optional<std::chrono::milliseconds> milliseconds(std::optional<double> seconds) {
  if (!seconds || !std::isfinite(*seconds) || *seconds < 0 || *seconds > kMaxSeconds)
    return std::nullopt;
  return std::chrono::milliseconds(static_cast<long long>(std::llround(*seconds * 1000)));
}

std::string secondsExpected(const char* name) {
  return std::string(name) + " must be a number of seconds from 0 to 3600";
}

std::string statusExpected() {
  return "status must be an HTTP status from " + std::to_string(kMinStatus) + " to " +
         std::to_string(kMaxStatus);
}

std::chrono::milliseconds seconds(const Request& request, const char* name) {
  const auto text = request.queryValue(name);
  if (!text) return std::chrono::milliseconds(0);
  const auto value = milliseconds(number<double>(*text));
  if (!value) throw BadRequest(secondsExpected(name) + ", not '" + *text + "'");
  return *value;
}

// A JSON value as a person wrote it, for error messages.
std::string shown(const json::value& value) {
  if (value.is_number()) return platform::toJSON(value);
  return platform::describeJSONKind(value);
}

std::optional<std::int64_t> whole(const json::value& value) {
  if (value.is_int64()) return value.get_int64();
  if (value.is_uint64() && value.get_uint64() <= INT64_MAX)
    return static_cast<std::int64_t>(value.get_uint64());
  return std::nullopt;
}

const std::set<std::string_view> kRuleKeys = {"path",   "contains", "delay", "stall",
                                              "status", "truncate", "times", "always"};

bool sandboxOwn(std::string_view path) {
  return path.starts_with("/_sandbox/");
}

double seconds(std::chrono::milliseconds duration) {
  return static_cast<double>(duration.count()) / 1000;
}

}  // namespace

Trouble troubleFrom(const Request& request) {
  Trouble trouble;
  trouble.delay = seconds(request, "delay");
  trouble.stall = seconds(request, "stall");
  if (const auto text = request.queryValue("status")) {
    const auto code = number<int>(*text);
    if (!code || *code < kMinStatus || *code > kMaxStatus)
      throw BadRequest(statusExpected() + ", not '" + *text + "'");
    trouble.status = *code;
  }
  if (const auto text = request.queryValue("truncate")) {
    const auto bytes = number<std::size_t>(*text);
    if (!bytes) throw BadRequest("truncate must be a number of bytes, not '" + *text + "'");
    trouble.truncate = *bytes;
  }
  return trouble;
}

TroubleRule TroubleRule::fromJSON(const json::object& object) {
  for (const auto& [key, value] : object)
    if (!kRuleKeys.count(std::string_view(key)))
      throw BadRequest("unknown key \"" + std::string(key) +
                       "\" in the rule (it has path, contains, delay, stall, status, truncate, "
                       "times, always)");
  TroubleRule rule;
  const auto* path = object.if_contains("path");
  if (!path) throw BadRequest("the rule needs a \"path\", such as \"/inbox/q\"");
  if (!path->is_string() || !path->get_string().starts_with("/"))
    throw BadRequest("\"path\" must be a path such as \"/inbox/q\", not " + shown(*path));
  rule.path = path->get_string();
  if (rule.path.find('?') != std::string::npos)
    throw BadRequest("\"path\" is matched without the query: leave out the \"?\" and after");
  if (sandboxOwn(rule.path))
    throw BadRequest("no rule applies to the sandbox's own routes under /_sandbox/");
  if (const auto* contains = object.if_contains("contains")) {
    if (!contains->is_string())
      throw BadRequest("\"contains\" must be a text, not " + shown(*contains));
    rule.contains = std::string(contains->get_string());
  }
  for (const auto& [name, field] : {std::pair{"delay", &rule.delay}, {"stall", &rule.stall}}) {
    if (const auto* value = object.if_contains(name)) {
      *field = milliseconds(value->is_number() ? std::optional(value->to_number<double>())
                                               : std::nullopt);
      if (!*field) throw BadRequest(secondsExpected(name) + ", not " + shown(*value));
    }
  }
  if (const auto* value = object.if_contains("status")) {
    const auto code = whole(*value);
    if (!code || *code < kMinStatus || *code > kMaxStatus)
      throw BadRequest(statusExpected() + ", not " + shown(*value));
    rule.status = static_cast<int>(*code);
  }
  if (const auto* value = object.if_contains("truncate")) {
    const auto bytes = whole(*value);
    if (!bytes || *bytes < 0)
      throw BadRequest("truncate must be a number of bytes, not " + shown(*value));
    rule.truncate = static_cast<std::size_t>(*bytes);
  }
  if (rule.delay.value_or(std::chrono::milliseconds(0)).count() == 0 &&
      rule.stall.value_or(std::chrono::milliseconds(0)).count() == 0 && !rule.status &&
      !rule.truncate)
    throw BadRequest("the rule makes no trouble: give delay, stall, status or truncate");

  const auto* always = object.if_contains("always");
  if (always && !always->is_bool())
    throw BadRequest("\"always\" must be true or false, not " + shown(*always));
  const bool endless = always && always->get_bool();
  if (const auto* times = object.if_contains("times")) {
    if (endless) throw BadRequest("give either \"times\" or \"always\": true, not both");
    const auto count = whole(*times);
    if (!count || *count < 1)
      throw BadRequest("\"times\" must be a whole number from 1 up, not " + shown(*times));
    rule.times = static_cast<std::uint64_t>(*count);
  } else if (!endless) {
    rule.times = 1;
  }
  return rule;
}

json::object TroubleRule::toJSON() const {
  json::object object{{"path", path}};
  if (contains) object["contains"] = *contains;
  if (delay) object["delay"] = seconds(*delay);
  if (stall) object["stall"] = seconds(*stall);
  if (status) object["status"] = *status;
  if (truncate) object["truncate"] = *truncate;
  if (times)
    object["times"] = *times;
  else
    object["always"] = true;
  return object;
}

bool TroubleRule::matches(const Request& request) const {
  return request.path == path && (!contains || request.body.find(*contains) != std::string::npos);
}

Trouble TroubleRule::over(Trouble trouble) const {
  if (delay) trouble.delay = *delay;
  if (stall) trouble.stall = *stall;
  if (status) trouble.status = status;
  if (truncate) trouble.truncate = truncate;
  return trouble;
}

std::size_t TroubleRules::add(TroubleRule rule) {
  std::lock_guard lock(mutex_);
  rules_.push_back(std::move(rule));
  return rules_.size();
}

Trouble TroubleRules::apply(const Request& request, Trouble own) {
  if (sandboxOwn(request.path)) return own;
  std::lock_guard lock(mutex_);
  for (auto rule = rules_.begin(); rule != rules_.end(); ++rule) {
    if (!rule->matches(request)) continue;
    const auto trouble = rule->over(own);
    if (rule->times && --*rule->times == 0) rules_.erase(rule);
    return trouble;
  }
  return own;
}

json::array TroubleRules::list() const {
  std::lock_guard lock(mutex_);
  json::array rules;
  for (const auto& rule : rules_) rules.push_back(rule.toJSON());
  return rules;
}

void TroubleRules::clear() {
  std::lock_guard lock(mutex_);
  rules_.clear();
}

}  // namespace sandbox
