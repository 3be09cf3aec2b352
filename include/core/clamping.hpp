#pragma once
/// Keeping a value between two bounds, for anything ordered (numbers, strings, time points).
///
///   core::clamped(12, 0, 10);                      // 10
///   core::clamped(-1.5, core::ClosedRange{0.0, 1.0});  // 0.0
///   int side = 4000;
///   core::clamp(side, 1, 2048);                    // side is now 2048
///
/// Only `<` is used, so a value that is ordered with neither bound (a NaN) comes back as it
/// is. The lower bound is expected not to exceed the upper one; if it does, a value below
/// the lower bound gets the lower bound and any other the upper.

#include <concepts>

namespace core {

/// Both ends included.
template <std::totally_ordered T>
struct ClosedRange {
  T lowerBound;
  T upperBound;
};

/// The value itself when it lies within [min, max], otherwise the bound it passes.
template <std::totally_ordered T>
constexpr T clamped(const T& value, const T& min, const T& max) {
  if (value < min) return min;
  if (max < value) return max;
  return value;
}

template <std::totally_ordered T>
constexpr T clamped(const T& value, const ClosedRange<T>& range) {
  return clamped(value, range.lowerBound, range.upperBound);
}

/// `clamped`, in place.
template <std::totally_ordered T>
constexpr void clamp(T& value, const T& min, const T& max) {
  value = clamped(value, min, max);
}

template <std::totally_ordered T>
constexpr void clamp(T& value, const ClosedRange<T>& range) {
  value = clamped(value, range);
}

}  // namespace core
