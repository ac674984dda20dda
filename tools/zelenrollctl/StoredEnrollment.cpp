#include "StoredEnrollment.h"

#include <openssl/x509.h>

#include "Certificate.h"
#include "EnrollConstants.h"

namespace {

bool asn1_to_unix_time(const ASN1_TIME* asn1, time_t* out) {
    struct tm tm {};
    if (!asn1 || ASN1_TIME_to_tm(asn1, &tm) != 1)
        return false;
    *out = timegm(&tm);
    return true;
}

}  // namespace

std::string x509_name_text(const X509_NAME* name) {
    std::string error;
    return write_pem_text(
        [name](BIO* bio) { return X509_NAME_print_ex(bio, name, 0, XN_FLAG_RFC2253) >= 0; }, error);
}

bool StoredEnrollment::load_status(const std::string& path) {
    status_path = path;
    status_present = g_file_test(path.c_str(), G_FILE_TEST_EXISTS);
    if (!status_present)
        return true;
    JsonObjectInput in(path.c_str());
    if (!in.failed() && in.checkIsObject())
        in >> status;
    if (in.failed()) {
        status_error = in.getError();
        return false;
    }
    return true;
}

bool StoredEnrollment::load_certificate(const std::string& services_dir,
                                        const std::string& key_path) {
    service_file = services_dir + "/" + AWS_IOT_SERVICE + "/service.json";
    if (!g_file_test(service_file.c_str(), G_FILE_TEST_EXISTS)) {
        cert_error = "no stored certificate";
        return false;
    }
    JsonObjectInput in(service_file.c_str());
    std::string pem;
    if (!in.failed())
        in.readMember("certificate", &pem, true);
    if (in.failed()) {
        cert_error = in.getError();
        return false;
    }
    Certificate cert;
    if (!cert.load_pem(pem)) {
        cert_error = "unreadable certificate: " + cert.error;
        return false;
    }
    X509* x509 = cert.cert.get();
    if (!asn1_to_unix_time(X509_get0_notBefore(x509), &not_before) ||
        !asn1_to_unix_time(X509_get0_notAfter(x509), &not_after)) {
        cert_error = "certificate has unreadable validity dates";
        return false;
    }
    subject = x509_name_text(X509_get_subject_name(x509));
    issuer = x509_name_text(X509_get_issuer_name(x509));
    cert_loaded = true;
    key_matches = cert.check_private_key(key_path.c_str());
    if (!key_matches)
        key_error = cert.error;
    return true;
}

double StoredEnrollment::used_fraction(time_t now) const {
    if (not_after <= not_before)
        return now >= not_after ? 2.0 : 0.0;
    return static_cast<double>(now - not_before) / static_cast<double>(not_after - not_before);
}
