// notification-service: stands in for the phone's notification-service extension point. It
// builds a notification request from a push payload, hands it to an extension, calls the
// extension's deadline entry point when the time is up, and prints every content that the
// extension delivers as one JSON line.

#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/command_line.hpp"
#include "content_json.hpp"
#include "core/constants.hpp"
#include "extensions.hpp"
#include "payload.hpp"
#include "platform/executor.hpp"
#include "platform/intents.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"
#include "platform/paths.hpp"
#include "platform/system_log.hpp"
#include "platform/version.hpp"
#ifdef HOST_WITH_LOGWELL
#include "logwell/logwell.hpp"
#endif
#include "preview.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kExitDelivered = 0;
constexpr int kExitBadInput = 2;
constexpr int kExitNeverDelivered = 3;

constexpr const char* kName = "notification-service";

struct Options {
  std::string payloadPath;
  const host::ExtensionEntry* extension = nullptr;
  double deadlineSeconds = K::Extension::deadlineSeconds;
  double graceSeconds = 2;
  bool verbose = false;
  bool copyable = true;
  std::optional<std::string> previewPath;
};

constexpr const char* kDescription =
    R"(Stands in for the phone's notification-service extension point: builds a notification
request from an APNs-style push payload, calls the extension's didReceive on a thread of its
own, calls serviceExtensionTimeWillExpire from another thread at the deadline, and runs the
main queue on the main thread meanwhile.

The payload's "aps" gives the content: "alert" (an object with "title", "subtitle", "body",
or a string that is the body), "badge", "sound", "thread-id", "category"; every top-level
key, "aps" included, goes into the user info. Without "aps.mutable-content": 1 the phone
would not call an extension at all; the host says so on standard error and runs it anyway.
)";

constexpr const char* kFooter =
    R"(Output: one JSON line on standard output for every call of the content handler:
  {"call": N, "elapsed_ms": MS, "content": {"title", "subtitle", "body", "badge", "sound",
   "threadIdentifier", "categoryIdentifier", "userInfo",
   "attachments": [{"identifier", "url", "type", "options"}], "communication"},
   "donatedInteractions": [{"direction", "intent", "sender"}]}
N counts the calls from 1; MS is the time since didReceive was called; absent values are
null. "communication" is null for a plain notification, else {"sender": {"displayName",
"image"}} with "image" {"url": …} for a picture the phone loads itself, {"png": PATH} for a
drawn one (written beside the attachments), or null. "donatedInteractions" lists what the
extension donated so far. Whatever the extension prints itself goes to standard error, so
standard output holds these lines only. The host ends once the handler has been called and
no work of the extension is still running, or GRACE seconds after the deadline, whichever
comes first.

Exit status:
  0  the content handler was called at least once
  2  bad options, or a payload that is missing, not JSON or not a JSON object
     (one line on standard error; nothing on standard output)
  3  the content handler was never called)";

// The help reads like a manual page: both forms of the command line first, then what the
// host does, then the options; CLI11's own layout would put the description first.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(21); }
  std::string make_description(const CLI::App*) const override { return {}; }
  std::string make_usage(const CLI::App* app, std::string) const override {
    return std::string("Usage: ") + kName + " [options] PAYLOAD.json\n       " + kName +
           " [options] -          (reads the payload from standard input)\n\n" +
           app->get_description();
  }
};

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Seconds as the host takes them: a plain decimal number from 0 to a day.
std::optional<double> parseSeconds(std::string_view text) {
  double value = 0;
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || ptr != end || !std::isfinite(value) || value < 0 ||
      value > 86400)
    return std::nullopt;
  return value;
}

CLI::Validator secondsValidator() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        if (parseSeconds(text)) return {};
        return "takes a number of seconds between 0 and 86400, not '" + text + "'";
      },
      "");
}

std::string knownExtensions() {
  std::string known;
  for (const auto& entry : host::extensions())
    known += (known.empty() ? "" : ", ") + std::string(entry.name);
  return known;
}

// One line that says what is wrong with the command line, in the host's words where
// CLI11's would name its internals.
std::string describe(const CLI::ParseError& error, const CLI::App& app) {
  if (dynamic_cast<const CLI::ExtrasError*>(&error)) {
    for (const auto& arg : app.remaining())
      if (arg.size() > 1 && arg[0] == '-') return "unknown option '" + arg + "' (see --help)";
    return "give exactly one payload";
  }
  return command_line::reword(error);
}

