// Peers that break the protocol, or that are not our programs. One file, because all tests speak
// through the same raw peers.

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/Peers/SealedFile.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

using namespace std::string_view_literals;

UniqueDBusMessage newMessage(const char* member) {
  return UniqueDBusMessage(dbus_message_new_method_call(nullptr, "/", kPeerInterface, member));
}

// A message of this total size, filled up with a text.
std::string messageOfBytes(std::size_t bytes) {
  const auto withText = [](std::size_t length) {
    UniqueDBusMessage message = newMessage("echo_");
    const std::string text(length, 'x');
    const char* content = text.c_str();
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &content, DBUS_TYPE_INVALID);
    return RawPeer::marshalled(message.get());
  };
  return withText(bytes - withText(0).size());
}

std::size_t residentBytes() {
  std::size_t pages = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

class DBusPeerStrangersTest : public testing::Test, protected PeerTransportBed {
 protected:
  DBusPeerStrangersTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {}

  // Another client, which connected before, is still served.
  void expectNothingElseDisturbed() {
    EXPECT_EQ(call("echo:", {Value("undisturbed")}), MessageResult("undisturbed"));
  }

  // An authenticated client of libdbus, which can pass descriptors.
  UniqueDBusConnection openPeer() {
    DBusErrorText error;
    const std::string address = "unix:path=" + path();
    UniqueDBusConnection peer(dbus_connection_open_private(address.c_str(), error.get()));
    EXPECT_TRUE(peer) << error.text();
    UniqueDBusMessage ping(dbus_message_new_method_call(nullptr, "/", DBUS_INTERFACE_PEER, "Ping"));
    UniqueDBusMessage pong(
        dbus_connection_send_with_reply_and_block(peer.get(), ping.get(), 60'000, nullptr));
    EXPECT_TRUE(pong);
    dbus_connection_set_exit_on_disconnect(peer.get(), false);
    return peer;
  }

  // "answered", or the reason why not.
  static std::string answerTo(DBusConnection* peer, int descriptor, dbus_uint64_t size) {
    UniqueDBusMessage message = newMessage("echo_");
    dbus_message_append_args(message.get(), DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_UINT64, &size,
                             DBUS_TYPE_INVALID);
    DBusErrorText error;
    UniqueDBusMessage answer(
        dbus_connection_send_with_reply_and_block(peer, message.get(), 60'000, error.get()));
    return answer ? std::string("answered") : std::string(error.text());
  }

  // The output of a command. dbus-send runs as its users run it.
  static std::string output(const std::string& command) {
    std::string text;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> bytes;
    while (const std::size_t got = std::fread(bytes.data(), 1, bytes.size(), pipe)) {
      text.append(bytes.data(), got);
    }
    ::pclose(pipe);
    return text;
  }
  std::string dbusSend(const std::string& options, const std::string& message) {
    return output("dbus-send --peer=unix:path=" + path() + " " + options + " / " + kPeerInterface +
                  "." + message);
  }
};

TEST_F(DBusPeerStrangersTest, AnIncompleteAuthenticationTimesOut) {
  startWithAdmissionTime(20ms);
  RawPeer peer(path());
  peer.write("\0AUTH EXTER"sv);
  EXPECT_TRUE(peer.awaitClose());
  RawPeer silent(path());
  EXPECT_TRUE(silent.awaitClose());
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, AnEndlessAuthenticationIsCutOff) {
  start({.admissionTime = 60s});
  RawPeer peer(path());
  peer.write("\0"sv);
  peer.write(std::string(1024 * 1024, 'A'));
  EXPECT_TRUE(peer.awaitClose());
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, APeerWithoutDescriptorsIsToldThatItsAnswerIsTooLarge) {
  start();
  RawPeer peer(path());
  peer.authenticate(RawPeer::Descriptors::kRefused);
  EXPECT_TRUE(peer.write(messageOfBytes(kMaxPeerMessageBytes)));
  EXPECT_EQ(peer.readMessage(), DBUS_MESSAGE_TYPE_ERROR);
  EXPECT_TRUE(peer.write(messageOfBytes(1000)));
  EXPECT_EQ(peer.readMessage(), DBUS_MESSAGE_TYPE_METHOD_RETURN);
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, AFalseUserIdIsRefused) {
  start({.admissionTime = 60s});
  RawPeer peer(path());
  peer.write("\0AUTH EXTERNAL 3132333435\r\n"sv);  // 12345
  peer.write("AUTH ANONYMOUS\r\nAUTH DBUS_COOKIE_SHA1 30\r\nBEGIN\r\n");
  EXPECT_TRUE(peer.awaitClose());
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, AHeaderThatAnnouncesAGigabyteIsRefusedAtOnce) {
  start();
  RawPeer peer(path());
  peer.authenticate();
  std::string message = RawPeer::marshalled(newMessage("echo_").get());
  const std::uint32_t gigabyte = 1'000'000'000;
  std::memcpy(message.data() + 4, &gigabyte, sizeof(gigabyte));
  const std::size_t before = residentBytes();
  peer.write(message);
  EXPECT_TRUE(peer.awaitClose());
  EXPECT_LT(residentBytes(), before + 64 * 1024 * 1024);
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, IllFormedTextIsRefused) {
  start();
  RawPeer peer(path());
  peer.authenticate();
  std::string message = messageOfBytes(200);
  message[message.size() - 3] = '\xff';
  peer.write(message);
  EXPECT_TRUE(peer.awaitClose());
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, BytesThatAreNoMessageAreRefused) {
  start();
  for (const std::string& garbage :
       {std::string(64, '\0'), std::string(64, '\xff'), std::string("GET / HTTP/1.0\r\n\r\n")}) {
    RawPeer peer(path());
    peer.authenticate();
    peer.write(garbage);
    EXPECT_TRUE(peer.awaitClose());
  }
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, ABrokenProtocolDiffersFromAClosedConnection) {
  start();
  {
    RawPeer peer(path());
    peer.authenticate();
  }
  runUntilNoted("client died");
  {  // It closes in the middle of a message.
    RawPeer peer(path());
    peer.authenticate();
    peer.write(messageOfBytes(200).substr(0, 100));
  }
  runUntilNoted("client died", 2);
  EXPECT_EQ(journal_.count("the peer has broken the protocol"), 0u);
  RawPeer peer(path());
  peer.authenticate();
  peer.write(std::string(64, 'x'));
  runUntilNoted("the peer has broken the protocol");
  EXPECT_EQ(journal_.count("client died"), 3u);
}

TEST_F(DBusPeerStrangersTest, TheSizeOfAMessageIsLimited) {
  start();
  for (const std::size_t size : {kMaxPeerMessageBytes - 1, kMaxPeerMessageBytes}) {
    RawPeer peer(path());
    peer.authenticate();
    EXPECT_TRUE(peer.write(messageOfBytes(size)));
    // The answer may be larger and then is a file. It is enough that the next message is answered.
    EXPECT_TRUE(peer.write(RawPeer::marshalled(newMessage("closeHere").get(), 2)));
    EXPECT_TRUE(peer.awaitClose());
    runUntilNoted("closed", size == kMaxPeerMessageBytes ? 2 : 1);
  }
  RawPeer peer(path());
  peer.authenticate();
  peer.write(messageOfBytes(kMaxPeerMessageBytes + 1));
  EXPECT_TRUE(peer.awaitClose());
  EXPECT_EQ(journal_.count("closed"), 2u);
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, TheSizeOfAMessageBeforeAdmissionIsLimited) {
  server_.admits = false;
  start({.admissionTime = 60s});
  for (const std::size_t size :
       {kMaxUnadmittedPeerMessageBytes - 1, kMaxUnadmittedPeerMessageBytes}) {
    RawPeer peer(path());
    peer.authenticate();
    EXPECT_TRUE(peer.write(messageOfBytes(size)));
    EXPECT_TRUE(peer.write(RawPeer::marshalled(newMessage("closeHere").get(), 2)));
    EXPECT_TRUE(peer.awaitClose());
  }
  runUntilNoted("closed", 2);
  RawPeer peer(path());
  peer.authenticate();
  peer.write(messageOfBytes(kMaxUnadmittedPeerMessageBytes + 1));
  EXPECT_TRUE(peer.awaitClose());
  EXPECT_EQ(journal_.count("closed"), 2u);
  expectNothingElseDisturbed();
}

// Each message of the flood is small. They are read no faster than they are handled.
TEST_F(DBusPeerStrangersTest, AFloodForABusyServerIsNotKept) {
  start();
  RawPeer peer(path());
  peer.authenticate();
  harness_->hang();
  ASSERT_EQ(::fcntl(peer.socket(), F_SETFL, O_NONBLOCK), 0);
  UniqueDBusMessage note = newMessage("note");
  dbus_message_set_no_reply(note.get(), true);
  const std::string message = RawPeer::marshalled(note.get());
  std::size_t sent = 0;
  while (::send(peer.socket(), message.data(), message.size(), MSG_NOSIGNAL) > 0) ++sent;
  EXPECT_GT(sent, 10u);
  EXPECT_LT(sent * message.size(), 4 * kMaxPeerMessageBytes);
  harness_->goOn();
  runUntilNoted("note", sent);
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, AFloodOfConnectionsTakesNoPlaceFromAdmittedOnes) {
  start({.admissionTime = 60s});
  std::vector<std::unique_ptr<RawPeer>> flood;
  for (std::size_t i = 0; i < 3 * kPeerPlaces; ++i) {
    flood.push_back(std::make_unique<RawPeer>(path()));
  }
  EXPECT_TRUE(flood.front()->awaitClose());
  expectNothingElseDisturbed();
  const auto another = connect();  // The newest connection is accepted.
  ASSERT_TRUE(another);
  EXPECT_TRUE(another->call("echo:", {Value(1)}, 60s));
}

TEST_F(DBusPeerStrangersTest, TheDescriptorsOfAMessageAreLimited) {
  start();
  const UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  for (const std::size_t count :
       {kMaxPeerDescriptors - 1, kMaxPeerDescriptors, kMaxPeerDescriptors + 1}) {
    RawPeer peer(path());
    peer.authenticate();
    UniqueDBusMessage message = newMessage("note");
    dbus_message_set_no_reply(message.get(), true);
    // libdbus marshals no message with descriptors, so their number in the header is set by hand.
    std::string bytes = RawPeer::marshalled(message.get());
    std::uint32_t fields = 0;
    std::memcpy(&fields, bytes.data() + 12, sizeof(fields));
    std::string header = bytes.substr(0, 16 + fields);
    header.resize((header.size() + 7) / 8 * 8);
    const auto descriptors = static_cast<std::uint32_t>(count);
    header += {'\x09', '\x01', 'u', '\0'};
    header.append(reinterpret_cast<const char*>(&descriptors), sizeof(descriptors));
    fields = static_cast<std::uint32_t>(header.size() - 16);
    std::memcpy(header.data() + 12, &fields, sizeof(fields));
    EXPECT_TRUE(peer.writeWith(header, std::vector<int>(count, file.get())));
    if (count > kMaxPeerDescriptors) {
      EXPECT_TRUE(peer.awaitClose());
    } else {
      runUntilNoted("note", count - kMaxPeerDescriptors + 2);
    }
  }
  EXPECT_EQ(journal_.count("note"), 2u);
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, AMemoryFileThatCouldChangeIsRefused) {
  start();
  const auto answerTo = [this](int descriptor, dbus_uint64_t size) {
    return DBusPeerStrangersTest::answerTo(openPeer().get(), descriptor, size);
  };
  const std::string good = messageOfBytes(200);
  const auto sealed = makeSealedFile(good);
  ASSERT_TRUE(sealed);
  EXPECT_EQ(answerTo(sealed->get(), good.size()), "answered");
  EXPECT_THAT(answerTo(sealed->get(), good.size() + 1), testing::HasSubstr("another size"));

  const UniqueFd open(::memfd_create("open", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  ASSERT_EQ(::write(open.get(), good.data(), good.size()), static_cast<ssize_t>(good.size()));
  EXPECT_THAT(answerTo(open.get(), good.size()), testing::HasSubstr("not sealed"));
  ASSERT_EQ(::fcntl(open.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
  EXPECT_THAT(answerTo(open.get(), good.size()), testing::HasSubstr("not sealed"));

  const UniqueFd device(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  EXPECT_THAT(answerTo(device.get(), good.size()), testing::HasSubstr("none"));

  const auto garbage = makeSealedFile(std::string(100, 'x'));
  EXPECT_THAT(answerTo(garbage->get(), 100), testing::HasSubstr("without a message"));
  const auto empty = makeSealedFile({});
  EXPECT_THAT(answerTo(empty->get(), 0), testing::HasSubstr("without a message"));

  const UniqueFd large(::memfd_create("large", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  ASSERT_EQ(::ftruncate(large.get(), kMaxPeerMemoryFileBytes + 1), 0);
  ASSERT_EQ(::fcntl(large.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE), 0);
  EXPECT_THAT(answerTo(large.get(), kMaxPeerMemoryFileBytes + 1), testing::HasSubstr("more than"));
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, AMemoryFileBeforeAdmissionIsRefused) {
  server_.admits = false;
  start({.admissionTime = 60s});
  const std::string good = messageOfBytes(200);
  const auto sealed = makeSealedFile(good);
  ASSERT_TRUE(sealed);
  const UniqueDBusConnection stranger = openPeer();
  EXPECT_NE(answerTo(stranger.get(), sealed->get(), good.size()), "answered");
  EXPECT_FALSE(dbus_connection_get_is_connected(stranger.get()));
  runUntilNoted("client died");
  const UniqueDBusConnection admitted = openPeer();
  harness_->there([this](PeerTransport&) { server_.connections.back()->admit(); });
  EXPECT_EQ(answerTo(admitted.get(), sealed->get(), good.size()), "answered");
  expectNothingElseDisturbed();
}

TEST_F(DBusPeerStrangersTest, DbusSendIsAnswered) {
  start();
  EXPECT_THAT(dbusSend("--print-reply", "echo_ string:hello"), testing::HasSubstr("\"hello\""));
  EXPECT_THAT(dbusSend("--print-reply", "echo_ array:int32:1,2,3"), testing::HasSubstr("int64 3"));
  const std::string dictionary = dbusSend("--print-reply", "echo_ dict:string:uint16:one,1,two,2");
  EXPECT_LT(dictionary.find("\"one\""), dictionary.find("\"two\""));
  EXPECT_THAT(dictionary, testing::HasSubstr("int64 2"));
  EXPECT_THAT(dbusSend("--print-reply", "echo_ variant:boolean:true"),
              testing::HasSubstr("boolean true"));
  EXPECT_THAT(dbusSend("--print-reply", "raise_ double:0.5"),
              testing::HasSubstr("com.vantor.exception.SomeException: Some reason"));
}

TEST_F(DBusPeerStrangersTest, DbusSendsSignalsAndUnansweredCallsArrive) {
  start();
  EXPECT_EQ(dbusSend("", "note_ string:signal"), "");
  runUntilNoted("note:signal");
  EXPECT_EQ(dbusSend("--type=method_call", "closeHere"), "");
  runUntilNoted("closed");
}

TEST_F(DBusPeerStrangersTest, AnInvalidMessageIsAnsweredWithTheReason) {
  start();
  const std::string invalid = "com.vantor.exception.NSInvalidArgumentException";
  for (const auto& [message, reason] : std::vector<std::pair<std::string, std::string>>{
           {"echo_", "0 arguments instead of 1"},
           {"echo string:a", "1 arguments instead of 0"},
           {"_echo", "letters, digits and colons"},
           {"echo_ uint64:9223372036854775808", "an integer too large"},
           {"echo_ dict:int32:string:1,one", "a key that is no string"},
           {"echo_ dict:string:string:a,1,a,2", "the key \"a\" twice"}}) {
    const std::string answer = dbusSend("--print-reply", message);
    EXPECT_THAT(answer, testing::HasSubstr(invalid)) << message;
    EXPECT_THAT(answer, testing::HasSubstr(reason)) << message;
  }
  EXPECT_THAT(output("dbus-send --print-reply --peer=unix:path=" + path() +
                     " / org.freedesktop.DBus.Introspectable.Introspect"),
              testing::HasSubstr("the interface org.freedesktop.DBus.Introspectable"));
  expectNothingElseDisturbed();
}

}  // namespace
}  // namespace platform
