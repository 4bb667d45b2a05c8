#pragma once

#include <cstdint>

namespace jobhost {

// The message from the host to the starter, which systemd executes in the job's unit and which
// executes the job's program in its place. Its standard input is a socket with one message: the
// descriptors in the order of `Descriptors`.
//
// The starter says kReady, so that the host learns its number, and waits for kGo. Without kGo, for
// instance since the host has ended, it executes nothing. A failure is written to the pipe; the end
// of the pipe means that the program is being executed.

inline constexpr char kReady = 'R';
inline constexpr char kGo = 'G';

// The first bytes of the file with the message's content. The program's path, the root folder, the
// working folder, the arguments and the variables follow, each with a zero at its end.
struct StartMessage {
  std::uint32_t arguments = 0;
  std::uint32_t variables = 0;
  std::uint32_t listeners = 0;
  std::uint8_t hasProgram = 0;  // a descriptor of the program, executed instead of the path
  std::uint8_t isScript = 0;    // that descriptor stays open behind the listeners
  std::uint8_t changesRoot = 0;
  std::uint8_t dropsGroups = 0;  // of the user's groups, only the process's own stays
};

// The descriptors: the content, the standard input, the pipe for a failure, the program if there is
// one, and the listeners.
inline constexpr int kContentPlace = 0;
inline constexpr int kInputPlace = 1;
inline constexpr int kPipePlace = 2;
inline constexpr int kFirstFreePlace = 3;
inline constexpr int kMaximumPlaces = 128;

enum class StartStage : std::int32_t {
  kMessage,
  kDescriptors,
  kGroups,
  kRootDirectory,
  kWorkingDirectory,
  kExecute
};

struct StartFailure {
  StartStage stage = StartStage::kMessage;
  std::int32_t error = 0;
};

// The exit status of a starter that failed: systemd's for a program that can't be executed.
inline constexpr int kStarterFailed = 203;

}  // namespace jobhost
