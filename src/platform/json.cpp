#include "platform/json.hpp"

#include <boost/json/serialize.hpp>
#include <boost/json/stream_parser.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>

namespace platform {
namespace {

void appendNumber(std::string& out, double d) {
  if (!std::isfinite(d)) {
    out += "null";
    return;
  }
  if (d == std::floor(d) && std::fabs(d) < 1e15) {
    out += std::to_string(static_cast<long long>(d));
    return;
  }
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  out.append(buf, end);
}

void appendString(std::string& out, std::string_view s) {
  out += boost::json::serialize(boost::json::string_view(s.data(), s.size()));
}

void write(std::string& out, const boost::json::value& v, JSONStyle style, int depth) {
  const bool pretty = style == JSONStyle::pretty;
  auto newline = [&](int d) {
    if (!pretty) return;
    out.push_back('\n');
    out.append(static_cast<std::size_t>(d) * 2, ' ');
  };
  switch (v.kind()) {
    case boost::json::kind::null:
      out += "null";
      break;
    case boost::json::kind::bool_:
      out += v.get_bool() ? "true" : "false";
      break;
    case boost::json::kind::int64:
      out += std::to_string(v.get_int64());
      break;
    case boost::json::kind::uint64:
      out += std::to_string(v.get_uint64());
      break;
    case boost::json::kind::double_:
      appendNumber(out, v.get_double());
      break;
    case boost::json::kind::string:
      appendString(out, v.get_string());
      break;
    case boost::json::kind::array: {
      const auto& a = v.get_array();
      if (a.empty()) {
        out += "[]";
        break;
      }
      out.push_back('[');
      bool first = true;
      for (const auto& e : a) {
        if (!first) out.push_back(',');
        first = false;
        newline(depth + 1);
        write(out, e, style, depth + 1);
      }
      newline(depth);
      out.push_back(']');
      break;
    }
    case boost::json::kind::object: {
      const auto& o = v.get_object();
      if (o.empty()) {
        out += "{}";
        break;
      }
      out.push_back('{');
      bool first = true;
      for (const auto& kv : o) {
        if (!first) out.push_back(',');
        first = false;
        newline(depth + 1);
        appendString(out, kv.key());
        out += pretty ? " : " : ":";
        write(out, kv.value(), style, depth + 1);
      }
      newline(depth);
      out.push_back('}');
      break;
    }
  }
}

}  // namespace

std::string describeJSONKind(const boost::json::value& value) {
  switch (value.kind()) {
    case boost::json::kind::null:
      return "null";
    case boost::json::kind::bool_:
      return "a boolean";
    case boost::json::kind::int64:
      return "an integer";
    case boost::json::kind::uint64:
      return value.get_uint64() >
                     static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                 ? "an integer beyond the 64-bit range"
                 : "an integer";
    case boost::json::kind::double_:
      return "a number with a fraction or exponent";
    case boost::json::kind::string:
      return "a string";
    case boost::json::kind::array:
      return "an array";
    case boost::json::kind::object:
      return "an object";
  }
  return "an unknown value";
}

std::string toJSON(const boost::json::value& value, JSONStyle style) {
  std::string out;
  write(out, value, style, 0);
  return out;
}

JSONSyntaxError::JSONSyntaxError(std::string reason, std::size_t offset, std::size_t line,
                                 std::size_t column)
    : std::runtime_error(reason + " at line " + std::to_string(line) + ", column " +
                         std::to_string(column)),
      reason_(std::move(reason)),
      offset_(offset),
      line_(line),
      column_(column) {}

boost::json::value parseJSON(std::string_view text) {
  boost::json::parse_options options;
  options.max_depth = kMaxJSONDepth;
  boost::json::stream_parser parser({}, options);
  boost::system::error_code ec;
  std::size_t consumed = parser.write_some(text.data(), text.size(), ec);
  if (!ec && consumed < text.size()) {
    // Trailing non-space text after a complete value.
    std::size_t i = consumed;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i < text.size()) {
      consumed = i;
      ec = boost::json::error::extra_data;
    }
  }
  if (!ec) parser.finish(ec);
  if (ec) {
    std::size_t line = 1, column = 1;
    for (std::size_t i = 0; i < consumed && i < text.size(); ++i) {
      if (text[i] == '\n') {
        ++line;
        column = 1;
      } else {
        ++column;
      }
    }
    std::string reason = ec == boost::json::error::too_deep
                             ? "nested deeper than " + std::to_string(kMaxJSONDepth) + " levels"
                             : ec.message();
    throw JSONSyntaxError(std::move(reason), consumed, line, column);
  }
  return parser.release();
}

std::optional<boost::json::value> tryParseJSON(std::string_view text) {
  try {
    return parseJSON(text);
  } catch (const JSONSyntaxError&) {
    return std::nullopt;
  }
}

}  // namespace platform
