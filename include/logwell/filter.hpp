#pragma once
/// Filters decide, per destination, whether an entry is written: by its file path, its
/// function or its message, each with a comparison, a "required" flag and a minimum level.
///
///   auto dest = std::make_shared<logwell::ConsoleDestination>();
///   dest->addFilter(logwell::Filters::Path.contains({"/net/"}, false, true));     // required
///   // An `excludes` filter vetoes every entry that lacks one of its texts: this one keeps
///   // only the messages that contain "retry".
///   dest->addFilter(logwell::Filters::Message.excludes({"retry"}));
///   dest->addFilter(logwell::Filters::Function.custom(
///       [](std::string_view f) { return f.starts_with("sync"); }));

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "logwell/level.hpp"

namespace logwell {

class Filter;

/// What a filter compares and how.
struct ComparisonType {
  enum class Kind { startsWith, contains, excludes, endsWith, equals, custom };

  Kind kind = Kind::contains;
  std::vector<std::string> texts;
  bool caseSensitive = false;
  /// Only for `custom`.
  std::function<bool(std::string_view)> predicate;

  static ComparisonType StartsWith(std::vector<std::string> texts, bool caseSensitive);
  static ComparisonType Contains(std::vector<std::string> texts, bool caseSensitive);
  static ComparisonType Excludes(std::vector<std::string> texts, bool caseSensitive);
  static ComparisonType EndsWith(std::vector<std::string> texts, bool caseSensitive);
  static ComparisonType Equals(std::vector<std::string> texts, bool caseSensitive);
  static ComparisonType Custom(std::function<bool(std::string_view)> predicate);
};

/// Which part of an entry a filter looks at. Two target types are equal when their kinds are,
/// whatever comparison they carry.
struct TargetType {
  enum class Kind { path, function, message };

  Kind kind = Kind::message;
  ComparisonType comparison;

  static TargetType Path(ComparisonType comparison) { return {Kind::path, std::move(comparison)}; }
  static TargetType Function(ComparisonType comparison) {
    return {Kind::function, std::move(comparison)};
  }
  static TargetType Message(ComparisonType comparison) {
    return {Kind::message, std::move(comparison)};
  }

  friend bool operator==(const TargetType& a, const TargetType& b) { return a.kind == b.kind; }
};

/// The interface every filter implements.
class FilterType {
 public:
  virtual ~FilterType() = default;
  virtual const TargetType& getTarget() const = 0;
  virtual bool isRequired() const = 0;
  virtual bool isExcluded() const = 0;
  /// Whether the target text passes; an absent text never does. When deciding whether a
  /// destination takes an entry, an exception thrown here counts as false.
  virtual bool apply(std::optional<std::string_view> value) const = 0;
  virtual bool reachedMinLevel(Level level) const = 0;
};

class Filter : public FilterType {
 public:
  Filter(TargetType target, bool required, Level minLevel);

  TargetType targetType;
  bool required;
  Level minLevel;

  const TargetType& getTarget() const override { return targetType; }
  bool isRequired() const override { return required; }
  bool isExcluded() const override { return false; }
  bool apply(std::optional<std::string_view>) const override { return false; }
  bool reachedMinLevel(Level level) const override { return rawValue(level) >= rawValue(minLevel); }
};

/// A filter that compares its target with a list of texts or a predicate.
class CompareFilter : public Filter {
 public:
  CompareFilter(TargetType target, bool required, Level minLevel);

  std::optional<ComparisonType> filterComparisonType;

  /// An `Excludes` filter matches as soon as one of its texts is missing from the target, and
  /// is the only kind that counts as excluded: it vetoes the entry it matches.
  bool isExcluded() const override;
  bool apply(std::optional<std::string_view> value) const override;
};

/// Makes filters for one target (path, function or message).
template <TargetType::Kind K>
struct FilterFactory {
  std::shared_ptr<CompareFilter> startsWith(std::vector<std::string> texts,
                                            bool caseSensitive = false, bool required = false,
                                            Level minLevel = Level::verbose) const {
    return make(ComparisonType::StartsWith(std::move(texts), caseSensitive), required, minLevel);
  }
  std::shared_ptr<CompareFilter> contains(std::vector<std::string> texts,
                                          bool caseSensitive = false, bool required = false,
                                          Level minLevel = Level::verbose) const {
    return make(ComparisonType::Contains(std::move(texts), caseSensitive), required, minLevel);
  }
  std::shared_ptr<CompareFilter> excludes(std::vector<std::string> texts,
                                          bool caseSensitive = false, bool required = false,
                                          Level minLevel = Level::verbose) const {
    return make(ComparisonType::Excludes(std::move(texts), caseSensitive), required, minLevel);
  }
  std::shared_ptr<CompareFilter> endsWith(std::vector<std::string> texts,
                                          bool caseSensitive = false, bool required = false,
                                          Level minLevel = Level::verbose) const {
    return make(ComparisonType::EndsWith(std::move(texts), caseSensitive), required, minLevel);
  }
  std::shared_ptr<CompareFilter> equals(std::vector<std::string> texts, bool caseSensitive = false,
                                        bool required = false,
                                        Level minLevel = Level::verbose) const {
    return make(ComparisonType::Equals(std::move(texts), caseSensitive), required, minLevel);
  }
  std::shared_ptr<CompareFilter> custom(std::function<bool(std::string_view)> filterPredicate,
                                        bool required = false,
                                        Level minLevel = Level::verbose) const {
    return make(ComparisonType::Custom(std::move(filterPredicate)), required, minLevel);
  }

 private:
  static std::shared_ptr<CompareFilter> make(ComparisonType comparison, bool required,
                                             Level minLevel) {
    return std::make_shared<CompareFilter>(TargetType{K, std::move(comparison)}, required,
                                           minLevel);
  }
};

using PathFilterFactory = FilterFactory<TargetType::Kind::path>;
using FunctionFilterFactory = FilterFactory<TargetType::Kind::function>;
using MessageFilterFactory = FilterFactory<TargetType::Kind::message>;

namespace Filters {
inline constexpr PathFilterFactory Path{};
inline constexpr FunctionFilterFactory Function{};
inline constexpr MessageFilterFactory Message{};
}  // namespace Filters

/// Sorts a destination's filters into excluded, required and non-required ones and counts,
/// for each group, how many match by condition and by level.
struct FilterValidator {
  enum class ValidationType { excluded, required, nonRequired };

  struct PartialMatchData {
    std::int64_t fullMatchCount = 0;
    std::int64_t conditionMatchCount = 0;
    std::int64_t logLevelMatchCount = 0;
  };

  struct Result {
    enum class Kind { allFiltersMatch, someFiltersMatch, noFiltersMatchingType };
    Kind kind = Kind::noFiltersMatchingType;
    PartialMatchData data;  ///< only for `someFiltersMatch`
  };

  struct Input {
    std::vector<std::shared_ptr<FilterType>> const* filters;
    Level level;
    std::string_view path;
    std::string_view function;
    std::optional<std::string_view> message;
  };

  /// The result for each validation type.
  static std::map<ValidationType, Result> validate(const Input& input);
  static Result validate(const Input& input, ValidationType type);
};

}  // namespace logwell
