// A service of the demo product: logs its start, announces it by the notification that its second
// argument names, if any, and runs until it is asked to end. It greets the clients of its endpoint
// "com.vantor.demo.NAME.endpoint", NAME being its own.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <vantor/Endpoints.h>
#include <vantor/Program.h>

namespace {

int fail(const vantor::Error& error) {
  std::fputs((error.text + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  const auto made = vantor::Program::make();
  if (!made) return fail(made.error());
  vantor::Program& program = **made;
  const std::string name = "com.vantor.demo." + program.name() + ".endpoint";
  const auto endpoint = vantor::Endpoint::serve(
      program, name, {"greetWithReply:"},
      [name](const std::string& /*selector*/, const vantor::Array& /*arguments*/) {
        return vantor::Array{"Hello from " + name};
      });
  if (!endpoint) return fail(endpoint.error());
  return program.run(
      [&] {
        program.log(vantor::LogLevel::kNotice, "at work");
        if (argc > 1) program.post(argv[1]);
      },
      [&] { program.log(vantor::LogLevel::kNotice, "asked to end"); });
}
