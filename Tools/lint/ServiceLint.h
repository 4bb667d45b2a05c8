#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "Tools/lint/Findings.h"
#include "Tools/lint/Machine.h"
#include "Tools/lint/Node.h"

namespace lint {

// Checks the services of a catalogue one after the other, in its order.
class ServiceLint {
 public:
  // All of them live as long as this.
  ServiceLint(const Node& root, const Machine& machine, Findings& findings);

  void check(const Node& service);

  // The names that the services so far use.
  const std::set<std::string>& usedFeatures() const { return usedFeatures_; }
  const std::set<std::string>& usedExtensions() const { return usedExtensions_; }
  // Whether the folder of a program is not on this machine.
  bool hasForeignPrograms() const { return hasForeignPrograms_; }

 private:
  // The first service with a name that should be of one service alone, by that name.
  using FirstUsers = std::map<std::string, Node, std::less<>>;

  void checkProducts(const Node& service);
  void checkRelease(const Node& service);
  void checkExtensions(const Node& service);
  void checkFeatures(const Node& service);
  void checkJobOf(const Node& service);
  void checkReplacedKeys(const Node& service, const Node& jobSpec);
  void checkSharedNames(const Node& service);
  void checkShared(const Node& service, const Node& at, std::string_view name, FirstUsers& users,
                   std::string_view code, std::string_view what);
  bool isDefined(std::string_view name, std::string_view key) const;
  std::string suggestionOf(std::string_view name, std::string_view key) const;
  bool isPrimary(const Node& service) const;

  const Node& root_;
  const Machine& machine_;
  Findings& findings_;
  std::set<std::string> usedFeatures_;
  std::set<std::string> usedExtensions_;
  FirstUsers notifications_;
  FirstUsers machServices_;
  FirstUsers healthNames_;
  bool hasForeignPrograms_ = false;
};

}  // namespace lint
