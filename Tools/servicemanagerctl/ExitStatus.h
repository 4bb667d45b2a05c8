#pragma once

// What the tool ends with when it could not do as asked; 0 when it could.

inline constexpr int kExitFailed = 1;
inline constexpr int kExitNotUnderstood = 2;     // the command line
inline constexpr int kExitUnknownLabel = 3;      // no such job, service or setting
inline constexpr int kExitNotPermitted = 4;      // this user may not
inline constexpr int kExitNobodyThere = 5;       // no job host, or no service manager
inline constexpr int kExitNotAuthenticated = 6;  // the service manager and the tool are strangers
