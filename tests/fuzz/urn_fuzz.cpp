// Object and relationship URNs as callers pass them: the repository id of
// an object URN, the relationship id of a relationship URN, and the search
// filter made of a list of object URNs.  An id never holds a ":", and a
// URN never adds a term of its own to the filter.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "orvldap.h"
#include "orvldap_relationship.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    std::vector<std::string> urns;
    const int n = in.ConsumeIntegralInRange(1, 8);
    for (int i = 0; i < n; ++i) urns.push_back(orvfuzz::c_text(in, 512));

    orvfuzz::AllocationBalance balance;
    for (const std::string& urn : urns) {
        char* rep = get_repository_id_from_urn(urn.c_str());
        if (rep) {
            orvfuzz::check(urn.find("urn:morvane") != std::string::npos, "repository id without urn:morvane", urn);
            orvfuzz::check(*rep && !std::strchr(rep, ':') && urn.find(rep) != std::string::npos,
                           "repository id not a field of the URN", urn);
        } else {
            orvfuzz::check(ldapErrCode == 3008, "status of a URN without repository id", urn);
        }
        orvlib_memfree(rep);

        char* id = get_relationshipId_from_URN(urn.c_str());
        orvfuzz::check(id != nullptr, "relationship id", urn);
        const size_t colon = urn.rfind(':');
        orvfuzz::check(urn.substr(colon == std::string::npos ? 0 : colon + 1) == id, "relationship id text", urn);
        orvlib_memfree(id);
    }

    std::vector<char*> list;
    for (std::string& urn : urns) list.push_back(&urn[0]);
    list.push_back(nullptr);
    char* filter = create_filter_object_urns(list.data());
    orvfuzz::check(filter != nullptr, "URN filter");
    size_t open = 0, close = 0;
    for (const char* p = filter; *p; ++p) {
        open += *p == '(';
        close += *p == ')';
    }
    orvfuzz::check(open == close && open == 1 + 2 * urns.size(), "URN filter terms", filter);
    orvlib_memfree(filter);
    return 0;
}
