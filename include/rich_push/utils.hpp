#pragma once
/// Payload helpers: dotted paths into a user-info dictionary, a lenient URL parser and the
/// SHA-256 digest that names downloaded files.
///
///   if (const auto* url = rich_push::dig(userInfo, rich_push::StringPath("rp.att.url")))
///     if (url->is_string()) auto parsed = rich_push::parseURL(url->get_string());

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rich_push {

/// A dotted path ("rp.att.url"); segments are separated by ".".
class StringPath {
 public:
  explicit StringPath(std::string rawValue) : path(std::move(rawValue)) {}
  const std::string& rawValue() const { return path; }
  /// The segments in order; "a..b" has an empty middle segment, which no key matches.
  std::vector<std::string_view> segments() const;

  std::string path;
};

/// The value at `path`, walking nested objects segment by segment; null when a segment is
/// missing or a value on the way is not an object. The pointer lives as long as `object`.
const boost::json::value* dig(const boost::json::object& object, const StringPath& path);

/// The URL text as it stands when it is a valid URL, else the text with what a URL cannot
/// hold percent-encoded (spaces, non-ASCII bytes, stray "%"); none when neither parses.
///
///   parseURL("https://cdn.test/a b.jpg") == "https://cdn.test/a%20b.jpg"
std::optional<std::string> parseURL(std::string_view text);

/// The SHA-256 digest of the text's UTF-8 bytes as 64 lower-case hex digits.
std::string sha256Hex(std::string_view text);

}  // namespace rich_push
