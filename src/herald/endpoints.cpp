#include "herald/endpoints.hpp"

#include <boost/url/parse.hpp>
#include <cstdlib>
#include <iostream>
#include <mutex>

#include "core/constants.hpp"
#include "platform/error.hpp"
#include "platform/paths.hpp"

namespace herald {
namespace {

struct State {
  std::mutex mutex;
  std::optional<Endpoints> override;
  // The last HERALD_ENDPOINT seen and what it gave, so that a bad value is reported once.
  std::optional<std::string> environmentValue;
  std::optional<Endpoints> environmentEndpoints;
};

State& state() {
  static State s;
  return s;
}

}  // namespace

Endpoints Endpoints::defaults() {
  return Endpoints{std::string(K::Service::apiBaseURL), std::string(K::Service::inboxGraphQLURL),
                   std::string(K::Service::realtimeSocketURL)};
}

Endpoints Endpoints::localService(std::string_view base) {
  if (!platform::isValidURL(base)) throw platform::invalidURLError();
  auto parsed = boost::urls::parse_uri(base);
  if (!parsed || !parsed->has_authority() || parsed->host().empty()) {
    throw platform::invalidURLError();
  }
  const auto scheme = parsed->scheme_id();
  if (scheme != boost::urls::scheme::http && scheme != boost::urls::scheme::https) {
    throw platform::invalidURLError();
  }
  std::string api(base);
  while (!api.empty() && api.back() == '/') api.pop_back();
  const std::string socketScheme = scheme == boost::urls::scheme::https ? "wss" : "ws";
  std::string authority(parsed->encoded_host_and_port());
  return Endpoints{api, api + std::string(K::Service::localInboxGraphQLPath),
                   socketScheme + "://" + authority + std::string(K::Service::localRealtimePath)};
}

Endpoints Endpoints::current() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (s.override) return *s.override;
  const char* value = std::getenv("HERALD_ENDPOINT");
  if (value == nullptr || *value == '\0') return defaults();
  if (s.environmentValue != value) {
    s.environmentValue = value;
    try {
      s.environmentEndpoints = localService(value);
    } catch (const std::exception&) {
      s.environmentEndpoints.reset();
      std::cerr << "HERALD_ENDPOINT=\"" << value
                << "\" is not an http(s) URL with a host; using the hosted service\n";
    }
  }
  return s.environmentEndpoints ? *s.environmentEndpoints : defaults();
}

void Endpoints::setCurrent(std::optional<Endpoints> endpoints) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.override = std::move(endpoints);
}

}  // namespace herald
