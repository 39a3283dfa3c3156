#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

namespace httplib
{
struct Request;
struct Response;
} // namespace httplib

namespace standin
{

class Server;

// An update feed as a release server publishes it, on a running Server's origin under "/updates/": an appcast
// ("/updates/appcast.xml") and the packages it points at, signed with an Ed25519 key pair made for this feed.
// The Server's faults apply to these paths as to any other (a redirect, a dropped connection).
class UpdateFeed
{
public:
    struct Release {
        Release(const QString &version_, const QByteArray &package_, qint64 length_ = -1,
            const QByteArray &signature_ = {}, const QString &url_ = {})
            : version(version_)
            , package(package_)
            , length(length_)
            , signature(signature_)
            , url(url_)
        {
        }

        QString version;
        QByteArray package; // served as /updates/hourloom_<version>_amd64.deb
        qint64 length = -1; // announced length; negative: the package's real size
        QByteArray signature; // announced base64 signature; empty: the package signed with the feed's key
        QString url; // announced address; empty: the package's address on this server
    };

    explicit UpdateFeed(Server &server); // the server must be started
    ~UpdateFeed(); // stops serving
    UpdateFeed(const UpdateFeed &) = delete;
    UpdateFeed &operator=(const UpdateFeed &) = delete;

    QString feedURL() const;
    QString publicKey() const; // base64 of the raw 32-byte public key
    QByteArray sign(const QByteArray &data) const; // base64 Ed25519 signature

    // Publishes an appcast listing these releases (and serves their packages). `padding` bytes of XML comment
    // make a feed as large as a test needs.
    void publish(const QList<Release> &releases, qint64 padding = 0);
    // Serves `body` as the appcast as it stands (a broken or hostile feed).
    void publishRaw(const QByteArray &body);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

// Answers GET /updates/… for the feed published on `port`; false when the path is not one of its files.
bool answerUpdateFeed(quint16 port, const httplib::Request &req, httplib::Response &res);

} // namespace standin
