#include "JobHost/Systemd/JobUnit.h"

#include <algorithm>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace jobhost {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::UnitProperty;
using platform::Value;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

const JobAccount kAccountOfUnit{1000, 100, {100}, "agent", "/home/agent", "/bin/sh"};
constexpr std::uint64_t kChangeRoot = std::uint64_t{1} << 18;
constexpr std::uint64_t kSetGroups = std::uint64_t{1} << 6;

JobDefinition definitionWith(Dictionary more) {
  Dictionary dictionary{{"Label", "com.example.job"}, {"Program", "/opt/agent"}};
  for (const auto& [key, value] : more) dictionary.set(key, value);
  const auto definition = parseJobDefinition(Value(dictionary));
  EXPECT_TRUE(definition) << platform::describe(definition.error());
  return definition.value_or(JobDefinition());
}

std::vector<UnitProperty> propertiesWith(Dictionary more, UnitSurroundings surroundings = {}) {
  const auto properties =
      propertiesOf(definitionWith(std::move(more)), kAccountOfUnit, surroundings);
  EXPECT_TRUE(properties);
  return properties.value_or(std::vector<UnitProperty>());
}

std::optional<UnitProperty::Value> find(const std::vector<UnitProperty>& properties,
                                        std::string_view name) {
  const auto found = std::ranges::find(properties, name, &UnitProperty::name);
  return found == properties.end() ? std::nullopt : std::optional(found->value);
}

std::vector<std::string> environmentIn(const std::vector<UnitProperty>& properties) {
  const auto found = find(properties, "Environment");
  return found ? std::get<std::vector<std::string>>(*found) : std::vector<std::string>();
}

TEST(JobUnitTest, AProcessIsInAUnitOfItsLabelAlone) {
  const std::string slice = "vantor-1.slice";
  const std::string folder = "0::/vantor.slice/vantor-1.slice/vantor-com.example.a";
  const auto isIn = [&](const std::string& groups) {
    return isInUnitOf(groups, slice, "com.example.a");
  };
  EXPECT_TRUE(isIn(folder + ".service\n"));
  EXPECT_TRUE(isIn(folder + ".service/below\n"));
  EXPECT_TRUE(isIn(folder + "..abandons.service\n"));
  EXPECT_TRUE(isIn("1:name=systemd:/x\n" + folder + ".service\n"));
  EXPECT_FALSE(isIn(folder + ".service2\n"));
  EXPECT_FALSE(isIn(folder + ".b.service\n"));
  EXPECT_FALSE(isIn("0::/vantor.slice/vantor-com.example.a.service\n"));
  EXPECT_FALSE(isIn("0::/user.slice/vantor.slice/vantor-1.slice/vantor-com.example.a.service\n"));
  EXPECT_FALSE(isIn(""));
}

TEST(JobUnitTest, ALabelIsEscapedLikeAUnitsName) {
  EXPECT_EQ(unitNameOf("com.example.agent"), "vantor-com.example.agent.service");
  EXPECT_EQ(unitNameOf("my-agent 2/x"), "vantor-my\\x2dagent\\x202-x.service");
  EXPECT_EQ(unitNameOf(".hidden"), "vantor-\\x2ehidden.service");
}

TEST(JobUnitTest, LongLabelsHaveDistinctNames) {
  const std::string first = unitNameOf(std::string(250, '-') + "a");
  const std::string second = unitNameOf(std::string(250, '-') + "b");
  EXPECT_NE(first, second);
  for (const std::string& name : {first, second}) {
    EXPECT_LE(name.size(), 255u);
    EXPECT_THAT(name, EndsWith(".service"));
  }
}

TEST(JobUnitTest, AbandonedProcessesHaveAUnitOfTheirOwn) {
  EXPECT_EQ(unitNameOf("a", true), "vantor-a..abandons.service");
  EXPECT_TRUE(isAbandoningUnit(unitNameOf("a", true)));
  EXPECT_TRUE(isAbandoningUnit(unitNameOf(std::string(250, '-'), true)));
  EXPECT_LE(unitNameOf(std::string(250, '-'), true).size(), 255u);
  for (const char* label : {"a", "a..abandons"}) {
    EXPECT_FALSE(isAbandoningUnit(unitNameOf(label))) << label;
  }
  EXPECT_NE(unitNameOf("a..abandons"), unitNameOf("a", true));
}

