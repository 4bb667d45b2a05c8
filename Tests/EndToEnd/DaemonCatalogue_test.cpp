// Faulty catalogues: each fault has its own announcement or disables one service, and the daemon
// stays.

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

std::string xmlOf(const Value& value) {
  const Data xml = writePropertyList(value, PropertyListFormat::kXml).value();
  return std::string(xml.begin(), xml.end());
}

// One value of each type.
std::vector<std::pair<std::string, Value>> oneOfEach() {
  return {{"boolean", true},
          {"integer", 7},
          {"real", 0.5},
          {"string", "text"},
          {"data", Data{1, 2, 3}},
          {"date", Date{}},
          {"array", Array{"text"}},
          {"dictionary", Dictionary{{"key", 1}}}};
}

class DaemonCatalogue : public DaemonFixture {
 protected:
  Dictionary sound() {
    Dictionary catalogue = DaemonRoot::catalogue(1);
    catalogue.set("ProgramPath", root_.folder().path("opt"));
    return catalogue;
  }
  Dictionary with(const std::string& key, const Value& value) {
    Dictionary catalogue = sound();
    catalogue.set(key, value);
    return catalogue;
  }
  Dictionary withPrimaryJob(const Value& job) {
    return with("Services", Dictionary{{DaemonRoot::kPrimary, Dictionary{{"JobSpec", job}}}});
  }

  // Expects that a daemon with the present files becomes idle after this announcement.
  void expectFailure(const std::string& error, const std::string& description) {
    const std::size_t before = root_.startErrors().size();
    if (isSubmitted_) {
      root_.killDaemon();
    } else {
      root_.startDaemon();
      isSubmitted_ = true;
    }
    root_.await("the announcement of a failure",
                [&] { return root_.startErrors().size() > before; });
    if (HasFailure()) return;
    EXPECT_EQ(root_.startErrors().back(),
              Value(Dictionary{{"Error", error}, {"Description", description}}));
    EXPECT_GT(root_.processOf(DaemonRoot::kDaemon), 0);
    EXPECT_EQ(root_.starts(), 0U);
  }

  bool isSubmitted_ = false;
};

TEST_F(DaemonCatalogue, AMissingPrimaryServiceIsAnnounced) {
  const std::string whole = xmlOf(sound());
  Dictionary noPrimary = sound();
  noPrimary.remove("Primary");
  const std::vector<std::pair<const char*, std::optional<std::string>>> files{
      {"missing", std::nullopt},
      {"empty", ""},
      {"truncated", whole.substr(0, whole.size() / 2)},
      {"no property list", "Services"},
      {"an array", xmlOf(Array{sound()})},
      {"a string", xmlOf("Services")},
      {"an empty dictionary", xmlOf(Dictionary())},
      {"no primary service", xmlOf(noPrimary)},
      {"a number for the primary service", xmlOf(with("Primary", 1))},
      {"an array for the program path", xmlOf(with("ProgramPath", Array()))},
      {"an array for the services", xmlOf(with("Services", Array()))},
      {"a string for the primary service's entry",
       xmlOf(with("Services", Dictionary{{DaemonRoot::kPrimary, "text"}}))},
      {"a string for its job", xmlOf(withPrimaryJob("text"))},
      {"a number for its program", xmlOf(withPrimaryJob(Dictionary{{"Program", 1}}))}};
  for (const auto& [what, content] : files) {
    SCOPED_TRACE(what);
    root_.setCatalogueFile(content);
    expectFailure("Malformed Configuration", "Unable to resolve primary service information");
    if (HasFailure()) return;
  }
}

TEST_F(DaemonCatalogue, AnIdleDaemonSaysWhy) {
  root_.setCatalogueFile("<plist version=\"1.0\">\n<dict>\n<key>Primary</plist>");
  expectFailure("Malformed Configuration", "Unable to resolve primary service information");
  for (const std::vector<std::string>& command : {std::vector<std::string>{"list"},
                                                  {"explain", DaemonRoot::label(0)},
                                                  {"health"},
                                                  {"start", DaemonRoot::label(0)},
                                                  {"stop", DaemonRoot::label(0)},
                                                  {"restart", DaemonRoot::label(0)},
                                                  {"installer", "begin", DaemonRoot::label(0)},
                                                  {"installer", "end"},
                                                  {"reload-settings"},
                                                  {"watch"}}) {
    const auto refused = root_.host().control(command);
    EXPECT_EQ(refused.status.number, 5) << command.front();
    EXPECT_THAT(refused.errors,
                testing::ContainsRegex("is idle: Unable to resolve primary service information: "
                                       ".*/Service\\.plist:3:"))
        << command.front();
  }
  root_.awaitLog("/Service.plist:3:");
}

TEST_F(DaemonCatalogue, AProgramOfTheKitIsToldWhyTheDaemonIsIdle) {
  const std::string program = root_.folder().path("opt/kit_program");
  std::filesystem::copy_file(KIT_PROGRAM, program);
  root_.setCatalogueFile("<plist version=\"1.0\">\n<dict>\n<key>Primary</plist>");
  expectFailure("Malformed Configuration", "Unable to resolve primary service information");
  ChildProgram kit({program, "states"}, {});
  EXPECT_EQ(kit.waitForExit().number, 0);
  const std::string failure =
      "error 6: the service manager is idle: Unable to resolve primary service information: ";
  for (const char* what : {"states", "health"})
    EXPECT_TRUE(kit.nextLine().starts_with(failure)) << what;
}

