// orvldap_modify.cpp - attribute updates and the DN forms of standalone
// (local counterpart) objects.

#include <cstring>
#include <string>

#include "orv_internal.hpp"
#include "orvldap.h"
#include "orvldap_session.h"

extern "C" {

// "uid=" + uid with , \ = > < + " # ; each preceded by a backslash + ","
// + the people base.
char* get_standalone_dn_from_uid(const char* uid) {
    ORV_TRACE();
    if (!uid) return nullptr;
    std::string dn = "uid=";
    for (const char* p = uid; *p; ++p) {
        if (strchr(",\\=><+\"#;", *p)) dn += '\\';
        dn += *p;
    }
    dn += ',';
    dn += ORV_PEOPLE_SRCH_BASE;
    ORV_DEBUG("Standalone DN", dn);
    return _orvlib_dupString(dn.c_str());
}

}  // extern "C"
