#include "Tools/servicemanagerctl/MetricsHttp.h"

#include <fmt/format.h>

namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::string httpAnswer(std::string_view status, std::string_view body, bool withBody,
                       std::string_view more = {}) {
  return fmt::format(
      "HTTP/1.1 {}\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
      "Content-Length: {}\r\nConnection: close\r\n{}\r\n{}",
      status, body.size(), more, withBody ? body : std::string_view());
}

// Takes the text up to the next space, or all of it.
std::string_view nextWord(std::string_view& line) {
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size() < line.size() ? word.size() + 1 : line.size());
  return word;
}

}  // namespace

bool isWholeRequest(std::string_view request) { return request.find(kHeadEnd) != request.npos; }

std::string answerToScraper(std::string_view request, const std::optional<std::string>& metrics) {
  if (request.size() > kMaxRequestBytes)
    return httpAnswer("431 Request Header Fields Too Large", "too long\n", true);
  std::string_view line = request.substr(0, request.find("\r\n"));
  const std::string_view method = nextWord(line);
  const std::string_view target = nextWord(line);
  if (!isWholeRequest(request) || !line.starts_with("HTTP/1."))
    return httpAnswer("400 Bad Request", "this is no HTTP request\n", true);
  const bool isHead = method == "HEAD";
  if (method != "GET" && !isHead)
    return httpAnswer("405 Method Not Allowed", "only GET and HEAD\n", true,
                      "Allow: GET, HEAD\r\n");
  if (target.substr(0, target.find('?')) != "/metrics")
    return httpAnswer("404 Not Found", "the metrics are at /metrics\n", !isHead);
  if (!metrics)
    return httpAnswer("503 Service Unavailable", "nothing has been collected yet\n", !isHead);
  return httpAnswer("200 OK", *metrics, !isHead);
}
