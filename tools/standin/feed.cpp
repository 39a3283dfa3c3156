#include "feed.h"

#include "server.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

#include <httplib.h>
#include <openssl/evp.h>

namespace standin
{
namespace
{

struct Files {
    QHash<QString, QPair<QByteArray, QByteArray>> byPath; // path -> (body, content type)
};

QMutex g_mutex;
QHash<quint16, Files> g_feeds; // by server port

using KeyPointer = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

} // namespace

struct UpdateFeed::Private {
    quint16 port = 0;
    QString origin;
    KeyPointer key {nullptr, &EVP_PKEY_free};
};

UpdateFeed::UpdateFeed(Server &server)
    : d(std::make_unique<Private>())
{
    d->port = server.port();
    d->origin = server.origin();
    EVP_PKEY *key = nullptr;
    if (EVP_PKEY_CTX *context = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr)) {
        if (EVP_PKEY_keygen_init(context) == 1)
            EVP_PKEY_keygen(context, &key);
        EVP_PKEY_CTX_free(context);
    }
    d->key.reset(key);
    QMutexLocker lock(&g_mutex);
    g_feeds.insert(d->port, Files {});
}

UpdateFeed::~UpdateFeed()
{
    QMutexLocker lock(&g_mutex);
    g_feeds.remove(d->port);
}

QString UpdateFeed::feedURL() const
{
    return d->origin + QStringLiteral("/updates/appcast.xml");
}

QString UpdateFeed::publicKey() const
{
    QByteArray raw(32, Qt::Uninitialized);
    size_t length = size_t(raw.size());
    if (!d->key
        || EVP_PKEY_get_raw_public_key(d->key.get(), reinterpret_cast<unsigned char *>(raw.data()), &length) != 1)
        return {};
    return QString::fromLatin1(raw.left(qsizetype(length)).toBase64());
}

QByteArray UpdateFeed::sign(const QByteArray &data) const
{
    QByteArray signature(64, Qt::Uninitialized);
    size_t length = size_t(signature.size());
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    const bool ok = context && d->key && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, d->key.get()) == 1
        && EVP_DigestSign(context, reinterpret_cast<unsigned char *>(signature.data()), &length,
               reinterpret_cast<const unsigned char *>(data.constData()), size_t(data.size()))
            == 1;
    EVP_MD_CTX_free(context);
    return ok ? signature.left(qsizetype(length)).toBase64() : QByteArray();
}

void UpdateFeed::publish(const QList<Release> &releases, qint64 padding)
{
    Files files;
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                     "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">\n"
                     "<channel>\n<title>Hourloom</title>\n";
    if (padding > 0)
        xml += "<!-- " + QByteArray(padding, 'x') + " -->\n";
    for (const Release &release : releases) {
        const QString path = QStringLiteral("/updates/hourloom_%1_amd64.deb").arg(release.version);
        files.byPath.insert(path, {release.package, "application/vnd.debian.binary-package"});
        const QString url = release.url.isEmpty() ? d->origin + path : release.url;
        const qint64 length = release.length < 0 ? release.package.size() : release.length;
        const QByteArray signature = release.signature.isEmpty() ? sign(release.package) : release.signature;
        xml += "<item>\n<title>Hourloom " + release.version.toUtf8() + "</title>\n<sparkle:version>"
            + release.version.toUtf8() + "</sparkle:version>\n<enclosure url=\"" + url.toHtmlEscaped().toUtf8()
            + "\" length=\"" + QByteArray::number(length)
            + "\" type=\"application/vnd.debian.binary-package\" sparkle:edSignature=\"" + signature
            + "\"/>\n</item>\n";
    }
    xml += "</channel>\n</rss>\n";
    files.byPath.insert(QStringLiteral("/updates/appcast.xml"), {xml, "application/rss+xml"});
    QMutexLocker lock(&g_mutex);
    g_feeds.insert(d->port, files);
}

void UpdateFeed::publishRaw(const QByteArray &body)
{
    QMutexLocker lock(&g_mutex);
    g_feeds[d->port].byPath.insert(QStringLiteral("/updates/appcast.xml"), {body, "application/rss+xml"});
}

bool answerUpdateFeed(quint16 port, const httplib::Request &req, httplib::Response &res)
{
    QMutexLocker lock(&g_mutex);
    const auto feed = g_feeds.constFind(port);
    if (feed == g_feeds.constEnd() || req.method != "GET")
        return false;
    const auto file = feed->byPath.constFind(QString::fromStdString(req.path));
    if (file == feed->byPath.constEnd())
        return false;
    res.status = 200;
    res.set_content(file->first.toStdString(), file->second.toStdString());
    return true;
}

} // namespace standin
