#pragma once

#include <string>

#include "Platform/Values/Value.h"

// The work of the service manager's main thread, and the work on a service, in words. Each text is
// empty if the facts (OperatorFacts.h) say nothing about it.

// "checks the program of com.example.agent, for 3.2 s", if the main thread has been busy for over a
// second.
std::string mainThreadsWork(const platform::Value& facts);

// "its process is waited for, for 3.2 s".
std::string workOnService(const platform::Value& facts);

// The names of the service's extensions that can't be used.
std::string failedExtensions(const platform::Value& facts);

// "it is wanted, and its extension wfk can't be used; ..."
std::string lackOfExtensions(const platform::Value& facts);

// "the last start has failed 3.2 s ago: it could not be loaded", for the facts of an extension.
std::string failureOfExtension(const platform::Value& facts);
