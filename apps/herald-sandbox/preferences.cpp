#include "preferences.hpp"

#include <boost/json/array.hpp>
#include <charconv>
#include <set>

#include "http.hpp"
#include "platform/json.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;

constexpr std::string_view kChannels[] = {"direct_message", "email", "push", "sms", "webhook"};

std::string text(const json::object& topic, std::string_view key, std::string_view where) {
  const auto* value = topic.if_contains(key);
  if (!value || !value->is_string() || value->as_string().empty())
    throw BadRequest(std::string(where) + ": \"" + std::string(key) +
                     "\" must be a non-empty string, not " +
                     (value ? platform::describeJSONKind(*value) : std::string("missing")));
  return std::string(value->as_string());
}

// A cursor is "<revision>.<offset>" in base64url: opaque to clients, safe in a query as it is.
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string encodeCursor(std::uint64_t revision, std::size_t offset) {
  const auto plain = std::to_string(revision) + "." + std::to_string(offset);
  std::string out;
  unsigned buffer = 0;
  int bits = 0;
  for (const unsigned char c : plain) {
    buffer = (buffer << 8) | c;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out += kAlphabet[(buffer >> bits) & 0x3f];
    }
  }
  if (bits > 0) out += kAlphabet[(buffer << (6 - bits)) & 0x3f];
  return out;
}

std::optional<std::pair<std::uint64_t, std::size_t>> decodeCursor(std::string_view cursor) {
  if (cursor.size() > 64) return std::nullopt;
  std::string plain;
  unsigned buffer = 0;
  int bits = 0;
  for (const char c : cursor) {
    const auto index = kAlphabet.find(c);
    if (index == std::string_view::npos) return std::nullopt;
    buffer = (buffer << 6) | static_cast<unsigned>(index);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      plain += static_cast<char>((buffer >> bits) & 0xff);
    }
  }
  const auto dot = plain.find('.');
  if (dot == std::string::npos) return std::nullopt;
  std::uint64_t revision = 0;
  std::size_t offset = 0;
  const auto* end = plain.data() + plain.size();
  const auto r = std::from_chars(plain.data(), plain.data() + dot, revision);
  const auto o = std::from_chars(plain.data() + dot + 1, end, offset);
  if (r.ec != std::errc() || r.ptr != plain.data() + dot || o.ec != std::errc() || o.ptr != end)
    return std::nullopt;
  // Only what encodeCursor makes: the same text back, so that no two cursors mean one page.
  if (encodeCursor(revision, offset) != cursor) return std::nullopt;
  return std::pair{revision, offset};
}

json::array channels(const std::vector<std::string>& names) {
  json::array array;
  for (const auto& name : names) array.emplace_back(name);
  return array;
}

}  // namespace

bool isChannel(std::string_view name) {
  for (const auto channel : kChannels)
    if (channel == name) return true;
  return false;
}

