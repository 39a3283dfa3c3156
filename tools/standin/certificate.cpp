#include "certificate.h"

#include <QFile>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>

namespace standin
{
namespace
{

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;

KeyPtr newKey()
{
    return KeyPtr(EVP_EC_gen("P-256"), &EVP_PKEY_free);
}

bool addExtension(X509 *cert, X509 *issuer, int nid, const char *value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!ext)
        return false;
    const bool ok = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

CertPtr newCertificate(
    EVP_PKEY *key, const char *commonName, long serial, X509 *issuer, EVP_PKEY *issuerKey, bool authority)
{
    CertPtr cert(X509_new(), &X509_free);
    if (!cert)
        return cert;
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
    // A minute back so that a client whose clock is a little behind still accepts it.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 60L * 60 * 24 * 30);
    X509_set_pubkey(cert.get(), key);
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(
        name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("Hourloom stand-in"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(
        name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(commonName), -1, -1, 0);
    X509 *signer = issuer ? issuer : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));

    bool ok = addExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
    if (authority) {
        ok = ok && addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
        ok = ok && addExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        ok = ok && addExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
        ok = ok && addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
        ok = ok && addExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature,keyEncipherment");
        ok = ok && addExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth");
        ok = ok && addExtension(cert.get(), signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    }
    if (!ok || X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256()) == 0)
        return CertPtr(nullptr, &X509_free);
    return cert;
}

bool writePem(const QString &path, X509 *cert, EVP_PKEY *key)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    BIO *bio = BIO_new(BIO_s_mem());
    const bool ok = cert ? PEM_write_bio_X509(bio, cert) == 1
                         : PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    char *data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    const bool written = ok && file.write(data, length) == length;
    BIO_free(bio);
    return written;
}

} // namespace

QString makeCertificates(const QString &directory)
{
    KeyPtr caKey = newKey();
    KeyPtr serverKey = newKey();
    if (!caKey || !serverKey)
        return QStringLiteral("could not generate keys");
    CertPtr ca = newCertificate(caKey.get(), "Hourloom stand-in authority", 1, nullptr, nullptr, true);
    if (!ca)
        return QStringLiteral("could not make the authority certificate");
    CertPtr server = newCertificate(serverKey.get(), "localhost", 2, ca.get(), caKey.get(), false);
    if (!server)
        return QStringLiteral("could not make the server certificate");
    if (!writePem(directory + QStringLiteral("/ca.pem"), ca.get(), nullptr)
        || !writePem(directory + QStringLiteral("/cert.pem"), server.get(), nullptr)
        || !writePem(directory + QStringLiteral("/key.pem"), nullptr, serverKey.get()))
        return QStringLiteral("could not write the certificate files in ") + directory;
    return {};
}

} // namespace standin
