#pragma once
/// The area client for inbox (GraphQL queries and mutations, realtime socket); made by
/// `HeraldClient`.
///
///   auto client = herald::HeraldClient::defaultClient()->inbox();

#include "herald/herald_api_client.hpp"

namespace herald {

class InboxClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;
};

}  // namespace herald
