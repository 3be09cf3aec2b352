#include "platform/url_loading.hpp"

#include <curl/curl.h>

#include <atomic>
#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/paths.hpp"
#include "platform/text.hpp"
#include "platform/tls.hpp"

namespace platform {
namespace {

std::optional<std::string> findHeader(const HeaderFields& fields, std::string_view name) {
  for (const auto& [k, v] : fields)
    if (equalsIgnoringCase(k, name)) return v;
  return std::nullopt;
}

Error urlError(long code, std::string description, const std::string& url) {
  boost::json::object info;
  info["NSErrorFailingURLStringKey"] = url;
  return Error(url_error::domain, code, std::move(description), std::move(info));
}

Error translate(CURLcode code, const char* detail, const std::string& url) {
  std::string text = detail && *detail ? detail : curl_easy_strerror(code);
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return urlError(url_error::timedOut, "The request timed out. (" + text + ")", url);
    case CURLE_COULDNT_CONNECT:
      return urlError(url_error::cannotConnectToHost,
                      "Could not connect to the server. (" + text + ")", url);
    case CURLE_COULDNT_RESOLVE_HOST:
      return urlError(url_error::cannotFindHost,
                      "A server with the specified hostname could not be found. (" + text + ")",
                      url);
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return urlError(url_error::unsupportedURL, "unsupported URL (" + text + ")", url);
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
      return urlError(url_error::networkConnectionLost,
                      "The network connection was lost. (" + text + ")", url);
    case CURLE_FILE_COULDNT_READ_FILE:
      return urlError(url_error::fileDoesNotExist,
                      "The requested file does not exist. (" + text + ")", url);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
      return urlError(url_error::secureConnectionFailed,
                      "A TLS error caused the secure connection to fail. (" + text + ")", url);
    default:
      return urlError(url_error::unknown, text, url);
  }
}

// CR and LF end a header line, and curl stops at NUL: any of them in a field or value would
// let the text write request lines of its own.
std::optional<Error> headerProblem(std::string_view field, std::string_view value,
                                   const std::string& url) {
  constexpr std::string_view kBreaks("\r\n\0", 3);
  if (field.find_first_of(kBreaks) == std::string_view::npos &&
      value.find_first_of(kBreaks) == std::string_view::npos)
    return std::nullopt;
  return urlError(url_error::badURL,
                  "The header field \"" +
                      std::string(field.substr(0, field.find_first_of(kBreaks))) +
                      "\" holds a line break or NUL, which would add lines to the request; "
                      "nothing was sent.",
                  url);
}

// Methods that a server may see twice without harm, which curl may therefore send again on a
// fresh connection when a kept-alive one died under it.
bool isRepeatable(std::string_view method) {
  return method == "GET" || method == "HEAD" || method == "PUT" || method == "DELETE" ||
         method == "OPTIONS";
}

bool isMethodToken(std::string_view method) {
  return !method.empty() && std::ranges::all_of(method, [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
  });
}

struct CurlGlobal {
  CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
};

}  // namespace

// ---------------------------------------------------------------------------------------------

URLRequest URLRequest::make(std::string_view url) {
  if (!isValidURL(url)) throw invalidURLError();
  URLRequest request;
  request.url = std::string(url);
  return request;
}

void URLRequest::addValue(std::string value, std::string field) {
  if (auto problem = headerProblem(field, value, url)) throw std::move(*problem);
  headers.emplace_back(std::move(field), std::move(value));
}

std::optional<std::string> URLRequest::value(std::string_view field) const {
  return findHeader(headers, field);
}

std::optional<std::string> URLResponse::value(std::string_view field) const {
  return findHeader(headers, field);
}

std::string URLResponse::mimeType() const {
  auto type = value("Content-Type").value_or("");
  type = type.substr(0, type.find(';'));
  while (!type.empty() && std::isspace(static_cast<unsigned char>(type.back()))) type.pop_back();
  return lowercased(type);
}

URLSessionConfiguration URLSessionConfiguration::defaultConfiguration() {
  return {};
}

// ---------------------------------------------------------------------------------------------
// The loader: one thread per session that drives a curl multi handle. Every other thread
// talks to it through a command queue and a wake-up.

class CurlTask;

// Far beyond any real response's headers; a server that sends more is not one to listen to.
constexpr std::size_t kMaxHeaderBytes = 256 * 1024;

struct URLSession::Loader : std::enable_shared_from_this<URLSession::Loader> {
  CURLM* multi = nullptr;
  std::mutex mutex;
  std::vector<std::function<void()>> commands;
  std::unordered_map<CURL*, std::shared_ptr<CurlTask>> running;
  std::atomic<bool> stopping{false};
  bool closed = false;  // guarded by `mutex`
  std::thread thread;

