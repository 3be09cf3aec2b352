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
///
/// Errors are `platform::Error` in the domain "NSCocoaErrorDomain" with the phone's codes
/// (see `user_defaults_error`) and a description that names the path and the system's
/// reason ("Permission denied", "No space left on device").

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// Codes of the errors `UserDefaults` throws (domain "NSCocoaErrorDomain").
namespace user_defaults_error {
inline constexpr const char* domain = "NSCocoaErrorDomain";
inline constexpr long readUnknown = 256;          ///< the file exists but cannot be read
inline constexpr long readNoPermission = 257;     ///< EACCES, EPERM while reading
inline constexpr long writeUnknown = 512;         ///< any other write failure
inline constexpr long writeNoPermission = 513;    ///< EACCES, EPERM
inline constexpr long writeOutOfSpace = 640;      ///< ENOSPC, EDQUOT, EFBIG
inline constexpr long writeVolumeReadOnly = 642;  ///< EROFS
/// A value nested deeper than the store could read back (`kMaxJSONDepth`): refused before
/// anything is written.
inline constexpr long valueNotStorable = 3852;
}  // namespace user_defaults_error

class UserDefaults {
 public:
  /// A store kept in `file`; its folder is made on the first change.
  explicit UserDefaults(std::filesystem::path file);

  /// The standard store: one object per process, safe to use from any thread, whose file is
  /// looked up at every call so that it follows `setStandardDirectory`.
  static UserDefaults& standard();
  /// Puts the standard store in `directory`/defaults.json from now on; none goes back to the
  /// XDG default. For programs (a `--config-dir` option) and tests.
  static void setStandardDirectory(std::optional<std::filesystem::path> directory);
  /// Where the standard store lives now.
  static std::filesystem::path standardFile();

  /// The file this store reads and writes now (for the standard store, where
  /// `setStandardDirectory` last put it).
  std::filesystem::path file() const;

  /// The value under `key`, read from the file now (no cache: another process's change is
  /// seen at once). None when the key or the file is missing. Throws `platform::Error`
  /// (`readNoPermission`, `readUnknown`) when the file exists but cannot be read.
  std::optional<boost::json::value> object(std::string_view key) const;
  /// The value under `key` when it is a string.
  std::optional<std::string> string(std::string_view key) const;
  /// The whole store.
  boost::json::object dictionaryRepresentation() const;

  /// Sets `key` to `value`. Throws `platform::Error` (domain "NSCocoaErrorDomain", the
  /// errno text in its description) when the file cannot be written: a full disk or a
  /// folder without permission leaves the old file as it was, and no temporary file behind.
  /// A value nested deeper than `kMaxJSONDepth` - 1 is refused (`valueNotStorable`).
  void set(std::string_view key, boost::json::value value);
  /// Removes `key` (nothing happens when it is absent). Throws like `set`.
  void removeObject(std::string_view key);
  /// The general change: `change` edits the object read under the lock, and the result is
  /// written when `change` returns true. Throws like `set`.
  void update(const std::function<bool(boost::json::object&)>& change);

 private:
  struct Standard {};
  explicit UserDefaults(Standard);

  std::filesystem::path file_;
  bool standard_ = false;  // the file is `standardFile()`, looked up at each call
};

}  // namespace platform
