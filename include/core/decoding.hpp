#pragma once
/// Strict decoding of JSON into the application's records.
///
/// The rules are the same everywhere: a key that is absent or null gives an absent optional
/// field; a present value of the wrong type fails the whole decode; a required key that is
/// missing, null or of the wrong type fails the whole decode; keys a record does not name are
/// ignored. A failure is a `DecodingError` that names the key path and what was expected:
///
///   "batch.count": expected a 64-bit integer, found a string
///
/// A record takes part by providing `static T from(const core::KeyedDecoder&)`:
///
///   struct Batch {
///     std::int64_t count = 0;
///     static Batch from(const core::KeyedDecoder& c) { return {c.decode<std::int64_t>("count")}; }
///   };
///   Batch b = core::decodeJSON<Batch>(R"({"count": 3})");
///
/// Other types (dates, tagged unions) specialise `core::Decodable<T>` instead.

#include <boost/json/value.hpp>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/json.hpp"

namespace core {

class DecodingError : public std::exception {
 public:
  enum class Kind {
    typeMismatch,   ///< a value of the wrong JSON type
    keyNotFound,    ///< a required key is absent
    valueNotFound,  ///< a required key holds null
    dataCorrupted,  ///< the text is not JSON, or a value has the right type but a bad form
  };

  DecodingError(Kind kind, std::string codingPath, std::string detail);

  Kind kind() const noexcept { return kind_; }
  /// Where the decode failed: "batch.count", "results[1].now"; empty for the top level.
  const std::string& codingPath() const noexcept { return codingPath_; }
  /// What went wrong there: "expected a 64-bit integer, found a string".
  const std::string& detail() const noexcept { return detail_; }
  /// `"<path>": <detail>`; at the top level `top level: <detail>`, or the bare detail for
  /// `dataCorrupted`.
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  Kind kind_;
  std::string codingPath_;
  std::string detail_;
  std::string message_;
};

/// The path of `key` inside the object at `path` ("profile" + "user_id" → "profile.user_id").
std::string appendCodingKey(std::string_view path, std::string_view key);
/// The path of element `index` of the array at `path` ("results" + 1 → "results[1]").
std::string appendCodingIndex(std::string_view path, std::size_t index);

/// How a value of type T is read from JSON. The primary template opens an object and hands
/// it to `T::from`; specialisations below cover the scalar types and lists.
template <class T>
struct Decodable;

/// A JSON object being decoded, with the key path that led to it.
class KeyedDecoder {
 public:
  /// Opens `value` as an object; throws `typeMismatch` when it is anything else.
  explicit KeyedDecoder(const boost::json::value& value, std::string_view codingPath = {});

  const boost::json::object& object() const noexcept { return *object_; }
  const std::string& codingPath() const noexcept { return path_; }

  /// The value of a key that is present and not null.
  const boost::json::value* find(std::string_view key) const noexcept;

  /// A required field: absent, null and wrong type all throw.
  template <class T>
  T decode(std::string_view key) const {
    const auto* entry = object_->if_contains(key);
    if (entry == nullptr) {
      throw DecodingError(DecodingError::Kind::keyNotFound, appendCodingKey(path_, key),
                          "required key is missing");
    }
    if (entry->is_null()) {
      throw DecodingError(DecodingError::Kind::valueNotFound, appendCodingKey(path_, key),
                          "expected " + std::string(Decodable<T>::expected) + ", found null");
    }
    return decodeEntry<T>(*entry, key);
  }

  /// An optional field: absent and null give none; a wrong type throws.
  template <class T>
  std::optional<T> decodeIfPresent(std::string_view key) const {
    const auto* entry = find(key);
    if (entry == nullptr) return std::nullopt;
    return decodeEntry<T>(*entry, key);
  }

 private:
  // A scalar of the right type is taken as it is; the key path, which costs an allocation,
  // is made only for a value that goes on to a decoder of its own or fails.
  template <class T>
  T decodeEntry(const boost::json::value& entry, std::string_view key) const {
    if constexpr (requires { Decodable<T>::tryDecode(entry); }) {
      if (auto value = Decodable<T>::tryDecode(entry)) return std::move(*value);
    }
    return Decodable<T>::decode(entry, appendCodingKey(path_, key));
  }

  const boost::json::object* object_;
  std::string path_;
};

template <class T>
struct Decodable {
  static constexpr std::string_view expected = "an object";
  static T decode(const boost::json::value& value, std::string_view path) {
    return T::from(KeyedDecoder(value, path));
  }
};

// The scalars also offer `tryDecode`: the value when it has the right type, else none.
template <>
struct Decodable<std::string> {
  static constexpr std::string_view expected = "a string";
  static std::optional<std::string> tryDecode(const boost::json::value& value) {
    const auto* s = value.if_string();
    if (s == nullptr) return std::nullopt;
    return std::string(s->data(), s->size());
  }
  static std::string decode(const boost::json::value& value, std::string_view path);
};

template <>
struct Decodable<bool> {
  static constexpr std::string_view expected = "a boolean";
  static std::optional<bool> tryDecode(const boost::json::value& value) {
    const auto* b = value.if_bool();
    return b ? std::optional<bool>(*b) : std::nullopt;
  }
  static bool decode(const boost::json::value& value, std::string_view path);
};

/// Only JSON integers that fit: 3.0 and 1e3 are numbers with a fraction part in JSON's
/// model, and the server never sends counts that way, so they are refused.
template <>
struct Decodable<std::int64_t> {
  static constexpr std::string_view expected = "a 64-bit integer";
  static std::int64_t decode(const boost::json::value& value, std::string_view path);
};

/// Any JSON number.
template <>
struct Decodable<double> {
  static constexpr std::string_view expected = "a number";
  static double decode(const boost::json::value& value, std::string_view path);
};

/// Any JSON value, kept as it is (null never reaches here: it means absent).
template <>
struct Decodable<boost::json::value> {
  static constexpr std::string_view expected = "a value";
  static boost::json::value decode(const boost::json::value& value, std::string_view) {
    return value;
  }
};

template <class T>
struct Decodable<std::vector<T>> {
  static constexpr std::string_view expected = "an array";
  static std::vector<T> decode(const boost::json::value& value, std::string_view path) {
    const auto* array = value.if_array();
    if (array == nullptr) {
      throw DecodingError(DecodingError::Kind::typeMismatch, std::string(path),
                          "expected an array, found " + platform::describeJSONKind(value));
    }
    std::vector<T> out;
    out.reserve(array->size());
    // A null element reaches the element's decoder, which refuses it (or, for a failable
    // element, keeps the failure).
    for (std::size_t i = 0; i < array->size(); ++i) {
      if constexpr (requires { Decodable<T>::tryDecode((*array)[i]); }) {
        if (auto element = Decodable<T>::tryDecode((*array)[i])) {
          out.push_back(std::move(*element));
          continue;
        }
      }
      out.push_back(Decodable<T>::decode((*array)[i], appendCodingIndex(path, i)));
    }
    return out;
  }
};

/// Decodes a whole JSON value as T (the top level has an empty key path).
template <class T>
T decodeValue(const boost::json::value& value) {
  return Decodable<T>::decode(value, {});
}

/// Parses `text` and decodes it as T. Text that is not JSON throws `dataCorrupted` with the
/// parser's reason, line and column.
boost::json::value parseForDecoding(std::string_view text);

template <class T>
T decodeJSON(std::string_view text) {
  return decodeValue<T>(parseForDecoding(text));
}

}  // namespace core
