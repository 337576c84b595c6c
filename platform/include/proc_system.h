/* Shell execution on the controller. */
#ifndef ORBEL_PLATFORM_PROC_SYSTEM_H
#define ORBEL_PLATFORM_PROC_SYSTEM_H

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `command` through the shell and waits for it. Returns the command's
 * exit status (0..255), or -1 when it could not be started or was killed by
 * a signal. Safe to call from any thread. */
int proc_system(const char* command);

#ifdef __cplusplus
}
#endif

#endif /* ORBEL_PLATFORM_PROC_SYSTEM_H */