  Loader() {
    static CurlGlobal global;
    multi = curl_multi_init();
  }

  void start() {
    thread = std::thread([self = shared_from_this()] { self->loop(); });
  }

  void send(std::function<void()> command) {
    std::lock_guard lock(mutex);
    // Once the loop has ended nothing would run the command, and the multi handle is gone.
    if (closed) return;
    commands.push_back(std::move(command));
    curl_multi_wakeup(multi);
  }

  void stop() {
    stopping = true;
    curl_multi_wakeup(multi);
    if (thread.joinable()) {
      if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
      else
        thread.join();
    }
  }

  void loop();
  void finish(CURL* easy, CURLcode code);
};

class CurlTask : public DataTask, public std::enable_shared_from_this<CurlTask> {
 public:
  CurlTask(std::weak_ptr<URLSession::Loader> loader, URLRequest request,
           DataTaskCompletion completion, std::shared_ptr<URLCache> cache)
      : loader_(std::move(loader)),
        request_(std::move(request)),
        completion_(std::move(completion)),
        cache_(std::move(cache)),
        priority_(request_.priority) {}

  ~CurlTask() override {
    if (headerList_) curl_slist_free_all(headerList_);
    if (easy_) curl_easy_cleanup(easy_);
  }

  void resume() override {
    if (started_.exchange(true)) return;
    if (auto answered = answerFromCache()) {
      complete(std::move(*answered));
      return;
    }
    if (auto problem = requestProblem()) {
      fail(std::move(*problem));
      return;
    }
    auto loader = loader_.lock();
    if (!loader) {
      fail(urlError(url_error::cancelled, "cancelled", request_.url));
      return;
    }
    loader->send([self = shared_from_this(), loader] { self->attach(*loader); });
  }

  void cancel() override {
    if (finished_) return;
    auto loader = loader_.lock();
    if (!started_.exchange(true) || !loader) {
      fail(urlError(url_error::cancelled, "cancelled", request_.url));
      return;
    }
    loader->send([self = shared_from_this(), loader] {
      if (self->easy_ && loader->running.erase(self->easy_))
        curl_multi_remove_handle(loader->multi, self->easy_);
      self->fail(urlError(url_error::cancelled, "cancelled", self->request_.url));
    });
  }

  void setPriority(float priority) override {
    priority_ = priority;
    if (auto loader = loader_.lock())
      loader->send([self = shared_from_this()] {
        // A hint only: HTTP/2 stream weights are the one lever curl offers.
        if (self->easy_)
          curl_easy_setopt(self->easy_, CURLOPT_STREAM_WEIGHT,
                           static_cast<long>(1 + self->priority_ * 255));
      });
  }
  float priority() const override { return priority_; }
  const URLRequest& request() const override { return request_; }

  // Runs on the loader thread.
  void attach(URLSession::Loader& loader) {
    if (finished_) return;
    easy_ = curl_easy_init();
    configure();
    loader.running.emplace(easy_, shared_from_this());
    curl_multi_add_handle(loader.multi, easy_);
  }

