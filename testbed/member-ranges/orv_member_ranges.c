/*
 * orv_member_ranges.c - a test-bed plugin for 389 Directory Server that
 * makes the server hand out the members of large groups the way Active
 * Directory does, so that clients meet ranged member retrieval against a
 * real server holding real data:
 *
 * - a request for "member" of an entry with more than 1500 "member" values
 *   answers "member;range=0-1499" with the first 1500 values;
 * - a request for "member;range=<low>-<high>" (or "<low>-*") answers at
 *   most 1500 values from position <low>, named "member;range=<low>-<end>",
 *   the last slice "member;range=<low>-*"; a range that starts past the
 *   last value answers no attribute;
 * - groups of 1500 members or fewer answer a plain "member" request as
 *   usual;
 * - the root entry lists the paged-results control before the others (as
 *   a domain controller does), so that clients choose paged results.
 *
 * The values come from the entry's own "member" attribute, in the order
 * the server stores them; membership filters ("(member=...)") work as
 * usual.  Requests for all attributes ("*") are not limited.
 *
 * The plugin uses the computed-attribute hook of the server: the hook is
 * asked first for every attribute a client names, and its answer replaces
 * the stored attribute.  The attribute name sent back is the client's own
 * spelling unless changed here; the server's computed-attribute context
 * starts with the output BER, the attrsonly flag and that name, the layout
 * every 389 Directory Server release has used, mirrored below.
 *
 * Test bed only: never part of a product installation.
 */
#include <dirsrv/slapi-plugin.h>

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#define RANGE_WINDOW 1500L
#define PAGED_RESULTS_OID "1.2.840.113556.1.4.319"

static const char kSubsystem[] = "orv-member-ranges";

static Slapi_PluginDesc kDescription = {"orv-member-ranges", "ORV test bed", "1.0",
                                        "member values in ranges of 1500, as a domain controller"};

/* The server's computed-attribute context (see the file comment). */
struct member_ranges_context {
    BerElement* ber;
    int attrsonly;
    char* requested_type;
    Slapi_PBlock* pb;
};

/* Parses "member;range=<low>-<high>" or "member;range=<low>-*" (any case).
 * Returns 1 with *low and *high (-1 for "*"), 0 for any other name. */
static int parse_range(const char* name, long* low, long* high) {
    static const char prefix[] = "member;range=";
    const size_t n = sizeof prefix - 1;
    if (strncasecmp(name, prefix, n) != 0) return 0;
    const char* p = name + n;
    if (!isdigit((unsigned char)*p)) return 0;
    char* end = NULL;
    errno = 0;
    long a = strtol(p, &end, 10);
    if (errno || *end != '-') return 0;
    p = end + 1;
    if (p[0] == '*' && p[1] == '\0') {
        *low = a;
        *high = -1;
        return 1;
    }
    if (!isdigit((unsigned char)*p)) return 0;
    long b = strtol(p, &end, 10);
    if (errno || *end != '\0' || b < a) return 0;
    *low = a;
    *high = b;
    return 1;
}

/* Sends attribute a under the name `name` instead of the requested one. */
static int output_named(computed_attr_context* c, slapi_compute_output_t outputfn, Slapi_Attr* a,
                        Slapi_Entry* e, char* name) {
    struct member_ranges_context* ctx = (struct member_ranges_context*)c;
    char* requested = ctx->requested_type;
    ctx->requested_type = name;
    int rc = (*outputfn)(c, a, e);
    ctx->requested_type = requested;
    return rc;
}

