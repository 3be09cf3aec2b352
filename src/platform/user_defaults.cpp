#include "platform/user_defaults.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/error.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "platform/system_log.hpp"

namespace platform {
namespace {

namespace fs = std::filesystem;
namespace codes = user_defaults_error;

const SystemLog& defaultsLog() {
  static const SystemLog* log = new SystemLog("platform", "UserDefaults");
  return *log;
}

std::string reason(int err) {
  return std::generic_category().message(err);
}

long writeCode(int err) {
  switch (err) {
    case EACCES:
    case EPERM:
      return codes::writeNoPermission;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return codes::writeOutOfSpace;
    case EROFS:
      return codes::writeVolumeReadOnly;
    default:
      return codes::writeUnknown;
  }
}

[[noreturn]] void throwWriteError(std::string_view step, const fs::path& path, int err) {
  throw Error(codes::domain, writeCode(err),
              "Could not " + std::string(step) + " " + path.string() + ": " + reason(err),
              {{"path", path.string()}, {"errno", err}});
}

[[noreturn]] void throwReadError(const fs::path& path, int err) {
  const long code = err == EACCES || err == EPERM ? codes::readNoPermission : codes::readUnknown;
  throw Error(codes::domain, code, "Could not read " + path.string() + ": " + reason(err),
              {{"path", path.string()}, {"errno", err}});
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  /// Closes now, so that a failing close (a delayed write error on some file systems) is
  /// seen; returns the errno, 0 on success.
  int close() {
    const int result = ::close(std::exchange(fd_, -1));
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

fs::path withSuffix(const fs::path& path, std::string_view suffix) {
  fs::path out = path;
  out += suffix;
  return out;
}

fs::path folderOf(const fs::path& file) {
  auto folder = file.parent_path();
  return folder.empty() ? fs::path(".") : folder;
}

/// The file's bytes, or none when it does not exist.
std::optional<std::string> readIfPresent(const fs::path& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT) return std::nullopt;
    throwReadError(path, errno);
  }
  std::string bytes;
  char buffer[16 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      throwReadError(path, errno);
    }
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  return bytes;
}

std::optional<boost::json::object> parseStore(std::string_view bytes) {
  auto value = tryParseJSON(bytes);
  if (!value || !value->is_object()) return std::nullopt;
  return std::move(value->get_object());
}

/// Whether every array and object in `root` lies within `limit` levels (the root container
/// is level 1). Walks with its own stack: the value may be deeper than a thread's stack
/// could follow, which is the very thing being checked.
bool nestedWithin(const boost::json::value& root, std::size_t limit) {
  std::vector<std::pair<const boost::json::value*, std::size_t>> pending{{&root, 1}};
  while (!pending.empty()) {
    auto [value, depth] = pending.back();
    pending.pop_back();
    if (value->is_array()) {
      if (depth > limit) return false;
      for (const auto& item : value->get_array()) pending.emplace_back(&item, depth + 1);
    } else if (value->is_object()) {
      if (depth > limit) return false;
      for (const auto& member : value->get_object())
        pending.emplace_back(&member.value(), depth + 1);
    }
  }
  return true;
}

/// Makes `folder` and any missing parents, 0700: the store holds credentials.
void makeFolders(const fs::path& folder) {
  if (::mkdir(folder.c_str(), 0700) == 0) return;
  int err = errno;
  if (err == EEXIST) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return;
    throwWriteError("create the folder", folder, ENOTDIR);
  }
  if (err == ENOENT && folder.has_parent_path() && folder.parent_path() != folder) {
    makeFolders(folder.parent_path());
    if (::mkdir(folder.c_str(), 0700) == 0) return;
    err = errno;
    if (err == EEXIST) return;  // made by another process meanwhile
  }
  throwWriteError("create the folder", folder, err);
}

void flushFolder(const fs::path& folder) {
  FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd || ::fsync(fd.get()) != 0) {
    // The rename has happened and is visible; only its durability across a power cut is in
    // doubt, so the change is not reported as failed.
    defaultsLog().error("Could not flush the folder " + folder.string() + ": " + reason(errno));
  }
}

/// An exclusive flock of `<file>.lock`, held for the object's lifetime. Every process and
/// every thread opens the lock file for itself, so the lock also keeps threads of one
/// process apart.
class StoreLock {
 public:
  explicit StoreLock(const fs::path& file) : path_(withSuffix(file, ".lock")), fd_(open(path_)) {
    if (!fd_) throwWriteError("open the lock file", path_, errno);
    while (::flock(fd_.get(), LOCK_EX) != 0) {
      if (errno != EINTR) throwWriteError("lock", path_, errno);
    }
  }

 private:
  static int open(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EACCES && errno != EROFS)) return fd;
    // A lock file we may only read still takes a lock, and the error that counts is the
    // one of the first attempt.
    const int denied = errno;
    const int readOnly = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (readOnly < 0) errno = denied;
    return readOnly;
  }

  fs::path path_;
  FileDescriptor fd_;
};

std::string utcStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &tm);
  return text;
}

/// Renames `from` to `to` unless `to` exists. False when it exists.
bool renameNoReplace(const fs::path& from, const fs::path& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno == EEXIST) return false;
  if (errno != EINVAL && errno != ENOSYS) throwWriteError("move aside", from, errno);
  // A file system without RENAME_NOREPLACE: a hard link refuses an existing name too.
  if (::link(from.c_str(), to.c_str()) != 0) {
    if (errno == EEXIST) return false;
    throwWriteError("move aside", from, errno);
  }
  if (::unlink(from.c_str()) != 0) throwWriteError("move aside", from, errno);
  return true;
}

