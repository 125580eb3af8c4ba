// TLS material for the loopback test servers: one self-signed certificate per
// test process, made on first use.
#pragma once

#include <string>

namespace testsupport {

struct TlsFiles {
    std::string certFile;  // PEM certificate (CN=localhost)
    std::string keyFile;   // PEM private key (EC P-256, unencrypted)
    std::string caFile;    // what clients trust: the certificate itself
};

// The certificate is its own CA (basicConstraints CA:TRUE), valid from one day
// ago for 30 days, with subjectAltName DNS:localhost, IP:127.0.0.1, IP:::1, so
// https://localhost:P/, https://127.0.0.1:P/ and https://[::1]:P/ all verify
// against caFile. The files live in a private temp folder removed at exit.
// Thread-safe; throws std::runtime_error if OpenSSL fails.
const TlsFiles& TestTls();

}  // namespace testsupport
