#pragma once
/// Where files go: the user's caches directory, the temporary directory, the configuration
/// directory, and identifiers that the phone platform hands out (UUIDs, the process's
/// globally unique string).

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// `$XDG_CACHE_HOME`, else `~/.cache`; none when neither can be found.
std::optional<std::filesystem::path> cachesDirectory();
/// `$TMPDIR`, else `/tmp`.
std::filesystem::path temporaryDirectory();
/// `$XDG_CONFIG_HOME`, else `~/.config`.
std::filesystem::path configDirectory();

/// A new random UUID in its canonical upper-case text form.
std::string newUUID();
/// One UUID for the life of the process.
const std::string& processGloballyUniqueString();

/// A file URL ("file:///…") for a path, and back; `pathFromFileURL` gives none for other URLs.
std::string fileURL(const std::filesystem::path& path);
std::optional<std::filesystem::path> pathFromFileURL(std::string_view url);

/// The SHA-256 digest of the bytes of `text`, as 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view text);

/// The path extension of a URL or path ("jpg" for "https://a/b.jpg?x=1"); empty if none.
std::string pathExtension(std::string_view urlOrPath);

/// Whether the phone's URL parser would accept the text: non-empty, no spaces or other
/// characters a URL cannot hold.
bool isValidURL(std::string_view text);

}  // namespace platform
