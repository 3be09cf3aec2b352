#pragma once
// What the programs share about their command lines: CLI11's texts for a bad value, a flag
// given a value and a missing value, reworded into one line that names the option the way
// the programs' own messages do. Header-only, so that each program keeps its own link line.

#include <CLI/CLI.hpp>
#include <string>

namespace command_line {

/// "--port: takes a number ..." → "--port takes a number ..." (the programs' validators word
/// their texts to follow the option's name); "verbose was given a disallowed flag override"
/// → "--verbose takes no value"; "--port: 1 required N missing" → "--port needs a value".
/// Any other text is returned as it is.
inline std::string reword(const CLI::ParseError& error) {
  const std::string text = error.what();
  if (dynamic_cast<const CLI::ValidationError*>(&error))
    if (const auto colon = text.find(": "); colon != std::string::npos)
      return text.substr(0, colon) + " " + text.substr(colon + 2);
  if (const auto at = text.find(" was given a disallowed flag override"); at != std::string::npos)
    return "--" + text.substr(0, at) + " takes no value";
  if (text.ends_with(" missing") && text.find(" required ") != std::string::npos)
    return text.substr(0, text.find(':')) + " needs a value";
  return text;
}

}  // namespace command_line
