#ifndef VANTOR_KIT_H
#define VANTOR_KIT_H

/* The kit for C, and for languages that call C. It does what the C++ headers beside it say, under
 * the same conditions of threads and time; this header says only what C adds.
 *
 * - Texts are UTF-8 and end with NUL. A text or a value that a function returns belongs to the
 * caller, who frees it with vantor_text_free() or vantor_value_free(), except where a comment says
 * "borrowed".
 * - A function that can fail returns a vantor_error code, VANTOR_OK if it did not, and then writes
 * its result to the last pointers. vantor_last_error() has the text of this thread's last failure.
 * - A handler gets the context that it was registered with. Its arguments are borrowed. */

#include <stddef.h>
#include <stdint.h>
#include <vantor/Api.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  VANTOR_OK = 0,
  VANTOR_NOT_FOUND = 1,
  VANTOR_DENIED = 2,
  VANTOR_INVALID = 3,
  VANTOR_EXHAUSTED = 4,
  VANTOR_TIMED_OUT = 5,
  VANTOR_FAILED = 6
} vantor_error;

/* Borrowed until the thread's next call; empty if nothing has failed. */
VANTOR_KIT_API const char* vantor_last_error(void);
VANTOR_KIT_API void vantor_text_free(char* text);

/* Values (vantor/Value.h). A value never changes but by vantor_value_append() and
 * vantor_value_put(), which belong to the thread that has made it. */
typedef struct vantor_value vantor_value;
typedef enum {
  VANTOR_NIL,
  VANTOR_BOOLEAN,
  VANTOR_INTEGER,
  VANTOR_REAL,
  VANTOR_TEXT,
  VANTOR_BYTES,
  VANTOR_DATE,
  VANTOR_ARRAY,
  VANTOR_DICTIONARY,
  VANTOR_OTHER
} vantor_type;
VANTOR_KIT_API vantor_value* vantor_nil(void);
VANTOR_KIT_API vantor_value* vantor_boolean(int boolean);
VANTOR_KIT_API vantor_value* vantor_integer(int64_t integer);
VANTOR_KIT_API vantor_value* vantor_real(double real);
VANTOR_KIT_API vantor_value* vantor_text(const char* text);
VANTOR_KIT_API vantor_value* vantor_bytes(const uint8_t* bytes, size_t size);
VANTOR_KIT_API vantor_value* vantor_array(void);
VANTOR_KIT_API vantor_value* vantor_dictionary(void);
/* Add a copy of the element. Only for an array, and for a dictionary. */
VANTOR_KIT_API void vantor_value_append(vantor_value* array, const vantor_value* element);
VANTOR_KIT_API void vantor_value_put(vantor_value* dictionary, const char* key,
                                     const vantor_value* element);
VANTOR_KIT_API void vantor_value_free(vantor_value* value);

VANTOR_KIT_API vantor_type vantor_value_type(const vantor_value* value);
/* The content, or the last argument if the value has another type. */
VANTOR_KIT_API int vantor_value_boolean(const vantor_value* value, int otherwise);
VANTOR_KIT_API int64_t vantor_value_integer(const vantor_value* value, int64_t otherwise);
VANTOR_KIT_API double vantor_value_real(const vantor_value* value, double otherwise);
/* Null if the value has another type. */
VANTOR_KIT_API char* vantor_value_text(const vantor_value* value);
/* The number of elements of an array or a dictionary, and of bytes; 0 for another type. */
VANTOR_KIT_API size_t vantor_value_count(const vantor_value* value);
/* Copies of the bytes, `size` at most. */
VANTOR_KIT_API void vantor_value_bytes(const vantor_value* value, uint8_t* bytes, size_t size);
/* Nil if there is no such element. */
VANTOR_KIT_API vantor_value* vantor_value_at(const vantor_value* array, size_t index);
VANTOR_KIT_API vantor_value* vantor_value_for_key(const vantor_value* dictionary, const char* key);
/* The key at a place in the order of keys; null if there is none. */
VANTOR_KIT_API char* vantor_value_key(const vantor_value* dictionary, size_t index);
/* For logs and persons. */
VANTOR_KIT_API char* vantor_value_description(const vantor_value* value);