// Returns none when the program should end at once (after --help or --version).
std::optional<Options> parseOptions(int argc, char** argv) {
  CLI::App app(kDescription, kName);
  app.formatter(std::make_shared<HelpFormatter>());
  app.footer(kFooter);
  app.set_help_flag();  // added again below, so that it comes last in the list

  Options options;
  std::string extension(host::defaultExtension().name);
  std::string extensionHelp = "the extension class to load (default: " + extension + ")";
  for (const auto& entry : host::extensions())
    extensionHelp += "\n  " + std::string(entry.name) + ": " + std::string(entry.summary);
  app.add_option("--extension", extension, extensionHelp)
      ->type_name("NAME")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(CLI::Validator(
          [](std::string& name) -> std::string {
            if (host::findExtension(name)) return {};
            return "takes one of " + knownExtensions() + ", not '" + name + "'";
          },
          ""));
  std::ostringstream deadlineHelp;
  deadlineHelp << "time from didReceive to serviceExtensionTimeWillExpire\n(default "
               << K::Extension::deadlineSeconds << "; fractions allowed)";
  app.add_option("--deadline", options.deadlineSeconds, deadlineHelp.str())
      ->type_name("SECONDS")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(secondsValidator());
  app.add_option("--grace", options.graceSeconds,
                 "how long to wait after the deadline for work still running (default 2)")
      ->type_name("SECONDS")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(secondsValidator());
  bool noMutableCopy = false;
  app.add_flag("--no-mutable-copy", noMutableCopy,
               "hand over a content that cannot be copied into a mutable one")
      ->disable_flag_override();
  std::string preview;
  app.add_option("--preview", preview,
                 "draw the notification as the phone's lock screen would show it (app\n"
                 "name, sender avatar, texts, thumbnail) and write it as a PNG; the phone\n"
                 "shows the first content delivered and ignores later calls")
      ->type_name("FILE.png")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            const std::filesystem::path file = text;
            std::error_code ec;
            const auto dir =
                file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
            if (file.filename().empty() || !std::filesystem::is_directory(dir, ec))
              return "needs a file in an existing directory, not '" + text + "'";
            return {};
          },
          ""));
  app.add_flag("--verbose", options.verbose,
               "write the system log and the extension's debug log to standard error")
      ->disable_flag_override();
  // Not required in CLI11's sense: its check would hide an unknown option behind "no payload".
  app.add_option("PAYLOAD", options.payloadPath)->group("");
  app.set_help_flag("-h,--help", "show this text")->disable_flag_override();
  app.set_version_flag("--version", std::string(kName) + " " + platform::kVersion,
                       "show the version")
      ->disable_flag_override();

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return std::nullopt;
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << "\n";
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw UsageError(describe(error, app));
  }
  if (app.count("PAYLOAD") == 0)
    throw UsageError("no payload given (a file, or - for standard input)");
  options.extension = host::findExtension(extension);
  options.copyable = !noMutableCopy;
  if (!preview.empty()) options.previewPath = preview;
  return options;
}

