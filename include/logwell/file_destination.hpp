#pragma once
/// Appends each line to a log file, opening and closing it for every append, with size-based
/// rotation: "logwell.log" rotates to "logwell.1.log", "logwell.2.log", … keeping
/// `logFileAmount` files in all. Appends and rotations are locked (flock) against other
/// processes that write the same file, so that they may share it and its rotation. Each line
/// is written whole or not at all (a short write, as on a full disk, is taken back). The
/// entries that waited on the queue in a row are appended together, up to 64 KB at a time,
/// so that the file is checked for rotation once per append. Only a
/// regular file is rotated; a path that cannot take the entry at once (a directory, a FIFO
/// without a reader) fails like a write. Failures are printed on standard output and lose
/// that one entry.
///
///   auto file = std::make_shared<logwell::FileDestination>();   // caches dir/logwell.log
///   file->logFileAmount = 3;
///   file->logFileMaxSize = 1 << 20;
///   logwell::Logwell::addDestination(file);

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "logwell/base_destination.hpp"

namespace logwell {

class FileDestination : public BaseDestination {
 public:
  /// Without a URL the file is "logwell.log" in the user's caches directory; when there is no
  /// caches directory the destination writes nothing. A plain absolute path is taken as the
  /// path of a file URL.
  explicit FileDestination(std::optional<std::string> logFileURL = std::nullopt);

  std::optional<std::string> logFileURL;
  /// Syncs the file to storage after each entry (an opt-in cost).
  bool syncAfterEachWrite = false;
  std::int64_t logFileMaxSize = 5 * 1024 * 1024;
  /// Files kept, the current one included; 1 never rotates.
  std::int64_t logFileAmount = 1;

  bool colored() const { return colored_; }
  /// True sets `escape`, `reset` and the terminal colours of verbose through error; false
  /// empties them. Critical and fault are left alone either way.
  void setColored(bool value);

  std::optional<std::string> send(Level level, std::string_view msg, std::string_view thread,
                                  std::string_view file, std::string_view function, int line,
                                  const Context& context = {}) override;

  /// True when there is no file (or no URL), or it was removed.
  bool deleteLogFile();

  /// Rotates when needed, then appends `str` and a line feed.
  bool validateSaveFile(std::string_view str);
  /// Shifts the rotated files up by one and makes the current file the first of them.
  void rotateFile(const std::string& url);
  /// Appends `data` to the file at `url`, creating it (mode 0600) and its directory.
  bool write(std::string_view data, const std::string& url);

 private:
  std::optional<std::filesystem::path> pathFor(const std::string& url);
  // Appends under the file's lock; with `mayRotate`, first rotates a file found too large
  // under that same lock.
  bool append(std::string_view data, const std::string& url, bool mayRotate);

  void batchEnded() override;

  static constexpr std::size_t kBatchBytes = 64 * 1024;
  std::string batch_;
  bool colored_ = false;
  std::string cachedURL_;
  std::optional<std::filesystem::path> cachedPath_;
  std::string lineBuffer_;
};

}  // namespace logwell
