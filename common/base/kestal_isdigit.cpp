#include "kesta/process.h"
#include "trace.h"

int kestal_isdigit(const char *text)
{
    TRACE(5, "[isdigit] START");
    if (!text) {
        FAILURE(ARGUMENT, 0, 1, "[isdigit] buffer is NULL");
        return KESTA_ERR;
    }
    if (*text == '\0') {
        FAILURE(CONTENT, 0, 1, "[isdigit] string length  0.");
        return KESTA_ERR;
    }
    for (const char *c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') {  // the POSIX locale's digits, whatever locale is set
            FAILURE(CONTENT, 0, 1, "[isdigit] isdigit ERROR buf=(%s)", text);
            return KESTA_ERR;
        }
    }
    TRACE(5, "[isdigit] END");
    return KESTA_OK;
}
