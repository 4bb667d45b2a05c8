// One file, because each test reads a dictionary with one changed key.

#include "JobHost/Definitions/JobDefinition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "JobHost/Definitions/JobDefinitionLimits.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::ErrorCode;
using platform::Value;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

constexpr char kLabel[] = "com.example.agent";

// The smallest valid job, with `more` added.
Dictionary job(Dictionary more = {}) {
  Dictionary dictionary{{"Label", kLabel}, {"Program", "/opt/agent"}};
  for (const auto& [key, value] : more) dictionary.set(key, value);
  return dictionary;
}

// The parsed job. A rejected job fails the test.
JobDefinition parsed(Dictionary dictionary) {
  auto definition = parseJobDefinition(std::move(dictionary));
  EXPECT_TRUE(definition) << definition.error().context;
  return definition ? *std::move(definition) : JobDefinition{};
}

// Why the job is rejected. Empty if it is not.
std::string refusal(const Dictionary& dictionary) {
  const auto definition = parseJobDefinition(dictionary);
  if (definition) return "";
  EXPECT_EQ(definition.error().code, ErrorCode::kInvalid);
  return definition.error().context;
}

Dictionary jobWith(const char* key, Value value) { return job({{key, std::move(value)}}); }

Dictionary named(std::size_t count, const Value& value) {
  Dictionary values;
  for (std::size_t i = 0; i < count; ++i) values.set("V" + std::to_string(i), value);
  return values;
}

Array texts(std::size_t count) { return Array(count, Value("x")); }

Value nested(std::size_t collections) {
  Value value = Array{};
  for (std::size_t depth = 1; depth < collections; ++depth) value = Array{value};
  return value;
}

TEST(JobDefinitionTest, TheSmallestJobHasTheDefaults) {
  const JobDefinition definition = parsed(job());
  EXPECT_EQ(definition.label, kLabel);
  EXPECT_EQ(definition.program, "/opt/agent");
  EXPECT_THAT(definition.arguments, ElementsAre("/opt/agent"));
  EXPECT_FALSE(definition.userName);
  EXPECT_FALSE(definition.groupName);
  EXPECT_EQ(definition.workingDirectory, "/");
  EXPECT_FALSE(definition.rootDirectory);
  EXPECT_THAT(definition.environment, IsEmpty());
  EXPECT_EQ(definition.standardInPath, "/dev/null");
  EXPECT_EQ(definition.standardOutPath, "/dev/null");
  EXPECT_EQ(definition.standardErrorPath, "/dev/null");
  EXPECT_FALSE(definition.umask);
  EXPECT_EQ(definition.nice, std::nullopt);
  EXPECT_THAT(definition.limits, IsEmpty());
  EXPECT_EQ(definition.keepAlive, KeepAlive{});
  EXPECT_FALSE(definition.runAtLoad);
  EXPECT_EQ(definition.throttleInterval, 10s);
  EXPECT_EQ(definition.exitTimeOut, 20s);
  EXPECT_THAT(definition.machServices, IsEmpty());
  EXPECT_EQ(definition.dictionary, Value(job()));
}

TEST(JobDefinitionTest, EveryKeyIsRead) {
  const JobDefinition definition =
      parsed(job({{"ProgramArguments", Array{"agent", "", "--fast"}},
                  {"UserName", "daemon"},
                  {"GroupName", "adm"},
                  {"WorkingDirectory", "/var"},
                  {"RootDirectory", "/srv"},
                  {"EnvironmentVariables", Dictionary{{"Z", "1"}, {"A", ""}}},
                  {"StandardInPath", "/in"},
                  {"StandardOutPath", "/out"},
                  {"StandardErrorPath", "/err"},
                  {"Umask", 18},
                  {"Nice", -5},
                  {"RunAtLoad", true},
                  {"InitGroups", false},
                  {"SessionCreate", true},
                  {"ThrottleInterval", 0},
                  {"ExitTimeOut", 3},
                  {"MachServices", Dictionary{{"com.example.port", true}}}}));
  EXPECT_EQ(definition.program, "/opt/agent");
  EXPECT_THAT(definition.arguments, ElementsAre("agent", "", "--fast"));
  EXPECT_EQ(definition.userName, "daemon");
  EXPECT_EQ(definition.groupName, "adm");
  EXPECT_EQ(definition.workingDirectory, "/var");
  EXPECT_EQ(definition.rootDirectory, "/srv");
  EXPECT_THAT(definition.environment, ElementsAre(Pair("Z", "1"), Pair("A", "")));
  EXPECT_EQ(definition.standardInPath, "/in");
  EXPECT_EQ(definition.standardOutPath, "/out");
  EXPECT_EQ(definition.standardErrorPath, "/err");
  EXPECT_EQ(definition.umask, 022u);
  EXPECT_EQ(definition.nice, -5);
  EXPECT_TRUE(definition.runAtLoad);
  EXPECT_FALSE(definition.initGroups);
  EXPECT_THAT(definition.remarks, IsEmpty());
  EXPECT_EQ(definition.throttleInterval, 0s);
  EXPECT_EQ(definition.exitTimeOut, 3s);
  EXPECT_THAT(definition.machServices, ElementsAre("com.example.port"));
}

