// Reading values out of entries built from arbitrary attribute lists (the
// general reader and the external-relationship reader): any
// ids (known, unknown, negative), names, NULL value arrays, empty value
// arrays, repeated attributes and more attributes than an entry's first
// array holds, in every operation mode.  The values read back are always a
// copy of the first matching attribute's values, and every allocation comes
// back.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "orvldap.h"
#include "orvldap_entry.h"
#include "orvldap_relationship.h"
#include "orvldap_utils.h"

namespace {

// The values the library should answer for a plain read of id: the first
// attribute with that id and at least one value.
char** first_values(ORVLibEntry* e, int id) {
    for (ORVLibAttribute** a = e->orvlibEntryAttrData; *a; ++a)
        if ((*a)->attrId == id && (*a)->attrVals && (*a)->attrVals[0]) return (*a)->attrVals;
    return nullptr;
}

bool same_values(char** a, char** b) {
    size_t i = 0;
    for (; a[i] && b[i]; ++i)
        if (std::strcmp(a[i], b[i]) != 0) return false;
    return !a[i] && !b[i];
}

// A handle that is never connected: the relationship reader only asks for
// one being there.
LDAP* fake_ld() {
    static LDAP* ld = [] {
        LDAP* h = nullptr;
        ldap_initialize(&h, "ldap://127.0.0.1:9");
        return h;
    }();
    return ld;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int mode = in.ConsumeIntegralInRange(0, 2);
    std::string logon = orvfuzz::c_text(in, 24);
    partition_info partition{};
    partition.user_logon_attribute_name = logon.empty() ? nullptr : &logon[0];
    ORV_OPERATION_MODE = mode;
    PARTITION_INFO = in.ConsumeBool() ? &partition : nullptr;

    {
        orvfuzz::AllocationBalance balance;
        ORVLibEntry* entry = orv::new_entry();
        orvfuzz::check(entry != nullptr, "new entry");
        const int count = in.ConsumeIntegralInRange(0, 160);
        std::vector<int> ids;
        for (int i = 0; i < count && in.remaining_bytes() > 0; ++i) {
            const std::string name = orvfuzz::c_text(in, 40);
            int id;
            switch (in.ConsumeIntegralInRange(0, 2)) {
            case 0: id = getMappedAttrId(name.c_str()); break;
            case 1: id = in.ConsumeIntegralInRange(-2, 140); break;
            default: id = in.ConsumeIntegral<int>(); break;
            }
            ids.push_back(id);
            const int nvals = in.ConsumeIntegralInRange(-1, 6);
            std::vector<std::string> vals;
            for (int v = 0; v < nvals; ++v) vals.push_back(orvfuzz::c_text(in, 256));
            std::vector<char*> ptrs;
            for (std::string& v : vals) ptrs.push_back(&v[0]);
            ptrs.push_back(nullptr);
            orvfuzz::check(orv::append_attribute(entry, id, name.c_str(), nvals < 0 ? nullptr : ptrs.data()),
                           "append_attribute");
        }
        if (in.ConsumeBool()) {
            // A relationship record: its object descriptions (127, 128) are
            // read from the objects named by 111 and 112.
            char top[] = "top", rel[] = "pexRelationshipObject";
            char* classes[] = {top, rel, nullptr};
            orv::append_attribute(entry, 18, "objectClass", classes);
            ids.push_back(18);
        }
        orvfuzz::check(orv::attribute_count(entry) == static_cast<int>(ids.size()), "attribute count");

        ids.push_back(in.ConsumeIntegral<int>());
        for (int id = -1; id <= 130; ++id) ids.push_back(id);
        for (int id : ids) {
            char** vals = orvlib_get_entry_vals(entry, id);
            if (vals && id != 2 && id != 3) {
                char** expected = first_values(entry, id);
                orvfuzz::check(expected && same_values(vals, expected), "values of id", std::to_string(id));
            }
            if (!vals && id != 2 && id != 3)
                orvfuzz::check(first_values(entry, id) == nullptr, "values of id missing", std::to_string(id));
            orvlib_free_values(vals);
            // No session: the relationship reader answers from the record.
            char** er = orvlib_get_entry_er_vals(fake_ld(), entry, id);
            if (er && id != 127 && id != 128)
                orvfuzz::check(first_values(entry, id) != nullptr, "er values of id", std::to_string(id));
            orvlib_free_values(er);
        }
        orvfuzz::check(orvlib_get_entry_er_vals(nullptr, entry, 1) == nullptr && ldapErrCode == 3007,
                       "er values without a handle");
        orvlib_orvlibentry_free(entry);
        orvfuzz::check(orvlib_get_entry_vals(nullptr, 1) == nullptr, "NULL entry");
    }
    PARTITION_INFO = nullptr;
    ORV_OPERATION_MODE = 0;
    return 0;
}
