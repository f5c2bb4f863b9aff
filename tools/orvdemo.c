/*
 * orvdemo - a short tour of orvlib.  Without a directory it shows status
 * texts, a generated GUID and how typed filters are repaired.
 */
#include <stdio.h>
#include <orvldap.h>
#include <orvldap_utils.h>

static void show_status(int code) {
    char* text = NULL;
    int saved = ldapErrCode;
    ldapErrCode = code;
    orvlib_get_last_error(NULL, &text);
    printf("  %5d  %s\n", code, text ? text : "(none)");
    orvlib_memfree(text);
    ldapErrCode = saved;
}

static void show_filter(const char* typed, int type) {
    char* out = NULL;
    _setFilter(typed, type, &out);
    printf("  %-22s -> %s\n", typed ? typed : "(null)", out ? out : "(null)");
    orvlib_memfree(out);
}

int main(void) {
    static const int codes[] = {0, 49, 3007, 3009, 3012, 3020, 3035, 3041};
    char* guid;
    unsigned i;

    printf("orvlib %s, directory root %s\n\n", ORVLIB_CLIENT_LIBRARY_VERSION, ORV_ROOT_SUFFIX);

    printf("Status texts:\n");
    for (i = 0; i < sizeof codes / sizeof codes[0]; ++i) show_status(codes[i]);

    guid = orvlib_create_guid();
    printf("\nA new GUID: %s\n", guid ? guid : "(failed)");
    orvlib_memfree(guid);

    printf("\nFilters as typed and as sent (people search):\n");
    show_filter("jsmith", 5001);
    show_filter("uid=jsmith", 5001);
    show_filter("(cn=Smith*", 5001);
    show_filter(NULL, 5001);
    printf("Group search:\n");
    show_filter("Developers", 5002);

    printf("\nOutstanding allocations: %d\n", _memCnt);
    return _memCnt == 0 ? 0 : 1;
}
