// The API's GraphQL schema, as /client/q checks, runs, introspects and prints it.

#include "schemas.hpp"

namespace sandbox {

const graphql::Schema& brandSchema() {
  static const auto schema =
      graphql::SchemaBuilder()
          .object("Query", "What the API answers the client.",
                  {{"brand",
                    "Brand",
                    "A brand of the account, or null with an error.",
                    {{"brandId", "String!", "The brand's id.", {}}},
                    {}}})
          .object("Brand", "How in-app surfaces look for one brand.",
                  {{"brandId", "String", "", {}, {}}, {"settings", "BrandSettings", "", {}, {}}})
          .object("BrandSettings", "",
                  {{"colors", "BrandColors", "", {}, {}}, {"inapp", "BrandInApp", "", {}, {}}})
          .object("BrandColors", "",
                  {{"primary", "String", "", {}, {}},
                   {"secondary", "String", "", {}, {}},
                   {"tertiary", "String", "", {}, {}}})
          .object("BrandInApp", "",
                  {{"borderRadius", "String", "", {}, {}},
                   {"disableHeraldFooter", "Boolean", "", {}, {}}})
          .build("Query", "");
  return schema;
}

}  // namespace sandbox
