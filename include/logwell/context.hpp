#pragma once
/// The optional context of a log entry.
///
/// A context is any JSON value. Whatever converts to a `boost::json::value` (numbers, text,
/// objects, and every type that `boost::json::value_from` knows, such as maps and vectors) is
/// kept as that value; any other type that can be written to a `std::ostream` is kept as the
/// text it writes. `nullptr` and `std::nullopt` mean "no context".
///
///   logwell::Context none;                                        // absent
///   logwell::Context user{{"user", "ada"}, {"httpRequest", {{"status", 500}}}};
///   logwell::Context text = someStreamableThing;                  // its << text

#include <boost/json/value.hpp>
#include <boost/json/value_from.hpp>
#include <concepts>
#include <initializer_list>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

namespace logwell {

namespace detail {
template <class T>
concept Streamable = requires(std::ostream& os, const T& value) {
  os << value;
};
}  // namespace detail

class Context {
 public:
  Context() = default;
  Context(std::initializer_list<boost::json::value_ref> init) : value_(std::in_place, init) {}

  template <class T>
  requires(!std::same_as<std::remove_cvref_t<T>, Context>)
      Context(T&& value) {  // NOLINT: implicit on purpose, so that any value can be passed
    using U = std::remove_cvref_t<T>;
    if constexpr (std::same_as<U, std::nullopt_t> || std::same_as<U, std::nullptr_t>) {
      // absent
    } else if constexpr (std::is_constructible_v<boost::json::value, T>) {
      value_.emplace(std::forward<T>(value));
    } else if constexpr (boost::json::has_value_from<U>::value) {
      value_.emplace(boost::json::value_from(std::forward<T>(value)));
    } else {
      static_assert(detail::Streamable<U>,
                    "a log context must convert to boost::json::value or be streamable");
      std::ostringstream out;
      out << value;
      value_.emplace(out.str());
    }
  }

  bool hasValue() const noexcept { return value_.has_value(); }
  explicit operator bool() const noexcept { return hasValue(); }
  /// The value; only valid when `hasValue()`.
  const boost::json::value& value() const { return *value_; }

  /// How the `$X` token shows the context: text as it is, anything else as compact JSON,
  /// with white space and line breaks at both ends removed. Empty when absent.
  std::string description() const;

 private:
  std::optional<boost::json::value> value_;
};

}  // namespace logwell