  // Runs on the loader thread, once curl is done with the handle. A transfer that one of
  // our callbacks stopped ends with the reason it noted, whatever code curl gives for it.
  void finished(CURLcode code) {
    if (code == CURLE_OK || stop_ == Stop::truncated) {
      long status = 0;
      curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
      char* effective = nullptr;
      curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &effective);
      URLResponse response{effective ? effective : request_.url, std::nullopt, std::move(headers_)};
      if (status != 0) response.statusCode = status;
      response.truncated = stop_ == Stop::truncated;
      complete(DataResult{std::move(body_), std::move(response)});
      return;
    }
    fail(stoppedError().value_or(translate(code, errorBuffer_, request_.url)));
  }

 private:
  // Why one of our callbacks stopped the transfer, as the caller reads it.
  enum class Stop {
    none,
    truncated,
    tooLarge,
    outOfMemory,
    headersTooLarge,
    replayRefused,
    redirectRefused,
    idle
  };

  std::optional<Error> stoppedError() const {
    const auto error = [&](long code, std::string description) {
      return urlError(code, std::move(description), request_.url);
    };
    switch (stop_) {
      case Stop::none:
      case Stop::truncated:
        return std::nullopt;
      case Stop::tooLarge:
        return error(url_error::dataLengthExceedsMaximum,
                     "The response is larger than the allowed " +
                         std::to_string(*request_.maxResponseBytes) + " bytes.");
      case Stop::outOfMemory:
        return error(url_error::cannotWriteToFile,
                     "There was not enough memory to hold the response.");
      case Stop::headersTooLarge:
        return error(url_error::badServerResponse, "The response's headers are larger than " +
                                                       std::to_string(kMaxHeaderBytes) + " bytes.");
      case Stop::replayRefused:
        return error(url_error::networkConnectionLost,
                     "The network connection was lost after the " + request_.method +
                         " may have reached the server; it was not sent again.");
      case Stop::redirectRefused:
        return error(url_error::badServerResponse,
                     "The server answered the " + request_.method + " with " +
                         std::to_string(status_) + " and a redirect to " + location_ +
                         "; following it would drop the request's body, so it was not followed.");
      case Stop::idle:
        return error(url_error::timedOut, "The request timed out. (no data for " +
                                              std::to_string(request_.timeout.count()) + " ms)");
    }
    return std::nullopt;
  }

  std::optional<DataResult> answerFromCache() {
    const auto policy = request_.cachePolicy;
    if (policy != CachePolicy::returnCacheDataElseLoad &&
        policy != CachePolicy::returnCacheDataDontLoad)
      return std::nullopt;
    if (cache_)
      if (auto hit = cache_->cachedResponse(request_)) return hit;
    if (policy == CachePolicy::returnCacheDataDontLoad) {
      fail(urlError(-1008, "The resource is not in the cache and the request may not load it.",
                    request_.url));
      return std::nullopt;
    }
    return std::nullopt;
  }

  // A method or header that would corrupt the request on the wire; checked before any byte
  // is sent, whoever filled the request.
  std::optional<Error> requestProblem() const {
    if (!isMethodToken(request_.method))
      return urlError(url_error::badURL,
                      "The method \"" + request_.method + "\" is not an HTTP method token.",
                      request_.url);
    for (const auto& [field, value] : request_.headers)
      if (auto problem = headerProblem(field, value, request_.url)) return problem;
    return std::nullopt;
  }

  void configure() {
    curl_easy_setopt(easy_, CURLOPT_URL, request_.url.c_str());
    curl_easy_setopt(easy_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_);
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request_.timeout.count()));
    curl_easy_setopt(easy_, CURLOPT_ACCEPT_ENCODING, nullptr);
    curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https,file");
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &CurlTask::onBody);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &CurlTask::onHeader);
    curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy_, CURLOPT_XFERINFOFUNCTION, &CurlTask::onProgress);
    curl_easy_setopt(easy_, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(easy_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy_, CURLOPT_STREAM_WEIGHT, static_cast<long>(1 + priority_ * 255));
    if (const auto caFile = trustedCertificates()) {
      // The program's CA file is then the only anchor: the built-in certificate folder goes
      // too, or a certificate the system trusts would still pass. curl copies the text.
      curl_easy_setopt(easy_, CURLOPT_CAINFO, caFile->c_str());
      curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);
    }

    if (request_.body) {
      // The body goes through a read callback rather than as post fields: curl must then ask
      // before it sends the body a second time, and `onSeek` can say no.
      curl_easy_setopt(easy_, CURLOPT_POST, 1L);
      curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(request_.body->size()));
      curl_easy_setopt(easy_, CURLOPT_READFUNCTION, &CurlTask::onRead);
      curl_easy_setopt(easy_, CURLOPT_READDATA, this);
      curl_easy_setopt(easy_, CURLOPT_SEEKFUNCTION, &CurlTask::onSeek);
      curl_easy_setopt(easy_, CURLOPT_SEEKDATA, this);
      if (request_.method != "POST")
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
    } else if (request_.method == "GET") {
      curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
    } else if (request_.method == "HEAD") {
      curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
    } else {
      curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
    }
    // Exactly the headers the caller added: curl's own Accept, Expect and form
    // Content-Type are switched off unless the caller set them.
    for (const auto& [field, value] : request_.headers)
      headerList_ =
          curl_slist_append(headerList_, (field + (value.empty() ? ";" : ": " + value)).c_str());
    for (const char* own : {"Accept", "Expect", "Content-Type"})
      if (!request_.value(own))
        headerList_ = curl_slist_append(headerList_, (std::string(own) + ":").c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headerList_);
    lastActivity_ = std::chrono::steady_clock::now();
  }

  // curl's callbacks are C: nothing may be thrown through them. A failure is noted and the
  // transfer stopped (returning less than was handed over), and `finished` says why.
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto* task = static_cast<CurlTask*>(self);
    const auto n = size * count;
    task->lastActivity_ = std::chrono::steady_clock::now();
    const auto& limit = task->request_.maxResponseBytes;
    if (limit && task->body_.size() + n > *limit) {
      if (task->request_.responseOverflow == ResponseOverflow::fail)
        task->stop_ = Stop::tooLarge;
      else if (task->append(data, *limit - task->body_.size()))
        task->stop_ = Stop::truncated;
      return 0;
    }
    return task->append(data, n) ? n : 0;
  }

  bool append(const char* data, std::size_t n) {
    try {
      body_.append(data, n);
      return true;
    } catch (const std::exception&) {
      stop_ = Stop::outOfMemory;
      return false;
    }
  }

  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self) {
    auto* task = static_cast<CurlTask*>(self);
    const auto n = size * count;
    task->lastActivity_ = std::chrono::steady_clock::now();
    task->headerBytes_ += n;
    if (task->headerBytes_ > kMaxHeaderBytes) {
      task->stop_ = Stop::headersTooLarge;
      return 0;
    }
    try {
      return task->takeHeader(std::string_view(data, n)) ? n : 0;
    } catch (const std::exception&) {
      task->stop_ = Stop::outOfMemory;
      return 0;
    }
  }

  // False stops the transfer: a redirect that would drop the body is not followed.
  bool takeHeader(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {
      headers_.clear();  // a new response (after a redirect or a 100 Continue)
      location_.clear();
      answered_ = true;
      status_ = 0;
      if (auto space = line.find(' '); space != std::string_view::npos) {
        const auto code = line.substr(space + 1, 3);
        std::from_chars(code.data(), code.data() + code.size(), status_);
      }
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
      auto value = line.substr(colon + 1);
      while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
      const auto field = line.substr(0, colon);
      if (equalsIgnoringCase(field, "Content-Length")) reserveBody(value);
      if (equalsIgnoringCase(field, "Location")) location_ = std::string(value);
      headers_.emplace_back(std::string(field), std::string(value));
    } else if (line.empty() && !location_.empty() && request_.method != "GET" &&
               request_.method != "HEAD" && (status_ == 301 || status_ == 302 || status_ == 303)) {
      // curl would follow these as a GET without the body.
      stop_ = Stop::redirectRefused;
      return false;
    }
    return true;
  }

  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
    auto* task = static_cast<CurlTask*>(self);
    const std::string& body = *task->request_.body;
    const auto n = std::min(size * count, body.size() - task->bodyOffset_);
    std::memcpy(buffer, body.data() + task->bodyOffset_, n);
    task->bodyOffset_ += n;
    task->answered_ = false;
    return n;
  }

  // curl rewinds the body to send it again: after a redirect that keeps it (307, 308), or
  // when a kept-alive connection died before any answer. The second would make the server
  // see the request twice, which only a repeatable method may.
  static int onSeek(void* self, curl_off_t offset, int origin) {
    auto* task = static_cast<CurlTask*>(self);
    if (offset != 0 || origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
    if (task->bodyOffset_ != 0 && !task->answered_ && !isRepeatable(task->request_.method)) {
      task->stop_ = Stop::replayRefused;
      return CURL_SEEKFUNC_FAIL;
    }
    task->bodyOffset_ = 0;
    return CURL_SEEKFUNC_OK;
  }

  // A body that grows by doubling touches about twice its size and copies itself on the way;
  // the announced length lets it be allocated once. The header is the server's word only, so
  // the reservation stays within the caller's limit and a few megabytes.
  void reserveBody(std::string_view text) {
    constexpr std::size_t kMostReserved = 8 << 20;
    std::size_t length = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error != std::errc() || end == text.data()) return;
    if (request_.maxResponseBytes)
      length = std::min<std::size_t>(length, *request_.maxResponseBytes);
    body_.reserve(std::min(length, kMostReserved));
  }

  static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* task = static_cast<CurlTask*>(self);
    if (std::chrono::steady_clock::now() - task->lastActivity_ > task->request_.timeout) {
      task->stop_ = Stop::idle;
      return 1;
    }
    return 0;
  }

  // A completion runs on the loader thread (or the caller's, for a load that never
  // started); whatever it throws stays here, where nobody could catch it.
  void complete(DataResult result) {
    if (finished_.exchange(true)) return;
    auto completion = std::move(completion_);
    if (!completion) return;
    try {
      completion(std::move(result.data), std::move(result.response), std::nullopt);
    } catch (...) {
    }
  }

  void fail(Error error) {
    if (finished_.exchange(true)) return;
    auto completion = std::move(completion_);
    if (!completion) return;
    try {
      completion({}, std::nullopt, std::move(error));
    } catch (...) {
    }
  }

  std::weak_ptr<URLSession::Loader> loader_;
  URLRequest request_;
  DataTaskCompletion completion_;
  std::shared_ptr<URLCache> cache_;
  std::atomic<float> priority_;
  std::atomic<bool> started_{false};
  std::atomic<bool> finished_{false};
  CURL* easy_ = nullptr;
  curl_slist* headerList_ = nullptr;
  char errorBuffer_[CURL_ERROR_SIZE] = {};
  std::string body_;
  HeaderFields headers_;
  std::size_t headerBytes_ = 0;
  std::size_t bodyOffset_ = 0;  // of the request body, as read by curl
  int status_ = 0;              // of the response whose headers are arriving
  std::string location_;
  bool answered_ = false;  // a status line came since the body was last read
  Stop stop_ = Stop::none;
  std::chrono::steady_clock::time_point lastActivity_;
};

