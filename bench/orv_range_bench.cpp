// orv_range_bench: iterates the members of a large corporate group through
// the library, against a corporate 389 Directory Server that hands out
// "member" only in ranges of 1500 (the test bed's member-ranges plugin,
// as a domain controller does) in front of an ORV directory in corporate
// mode.  Reports the time of the search (the member DNs collected in
// ranges), of the whole iteration, the requests the corporate server
// logged, and the client's peak RSS (getrusage ru_maxrss) before and after
// (every member of the group is checked once by the integration test;
// here only counted, so that the figure is the library's).
//
//   orv_range_bench [--members N] [--rounds N]    (default 36000, 1; 0 rounds:
//   the collection of the member DNs only)
#include <ldap.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "orvldap_utils.h"
#include "testbed.hpp"

namespace {

const std::string kCorp = "dc=corp,dc=test";

long peak_rss_kb() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

double seconds_since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Base searches the corporate server logged, in total and of the group.
void count_requests(const orv::testbed::Directory& corp, const std::string& group, size_t from,
                    size_t* lines_out, long* all, long* of_group) {
    std::ifstream in(corp.workdir() + "/root/var/log/dirsrv/slapd-" + corp.name() + "/access");
    size_t n = 0;
    *all = *of_group = 0;
    const std::string base = "base=\"" + group + "\"";
    for (std::string line; std::getline(in, line); ++n) {
        if (n < from || line.find(" SRCH ") == std::string::npos) continue;
        ++*all;
        if (line.find(base) != std::string::npos) ++*of_group;
    }
    *lines_out = n;
}

}  // namespace

int main(int argc, char** argv) {
    int members = 36000, rounds = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--members")) members = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--rounds")) rounds = std::atoi(argv[i + 1]);
    }
    if (members < 1 || members > 99999 || rounds < 0) {
        std::fprintf(stderr, "usage: orv_range_bench [--members N] [--rounds N]\n");
        return 2;
    }
    int status = 0;
    try {
        const std::string cn = "Range" + std::to_string(members);
        const std::string group = "cn=" + cn + ",ou=Groups," + kCorp;
        auto t0 = std::chrono::steady_clock::now();
        orv::testbed::Directory local(orv::testbed::Options().with_scenario("standalone"));
        orv::testbed::Directory corp(orv::testbed::Options()
                                         .with_scenario("corporate-directory")
                                         .with_suffix(kCorp)
                                         .without_plugin()
                                         .with_param("corp_bulk_users", std::to_string(members))
                                         .with_param("corp_big_groups", cn + ":" + std::to_string(members)));
        corp.apply_ldif(
            "dn: cn=ORV Member Ranges,cn=plugins,cn=config\nchangetype: add\nobjectClass: top\n"
            "objectClass: nsSlapdPlugin\nobjectClass: extensibleObject\ncn: ORV Member Ranges\n"
            "nsslapd-pluginPath: " ORV_MEMBER_RANGES_PLUGIN "\n"
            "nsslapd-pluginInitfunc: orv_member_ranges_init\nnsslapd-pluginType: object\n"
            "nsslapd-pluginEnabled: on\nnsslapd-pluginId: orv-member-ranges\nnsslapd-pluginVersion: 1.0\n"
            "nsslapd-pluginVendor: ORV test bed\nnsslapd-pluginDescription: member values in ranges\n\n"
            "dn: cn=config\nchangetype: modify\nreplace: nsslapd-accesslog-logbuffering\n"
            "nsslapd-accesslog-logbuffering: off\n");
        corp.restart();
        local.reseed("corporate", {{"corp_host", corp.host()},
                                   {"corp_port", std::to_string(corp.port())},
                                   {"corp_suffix", kCorp}});
        std::printf("set-up (two directories, %d corporate users): %.1f s\n", members, seconds_since(t0));

        orvlib_init();
        ORVLibInfo* info = nullptr;
        LDAP* ld = orvlib_getsession_context(local.host().c_str(), local.port(), &info, 0);
        if (info) {
            orvlib_memfree(const_cast<char*>(info->orv_server_version));
            orvlib_memfree(const_cast<char*>(info->orv_server_lib_compatibility_version));
            orvlib_orvlibinfo_free(info);
        }
        if (!ld || mechanism != ORV_PAGING) {
            std::fprintf(stderr, "no corporate session with paged results (status %d)\n", ldapErrCode);
            return 1;
        }
        std::printf("peak RSS after opening the session: %ld KiB\n", peak_rss_kb());
        size_t mark = 0;
        long all = 0, of_group = 0;
        count_requests(corp, group, 0, &mark, &all, &of_group);

        {
            // The member DNs alone, collected in ranges as the searches do.
            auto t = std::chrono::steady_clock::now();
            char** dns = get_zorla_dns_paging(corporate_admin_ld, group.c_str(), "group", "member");
            const double s = seconds_since(t);
            const int n = dns ? count_array_elements(dns) : 0;
            orvlib_free_values(dns);
            count_requests(corp, group, mark, &mark, &all, &of_group);
            std::printf("member DNs collected in ranges: %d in %.2f s, %ld requests; peak RSS %ld KiB\n", n, s,
                        of_group, peak_rss_kb());
            std::fflush(stdout);
            if (n != members) status = 1;
        }
        for (int round = 1; round <= rounds; ++round) {
            auto t = std::chrono::steady_clock::now();
            LDAPMessage* res = nullptr;
            const int rc = orvlib_search_ext_s(ld, group.c_str(), ORV_SEARCH_GROUP_MEMBERS, &res);
            const double search_s = seconds_since(t);
            ORVLibEntry* entry = nullptr;
            long delivered = 0;
            ldapErrCode = 0;
            for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur;
                 cur = orvlib_next_entry(ld, &entry, cur)) {
                char** vals = orvlib_get_entry_vals(entry, 0);
                if (vals && vals[0]) ++delivered;
                orvlib_free_values(vals);
                orvlib_orvlibentry_free(entry);
                entry = nullptr;
            }
            const int end_status = ldapErrCode;
            orvlib_orvmessage_free(res);
            const double total_s = seconds_since(t);
            count_requests(corp, group, mark, &mark, &all, &of_group);
            std::printf("round %d: status %d, end %d, %ld members delivered; "
                        "member DNs collected in %.2f s, whole iteration %.2f s (%.0f members/s); "
                        "corporate searches %ld (%ld of the group); peak RSS %ld KiB\n",
                        round, rc, end_status, delivered, search_s, total_s,
                        total_s > 0 ? delivered / total_s : 0.0, all, of_group, peak_rss_kb());
            std::fflush(stdout);
            if (rc != 0 || end_status != 0 || delivered != members) status = 1;
        }
        orvlib_unbind(ld);
        orvlib_uninitialize_lib();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "test directory: %s\n", e.what());
        status = 1;
    }
    return status;
}
