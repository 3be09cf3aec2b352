#pragma once
// Type references in GraphQL's notation ("[String!]!"), peeled one wrapper at a time. The
// parser's depth limit bounds how many wrappers a reference from a document can have.

#include <string_view>

namespace sandbox::graphql::typeref {

inline bool isNonNull(std::string_view ref) {
  return !ref.empty() && ref.back() == '!';
}

/// Without its outer "!": "[Int]!" → "[Int]".
inline std::string_view nullable(std::string_view ref) {
  return isNonNull(ref) ? ref.substr(0, ref.size() - 1) : ref;
}

inline bool isList(std::string_view ref) {
  const auto inner = nullable(ref);
  return !inner.empty() && inner.front() == '[';
}

/// The type one wrapper in: "[Int!]!" → "[Int!]" → "Int!" → "Int" (a named type stays).
inline std::string_view ofType(std::string_view ref) {
  if (isNonNull(ref)) return nullable(ref);
  if (isList(ref)) return ref.substr(1, ref.size() - 2);
  return ref;
}

/// The named type inside every wrapper: "[Int!]!" → "Int".
inline std::string_view named(std::string_view ref) {
  const auto start = ref.find_first_not_of('[');
  const auto end = ref.find_first_of("]!", start);
  return ref.substr(start, end == std::string_view::npos ? ref.npos : end - start);
}

/// Whether a value of type `sub` may stand where `super` is expected: the same type, or a
/// non-null one where null is allowed, wrapper by wrapper.
inline bool isSubtype(std::string_view sub, std::string_view super) {
  while (true) {
    if (sub == super) return true;
    if (isNonNull(super)) {
      if (!isNonNull(sub)) return false;
      sub = nullable(sub);
      super = nullable(super);
    } else if (isNonNull(sub)) {
      sub = nullable(sub);
    } else if (isList(super)) {
      if (!isList(sub)) return false;
      sub = ofType(sub);
      super = ofType(super);
    } else {
      return false;
    }
  }
}

}  // namespace sandbox::graphql::typeref
