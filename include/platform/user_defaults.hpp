#pragma once
/// User defaults: a small persistent store of JSON values under string keys, one file per
/// store. The standard store is `<config>/herald/defaults.json`, where `<config>` is
/// `$XDG_CONFIG_HOME` (else `~/.config`) unless a program chose another folder.
///
///   auto& defaults = platform::UserDefaults::standard();
///   defaults.set("greeting", "hello");
///   defaults.string("greeting");             // "hello", in this process and the next
///   defaults.removeObject("greeting");
///
/// Two processes may use one store at once and never lose each other's change: every change
/// is a read-modify-write under an exclusive `flock` of `<file>.lock`, and the new file is
/// written beside the old one, flushed, and renamed over it (then the folder is flushed), so
/// a crash at any instant leaves the old file or the new one. The file is mode 0600.
///
/// A file that is not a JSON object is moved aside as `<file>.corrupt-<UTC time>`, one line
/// is written to the system log (category "UserDefaults", error level) naming both paths,
/// and the store reads as empty; nothing a person might want back is overwritten.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class UserDefaults {
 public:
  /// A store kept in `file`; its folder is made on the first change.
  explicit UserDefaults(std::filesystem::path file);

  /// The standard store (one per process; it follows `setStandardDirectory`).
  static UserDefaults& standard();
  /// Puts the standard store in `directory`/defaults.json from now on; none goes back to the
  /// XDG default. For programs (a `--config-dir` option) and tests.
  static void setStandardDirectory(std::optional<std::filesystem::path> directory);
  /// Where the standard store lives now.
  static std::filesystem::path standardFile();

  const std::filesystem::path& file() const { return file_; }

  /// The value under `key`, read from the file now (no cache: another process's change is
  /// seen at once). None when the key or the file is missing.
  std::optional<boost::json::value> object(std::string_view key) const;
  /// The value under `key` when it is a string.
  std::optional<std::string> string(std::string_view key) const;
  /// The whole store.
  boost::json::object dictionaryRepresentation() const;

  /// Sets `key` to `value`. Throws `platform::Error` (domain "NSCocoaErrorDomain", the
  /// errno text in its description) when the file cannot be written: a full disk or a
  /// folder without permission leaves the old file as it was.
  void set(std::string_view key, boost::json::value value);
  /// Removes `key` (nothing happens when it is absent). Throws like `set`.
  void removeObject(std::string_view key);
  /// The general change: `change` edits the object read under the lock, and the result is
  /// written when `change` returns true. Throws like `set`.
  void update(const std::function<bool(boost::json::object&)>& change);

 private:
  std::filesystem::path file_;
};

}  // namespace platform
