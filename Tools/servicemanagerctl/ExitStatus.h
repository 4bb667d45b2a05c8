#pragma once

// What the tool ends with when it could not do as asked; 0 when it could.

inline constexpr int kExitFailed = 1;            // also where its output could not be written
inline constexpr int kExitNotUnderstood = 2;     // the command line
inline constexpr int kExitUnknownLabel = 3;      // no such job, service or setting
inline constexpr int kExitNotPermitted = 4;      // this user may not
inline constexpr int kExitNobodyThere = 5;       // no service manager, job host or settings server
inline constexpr int kExitNotAuthenticated = 6;  // who is there and the tool are strangers
