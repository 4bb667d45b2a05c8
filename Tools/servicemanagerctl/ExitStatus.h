#pragma once

// The exit status of a command that failed; 0 if it did not.

inline constexpr int kExitFailed = 1;         // also if its output could not be written
inline constexpr int kExitNotUnderstood = 2;  // the command line
inline constexpr int kExitUnknownLabel = 3;   // no such job, service or setting
inline constexpr int kExitNotPermitted = 4;   // this user may not
inline constexpr int kExitNobodyThere = 5;    // no service manager, job host or settings server
// The server and the tool do not recognize each other
inline constexpr int kExitNotAuthenticated = 6;
inline constexpr int kExitWarnings = 7;   // "doctor" found warnings, and no error
inline constexpr int kExitTimedOut = 8;   // the request was not done within --timeout
inline constexpr int kExitNotSigned = 9;  // "execinfo": a file has no signature
inline constexpr int kExitNotTold = 10;   // "execinfo": a file could not be checked
