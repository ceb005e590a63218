#include "ServerCertificate.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace nimbrel::publish {

namespace {

template <class T, void (*F)(T*)>
struct Free
{
    void operator()(T* p) const { F(p); }
};
using X509Ptr = std::unique_ptr<X509, Free<X509, X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, Free<BIO, BIO_free_all>>;

constexpr long kValidDays = 3650;

QByteArray bioBytes(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return QByteArray(data, int(size));
}

QString fingerprintOf(X509* cert)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (!X509_digest(cert, EVP_sha256(), digest, &size))
        return {};
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), int(size)).toHex(':').toUpper());
}

bool addExtension(X509* cert, int nid, const char* value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!ext)
        return false;
    const bool ok = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

ServerCertificate fromPem(const QByteArray& certPem, const QByteArray& keyPem)
{
    ServerCertificate result;
    BioPtr certBio(BIO_new_mem_buf(certPem.constData(), int(certPem.size())));
    BioPtr keyBio(BIO_new_mem_buf(keyPem.constData(), int(keyPem.size())));
    X509Ptr cert(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
    KeyPtr key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
    if (!cert || !key || X509_check_private_key(cert.get(), key.get()) != 1)
        return result;
    // Renew a month before it runs out.
    if (X509_cmp_time(X509_get0_notAfter(cert.get()), nullptr) <= 0)
        return result;
    time_t soon = time(nullptr) + 30 * 86400;
    if (X509_cmp_time(X509_get0_notAfter(cert.get()), &soon) <= 0)
        return result;
    result.certificatePem = certPem;
    result.keyPem = keyPem;
    result.fingerprint = fingerprintOf(cert.get());
    return result;
}

bool writePrivate(const QString& path, const QByteArray& data)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    file.write(data);
    return file.commit();
}

} // namespace

ServerCertificate ServerCertificate::create(const QString& hostName, QString* error)
{
    auto failed = [&](const char* what) {
        if (error)
            *error = QString::fromLatin1(what);
        return ServerCertificate{};
    };
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key)
        return failed("cannot make an EC key");
    X509Ptr cert(X509_new());
    if (!cert)
        return failed("cannot make a certificate");
    X509_set_version(cert.get(), 2);
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1)
        return failed("no random numbers");
    serial[0] &= 0x7f;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -86400);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidDays * 86400);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    const QByteArray cn = (QStringLiteral("Nimbrel on ") + hostName).left(64).toUtf8();
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(cn.constData()),
                               int(cn.size()), -1, 0);
    X509_set_issuer_name(cert.get(), name);
    QByteArray san = "DNS:localhost,IP:127.0.0.1,IP:::1";
    if (!hostName.isEmpty() && !hostName.contains(QLatin1Char(',')))
        san = "DNS:" + hostName.toUtf8() + ",DNS:" + hostName.toUtf8() + ".local," + san;
    if (!addExtension(cert.get(), NID_subject_alt_name, san.constData())
        || !addExtension(cert.get(), NID_basic_constraints, "critical,CA:FALSE")
        || !addExtension(cert.get(), NID_ext_key_usage, "serverAuth"))
        return failed("cannot add the certificate's extensions");
    if (!X509_sign(cert.get(), key.get(), EVP_sha256()))
        return failed("cannot sign the certificate");

    BioPtr certBio(BIO_new(BIO_s_mem()));
    BioPtr keyBio(BIO_new(BIO_s_mem()));
    if (!PEM_write_bio_X509(certBio.get(), cert.get())
        || !PEM_write_bio_PrivateKey(keyBio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr))
        return failed("cannot encode the certificate");
    ServerCertificate result;
    result.certificatePem = bioBytes(certBio.get());
    result.keyPem = bioBytes(keyBio.get());
    result.fingerprint = fingerprintOf(cert.get());
    return result;
}

ServerCertificate ServerCertificate::loadOrCreate(const QString& folder, const QString& hostName, QString* error)
{
    const QString certPath = folder + QStringLiteral("/caldav-cert.pem");
    const QString keyPath = folder + QStringLiteral("/caldav-key.pem");
    QFile certFile(certPath);
    QFile keyFile(keyPath);
    if (certFile.open(QIODevice::ReadOnly) && keyFile.open(QIODevice::ReadOnly)) {
        ServerCertificate existing = fromPem(certFile.readAll(), keyFile.readAll());
        if (existing.isValid())
            return existing;
    }
    ServerCertificate fresh = create(hostName, error);
    if (!fresh.isValid())
        return fresh;
    if (!QDir().mkpath(folder) || !writePrivate(keyPath, fresh.keyPem) || !writePrivate(certPath, fresh.certificatePem)) {
        if (error)
            *error = QStringLiteral("cannot write the certificate into %1").arg(folder);
        return {};
    }
    return fresh;
}

} // namespace nimbrel::publish
