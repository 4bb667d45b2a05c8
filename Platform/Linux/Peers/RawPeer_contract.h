#pragma once

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/PassedDescriptors.h"

namespace platform {

// A peer that writes raw bytes to its socket.
class RawPeer {
 public:
  explicit RawPeer(const std::string& path) {
    auto socket = connectToSocket(path, std::chrono::seconds(60));
    if (socket) {
      socket_ = std::move(*socket);
    } else {
      ADD_FAILURE() << describe(socket.error());
    }
  }

  // Over a socket that is connected already.
  explicit RawPeer(UniqueFd socket) : socket_(std::move(socket)) {}

  int socket() const { return socket_.get(); }

  // Returns whether all bytes could be written; the other side may have closed.
  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      if (!await(POLLOUT)) return false;
      const auto written = retryOnInterrupt(
          [&] { return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); });
      if (written < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
  }

  enum class Descriptors { kTaken, kRefused };

  // Authenticates as a client that may pass descriptors, or one that takes none.
  void authenticate(Descriptors descriptors = Descriptors::kTaken) {
    std::string digits;
    for (const char digit : std::to_string(::geteuid())) digits += {'3', digit};
    write(std::string_view("\0AUTH EXTERNAL ", 15));
    write(digits + "\r\n");
    EXPECT_TRUE(readLine().starts_with("OK "));
    if (descriptors == Descriptors::kTaken) {
      write("NEGOTIATE_UNIX_FD\r\n");
      EXPECT_EQ(readLine(), "AGREE_UNIX_FD");
    }
    write("BEGIN\r\n");
    // Descriptors that arrive with the end of the authentication would be lost.
    UniqueDBusMessage ping(dbus_message_new_method_call(nullptr, "/", DBUS_INTERFACE_PEER, "Ping"));
    EXPECT_TRUE(write(marshalled(ping.get())));
    EXPECT_TRUE(await(POLLIN));
    char answer[256];
    EXPECT_GT(::recv(socket_.get(), answer, sizeof(answer), 0), 0);
  }

  // Reads one message of any kind, which is returned. The kernel closes the descriptors in it.
  int readMessage() {
    std::string header = readBytes(16);
    std::uint32_t body = 0;
    std::uint32_t fields = 0;
    std::memcpy(&body, header.data() + 4, sizeof(body));
    std::memcpy(&fields, header.data() + 12, sizeof(fields));
    readBytes((fields + 7) / 8 * 8 + body);
    return header[1];
  }

  // Attaches the descriptors to the first byte.
  bool writeWith(std::string_view bytes, const std::vector<int>& descriptors) {
    return sendWithDescriptors(socket_.get(), bytes, descriptors) ==
           static_cast<long>(bytes.size());
  }

  // Waits until the other side closes, whatever it sends before.
  bool awaitClose() {
    char bytes[4096];
    for (;;) {
      if (!await(POLLIN)) return false;
      const auto got = ::recv(socket_.get(), bytes, sizeof(bytes), 0);
      if (got == 0 || (got < 0 && errno == ECONNRESET)) return true;
      if (got < 0 && errno != EAGAIN) return false;
    }
  }

  static std::string marshalled(DBusMessage* message, dbus_uint32_t serial = 1) {
    if (dbus_message_get_serial(message) == 0) dbus_message_set_serial(message, serial);
    char* bytes = nullptr;
    int size = 0;
    EXPECT_TRUE(dbus_message_marshal(message, &bytes, &size));
    std::string result(bytes, static_cast<std::size_t>(size));
    dbus_free(bytes);
    return result;
  }

 private:
  bool await(short events) {
    pollfd entry{socket_.get(), events, 0};
    return ::poll(&entry, 1, 60'000) == 1;
  }

  std::string readBytes(std::size_t count) {
    std::string bytes(count, '\0');
    for (std::size_t got = 0; got < count;) {
      const auto more =
          await(POLLIN) ? ::recv(socket_.get(), bytes.data() + got, count - got, 0) : 0;
      if (more <= 0) {
        ADD_FAILURE() << "no further bytes behind " << got;
        break;
      }
      got += static_cast<std::size_t>(more);
    }
    return bytes;
  }

  std::string readLine() {
    std::string line;
    char byte = 0;
    while (await(POLLIN) && ::recv(socket_.get(), &byte, 1, 0) == 1 && byte != '\n') {
      if (byte != '\r') line += byte;
    }
    return line;
  }

  UniqueFd socket_;
};

}  // namespace platform
