#include "JobHost/Output/JournalStream.h"

#include <array>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/Logging/LogSinkSocket.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using platform::UniqueFd;

UniqueFd listenAt(const std::string& path) {
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto address = platform::LogSinkAddress::make(path);
  EXPECT_TRUE(address);
  EXPECT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address->address()),
                   sizeof(sockaddr_un)),
            0);
  EXPECT_EQ(::listen(listener.get(), 1), 0);
  return listener;
}

TEST(JournalStreamTest, BeginsWithTheLabelAndWaitsLikeAFile) {
  const platform::TemporaryFolder folder;
  const UniqueFd listener = listenAt(folder.path("stdout"));
  auto stream = openJournalStream("com.example.a", folder.path("stdout"));
  ASSERT_TRUE(stream) << platform::describe(stream.error());
  EXPECT_EQ(::fcntl(stream->get(), F_GETFL) & O_NONBLOCK, 0);
  ASSERT_EQ(::write(stream->get(), "hello\n", 6), 6);
  stream->reset();
  const UniqueFd peer(::accept(listener.get(), nullptr, nullptr));
  std::string received;
  std::array<char, 256> bytes;
  for (ssize_t count; (count = ::read(peer.get(), bytes.data(), bytes.size())) > 0;)
    received.append(bytes.data(), static_cast<std::size_t>(count));
  EXPECT_EQ(received, "com.example.a\n\n6\n1\n0\n0\n0\nhello\n");
}

TEST(JournalStreamTest, WithoutAJournalItFailsAtOnce) {
  const platform::TemporaryFolder folder;
  EXPECT_FALSE(openJournalStream("com.example.a", folder.path("stdout")));
}

}  // namespace
}  // namespace jobhost
