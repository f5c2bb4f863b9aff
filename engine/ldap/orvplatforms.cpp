// orvplatforms.cpp - SSL set-up from a client key database and the other
// LDAP client calls that OpenLDAP lacks.
//
// The key database is a PKCS#12 file protected by a password (trusted CA
// certificates, optionally the client's certificate and key) or a PEM file of
// CA certificates.  ldap_ssl_client_init loads it into libldap's global TLS
// context, so every handle made afterwards by ldap_ssl_init verifies the
// server against those CAs (the certificate is always demanded).

#include "orvplatforms.h"

#include <fcntl.h>
#include <sys/time.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "orv_internal.hpp"
#include "orv_ldap.hpp"

namespace {

struct X509Free { void operator()(X509* x) const { X509_free(x); } };
struct KeyFree { void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); } };
struct BioFree { void operator()(BIO* b) const { BIO_free(b); } };
struct P12Free { void operator()(PKCS12* p) const { PKCS12_free(p); } };
using X509Ptr = std::unique_ptr<X509, X509Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

struct KeyDatabase {
    std::vector<X509Ptr> cas;
    X509Ptr cert;
    KeyPtr key;
};

bool read_file(const char* path, std::string& data) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// PKCS#12 first; a file that is not PKCS#12 is tried as PEM certificates.
int load_key_database(const std::string& data, const char* password, KeyDatabase& db) {
    {
        BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
        std::unique_ptr<PKCS12, P12Free> p12(d2i_PKCS12_bio(bio.get(), nullptr));
        if (p12) {
            EVP_PKEY* key = nullptr;
            X509* cert = nullptr;
            STACK_OF(X509)* cas = nullptr;
            if (!PKCS12_parse(p12.get(), password ? password : "", &key, &cert, &cas)) {
                ERR_clear_error();
                return ORV_SSL_REASON_BAD_KEYDB;
            }
            db.key.reset(key);
            db.cert.reset(cert);
            for (int i = 0; cas && i < sk_X509_num(cas); ++i) db.cas.emplace_back(sk_X509_value(cas, i));
            sk_X509_free(cas);  // the certificates now belong to db.cas
            // A store without separate CA entries trusts its own certificate.
            if (db.cas.empty() && db.cert) {
                X509_up_ref(db.cert.get());
                db.cas.emplace_back(db.cert.get());
            }
            return db.cas.empty() ? ORV_SSL_REASON_BAD_KEYDB : ORV_SSL_REASON_NONE;
        }
    }
    ERR_clear_error();
    BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    while (X509* x = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) db.cas.emplace_back(x);
    ERR_clear_error();
    return db.cas.empty() ? ORV_SSL_REASON_BAD_KEYDB : ORV_SSL_REASON_NONE;
}

std::string to_der(X509* cert) {
    int len = i2d_X509(cert, nullptr);
    if (len <= 0) return {};
    std::string der(static_cast<size_t>(len), '\0');
    auto* p = reinterpret_cast<unsigned char*>(&der[0]);
    i2d_X509(cert, &p);
    return der;
}

std::string to_der(EVP_PKEY* key) {
    int len = i2d_PrivateKey(key, nullptr);
    if (len <= 0) return {};
    std::string der(static_cast<size_t>(len), '\0');
    auto* p = reinterpret_cast<unsigned char*>(&der[0]);
    i2d_PrivateKey(key, &p);
    return der;
}

// libldap reads CA certificates from a file when the TLS context is made;
// the file lives only for that call.
class TempCaFile {
public:
    explicit TempCaFile(const std::vector<X509Ptr>& cas) {
        char tmpl[] = "/tmp/orvlib-ca-XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd < 0) return;
        path_ = tmpl;
        BioPtr bio(BIO_new(BIO_s_mem()));
        for (const auto& ca : cas) PEM_write_bio_X509(bio.get(), ca.get());
        char* mem = nullptr;
        long len = BIO_get_mem_data(bio.get(), &mem);
        ok_ = len > 0 && write(fd, mem, static_cast<size_t>(len)) == len;
        close(fd);
    }
    ~TempCaFile() { if (!path_.empty()) unlink(path_.c_str()); }
    bool ok() const { return ok_; }
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
    bool ok_ = false;
};

}  // namespace

