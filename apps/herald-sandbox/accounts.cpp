#include "accounts.hpp"

#include <jwt.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "platform/json.hpp"
#include "platform/text.hpp"

namespace sandbox {
namespace {

struct JWTFree {
  void operator()(jwt_t* jwt) const { jwt_free(jwt); }
};
using JWT = std::unique_ptr<jwt_t, JWTFree>;

struct CharFree {
  void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, CharFree>;

const unsigned char* keyBytes(const std::string& secret) {
  return reinterpret_cast<const unsigned char*>(secret.data());
}

Response unauthenticated(std::string message) {
  return Response::error(401, std::move(message), "authentication_error");
}

std::int64_t secondsSinceEpoch() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The token text of "Bearer <token>"; the scheme is case-insensitive as in HTTP.
std::optional<std::string_view> bearerToken(std::string_view value) {
  constexpr std::string_view scheme = "bearer ";
  if (value.size() <= scheme.size() ||
      !platform::equalsIgnoringCase(value.substr(0, scheme.size()), scheme))
    return std::nullopt;
  auto token = value.substr(scheme.size());
  while (token.starts_with(' ')) token.remove_prefix(1);
  if (token.empty() || token.find_first_of(" \t") != std::string_view::npos) return std::nullopt;
  return token;
}

JWT decode(const std::string& token, const unsigned char* key, int keyLength) {
  jwt_t* raw = nullptr;
  if (jwt_decode(&raw, token.c_str(), key, keyLength) != 0) return nullptr;
  return JWT(raw);
}

}  // namespace

Accounts::Accounts(std::string jwtSecret, std::string clientKey)
    : secret_(std::move(jwtSecret)), clientKey_(std::move(clientKey)) {
  if (secret_.empty()) throw std::invalid_argument("the access-token secret must not be empty");
  if (clientKey_.empty()) throw std::invalid_argument("the client key must not be empty");
}

std::string Accounts::mintToken(const std::string& userId, std::chrono::seconds ttl) {
  jwt_t* raw = nullptr;
  if (jwt_new(&raw) != 0) throw std::runtime_error("cannot make an access token");
  JWT jwt(raw);
  const auto now = secondsSinceEpoch();
  if (jwt_add_grant(jwt.get(), "sub", userId.c_str()) != 0 ||
      jwt_add_grant_int(jwt.get(), "iat", now) != 0 ||
      jwt_add_grant_int(jwt.get(), "exp", now + ttl.count()) != 0 ||
      jwt_set_alg(jwt.get(), JWT_ALG_HS256, keyBytes(secret_), static_cast<int>(secret_.size())) !=
          0)
    throw std::runtime_error("cannot make an access token for \"" + userId + "\"");
  CText text(jwt_encode_str(jwt.get()));
  if (!text) throw std::runtime_error("cannot sign an access token");
  {
    std::lock_guard lock(mutex_);
    users_.try_emplace(userId);
  }
  return text.get();
}

std::optional<Response> Accounts::authorize(const Request& request, std::string_view userId,
                                            ClientKey allowed) const {
  const auto authorization = request.header("Authorization");
  if (!authorization) {
    const auto key = request.header("x-herald-client-key");
    if (allowed == ClientKey::refused)
      return unauthenticated(
          key ? "A client key is not accepted here: send \"Authorization: Bearer <access token>\""
              : "No access token: send \"Authorization: Bearer <access token>\"");
    if (!key)
      return unauthenticated(
          "No credentials: send \"Authorization: Bearer <access token>\" or "
          "\"x-herald-client-key\"");
    if (*key != clientKey_) return unauthenticated("The client key is not valid");
    return std::nullopt;
  }

  const auto bearer = bearerToken(*authorization);
  if (!bearer) return unauthenticated("The Authorization header must be \"Bearer <access token>\"");
  auto user = tokenUser(std::string(*bearer));
  if (auto* refusal = std::get_if<Response>(&user)) return std::move(*refusal);
  const auto& subject = std::get<std::string>(user);
  if (subject != userId)
    return Response::error(
        403, "The access token is for user \"" + subject + "\", not for \"" + std::string(userId) + "\"",
        "authorization_error");
  return std::nullopt;
}

std::variant<std::string, Response> Accounts::tokenUser(const std::string& token) const {
  auto jwt = decode(token, keyBytes(secret_), static_cast<int>(secret_.size()));
  if (!jwt) {
    // Read it again without the key only to say what is wrong with it.
    const auto unchecked = decode(token, nullptr, 0);
    if (!unchecked) return unauthenticated("The access token is malformed");
    // Read without a key, the token's algorithm counts as "none"; its header still names
    // the one it claims.
    const char* alg = jwt_get_header(unchecked.get(), "alg");
    if (!alg)
      return unauthenticated("The access token must be signed with HS256; it names no algorithm");
    if (std::string_view(alg) != "HS256")
      return unauthenticated(std::string("The access token must be signed with HS256, not ") + alg);
    return unauthenticated("The access token's signature is not valid");
  }
  if (jwt_get_alg(jwt.get()) != JWT_ALG_HS256)
    return unauthenticated("The access token must be signed with HS256");

  const CText grantsText(jwt_get_grants_json(jwt.get(), nullptr));
  const auto grants = grantsText ? platform::tryParseJSON(grantsText.get()) : std::nullopt;
  const auto* claims = grants ? grants->if_object() : nullptr;
  if (!claims) return unauthenticated("The access token is malformed");

  // A token made by hand with the secret may leave out "exp"; it then never expires.
  if (const auto* exp = claims->if_contains("exp")) {
    if (!exp->is_int64() && !exp->is_uint64())
      return unauthenticated("The access token's \"exp\" is not a number of seconds");
    if (exp->is_int64() && exp->as_int64() <= secondsSinceEpoch())
      return unauthenticated("The access token has expired");
  }
  const auto* sub = claims->if_contains("sub");
  if (!sub || !sub->is_string())
    return unauthenticated("The access token names no user (it has no \"sub\")");
  return std::string(sub->as_string());
}

void Accounts::putToken(const std::string& userId, RegisteredToken token) {
  std::lock_guard lock(mutex_);
  for (auto& [owner, tokens] : users_) {
    if (owner == userId) continue;
    std::erase_if(tokens, [&](const RegisteredToken& t) { return t.token == token.token; });
  }
  auto& tokens = users_[userId];
  const auto same = std::ranges::find(tokens, token.token, &RegisteredToken::token);
  if (same != tokens.end())
    *same = std::move(token);
  else
    tokens.push_back(std::move(token));
}

bool Accounts::deleteToken(const std::string& userId, std::string_view token) {
  std::lock_guard lock(mutex_);
  const auto user = users_.find(userId);
  if (user == users_.end()) return false;
  return std::erase_if(user->second, [&](const RegisteredToken& t) { return t.token == token; }) >
         0;
}

std::optional<std::vector<RegisteredToken>> Accounts::tokens(const std::string& userId) const {
  std::lock_guard lock(mutex_);
  const auto user = users_.find(userId);
  if (user == users_.end()) return std::nullopt;
  return user->second;
}

}  // namespace sandbox
