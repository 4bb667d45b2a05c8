// The C interface: each function calls its counterpart of the C++ headers.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vantor/Endpoints.h>
#include <vantor/Program.h>
#include <vantor/ServiceManager.h>
#include <vantor/Settings.h>
#include <vantor/kit.h>

struct vantor_value {
  vantor::Value value;
};
struct vantor_program {
  std::unique_ptr<vantor::Program> program;
};
struct vantor_observation {
  std::unique_ptr<vantor::Observation> observation;
};
struct vantor_settings {
  vantor::Settings settings;
};
struct vantor_endpoint {
  vantor::Endpoint endpoint;
};
struct vantor_peer {
  vantor::Peer peer;
};

namespace {

thread_local std::string lastError;

vantor_error failWith(const vantor::Error& error) {
  lastError = error.text;
  return static_cast<vantor_error>(error.code);
}

char* copyOfText(const std::string& text) { return ::strdup(text.c_str()); }

vantor_value* valueForC(vantor::Value value) { return new vantor_value{std::move(value)}; }

vantor::Value valueOfC(const vantor_value* value) { return value ? value->value : vantor::Value(); }

vantor::Array arrayOfC(const vantor_value* value) {
  return valueOfC(value).array().value_or(vantor::Array());
}

std::vector<std::string> textsOfC(const char* const* texts) {
  std::vector<std::string> made;
  while (texts && *texts) made.emplace_back(*texts++);
  return made;
}

// The value of the result, or its error.
template <typename T, typename Convert, typename Target>
vantor_error take(vantor::Result<T> result, Convert convert, Target** target) {
  if (!result) return failWith(result.error());
  *target = convert(std::move(*result));
  return VANTOR_OK;
}

vantor_error outcome(const vantor::Result<void>& result) {
  return result ? VANTOR_OK : failWith(result.error());
}

}  // namespace

const char* vantor_last_error(void) { return lastError.c_str(); }
void vantor_text_free(char* text) { std::free(text); }

vantor_value* vantor_nil(void) { return valueForC({}); }
vantor_value* vantor_boolean(int boolean) { return valueForC(boolean != 0); }
vantor_value* vantor_integer(int64_t integer) { return valueForC(std::int64_t{integer}); }
vantor_value* vantor_real(double real) { return valueForC(real); }
vantor_value* vantor_text(const char* text) { return valueForC(text); }
vantor_value* vantor_bytes(const uint8_t* bytes, size_t size) {
  return valueForC(vantor::Bytes(bytes, bytes + size));
}
vantor_value* vantor_array(void) { return valueForC(vantor::Array()); }
vantor_value* vantor_dictionary(void) { return valueForC(vantor::Dictionary()); }
void vantor_value_append(vantor_value* array, const vantor_value* element) {
  vantor::Array elements = arrayOfC(array);
  elements.push_back(valueOfC(element));
  array->value = elements;
}
void vantor_value_put(vantor_value* dictionary, const char* key, const vantor_value* element) {
  vantor::Dictionary elements = dictionary->value.dictionary().value_or(vantor::Dictionary());
  elements[key] = valueOfC(element);
  dictionary->value = elements;
}
void vantor_value_free(vantor_value* value) { delete value; }

vantor_type vantor_value_type(const vantor_value* value) {
  return static_cast<vantor_type>(valueOfC(value).type());
}
int vantor_value_boolean(const vantor_value* value, int otherwise) {
  return valueOfC(value).boolean().value_or(otherwise != 0) ? 1 : 0;
}
int64_t vantor_value_integer(const vantor_value* value, int64_t otherwise) {
  return valueOfC(value).integer().value_or(otherwise);
}
double vantor_value_real(const vantor_value* value, double otherwise) {
  return valueOfC(value).real().value_or(otherwise);
}
char* vantor_value_text(const vantor_value* value) {
  const auto text = valueOfC(value).text();
  return text ? copyOfText(*text) : nullptr;
}
size_t vantor_value_count(const vantor_value* value) {
  const vantor::Value counted = valueOfC(value);
  if (const auto bytes = counted.bytes()) return bytes->size();
  if (const auto elements = counted.dictionary()) return elements->size();
  return arrayOfC(value).size();
}
void vantor_value_bytes(const vantor_value* value, uint8_t* bytes, size_t size) {
  const auto held = valueOfC(value).bytes().value_or(vantor::Bytes());
  std::copy_n(held.begin(), std::min(size, held.size()), bytes);
}
vantor_value* vantor_value_at(const vantor_value* array, size_t index) {
  const vantor::Array elements = arrayOfC(array);
  return valueForC(index < elements.size() ? elements[index] : vantor::Value());
}
vantor_value* vantor_value_for_key(const vantor_value* dictionary, const char* key) {
  const auto elements = valueOfC(dictionary).dictionary().value_or(vantor::Dictionary());
  const auto found = elements.find(key);
  return valueForC(found == elements.end() ? vantor::Value() : found->second);
}
char* vantor_value_key(const vantor_value* dictionary, size_t index) {
  const auto elements = valueOfC(dictionary).dictionary().value_or(vantor::Dictionary());
  if (index >= elements.size()) return nullptr;
  return copyOfText(std::next(elements.begin(), static_cast<std::ptrdiff_t>(index))->first);
}
char* vantor_value_description(const vantor_value* value) {
  return copyOfText(valueOfC(value).description());
}

