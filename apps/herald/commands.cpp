#include "commands.hpp"

#include <unistd.h>

#include <functional>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "herald/token_module.hpp"
#include "herald/user_manager.hpp"

namespace cli {
namespace {

using boost::asio::awaitable;

boost::json::value optionalJSON(const std::optional<std::string>& text) {
  return text ? boost::json::value(*text) : boost::json::value(nullptr);
}

std::string describeUser(const std::string& userId, const std::optional<std::string>& tenantId) {
  return userId + (tenantId ? " (tenant " + *tenantId + ")" : "");
}

// The worse of two outcomes: a service out of reach says more than a refusal.
int worse(int a, int b) {
  if (a == ExitStatus::unreachable || b == ExitStatus::unreachable) return ExitStatus::unreachable;
  return a != ExitStatus::success ? a : b;
}

std::string registrationContext(const std::string& providerKey, const std::string& token) {
  return "could not register the " + providerKey + " token " + token + " with " +
         herald::Endpoints::current().apiBaseURL;
}

boost::json::object tokenJSON(const std::string& providerKey, const std::string& token) {
  return {{"provider", providerKey}, {"token", token}};
}

// Keeps tokens on the device; a failure is reported with the file it concerns.
int keepOnDevice(const std::function<void()>& keep, Context& context) {
  try {
    keep();
    return ExitStatus::success;
  } catch (...) {
    auto failure = Failure::from(std::current_exception());
    context.report.failure(
        failure, "could not keep the device's tokens in " + context.device.file().string());
    return failure.status;
  }
}

// Signs in and checks that the credentials were stored: the facade logs a failure to store
// them and leaves the user signed out (no client), which the command must not report as
// success. The store itself is not read back: another process may have signed someone else
// in since.
awaitable<int> signInAndCheck(const std::string& userId, const std::optional<std::string>& tenantId,
                              const std::string& accessToken,
                              const std::optional<std::string>& clientKey, Context& context) {
  co_await herald::Herald::shared().signIn(userId, tenantId, accessToken, clientKey,
                                           context.showLogs);
  // Awaited into a variable first: g++ 12 miscompiles a co_await inside an if condition.
  const auto client = co_await herald::Herald::shared().client();
  if (client) co_return ExitStatus::success;
  context.report.failure(Failure::storageError(
      "could not store the credentials of " + userId + " in " +
      platform::UserDefaults::standardFile().string() + "; nobody is signed in"));
  co_return ExitStatus::storage;
}

struct Uploads {
  std::vector<herald::TokenUpload> registered;
  int status = ExitStatus::success;
};

// What the last sign-in's registrations gave; each failure is reported.
awaitable<Uploads> checkUploads(Context& context) {
  Uploads result;
  for (auto& upload : co_await herald::Herald::shared().lastTokenUploads()) {
    if (!upload.error) {
      result.registered.push_back(std::move(upload));
      continue;
    }
    auto failure = Failure::from(std::make_exception_ptr(*upload.error));
    context.report.failure(failure, registrationContext(upload.providerKey, upload.token),
                           tokenJSON(upload.providerKey, upload.token));
    result.status = worse(result.status, failure.status);
  }
  co_return result;
}

// The stored credentials, as the last sign-in left them.
struct StoredSession {
  std::optional<std::string> userId, tenantId, accessToken, clientKey;
};

StoredSession storedSession() {
  const auto credentials = herald::UserManager::shared().getCredentials();
  const auto field = [&](std::string_view key) -> std::optional<std::string> {
    if (!credentials) return std::nullopt;
    const auto it = credentials->find(std::string(key));
    if (it == credentials->end()) return std::nullopt;
    return it->second;
  };
  return {field(herald::UserManager::userIdKey), field(herald::UserManager::tenantIdKey),
          field(herald::UserManager::accessTokenKey), field(herald::UserManager::clientKeyKey)};
}

// Signs in again from the stored credentials, as an application does at launch (which
// registers the device's tokens again: the caller seeds them first).
awaitable<int> signInAgain(const StoredSession& session, Context& context) {
  co_return co_await signInAndCheck(*session.userId, session.tenantId,
                                    session.accessToken.value_or(""), session.clientKey, context);
}

// The common part of `token set` and `token apns`: keep the token on the device; with a user
// signed in, sign in again from the stored credentials and register it.
awaitable<int> keepAndRegister(const std::string& providerKey, const std::string& token,
                               const std::function<void()>& keep,
                               const std::function<awaitable<void>()>& upload, Context& context) {
  auto& herald = herald::Herald::shared();
  const auto session = storedSession();
  const auto& userId = session.userId;
  auto fields = tokenJSON(providerKey, token);

  if (!userId) {
    if (int status = keepOnDevice(keep, context)) co_return status;
    fields["registered"] = false;
    fields["userId"] = nullptr;
    context.report.result("kept the " + providerKey + " token " + token +
                              " on this device; nobody is signed in, so it will be "
                              "registered at the next sign-in",
                          fields);
    co_return ExitStatus::success;
  }

  // The device's tokens as they were go into the cache first, so that replacing one of them
  // takes the old one off the service. The new one is kept before anything is sent, so that
  // a failed registration is tried again at the next sign-in.
  co_await context.device.seed(herald);
  if (int status = keepOnDevice(keep, context)) co_return status;
  int status = co_await signInAgain(session, context);
  if (status != ExitStatus::success) co_return status;
  status = (co_await checkUploads(context)).status;
  if (status == ExitStatus::unreachable) {
    // The same service would be asked again, and a time-out would be waited for twice.
    context.report.note("the " + providerKey + " token " + token +
                        " is kept on this device and will be registered at the next sign-in");
    co_return status;
  }
  try {
    co_await upload();
  } catch (...) {
    auto failure = Failure::from(std::current_exception());
    context.report.failure(failure, registrationContext(providerKey, token), fields);
    co_return worse(status, failure.status);
  }
  fields["registered"] = true;
  fields["userId"] = *userId;
  context.report.result("registered the " + providerKey + " token " + token + " for " + *userId,
                        fields);
  co_return status;
}

}  // namespace

awaitable<int> signIn(SignInRequest request, Context& context) {
  // Kept first: the device has these tokens whatever the service says about them.
  const auto keep = [&] {
    context.device.keep(request.apnsToken, request.tokens);
  };
  if (int status = keepOnDevice(keep, context)) co_return status;
  co_await context.device.seed(herald::Herald::shared());

  int status = co_await signInAndCheck(request.userId, request.tenantId, request.accessToken,
                                       request.clientKey, context);
  if (status != ExitStatus::success) co_return status;
  auto uploads = co_await checkUploads(context);

  std::string text = "signed in as " + describeUser(request.userId, request.tenantId);
  boost::json::array tokens;
  for (const auto& upload : uploads.registered) {
    text += "\nregistered the " + upload.providerKey + " token " + upload.token;
    tokens.push_back(tokenJSON(upload.providerKey, upload.token));
  }
  context.report.result(text, {{"signedIn", true},
                               {"userId", request.userId},
                               {"tenantId", optionalJSON(request.tenantId)},
                               {"tokens", std::move(tokens)}});
  co_return uploads.status;
}

awaitable<int> signOut(Context& context) {
  auto& herald = herald::Herald::shared();
  const auto userId = herald.userId();
  co_await herald.signOut();
  if (userId && herald.userId()) {
    context.report.failure(Failure::storageError("could not remove the credentials of " + *userId +
                                                 " from " +
                                                 platform::UserDefaults::standardFile().string()));
    co_return ExitStatus::storage;
  }
  context.report.result(userId ? "signed out " + *userId : "nobody was signed in",
                        {{"signedIn", false}, {"signedOut", optionalJSON(userId)}});
  co_return ExitStatus::success;
}

int whoAmI(Context& context) {
  auto& users = herald::UserManager::shared();
  const auto userId = users.userId();
  if (!userId) {
    context.report.result("not signed in", {{"signedIn", false}});
    return ExitStatus::success;
  }
  const auto tenantId = users.tenantId();
  context.report.result(
      "signed in as " + describeUser(*userId, tenantId),
      {{"signedIn", true}, {"userId", *userId}, {"tenantId", optionalJSON(tenantId)}});
  return ExitStatus::success;
}

awaitable<int> setToken(std::string providerKey, std::string token, Context& context) {
  co_return co_await keepAndRegister(
      providerKey, token, [&] { context.device.setToken(providerKey, token); },
      [&]() -> awaitable<void> { co_await herald::Herald::shared().setToken(providerKey, token); },
      context);
}

awaitable<int> setAPNSToken(std::string rawToken, Context& context) {
  const std::string providerKey(toString(herald::HeraldPushProvider::apn));
  co_return co_await keepAndRegister(
      providerKey, herald::hexString(rawToken), [&] { context.device.setAPNSToken(rawToken); },
      [&]() -> awaitable<void> { co_await herald::Herald::shared().setAPNSToken(rawToken); },
      context);
}

awaitable<Session> resumeSession(Context& context) {
  auto& herald = herald::Herald::shared();
  const auto session = storedSession();
  if (!session.userId) throw herald::HeraldError::noUserSignedIn();
  co_await context.device.seed(herald);
  Session result;
  result.status = co_await signInAgain(session, context);
  if (result.status != ExitStatus::success) co_return result;
  // A refused registration is told, but it is not what the caller came for.
  co_await checkUploads(context);
  result.client = co_await herald.client();
  if (!result.client) throw herald::HeraldError::noUserSignedIn();
  co_return result;
}

int getToken(const std::string& providerKey, Context& context) {
  const auto token = context.device.token(providerKey);
  context.report.result(token ? *token : "no token for " + providerKey,
                        {{"provider", providerKey}, {"token", optionalJSON(token)}});
  return ExitStatus::success;
}

namespace {
void endNow(int) { ::_exit(ExitStatus::success); }

// Puts `saved` back unless the command's own loop has taken the signal over meanwhile.
void restore(int signal, const struct sigaction& saved) {
  struct sigaction current {};
  ::sigaction(signal, nullptr, &current);
  if (current.sa_handler == endNow) ::sigaction(signal, &saved, nullptr);
}
}  // namespace

EndOnSignal::EndOnSignal() {
  struct sigaction end {};
  end.sa_handler = endNow;
  sigemptyset(&end.sa_mask);
  ::sigaction(SIGINT, &end, &interrupt_);
  ::sigaction(SIGTERM, &end, &terminate_);
}

EndOnSignal::~EndOnSignal() {
  restore(SIGINT, interrupt_);
  restore(SIGTERM, terminate_);
}

}  // namespace cli
