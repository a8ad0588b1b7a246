/*
 * Identity of a controller (vital product data): WWN, serial number, GUID and model. One function for
 * each place that they are read from or written to.
 *
 * A WWN and a serial number have 16 characters, a GUID 36 as text (8-4-4-4-12 hexadecimal digits) and 16
 * bytes.
 */
#ifndef KESTA_IDENTITY_H
#define KESTA_IDENTITY_H

#include "kesta/base.h"

KESTA_BEGIN_DECLS

#define KESTA_WWN_LENGTH 16
#define KESTA_SERIALNO_LENGTH 16
#define KESTA_GUID_TEXT_LENGTH 36
#define KESTA_GUID_BYTES 16
#define KESTA_MODEL_SIZE 64

/*
 * Read from the eeprom. The buffers have 17 bytes; the first 16 are written, the 17th is left to the
 * caller.
 * Return 0, KESTA_ERR_CPINFO or KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_get_wwn_by_eeprom(char *wwn);
KESTA_API int kestal_get_serialno_by_eeprom(char *serialno);

/*
 * model  64 zeroed bytes; null: nothing is read
 * Returns 0, the command's exit code, or KESTA_ERR.
 */
KESTA_API int kestal_get_model_by_eeprom(char *model);

/*
 * Reads WWN (17 bytes), serial number (17) and GUID text (37) with the VPD tool. A null buffer ends the
 * reading before it.
 * Returns 0, the tool's exit code, or KESTA_ERR.
 */
KESTA_API int kestal_get_vpn_info(char *wwn, char *serialno, char *guid);

/*
 * Writes them with the VPD tool; a null text is left out. The texts become words of a shell command.
 * Returns 0, the tool's exit code, KESTA_ERR, or KESTA_ERR_ARGUMENT, and runs nothing then: a text is no
 * shell word (shell_word.h), or the command has more than 511 characters.
 */
KESTA_API int kestal_set_vpn_info(const char *wwn, const char *serialno, const char *guid);

/*
 * Flash files: /etc/kesta_sys/wwn and /etc/cp_guid. The first 16 (36) characters of the first line count;
 * a file that is missing is an empty value. The buffers have 17 (37) bytes.
 * Return 0, KESTA_ERR or KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_read_flash_wwn(char *wwn);
KESTA_API int kestal_set_flash_wwn(const char *wwn);
KESTA_API int kestal_read_flash_guid(char *guid);

/*
 * A GUID between its two forms. Upper- and lower-case digits are read, lower-case ones written.
 *
 * bytes  16 bytes, written only if the text is a GUID
 * text   37 bytes for writing
 *
 * Return 0, KESTA_ERR (the text is no GUID) or KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_guid_str2bin(const char *text, char *bytes);
KESTA_API int kestal_guid_bin2str(const char *bytes, char *text);

/*
 * Flows that carry a changed identity into the saved environments. They work in a staging tree,
 * /var/run/kesta_sys/env_restore2, with a folder 0, 1, ... for each controller and C for what all
 * share. A failure ends a flow and leaves the tree as it is; the next one opens it anew. One flow at a
 * time on a controller; they take no lock for that.
 *
 * The steps. Each returns 0, KESTA_ERR, or KESTA_ERR_ARGUMENT (null, a text that is no shell word or too
 * long; nothing is run or written then).
 */

/*
 * Unpacks the archive of a folder into the tree.
 * flag  1: the current backup is brought to the temporary cache first
 */
KESTA_API int kestal_update_vpdinfo_distribute_open(const char *directory, int flag);

/* Sets WWN and serial number in the boot environments of controllers 0 and 1; a null text is left out. */
KESTA_API int kestal_update_vpdinfo_eeprom(const char *wwn, const char *serialno);

/* Writes the GUID file that all controllers share. */
KESTA_API int kestal_update_vpdinfo_guid(const char *guid);

/*
 * Names the controllers after the new WWN (WWN-0, WWN-1), and writes the hosts table; leaves all as it is
 * where this controller's name is not the one made of the old WWN: it was named by hand. After
 * kestal_update_vpdinfo_eeprom only: before it there are no controllers to write for.
 *
 * Returns 0; 1 (a file could not be written); the platform's result; what the own number could not be
 * had with. Where the present name can't be read: KESTA_ERR, or in the first call of a process the own
 * number, which is 0 on controller 0.
 */
KESTA_API int kestal_update_host_info(const char *wwn_new, const char *wwn_old);

/*
 * flag  0: copies this controller's files from the tree to the running system, and packs the archive
 *       of the flash folder. 1: packs the archive of the merge cache, and writes it to the accept slot.
 *       Another one: packs only.
 */
KESTA_API int kestal_update_vpdinfo_collect_close(int flag);

/*
 * The VPD tool's identity goes into this controller's saved environment and running system, where it
 * differs from the values given. A tool without a valid identity gets the values given instead.
 *
 * wwn, serialno, guid  17, 17 and 37 bytes, in and out; the first 16, 16 and 36 count and are written
 *
 * Returns 1 (changed), 0 (nothing to do, or the tool can't be read), KESTA_ERR, KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_vpd_to_flash(char *wwn, char *serialno, char *guid);

/*
 * The disk's identity goes into the VPD tool, where the two differ.
 *
 * wwn, serialno, guid  16 characters, 16 characters, 16 bytes; null: taken from the NV image
 *
 * Returns 0 in every case: traces tell of failures.
 */
KESTA_API int kestal_vpd_to_hdd(const char *wwn, const char *serialno, const char *guid);

/*
 * Controller 0's identity goes into the saved environment that this controller is to start with: the
 * accept slot gets it, the version is raised, the slots are named anew. Does nothing where both WWNs and
 * both serial numbers are equal.
 *
 * Returns 1 (changed), 0 (nothing to do), KESTA_ERR, KESTA_ERR_ARGUMENT (null).
 */
KESTA_API int kestal_CONT0_to_CONT1(const char *cnt0_wwn, const char *own_wwn, const char *hdd0_serialno,
                                    const char *hdd1_serialno);

KESTA_END_DECLS

#endif
