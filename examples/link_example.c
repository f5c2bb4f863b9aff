/* Linking orvlib from C: cc app.c -lorvlib -lldap -llber */
#include <stdio.h>
#include <orvldap.h>

int main(void) {
    char* text = NULL;
    int status = orvlib_get_last_error(NULL, &text); /* 3008 before any call */
    char* guid = orvlib_create_guid();
    printf("status %d: %s\nguid %s\n", status, text ? text : "", guid ? guid : "");
    orvlib_memfree(text);
    orvlib_memfree(guid);
    return (status == 3008 && guid != NULL && _memCnt == 0) ? 0 : 1;
}
