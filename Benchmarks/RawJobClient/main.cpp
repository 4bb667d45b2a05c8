// A client of the job host without any library: it logs in, asks for the job of one label, and
// reads the answer. The baseline of the operator's command: raw_job_client SOCKET LABEL

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A message of D-Bus in little endian, which pads each value to its size.
struct Message {
  unsigned char bytes[1024] = {};
  std::uint32_t size = 0;

  void pad(std::uint32_t to) { size = (size + to - 1) / to * to; }
  void byte(unsigned char value) { bytes[size++] = value; }
  void number(std::uint32_t value) {
    pad(4);
    std::memcpy(bytes + size, &value, sizeof value);
    size += sizeof value;
  }
  void text(const char* value) {
    const auto length = static_cast<std::uint32_t>(std::strlen(value));
    number(length);
    std::memcpy(bytes + size, value, length + 1);
    size += length + 1;
  }
  void signature(const char* value) {
    const auto length = static_cast<std::uint32_t>(std::strlen(value));
    byte(static_cast<unsigned char>(length));
    std::memcpy(bytes + size, value, length + 1);
    size += length + 1;
  }
  void field(unsigned char code, const char* type, const char* value) {
    pad(8);
    byte(code);
    signature(type);
    if (type[0] == 'g')
      signature(value);
    else
      text(value);
  }
};

// The call "copyJob:" with one argument.
Message copyJob(const char* label) {
  Message body;
  body.signature("s");
  body.text(label);
  Message call;
  call.byte('l');
  call.byte(1);  // a method call
  call.byte(0);
  call.byte(1);  // the version of the protocol
  call.number(body.size);
  call.number(1);  // the serial number
  call.number(0);  // the size of the fields, below
  const std::uint32_t fields = call.size;
  call.field(1, "o", "/");
  call.field(2, "s", "com.vantor.Peer");
  call.field(3, "s", "copyJob_");
  call.field(8, "g", "v");
  const std::uint32_t length = call.size - fields;
  std::memcpy(call.bytes + fields - sizeof length, &length, sizeof length);
  call.pad(8);
  std::memcpy(call.bytes + call.size, body.bytes, body.size);
  call.size += body.size;
  return call;
}

bool sendAll(int socket, const void* bytes, std::size_t size) {
  return ::send(socket, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

// The size of the message that begins with these 16 bytes.
std::size_t sizeOfMessage(const unsigned char* begin) {
  std::uint32_t body = 0;
  std::uint32_t fields = 0;
  std::memcpy(&body, begin + 4, sizeof body);
  std::memcpy(&fields, begin + 12, sizeof fields);
  return 16 + (std::size_t{fields} + 7) / 8 * 8 + body;
}

bool ask(int socket, const char* label) {
  char login[64];
  char user[16];
  std::snprintf(user, sizeof user, "%u", static_cast<unsigned>(::geteuid()));
  int length = std::snprintf(login, sizeof login, "%cAUTH EXTERNAL ", '\0');
  for (const char* digit = user; *digit; ++digit)
    length += std::snprintf(login + length, sizeof login - static_cast<std::size_t>(length), "%02x",
                            static_cast<unsigned>(*digit));
  std::memcpy(login + length, "\r\n", 2);
  unsigned char answer[65536];
  if (!sendAll(socket, login, static_cast<std::size_t>(length) + 2)) return false;
  if (::recv(socket, answer, sizeof answer, 0) < 2 || std::memcmp(answer, "OK", 2) != 0)
    return false;
  const Message call = copyJob(label);
  if (!sendAll(socket, "BEGIN\r\n", 7) || !sendAll(socket, call.bytes, call.size)) return false;
  std::size_t size = 0;
  while (size < 16 || size < sizeOfMessage(answer)) {
    const ssize_t received = ::recv(socket, answer + size, sizeof answer - size, 0);
    if (received <= 0) return false;
    size += static_cast<std::size_t>(received);
  }
  return answer[1] == 2;  // a method return
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3 || std::strlen(arguments[2]) > 200) return EXIT_FAILURE;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, arguments[1], sizeof address.sun_path - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return EXIT_FAILURE;
  return ask(socket, arguments[2]) ? EXIT_SUCCESS : EXIT_FAILURE;
}