TEST(JobUnitTest, OnlyUnitsWithThePrefixAreThoseOfJobs) {
  EXPECT_TRUE(isUnitOfJob(unitNameOf("a")));
  EXPECT_TRUE(isUnitOfJob(unitNameOf("a", true)));
  EXPECT_FALSE(isUnitOfJob("other.service"));
  EXPECT_FALSE(isUnitOfJob("vantor-a.scope"));
}

TEST(JobUnitTest, EachRootHasASlice) {
  EXPECT_EQ(sliceOf("/", 7), "vantor.slice");
  EXPECT_EQ(sliceOf("/opt/root", 7), "vantor-0000000000000007.slice");
  EXPECT_TRUE(isSliceOfJobs("vantor-0000000000000007.slice"));
  EXPECT_FALSE(isSliceOfJobs("system.slice"));
}

TEST(JobUnitTest, AJobWithoutKeysHasThePropertiesOfEachUnit) {
  const auto properties =
      propertiesWith({}, {"vantor.slice", "/usr/bin/jobstart", "host.service", 5, -1, 6});
  EXPECT_THAT(properties,
              IsSupersetOf(std::vector<UnitProperty>{
                  {"Slice", std::string("vantor.slice")},
                  {"Before", std::vector<std::string>{"host.service"}},
                  {"Restart", std::string("no")},
                  {"RemainAfterExit", true},
                  {"KillMode", std::string("control-group")},
                  {"TimeoutStopUSec", std::uint64_t{20'000'000}},
                  {"UMask", std::uint32_t{022}},
                  {"Nice", std::int32_t{0}},
                  {"WorkingDirectory", std::string("/")},
                  {"StandardInputFileDescriptor", platform::UnitDescriptor{5}},
                  {"StandardOutput", std::string("null")},
                  {"StandardErrorFileDescriptor", platform::UnitDescriptor{6}},
                  {"ExecStart",
                   platform::UnitCommand{"/usr/bin/jobstart", {"jobstart", "com.example.job"}}}}));
  for (const char* name :
       {"User", "Group", "AmbientCapabilities", "LimitNOFILE", "IOSchedulingClass"}) {
    EXPECT_FALSE(find(properties, name)) << name;
  }
}

TEST(JobUnitTest, KeysBecomeProperties) {
  const auto properties =
      propertiesWith({{"UserName", "agent"},
                      {"GroupName", "staff"},
                      {"WorkingDirectory", "/var/tmp"},
                      {"ExitTimeOut", 3},
                      {"Umask", 63},
                      {"Nice", 5},
                      {"AbandonProcessGroup", true},
                      {"ProcessType", "Background"},
                      {"SoftResourceLimits", Dictionary{{"NumberOfFiles", 64}}},
                      {"HardResourceLimits", Dictionary{{"NumberOfFiles", 128}}}});
  EXPECT_THAT(properties,
              IsSupersetOf(std::vector<UnitProperty>{{"User", std::string("agent")},
                                                     {"Group", std::string("staff")},
                                                     {"WorkingDirectory", std::string("/var/tmp")},
                                                     {"TimeoutStopUSec", std::uint64_t{3'000'000}},
                                                     {"UMask", std::uint32_t{63}},
                                                     {"Nice", std::int32_t{5}},
                                                     {"KillMode", std::string("process")},
                                                     {"IOSchedulingClass", std::int32_t{2}},
                                                     {"IOSchedulingPriority", std::int32_t{7}},
                                                     {"CPUWeight", std::uint64_t{20}},
                                                     {"IOWeight", std::uint64_t{20}},
                                                     {"LimitNOFILE", std::uint64_t{128}},
                                                     {"LimitNOFILESoft", std::uint64_t{64}}}));
}

