// The agent of @PRODUCT@: a core service, which always runs. It follows a setting, and greets the
// clients of its endpoint with it.

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include <vantor/Endpoints.h>
#include <vantor/Program.h>
#include <vantor/Settings.h>

namespace {

constexpr char kEndpoint[] = "com.@PRODUCT@.agent.endpoint";
constexpr char kSetting[] = "Greeting";

// Written by the main thread, and read by the library's threads, which serve the endpoint.
class Greeting {
 public:
  void set(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    text_ = text;
  }
  std::string text() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
};

void read(const vantor::Program& program, vantor::Settings& settings, Greeting& greeting) {
  const auto value = settings.get(kSetting);
  if (!value) return program.log(vantor::LogLevel::kWarning, value.error().text);
  greeting.set(value->text().value_or(""));
  program.log(vantor::LogLevel::kNotice, "the greeting is \"" + greeting.text() + "\"");
}

}  // namespace

int main() {
  // The endpoint's handler uses it until the program has gone.
  Greeting greeting;
  const auto made = vantor::Program::make();
  if (!made) {
    std::fputs((made.error().text + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  vantor::Program& program = **made;
  vantor::Settings settings(program, "common");
  // The key is empty if changes may have been missed.
  const auto watch = settings.watch([&](const std::string& key) {
    if (key.empty() || key == kSetting) read(program, settings, greeting);
  });
  const auto endpoint =
      vantor::Endpoint::serve(program, kEndpoint, {"greetWithReply:"},
                              [&greeting](const std::string& /*selector*/, const vantor::Array&) {
                                return vantor::Array{greeting.text()};
                              });
  if (!endpoint) {
    program.log(vantor::LogLevel::kError, endpoint.error().text);
    return EXIT_FAILURE;
  }
  return program.run(
      [&] {
        read(program, settings, greeting);
        // A service with the key "Notification" in the catalogue posts it here: program.post(...).
        program.log(vantor::LogLevel::kNotice, "at work");
      },
      [&] { program.log(vantor::LogLevel::kNotice, "asked to end"); });
}
