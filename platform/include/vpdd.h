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

/* Results of vpdd_machine_vpd_read. */
enum {
    VPDD_OK = 0,
    VPDD_ERR_ARG = 1, /* null buffer, or smaller than the record */
    VPDD_ERR_IO = 2,  /* the record could not be read (or is damaged) */
};

/* Copies the machine record into `buffer`, which must hold at least
 * VPDD_MACHINE_RECORD_SIZE bytes. Returns VPDD_OK, or an error code and
 * leaves the buffer unchanged. Safe to call from any thread. */
int vpdd_machine_vpd_read(unsigned char* buffer, int size);

#ifdef __cplusplus
}
#endif

#endif /* ORBEL_PLATFORM_VPDD_H */
