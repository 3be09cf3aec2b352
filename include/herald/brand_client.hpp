#pragma once
/// Brand settings: the look the account has configured for its in-app surfaces, fetched by id
/// with one GraphQL query. Only the primary colour and the footer switch are kept.
///
///   auto brands = client->brands();  // must outlive the call
///   const auto response = co_await brands->getBrand("b-1");
///   const auto& settings = response.data.brand->settings;
///   const bool footer = !settings || !settings->inapp || settings->inapp->showHeraldFooter();
///
/// The settings are shared records (held by `std::shared_ptr`, null when the service left
/// them out); the response and its "data" are plain values. Each encodes with the keys it
/// decodes from, leaving absent values out.

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/decoding.hpp"
#include "herald/herald_api_client.hpp"
#include "herald/shared_record.hpp"

namespace herald {

/// "colors": the colours as the service writes them ("#9122F7").
class HeraldBrandColors {
 public:
  explicit HeraldBrandColors(std::optional<std::string> primary = std::nullopt)
      : primary(std::move(primary)) {}

  std::optional<std::string> primary;  ///< "primary"

  static std::shared_ptr<HeraldBrandColors> from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

/// "inapp": how the in-app surfaces look.
class HeraldBrandInApp {
 public:
  explicit HeraldBrandInApp(std::optional<bool> disableHeraldFooter = std::nullopt)
      : disableHeraldFooter(disableHeraldFooter) {}

  std::optional<bool> disableHeraldFooter;  ///< "disableHeraldFooter"

  /// True unless the footer is disabled outright: an absent switch shows it.
  bool showHeraldFooter() const { return disableHeraldFooter != true; }

  static std::shared_ptr<HeraldBrandInApp> from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

class HeraldBrandSettings {
 public:
  explicit HeraldBrandSettings(std::shared_ptr<HeraldBrandColors> colors = nullptr,
                               std::shared_ptr<HeraldBrandInApp> inapp = nullptr)
      : colors(std::move(colors)), inapp(std::move(inapp)) {}

  std::shared_ptr<HeraldBrandColors> colors;  ///< "colors"; null when absent
  std::shared_ptr<HeraldBrandInApp> inapp;    ///< "inapp"; null when absent

  static std::shared_ptr<HeraldBrandSettings> from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

class HeraldBrand {
 public:
  explicit HeraldBrand(std::shared_ptr<HeraldBrandSettings> settings = nullptr)
      : settings(std::move(settings)) {}

  std::shared_ptr<HeraldBrandSettings> settings;  ///< "settings"; null when absent

  static std::shared_ptr<HeraldBrand> from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

/// "data" of the answer; "brand" is required (a null brand fails the decode).
struct HeraldBrandData {
  std::shared_ptr<HeraldBrand> brand;

  static HeraldBrandData from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

/// The whole answer; "data" is required.
struct HeraldBrandResponse {
  HeraldBrandData data;

  static HeraldBrandResponse from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

class BrandClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;

  /// The `GetBrand` query with `brandId` spliced in as it is, between the quotes of
  /// `brand(brandId: "…")`; nothing is escaped, so a quote in the id breaks the document.
  /// It asks for more than the records keep (secondary and tertiary colours, the border
  /// radius), as the service's other clients do.
  static std::string getBrandQuery(std::string_view brandId);

  /// POSTs the query to the API's GraphQL endpoint (`Endpoints::current().graphQLURL()`) with
  /// the usual GraphQL step; only 200 is taken. Throws `HeraldError` for any other status,
  /// `platform::Error` for an invalid URL or a transport failure, and `core::DecodingError`
  /// for an answer without "data" or "brand" (which is how an unknown brand comes back).
  boost::asio::awaitable<HeraldBrandResponse> getBrand(std::string brandId) const;
};

}  // namespace herald
