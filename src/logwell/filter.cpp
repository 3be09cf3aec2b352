#include "logwell/filter.hpp"

#include <algorithm>

#include "logwell/internal/text.hpp"

namespace logwell {

ComparisonType ComparisonType::StartsWith(std::vector<std::string> texts, bool caseSensitive) {
  return {Kind::startsWith, std::move(texts), caseSensitive, {}};
}
ComparisonType ComparisonType::Contains(std::vector<std::string> texts, bool caseSensitive) {
  return {Kind::contains, std::move(texts), caseSensitive, {}};
}
ComparisonType ComparisonType::Excludes(std::vector<std::string> texts, bool caseSensitive) {
  return {Kind::excludes, std::move(texts), caseSensitive, {}};
}
ComparisonType ComparisonType::EndsWith(std::vector<std::string> texts, bool caseSensitive) {
  return {Kind::endsWith, std::move(texts), caseSensitive, {}};
}
ComparisonType ComparisonType::Equals(std::vector<std::string> texts, bool caseSensitive) {
  return {Kind::equals, std::move(texts), caseSensitive, {}};
}
ComparisonType ComparisonType::Custom(std::function<bool(std::string_view)> predicate) {
  return {Kind::custom, {}, false, std::move(predicate)};
}

Filter::Filter(TargetType target, bool required_, Level minLevel_)
    : targetType(std::move(target)), required(required_), minLevel(minLevel_) {}

CompareFilter::CompareFilter(TargetType target, bool required_, Level minLevel_)
    : Filter(std::move(target), required_, minLevel_),
      filterComparisonType(targetType.comparison) {}

bool CompareFilter::isExcluded() const {
  return filterComparisonType && filterComparisonType->kind == ComparisonType::Kind::excludes;
}

bool CompareFilter::apply(std::optional<std::string_view> value) const {
  if (!value || !filterComparisonType) return false;
  const ComparisonType& c = *filterComparisonType;
  using Kind = ComparisonType::Kind;
  if (c.kind == Kind::custom) return c.predicate && c.predicate(*value);

  const std::string folded = c.caseSensitive ? std::string() : detail::lowercased(*value);
  const std::string_view subject = c.caseSensitive ? *value : std::string_view(folded);
  return std::any_of(c.texts.begin(), c.texts.end(), [&](const std::string& raw) {
    const std::string foldedText = c.caseSensitive ? std::string() : detail::lowercased(raw);
    const std::string_view text = c.caseSensitive ? std::string_view(raw) : foldedText;
    switch (c.kind) {
      case Kind::startsWith:
        return subject.starts_with(text);
      case Kind::endsWith:
        return subject.ends_with(text);
      case Kind::contains:
        return subject.find(text) != std::string_view::npos;
      case Kind::equals:
        return subject == text;
      case Kind::excludes:
        return subject.find(text) == std::string_view::npos;
      case Kind::custom:
        break;
    }
    return false;
  });
}

FilterValidator::Result FilterValidator::validate(const Input& input, ValidationType type) {
  PartialMatchData counts;
  std::int64_t selected = 0;
  for (const auto& filter : *input.filters) {
    if (!filter) continue;
    const bool excluded = filter->isExcluded();
    const bool required = filter->isRequired() && !excluded;
    const bool chosen = type == ValidationType::excluded   ? excluded
                        : type == ValidationType::required ? required
                                                           : !required && !excluded;
    if (!chosen) continue;
    ++selected;

    // Filters run on the logging thread: a predicate that throws must not reach the caller,
    // and counts as a filter that does not match, as if it had answered false.
    bool condition = false;
    try {
      switch (filter->getTarget().kind) {
        case TargetType::Kind::path:
          condition = filter->apply(input.path);
          break;
        case TargetType::Kind::function:
          condition = filter->apply(input.function);
          break;
        case TargetType::Kind::message:
          condition = input.message && filter->apply(input.message);
          break;
      }
    } catch (...) {
      condition = false;
    }
    const bool levelOK = filter->reachedMinLevel(input.level);
    if (condition && levelOK)
      ++counts.fullMatchCount;
    else if (condition)
      ++counts.conditionMatchCount;
    else if (levelOK)
      ++counts.logLevelMatchCount;
  }
  if (selected == 0) return {Result::Kind::noFiltersMatchingType, {}};
  if (counts.fullMatchCount == selected) return {Result::Kind::allFiltersMatch, {}};
  return {Result::Kind::someFiltersMatch, counts};
}

std::map<FilterValidator::ValidationType, FilterValidator::Result> FilterValidator::validate(
    const Input& input) {
  std::map<ValidationType, Result> results;
  for (auto type :
       {ValidationType::excluded, ValidationType::required, ValidationType::nonRequired})
    results[type] = validate(input, type);
  return results;
}

}  // namespace logwell
