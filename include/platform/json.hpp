#pragma once
/// JSON text for people and for the wire: numbers written the way a person writes them
/// (3.25, not 3.25E0), and parse errors that say where the text went wrong.
///
///   auto v = platform::parseJSON(R"({"a": 1})");      // throws platform::JSONSyntaxError
///   std::string line = platform::toJSON(v);            // {"a":1}
///   std::string page = platform::toJSON(v, platform::JSONStyle::pretty);

#include <boost/json/value.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace platform {

enum class JSONStyle {
  compact,  ///< one line, no spaces
  pretty,   ///< two-space indentation, "key" : value, one member a line
};

std::string toJSON(const boost::json::value& value, JSONStyle style = JSONStyle::compact);

class JSONSyntaxError : public std::runtime_error {
 public:
  JSONSyntaxError(std::string reason, std::size_t offset, std::size_t line, std::size_t column);
  const std::string& reason() const { return reason_; }
  std::size_t offset() const { return offset_; }
  std::size_t line() const { return line_; }
  std::size_t column() const { return column_; }

 private:
  std::string reason_;
  std::size_t offset_, line_, column_;
};

/// What kind of value this is, for error messages: "a string", "an integer", "null", …
std::string describeJSONKind(const boost::json::value& value);

/// How deep arrays and objects may nest in any JSON text this program parses. Deep enough
/// for any real payload (a 4 KB push holds nothing near it) and shallow enough that the
/// recursive walks over a parsed value (writing, comparing, destroying) cannot exhaust a
/// thread's stack.
inline constexpr std::size_t kMaxJSONDepth = 512;

/// Parses a whole JSON text, nested at most `kMaxJSONDepth` deep; a syntax error names the
/// reason with its line and column.
boost::json::value parseJSON(std::string_view text);

/// The same parse for texts that may well not be JSON (a response body): no value instead
/// of an exception.
std::optional<boost::json::value> tryParseJSON(std::string_view text);

}  // namespace platform