TEST_F(DaemonCatalogue, AMissingProductIsAnnounced) {
  const auto expectUnreadable = [&] {
    expectFailure("Malformed Configuration", "Unable to resolve product information");
  };
  const auto expectUnknown = [&] {
    expectFailure("Unkown product type", "Unable to resolve GUID");
  };
  root_.setCatalogueFile(xmlOf(with("ProductInfo", 1)));
  expectUnreadable();
  root_.setCatalogueFile(xmlOf(with("ProductInfoKey", Array())));
  expectUnknown();
  root_.setCatalogueFile(xmlOf(sound()));
  root_.setProductFile(xmlOf(Array()));
  expectUnreadable();
  root_.setProductFile(std::nullopt);
  expectUnreadable();
  root_.setProductFile(xmlOf(Dictionary{{"GUID", 1}}));
  expectUnknown();
  root_.setProductFile(xmlOf(Dictionary{{"GUID", "5b13d7e2-8c40-4d9f-a27b-6e08f4c1b952"}}));
  expectUnknown();
  root_.setProductFile(xmlOf(Dictionary{{"GUID", "3D8F1A20-6B4C-4E7A-9C11-5A2E7B90C4D1"}}));
  expectFailure("Uknown product type",
                "Unable to resolve services that match the current product: "
                "kKLXInstallTypeHouseholdID");
}

TEST_F(DaemonCatalogue, AWrongTypeInAServiceAffectsOnlyThatService) {
  Dictionary catalogue = DaemonRoot::catalogue(0);
  Dictionary services = *catalogue["Services"].dictionary();
  for (const auto& [type, value] : oneOfEach()) {
    services.set("com.vantor.test.odd." + type, value);
    for (const char* key : {"Products", "JobSpec", "Notification", "Features", "MinimumOSVersion",
                            "KernelExtensions", "Unknown"}) {
      const std::string label = std::string("com.vantor.test.odd.") + key + "." + type;
      Dictionary service = DaemonRoot::service(label);
      service.set(key, value);
      services.set(label, std::move(service));
    }
    for (const char* key : {"Program", "ProgramArguments", "UserName", "WorkingDirectory",
                            "ThrottleInterval", "EnvironmentVariables", "KeepAlive", "Label"}) {
      const std::string label = std::string("com.vantor.test.odd.job.") + key + "." + type;
      Dictionary service = DaemonRoot::service(label);
      Dictionary job = *service["JobSpec"].dictionary();
      job.set(key, value);
      service.set("JobSpec", std::move(job));
      services.set(label, std::move(service));
    }
  }
  services_ = 1;
  const std::string label = DaemonRoot::label(0);
  // The last service, which the faults must not affect.
  services.set(label, DaemonRoot::service(label));
  catalogue.set("Services", std::move(services));
  root_.setCatalogue(catalogue);
  root_.startDaemon();
  root_.awaitStart();
  awaitEvaluation(0);
  const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  expectKilledServiceIsReported(label);
  EXPECT_EQ(root_.processOf(DaemonRoot::kDaemon), daemon);
  EXPECT_TRUE(root_.startErrors().empty());
  // Seven of the types are no arrays.
  root_.awaitLog("Malformed features referrences information encountered", 7);
  // No version, or an unknown one: the service is not started.
  root_.awaitLog("Unknown OS version: 'text'.  Not starting service");
}

TEST(DaemonProgram, AnswersItsArgumentsAndStartsNothing) {
  const TemporaryFolder root;
  root.write("etc/vantor/platform.plist", "<plist version=\"1.0\"><dict/></plist>");
  std::filesystem::create_directories(root.path("sbin"));
  const std::string program = root.path("sbin/servicemanagerd");
  std::filesystem::copy_file(SERVICEMANAGERD, program);
  ChildProgram help({program, "--help"}, {});
  EXPECT_EQ(help.waitForExit().number, 0);
  EXPECT_TRUE(help.restOfOutput().starts_with("Usage: servicemanagerd"));
  ChildProgram wrong({program, "--halp"}, {});
  EXPECT_EQ(wrong.waitForExit().number, 2);
  EXPECT_NE(wrong.errors().find("--halp"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(root.path("run")));
}

// Nobody reads what a service says to its standard error.
TEST(DaemonProgram, AConfigurationThatCannotBeReadIsAnErrorInTheLog) {
  const TemporaryFolder root;
  root.write("etc/vantor/platform.plist", "<plist");
  for (const char* folder : {"log", "sbin"}) std::filesystem::create_directories(root.path(folder));
  std::filesystem::copy_file(SERVICEMANAGERD, root.path("sbin/servicemanagerd"));
  ChildProgram daemon({root.path("sbin/servicemanagerd")}, {});
  EXPECT_EQ(daemon.waitForExit().number, 1);
  const std::string log = contentOfFile(root.path("log/system.log"));
  EXPECT_NE(log.find("the program does not start: "), log.npos) << log;
  EXPECT_NE(log.find("platform.plist:1"), log.npos) << log;
}

}  // namespace
}  // namespace platform
