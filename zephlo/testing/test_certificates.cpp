#include "zephlo/testing/test_certificates.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace zephlo::testing {

namespace {

void setCertFile(const std::optional<std::string>& file) {
  file ? ::setenv("SSL_CERT_FILE", file->c_str(), 1) : ::unsetenv("SSL_CERT_FILE");
}

std::filesystem::path freshFolder() {
  static std::atomic<int> counter{0};
  return std::filesystem::temp_directory_path() /
         ("zephlo-certs-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
}

}  // namespace

TestCertificates::TestCertificates() : dir_(freshFolder()) {
  std::filesystem::create_directories(dir_);
  const std::string key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  const std::string localNames = "subjectAltName=DNS:localhost,IP:127.0.0.1";
  // A self-signed authority, made as `name`.
  const auto authority = [&](const std::string& name) {
    return " && openssl req -x509 " + key + " -days 2 -keyout " + name + ".key -out " + name + ".pem -subj /CN=" +
           name + " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign";
  };
  // A server certificate for `names`, signed by `issuer` and valid for `days`.
  const auto server = [&](const std::string& name, const std::string& issuer, const std::string& names, int days) {
    return " && printf '%s\\n' '" + names + "' >" + name + ".ext && openssl req -new " + key + " -keyout " + name +
           ".key -out " + name + ".csr -subj /CN=" + name + " && openssl x509 -req -in " + name + ".csr -CA " +
           issuer + ".pem -CAkey " + issuer + ".key -days " + std::to_string(days) + " -extfile " + name +
           ".ext -out " + name + ".pem";
  };
  std::string script = "cd '" + dir_.string() + "'" + authority("ca") + authority("rogue") +
                       server("local", "ca", localNames, 2) + server("other", "ca", "subjectAltName=DNS:other.example", 2) +
                       server("expired", "ca", localNames, -1) + server("unknown", "rogue", localNames, 2) +
                       " && openssl req -x509 " + key + " -days 2 -keyout self.key -out self.pem -subj /CN=self -addext " +
                       localNames;
  ok_ = std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0;
}

TestCertificates::~TestCertificates() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

std::string TestCertificates::trustFile() const { return (dir_ / "ca.pem").string(); }

TlsIdentity TestCertificates::identity(const std::string& name) const {
  return {read(name + ".pem"), read(name + ".key")};
}

std::string TestCertificates::read(const std::string& file) const {
  std::ifstream in(dir_ / file);
  return {std::istreambuf_iterator<char>(in), {}};
}

CertFileEnv::CertFileEnv(const std::optional<std::string>& file) {
  if (const char* old = std::getenv("SSL_CERT_FILE")) old_ = old;
  setCertFile(file);
}

CertFileEnv::~CertFileEnv() { setCertFile(old_); }

}  // namespace zephlo::testing
