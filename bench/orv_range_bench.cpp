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

// What a server's access log shows after line `from`: search requests (in
// total and with the group as base) and the server's working time
// ("optime" of each result, the time from the operation's start to its
// result, without the wait for a worker thread).
struct Logged {
    size_t lines = 0;
    long searches = 0;
    long of_group = 0;
    long others = 0;  // adds and modifies
    double optime = 0;
};

Logged count_requests(const orv::testbed::Directory& dir, const std::string& group, size_t from) {
    std::ifstream in(dir.workdir() + "/root/var/log/dirsrv/slapd-" + dir.name() + "/access");
    Logged out;
    const std::string base = "base=\"" + group + "\"";
    size_t n = 0;
    for (std::string line; std::getline(in, line); ++n) {
        if (n < from) continue;
        if (line.find(" SRCH ") != std::string::npos) {
            ++out.searches;
            if (line.find(base) != std::string::npos) ++out.of_group;
        } else if (line.find(" ADD ") != std::string::npos || line.find(" MOD ") != std::string::npos) {
            ++out.others;
        } else if (line.find(" RESULT ") != std::string::npos) {
            const std::string::size_type at = line.find(" optime=");
            if (at != std::string::npos) out.optime += std::atof(line.c_str() + at + 8);
        }
    }
    out.lines = n;
    return out;
}

double cpu_seconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

const char kUnbufferedLog[] =
    "dn: cn=config\nchangetype: modify\nreplace: nsslapd-accesslog-logbuffering\n"
    "nsslapd-accesslog-logbuffering: off\n";

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
            "nsslapd-pluginVendor: ORV test bed\nnsslapd-pluginDescription: member values in ranges\n\n" +
            std::string(kUnbufferedLog));
        corp.restart();
        local.apply_ldif(kUnbufferedLog);
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
        size_t mark = count_requests(corp, group, 0).lines;
        size_t local_mark = count_requests(local, group, 0).lines;

        {
            // The member DNs alone, collected in ranges as the searches do.
            auto t = std::chrono::steady_clock::now();
            char** dns = get_zorla_dns_paging(corporate_admin_ld, group.c_str(), "group", "member");
            const double s = seconds_since(t);
            const int n = dns ? count_array_elements(dns) : 0;
            orvlib_free_values(dns);
            const Logged c = count_requests(corp, group, mark);
            mark = c.lines;
            std::printf("member DNs collected in ranges: %d in %.2f s, %ld requests; peak RSS %ld KiB\n", n, s,
                        c.of_group, peak_rss_kb());
            std::fflush(stdout);
            if (n != members) status = 1;
        }
        for (int round = 1; round <= rounds; ++round) {
            auto t = std::chrono::steady_clock::now();
            const double cpu0 = cpu_seconds();
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
            const double cpu_s = cpu_seconds() - cpu0;
            const Logged c = count_requests(corp, group, mark);
            const Logged l = count_requests(local, group, local_mark);
            mark = c.lines;
            local_mark = l.lines;
            std::printf("round %d: status %d, end %d, %ld members delivered; "
                        "member DNs collected in %.2f s, whole iteration %.2f s (%.0f members/s), "
                        "client CPU %.2f s; corporate server: %ld searches (%ld of the group), "
                        "working time %.2f s; ORV directory: %ld searches, %ld adds and modifies, "
                        "working time %.2f s; peak RSS %ld KiB\n",
                        round, rc, end_status, delivered, search_s, total_s,
                        total_s > 0 ? delivered / total_s : 0.0, cpu_s, c.searches, c.of_group, c.optime,
                        l.searches, l.others, l.optime, peak_rss_kb());
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
