// A program of a product, made with the kit alone. It prints what it gets.
//
//   kit_program settings
//     changes settings of "common", and ends when it has observed the last change
//   kit_program states
//     asks for the services' processes and the health record
//   kit_program services LABEL
//     asks for the services' processes, stops the service and starts it
//   kit_program echo NAME
//     serves the endpoint as a service
//   kit_program call NAME TEXT
//     sends the text to it

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <vantor/Endpoints.h>
#include <vantor/Program.h>
#include <vantor/ServiceManager.h>
#include <vantor/Settings.h>

namespace {

constexpr std::chrono::minutes kTimeOut(1);

void print(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

template <typename T>
void printFailure(const vantor::Result<T>& result) {
  print(result ? "done"
               : "error " + std::to_string(static_cast<int>(result.error().code)) + ": " +
                     result.error().text);
}

template <typename T>
void printValue(const vantor::Result<T>& result) {
  if (!result) return printFailure(result);
  print(result->description());
}

int useSettings(vantor::Program& program) {
  vantor::Settings settings(program, "common");
  const auto watch = settings.watch([&](const std::string& key) {
    // The bus was late, and may have missed the change.
    if (key.empty()) printFailure(settings.set("Last", true));
    if (key != "Last") return;
    print("changed " + key);
    std::raise(SIGTERM);
  });
  printFailure(settings.set("Text", "hello"));
  printValue(settings.get("Text"));
  printFailure(settings.set("List", vantor::Array{1, 2.5, true, vantor::Value()}));
  printValue(settings.get("List"));
  printFailure(settings.remove("Text"));
  printValue(settings.get("Text"));
  printFailure(settings.set("Text", {}));
  printFailure(vantor::Settings(program, "com.example.nobody").get("Text"));
  return program.run([&] { printFailure(settings.set("Last", true)); }, [] { print("ending"); });
}

void printStates(vantor::ServiceManager& manager) {
  const auto states = manager.states();
  printFailure(states);
  if (!states) return;
  for (const vantor::ServiceState& state : *states)
    print(state.label + " " + (state.process ? std::to_string(*state.process) : "-"));
}

int showServices(vantor::Program& program) {
  vantor::ServiceManager manager(program);
  printStates(manager);
  printFailure(manager.health());
  return EXIT_SUCCESS;
}

int useServices(vantor::Program& program, const std::string& label) {
  vantor::ServiceManager manager(program);
  printStates(manager);
  printFailure(manager.stop({label}));
  printFailure(manager.start({label}));
  const auto begun = manager.beginInstallation({label});
  print(begun && *begun ? "stopped" : "not stopped");
  printFailure(manager.endInstallation());
  const auto info = vantor::executableInfo(program, program.root() + "/opt/demo/agent", kTimeOut);
  print(info ? info->signing : info.error().text);
  return EXIT_SUCCESS;
}

int serve(vantor::Program& program, const std::string& name) {
  const auto endpoint =
      vantor::Endpoint::serve(program, name, {"echo:withReply:"},
                              [](const std::string& /*selector*/, const vantor::Array& arguments) {
                                return vantor::Result<vantor::Array>(arguments);
                              });
  printFailure(endpoint);
  return program.run([] { print("serving"); }, [] { print("ending"); });
}

int call(vantor::Program& program, const std::string& name, const std::string& text) {
  auto peer =
      vantor::Peer::lookUp(program, name, {"echo:withReply:", "other:withReply:"}, kTimeOut);
  if (!peer) return printFailure(peer), EXIT_FAILURE;
  const auto reply = peer->call("echo:withReply:", {text}, kTimeOut);
  print(reply && !reply->empty() ? reply->front().description() : "no reply");
  printFailure(peer->call("other:withReply:", {text}, kTimeOut));
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const auto program = vantor::Program::make();
  const std::string command = argc > 1 ? argv[1] : "";
  if (!program) return printFailure(program), EXIT_FAILURE;
  if (command == "settings") return useSettings(**program);
  if (command == "states") return showServices(**program);
  if (command == "services" && argc == 3) return useServices(**program, argv[2]);
  if (command == "echo" && argc == 3) return serve(**program, argv[2]);
  if (command == "call" && argc == 4) return call(**program, argv[2], argv[3]);
  return EXIT_FAILURE;
}
