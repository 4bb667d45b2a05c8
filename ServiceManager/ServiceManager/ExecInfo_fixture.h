#pragma once

// A handler of requests for executable information, whose delegate is the test.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

class ExecInfoFixture : public ServiceManagerFixture, public ExecInfoHandlerDelegate {
 protected:
  using Lines = std::vector<std::string>;

  static constexpr char kWhereFroms[] = "com.apple.metadata:kMDItemWhereFroms";
  static constexpr char kQuarantine[] = "com.apple.quarantine";

  ExecInfoFixture() {
    handler_ = std::make_shared<ORBExecInfoHandler>(
        ORBExecInfoHandler::Environment{signatures_, attributes_, protocols_,
                                        [this] { return now_ += tick_; }},
        std::shared_ptr<ExecInfoHandlerDelegate>(std::shared_ptr<void>(), this));
  }

  platform::Value getLastLoggedInUserHomeDirectory() override {
    ++delegateCalls_;
    now_ += answerTime_;
    if (meanwhile_) meanwhile_();
    return home_;
  }

  Lines lines() {
    queues_.runPending();
    Lines lines;
    for (const auto& message : logSink_.take()) {
      lines.push_back(std::to_string(message.level) +
                      message.text.substr(message.text.find("] ") + 1));
    }
    return lines;
  }

  // The quarantine database of a user whose home is the test's folder, after these statements.
  std::string makeDatabase(const std::string& statements) {
    folder_.write("Library/Preferences/keep", "");
    const std::string path =
        folder_.path("Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2");
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
    home_ = folder_.path();
    return path;
  }
  static std::string events(const std::string& rows) {
    return "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT, "
           "LSQuarantineOriginURLString TEXT);" +
           rows;
  }
  static std::string event(const std::string& identifier, const std::string& url) {
    return "INSERT INTO LSQuarantineEvent VALUES ('" + identifier + "', '" + url + "');";
  }

  void setWhereFroms(const platform::Value& list) {
    attributes_.set("/file", kWhereFroms,
                    *platform::writePropertyList(list, platform::PropertyListFormat::kBinary));
  }

  platform::TemporaryFolder folder_;
  platform::Value home_;
  int delegateCalls_ = 0;
  platform::Instant now_{};
  platform::Duration tick_{};  // the time that passes with each reading of the clock
  platform::Duration answerTime_{};
  std::function<void()> meanwhile_;  // while the delegate is asked
  std::shared_ptr<ORBExecInfoHandler> handler_;
};
