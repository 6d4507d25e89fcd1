// Server-side TLS contexts of the emulator: self-signed certificates made in
// memory at run time (valid, expired, or for the wrong host name), or a
// certificate and key read from PEM files.
#pragma once
#include <string>

typedef struct ssl_ctx_st SSL_CTX;

namespace tpcsdk::emulator {

enum class CertKind { kValid, kExpired, kWrongName };

// Name of the kind as the control API spells it ("valid", "expired", "wrong_name").
const char* CertKindName(CertKind kind);
bool ParseCertKind(const std::string& name, CertKind* kind);

// A server context whose certificate is self-signed and names `host` (an IP
// literal or a DNS name) plus "localhost" and 127.0.0.1, except for
// kWrongName, which names only "wrong-name.invalid". kExpired ended a day ago.
// One private key is made per process and shared by all such certificates.
// Returns nullptr with `error` set on failure. The caller frees with SSL_CTX_free.
SSL_CTX* MakeSelfSignedContext(CertKind kind, const std::string& host, std::string* error);

SSL_CTX* MakeFileContext(const std::string& cert_file, const std::string& key_file,
                         std::string* error);

}  // namespace tpcsdk::emulator
