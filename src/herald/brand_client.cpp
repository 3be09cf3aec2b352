#include "herald/brand_client.hpp"

#include <vector>

#include "herald/endpoints.hpp"

namespace herald {
namespace {

// The query around the brand id: the id goes between these two halves as it is.
constexpr std::string_view kQueryHead = "    query GetBrand {\n        brand(brandId: \"";
constexpr std::string_view kQueryTail =
    "\") {\n            settings {\n                colors {\n                    primary\n"
    "                    secondary\n                    tertiary\n                }\n"
    "                inapp {\n                    borderRadius\n"
    "                    disableHeraldFooter\n                }\n            }\n"
    "        }\n    }";

template <class Record>
void put(boost::json::object& object, std::string_view key, const std::shared_ptr<Record>& value) {
  if (value) object[key] = value->toJSON();
}

}  // namespace

std::shared_ptr<HeraldBrandColors> HeraldBrandColors::from(const core::KeyedDecoder& decoder) {
  return std::make_shared<HeraldBrandColors>(decoder.decodeIfPresent<std::string>("primary"));
}

boost::json::object HeraldBrandColors::toJSON() const {
  boost::json::object object;
  if (primary) object["primary"] = *primary;
  return object;
}

std::shared_ptr<HeraldBrandInApp> HeraldBrandInApp::from(const core::KeyedDecoder& decoder) {
  return std::make_shared<HeraldBrandInApp>(decoder.decodeIfPresent<bool>("disableHeraldFooter"));
}

boost::json::object HeraldBrandInApp::toJSON() const {
  boost::json::object object;
  if (disableHeraldFooter) object["disableHeraldFooter"] = *disableHeraldFooter;
  return object;
}

std::shared_ptr<HeraldBrandSettings> HeraldBrandSettings::from(
    const core::KeyedDecoder& decoder) {
  return std::make_shared<HeraldBrandSettings>(
      decoder.decodeIfPresent<std::shared_ptr<HeraldBrandColors>>("colors").value_or(nullptr),
      decoder.decodeIfPresent<std::shared_ptr<HeraldBrandInApp>>("inapp").value_or(nullptr));
}

boost::json::object HeraldBrandSettings::toJSON() const {
  boost::json::object object;
  put(object, "colors", colors);
  put(object, "inapp", inapp);
  return object;
}

std::shared_ptr<HeraldBrand> HeraldBrand::from(const core::KeyedDecoder& decoder) {
  return std::make_shared<HeraldBrand>(
      decoder.decodeIfPresent<std::shared_ptr<HeraldBrandSettings>>("settings").value_or(nullptr));
}

boost::json::object HeraldBrand::toJSON() const {
  boost::json::object object;
  put(object, "settings", settings);
  return object;
}

HeraldBrandData HeraldBrandData::from(const core::KeyedDecoder& decoder) {
  return {decoder.decode<std::shared_ptr<HeraldBrand>>("brand")};
}

boost::json::object HeraldBrandData::toJSON() const {
  boost::json::object object;
  put(object, "brand", brand);
  return object;
}

HeraldBrandResponse HeraldBrandResponse::from(const core::KeyedDecoder& decoder) {
  return {decoder.decode<HeraldBrandData>("data")};
}

boost::json::object HeraldBrandResponse::toJSON() const {
  return {{"data", data.toJSON()}};
}

std::string BrandClient::getBrandQuery(std::string_view brandId) {
  std::string query(kQueryHead);
  query += brandId;
  query += kQueryTail;
  return query;
}

boost::asio::awaitable<HeraldBrandResponse> BrandClient::getBrand(std::string brandId) const {
  auto request = makeGraphQLRequest(Endpoints::current().graphQLURL(), {getBrandQuery(brandId)});
  std::vector<int> accepted{200};
  const auto body = co_await sendRequest(std::move(request), std::move(accepted));
  co_return core::decodeJSON<HeraldBrandResponse>(body);
}

}  // namespace herald