static int member_slice(computed_attr_context* c, const char* requested, Slapi_Entry* e,
                        slapi_compute_output_t outputfn) {
    long low = 0;
    long high = RANGE_WINDOW - 1;
    const int plain = strcasecmp(requested, "member") == 0;
    if (!plain && !parse_range(requested, &low, &high)) return COMPUTE_CALLBACK_CONTINUE;

    Slapi_Attr* stored = NULL;
    int count = 0;
    if (slapi_entry_attr_find(e, "member", &stored) == 0 && stored)
        slapi_attr_get_numvalues(stored, &count);
    if (plain && count <= RANGE_WINDOW) return COMPUTE_CALLBACK_CONTINUE;
    if (low >= count) return COMPUTE_CALLBACK_DONE; /* nothing in that range */

    /* At most one window per request, whatever the client asked for. */
    long last = low + RANGE_WINDOW - 1;
    if (high >= 0 && high < last) last = high;
    const int final_slice = last >= count - 1;
    if (final_slice) last = count - 1;

    char name[64];
    if (final_slice)
        snprintf(name, sizeof name, "member;range=%ld-*", low);
    else
        snprintf(name, sizeof name, "member;range=%ld-%ld", low, last);

    Slapi_Attr* slice = slapi_attr_new();
    slapi_attr_init(slice, "member");
    Slapi_Value* v = NULL;
    long i = 0;
    for (int hint = slapi_attr_first_value(stored, &v); hint != -1 && i <= last;
         hint = slapi_attr_next_value(stored, hint, &v), ++i) {
        if (i >= low) slapi_attr_add_value(slice, v);
    }
    int rc = output_named(c, outputfn, slice, e, name);
    slapi_attr_free(&slice);
    return rc;
}

static int paged_results_first(computed_attr_context* c, Slapi_Entry* e, slapi_compute_output_t outputfn) {
    const char* ndn = slapi_entry_get_ndn(e);
    if (ndn && *ndn) return COMPUTE_CALLBACK_CONTINUE; /* only the root entry */
    Slapi_Attr* stored = NULL;
    if (slapi_entry_attr_find(e, "supportedControl", &stored) != 0 || !stored)
        return COMPUTE_CALLBACK_CONTINUE;
    Slapi_Attr* ordered = slapi_attr_new();
    slapi_attr_init(ordered, "supportedControl");
    Slapi_Value* first = slapi_value_new_string(PAGED_RESULTS_OID);
    slapi_attr_add_value(ordered, first);
    slapi_value_free(&first);
    Slapi_Value* v = NULL;
    for (int hint = slapi_attr_first_value(stored, &v); hint != -1; hint = slapi_attr_next_value(stored, hint, &v)) {
        const char* oid = slapi_value_get_string(v);
        if (oid && strcmp(oid, PAGED_RESULTS_OID) == 0) continue;
        slapi_attr_add_value(ordered, v);
    }
    int rc = (*outputfn)(c, ordered, e);
    slapi_attr_free(&ordered);
    return rc;
}

static int evaluate(computed_attr_context* c, char* type, Slapi_Entry* e, slapi_compute_output_t outputfn) {
    if (!c || !type || !e) return COMPUTE_CALLBACK_CONTINUE;
    /* The client's spelling keeps the range option whatever the server's
     * normalisation does with it. */
    const char* requested = ((struct member_ranges_context*)c)->requested_type;
    if (!requested) requested = type;
    if (strncasecmp(type, "member", 6) == 0 && (type[6] == '\0' || type[6] == ';'))
        return member_slice(c, requested, e, outputfn);
    if (strcasecmp(type, "supportedcontrol") == 0) return paged_results_first(c, e, outputfn);
    return COMPUTE_CALLBACK_CONTINUE;
}

static int start(Slapi_PBlock* pb) {
    (void)pb;
    if (slapi_compute_add_evaluator(evaluate) != 0) {
        slapi_log_error(SLAPI_LOG_FATAL, (char*)kSubsystem, "cannot register the member ranges\n");
        return -1;
    }
    slapi_log_error(SLAPI_LOG_FATAL, (char*)kSubsystem, "member values in ranges of %ld\n", RANGE_WINDOW);
    return 0;
}

int orv_member_ranges_init(Slapi_PBlock* pb) {
    if (slapi_pblock_set(pb, SLAPI_PLUGIN_VERSION, (void*)SLAPI_PLUGIN_VERSION_01) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_DESCRIPTION, (void*)&kDescription) != 0 ||
        slapi_pblock_set(pb, SLAPI_PLUGIN_START_FN, (void*)start) != 0)
        return -1;
    return 0;
}
