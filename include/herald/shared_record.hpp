#pragma once
/// Decoding of records that are shared by reference: a class `T` whose
/// `static std::shared_ptr<T> from(const core::KeyedDecoder&)` builds it decodes wherever a
/// `std::shared_ptr<T>` is asked for, in a field or a list, under the usual strict rules.
///
///   auto brand = core::decodeJSON<std::shared_ptr<herald::HeraldBrand>>(text);

#include <concepts>
#include <memory>
#include <string_view>

#include "core/decoding.hpp"

template <class T>
  requires requires(const core::KeyedDecoder& decoder) {
    { T::from(decoder) } -> std::same_as<std::shared_ptr<T>>;
  }
struct core::Decodable<std::shared_ptr<T>> {
  static constexpr std::string_view expected = "an object";
  static std::shared_ptr<T> decode(const boost::json::value& value, std::string_view path) {
    return T::from(core::KeyedDecoder(value, path));
  }
};
