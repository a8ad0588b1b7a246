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
 * Writes them with the VPD tool; a null text is left out. The texts go into a shell command as they are.
 * Returns 0, the tool's exit code, KESTA_ERR, or KESTA_ERR_ARGUMENT if they make a command of more than
 * 511 characters.
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

KESTA_END_DECLS

#endif