/// Moves an unreadable store aside under a name that no earlier one holds. Called under the
/// lock.
void moveAside(const fs::path& file) {
  const auto base = withSuffix(file, ".corrupt-" + utcStamp());
  fs::path target = base;
  for (int n = 2; !renameNoReplace(file, target); ++n) {
    if (n > 1000) throwWriteError("move aside", file, EEXIST);
    target = withSuffix(base, "-" + std::to_string(n));
  }
  flushFolder(folderOf(file));
  defaultsLog().error("Moved the unreadable user defaults file " + file.string() + " aside to " +
                      target.string() + "; the store starts empty");
}

/// The store as it is on disk, with a bad file moved aside. Called under the lock.
boost::json::object loadLocked(const fs::path& file) {
  auto bytes = readIfPresent(file);
  if (!bytes) return {};
  if (auto store = parseStore(*bytes)) return std::move(*store);
  moveAside(file);
  return {};
}

/// Temporary files of writers that died before their rename. Called under the lock, when no
/// other writer of this store can be between its create and its rename.
void removeStaleTemporaries(const fs::path& file) {
  const auto prefix = file.filename().string() + ".tmp-";
  std::error_code ec;
  for (fs::directory_iterator it(folderOf(file), ec), end; !ec && it != end; it.increment(ec)) {
    const auto name = it->path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) ::unlink(it->path().c_str());
  }
}

/// Writes `bytes` beside `file` and renames them over it. Called under the lock. On failure
/// the old file is untouched and the temporary file removed.
void replaceFile(const fs::path& file, std::string_view bytes) {
  removeStaleTemporaries(file);
  const auto temporary = withSuffix(file, ".tmp-" + newUUID());
  FileDescriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd) throwWriteError("create", temporary, errno);

  auto fail = [&](std::string_view step, const fs::path& path, int err) {
    ::unlink(temporary.c_str());
    throwWriteError(step, path, err);
  };
  // The umask may have taken bits away; the file is the owner's alone either way.
  if (::fchmod(fd.get(), 0600) != 0) fail("set the mode of", temporary, errno);
  for (std::size_t written = 0; written < bytes.size();) {
    const ssize_t n = ::write(fd.get(), bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("write", temporary, errno);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fsync(fd.get()) != 0) fail("flush", temporary, errno);
  if (const int err = fd.close()) fail("close", temporary, err);
  if (::rename(temporary.c_str(), file.c_str()) != 0) fail("replace", file, errno);
  flushFolder(folderOf(file));
}

struct StandardLocation {
  std::mutex mutex;
  std::optional<fs::path> directory;
};

StandardLocation& standardLocation() {
  static StandardLocation* location = new StandardLocation();
  return *location;
}

}  // namespace

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) {}

UserDefaults::UserDefaults(Standard) : standard_(true) {}

UserDefaults& UserDefaults::standard() {
  // Never destroyed: a detached task may still store something while statics are torn down.
  static UserDefaults* store = new UserDefaults(Standard{});
  return *store;
}

void UserDefaults::setStandardDirectory(std::optional<std::filesystem::path> directory) {
  auto& location = standardLocation();
  std::lock_guard lock(location.mutex);
  location.directory = std::move(directory);
}

std::filesystem::path UserDefaults::standardFile() {
  {
    auto& location = standardLocation();
    std::lock_guard lock(location.mutex);
    if (location.directory) return *location.directory / "defaults.json";
  }
  return configDirectory() / "herald" / "defaults.json";
}

std::filesystem::path UserDefaults::file() const {
  return standard_ ? standardFile() : file_;
}

boost::json::object UserDefaults::dictionaryRepresentation() const {
  const auto path = file();
  // No lock: the file is only ever replaced whole by a rename.
  auto bytes = readIfPresent(path);
  if (!bytes) return {};
  if (auto store = parseStore(*bytes)) return std::move(*store);
  // Moving the file aside needs the lock, and a look at the file again under it: a writer
  // may have replaced it with a good one since.
  try {
    StoreLock lock(path);
    return loadLocked(path);
  } catch (const Error& e) {
    defaultsLog().error("The user defaults file " + path.string() +
                        " is unreadable and stays where it is: " + e.localizedDescription());
    return {};
  }
}

std::optional<boost::json::value> UserDefaults::object(std::string_view key) const {
  auto store = dictionaryRepresentation();
  auto it = store.find(key);
  if (it == store.end()) return std::nullopt;
  return std::move(it->value());
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
  auto value = object(key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

void UserDefaults::set(std::string_view key, boost::json::value value) {
  update([&](boost::json::object& store) {
    store[key] = std::move(value);
    return true;
  });
}

void UserDefaults::removeObject(std::string_view key) {
  update([&](boost::json::object& store) { return store.erase(key) > 0; });
}

void UserDefaults::update(const std::function<bool(boost::json::object&)>& change) {
  const auto path = file();
  makeFolders(folderOf(path));
  StoreLock lock(path);
  auto store = loadLocked(path);
  if (!change(store)) return;
  // A store deeper than the parser reads back would be moved aside as corrupt next time.
  if (!nestedWithin(store, kMaxJSONDepth)) {
    throw Error(codes::domain, codes::valueNotStorable,
                "Could not store the value in " + path.string() + ": nested deeper than " +
                    std::to_string(kMaxJSONDepth - 1) + " levels");
  }
  replaceFile(path, toJSON(store, JSONStyle::pretty) + "\n");
}

}  // namespace platform