TEST(JobUnitTest, ALimitThatTheHostHasIsSetToo) {
  rlimit own{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &own), 0);
  const auto properties =
      propertiesWith({{"SoftResourceLimits",
                       Dictionary{{"NumberOfFiles", static_cast<std::int64_t>(own.rlim_cur)}}}});
  EXPECT_THAT(properties, IsSupersetOf(std::vector<UnitProperty>{
                              {"LimitNOFILE", std::uint64_t{own.rlim_max}},
                              {"LimitNOFILESoft", std::uint64_t{own.rlim_cur}}}));
}

TEST(JobUnitTest, AJobThatIsNeverKilledHasNoStopTimeOut) {
  EXPECT_EQ(find(propertiesWith({{"ExitTimeOut", 0}}), "TimeoutStopUSec"),
            UnitProperty::Value(UINT64_MAX));
}

TEST(JobUnitTest, TheEnvironmentHasWhatProgramsExpect) {
  const auto variables = environmentIn(
      propertiesWith({{"EnvironmentVariables",
                       Dictionary{{"HOME", "/elsewhere"}, {"my.name", "x"}, {"A", "b c"}}}}));
  EXPECT_THAT(variables, IsSupersetOf({"HOME=/elsewhere", "A=b c", "USER=agent", "LOGNAME=agent",
                                       "SHELL=/bin/sh", "PATH=/usr/bin:/bin:/usr/sbin:/sbin"}));
  EXPECT_THAT(variables, Not(Contains(StartsWith("my.name"))));
}

TEST(JobUnitTest, TheStarterDoesNotGetVariablesOfTheLinker) {
  const auto variables = environmentIn(propertiesWith(
      {{"EnvironmentVariables",
        Dictionary{{"LD_PRELOAD", "/a"}, {"GLIBC_TUNABLES", "b"}, {"OLD_A", "c"}}}}));
  EXPECT_THAT(variables, Contains("OLD_A=c"));
  EXPECT_THAT(variables, Not(Contains(StartsWith("LD_"))));
  EXPECT_THAT(variables, Not(Contains(StartsWith("GLIBC_"))));
}

TEST(JobUnitTest, OnlyTheStarterMayChangeRootAndGroups) {
  const auto changed = propertiesWith({{"UserName", "agent"}, {"RootDirectory", "/srv"}});
  EXPECT_EQ(find(changed, "AmbientCapabilities"), UnitProperty::Value(kChangeRoot));
  EXPECT_FALSE(find(changed, "WorkingDirectory"));
  EXPECT_EQ(
      find(propertiesWith({{"UserName", "agent"}, {"InitGroups", false}}), "AmbientCapabilities"),
      UnitProperty::Value(kSetGroups));
}

TEST(JobUnitTest, AnEndIsAsTheKernelReportsIt) {
  using platform::ExitStatus;
  EXPECT_EQ(endingOf(CLD_EXITED, 3), Ending(ProcessEnd(ExitStatus{ExitStatus::Kind::kExited, 3})));
  EXPECT_EQ(endingOf(CLD_KILLED, SIGKILL),
            Ending(ProcessEnd(ExitStatus{ExitStatus::Kind::kSignalled, SIGKILL})));
  EXPECT_EQ(endingOf(CLD_DUMPED, SIGSEGV),
            Ending(ProcessEnd(ExitStatus{ExitStatus::Kind::kSignalled, SIGSEGV}, true)));
  EXPECT_EQ(endingOf(0, 0), Ending());
}

TEST(JobUnitTest, WithTheJournalOnlyUnnamedFilesGoThere) {
  UnitSurroundings surroundings;
  surroundings.errorDescriptor = 7;
  surroundings.printsToJournal = true;
  const auto properties = propertiesWith({}, surroundings);
  EXPECT_THAT(properties,
              IsSupersetOf({UnitProperty{"StandardOutput", std::string("journal")},
                            UnitProperty{"IgnoreSIGPIPE", true},
                            UnitProperty{"SyslogIdentifier", std::string("com.example.job")}}));
  EXPECT_EQ(find(properties, "StandardError"), std::nullopt);
  EXPECT_THAT(propertiesWith({}), IsSupersetOf({UnitProperty{"StandardOutput", std::string("null")},
                                                UnitProperty{"IgnoreSIGPIPE", false}}));
}

}  // namespace
}  // namespace jobhost
