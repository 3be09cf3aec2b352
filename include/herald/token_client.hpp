#pragma once
/// The area client for push tokens (register and remove a device's token); made by `HeraldClient`.
///
///   auto client = herald::HeraldClient::defaultClient()->tokens();

#include "herald/herald_api_client.hpp"

namespace herald {

class TokenClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;
};

}  // namespace herald
