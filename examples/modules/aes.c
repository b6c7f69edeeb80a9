/* SPDX-License-Identifier: MIT */
/* A message of three blocks, enciphered in two calls and deciphered in one. */
#include <common/aes.h>
#include <common/self_log.h>

#include <pthread.h>
#include <stdio.h>
#include <string.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

/* The module has no lock of its own. A mutex that only this function takes cannot fail. */
static pthread_mutex_t giAesLk = PTHREAD_MUTEX_INITIALIZER;

int main(void)
{
    static const uint8_t key[16] = "0123456789abcdef", iv[16] = "an initial value";
    static const char message[49] = "attack at dawn, or at noon, or not before night.";
    uint8_t plain[48], cipher[48], back[48];
    memcpy(plain, message, sizeof plain); /* encryption changes its input */
    (void)pthread_mutex_lock(&giAesLk);
    AES128_CBC_encrypt_buffer(cipher, plain, 16, key, iv);
    AES128_CBC_encrypt_buffer(cipher + 16, plain + 16, 32, NULL, NULL); /* continues */
    AES128_CBC_decrypt_buffer(back, cipher, sizeof back, key, iv);
    (void)pthread_mutex_unlock(&giAesLk);

    printf("%.48s\n", (const char *)back);
    return memcmp(back, message, sizeof back);
}