TEST(JobDefinitionTest, WithoutAProgramTheFirstArgumentIsTheProgram) {
  const JobDefinition definition =
      parsed({{"Label", kLabel}, {"ProgramArguments", Array{"/bin/agent", "-v"}}});
  EXPECT_EQ(definition.program, "/bin/agent");
  EXPECT_THAT(definition.arguments, ElementsAre("/bin/agent", "-v"));
}

TEST(JobDefinitionTest, WithoutArgumentsTheProgramIsTheFirstArgument) {
  EXPECT_THAT(parsed(job({{"ProgramArguments", Array{}}})).arguments, ElementsAre("/opt/agent"));
}

TEST(JobDefinitionTest, AProgramMustBeNamed) {
  const Dictionary neither{{"Label", kLabel}};
  EXPECT_THAT(refusal(neither), HasSubstr("key \"Program\": expected an absolute path"));
  for (const char* first : {"agent", "", "bin/agent"}) {
    EXPECT_THAT(refusal({{"Label", kLabel}, {"ProgramArguments", Array{first}}}),
                AllOf(HasSubstr("key \"ProgramArguments\": expected an absolute path"),
                      HasSubstr(std::string("found \"") + first + "\"")));
  }
}

TEST(JobDefinitionTest, KeepAliveIsABooleanOrTwoConditions) {
  const auto keepAlive = [](Value value) { return parsed(job({{"KeepAlive", value}})).keepAlive; };
  EXPECT_EQ(keepAlive(true), (KeepAlive{.always = true, .successfulExit = {}, .crashed = {}}));
  EXPECT_EQ(keepAlive(false), KeepAlive{});
  EXPECT_EQ(keepAlive(Dictionary{{"SuccessfulExit", false}}),
            (KeepAlive{.always = false, .successfulExit = false, .crashed = {}}));
  EXPECT_EQ(keepAlive(Dictionary{{"Crashed", true}, {"SuccessfulExit", true}}),
            (KeepAlive{.always = false, .successfulExit = true, .crashed = true}));
}

TEST(JobDefinitionTest, AUmaskMayBeATextAsInC) {
  for (const auto& [text, mask] :
       {std::pair{"022", 022u}, {"18", 18u}, {"0x12", 0x12u}, {"0", 0u}, {"0777", 0777u}}) {
    EXPECT_EQ(parsed(job({{"Umask", text}})).umask, mask) << text;
  }
}

TEST(JobDefinitionTest, SoftAndHardLimitsOfAResourceAreOneEntry) {
  const JobDefinition definition =
      parsed(job({{"SoftResourceLimits", Dictionary{{"NumberOfFiles", 64}, {"Core", 0}}},
                  {"HardResourceLimits", Dictionary{{"NumberOfFiles", 64}, {"Stack", 1 << 20}}}}));
  EXPECT_THAT(definition.limits,
              ElementsAre(ResourceLimit{RLIMIT_NOFILE, 64, 64}, ResourceLimit{RLIMIT_CORE, 0, {}},
                          ResourceLimit{RLIMIT_STACK, {}, 1 << 20}));
}

TEST(JobDefinitionTest, EveryResourceHasItsLimit) {
  const std::vector<std::pair<const char*, int>> resources = {{"Core", RLIMIT_CORE},
                                                              {"CPU", RLIMIT_CPU},
                                                              {"Data", RLIMIT_DATA},
                                                              {"FileSize", RLIMIT_FSIZE},
                                                              {"MemoryLock", RLIMIT_MEMLOCK},
                                                              {"NumberOfFiles", RLIMIT_NOFILE},
                                                              {"NumberOfProcesses", RLIMIT_NPROC},
                                                              {"ResidentSetSize", RLIMIT_RSS},
                                                              {"Stack", RLIMIT_STACK}};
  for (const auto& [name, resource] : resources) {
    EXPECT_THAT(parsed(job({{"HardResourceLimits", Dictionary{{name, 7}}}})).limits,
                ElementsAre(ResourceLimit{resource, {}, 7}))
        << name;
  }
}

