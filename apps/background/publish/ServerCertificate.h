#pragma once

// The server's TLS identity: a self-signed ECDSA P-256 certificate made at first start and kept with
// its key in the data folder (mode 0600). Peers pin it by its SHA-256 fingerprint.

#include <QByteArray>
#include <QString>

namespace nimbrel::publish {

struct ServerCertificate
{
    QByteArray certificatePem;
    QByteArray keyPem;
    QString fingerprint; // SHA-256 of the DER certificate, "AB:CD:…" (95 characters)

    bool isValid() const { return !certificatePem.isEmpty() && !keyPem.isEmpty(); }

    // Loads <folder>/caldav-cert.pem and caldav-key.pem, or makes and writes them when they are missing,
    // unreadable, expired or do not belong together. Returns an invalid certificate with *error on failure.
    static ServerCertificate loadOrCreate(const QString& folder, const QString& hostName, QString* error);

    // A fresh certificate in memory (for the host name `hostName`).
    static ServerCertificate create(const QString& hostName, QString* error);
};

} // namespace nimbrel::publish
