/* Vital product data of the machine. */
#ifndef ORBEL_PLATFORM_VPDD_H
#define ORBEL_PLATFORM_VPDD_H

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the machine record, and where its text fields lie in it. Text
 * fields are ASCII, padded with blanks or zeros, not terminated. */
#define VPDD_MACHINE_RECORD_SIZE 1106
#define VPDD_UUID_OFFSET 0         /* 32 hexadecimal characters */
#define VPDD_UUID_LENGTH 32
#define VPDD_SERIAL_OFFSET 32      /* serial number */
#define VPDD_SERIAL_LENGTH 16
#define VPDD_MTM_OFFSET 48         /* machine type and model */
#define VPDD_MTM_LENGTH 16

/* Copies the machine record into `buffer` (at most `size` bytes).
 * Returns 0 on success, a non-zero error code otherwise. */
int vpdd_machine_vpd_read(unsigned char* buffer, int size);

#ifdef __cplusplus
}
#endif

#endif /* ORBEL_PLATFORM_VPDD_H */