std::string readPayload(const std::string& path) {
  if (path == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), {});
  }
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw UsageError("cannot read payload '" + path + "': it is a directory");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw UsageError("cannot read payload '" + path + "': " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The host's loop waits on the main queue; whatever changes what it waits for (the handler
// called, didReceive returned, the last task ended) posts an empty block there, so that the
// loop looks again at once instead of at its next poll.
void wakeMainQueue() {
  platform::MainQueue::shared().post([] {});
}

// Everything the content handler touches; shared with threads that may outlive a late call.
struct Delivery {
  std::FILE* out = stdout;
  std::mutex mutex;
  Clock::time_point start;
  int calls = 0;
  bool closed = false;
  // What the phone shows: the first content handed over; it ignores later calls.
  std::optional<platform::NotificationContent> shown;  // for --preview

  void deliver(const platform::NotificationContent& content) {
    std::lock_guard lock(mutex);
    if (closed) return;
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    boost::json::object line;
    line["call"] = ++calls;
    line["elapsed_ms"] = elapsed;
    line["content"] = host::contentJSON(content);
    boost::json::array donated;
    for (const auto& interaction : platform::donatedInteractions())
      donated.push_back(platform::describe(interaction));
    line["donatedInteractions"] = std::move(donated);
    if (!shown) shown = content;
    const auto text = platform::toJSON(line) + "\n";
    std::fwrite(text.data(), 1, text.size(), out);
    std::fflush(out);
    wakeMainQueue();
  }

  bool called() {
    std::lock_guard lock(mutex);
    return calls > 0;
  }
};

int run(const Options& options) {
  const auto text = readPayload(options.payloadPath);
  boost::json::value json;
  try {
    json = platform::parseJSON(text);
  } catch (const platform::JSONSyntaxError& e) {
    throw UsageError("payload is not valid JSON: " + std::string(e.what()));
  }
  host::Payload payload;
  try {
    payload = host::payloadFromJSON(json, platform::newUUID(), options.copyable);
  } catch (const host::PayloadError& e) {
    throw UsageError(std::string("bad payload: ") + e.what());
  }
  if (!payload.mutableContent)
    std::cerr << kName
              << ": note: \"aps.mutable-content\" is not 1; the phone would show this "
                 "notification without calling an extension\n";

  if (options.verbose) {
    platform::SystemLog::setDebugEnabled(true);
    platform::SystemLog::routeToStandardError();
#ifdef HOST_WITH_LOGWELL
    // The extension logs through the logging library, which has no destination of its own.
    logwell::addStandardErrorConsole();
#endif
  }

  auto delivery = std::make_shared<Delivery>();
  // Standard output carries the content lines only: what an extension prints itself (the
  // rich-push service reports failed downloads there) goes to standard error instead.
  if (const int lines = ::dup(STDOUT_FILENO); lines >= 0) {
    if (std::FILE* out = ::fdopen(lines, "w")) {
      std::fflush(stdout);
      ::dup2(STDERR_FILENO, STDOUT_FILENO);
      delivery->out = out;
    }
  }
  std::shared_ptr<platform::NotificationServiceExtension> extension = options.extension->make();
  platform::ContentHandler handler = [delivery](const platform::NotificationContent& content) {
    delivery->deliver(content);
  };
  auto returned = std::make_shared<std::atomic<bool>>(false);

  const auto deadline = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.deadlineSeconds));
  const auto grace = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.graceSeconds));

  platform::setIdleObserver(wakeMainQueue);
  delivery->start = Clock::now();
  std::thread worker([extension, request = payload.request, handler, returned] {
    extension->didReceive(request, handler);
    *returned = true;
    wakeMainQueue();
  });
  // The main queue runs here so that completions posted to it (rich-push downloads) arrive.
  const auto done = [&] {
    return *returned && platform::runningTasks() == 0 && delivery->called();
  };
  auto& mainQueue = platform::MainQueue::shared();
  bool finished = mainQueue.runUntil(done, delivery->start + deadline - Clock::now());
  // The deadline entry point gets a thread of its own, started only when the deadline comes:
  // most notifications are done long before, and a thread is not free at start-up. Like the
  // phone, the host calls it only while nothing has been handed back; work still running
  // after a delivery (a report) is waited for within the grace all the same.
  if (!finished) {
    std::optional<std::thread> expiry;
    if (!delivery->called())
      expiry.emplace([extension] { extension->serviceExtensionTimeWillExpire(); });
    finished = mainQueue.runUntil(done, delivery->start + deadline + grace - Clock::now());
    // What the deadline call hands over is shown: wait for it before the delivery closes.
    if (expiry) expiry->join();
  }
  platform::setIdleObserver(nullptr);
  int calls = 0;
  {
    std::lock_guard lock(delivery->mutex);
    delivery->closed = true;  // calls that come later are past the phone's patience
    calls = delivery->calls;
  }
  if (options.previewPath && delivery->shown) {
    try {
      host::drawPreview(*delivery->shown, K::Extension::appLabel, *options.previewPath);
    } catch (const std::exception& e) {
      std::cerr << kName << ": " << e.what() << "\n";
    }
  }
  std::fflush(delivery->out);
  std::cout.flush();
  if (calls == 0)
    std::cerr << kName << ": the content handler was never called (deadline "
              << options.deadlineSeconds << " s, grace " << options.graceSeconds << " s)\n";
  const int status = calls > 0 ? kExitDelivered : kExitNeverDelivered;
  if (!finished && (!*returned || platform::runningTasks() > 0)) {
    if (options.verbose)
      std::cerr << kName << ": work of the extension still running " << options.graceSeconds
                << " s after the deadline; stopping\n";
    // Threads of the extension are still inside its code: leave without running destructors
    // under their feet.
    worker.detach();
    std::cerr.flush();
    std::_Exit(status);
  }
  worker.join();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // One malloc arena for all threads. glibc gives each new thread an arena of its own (a
  // 64 MB reservation whose first pages get touched) to spare it lock contention, which a
  // process that lives for one notification, with a handful of mostly waiting threads, never
  // has; the arenas only add resident memory.
  ::mallopt(M_ARENA_MAX, 1);
  try {
    const auto options = parseOptions(argc, argv);
    if (!options) return 0;
    return run(*options);
  } catch (const UsageError& e) {
    std::cerr << kName << ": " << e.what() << "\n";
    return kExitBadInput;
  } catch (const std::exception& e) {
    std::cerr << kName << ": " << e.what() << "\n";
    return 1;
  }
}