extern "C" {

int ldap_ssl_client_init(const char* keyDatabase, const char* password, int sslTimeout,
                         int* reason) {
    ORV_TRACE();
    (void)sslTimeout;
    int why = ORV_SSL_REASON_NONE;
    int rc = LDAP_SUCCESS;
    std::string data;
    KeyDatabase db;
    if (!keyDatabase || !read_file(keyDatabase, data) || data.empty()) {
        why = ORV_SSL_REASON_NO_KEYDB;
    } else {
        why = load_key_database(data, password, db);
    }
    if (why == ORV_SSL_REASON_NONE) {
        TempCaFile caFile(db.cas);
        int demand = LDAP_OPT_X_TLS_DEMAND;
        int zero = 0;
        bool ok = caFile.ok() &&
                  ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, caFile.path()) == LDAP_OPT_SUCCESS &&
                  ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand) == LDAP_OPT_SUCCESS;
        std::string certDer, keyDer;
        if (ok && db.cert && db.key) {
            certDer = to_der(db.cert.get());
            keyDer = to_der(db.key.get());
            berval cert{static_cast<ber_len_t>(certDer.size()), &certDer[0]};
            berval key{static_cast<ber_len_t>(keyDer.size()), &keyDer[0]};
            ok = !certDer.empty() && !keyDer.empty() &&
                 ldap_set_option(nullptr, LDAP_OPT_X_TLS_CERT, &cert) == LDAP_OPT_SUCCESS &&
                 ldap_set_option(nullptr, LDAP_OPT_X_TLS_KEY, &key) == LDAP_OPT_SUCCESS;
        } else if (ok) {
            ldap_set_option(nullptr, LDAP_OPT_X_TLS_CERT, nullptr);
            ldap_set_option(nullptr, LDAP_OPT_X_TLS_KEY, nullptr);
        }
        ok = ok && ldap_set_option(nullptr, LDAP_OPT_X_TLS_NEWCTX, &zero) == LDAP_OPT_SUCCESS;
        if (!ok) why = ORV_SSL_REASON_TLS_SETUP;
    }
    if (why != ORV_SSL_REASON_NONE) rc = orv::kLocalError;
    ORV_DEBUG("Key database", keyDatabase ? keyDatabase : "");
    ORV_DEBUG("SSL init reason", why);
    if (reason) *reason = why;
    return rc;
}

LDAP* ldap_ssl_init(const char* host, int port, const char* certificateLabel) {
    ORV_TRACE();
    (void)certificateLabel;
    if (!host || !*host || port <= 0 || port > 65535) return nullptr;
    // A host argument may list several hosts separated by blanks, each
    // with a port of its own ("host:port", "[v6 address]:port") or the port
    // argument.
    std::istringstream hosts(host);
    std::string h, urls;
    while (hosts >> h) {
        if (!urls.empty()) urls += ' ';
        const size_t colon = h.rfind(':');
        const bool hasPort = h[0] == '['
                                 ? h.find("]:") != std::string::npos
                                 : colon != std::string::npos && h.find(':') == colon;
        urls += "ldaps://" + h + (hasPort ? "" : ":" + std::to_string(port));
    }
    LDAP* ld = nullptr;
    if (ldap_initialize(&ld, urls.c_str()) != LDAP_SUCCESS) return nullptr;
    if (orv::prepare_handle(ld) != LDAP_SUCCESS) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

int ldap_get_lderrno(LDAP* ld, char** matched, char** message) {
    if (matched) *matched = nullptr;
    if (message) *message = nullptr;
    return orv::last_error(ld);
}

}  // extern "C"

// ---------------------------------------------------------------------------
// Password policy response of a bind.  OpenLDAP reads the control; its
// numbers (error 0 expired, 1 locked, ... 65535 none; expiry and grace -1
// when absent) are turned into the client numbering of orvplatforms.h, in
// which errors start at 3 so that they never meet a warning kind.
// ---------------------------------------------------------------------------

extern "C" {

int ldap_parse_pwdpolicy_response(LDAP* ld, LDAPControl** controls, int* policy_error,
                                  int* warning_kind, int* warning_value) {
    ORV_TRACE();
    int error = ORV_PWDPOLICY_NO_ERROR;
    int kind = ORV_PWDPOLICY_WARNING_NONE;
    int value = 0;
    int rc = orv::kControlNotFound;
    LDAPControl* control =
        controls ? ldap_control_find(LDAP_CONTROL_PASSWORDPOLICYRESPONSE, controls, nullptr) : nullptr;
    if (!ld) {
        rc = orv::kParamError;
    } else if (control) {
        ber_int_t expire = -1;
        ber_int_t grace = -1;
        LDAPPasswordPolicyError ppError = PP_noError;
        rc = orv::status_from_ldap(ldap_parse_passwordpolicy_control(ld, control, &expire, &grace, &ppError));
        if (rc == LDAP_SUCCESS) {
            if (ppError != PP_noError && ppError >= PP_passwordExpired && ppError <= PP_passwordTooLong)
                error = ORV_PWDPOLICY_PASSWORD_EXPIRED + static_cast<int>(ppError);
            if (expire >= 0) {
                kind = ORV_PWDPOLICY_WARNING_EXPIRY;
                value = expire;
            } else if (grace >= 0) {
                kind = ORV_PWDPOLICY_WARNING_GRACE;
                value = grace;
            }
        } else {
            rc = orv::kDecodingError;
        }
    }
    ORV_DEBUG("Password policy error", error);
    ORV_DEBUG("Password policy warning", kind);
    ORV_DEBUG("Password policy warning value", value);
    if (policy_error) *policy_error = error;
    if (warning_kind) *warning_kind = kind;
    if (warning_value) *warning_value = value;
    return rc;
}

}  // extern "C"
