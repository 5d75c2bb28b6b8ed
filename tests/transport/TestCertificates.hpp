#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "OpensslProcess.hpp"

namespace kavrin::tcpTest {

// Certificates made with the openssl tool in a folder of their own, removed again at the end:
// a CA ("ca"), a server certificate for localhost, 127.0.0.1 and ::1 signed by it ("server"),
// an expired one signed by it ("expired"), and an unrelated CA ("other"); each NAME.pem with
// NAME.key. Making them takes a second or two: make them once per test suite.
class TestCertificates {
  public:
    TestCertificates() {
        char folder[] = "/tmp/kavrin-tls-XXXXXX";
        if (::mkdtemp(folder) == nullptr) {
            ADD_FAILURE() << "cannot make a folder for the certificates";
            return;
        }
        dir_ = folder;
        // A request (or with -x509 a certificate) for a new EC key.
        const auto request = [](std::vector<std::string> arguments) {
            arguments.insert(arguments.begin(), {"req", "-newkey", "ec", "-pkeyopt",
                                                 "ec_paramgen_curve:prime256v1", "-nodes"});
            run(arguments);
        };
        request({"-x509", "-keyout", path("ca.key"), "-out", path("ca.pem"), "-subj",
                 "/CN=Kavrin Test CA", "-days", "2"});
        request({"-x509", "-keyout", path("other.key"), "-out", path("other.pem"), "-subj",
                 "/CN=Unrelated Test CA", "-days", "2"});
        for (const std::string name : {"server", "expired"}) {
            request({"-keyout", path(name + ".key"), "-out", path(name + ".csr"), "-subj",
                     "/CN=localhost", "-addext",
                     "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1"});
        }
        run({"x509", "-req", "-in", path("server.csr"), "-CA", path("ca.pem"), "-CAkey",
             path("ca.key"), "-CAcreateserial", "-out", path("server.pem"), "-days", "2",
             "-copy_extensions", "copy"});
        // req cannot date a certificate in the past; the CA command can.
        std::ofstream(path("index.txt")).close();
        std::ofstream(path("serial")) << "1000\n";
        std::ofstream(path("ca.cnf")) << "[ca]\ndefault_ca = test_ca\n[test_ca]\n"
                                      << "database = " << path("index.txt") << "\n"
                                      << "new_certs_dir = " << dir_ << "\n"
                                      << "serial = " << path("serial") << "\n"
                                      << "certificate = " << path("ca.pem") << "\n"
                                      << "private_key = " << path("ca.key") << "\n"
                                      << "default_md = sha256\npolicy = any_name\n"
                                      << "copy_extensions = copy\n[any_name]\n"
                                      << "commonName = supplied\n";
        run({"ca", "-batch", "-config", path("ca.cnf"), "-in", path("expired.csr"), "-out",
             path("expired.pem"), "-startdate", "20200101000000Z", "-enddate", "20200102000000Z",
             "-notext"});
    }
    ~TestCertificates() {
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    TestCertificates(const TestCertificates&) = delete;
    TestCertificates& operator=(const TestCertificates&) = delete;

    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // Made on first use, once per test program, and removed when it ends.
    static const TestCertificates& shared() {
        static const TestCertificates certificates;
        return certificates;
    }

  private:
    static void run(const std::vector<std::string>& arguments) {
        using namespace std::chrono_literals;
        OpensslProcess process(arguments);
        ASSERT_TRUE(process.started()) << "cannot run openssl";
        const auto status = process.waitForExit(30s);
        ASSERT_EQ(status, 0) << "openssl " << arguments[0] << " failed: " << process.output();
    }

    std::string dir_;
};

}  // namespace kavrin::tcpTest
