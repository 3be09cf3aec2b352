#pragma once
// Every validation rule of GraphQL over a whole document, before any operation is chosen: a
// document with an error anywhere, in an operation not asked for or a fragment never used,
// runs nothing.
//
//   auto errors = graphql::validate(schema, graphql::parse(text));
//   if (!errors.empty()) ...  // 400 with the errors; nothing ran

#include <cstddef>
#include <string>
#include <vector>

#include "document.hpp"
#include "schema.hpp"

namespace sandbox::graphql {

struct Error {
  std::string message;
  std::vector<Location> locations;
};

struct ValidationLimits {
  /// Past this many errors validation stops with one more that says so, as the reference
  /// implementation does.
  std::size_t errors = 100;
  /// Fragment definitions in one document; bounds the recursion of the fragment passes.
  std::size_t fragments = 1000;
  /// Field comparisons the field-merging rule may make before it gives up.
  std::size_t mergeWork = 500000;
};

std::vector<Error> validate(const Schema& schema, const Document& document,
                            const ValidationLimits& limits = {});

namespace detail {

/// Collects errors up to the limit, then throws Aborted.
class Reporter {
 public:
  struct Aborted {};
  explicit Reporter(std::size_t limit) : limit_(limit) {}
  void report(std::string message, std::vector<Location> locations);
  /// Ends validation with one last error (a work limit reached).
  [[noreturn]] void abort(std::string message);
  std::vector<Error> take() { return std::move(errors_); }

 private:
  std::size_t limit_;
  std::vector<Error> errors_;
};

/// The rule that fields sharing a response key can be merged (same field, same arguments,
/// compatible types, mergeable sub-selections). Compares each pair of fragments at most twice
/// and stops after `limits.mergeWork` comparisons.
void checkFieldMerging(const Schema& schema, const Document& document,
                       const ValidationLimits& limits, Reporter& reporter);

}  // namespace detail
}  // namespace sandbox::graphql
