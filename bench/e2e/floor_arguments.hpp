#pragma once
// The floor programs take exactly one URL. Help and anything that looks like an option end the
// program before libcurl could take it for a host name.

#include <cstdio>
#include <optional>
#include <string_view>

namespace floor_program {

/// The exit status when the arguments end the program (0 for --help, 2 for a misuse, with
/// `usage` on standard output or standard error), or none when argv[1] is the URL.
inline std::optional<int> checkArguments(int argc, char** argv, const char* usage) {
  const std::string_view arg = argc == 2 ? argv[1] : "";
  if (arg == "--help" || arg == "-h") {
    std::printf("%s", usage);
    return 0;
  }
  if (argc != 2 || arg.starts_with('-')) {
    std::fprintf(stderr, "%s", usage);
    return 2;
  }
  return std::nullopt;
}

}  // namespace floor_program
