/*
 * Which controller this is, how many there are, how it was booted, and what state it is in.
 */
#ifndef KESTA_CONTROLLER_H
#define KESTA_CONTROLLER_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

/* What to ask for. */
#define KESTA_CPINFO_OWN_NUMBER 0       /* 0..3, cached, written to /etc/mycntno */
#define KESTA_CPINFO_CONTROLLER_COUNT 1 /* 1..4, written to /etc/cntnum */
#define KESTA_CPINFO_BOOT_MODE 2        /* KESTA_BOOT_* */
#define KESTA_CPINFO_EEPROM_WWN 3
#define KESTA_CPINFO_OWN_NUMBER_NO_FILE 4 /* as 0, but nothing is written */
#define KESTA_CPINFO_EEPROM_SERIALNO 5

#define KESTA_BOOT_NORMAL 0
#define KESTA_BOOT_SUSPEND 1
#define KESTA_BOOT_INITCONF 2

/*
 * Runs the option's platform command and interprets the first line of its output.
 * Returns the value (options 0, 1, 2, 4), 0 (3 and 5), KESTA_ERR_CPINFO if there is no usable
 * answer, KESTA_ERR_ARGUMENT for an option outside 0..5.
 */
KESTA_API int kestal_execute_command_by_popen(int option);

/*
 * The same behind the caches of the process: the own number is asked for once. Also makes the own
 * number known to the inner lock, so call it (option 0 or 4) before anything that locks.
 * Returns the value or a negative code.
 */
KESTA_API int kestal_get_cnt_num_from_cpinfo(int option);

/* Reads the number back from its file: option 0 /etc/mycntno, 1 /etc/cntnum. Returns it, or
 * KESTA_ERR. The caches are not touched. */
KESTA_API int kestal_get_cnt_num_file(int option);

/* Asks for both numbers, which writes both files. Returns 0, KESTA_ERR_CNTFILE or
 * KESTA_ERR_ARGUMENT (null pointer). */
KESTA_API int kestal_mk_cntfile_and_contnumfile(int *own_number, int *controller_count);

/* Returns 0 if the controller is the master, 1 if not, KESTA_ERR_ARGUMENT outside 0..3, KESTA_ERR
 * if the master can't be asked for. */
KESTA_API int kestal_master_cnt_check(int cntno);

/*
 * The firmware's status of a controller: the plain form knows controllers 0 and 1, the extended
 * one 0 to 3; any other number has status 0. With log_flag 1 a status other than 0 is logged.
 * Return the status (0..15) or KESTA_ERR.
 */
KESTA_API int kestal_san_fw_get_cntstatus(int log_flag, int cntno);
KESTA_API int kestal_san_fw_get_cntstatus_ex(int log_flag, int cntno);

KESTA_END_DECLS

#endif
