#include "loopback/TestTls.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "loopback/TempDir.h"

namespace testsupport {

namespace {

[[noreturn]] void Fail(const std::string& what) {
    char err[256] = "";
    ERR_error_string_n(ERR_get_error(), err, sizeof err);
    throw std::runtime_error("TestTls: " + what + ": " + err);
}

template <class T, void (*F)(T*)>
struct Deleter {
    void operator()(T* p) const { F(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;

void AddExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) Fail(std::string("extension ") + value);
}

void WritePem(const std::string& path, const std::function<int(FILE*)>& write) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) throw std::runtime_error("TestTls: cannot write " + path);
    int ok = write(f);
    if (std::fclose(f) != 0 || ok != 1) Fail("writing " + path);
}

std::string g_Dir;

void RemoveDir() { RemoveTree(g_Dir); }

TlsFiles Generate() {
    // P-256 keys are generated in well under a millisecond, unlike RSA.
    PkeyPtr key(EVP_EC_gen("P-256"));
    if (!key) Fail("EC key generation");

    X509Ptr cert(X509_new());
    if (!cert) Fail("X509_new");
    X509_set_version(cert.get(), 2);  // v3, needed for extensions

    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) Fail("RAND_bytes");
    serial[0] &= 0x7f;  // serial numbers must be positive
    std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>> bn(BN_bin2bn(serial, sizeof serial, nullptr));
    if (!bn || !BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert.get()))) Fail("serial");

    // Backdated a day so clock skew between client and server never matters.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -24L * 3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 29L * 24 * 3600);
    X509_set_pubkey(cert.get(), key.get());

    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"),
                               -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);

    AddExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
    AddExtension(cert.get(), NID_ext_key_usage, "serverAuth");
    AddExtension(cert.get(), NID_subject_key_identifier, "hash");
    AddExtension(cert.get(), NID_authority_key_identifier, "keyid:always");
    AddExtension(cert.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");

    if (X509_sign(cert.get(), key.get(), EVP_sha256()) <= 0) Fail("signing");

    g_Dir = MakeTempDir("netloop-tls");
    std::atexit(RemoveDir);

    TlsFiles files;
    files.certFile = g_Dir + "/cert.pem";
    files.keyFile = g_Dir + "/key.pem";
    files.caFile = files.certFile;
    WritePem(files.certFile, [&](FILE* f) { return PEM_write_X509(f, cert.get()); });
    WritePem(files.keyFile, [&](FILE* f) {
        return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    return files;
}

}  // namespace

const TlsFiles& TestTls() {
    static const TlsFiles files = Generate();
    return files;
}

}  // namespace testsupport