/* The program (vantor/Program.h). Make one first in main(), and free it last. */
typedef struct vantor_program vantor_program;
typedef enum {
  VANTOR_LOG_ERROR = 3,
  VANTOR_LOG_WARNING = 4,
  VANTOR_LOG_NOTICE = 5,
  VANTOR_LOG_INFO = 6,
  VANTOR_LOG_DEBUG = 7
} vantor_log_level;
typedef void (*vantor_action)(void* context);
VANTOR_KIT_API vantor_error vantor_program_make(vantor_program** program);
VANTOR_KIT_API void vantor_program_free(vantor_program* program);
VANTOR_KIT_API const char* vantor_program_name(const vantor_program* program); /* borrowed */
VANTOR_KIT_API const char* vantor_program_root(const vantor_program* program); /* borrowed */
VANTOR_KIT_API void vantor_log(const vantor_program* program, vantor_log_level level,
                               const char* text);
/* Runs as a background service, and returns the exit status for main(). A null action is left out.
 */
VANTOR_KIT_API int vantor_program_run(vantor_program* program, vantor_action started,
                                      vantor_action ending, void* context);
VANTOR_KIT_API void vantor_perform(vantor_program* program, vantor_action action, void* context);

/* Notifications. `object` may be null. */
typedef struct vantor_observation vantor_observation;
typedef void (*vantor_notification_handler)(const char* name, const char* object,
                                            const vantor_value* user_info, void* context);
VANTOR_KIT_API void vantor_post(vantor_program* program, const char* name,
                                const vantor_value* user_info, const char* object);
VANTOR_KIT_API vantor_observation* vantor_observe(vantor_program* program, const char* name,
                                                  vantor_notification_handler handler,
                                                  void* context);
VANTOR_KIT_API void vantor_observation_free(vantor_observation* observation);

/* Settings (vantor/Settings.h). */
typedef struct vantor_settings vantor_settings;
typedef void (*vantor_change_handler)(const char* key, void* context);
VANTOR_KIT_API vantor_settings* vantor_settings_make(vantor_program* program, const char* domain);
VANTOR_KIT_API void vantor_settings_free(vantor_settings* settings);
VANTOR_KIT_API vantor_error vantor_settings_get(vantor_settings* settings, const char* key,
                                                vantor_value** value);
VANTOR_KIT_API vantor_error vantor_settings_all(vantor_settings* settings,
                                                vantor_value** dictionary);
VANTOR_KIT_API vantor_error vantor_settings_set(vantor_settings* settings, const char* key,
                                                const vantor_value* value);
VANTOR_KIT_API vantor_error vantor_settings_remove(vantor_settings* settings, const char* key);
VANTOR_KIT_API vantor_observation* vantor_settings_watch(vantor_settings* settings,
                                                         vantor_change_handler handler,
                                                         void* context);

/* Endpoints (vantor/Endpoints.h). `selectors` ends with null. A handler of an endpoint runs on
 * threads of the library, and returns an array with the values of the reply, which the library
 * frees; null ends the client's connection. All that the handler uses, as its context, outlives the
 * program, not only the endpoint: clients' connections go on until the program ends. */
typedef struct vantor_endpoint vantor_endpoint;
typedef struct vantor_peer vantor_peer;
typedef vantor_value* (*vantor_message_handler)(const char* selector, const vantor_value* arguments,
                                                void* context);
VANTOR_KIT_API vantor_error vantor_endpoint_serve(vantor_program* program, const char* name,
                                                  const char* const* selectors,
                                                  vantor_message_handler handler, void* context,
                                                  vantor_endpoint** endpoint);
VANTOR_KIT_API void vantor_endpoint_free(vantor_endpoint* endpoint);
VANTOR_KIT_API vantor_error vantor_peer_look_up(vantor_program* program, const char* name,
                                                const char* const* selectors, uint32_t time_out_ms,
                                                vantor_peer** peer);
/* `arguments` is an array, or null for none. */
VANTOR_KIT_API vantor_error vantor_peer_call(vantor_peer* peer, const char* selector,
                                             const vantor_value* arguments, uint32_t time_out_ms,
                                             vantor_value** reply);
VANTOR_KIT_API void vantor_peer_free(vantor_peer* peer);

/* The service manager (vantor/ServiceManager.h). */
/* A dictionary: each label with its process, 0 if it does not run, and nil if that is not known. */
VANTOR_KIT_API vantor_error vantor_services(vantor_program* program, vantor_value** services);
VANTOR_KIT_API vantor_error vantor_service_start(vantor_program* program, const char* label);
VANTOR_KIT_API vantor_error vantor_service_stop(vantor_program* program, const char* label);

#ifdef __cplusplus
}
#endif

#endif
