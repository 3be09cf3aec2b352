#pragma once
/// `herald ui`: the signed-in user's inbox and notification preferences as screens in the
/// terminal, on the live inbox of the client library (ncurses, wide characters).
///
///   herald_ui::Options options;
///   options.brandId = "b-1";      // the brand's primary colour as the accent
///   return herald_ui::run(options);   // on the main thread, until the user quits
///
/// The screens use only the public client API: `Herald::shared()` with its inbox listener
/// and operations, the brand client and the preference client. The caller signs the user in
/// (or not: the screen then says who should).

#include <optional>
#include <string>

namespace herald_ui {

struct Options {
  /// The brand whose primary colour tints the screens and whose settings say whether the
  /// service's footer shows.
  std::optional<std::string> brandId;
  /// Messages a page (1…100); none keeps the client's.
  std::optional<long long> pageSize;
  /// The command a person runs to sign in, shown when nobody is.
  std::string signInCommand = "herald signin --user ID --jwt TOKEN";
  /// Where the process's standard output and error go while the screens are up (a library
  /// line there would break the screen); empty: nowhere.
  std::string logFile;
};

/// The exit statuses of `run`.
enum ExitCode { kQuit = 0, kFailed = 1, kNoTerminal = 2 };

/// Runs the screens on the calling thread, which must be the one that runs
/// `platform::MainQueue`, until `q`, SIGINT, SIGTERM or SIGHUP. The terminal is given back
/// as it was on every way out; a failure is then written to standard error.
int run(const Options& options);

}  // namespace herald_ui
