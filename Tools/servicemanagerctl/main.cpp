// The operator's command. Exit status: 0 done, 1 failed, 2 not understood.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Logger/Logger.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Thread.h"
#include "Tools/servicemanagerctl/PlatformReport.h"

namespace {

constexpr int kNotUnderstood = 2;

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void reportPlatform(const platform::LinuxPlatform& linuxPlatform, bool json) {
  const PlatformReport report = makePlatformReport(
      linuxPlatform.systemInformation, linuxPlatform.configuration, ::getpid(), ::getuid());
  print(json ? asJson(report).dump(2) + "\n" : asTable(report));
}

// One line through each logger, so that an administrator sees where the product's lines end.
void writeTestLines(const std::string& message) {
  const std::uint32_t thread = platform::mach_thread_self();
  vantorlogger2_open("servicemanagerctl", thread);
  vantorlogger2_line(platform::ASL_LEVEL_INFO, message + " (logger 2)");
  vantorlogger2_close(thread);
  vantorlogger_open("servicemanagerctl", "com.vantor.hostagent.servicemanagerctl");
  vantorlogger_line(platform::ASL_LEVEL_INFO, message + " (logger 1)");
  vantorlogger_close();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Looks at the service manager and what it runs on.", "servicemanagerctl");
  app.require_subcommand(1);
  bool json = false;
  auto* platformCommand =
      app.add_subcommand("platform", "What the platform layer knows of this machine");
  platformCommand->add_flag("--json", json, "For programs");
  std::string message;
  auto* logTestCommand =
      app.add_subcommand("log-test", "Write one line through each of the product's loggers");
  logTestCommand->add_option("message", message, "The text of the lines")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kNotUnderstood;
  }

  auto linuxPlatform = platform::LinuxPlatform::make();
  if (!linuxPlatform) {
    const std::string text =
        "servicemanagerctl: " + platform::describe(linuxPlatform.error()) + "\n";
    std::fputs(text.c_str(), stderr);
    return EXIT_FAILURE;
  }
  platform::LinuxPlatform& linux = **linuxPlatform;
  if (platformCommand->parsed()) reportPlatform(linux, json);
  if (logTestCommand->parsed()) {
    const LoggerBinding logger(linux.systemLog);
    Logger2State logger2(linux.systemLog, linux.utilityQueues);
    const Logger2Binding logger2Binding(logger2);
    writeTestLines(message);
  }
  return EXIT_SUCCESS;
}
