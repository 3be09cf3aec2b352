#include "logwell/file_destination.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "logwell/internal/output.hpp"
#include "logwell/internal/schemes.hpp"
#include "platform/paths.hpp"

namespace logwell {
namespace fs = std::filesystem;
namespace {

// "logwell.log" → "logwell.<k>.log"; a name without extension gets "<k>." appended.
fs::path rotatedPath(const fs::path& path, std::int64_t k) {
  const std::string name = path.filename().string();
  const auto dot = name.rfind('.');
  const bool hasExtension = dot != std::string::npos && dot > 0;
  const std::string stem = hasExtension ? name.substr(0, dot) : name;
  const std::string extension = hasExtension ? name.substr(dot + 1) : std::string();
  return path.parent_path() / (stem + "." + std::to_string(k) + "." + extension);
}

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

FileDestination::FileDestination(std::optional<std::string> url) {
  if (url) {
    logFileURL = std::move(url);
  } else if (auto caches = platform::cachesDirectory()) {
    logFileURL = platform::fileURL(*caches / "logwell.log");
  }
}

void FileDestination::setColored(bool value) {
  colored_ = value;
  reset = value ? std::string(detail::terminalReset) : std::string();
  escape = value ? std::string(detail::terminalEscape) : std::string();
  for (Level level : {Level::verbose, Level::debug, Level::info, Level::warning, Level::error})
    levelColor[level] = value ? std::string(detail::terminalColor(level)) : std::string();
}

std::optional<fs::path> FileDestination::pathFor(const std::string& url) {
  if (url != cachedURL_ || !cachedPath_) {
    cachedURL_ = url;
    cachedPath_ =
        url.starts_with('/') ? std::optional<fs::path>(url) : platform::pathFromFileURL(url);
  }
  return cachedPath_;
}

std::optional<std::string> FileDestination::send(Level level, std::string_view msg,
                                                 std::string_view thread, std::string_view file,
                                                 std::string_view function, int line,
                                                 const Context& context) {
  auto text = BaseDestination::send(level, msg, thread, file, function, line, context);
  if (!text) return std::nullopt;
  validateSaveFile(*text);
  return text;
}

bool FileDestination::validateSaveFile(std::string_view str) {
  if (logFileAmount >= 2 && logFileURL) {
    if (const auto path = pathFor(*logFileURL)) {
      struct stat info {};
      if (::stat(path->c_str(), &info) == 0) {
        const auto size = static_cast<std::uint64_t>(info.st_size);
        if (logFileMaxSize < 0 || size > static_cast<std::uint64_t>(logFileMaxSize))
          rotateFile(*logFileURL);
      } else if (errno != ENOENT) {
        detail::printLine(std::string("validateSaveFile error: ") + std::strerror(errno));
      }
    }
  }
  if (!logFileURL) return false;
  lineBuffer_.assign(str);
  lineBuffer_.push_back('\n');
  const bool written = write(lineBuffer_, *logFileURL);
  if (lineBuffer_.capacity() > 4096) std::string().swap(lineBuffer_);
  return written;
}

void FileDestination::rotateFile(const std::string& url) {
  const auto path = pathFor(url);
  if (!path) {
    detail::printLine("rotateFile error: not a file URL: " + url);
    return;
  }
  try {
    const std::int64_t last = logFileAmount - 1;
    for (std::int64_t k = last; k >= 1; --k) {
      const fs::path rotated = rotatedPath(*path, k);
      if (!fs::exists(rotated)) continue;
      if (k == last)
        fs::remove(rotated);
      else
        fs::rename(rotated, rotatedPath(*path, k + 1));
    }
    fs::rename(*path, rotatedPath(*path, 1));
  } catch (const fs::filesystem_error& e) {
    detail::printLine(std::string("rotateFile error: ") + e.what());
  }
}

bool FileDestination::write(std::string_view data, const std::string& url) {
  auto fail = [&] {
    detail::printLine("Logwell File Destination could not write to file " + url + ".");
    return false;
  };
  const auto path = pathFor(url);
  if (!path) return fail();

  // A new file is readable by its owner only: entries can hold personal data.
  constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC;
  int fd = ::open(path->c_str(), flags, 0600);
  if (fd < 0 && errno == ENOENT && path->has_parent_path()) {
    std::error_code ec;
    fs::create_directories(path->parent_path(), ec);
    fd = ::open(path->c_str(), flags, 0600);
  }
  if (fd < 0) return fail();

  // Other processes that lock the same file never see half an entry.
  int locked;
  do {
    locked = ::flock(fd, LOCK_EX);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0) {
    detail::printLine(std::string("Failed writing file with error: ") + std::strerror(errno));
    ::close(fd);
    return false;
  }
  bool ok = writeAll(fd, data);
  if (ok && syncAfterEachWrite) ok = ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;  // closing releases the lock
  return ok ? true : fail();
}

bool FileDestination::deleteLogFile() {
  if (!logFileURL) return true;
  const auto path = pathFor(*logFileURL);
  std::error_code ec;
  if (!path || !fs::exists(*path, ec)) return true;
  if (fs::remove(*path, ec) && !ec) return true;
  detail::printLine("Logwell File Destination could not remove file " + *logFileURL + ".");
  return false;
}

}  // namespace logwell
