// TestCertificates: server certificates for TLS tests, made with the openssl
// command in a folder of their own when constructed and removed when destroyed.
//
// A test authority signs "local" (localhost and 127.0.0.1), "other" (another host
// name only) and "expired" (the local names, no longer valid); "unknown" carries
// the local names signed by an authority nobody trusts, and "self" is self-signed.
// trustFile() holds the test authority alone, for SSL_CERT_FILE.
//
// THREADING: construct and read on any one thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace zephlo::testing {

// A PEM certificate chain and its private key, for a TLS listener.
struct TlsIdentity {
  std::string certificateChainPem;
  std::string privateKeyPem;
};

class TestCertificates {
 public:
  TestCertificates();
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  // Whether openssl made every file.
  bool ok() const { return ok_; }
  std::string trustFile() const;
  // "local", "other", "expired", "unknown" or "self".
  TlsIdentity identity(const std::string& name) const;

 private:
  std::string read(const std::string& file) const;

  std::filesystem::path dir_;
  bool ok_ = false;
};

// Sets SSL_CERT_FILE, or clears it, for one scope.
class CertFileEnv {
 public:
  explicit CertFileEnv(const std::optional<std::string>& file);
  ~CertFileEnv();
  CertFileEnv(const CertFileEnv&) = delete;
  CertFileEnv& operator=(const CertFileEnv&) = delete;

 private:
  std::optional<std::string> old_;
};

}  // namespace zephlo::testing