void URLSession::Loader::loop() {
  while (!stopping) {
    std::vector<std::function<void()>> pending;
    {
      std::lock_guard lock(mutex);
      pending.swap(commands);
    }
    for (auto& command : pending) {
      try {
        command();
      } catch (...) {
        // A command that could not run (no memory for a handle) must not end the loader.
      }
    }

    int active = 0;
    curl_multi_perform(multi, &active);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
    }
    curl_multi_poll(multi, nullptr, 0, 200, nullptr);
  }
  // Commands never run hold the loader and their tasks; dropping them breaks that cycle.
  std::vector<std::function<void()>> dropped;
  {
    std::lock_guard lock(mutex);
    closed = true;
    dropped.swap(commands);
  }
  for (auto& [easy, task] : running) curl_multi_remove_handle(multi, easy);
  running.clear();
  curl_multi_cleanup(multi);
}

void URLSession::Loader::finish(CURL* easy, CURLcode code) {
  auto it = running.find(easy);
  if (it == running.end()) return;
  auto task = std::move(it->second);
  running.erase(it);
  curl_multi_remove_handle(multi, easy);
  task->finished(code);
}

// ---------------------------------------------------------------------------------------------

URLSession::URLSession(URLSessionConfiguration configuration)
    : configuration_(std::move(configuration)), loader_(std::make_shared<Loader>()) {
  loader_->start();
}

