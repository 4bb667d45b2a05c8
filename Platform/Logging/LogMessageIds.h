#pragma once

namespace platform {

// Programs of administrators search the journal for these, so they never change. Each has an entry
// in packaging/vantor.catalog and servicemanagerd(8).
inline constexpr char kServiceStartedId[] = "ce97159327ff4e57beeb898d391a017a";
inline constexpr char kServiceEndedId[] = "ebca27b2f8084a278e2b000d38d0e7d9";
inline constexpr char kServiceCrashedId[] = "15ea2573c8b542599b4fe1dee40fcfe2";
inline constexpr char kCrashLoopId[] = "71cdd936a72a41ef8734ccd6a4b9e1c0";
inline constexpr char kStartFailedId[] = "b80c048bcc174036ac90484f7214e336";
inline constexpr char kProgramDamagedId[] = "b0d6fef28e914dda8ac53311b0dbc95b";
inline constexpr char kDaemonIdleId[] = "93b4d0da2c8b4e3fae2d9f1187f89ae3";

}  // namespace platform
