#pragma once
// The device's push tokens between runs of the command. The client keeps its token cache
// only for the life of a process, as the phone hands an application its device token again
// at every launch; this store plays the phone's part. It lives beside the credentials, in
// device.json of the configuration folder:
//
//   {"tokens": {"apn": "0aff", "firebase-fcm": "f00d"}, "apns": "0aff"}
//
// "tokens" keeps the order in which providers were first set (the order they are registered
// in); "apns" is the platform's raw token in hex, whose hex form is also "tokens"."apn".

#include <boost/asio/awaitable.hpp>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "herald/herald.hpp"
#include "platform/user_defaults.hpp"

namespace cli {

class DeviceTokens {
 public:
  using Tokens = std::vector<std::pair<std::string, std::string>>;

  explicit DeviceTokens(std::filesystem::path file) : store_(std::move(file)) {}

  std::filesystem::path file() const { return store_.file(); }

  /// Every provider's token, in the order first set. Entries that are not a known provider
  /// with a token text are passed over: the file is ours, but a person may have edited it.
  Tokens tokens() const;
  std::optional<std::string> token(std::string_view providerKey) const;
  /// The platform's raw token (bytes).
  std::optional<std::string> apnsToken() const;

  /// Keeps the raw token (and its hex form as the "apn" token) and each (provider key,
  /// token), in one change of the file. Throws `platform::Error` when it cannot be written.
  void keep(const std::optional<std::string>& rawAPNSToken, const Tokens& tokens);
  void setToken(const std::string& providerKey, const std::string& token) {
    keep(std::nullopt, {{providerKey, token}});
  }
  void setAPNSToken(const std::string& rawToken) { keep(rawToken, {}); }

  /// Hands the kept tokens to the facade's cache. Call it while the facade has no client:
  /// then nothing is sent, and the next sign-in registers them all.
  boost::asio::awaitable<void> seed(herald::Herald& herald) const;

 private:
  platform::UserDefaults store_;
};

/// The bytes of an even number of hexadecimal digits (either case); none for anything else.
std::optional<std::string> bytesFromHex(std::string_view hex);

}  // namespace cli
