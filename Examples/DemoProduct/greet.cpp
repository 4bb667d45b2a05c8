// A client of the demo product: looks up the endpoint that its argument names, waits until the
// owner has registered it, and prints the answer.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <vantor/Endpoints.h>
#include <vantor/Program.h>

namespace {

constexpr char kGreet[] = "greetWithReply:";
constexpr std::chrono::seconds kTimeOut(5);

int fail(const std::string& why) {
  std::fputs(("greet: " + why + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fail("expected the name of an endpoint");
  const auto program = vantor::Program::make();
  if (!program) return fail(program.error().text);
  auto service = vantor::Peer::lookUp(**program, argv[1], {kGreet}, kTimeOut);
  if (!service) return fail(service.error().text);
  const auto reply = service->call(kGreet, {}, kTimeOut);
  if (!reply) return fail(reply.error().text);
  std::puts(reply->empty() ? "" : reply->front().text().value_or("").c_str());
  return EXIT_SUCCESS;
}