vantor_error vantor_program_make(vantor_program** program) {
  return take(
      vantor::Program::make(),
      [](std::unique_ptr<vantor::Program> made) { return new vantor_program{std::move(made)}; },
      program);
}
void vantor_program_free(vantor_program* program) { delete program; }
const char* vantor_program_name(const vantor_program* program) {
  return program->program->name().c_str();
}
const char* vantor_program_root(const vantor_program* program) {
  return program->program->root().c_str();
}
void vantor_log(const vantor_program* program, vantor_log_level level, const char* text) {
  program->program->log(static_cast<vantor::LogLevel>(level), text);
}
int vantor_program_run(vantor_program* program, vantor_action started, vantor_action ending,
                       void* context) {
  const auto actionOf = [&](vantor_action action) -> std::function<void()> {
    if (!action) return {};
    return [action, context] { action(context); };
  };
  return program->program->run(actionOf(started), actionOf(ending));
}
void vantor_perform(vantor_program* program, vantor_action action, void* context) {
  program->program->perform([action, context] { action(context); });
}

void vantor_post(vantor_program* program, const char* name, const vantor_value* user_info,
                 const char* object) {
  program->program->post(name, valueOfC(user_info),
                         object ? std::optional<std::string>(object) : std::nullopt);
}
vantor_observation* vantor_observe(vantor_program* program, const char* name,
                                   vantor_notification_handler handler, void* context) {
  return new vantor_observation{
      program->program->observe(name, [handler, context](const vantor::Notification& posted) {
        const vantor_value userInfo{posted.userInfo};
        handler(posted.name.c_str(), posted.object ? posted.object->c_str() : nullptr, &userInfo,
                context);
      })};
}
void vantor_observation_free(vantor_observation* observation) { delete observation; }

vantor_settings* vantor_settings_make(vantor_program* program, const char* domain) {
  return new vantor_settings{vantor::Settings(*program->program, domain)};
}
void vantor_settings_free(vantor_settings* settings) { delete settings; }
vantor_error vantor_settings_get(vantor_settings* settings, const char* key, vantor_value** value) {
  return take(settings->settings.get(key), valueForC, value);
}
vantor_error vantor_settings_all(vantor_settings* settings, vantor_value** dictionary) {
  return take(
      settings->settings.all(), [](const vantor::Dictionary& all) { return valueForC(all); },
      dictionary);
}
vantor_error vantor_settings_set(vantor_settings* settings, const char* key,
                                 const vantor_value* value) {
  return outcome(settings->settings.set(key, valueOfC(value)));
}
vantor_error vantor_settings_remove(vantor_settings* settings, const char* key) {
  return outcome(settings->settings.remove(key));
}
vantor_observation* vantor_settings_watch(vantor_settings* settings, vantor_change_handler handler,
                                          void* context) {
  return new vantor_observation{settings->settings.watch(
      [handler, context](const std::string& key) { handler(key.c_str(), context); })};
}

vantor_error vantor_endpoint_serve(vantor_program* program, const char* name,
                                   const char* const* selectors, vantor_message_handler handler,
                                   void* context, vantor_endpoint** endpoint) {
  const auto serve = [handler, context](
                         const std::string& selector,
                         const vantor::Array& arguments) -> vantor::Result<vantor::Array> {
    const vantor_value given{arguments};
    const std::unique_ptr<vantor_value> reply(handler(selector.c_str(), &given, context));
    if (!reply) return vantor::Error{vantor::ErrorCode::kFailed, "the handler has no reply"};
    return arrayOfC(reply.get());
  };
  return take(
      vantor::Endpoint::serve(*program->program, name, textsOfC(selectors), serve),
      [](vantor::Endpoint made) { return new vantor_endpoint{std::move(made)}; }, endpoint);
}
void vantor_endpoint_free(vantor_endpoint* endpoint) { delete endpoint; }
vantor_error vantor_peer_look_up(vantor_program* program, const char* name,
                                 const char* const* selectors, uint32_t time_out_ms,
                                 vantor_peer** peer) {
  return take(
      vantor::Peer::lookUp(*program->program, name, textsOfC(selectors),
                           std::chrono::milliseconds(time_out_ms)),
      [](vantor::Peer made) { return new vantor_peer{std::move(made)}; }, peer);
}
vantor_error vantor_peer_call(vantor_peer* peer, const char* selector,
                              const vantor_value* arguments, uint32_t time_out_ms,
                              vantor_value** reply) {
  return take(
      peer->peer.call(selector, arrayOfC(arguments), std::chrono::milliseconds(time_out_ms)),
      [](const vantor::Array& values) { return valueForC(values); }, reply);
}
void vantor_peer_free(vantor_peer* peer) { delete peer; }

vantor_error vantor_services(vantor_program* program, vantor_value** services) {
  const auto dictionaryOf = [](const std::vector<vantor::ServiceState>& states) {
    vantor::Dictionary made;
    for (const vantor::ServiceState& state : states)
      made[state.label] =
          state.isKnown ? vantor::Value(state.process.value_or(0)) : vantor::Value();
    return valueForC(made);
  };
  return take(vantor::ServiceManager(*program->program).states(), dictionaryOf, services);
}
vantor_error vantor_service_start(vantor_program* program, const char* label) {
  return outcome(vantor::ServiceManager(*program->program).start({label}));
}
vantor_error vantor_service_stop(vantor_program* program, const char* label) {
  return outcome(vantor::ServiceManager(*program->program).stop({label}));
}
