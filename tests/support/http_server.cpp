#include "support/http_server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace testing_support {
namespace {

bool iequals(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

void sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const auto n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n <= 0) return;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
}

const char* reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 204:
      return "No Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 307:
      return "Temporary Redirect";
    case 308:
      return "Permanent Redirect";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 500:
      return "Internal Server Error";
    default:
      return "Status";
  }
}

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [k, v] : headers)
    if (iequals(k, name)) return v;
  return std::nullopt;
}

HttpServer::HttpServer(Handler handler) : handler_(std::move(handler)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener_, 64) != 0)
    throw std::runtime_error("test server: cannot listen on 127.0.0.1");
  socklen_t len = sizeof addr;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

HttpServer::~HttpServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (int fd : openSockets_) ::shutdown(fd, SHUT_RDWR);
  }
  ::shutdown(listener_, SHUT_RDWR);
  ::close(listener_);
  acceptor_.join();
  for (auto& w : workers_) w.join();
}

std::string HttpServer::baseURL() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

void HttpServer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<RecordedRequest> HttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool HttpServer::waitForRequests(std::size_t n, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, limit, [&] { return requests_.size() >= n; });
}

void HttpServer::acceptLoop() {
  for (;;) {
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    openSockets_.push_back(fd);
    workers_.emplace_back([this, fd] { serve(fd); });
  }
}

void HttpServer::serve(int fd) {
  std::string buffer;
  char chunk[8192];
  for (;;) {
    // Read one request: headers, then Content-Length bytes of body.
    std::size_t headerEnd;
    while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
      const auto n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return;
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    RecordedRequest request;
    std::string_view head(buffer.data(), headerEnd);
    auto lineEnd = head.find("\r\n");
    auto requestLine = head.substr(0, lineEnd);
    auto sp1 = requestLine.find(' ');
    auto sp2 = requestLine.rfind(' ');
    request.method = std::string(requestLine.substr(0, sp1));
    request.target = std::string(requestLine.substr(sp1 + 1, sp2 - sp1 - 1));
    std::size_t contentLength = 0;
    auto rest = lineEnd == std::string_view::npos ? std::string_view{} : head.substr(lineEnd + 2);
    while (!rest.empty()) {
      auto end = rest.find("\r\n");
      auto line = rest.substr(0, end);
      auto colon = line.find(':');
      if (colon != std::string_view::npos) {
        auto value = line.substr(colon + 1);
        while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
        request.headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
        if (iequals(line.substr(0, colon), "Content-Length"))
          contentLength = std::stoul(std::string(value));
      }
      if (end == std::string_view::npos) break;
      rest = rest.substr(end + 2);
    }
    buffer.erase(0, headerEnd + 4);
    while (buffer.size() < contentLength) {
      const auto n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return;
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    request.body = buffer.substr(0, contentLength);
    buffer.erase(0, contentLength);

    Handler handler;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      handler = handler_;
    }
    arrived_.notify_all();
    ScriptedResponse response = handler ? handler(request) : ScriptedResponse{};
    if (response.delay.count() > 0) std::this_thread::sleep_for(response.delay);
    if (response.dropConnection) {
      ::shutdown(fd, SHUT_RDWR);
      return;
    }
    if (response.endless) {
      std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                         reason(response.status) + "\r\nConnection: close\r\n\r\n";
      sendAll(fd, head);
      const std::string piece = response.body.empty() ? std::string(64 * 1024, 'x') : response.body;
      for (std::size_t sent = 0; sent < (std::size_t{4} << 30); sent += piece.size())
        if (::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL) <= 0) break;
      ::shutdown(fd, SHUT_RDWR);
      return;
    }

    std::string out =
        "HTTP/1.1 " + std::to_string(response.status) + " " + reason(response.status) + "\r\n";
    for (const auto& [k, v] : response.headers) out += k + ": " + v + "\r\n";
    out += "Content-Length: " + std::to_string(response.body.size()) + "\r\n\r\n";
    if (response.truncateAfter) {
      out += response.body.substr(0, *response.truncateAfter);
      sendAll(fd, out);
      ::shutdown(fd, SHUT_RDWR);
      return;
    }
    out += response.body;
    sendAll(fd, out);
  }
}

}  // namespace testing_support
