#include "core/decoding.hpp"

#include <limits>

#include "platform/json.hpp"

namespace core {
namespace {

[[noreturn]] void mismatch(std::string_view path, std::string_view expected,
                           const boost::json::value& found) {
  throw DecodingError(
      DecodingError::Kind::typeMismatch, std::string(path),
      "expected " + std::string(expected) + ", found " + platform::describeJSONKind(found));
}

}  // namespace

DecodingError::DecodingError(Kind kind, std::string codingPath, std::string detail)
    : kind_(kind), codingPath_(std::move(codingPath)), detail_(std::move(detail)) {
  if (!codingPath_.empty()) {
    message_ = '"' + codingPath_ + "\": " + detail_;
  } else {
    message_ = kind_ == Kind::dataCorrupted ? detail_ : "top level: " + detail_;
  }
}

std::string appendCodingKey(std::string_view path, std::string_view key) {
  std::string out;
  out.reserve(path.size() + key.size() + 1);
  out.append(path);
  if (!path.empty()) out.push_back('.');
  out.append(key);
  return out;
}

std::string appendCodingIndex(std::string_view path, std::size_t index) {
  std::string out(path);
  out += '[' + std::to_string(index) + ']';
  return out;
}

KeyedDecoder::KeyedDecoder(const boost::json::value& value, std::string_view codingPath)
    : object_(value.if_object()), path_(codingPath) {
  if (object_ == nullptr) mismatch(path_, "an object", value);
}

const boost::json::value* KeyedDecoder::find(std::string_view key) const noexcept {
  const auto* entry = object_->if_contains(key);
  return entry == nullptr || entry->is_null() ? nullptr : entry;
}

std::string Decodable<std::string>::decode(const boost::json::value& value, std::string_view path) {
  if (auto s = tryDecode(value)) return std::move(*s);
  mismatch(path, expected, value);
}

bool Decodable<bool>::decode(const boost::json::value& value, std::string_view path) {
  if (auto b = tryDecode(value)) return *b;
  mismatch(path, expected, value);
}

std::int64_t Decodable<std::int64_t>::decode(const boost::json::value& value,
                                             std::string_view path) {
  if (const auto* i = value.if_int64()) return *i;
  if (const auto* u = value.if_uint64()) {
    if (*u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<std::int64_t>(*u);
    }
  }
  mismatch(path, expected, value);
}

double Decodable<double>::decode(const boost::json::value& value, std::string_view path) {
  if (const auto* d = value.if_double()) return *d;
  if (const auto* i = value.if_int64()) return static_cast<double>(*i);
  if (const auto* u = value.if_uint64()) return static_cast<double>(*u);
  mismatch(path, expected, value);
}

boost::json::value parseForDecoding(std::string_view text) {
  try {
    return platform::parseJSON(text);
  } catch (const platform::JSONSyntaxError& e) {
    throw DecodingError(DecodingError::Kind::dataCorrupted, {},
                        std::string("the data is not valid JSON: ") + e.what());
  }
}

}  // namespace core