TEST(JobDefinitionTest, UnknownKeysAreKept) {
  const Dictionary dictionary =
      job({{"ProcessType", "Interactive"}, {"LegacyTimers", Array{1, 2.5, Data{0}, Date{}}}});
  EXPECT_EQ(parsed(dictionary).dictionary, Value(dictionary));
}

struct Refused {
  const char* key;
  Value value;
  const char* fault;
};

// Expects that a rejection names the label, the key and the fault.
void expectRefusal(const Refused& refused) {
  EXPECT_THAT(
      refusal(job({{refused.key, refused.value}})),
      AllOf(StartsWith("job \"com.example.agent\": "),
            HasSubstr(std::string("key \"") + refused.key + "\": "), HasSubstr(refused.fault)))
      << refused.key;
}

TEST(JobDefinitionTest, WrongTypesAreRejected) {
  const std::vector<Refused> table = {
      {"Program", 1, "expected an absolute path of at most 4095 bytes, found the integer 1"},
      {"ProgramArguments", "-v", "expected an array of strings, found the string \"-v\""},
      {"ProgramArguments", Array{"a", 1}, "argument 1: expected a string"},
      {"UserName", 0, "found the integer 0"},
      {"GroupName", Array{}, "expected a name"},
      {"WorkingDirectory", true, "expected an absolute path of at most 4095 bytes, found true"},
      {"RootDirectory", 1.5, "found the real 1.5"},
      {"EnvironmentVariables", Array{"A=1"}, "expected a dictionary of strings, found an array"},
      {"EnvironmentVariables", Dictionary{{"A", 1}}, "variable \"A\": expected a string"},
      {"StandardInPath", Data{1}, "found data"},
      {"StandardOutPath", Date{}, "found a date"},
      {"StandardErrorPath", Dictionary{}, "found an empty dictionary"},
      {"Umask", true, "expected an integer from 0 to 511"},
      {"Nice", "5", "expected an integer from -20 to 20, found the string \"5\""},
      {"SoftResourceLimits", 5, "expected a dictionary of integers"},
      {"HardResourceLimits", Dictionary{{"CPU", "1"}}, "limit \"CPU\": expected an integer"},
      {"KeepAlive", 1, "expected a boolean or a dictionary"},
      {"KeepAlive", Dictionary{{"Crashed", 1}}, "condition \"Crashed\": expected a boolean"},
      {"RunAtLoad", "yes", "expected a boolean, found the string \"yes\""},
      {"ThrottleInterval", 10.0, "expected an integer of seconds"},
      {"ExitTimeOut", false, "expected an integer of seconds"},
      {"MachServices", Array{"a"}, "expected a dictionary"},
      {"MachServices", Dictionary{{"a", 1}}, "service \"a\": expected true or a dictionary"},
  };
  for (const Refused& refused : table) expectRefusal(refused);
}

TEST(JobDefinitionTest, ImpossibleValuesAreRejected) {
  const std::string zero("/a\0b", 4);
  const std::vector<Refused> table = {
      {"Program", "opt/agent", "expected an absolute path"},
      {"Program", "", "expected an absolute path"},
      {"Program", zero, "expected an absolute path"},
      {"ProgramArguments", Array{zero}, "argument 0: expected a string"},
      {"UserName", "", "expected a name"},
      {"UserName", "a:b", "found the string \"a:b\""},
      {"GroupName", "a\nb", "expected a name"},
      {"WorkingDirectory", "var", "expected an absolute path"},
      {"RootDirectory", ".", "expected an absolute path"},
      {"EnvironmentVariables", Dictionary{{"", "1"}}, "names of variables"},
      {"EnvironmentVariables", Dictionary{{"A=B", "1"}}, "found \"A=B\""},
      {"EnvironmentVariables", Dictionary{{"A", zero}}, "variable \"A\""},
      {"Umask", -1, "found the integer -1"},
      {"Umask", 512, "found the integer 512"},
      {"Umask", "0778", "expected an integer from 0 to 511"},
      {"Umask", "", "expected an integer from 0 to 511"},
      {"Umask", "-1", "expected an integer from 0 to 511"},
      {"Umask", "022 ", "expected an integer from 0 to 511"},
      {"SoftResourceLimits", Dictionary{{"CPU", -1}}, "limit \"CPU\""},
      {"SoftResourceLimits", Dictionary{{"Cpu", 1}}, "Stack, found \"Cpu\""},
      {"KeepAlive", Dictionary{}, "found an empty dictionary"},
      {"KeepAlive", Dictionary{{"Crash", true}}, "found the condition \"Crash\""},
      {"MachServices", Dictionary{{"a", false}}, "expected true or a dictionary, found false"},
      {"MachServices", Dictionary{{"a/b", true}}, "found \"a/b\""},
      {"MachServices", Dictionary{{"..", true}}, "found \"..\""},
      {"MachServices", Dictionary{{"", true}}, "found \"\""},
      {"MachServices", Dictionary{{"a", true}, {"b:c", true}}, "found \"b:c\""},
  };
  for (const Refused& refused : table) expectRefusal(refused);
}

