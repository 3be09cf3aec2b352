#pragma once
/// What the application's backend answers: the paged list envelope, elements that may fail
/// to decode one by one, and the error of an unsuccessful HTTP response with its body.
///
///   auto page = core::decodeJSON<core::FailableListServiceResponse<Design>>(body);
///   for (const auto& element : page.results)
///     if (element.wrapped) show(*element.wrapped);   // malformed elements carry `error`
///
///   if (*response.statusCode >= 400)
///     throw core::HTTPURLResponseError::fromResponse(response, body);

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/dates.hpp"
#include "core/decoding.hpp"
#include "platform/url_loading.hpp"

namespace core {

/// One element decoded on its own: exactly one of `wrapped` and `error` is set. A failure
/// is kept, not thrown, so that one bad element does not cost the whole page.
template <class T>
struct FailableDecodable {
  std::optional<T> wrapped;
  std::optional<DecodingError> error;
};

template <class T>
struct Decodable<FailableDecodable<T>> {
  static constexpr std::string_view expected = Decodable<T>::expected;
  static FailableDecodable<T> decode(const boost::json::value& value, std::string_view path) {
    try {
      return {Decodable<T>::decode(value, path), std::nullopt};
    } catch (const DecodingError& e) {
      return {std::nullopt, e};
    }
  }
};

/// A page of the backend's lists.
template <class T>
struct ListServiceResponse {
  std::int64_t count = 0;                      ///< "count": elements in the whole list
  std::optional<std::string> nextURLPath;      ///< "next"
  std::optional<std::string> previousURLPath;  ///< "previous"
  Date now;                                    ///< "now": the server's clock
  std::vector<T> results;                      ///< "results"

  static ListServiceResponse from(const KeyedDecoder& c) {
    ListServiceResponse page;
    page.count = c.decode<std::int64_t>("count");
    page.nextURLPath = c.decodeIfPresent<std::string>("next");
    page.previousURLPath = c.decodeIfPresent<std::string>("previous");
    page.now = c.decode<Date>("now");
    page.results = c.decode<std::vector<T>>("results");
    return page;
  }
};

/// A page whose elements are decoded one by one; the caller filters out the failed ones.
template <class T>
using FailableListServiceResponse = ListServiceResponse<FailableDecodable<T>>;

/// An HTTP response with an unsuccessful status, with what its body said when it could be
/// read. `what()` is "HTTP status 404" followed by ": " and the body's message if any.
class HTTPURLResponseError : public std::exception {
 public:
  /// The error body, in the current shape, the legacy shape, or neither.
  class Context {
   public:
    struct Detail {
      std::string field;
      std::string code;
      std::string message;
      static Detail from(const KeyedDecoder& c);
    };
    struct Error {
      std::string code;
      std::string message;
      Date timestamp;
      std::string path;
      std::optional<std::vector<Detail>> details;
      static Error from(const KeyedDecoder& c);
    };
    struct DefaultContext {
      std::int64_t statusCode = 0;
      Error error;
      static DefaultContext from(const KeyedDecoder& c);
    };
    struct LegacyContext {
      std::string detail;
      std::string message;
      static LegacyContext from(const KeyedDecoder& c);
    };
    struct Unknown {};

    Context() = default;  ///< unknown
    Context(DefaultContext context) : value_(std::move(context)) {}
    Context(LegacyContext context) : value_(std::move(context)) {}

    /// Tries the current shape, then the legacy one; throws a `dataCorrupted` DecodingError
    /// "Neither `DefaultContext` nor `LegacyContext` can be parsed." when neither fits.
    static Context decode(const boost::json::value& body);

    const DefaultContext* defaultContext() const { return std::get_if<DefaultContext>(&value_); }
    const LegacyContext* legacyContext() const { return std::get_if<LegacyContext>(&value_); }
    bool isUnknown() const { return std::holds_alternative<Unknown>(value_); }

    /// The current shape's `error.code`; none for the others.
    std::optional<std::string> errorCode() const;
    /// The current shape's `error.message` or the legacy `message`; none when unknown.
    std::optional<std::string> errorDescription() const;

   private:
    std::variant<Unknown, DefaultContext, LegacyContext> value_;
  };

  HTTPURLResponseError(std::int64_t statusCode, platform::URLResponse response,
                       std::optional<Context> context = std::nullopt);

  /// The error for `response` (status 0 when it has none) with its body decoded as a context;
  /// a body that is not JSON or fits neither shape gives the unknown context.
  static HTTPURLResponseError fromResponse(const platform::URLResponse& response,
                                           std::string_view body);

  std::int64_t statusCode() const noexcept { return statusCode_; }
  const platform::URLResponse& response() const noexcept { return response_; }
  const std::optional<Context>& context() const noexcept { return context_; }

  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::int64_t statusCode_;
  platform::URLResponse response_;
  std::optional<Context> context_;
  std::string message_;
};

template <>
struct Decodable<HTTPURLResponseError::Context> {
  static constexpr std::string_view expected = "an object";
  static HTTPURLResponseError::Context decode(const boost::json::value& value,
                                              std::string_view path);
};

}  // namespace core
