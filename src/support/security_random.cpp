// Random bytes from the platform's crypto provider, raw or as hexadecimal text.
#include <stdlib.h>
#include <windows.h>
#include <wincrypt.h>

#include "support/log.h"
#include "support/security.h"

// Hexadecimal text: the raw length is size / 2 and the text is cut to size - 1
// digits, so an even size loses its last digit. The caller's buffer holds
// size + 1 characters, and nothing is written past that.
int RndFill(char *buffer, int size, int hex)
{
    static const char digits[] = "0123456789abcdef";
    HCRYPTPROV provider = 0;
    unsigned char *raw = NULL;
    unsigned char *temporary = NULL;
    int rawLength = 0;
    int result = -1;
    DWORD code = 0;

    if (buffer == NULL || size < 0) {
        code = ERROR_INVALID_PARAMETER;
        goto failed;
    }
    if (hex) {
        rawLength = size / 2;
        temporary = (unsigned char *)malloc((size_t)rawLength + 1);
        if (temporary == NULL) {
            code = GetLastError();
            LogReport("ERROR: Out of memory.\n");
            goto failed;
        }
        raw = temporary;
    } else {
        rawLength = size;
        raw = (unsigned char *)buffer;
    }

    if (!CryptAcquireContextA(&provider, "tz", NULL, PROV_RSA_FULL, 0) &&
        !CryptAcquireContextA(&provider, "tz", NULL, PROV_RSA_FULL, CRYPT_NEWKEYSET)) {
        code = GetLastError();
        provider = 0;
        goto failed;
    }
    if (!CryptGenRandom(provider, (DWORD)rawLength, raw)) {
        code = GetLastError();
        goto failed;
    }

    if (hex) {
        for (int i = 0; i < rawLength; i++) {
            buffer[2 * i] = digits[raw[i] >> 4];
            buffer[2 * i + 1] = digits[raw[i] & 15];
        }
        // Two digits a byte end at index 2 * rawLength, which is size for
        // an even size and size - 1 for an odd one; the text ends at size - 1.
        buffer[2 * rawLength] = 0;
        buffer[size > 0 ? size - 1 : 0] = 0;
    }
    LogWrite("Generated [%d] bytes random blob.\n", size);
    result = 0;
    goto done;

failed:
    LogReport("ERROR: Cannot generate random sequence.\nError code is : 0x%x.\n", (unsigned int)code);
done:
    if (provider != 0)
        CryptReleaseContext(provider, 0);
    if (temporary != NULL) {
        LogWrite("Freeing raw...\n");
        free(temporary);
    }
    return result;
}
