#pragma once

#include <QString>

namespace standin
{

// Makes a throw-away certificate authority and a server certificate it signs (subjectAltName IP:127.0.0.1 and
// DNS:localhost, serverAuth) in `directory`: "ca.pem", "cert.pem" and "key.pem" (0600). A client that trusts
// "ca.pem" verifies the server like any public one. Returns an empty string on success, else what failed.
QString makeCertificates(const QString &directory);

} // namespace standin
