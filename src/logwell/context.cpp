#include "logwell/context.hpp"

#include "logwell/internal/text.hpp"
#include "platform/json.hpp"

namespace logwell {

std::string Context::description() const {
  if (!value_) return {};
  if (const auto* text = value_->if_string())
    return std::string(detail::trimWhiteSpaceAndNewlines(std::string_view(*text)));
  return std::string(detail::trimWhiteSpaceAndNewlines(platform::toJSON(*value_)));
}

}  // namespace logwell
