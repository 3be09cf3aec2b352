#include "herald_service/attachment_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/error.hpp"
#include "platform/paths.hpp"
#include "platform/text.hpp"

namespace herald_service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDomain = "NSCocoaErrorDomain";
constexpr long kWriteFailed = 512;  // the phone's "file write unknown" code

platform::Error writeError(const fs::path& path, const std::string& what, int error) {
  return platform::Error(kDomain, kWriteFailed,
                         "Could not " + what + " " + path.string() + ": " + std::strerror(error));
}

// Writes through a file beside the target and renames it into place, so that the system never
// reads half a thumbnail.
//
// No fsync: the rename already makes the whole file appear at once to every reader while the
// system runs, and that is what the phone needs when it picks up the attachment right after
// the handler. fsync only adds survival of a power cut, after which the notification and its
// temporary file are gone anyway; it cost 10 to 20 ms of disk wait per thumbnail, more than the
// download itself.
void writeAtomically(const fs::path& path, std::string_view data) {
  const auto temporary = path.parent_path() / ("." + path.filename().string() + ".partial");
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw writeError(temporary, "create", errno);
  std::size_t written = 0;
  while (written < data.size()) {
    const auto n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int error = n < 0 ? errno : EIO;
      ::close(fd);
      ::unlink(temporary.c_str());
      throw writeError(temporary, "write", error);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::close(fd) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    throw writeError(temporary, "flush", error);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    throw writeError(path, "rename into", error);
  }
}

}  // namespace

bool conformsToJPEG(std::string_view pathExtension) {
  return platform::equalsIgnoringCase(pathExtension, "jpg") ||
         platform::equalsIgnoringCase(pathExtension, "jpeg");
}

platform::NotificationAttachment makeAttachment(std::string_view data, std::string_view extension,
                                                boost::json::object options) {
  const auto directory = platform::temporaryDirectory() / platform::processGloballyUniqueString();
  std::error_code ec;
  fs::create_directories(directory, ec);
  if (ec)
    throw platform::Error(kDomain, kWriteFailed,
                          "Could not create " + directory.string() + ": " + ec.message());
  const auto identifier = platform::newUUID();
  const auto file = directory / (identifier + "." + std::string(extension));
  writeAtomically(file, data);
  try {
    return platform::NotificationAttachment::make(identifier, platform::fileURL(file),
                                                  std::move(options));
  } catch (...) {
    // A file the platform refuses is nobody's: it would only fill the temporary folder.
    fs::remove(file, ec);
    throw;
  }
}

}  // namespace herald_service