TEST(JobDefinitionTest, ASoftLimitAboveTheHardOneIsRejected) {
  EXPECT_THAT(refusal(job({{"SoftResourceLimits", Dictionary{{"CPU", 3}}},
                           {"HardResourceLimits", Dictionary{{"CPU", 2}}}})),
              HasSubstr("key \"SoftResourceLimits\": expected no limit above that of "
                        "\"HardResourceLimits\", found 3 above 2"));
}

TEST(JobDefinitionTest, UnsupportedKeysThatDecideWhenAJobRunsAreRejected) {
  const std::vector<Refused> table = {
      {"StartInterval", 60, "can't be honoured: this host starts no job by the clock"},
      {"StartCalendarInterval", Dictionary{}, "by the clock"},
      {"WatchPaths", Array{"/etc"}, "because files change"},
      {"QueueDirectories", Array{"/etc"}, "because files change"},
      {"StartOnMount", true, "mounted"},
      {"Sockets", Dictionary{}, "\"MachServices\""},
      {"inetdCompatibility", Dictionary{}, "\"MachServices\""},
      {"LaunchEvents", Dictionary{}, "because of events"},
      {"LaunchOnlyOnce", true, "submitted again"},
      {"OnDemand", false, "\"KeepAlive\""},
      {"Disabled", true, "leave the job out"},
      {"MultipleInstances", true, "one process"},
      {"WaitForDebugger", true, "at once"},
      {"LimitLoadToHosts", Array{}, "whatever the machine"},
      {"LimitLoadFromHosts", Array{}, "whatever the machine"},
      {"LimitLoadToHardware", Dictionary{}, "whatever the machine"},
      {"LimitLoadFromHardware", Dictionary{}, "whatever the machine"},
      {"LimitLoadToSessionType", "Aqua", "session"},
      {"KeepAlive", Dictionary{{"PathState", Dictionary{}}},
       "condition \"PathState\": it can't be honoured: this host starts no job because files"},
      {"KeepAlive", Dictionary{{"OtherJobEnabled", Dictionary{}}}, "because of another"},
      {"KeepAlive", Dictionary{{"NetworkState", true}}, "because of the network"},
      {"KeepAlive", Dictionary{{"AfterInitialDemand", true}}, "from the beginning"},
      {"EnableGlobbing", true, "as they are"},
  };
  for (const Refused& refused : table) expectRefusal(refused);
}

TEST(JobDefinitionTest, SwitchesThatAreOffAskForNothing) {
  for (const char* key :
       {"StartOnMount", "LaunchOnlyOnce", "Disabled", "MultipleInstances", "WaitForDebugger"}) {
    EXPECT_EQ(refusal(job({{key, false}})), "") << key;
    expectRefusal({key, "no", "expected a boolean, found the string \"no\""});
  }
}

TEST(JobDefinitionTest, OnlyADictionaryWithALabelIsAJob) {
  EXPECT_THAT(parseJobDefinition(Value("agent")).error().context,
              "job without a label: expected a dictionary, found the string \"agent\"");
  EXPECT_THAT(parseJobDefinition(Value()).error().context, HasSubstr("found nothing"));
  EXPECT_THAT(refusal({{"Program", "/opt/agent"}}),
              "job without a label: key \"Label\": expected a string, found no such key");
  EXPECT_THAT(refusal(job({{"Label", 1}})), HasSubstr("key \"Label\": expected a string"));
  EXPECT_THAT(refusal(job({{"Label", ""}})), HasSubstr("key \"Label\": expected a string"));
  EXPECT_EQ(refusal(job({{"Label", "a b~"}})), "");
  EXPECT_THAT(refusal(job({{"Label", "a\nb"}})),
              StartsWith("job \"a\\x0ab\": key \"Label\": expected a string"));
}