URLSession::~URLSession() {
  loader_->stop();
}

URLSession& URLSession::shared() {
  // Never destroyed: detached tasks may still load while the process exits.
  static URLSession* session = new URLSession();
  return *session;
}

std::shared_ptr<DataTask> URLSession::dataTask(URLRequest request, DataTaskCompletion completion) {
  return std::make_shared<CurlTask>(loader_, std::move(request), std::move(completion),
                                    configuration_.urlCache);
}

DataResult URLSession::dataSync(URLRequest request) {
  std::promise<DataResult> promise;
  auto future = promise.get_future();
  auto task =
      dataTask(std::move(request), [&promise](std::string data, std::optional<URLResponse> response,
                                              std::optional<Error> error) {
        if (error)
          promise.set_exception(std::make_exception_ptr(std::move(*error)));
        else
          promise.set_value(DataResult{std::move(data), std::move(*response)});
      });
  task->resume();
  return future.get();
}

boost::asio::awaitable<DataResult> URLSession::data(URLRequest request) {
  auto initiation = [this](auto handler, URLRequest request) {
    auto slot = boost::asio::get_associated_cancellation_slot(handler);
    auto executor = boost::asio::get_associated_executor(handler);
    auto shared = std::make_shared<decltype(handler)>(std::move(handler));
    auto task = dataTask(std::move(request), [shared, executor](std::string data,
                                                                std::optional<URLResponse> response,
                                                                std::optional<Error> error) {
      boost::asio::dispatch(
          executor, [shared, data = std::move(data), response = std::move(response),
                     error = std::move(error)]() mutable {
            if (error)
              (*shared)(std::make_exception_ptr(std::move(*error)), DataResult{});
            else
              (*shared)(nullptr, DataResult{std::move(data), std::move(*response)});
          });
    });
    if (slot.is_connected()) {
      slot.assign([weak = std::weak_ptr<DataTask>(task)](boost::asio::cancellation_type) {
        if (auto t = weak.lock()) t->cancel();
      });
    }
    task->resume();
  };
  co_return co_await boost::asio::async_initiate<decltype(boost::asio::use_awaitable),
                                                 void(std::exception_ptr, DataResult)>(
      initiation, boost::asio::use_awaitable, std::move(request));
}

}  // namespace platform
