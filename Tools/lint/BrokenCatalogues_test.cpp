#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Tools/lint/CleanCatalogue_fixture.h"
#include "Tools/lint/FileLint.h"

namespace lint {
namespace {

// A catalogue with one mistake or two, and what lint says of it.
struct BrokenCatalogue {
  std::string_view name;
  std::string_view from;  // the first occurrence in the clean catalogue
  std::string_view to;
  std::vector<std::string> findings;

  std::string text() const {
    std::string text(kCleanCatalogue);
    const std::size_t at = text.find(from);
    if (at == text.npos) return "";
    return text.replace(at, from.size(), to);
  }
};

void PrintTo(const BrokenCatalogue& row, std::ostream* out) { *out << row.name; }

class BrokenCatalogues : public testing::TestWithParam<BrokenCatalogue> {};

TEST_P(BrokenCatalogues, AreNamedWithTheirLines) {
  const FileReport report = checkFile("Service.plist", GetParam().text(), {});
  EXPECT_EQ(linesOf(report), GetParam().findings);
}

const std::vector<BrokenCatalogue> kTable{
    {"NoPrimary",
     "<key>Primary</key>\n  <string>com.example.configd</string>\n",
     "",
     {"3:1 error C002: there is no \"Primary\""}},
    {"MisspeltPrimary",
     "<key>Primary</key>",
     "<key>Primery</key>",
     {"3:1 error C002: there is no \"Primary\"",
      "4:3 warning F005: unknown key \"Primery\" (did you mean \"Primary\"?); it has no effect"}},
    {"PrimaryOfWrongType",
     "<key>Primary</key>\n  <string>com.example.configd</string>",
     "<key>Primary</key>\n  <integer>1</integer>",
     {"5:3 error C001: \"Primary\" is an integer, expected a string"}},
    {"UndefinedPrimary",
     "<string>com.example.configd</string>",
     "<string>com.example.confgd</string>",
     {"5:3 error C003: there is no service \"com.example.confgd\" (did you mean "
      "\"com.example.configd\"?)"}},
    {"NoProgramPath",
     "<key>ProgramPath</key>\n  <string>/usr/lib/example</string>\n",
     "",
     {"3:1 error C002: there is no \"ProgramPath\""}},
    {"RelativeProgramPath",
     "<string>/usr/lib/example</string>",
     "<string>usr/lib/example</string>",
     {"7:3 error C023: \"usr/lib/example\" is no absolute path"}},
    {"ProgramPathOfAnotherCase",
     "<key>ProgramPath</key>",
     "<key>Programpath</key>",
     {"3:1 error C002: there is no \"ProgramPath\"",
      "6:3 warning F005: unknown key \"Programpath\" (did you mean \"ProgramPath\"?); it has no "
      "effect"}},
    {"NoProductInfo",
     "<key>ProductInfo</key>\n  <string>product.plist</string>\n",
     "",
     {"3:1 error C002: there is no \"ProductInfo\""}},
    {"NoProductInfoKey",
     "<key>ProductInfoKey</key>\n  <string>GUID</string>\n",
     "",
     {"3:1 error C002: there is no \"ProductInfoKey\""}},
    {"ServicesAreAnArray",
     "<key>Services</key>\n  <dict>",
     "<key>Services</key>\n  <array/>\n  <key>Others</key>\n  <dict>",
     {"13:3 error C001: \"Services\" is an array, expected a dictionary of dictionaries",
      "14:3 warning F006: unknown key \"Others\"; it has no effect",
      "67:5 note C010: no service needs the extension \"files\"",
      "77:5 note C013: no service has the feature \"WebFilter\""}},
    {"UnknownKeyAtTheRoot",
     "<key>Primary</key>",
     "<key>Remark</key><string>x</string>\n  <key>Primary</key>",
     {"4:3 warning F006: unknown key \"Remark\"; it has no effect"}},
    {"ServiceIsAString",
     "<key>com.example.filter</key>\n    <dict>",
     "<key>com.example.other</key><string>x</string>\n    <key>com.example.filter</key>\n    "
     "<dict>",
     {"30:33 error C001: \"com.example.other\" is a string, expected a dictionary"}},
    {"NoProducts",
     "<key>Products</key>\n      <array>\n        "
     "<string>kKLXInstallTypeHostedManagedID</string>\n      </array>\n      <key>JobSpec</key>\n  "
     "    <dict>\n        <key>Program</key>\n        <string>filter",
     "<key>JobSpec</key>\n      <dict>\n        <key>Program</key>\n        <string>filter",
     {"30:5 warning C007: \"com.example.filter\" belongs to no product, so it never runs"}},
    {"EmptyProducts",
     "<array>\n        <string>kKLXInstallTypeHostedManagedID</string>\n      </array>\n      "
     "<key>JobSpec</key>\n      <dict>\n        <key>Program</key>\n        <string>filter",
     "<array/>\n      <key>JobSpec</key>\n      <dict>\n        <key>Program</key>\n        "
     "<string>filter",
     {"30:5 warning C007: \"com.example.filter\" belongs to no product, so it never runs"}},
    {"UnknownProduct",
     "kKLXInstallTypeHostedManagedID",
     "kKLXInstallTypeHostedManaged",
     {"16:7 error C005: kKLXInstallTypeHostedManagedID has the service \"com.example.filter\", but "
      "not the primary service \"com.example.configd\"",
      "18:9 error C008: there is no product \"kKLXInstallTypeHostedManaged\" (did you mean "
      "\"kKLXInstallTypeHostedManagedID\"?)"}},
    {"ProductIsANumber",
     "<array>\n        <string>kKLXInstallTypeHostedManagedID</string>",
     "<array>\n        <integer>1</integer>\n        "
     "<string>kKLXInstallTypeHostedManagedID</string>",
     {"18:9 error C001: element 0 of \"Products\" is an integer, expected a string"}},
    {"ProductsAreAString",
     "<array>\n        <string>kKLXInstallTypeHostedManagedID</string>\n      </array>\n      "
     "<key>JobSpec</key>\n      <dict>\n        <key>Program</key>\n        <string>filter",
     "<string>kKLXInstallTypeHostedManagedID</string>\n      <key>JobSpec</key>\n      <dict>\n    "
     "    <key>Program</key>\n        <string>filter",
     {"33:7 error C001: \"Products\" is a string, expected an array of strings"}},
    {"ProductWithoutPrimary",
     "<string>kKLXInstallTypeHostedManagedID</string>\n      </array>\n      <key>JobSpec</key>\n  "
     "    <dict>\n        <key>Program</key>\n        <string>filter",
     "<string>kKLXInstallTypeHouseholdID</string>\n      </array>\n      <key>JobSpec</key>\n      "
     "<dict>\n        <key>Program</key>\n        <string>filter",
     {"16:7 error C005: kKLXInstallTypeHouseholdID has the service \"com.example.filter\", but not "
      "the primary service \"com.example.configd\""}},
    {"PrimaryWithoutJob",
     "<key>JobSpec</key>",
     "<key>JobSpecs</key>",
     {"14:5 error C004: \"com.example.configd\" has no \"JobSpec\" of the right type, so the "
      "service manager stays idle",
      "20:7 warning F005: unknown key \"JobSpecs\" (did you mean \"JobSpec\"?); it has no effect"}},
    {"PrimaryWithoutProgram",
     "<key>Program</key>\n        <string>configd</string>\n",
     "",
     {"14:5 error C004: \"com.example.configd\" has no \"Program\" of the right type, so the "
      "service manager stays idle"}},
    {"ServiceWithoutProgram",
     "<key>Program</key>\n        <string>filter</string>\n",
     "",
     {"30:5 error C006: \"com.example.filter\" has no \"Program\" of the right type, so it is "
      "never started"}},
    {"ProgramIsANumber",
     "<string>filter</string>\n        <key>ProgramA",
     "<integer>1</integer>\n        <key>ProgramA",
     {"30:5 error C006: \"com.example.filter\" has no \"Program\" of the right type, so it is "
      "never started"}},
    {"AbsoluteProgram",
     "<string>filter</string>",
     "<string>/opt/filter</string>",
     {"39:9 warning C024: \"/opt/filter\" is joined to \"ProgramPath\", although it begins with a "
      "slash"}},
    {"MisspeltKeyOfAJob",
     "<key>ThrottleInterval</key>",
     "<key>ThrottleIntervall</key>",
     {"42:9 warning F005: unknown key \"ThrottleIntervall\" (did you mean \"ThrottleInterval\"?); "
      "it has no effect"}},
    {"UnknownKeyOfAJob",
     "<key>ThrottleInterval</key>",
     "<key>Colour</key><true/>\n        <key>ThrottleInterval</key>",
     {"42:9 warning F006: unknown key \"Colour\"; it has no effect"}},
    {"ThrottleIsAString",
     "<key>ThrottleInterval</key>\n        <integer>1</integer>",
     "<key>ThrottleInterval</key>\n        <string>1</string>",
     {"43:9 error J001: \"ThrottleInterval\": expected an integer of seconds from 0 to 2147483647, "
      "found the string \"1\""}},
    {"NoThrottle",
     "<key>ThrottleInterval</key>\n        <integer>1</integer>",
     "<key>ThrottleInterval</key>\n        <integer>0</integer>",
     {"43:9 warning J006: without a throttle a service that crashes at its start is started again "
      "every second"}},
    {"LongThrottle",
     "<key>ThrottleInterval</key>\n        <integer>1</integer>",
     "<key>ThrottleInterval</key>\n        <integer>3600</integer>",
     {"43:9 warning J006: after a crash the next start may be 3600 s away"}},
    {"NoExitTimeOut",
     "<integer>5</integer>",
     "<integer>0</integer>",
     {"45:9 warning J007: a process that ignores SIGTERM is never killed, and whoever stops it "
      "waits"}},
    {"LongExitTimeOut",
     "<integer>5</integer>",
     "<integer>900</integer>",
     {"45:9 warning J007: a stop may take 900 s until SIGKILL"}},
    {"KeepAliveIsReplaced",
     "<key>ThrottleInterval</key>",
     "<key>KeepAlive</key><false/>\n        <key>ThrottleInterval</key>",
     {"42:9 warning C020: \"KeepAlive\" has no effect: the service manager replaces it"}},
    {"OutputIsReplaced",
     "<key>ThrottleInterval</key>",
     "<key>StandardOutPath</key><string>/var/log/x</string>\n        <key>ThrottleInterval</key>",
     {"42:9 warning C020: \"StandardOutPath\" has no effect: the service manager replaces it"}},
    {"LabelIsReplaced",
     "<key>ThrottleInterval</key>",
     "<key>Label</key><string>x</string>\n        <key>ThrottleInterval</key>",
     {"42:9 warning C020: \"Label\" has no effect: the service manager replaces it"}},
    {"JobByTheClock",
     "<key>ThrottleInterval</key>",
     "<key>StartInterval</key><integer>60</integer>\n        <key>ThrottleInterval</key>",
     {"42:9 error J002: \"StartInterval\": it can't be honoured: this host starts no job by the "
      "clock"}},
    {"KeyWithoutEffect",
     "<key>ThrottleInterval</key>",
     "<key>TimeOut</key><integer>60</integer>\n        <key>ThrottleInterval</key>",
     {"42:9 warning J003: \"TimeOut\" has no effect: this host tells no job after which idle time "
      "it should end"}},
    {"WrongNice",
     "<key>ThrottleInterval</key>",
     "<key>Nice</key><integer>40</integer>\n        <key>ThrottleInterval</key>",
     {"42:24 error J001: \"Nice\": expected an integer from -20 to 20, found the integer 40"}},
    {"WrongArgument",
     "<array><string>filter</string></array>",
     "<array><integer>1</integer></array>",
     {"41:9 error J001: \"ProgramArguments\": argument 0: expected a string of at most 131071 "
      "bytes without zero bytes, found the integer 1"}},
    {"ContradictoryLimits",
     "<key>ThrottleInterval</key>",
     "<key>SoftResourceLimits</key><dict><key>Core</key><integer>2</integer></dict>\n        "
     "<key>HardResourceLimits</key><dict><key>Core</key><integer>1</integer></dict>\n        "
     "<key>ThrottleInterval</key>",
     {"36:7 error J004: key \"SoftResourceLimits\": expected no limit above that of "
      "\"HardResourceLimits\", found 2 above 1"}},
    {"SharedMachService",
     "<array><string>configd</string></array>",
     "<array><string>configd</string></array>\n        "
     "<key>MachServices</key><dict><key>com.example.filter</key><true/></dict>",
     {"48:44 error C021: \"com.example.filter\" has the same Mach service \"com.example.filter\" "
      "as \"com.example.configd\""}},
    {"SharedNotification",
     "<string>com.example.filter.didstart</string>",
     "<string>com.example.configd.didstart</string>",
     {"50:7 warning C018: \"com.example.filter\" has the same notification "
      "\"com.example.configd.didstart\" as \"com.example.configd\""}},
    {"SharedHealthName",
     "<array><string>filter</string></array>",
     "<array><string>configd</string></array>",
     {"41:16 warning C025: \"com.example.filter\" has the same first argument \"configd\" as "
      "\"com.example.configd\""}},
    {"NoNotification",
     "<key>Notification</key>\n      <string>com.example.filter.didstart</string>\n",
     "",
     {"30:5 note C019: the feature service \"com.example.filter\" has no \"Notification\""}},
    {"UnknownRelease",
     "<string>10.11</string>",
     "<string>10.12</string>",
     {"52:7 error C017: release \"10.12\" is not known, so \"com.example.filter\" never runs; "
      "known are 10.8, 10.9, 10.10, 10.11"}},
    {"ReleaseIsANumber",
     "<string>10.11</string>",
     "<real>10.11</real>",
     {"52:7 error C001: \"MinimumOSVersion\" is a real, expected a string"}},
    {"UndefinedExtension",
     "<string>files</string>",
     "<string>filez</string>",
     {"55:9 error C009: no extension \"filez\" is defined (did you mean \"files\"?), so "
      "\"com.example.filter\" never runs",
      "65:5 note C010: no service needs the extension \"files\""}},
    {"ExtensionsAreAString",
     "<array>\n        <string>files</string>\n      </array>",
     "<string>files</string>",
     {"54:7 error C001: \"KernelExtensions\" is a string, expected an array of strings",
      "63:5 note C010: no service needs the extension \"files\""}},
    {"ExtensionWithoutIdentifier",
     "<key>Identifier</key>\n      <string>com.example.nke.files</string>\n",
     "",
     {"65:5 error C002: there is no \"Identifier\" in \"KernelExtensions/files\""}},
    {"UnknownOption",
     "<string>secure</string>",
     "<string>fast</string>",
     {"70:14 warning C011: the option \"fast\" has no meaning; there is only \"secure\""}},
    {"UndefinedFeature",
     "<string>WebFilter</string>",
     "<string>Webfliter</string>",
     {"59:9 error C012: no feature \"Webfliter\" is defined (did you mean \"WebFilter\"?)",
      "75:5 note C013: no service has the feature \"WebFilter\""}},
    {"FeaturesAreAString",
     "<array>\n        <string>WebFilter</string>\n      </array>",
     "<string>WebFilter</string>",
     {"58:7 error C001: \"Features\" is a string, expected an array of strings",
      "73:5 note C013: no service has the feature \"WebFilter\""}},
    {"NoFeatures",
     "<array>\n        <string>WebFilter</string>\n      </array>",
     "<array/>",
     {"57:7 warning C014: no switch can start \"com.example.filter\"",
      "73:5 note C013: no service has the feature \"WebFilter\""}},
    {"PrimaryWithFeatures",
     "<key>Notification</key>\n      <string>com.example.configd.didstart</string>",
     "<key>Features</key><array><string>WebFilter</string></array>\n      "
     "<key>Notification</key>\n      <string>com.example.configd.didstart</string>",
     {"27:7 warning C022: the primary service runs whatever its \"Features\" are"}},
    {"FeatureWithoutSwitches",
     "<key>WebFilterEnabled</key>\n            <integer>1</integer>\n",
     "",
     {"57:7 warning C014: no switch can start \"com.example.filter\""}},
    {"MisspeltConfig",
     "<key>Config</key>",
     "<key>Confg</key>",
     {"57:7 warning C014: no switch can start \"com.example.filter\"",
      "77:7 warning F005: unknown key \"Confg\" (did you mean \"Config\"?); it has no effect"}},
    {"UnknownSource",
     "<string>common</string>",
     "<string>comon</string>",
     {"81:11 error C015: there is no settings server \"comon\" (did you mean \"common\"?); there "
      "are update, common, deviceControl, appControl, cmx, heartbeat, ntp, webControl"}},
    {"NoSource",
     "<key>Source</key>\n          <string>common</string>\n",
     "",
     {"79:9 error C002: there is no \"Source\" in \"Features/WebFilter/Config/0\""}},
    {"UnmatchableSwitch",
     "<integer>1</integer>\n          </dict>",
     "<array/>\n          </dict>",
     {"85:13 error C016: the switch \"WebFilterEnabled\" expects an array, which no setting "
      "matches"}},
    {"KeyTwice",
     "<key>Primary</key>",
     "<key>ProductInfo</key><string>x</string>\n  <key>Primary</key>",
     {"9:3 error F002: <key> \"ProductInfo\" occurs twice in its <dict>, expected once"}},
    {"UnclosedElement",
     "</array>",
     "</aray>",
     {"19:7 error F002: </aray> inside <array> of 17:7, expected </array>"}},
    {"NoCatalogue",
     "<key>Primary</key>",
     "<dict>",
     {"4:3 error F002: <dict> without a key, expected <key> or </dict>"}},
};

INSTANTIATE_TEST_SUITE_P(Table, BrokenCatalogues, testing::ValuesIn(kTable),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace lint
