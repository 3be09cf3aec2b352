#pragma once
/// The platform layer's error value: what the phone platform reports as an error with a
/// domain, a numeric code and a description a person can read.
///
///   try { session.dataSync(request); }
///   catch (const platform::Error& e) { std::cerr << e.domain() << " " << e.code(); }

#include <boost/json/object.hpp>

#include <stdexcept>
#include <string>

namespace platform {

class Error : public std::runtime_error {
 public:
  Error(std::string domain, long code, std::string description, boost::json::object userInfo = {});

  const std::string& domain() const noexcept { return domain_; }
  long code() const noexcept { return code_; }
  /// The text a person reads; `what()` returns the same text.
  const std::string& localizedDescription() const noexcept { return description_; }
  const boost::json::object& userInfo() const noexcept { return userInfo_; }

 private:
  std::string domain_;
  long code_;
  std::string description_;
  boost::json::object userInfo_;
};

/// Domain and codes of URL loading failures (the numbers are the phone platform's).
namespace url_error {
inline constexpr const char* domain = "URLErrorDomain";
inline constexpr long unknown = -1;
inline constexpr long cancelled = -999;
inline constexpr long badURL = -1000;
inline constexpr long timedOut = -1001;
inline constexpr long unsupportedURL = -1002;
inline constexpr long cannotFindHost = -1003;
inline constexpr long cannotConnectToHost = -1004;
inline constexpr long networkConnectionLost = -1005;
inline constexpr long badServerResponse = -1011;
inline constexpr long fileDoesNotExist = -1100;
inline constexpr long dataLengthExceedsMaximum = -1103;
inline constexpr long secureConnectionFailed = -1200;
inline constexpr long cannotWriteToFile = -3003;
}  // namespace url_error

/// The error every URL builder raises for a text that is not a URL: domain "Invalid URL",
/// code -1, no user info.
Error invalidURLError();

/// Name of an exception's dynamic type, demangled ("platform::Error").
std::string typeName(const std::exception& e);

}  // namespace platform
