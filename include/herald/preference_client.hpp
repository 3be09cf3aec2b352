#pragma once
/// The area client for user notification preferences; made by `HeraldClient`.
///
///   auto client = herald::HeraldClient::defaultClient()->preferences();

#include "herald/herald_api_client.hpp"

namespace herald {

class PreferenceClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;
};

}  // namespace herald