TEST(JobDefinitionTest, ValuesThatNoPropertyListHoldsAreRejectedUnderAnyKey) {
  EXPECT_THAT(refusal(job({{"Other", Array{Value::nullMarker()}}})),
              HasSubstr("expected what a property list can hold, found the null marker"));
  EXPECT_THAT(refusal(job({{"Other", "\xff"}})), HasSubstr("expected UTF-8"));
  EXPECT_THAT(refusal(job({{"\xff", "text"}})), HasSubstr("expected UTF-8"));
}

struct Limit {
  const char* name;
  std::size_t limit;
  Dictionary (*job)(std::size_t size);
};

TEST(JobDefinitionTest, LimitsAcceptTheMaximumAndNotOneMore) {
  const std::vector<Limit> limits = {
      {"label", kMaximumLabelBytes,
       [](std::size_t n) { return jobWith("Label", std::string(n, 'x')); }},
      {"path", kMaximumPathBytes,
       [](std::size_t n) { return jobWith("Program", "/" + std::string(n - 1, 'x')); }},
      {"first argument as a path", kMaximumPathBytes,
       [](std::size_t n) {
         return Dictionary{{"Label", kLabel},
                           {"ProgramArguments", Array{"/" + std::string(n - 1, 'x')}}};
       }},
      {"user", kMaximumUserNameBytes,
       [](std::size_t n) { return jobWith("UserName", std::string(n, 'x')); }},
      {"service", kMaximumServiceNameBytes,
       [](std::size_t n) {
         return jobWith("MachServices", Dictionary{{std::string(n, 'x'), true}});
       }},
      {"services", kMaximumServices,
       [](std::size_t n) { return jobWith("MachServices", named(n, true)); }},
      {"arguments", kMaximumArguments,
       [](std::size_t n) { return jobWith("ProgramArguments", texts(n)); }},
      {"argument", kMaximumArgumentBytes,
       [](std::size_t n) { return jobWith("ProgramArguments", Array{std::string(n, 'x')}); }},
      {"variables", kMaximumEnvironmentVariables,
       [](std::size_t n) { return jobWith("EnvironmentVariables", named(n, "")); }},
      {"variable", kMaximumArgumentBytes,
       [](std::size_t n) {
         return jobWith("EnvironmentVariables", Dictionary{{"A", std::string(n - 2, 'x')}});
       }},
      // In addition to the dictionary itself, its label and its program.
      {"values", kMaximumJobValues, [](std::size_t n) { return jobWith("Other", texts(n - 4)); }},
      {"bytes", kMaximumJobBytes,
       [](std::size_t n) {
         const std::size_t rest =
             std::string("LabelProgramOther/opt/agent").size() + std::string(kLabel).size();
         return jobWith("Other", Data(n - rest));
       }},
      {"depth", kMaximumJobDepth, [](std::size_t n) { return jobWith("Other", nested(n - 1)); }},
      {"throttle", static_cast<std::size_t>(kMaximumJobSeconds),
       [](std::size_t n) { return jobWith("ThrottleInterval", static_cast<std::int64_t>(n)); }},
      {"exit time-out", static_cast<std::size_t>(kMaximumJobSeconds),
       [](std::size_t n) { return jobWith("ExitTimeOut", static_cast<std::int64_t>(n)); }},
      {"nice", 20, [](std::size_t n) { return jobWith("Nice", static_cast<std::int64_t>(n)); }},
      {"not nice", 20,
       [](std::size_t n) { return jobWith("Nice", -static_cast<std::int64_t>(n)); }},
      {"umask", 0777, [](std::size_t n) { return jobWith("Umask", static_cast<std::int64_t>(n)); }},
  };
  for (const auto& [name, limit, make] : limits) {
    EXPECT_EQ(refusal(make(limit - 1)), "") << name;
    EXPECT_EQ(refusal(make(limit)), "") << name;
    EXPECT_NE(refusal(make(limit + 1)), "") << name;
  }
}

}  // namespace
}  // namespace jobhost
