#include "tls.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <mutex>

namespace tpcsdk::emulator {
namespace {

std::string LastSslError(const char* what) {
  unsigned long e = ERR_get_error();
  char buf[256] = {0};
  if (e != 0) ERR_error_string_n(e, buf, sizeof(buf));
  ERR_clear_error();
  return std::string(what) + (e != 0 ? std::string(": ") + buf : std::string());
}

// The process-wide key, made on first use. An EC P-256 key takes well under a
// millisecond to make, where an RSA key can take most of a second.
EVP_PKEY* SharedKey(std::string* error) {
  static std::mutex m;
  static EVP_PKEY* key = nullptr;
  std::lock_guard<std::mutex> lock(m);
  if (key == nullptr) {
    key = EVP_EC_gen("P-256");
    if (key == nullptr) *error = LastSslError("key generation failed");
  }
  return key;
}

bool IsIpLiteral(const std::string& host) {
  if (host.find(':') != std::string::npos) return true;
  for (char c : host) {
    if (!(c == '.' || (c >= '0' && c <= '9'))) return false;
  }
  return !host.empty();
}

bool AddExtension(X509* cert, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  if (ext == nullptr) return false;
  bool ok = X509_add_ext(cert, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return ok;
}

X509* MakeCertificate(CertKind kind, const std::string& host, EVP_PKEY* key, std::string* error) {
  static std::atomic<long> serial{1};
  X509* cert = X509_new();
  if (cert == nullptr) {
    *error = LastSslError("X509_new");
    return nullptr;
  }
  std::string cn = kind == CertKind::kWrongName ? "wrong-name.invalid" : "localhost";
  std::string san;
  if (kind == CertKind::kWrongName) {
    san = "DNS:wrong-name.invalid";
  } else {
    san = "DNS:localhost,IP:127.0.0.1,IP:::1";
    if (!host.empty() && host != "localhost" && host != "127.0.0.1" && host != "::1" &&
        host != "0.0.0.0" && host != "::") {
      san += (IsIpLiteral(host) ? ",IP:" : ",DNS:") + host;
    }
  }
  const long day = 24 * 3600;
  long not_before = kind == CertKind::kExpired ? -30 * day : -day;
  long not_after = kind == CertKind::kExpired ? -day : 365 * day;
  X509_NAME* name = X509_get_subject_name(cert);
  bool ok = X509_set_version(cert, 2) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert), not_before) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert), not_after) != nullptr &&
            X509_set_pubkey(cert, key) == 1 &&
            X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>("tdoc-emulator"),
                                       -1, -1, 0) == 1 &&
            X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>(cn.c_str()), -1,
                                       -1, 0) == 1 &&
            X509_set_issuer_name(cert, name) == 1 &&
            AddExtension(cert, NID_basic_constraints, "critical,CA:FALSE") &&
            AddExtension(cert, NID_ext_key_usage, "serverAuth") &&
            AddExtension(cert, NID_subject_alt_name, san) &&
            X509_sign(cert, key, EVP_sha256()) > 0;
  if (!ok) {
    *error = LastSslError("certificate construction failed");
    X509_free(cert);
    return nullptr;
  }
  return cert;
}

SSL_CTX* NewServerContext(std::string* error) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  if (ctx == nullptr) {
    *error = LastSslError("SSL_CTX_new");
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_mode(ctx, SSL_MODE_AUTO_RETRY);
  return ctx;
}

}  // namespace

const char* CertKindName(CertKind kind) {
  switch (kind) {
    case CertKind::kValid: return "valid";
    case CertKind::kExpired: return "expired";
    case CertKind::kWrongName: return "wrong_name";
  }
  return "valid";
}

bool ParseCertKind(const std::string& name, CertKind* kind) {
  for (CertKind k : {CertKind::kValid, CertKind::kExpired, CertKind::kWrongName}) {
    if (name == CertKindName(k)) {
      *kind = k;
      return true;
    }
  }
  return false;
}

SSL_CTX* MakeSelfSignedContext(CertKind kind, const std::string& host, std::string* error) {
  EVP_PKEY* key = SharedKey(error);
  if (key == nullptr) return nullptr;
  X509* cert = MakeCertificate(kind, host, key, error);
  if (cert == nullptr) return nullptr;
  SSL_CTX* ctx = NewServerContext(error);
  if (ctx != nullptr &&
      (SSL_CTX_use_certificate(ctx, cert) != 1 || SSL_CTX_use_PrivateKey(ctx, key) != 1)) {
    *error = LastSslError("installing the certificate failed");
    SSL_CTX_free(ctx);
    ctx = nullptr;
  }
  X509_free(cert);
  return ctx;
}

SSL_CTX* MakeFileContext(const std::string& cert_file, const std::string& key_file,
                         std::string* error) {
  SSL_CTX* ctx = NewServerContext(error);
  if (ctx == nullptr) return nullptr;
  if (SSL_CTX_use_certificate_chain_file(ctx, cert_file.c_str()) != 1) {
    *error = LastSslError(("cannot load certificate " + cert_file).c_str());
  } else if (SSL_CTX_use_PrivateKey_file(ctx, key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
    *error = LastSslError(("cannot load key " + key_file).c_str());
  } else if (SSL_CTX_check_private_key(ctx) != 1) {
    *error = "certificate and key do not match";
  } else {
    return ctx;
  }
  SSL_CTX_free(ctx);
  return nullptr;
}

}  // namespace tpcsdk::emulator
