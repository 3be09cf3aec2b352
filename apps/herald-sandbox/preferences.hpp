#pragma once
// The account's notification topics and each user's choice per topic, in memory. The topics
// come from the bundled sample (samples/topics.json, built into the program) until
// PUT /_sandbox/topics replaces them; choices are made with PUT /users/<id>/preferences/<topic>.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

/// One topic of the account, with what a user who has made no choice gets.
struct Topic {
  std::string topicId;
  std::string topicName;
  std::string sectionId;
  std::string sectionName;
  std::string defaultStatus;  ///< "OPTED_IN", "OPTED_OUT" or "REQUIRED"
  bool hasCustomRouting = false;
  std::vector<std::string> customRouting;  ///< channel names
};

/// A user's choice for a topic.
struct TopicChoice {
  std::string status;  ///< "OPTED_IN" or "OPTED_OUT" ("REQUIRED" stays for required topics)
  bool hasCustomRouting = false;
  std::vector<std::string> customRouting;
};

/// The topics in the body of PUT /_sandbox/topics, {"topics": [{"topic_id", "topic_name",
/// "section_id", "section_name", "default_status", "has_custom_routing"?,
/// "custom_routing"?}, ...]}, or in the sample. Throws BadRequest naming what is wrong (a
/// missing or mistyped key, an unknown status or channel, a topic id given twice or not one
/// path segment).
std::vector<Topic> parseTopics(const boost::json::value& body);
/// samples/topics.json as built into the program.
std::string_view sampleTopics();

/// The channels a topic may be routed to, as the service names them.
bool isChannel(std::string_view name);

class Preferences {
 public:
  /// Topics per page of GET /users/<id>/preferences.
  static constexpr std::size_t kPageSize = 50;

  explicit Preferences(std::vector<Topic> topics) : topics_(std::move(topics)) {}

  /// Replaces the account's topics. Choices for topics that remain are kept; cursors given
  /// out before no longer count.
  void setTopics(std::vector<Topic> topics);
  std::size_t topicCount() const;

  struct Page {
    std::vector<boost::json::object> items;
    std::optional<std::string> cursor;  ///< where the next page starts; none on the last
  };
  /// The page of `user`'s topics that `cursor` points at (none: the first). An opaque cursor
  /// this service did not give, or gave before the topics were replaced, gives none.
  std::optional<Page> page(std::string_view user, const std::optional<std::string>& cursor) const;

  /// One topic as `user` sees it; none when the account has no such topic.
  std::optional<boost::json::object> topic(std::string_view user, std::string_view topicId) const;

  enum class Outcome { stored, unknownTopic, required, notRequired };
  /// Keeps `user`'s choice. A required topic takes no "OPTED_OUT" (`required`) and stays
  /// "REQUIRED"; any other takes no "REQUIRED" (`notRequired`).
  Outcome choose(const std::string& user, const std::string& topicId, TopicChoice choice);

 private:
  boost::json::object view(std::string_view user, const Topic& topic) const;

  mutable std::mutex mutex_;
  std::vector<Topic> topics_;
  std::uint64_t revision_ = 1;
  std::map<std::string, std::map<std::string, TopicChoice, std::less<>>, std::less<>> choices_;
};

}  // namespace sandbox
