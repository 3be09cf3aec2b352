#pragma once
/// The area client for brand settings; made by `HeraldClient`.
///
///   auto client = herald::HeraldClient::defaultClient()->brands();

#include "herald/herald_api_client.hpp"

namespace herald {

class BrandClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;
};

}  // namespace herald
