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

// An open log file under the lock that every writer of the file takes; closing the file
// releases the lock.
class LockedFile {
 public:
  LockedFile() = default;
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;
  ~LockedFile() { close(); }

  enum class Opened { yes, failed, notLocked };

  // A directory fails to open for writing; O_NONBLOCK makes a FIFO without a reader fail
  // too instead of holding the queue (it means nothing for a regular file).
  Opened open(const fs::path& path, bool create) {
    close();
    // A new file is readable by its owner only: entries can hold personal data.
    constexpr int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK;
    created_ = false;
    fd_ = ::open(path.c_str(), flags);
    if (fd_ < 0 && errno == ENOENT && create) {
      fd_ = ::open(path.c_str(), flags | O_CREAT, 0600);
      if (fd_ < 0 && errno == ENOENT && path.has_parent_path()) {
        std::error_code ec;
        fs::create_directories(path.parent_path(), ec);
        fd_ = ::open(path.c_str(), flags | O_CREAT, 0600);
      }
      created_ = fd_ >= 0;
    }
    if (fd_ < 0) return Opened::failed;
    int locked;
    do {
      locked = ::flock(fd_, LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
      const int error = errno;
      close();
      errno = error;
      return Opened::notLocked;
    }
    return Opened::yes;
  }

  // Reads the file's kind and size, under the lock: another writer may have appended while
  // we waited for it. Only rotation needs them, so plain appends save the system call.
  bool isRegularFile() { return ::fstat(fd_, &info_) == 0 && S_ISREG(info_.st_mode); }

  // Whether this call made the file: a file that did not exist is not rotated.
  bool created() const { return created_; }

  // Whether the file is still the one at `path`: a writer that rotated or removed it while
  // we waited for the lock made another one current.
  bool isAt(const fs::path& path) const {
    struct stat now {};
    return ::stat(path.c_str(), &now) == 0 && now.st_dev == info_.st_dev &&
           now.st_ino == info_.st_ino;
  }

  // The size read by `isRegularFile`.
  off_t size() const { return info_.st_size; }

  // Appends `data` with one write; a short write is taken back, so that a failed entry is
  // lost whole and the next one starts on a line of its own.
  bool append(std::string_view data) {
    ssize_t n;
    do {
      n = ::write(fd_, data.data(), data.size());
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(data.size())) return true;
    // Under the lock the file ends with our fragment. (A FIFO cannot seek: nothing to undo.)
    if (n > 0) {
      const off_t end = ::lseek(fd_, 0, SEEK_END);
      if (end >= n) (void)::ftruncate(fd_, end - n);
    }
    return false;
  }

  int fd() const { return fd_; }

  bool close() {
    if (fd_ < 0) return true;
    const bool ok = ::close(fd_) == 0;
    fd_ = -1;
    return ok;
  }

 private:
  int fd_ = -1;
  bool created_ = false;
  struct stat info_ {};
};

// Shifts "name.<k>.ext" to index k + 1, the oldest being removed, and the current file to
// index 1. The caller holds the lock of the current file, so that writers of other processes
// neither rotate at the same time nor append to a file that is being moved.
void rotateLocked(const fs::path& path, std::int64_t amount) {
  try {
    const std::int64_t last = amount - 1;
    for (std::int64_t k = last; k >= 1; --k) {
      const fs::path rotated = rotatedPath(path, k);
      if (!fs::exists(rotated)) continue;
      if (k == last)
        fs::remove(rotated);
      else
        fs::rename(rotated, rotatedPath(path, k + 1));
    }
    fs::rename(path, rotatedPath(path, 1));
  } catch (const fs::filesystem_error& e) {
    detail::printLine(std::string("rotateFile error: ") + e.what());
  }
}

bool tooLarge(off_t size, std::int64_t maxSize) {
  return maxSize < 0 || static_cast<std::uint64_t>(size) > static_cast<std::uint64_t>(maxSize);
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
  if (!deliveringBatch()) {
    validateSaveFile(*text);
    return text;
  }
  // Entries that waited in a row go out in one append: opening, locking and closing the file
  // for each would make the destination far slower than a burst.
  batch_.append(*text);
  batch_.push_back('\n');
  if (batch_.size() >= kBatchBytes) batchEnded();
  return text;
}

void FileDestination::batchEnded() {
  if (batch_.empty()) return;
  if (logFileURL) append(batch_, *logFileURL, logFileAmount >= 2);
  batch_.clear();
  if (batch_.capacity() > 2 * kBatchBytes) std::string().swap(batch_);
}

bool FileDestination::validateSaveFile(std::string_view str) {
  if (!logFileURL) return false;
  lineBuffer_.assign(str);
  lineBuffer_.push_back('\n');
  const bool written = append(lineBuffer_, *logFileURL, logFileAmount >= 2);
  if (lineBuffer_.capacity() > 4096) std::string().swap(lineBuffer_);
  return written;
}

void FileDestination::rotateFile(const std::string& url) {
  const auto path = pathFor(url);
  if (!path) {
    detail::printLine("rotateFile error: not a file URL: " + url);
    return;
  }
  LockedFile file;
  if (file.open(*path, false) != LockedFile::Opened::yes) {
    detail::printLine("rotateFile error: " + path->string() + ": " + std::strerror(errno));
    return;
  }
  if (!file.isRegularFile()) {
    detail::printLine("rotateFile error: " + path->string() + ": not a regular file");
    return;
  }
  rotateLocked(*path, logFileAmount);
}

bool FileDestination::write(std::string_view data, const std::string& url) {
  return append(data, url, false);
}

bool FileDestination::append(std::string_view data, const std::string& url, bool mayRotate) {
  auto fail = [&] {
    detail::printLine("Logwell File Destination could not write to file " + url + ".");
    return false;
  };
  const auto path = pathFor(url);
  if (!path) return fail();

  LockedFile file;
  bool rotated = false;
  // Each retry follows another writer's rotation; a few are plenty, and past them the entry
  // goes to the file held.
  for (int attempt = 0;; ++attempt) {
    const auto opened = file.open(*path, true);
    if (opened == LockedFile::Opened::notLocked) {
      detail::printLine(std::string("Failed writing file with error: ") + std::strerror(errno));
      return false;
    }
    if (opened == LockedFile::Opened::failed) return fail();
    // Only a regular file is rotated: moving a directory or a FIFO away is not ours to do.
    if (!mayRotate || attempt == 8 || !file.isRegularFile()) break;
    if (!file.isAt(*path)) continue;
    // Once per entry: a negative maximum would rotate for ever.
    if (rotated || file.created() || !tooLarge(file.size(), logFileMaxSize)) break;
    rotateLocked(*path, logFileAmount);
    rotated = true;
  }
  bool ok = file.append(data);
  if (ok && syncAfterEachWrite) ok = ::fsync(file.fd()) == 0;
  ok = file.close() && ok;
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
