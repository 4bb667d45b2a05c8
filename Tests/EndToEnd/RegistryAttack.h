#pragma once

#include <string>

#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Values/Value.h"

namespace platform {

// A request of an attacker's to the registry of endpoints.
struct RegistryAttack {
  enum class Kind { kLookUp, kReplace, kRevoke };
  // The name that root has registered.
  static constexpr char kRootsName[] = "roots";

  Kind kind = Kind::kLookUp;
  std::string name = kRootsName;

  // Whether the registry serves it: returns any answer to a lookup, or accepts an endpoint, or the
  // lack of one.
  bool isServed(DBusPeerLink& link, const Data& token) const;
};

// Whether the registry accepts this descriptor as an endpoint.
bool isRegistered(int descriptor, const std::string& root, const Data& token);

}  // namespace platform
