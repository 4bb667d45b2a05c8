/* A program of a product in C. It uses a setting and an endpoint of its own, asks for the services, and prints what it
 * gets. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vantor/kit.h>

static const char* const kSelectors[] = {"echo:withReply:", NULL};
static const char kEndpoint[] = "com.example.echo-in-c";

static void printValue(vantor_value* value) {
  char* text = vantor_value_description(value);
  puts(text);
  vantor_text_free(text);
  vantor_value_free(value);
}

static void printError(vantor_error error) { printf("error %d: %s\n", (int)error, vantor_last_error()); }

static vantor_value* echo(const char* selector, const vantor_value* arguments, void* context) {
  vantor_value* reply = vantor_array();
  vantor_value* first = vantor_value_at(arguments, 0);
  *(int*)context += strcmp(selector, kSelectors[0]) == 0;
  vantor_value_append(reply, first);
  vantor_value_free(first);
  return reply;
}

static void useSettings(vantor_program* program) {
  vantor_settings* settings = vantor_settings_make(program, "common");
  vantor_value* list = vantor_array();
  vantor_value* number = vantor_integer(7);
  vantor_value* found = NULL;
  vantor_value_append(list, number);
  if (vantor_settings_set(settings, "List", list) == VANTOR_OK &&
      vantor_settings_get(settings, "List", &found) == VANTOR_OK)
    printValue(found);
  printError(vantor_settings_set(settings, "List", NULL));
  if (vantor_settings_remove(settings, "List") == VANTOR_OK &&
      vantor_settings_get(settings, "List", &found) == VANTOR_OK)
    printValue(found);
  vantor_value_free(number);
  vantor_value_free(list);
  vantor_settings_free(settings);
}

struct Service {
  vantor_program* program;
  int calls;
};

static void started(void* context) {
  struct Service* service = context;
  vantor_value* services = NULL;
  if (vantor_services(service->program, &services) == VANTOR_OK) {
    vantor_value* agent = vantor_value_for_key(services, "com.vantor.demo.agent");
    printf("agent %s\n", vantor_value_integer(agent, 0) > 0 ? "runs" : "does not run");
    vantor_value_free(agent);
    vantor_value_free(services);
  }
  puts("serving");
  fflush(stdout);
}

static void ending(void* context) { printf("ending after %d calls\n", ((struct Service*)context)->calls); }

static int serve(vantor_program* program) {
  // The endpoint's handler uses it until the program is freed.
  static struct Service service;
  service.program = program;
  vantor_endpoint* endpoint = NULL;
  int status = EXIT_FAILURE;
  if (vantor_endpoint_serve(program, kEndpoint, kSelectors, echo, &service.calls, &endpoint) != VANTOR_OK)
    return status;
  status = vantor_program_run(program, started, ending, &service);
  vantor_endpoint_free(endpoint);
  return status;
}

static int call(vantor_program* program) {
  vantor_peer* peer = NULL;
  vantor_value* reply = NULL;
  vantor_value* arguments = vantor_array();
  vantor_value* text = vantor_text("hello");
  vantor_value_append(arguments, text);
  vantor_error error = vantor_peer_look_up(program, kEndpoint, kSelectors, 60000, &peer);
  if (error == VANTOR_OK) error = vantor_peer_call(peer, kSelectors[0], arguments, 60000, &reply);
  if (error == VANTOR_OK)
    printValue(reply);
  else
    printError(error);
  vantor_value_free(text);
  vantor_value_free(arguments);
  vantor_peer_free(peer);
  return error == VANTOR_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}

int main(int argc, char** argv) {
  vantor_program* program = NULL;
  int status = EXIT_SUCCESS;
  const vantor_error error = vantor_program_make(&program);
  if (error != VANTOR_OK) {
    printError(error);
    return EXIT_FAILURE;
  }
  if (argc > 1 && strcmp(argv[1], "serve") == 0)
    status = serve(program);
  else if (argc > 1 && strcmp(argv[1], "call") == 0)
    status = call(program);
  else
    useSettings(program);
  vantor_program_free(program);
  return status;
}
