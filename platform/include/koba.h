/* KOBA: the controller's settings store.
 *
 * Every call takes four instance selectors first (the library always passes
 * -1, 0, 0, 0: the controller's own instance), then the variable name and a
 * word that receives the store's error code. Calls return 0 on success and
 * the error code otherwise. Calls may come from any thread.
 */
#ifndef ORBEL_PLATFORM_KOBA_H
#define ORBEL_PLATFORM_KOBA_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KOBA_OK = 0,
    KOBA_ERR_NOT_FOUND = 1,    /* no such variable */
    KOBA_ERR_IO = 2,           /* the store could not be read or written */
    KOBA_ERR_FORMAT = 3,       /* the value does not fit the variable's type */
    KOBA_ERR_BUFFER = 4,       /* the caller's buffer is too small */
};

int GetVarValueBOOL(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int* value);
int GetVarValueSINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int* value);
int GetVarValueUINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    unsigned int* value);
/* Copies at most size-1 bytes and a terminating zero. */
int GetVarValueSTRING(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                      char* buffer, int size);

int SetVarValueBOOL(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int value);
int SetVarValueSINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    int value);
int SetVarValueUINT(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                    unsigned int value);
int SetVarValueSTRING(int inst0, int inst1, int inst2, int inst3, const char* name, int* errCode,
                      const char* value);

#ifdef __cplusplus
}
#endif

#endif /* ORBEL_PLATFORM_KOBA_H */
