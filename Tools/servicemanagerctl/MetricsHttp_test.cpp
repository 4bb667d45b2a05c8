#include "Tools/servicemanagerctl/MetricsHttp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST(MetricsHttpTest, TheMetricsAreAnswered) {
  EXPECT_EQ(answerToScraper("GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n", "up 1\n"),
            "HTTP/1.1 200 OK\r\n"
            "Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
            "Content-Length: 5\r\n"
            "Connection: close\r\n"
            "\r\n"
            "up 1\n");
  EXPECT_THAT(answerToScraper("GET /metrics?a=b HTTP/1.0\r\n\r\n", "up 1\n"), EndsWith("up 1\n"));
}

TEST(MetricsHttpTest, AHeadRequestGetsNoBody) {
  EXPECT_THAT(
      answerToScraper("HEAD /metrics HTTP/1.1\r\n\r\n", "up 1\n"),
      AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("Content-Length: 5\r\n"), EndsWith("\r\n\r\n")));
}

TEST(MetricsHttpTest, EverythingElseIsAnError) {
  const std::pair<std::string, const char*> kRequests[] = {
      {"", "400"},
      {"\r\n\r\n", "400"},
      {"GET /metrics\r\n\r\n", "400"},
      {"GET /metrics HTTP/1.1\r\n", "400"},
      {"GET /metrics HTTP/2\r\n\r\n", "400"},
      {"POST /metrics HTTP/1.1\r\n\r\n", "405"},
      {"GET / HTTP/1.1\r\n\r\n", "404"},
      {"GET /metrics/../../etc/passwd HTTP/1.1\r\n\r\n", "404"},
      {"GET /metrics HTTP/1.1\r\n" + std::string(kMaxRequestBytes, 'a') + "\r\n\r\n", "431"}};
  for (const auto& [request, status] : kRequests)
    EXPECT_THAT(answerToScraper(request, "up 1\n"), StartsWith(std::string("HTTP/1.1 ") + status))
        << request.substr(0, 60);
}

TEST(MetricsHttpTest, WithoutMetricsTheScraperIsToldSo) {
  EXPECT_THAT(answerToScraper("GET /metrics HTTP/1.1\r\n\r\n", std::nullopt),
              StartsWith("HTTP/1.1 503 "));
}

}  // namespace