std::vector<Topic> parseTopics(const json::value& body) {
  const auto* object = body.if_object();
  const auto* list = object ? object->if_contains("topics") : nullptr;
  if (!list || !list->is_array())
    throw BadRequest("the body must be {\"topics\": [{\"topic_id\", \"topic_name\", "
                     "\"section_id\", \"section_name\", \"default_status\"}, ...]}");
  std::vector<Topic> topics;
  std::set<std::string, std::less<>> ids;
  for (std::size_t i = 0; i < list->as_array().size(); ++i) {
    const auto& item = list->as_array()[i];
    const auto where = "topic " + std::to_string(i);
    if (!item.is_object()) throw BadRequest(where + " must be an object");
    const auto& entry = item.as_object();
    static const std::set<std::string_view> known{
        "topic_id",       "topic_name",         "section_id",    "section_name",
        "default_status", "has_custom_routing", "custom_routing"};
    for (const auto& [key, value] : entry)
      if (!known.count(std::string_view(key)))
        throw BadRequest(where + ": unknown key \"" + std::string(key) +
                         "\" (a topic has topic_id, topic_name, section_id, section_name, "
                         "default_status, has_custom_routing, custom_routing)");
    Topic topic;
    topic.topicId = text(entry, "topic_id", where);
    if (topic.topicId.find('/') != std::string::npos)
      throw BadRequest(where + ": \"topic_id\" must be one path segment, without \"/\"");
    if (!ids.insert(topic.topicId).second)
      throw BadRequest(where + ": the topic id \"" + topic.topicId + "\" is given twice");
    topic.topicName = text(entry, "topic_name", where);
    topic.sectionId = text(entry, "section_id", where);
    topic.sectionName = text(entry, "section_name", where);
    topic.defaultStatus = text(entry, "default_status", where);
    if (topic.defaultStatus != "OPTED_IN" && topic.defaultStatus != "OPTED_OUT" &&
        topic.defaultStatus != "REQUIRED")
      throw BadRequest(where + ": \"default_status\" must be OPTED_IN, OPTED_OUT or REQUIRED, "
                               "not \"" + topic.defaultStatus + "\"");
    if (const auto* custom = entry.if_contains("has_custom_routing"); custom && !custom->is_null()) {
      if (!custom->is_bool()) throw BadRequest(where + ": \"has_custom_routing\" must be a boolean");
      topic.hasCustomRouting = custom->as_bool();
    }
    if (const auto* routing = entry.if_contains("custom_routing"); routing && !routing->is_null()) {
      if (!routing->is_array()) throw BadRequest(where + ": \"custom_routing\" must be an array");
      for (const auto& channel : routing->as_array()) {
        if (!channel.is_string() || !isChannel(channel.as_string()))
          throw BadRequest(where + ": \"custom_routing\" takes direct_message, email, push, sms "
                                   "and webhook, not " + platform::toJSON(channel));
        topic.customRouting.emplace_back(channel.as_string());
      }
    }
    topics.push_back(std::move(topic));
  }
  return topics;
}

void Preferences::setTopics(std::vector<Topic> topics) {
  std::lock_guard lock(mutex_);
  topics_ = std::move(topics);
  ++revision_;
}

std::size_t Preferences::topicCount() const {
  std::lock_guard lock(mutex_);
  return topics_.size();
}

json::object Preferences::view(std::string_view user, const Topic& topic) const {
  auto status = topic.defaultStatus;
  auto hasCustomRouting = topic.hasCustomRouting;
  auto routing = topic.customRouting;
  if (const auto mine = choices_.find(user); mine != choices_.end()) {
    if (const auto choice = mine->second.find(topic.topicId); choice != mine->second.end()) {
      status = choice->second.status;
      hasCustomRouting = choice->second.hasCustomRouting;
      routing = choice->second.customRouting;
    }
  }
  return {{"default_status", topic.defaultStatus}, {"has_custom_routing", hasCustomRouting},
          {"custom_routing", channels(routing)},   {"status", status},
          {"topic_id", topic.topicId},             {"topic_name", topic.topicName},
          {"section_name", topic.sectionName},     {"section_id", topic.sectionId}};
}

std::optional<Preferences::Page> Preferences::page(std::string_view user,
                                                   const std::optional<std::string>& cursor) const {
  std::lock_guard lock(mutex_);
  std::size_t offset = 0;
  if (cursor) {
    const auto decoded = decodeCursor(*cursor);
    if (!decoded || decoded->first != revision_ || decoded->second > topics_.size())
      return std::nullopt;
    offset = decoded->second;
  }
  Page page;
  const auto end = std::min(topics_.size(), offset + kPageSize);
  for (auto i = offset; i < end; ++i) page.items.push_back(view(user, topics_[i]));
  if (end < topics_.size()) page.cursor = encodeCursor(revision_, end);
  return page;
}

std::optional<json::object> Preferences::topic(std::string_view user,
                                               std::string_view topicId) const {
  std::lock_guard lock(mutex_);
  for (const auto& topic : topics_)
    if (topic.topicId == topicId) return view(user, topic);
  return std::nullopt;
}

Preferences::Outcome Preferences::choose(const std::string& user, const std::string& topicId,
                                         TopicChoice choice) {
  std::lock_guard lock(mutex_);
  for (const auto& topic : topics_) {
    if (topic.topicId != topicId) continue;
    if (topic.defaultStatus == "REQUIRED") {
      if (choice.status == "OPTED_OUT") return Outcome::required;
      choice.status = "REQUIRED";
    } else if (choice.status == "REQUIRED") {
      return Outcome::notRequired;
    }
    choices_[user][topicId] = std::move(choice);
    return Outcome::stored;
  }
  return Outcome::unknownTopic;
}

}  // namespace sandbox
