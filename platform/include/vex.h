/* VEX: the controller's configuration-variable and event service.
 *
 * C interface shared by the controller's library and the simulated platform.
 * Every call returns non-zero on success and 0 on failure. Calls may come
 * from any thread. The event callback runs on a thread owned by the
 * implementation, never inside a signal handler.
 */
#ifndef ORBEL_PLATFORM_VEX_H
#define ORBEL_PLATFORM_VEX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of event delivered to the callback. */
typedef enum {
    VEX_EVENT_RAISED = 1,      /* an event was raised by another process */
    VEX_EVENT_VAR_CHANGED = 2, /* a variable of the same name was set */
} EVENT_TYPE;

/* The callback receives the kind, the event name, the payload length and
 * the payload (both 0/NULL when the event carries none). The name and the
 * payload are valid only during the call. */
typedef void (*vex_event_callback_t)(EVENT_TYPE type, char* eventName, int dataLen, void* data);

/* Registers the calling process as application `appName` with its
 * four-character code. */
int vex_init(const char* appName, unsigned int appCode);
/* The code under which `appName` may call vex_init, from the table of
 * applications that the platform knows: non-zero and `*appCode` set when
 * the name is in it. Optional: the simulated platform has it (an author
 * registers a new plug-in's name with `orbel-sim vex app add`); a platform
 * without it leaves the symbol null, and the library then knows only its
 * own table. */
int vex_app_code(const char* appName, unsigned int* appCode) __attribute__((weak));
/* Subscribes to events named `eventName`. */
int vex_event_register(const char* eventName);
/* Sets the one callback that receives the subscribed events. */
int vex_event_callback_register(vex_event_callback_t callback);
/* Raises an event: every process subscribed to `eventName` gets it. */
int vex_event_raise(const char* eventName, const void* data, int dataLen);

/* Typed variables. A get of a variable that is missing, or whose stored
 * text does not fit the type, fails. `persist` keeps a value across a
 * controller restart. */
int vex_config_get_bool(const char* name, int* value);
int vex_config_get_int(const char* name, int* value);
int vex_config_get_int64(const char* name, long long* value);
/* Copies at most size-1 bytes and a terminating zero. */
int vex_config_get_str_n(const char* name, char* buffer, int size);
int vex_config_set_bool(const char* name, int value, int persist);
int vex_config_set_int(const char* name, int value, int persist);
int vex_config_set_int64(const char* name, long long value, int persist);
/* Stores at most `size` bytes of `value` (up to its terminating zero). */
int vex_config_set_str_n(const char* name, const char* value, int size, int persist);

#ifdef __cplusplus
}
#endif

#endif /* ORBEL_PLATFORM_VEX_H */
